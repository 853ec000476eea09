// A store file as untrusted input: the bytes are written to a file, which each of the four
// stores opens read-only, then, on a copy, with its writing constructor; every reader runs on
// both. A result or one of the library's exceptions is fine; a crash, a sanitizer report, an
// abort, any other exception, a hang or unbounded memory is a finding.

#include <libCommon/Exception.h>
#include <libCommon/Logger.h>
#include <libDataStore/DataStore.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "FuzzCheck.h"

namespace {

using namespace zrn;

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

template <class Read>
void tolerant(Read&& read) {
    try {
        read();
    } catch (Exception const&) {
        // DatabaseError or a store exception: the library's answer to a damaged file.
    }
}

void readEvents(EventDataStore& store) {
    String error;
    store.checkValidity(error);
    store.getVersion();
    tolerant([&] { store.firstAlert(); });
    tolerant([&] { store.alertExistsWithKeyVals("guid"); });
    tolerant([&] { store.alertTracked("guid"); });
    tolerant([&] {
        long long const app = store.lastApplicationRunId("");
        store.firstApplicationRunId("");
        store.firstApplicationRun();
        store.lastApplicationRun();
        store.getAppStartTime(app);
        store.getAppEndTime(app);
        store.appRunTime(app);
        store.getAppTypeOfRun(app);
    });
    EventTimePoint const from = at(0), to = at(1LL << 40);
    tolerant([&] {
        for (auto const& script : store.scriptResultLogs({}, {}, {}, {}, {}, 5)) {
            store.scriptRunEventResultLogs(script.scriptId(), from, to, 5);
            store.scriptRunTipResultLogs(script.scriptId(), from, to, 5);
            for (auto const& test : store.testRunResultLogs(script.scriptId(), from, to, 5)) {
                store.testRunEventResultLogs(test.testId(), from, to, 5);
                store.testRunTipResultLogs(test.testId(), from, to, 5);
            }
        }
    });
    tolerant([&] {
        for (auto const& alert : store.alertResultLogs(from, to, "", false, 5)) {
            store.alertTipResultLogs(alert.alertId(), from, to, 5);
            store.alertKeyValueResultLogs(alert.alertId());
        }
    });
    tolerant([&] { store.profilerDiffLogs(from, to, "", 5); });
    tolerant([&] { store.scriptletResultLogs(from, to, "", "", "", 5); });
    tolerant([&] { store.measurementLogs(from, to, "", 5); });
    tolerant([&] { store.getAllFails(from, to); });
    tolerant([&] { store.getRecentFails("device", nullptr, nullptr, to); });
    tolerant([&] { store.prunableBefore(to); });
}

void readGeneral(GeneralDataStore& store) {
    String error;
    store.checkValidity(error);
    store.getVersion();
    tolerant([&] {
        GenericLogList const logs = store.getLogs(GenericLogFilter());
        for (unsigned i = 0; i < logs.size() && i < 3; ++i) {
            GenericLog const log = logs.get(i);
            store.getLogs(GenericLogFilter(log.typeUUID(), log.guid()));
            (void)log.toString();
        }
    });
    tolerant([&] { store.prunableBefore(TimeStamp(1LL << 40)); });
}

void readAppState(AppStateDataStore& store) {
    String error;
    store.checkValidity(error);
    tolerant([&] {
        for (auto const& item : store.getItems("")) {
            store.data(item.first);
            store.contains(item.first);
            store.entryTime(item.first);
            store.group(item.first);
        }
        store.count("");
    });
}

void readSoftwareDiag(SoftwareDiagEventDataStore& store) {
    String error;
    store.checkValidity(error);
    store.getVersion();
    TimeStamp const from(0), to(1LL << 40);
    tolerant([&] {
        SessionList const sessions = store.getSessions(from, to, true, 5);
        for (unsigned i = 0; i < sessions.size(); ++i) {
            SessionLog const session = sessions.get(i);
            store.getIssuesBySession(session, false, 5);
            store.getFixActionsBySession(session, false, 5);
            // The single-record getters stop the process when nothing matches (their
            // contract): they are asked only after the matching "has".
            if (store.sessionHasRunTransaction(session)) {
                RunTransactionLog const run = store.getRunTransactionBySession(session);
                store.getSoftwareDiagnosticsByRunTransaction(run, false, 5);
            }
            if (store.sessionHasFixTransaction(session)) store.getFixTransactionBySession(session);
        }
    });
    tolerant([&] { store.getLastSessionLog(); });
    tolerant([&] { store.getRunTransactionsByDate(from, to, false, 5); });
    tolerant([&] { store.getFixTransactionsByDate(from, to, false, 5); });
    tolerant([&] {
        SoftwareDiagnosticList const diagnostics =
            store.getSoftwareDiagnosticsByDate(from, to, false, 5);
        for (unsigned i = 0; i < diagnostics.size(); ++i) {
            store.getIssuesBySoftwareDiagnostic(diagnostics.get(i), false, 5);
        }
    });
    tolerant([&] {
        if (store.restorePointHasFixTransaction("uuid"))
            store.getFixTransactionByRestorePointUuid("uuid");
    });
    tolerant([&] { store.prunableBefore(to); });
}

// Read-only first, then with the writing constructor on a fresh copy, which it may upgrade;
// a prune then writes to the hostile file too.
template <class Store, class Read, class Prune>
void both(std::string const& original, std::string const& copy, Read&& read, Prune&& prune) {
    tolerant([&] {
        ReadOnly options;
        options.wait = std::chrono::milliseconds(0);
        Store store(String(original), options);
        read(store);
    });
    std::remove(copy.c_str());
    std::remove((copy + "-journal").c_str());
    tolerant([&] {
        FILE* in = std::fopen(original.c_str(), "rb");
        FILE* out = std::fopen(copy.c_str(), "wb");
        for (int c; (c = std::fgetc(in)) != EOF;) std::fputc(c, out);
        std::fclose(in);
        std::fclose(out);
        Store store{String(copy)};
        read(store);
        prune(store);
    });
}

class Discard : public LogSink {
public:
    void write(String const&, LoggerPriority::LOGGER_PRIORITY, String const&) override {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static Discard discard;
    // In memory when there is /dev/shm, and without fsync: the same code runs, many times
    // faster than with a disk's syncs, which the hostile bytes never reach.
    static std::string const base =
        std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/zrn-fuzz-store-" +
        std::to_string(getpid());
    static bool const once = [] {
        LogFactory::setSink(&discard);
        std::string const settings = base + ".ini";
        FILE* out = std::fopen(settings.c_str(), "w");
        std::fputs("[libDataStore]\nSQLiteDataStore.SyncMode=OFF\n", out);
        std::fclose(out);
        setenv("ZRN_SETTINGS_FILE", settings.c_str(), 1);
        std::atexit([] {
            for (char const* suffix :
                 {".ini", ".db", ".db-journal", ".db-wal", ".db-shm", "-copy.db",
                  "-copy.db-journal", "-copy.db-wal", "-copy.db-shm"})
                std::remove((base + suffix).c_str());
        });
        return true;
    }();
    (void)once;
    std::string const original = base + ".db", copy = base + "-copy.db";
    std::remove((original + "-journal").c_str());
    std::remove((original + "-wal").c_str());
    std::remove((copy + "-wal").c_str());
    FILE* out = std::fopen(original.c_str(), "wb");
    std::fwrite(data, 1, size, out);
    std::fclose(out);

    both<EventDataStore>(original, copy, readEvents,
                         [](EventDataStore& s) { s.pruneBefore(at(1000)); });
    both<GeneralDataStore>(original, copy, readGeneral,
                           [](GeneralDataStore& s) { s.pruneBefore(TimeStamp(1000)); });
    both<AppStateDataStore>(original, copy, readAppState, [](AppStateDataStore& s) {
        s.insert("key", "value", "group");
        s.remove("key");
    });
    both<SoftwareDiagEventDataStore>(
        original, copy, readSoftwareDiag,
        [](SoftwareDiagEventDataStore& s) { s.pruneBefore(TimeStamp(1000)); });
    return 0;
}
