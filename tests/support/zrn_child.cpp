// A child process for the tests that need several real processes.
//
//   zrn_child log <logger> <priority> <message>        logs one message through the default sink
//   zrn_child count <mutex> <counter file> <n>         n times: lock, read, increment, write,
//   unlock zrn_child hold <mutex> <ready file>                locks, writes the ready file, sleeps
//   forever

#include <libCommon/GlobalMutex.h>
#include <libCommon/Logger.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

int main(int argc, char** argv) {
    using namespace zrn;
    if (argc < 2) return 2;
    std::string const command = argv[1];
    if (command == "log" && argc == 5) {
        Logger* logger = nullptr;
        LogFactory::createLogger(argv[2], logger);
        auto const priority = static_cast<LoggerPriority::LOGGER_PRIORITY>(std::atoi(argv[3]));
        logAt(logger, priority, [&] { return LoggerStream() + argv[4]; });
        return 0;
    }
    if (command == "count" && argc == 5) {
        GlobalMutex mutex(argv[2]);
        int const n = std::atoi(argv[4]);
        for (int i = 0; i < n; ++i) {
            AutoGlobalMutex lock(mutex);
            long value = 0;
            {
                std::ifstream in(argv[3]);
                in >> value;
            }
            // Widen the window in which an unguarded read-modify-write would lose an increment.
            if (i % 16 == 0) ::usleep(200);
            std::ofstream(argv[3], std::ios::trunc) << value + 1;
        }
        return 0;
    }
    if (command == "lock" && argc == 4) {
        // Waits for the mutex, says so in the file, and lets it go.
        GlobalMutex mutex(argv[2]);
        AutoGlobalMutex lock(mutex);
        std::ofstream(argv[3]) << "locked";
        return 0;
    }
    if (command == "hold" && argc == 4) {
        GlobalMutex mutex(argv[2]);
        mutex.lock();
        std::ofstream(argv[3]) << "ready";
        for (;;) ::pause();
    }
    return 2;
}
