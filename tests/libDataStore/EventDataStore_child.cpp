// A child process for the event store's multi-process tests. Waits for a start signal (a
// file appearing), then opens the store and records `count` test runs, each with one event
// and a finish, so that several processes work on one file at the same time.
//
//   EventDataStore_child <database> <start-file> <count> <tag>
//
// Exit status 0 on success, 1 when the store threw, 2 on bad arguments or no start signal.

#include <libCommon/Exception.h>
#include <libDataStore/EventDataStore.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

int main(int argc, char** argv) {
    using namespace zrn;
    if (argc != 5) return 2;
    std::string const database = argv[1];
    std::string const startFile = argv[2];
    int const count = std::atoi(argv[3]);
    std::string const tag = argv[4];

    auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (::access(startFile.c_str(), F_OK) != 0) {
        if (std::chrono::steady_clock::now() > deadline) return 2;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    try {
        EventDataStore store{String(database)};
        EventTimePoint const t(EventTimePoint::duration(1700000000));
        auto const app = store.logAppStart("child", tag, "Concurrent", t);
        auto const script =
            store.logScriptStart(*app, "RUNNING", "guid-" + tag, "script", t, 1, "<script/>");
        for (int i = 0; i < count; ++i) {
            auto const test = store.logTestStart(*script, "test", "device", tag, "device-guid",
                                                 "disk", "RUNNING", t, 1);
            if (!test) return 1;
            store.logTestRunEvent(*test, tag, "info", "1", "2", t);
            store.logTestFinished(*test, "PASS", "0", t);
        }
    } catch (Exception const& e) {
        std::fprintf(stderr, "child %s: %s\n", tag.c_str(), e.getMessage().c_str());
        return 1;
    }
    return 0;
}
