// Logs an application run into an event store and reads it back, through the installed
// package only. Usage: consumer [STORE-FILE] (default: ./consumer-event.db).

#include <libCommon/Exception.h>
#include <libDataStore/EventDataStore.h>

#include <ctime>
#include <iostream>

int main(int argc, char** argv) {
    using namespace zrn;
    String const path = argc > 1 ? argv[1] : "consumer-event.db";
    auto at = [](long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); };
    try {
        EventDataStore store(path);
        long long const start = static_cast<long long>(std::time(nullptr));
        boost::optional<long long> const run =
            store.logAppStart("Consumer", "example", "Smoke test", at(start));
        if (!run) {
            std::cerr << "consumer: no id for the application run\n";
            return 1;
        }
        store.logAppStop(*run, at(start + 42));

        String const type = store.getAppTypeOfRun(*run);
        long long const seconds = store.appRunTime(*run);
        std::cout << "application run " << *run << " in " << path << ": type \"" << type << "\", "
                  << seconds << " seconds\n";
        bool const readBack = type == "Smoke test" && seconds == 42 &&
                              store.getAppStartTime(*run).time_since_epoch().count() == start;
        if (!readBack) std::cerr << "consumer: the run did not read back as it was logged\n";
        return readBack ? 0 : 1;
    } catch (Exception const& e) {
        std::cerr << "consumer: " << e.getMessage() << "\n";
        return 1;
    }
}
