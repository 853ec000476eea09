// TimeStamp and the store locations.

#include <gtest/gtest.h>
#include <libCommon/System.h>
#include <libDataStore/DataStore.h>
#include <libDataStore/DataStoreSettings.h>
#include <libDataStore/TimeStamp.h>

#include <atomic>
#include <climits>
#include <ctime>
#include <filesystem>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace {

TEST(TimeStampTest, InitialisationEqualityAndDisplay) {
    EXPECT_FALSE(TimeStamp().isInitialized());
    EXPECT_TRUE(TimeStamp(0).isInitialized());
    EXPECT_EQ(TimeStamp(0).getUnixTimeStamp(), 0);
    EXPECT_EQ(TimeStamp::fromUnixTimeStamp(1636012987).getUnixTimeStamp(), 1636012987);
    EXPECT_EQ(TimeStamp(1636012987), TimeStamp::fromUnixTimeStamp(1636012987));
    EXPECT_NE(TimeStamp(1636012987), TimeStamp(1636012988));
    EXPECT_NE(TimeStamp(), TimeStamp(0));

    test::ScopedEnv zone("TZ", "Europe/Berlin");
    tzset();
    EXPECT_EQ(TimeStamp(1636012987).toDisplayString().str(), "2021/11/04 09:03:07");
    EXPECT_EQ(TimeStamp(1636012987).toLocalTime().toString().str(), "2021-11-04T09:03:07+01:00");
    TimeStamp const now = TimeStamp::getCurrentUTCTimeStamp();
    EXPECT_LE(std::abs(now.getUnixTimeStamp() - static_cast<long long>(std::time(nullptr))), 2);
}

// Values near 1970 are held in the handle's word, values beyond 2^60 seconds on the heap with a
// count: both must read back whole, keep their kind, survive copies, assignments and moves,
// and free the shared value with the last owner (checked under the sanitizer builds).
TEST(TimeStampTest, EveryInstantAndKindSurvivesCopiesAndMoves) {
    test::ScopedEnv zone("TZ", "Europe/Berlin");
    tzset();
    long long const limit = 1LL << 60;
    for (long long seconds : {0LL, -1LL, 1LL, -1636012987LL, limit - 1, -limit, limit, -limit - 1,
                              LLONG_MAX, LLONG_MIN}) {
        TimeStamp const utc(seconds);
        EXPECT_EQ(utc.getUnixTimeStamp(), seconds);
        TimeStamp local = utc.toLocalTime();
        EXPECT_EQ(local, utc);
        EXPECT_EQ(local.getUnixTimeStamp(), seconds);
        if (seconds > -100000000000LL && seconds < 100000000000LL) {  // real dates only
            EXPECT_EQ(utc.toString(), DateTime::fromUnixTimeStamp(seconds).toString());
            EXPECT_EQ(local.toString(),
                      DateTime::fromUnixTimeStamp(seconds).toLocalTime().toString());
            EXPECT_NE(local.toString(), utc.toString());
        }
        TimeStamp copy = local;
        TimeStamp assigned(7);
        assigned = copy;
        assigned = assigned;  // NOLINT: self-assignment keeps the value
        EXPECT_EQ(assigned.getUnixTimeStamp(), seconds);
        TimeStamp moved = std::move(copy);
        EXPECT_FALSE(copy.isInitialized());  // NOLINT: moved from
        EXPECT_EQ(moved.getUnixTimeStamp(), seconds);
        local = std::move(moved);
        EXPECT_FALSE(moved.isInitialized());  // NOLINT: moved from
        EXPECT_EQ(local.getUnixTimeStamp(), seconds);
        EXPECT_NE(TimeStamp(seconds ^ 1), utc);
    }
    EXPECT_EQ(TimeStamp(DateTime()), TimeStamp());
    EXPECT_EQ(TimeStamp(DateTime("2020-05-06T10:00:00+02:00")).toString(),
              DateTime("2020-05-06T10:00:00+02:00").toString());
}

