// The settings file as any bytes: reading it and every look-up the libraries make (sync mode,
// journal mode, log level, log file) give a value or "not set", never a crash or an exception.

#include <libCommon/Logger.h>
#include <libCommon/Resource.h>
#include <libDataStore/SQLiteDataStore.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "FuzzCheck.h"

namespace {

// Silences the warnings an unknown journal mode logs: thousands of runs would drown the output.
class Discard : public zrn::LogSink {
public:
    void write(zrn::String const&, zrn::LoggerPriority::LOGGER_PRIORITY,
               zrn::String const&) override {}
};

// Two files taken in turn: the settings cache knows a file by its path, inode, size and
// modification time, and two writes within one clock tick could look like one version.
std::string settingsFile(bool second) {
    static std::string const base = "/tmp/zrn-fuzz-settings-" + std::to_string(getpid());
    return base + (second ? "-b.ini" : "-a.ini");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static Discard discard;
    static bool const once = [] {
        unsetenv("ZRN_LOG_LEVEL");
        unsetenv("ZRN_LOG_FILE");
        zrn::LogFactory::setSink(&discard);
        // The names made first, so that they outlive the handler that removes the files.
        settingsFile(false);
        std::atexit([] {
            std::remove(settingsFile(false).c_str());
            std::remove(settingsFile(true).c_str());
        });
        return true;
    }();
    (void)once;
    static bool second = false;
    second = !second;
    std::string const path = settingsFile(second);
    if (FILE* out = std::fopen(path.c_str(), "wb")) {
        std::fwrite(data, 1, size, out);
        std::fclose(out);
    }
    setenv("ZRN_SETTINGS_FILE", path.c_str(), 1);

    int const sync = static_cast<int>(zrn::SQLiteDataStore::dbSyncMode());
    FUZZ_CHECK(sync >= 0 && sync <= 2, "sync mode " + std::to_string(sync));
    int const journal = static_cast<int>(zrn::SQLiteDataStore::dbJournalMode());
    FUZZ_CHECK(journal >= zrn::SQLiteDataStore::DELETE && journal <= zrn::SQLiteDataStore::WAL,
               "journal mode " + std::to_string(journal));
    zrn::LogFactory::setPriority(0);  // read the level from the settings again
    int const level = zrn::LogFactory::getPriority();
    FUZZ_CHECK(level >= 1 && level <= 4, "log level " + std::to_string(level));
    zrn::String file;
    if (zrn::Resource::getSetting("log", "file", file, zrn::ZRNLocale::getGlobalLocale()))
        FUZZ_CHECK(file.str().find('\n') == std::string::npos, "a log file name spans lines");
    zrn::String other("unchanged");
    if (!zrn::Resource::getSetting("", "", other, zrn::ZRNLocale::getGlobalLocale()))
        FUZZ_CHECK(other == "unchanged", "a missing setting changed the value");
    std::remove(path.c_str());
    return 0;
}