TEST(DataStoreSettingsTest, FoldersDefaultToTheApplicationDirectoryAndChangeOneByOne) {
    // Set before any getter of that store ran: the folder given stays.
    DataStoreSettings::setScriptletDataStorePath("/srv/scriptlets");
    EXPECT_EQ(DataStoreSettings::scriptletDataStorePath().str(), "/srv/scriptlets");
    EXPECT_EQ(DataStoreSettings::scriptletDataStoreFilePath().str(),
              "/srv/scriptlets/scriptlet.db");

    std::string const folder = System::getApplicationDirectory().str() + "/datastore";
    EXPECT_EQ(DataStoreSettings::eventDataStorePath().str(), folder);
    EXPECT_EQ(DataStoreSettings::eventDataStoreFilePath().str(), folder + "/event.db");
    EXPECT_EQ(DataStoreSettings::profilerDataStoreFilePath().str(), folder + "/profiler.db");
    EXPECT_EQ(DataStoreSettings::appStateDataStoreFilePath().str(), folder + "/appstate.db");
    EXPECT_EQ(DataStoreSettings::softwareDiagEventDataStoreFilePath().str(),
              folder + "/softwarediagevent.db");

    String const& general = DataStoreSettings::generalDataStoreFilePath();
    EXPECT_EQ(general.str(), folder + "/genstore.db");
    DataStoreSettings::setGeneralDataStorePath("/var/lib/zrn");
    EXPECT_EQ(DataStoreSettings::generalDataStoreFilePath().str(), "/var/lib/zrn/genstore.db");
    EXPECT_EQ(general.str(), "/var/lib/zrn/genstore.db");  // the earlier reference follows
    EXPECT_EQ(DataStoreSettings::eventDataStoreFilePath().str(), folder + "/event.db");

    EXPECT_EQ(DataStoreSettings::generalDataStorePath().str(), "/var/lib/zrn");
    for (auto getter :
         {DataStoreSettings::softwareDiagEventDataStorePath,
          DataStoreSettings::appStateDataStorePath, DataStoreSettings::profilerDataStorePath}) {
        EXPECT_EQ(getter().str(), folder);
    }
    DataStoreSettings::setProfilerDataStorePath("/srv/profiles");
    DataStoreSettings::setSoftwareDiagEventDataStorePath("/srv/diag/");
    EXPECT_EQ(DataStoreSettings::profilerDataStorePath().str(), "/srv/profiles");
    EXPECT_EQ(DataStoreSettings::profilerDataStoreFilePath().str(), "/srv/profiles/profiler.db");
    EXPECT_EQ(DataStoreSettings::softwareDiagEventDataStoreFilePath().str(),
              "/srv/diag/softwarediagevent.db");
    EXPECT_EQ(DataStoreSettings::appStateDataStoreFilePath().str(), folder + "/appstate.db");
}

// Default openings on some threads while others move the folders: every store opens a file in
// one of the folders set, whole. Meant for ThreadSanitizer as much as for the normal build.
TEST(DataStoreSettingsTest, DefaultOpeningsRaceWithNoSetter) {
    test::TempDir dir;
    test::ScopedEnv locks("ZRN_LOCK_DIR", dir.path().c_str());
    std::string const folders[] = {dir.file("first-folder-with-a-long-name-beyond-small-strings"),
                                   dir.file("second")};
    for (auto const& folder : folders) std::filesystem::create_directory(folder);
    auto setAll = [](std::string const& folder) {
        DataStoreSettings::setEventDataStorePath(String(folder));
        DataStoreSettings::setGeneralDataStorePath(String(folder));
        DataStoreSettings::setAppStateDataStorePath(String(folder));
        DataStoreSettings::setSoftwareDiagEventDataStorePath(String(folder));
    };
    setAll(folders[0]);

    std::atomic<bool> done{false};
    std::thread setter([&] {
        for (unsigned i = 0; !done; ++i) setAll(folders[i % 2]);
    });
    std::vector<std::thread> openers;
    for (int t = 0; t < 2; ++t) {
        openers.emplace_back([] {
            for (int i = 0; i < 8; ++i) {
                EXPECT_TRUE(EventDataStore::create());
                EXPECT_TRUE(AppStateDataStore::create());
                EXPECT_TRUE(GeneralDataStore().isInitialized());
                SoftwareDiagEventDataStore store;
                EXPECT_EQ(store.getVersion(), 1);
            }
        });
    }
    for (auto& opener : openers) opener.join();
    done = true;
    setter.join();

    // Nothing but the stores' files (and SQLite's journals) in the two folders, nowhere else.
    for (auto const& entry : std::filesystem::recursive_directory_iterator(dir.path())) {
        if (entry.is_directory()) continue;
        std::string const path = entry.path().string();
        std::string const name = entry.path().filename().string();
        if (name.size() > 5 && name.substr(name.size() - 5) == ".lock") continue;
        bool const inAFolder =
            entry.path().parent_path() == folders[0] || entry.path().parent_path() == folders[1];
        bool const aStore = name.rfind("event.db", 0) == 0 || name.rfind("genstore.db", 0) == 0 ||
                            name.rfind("appstate.db", 0) == 0 ||
                            name.rfind("softwarediagevent.db", 0) == 0;
        EXPECT_TRUE(inAFolder && aStore) << path;
    }
    setAll(System::getApplicationDirectory().str() + "/datastore");
}

}  // namespace
}  // namespace zrn
