// TimeStamp, the store exceptions and the store locations.

#include <gtest/gtest.h>
#include <libCommon/System.h>
#include <libDataStore/DataStore.h>
#include <libDataStore/DataStoreExceptions.h>
#include <libDataStore/DataStoreSettings.h>
#include <libDataStore/TimeStamp.h>

#include <atomic>
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
    TimeStamp const original(42);
    TimeStamp copy = original;
    EXPECT_EQ(copy, original);
    TimeStamp moved = std::move(copy);
    EXPECT_EQ(moved.getUnixTimeStamp(), 42);
    EXPECT_FALSE(copy.isInitialized());  // NOLINT: a moved-from value reads as uninitialised

    test::ScopedEnv zone("TZ", "Europe/Berlin");
    tzset();
    EXPECT_EQ(TimeStamp(1636012987).toDisplayString().str(), "2021/11/04 09:03:07");
    EXPECT_EQ(TimeStamp(1636012987).toLocalTime().toString().str(), "2021-11-04T09:03:07+01:00");
    TimeStamp const now = TimeStamp::getCurrentUTCTimeStamp();
    EXPECT_LE(std::abs(now.getUnixTimeStamp() - static_cast<long long>(std::time(nullptr))), 2);
}

template <class E>
void expectCaughtAsException(char const* text) {
    try {
        throw E(text);
    } catch (Exception const& e) {
        EXPECT_EQ(e.getMessage().str(), text);
        EXPECT_EQ(e.toString().str(), text);
        EXPECT_NE(dynamic_cast<E const*>(&e), nullptr);
        return;
    }
    ADD_FAILURE() << "not caught as Exception";
}

TEST(DataStoreExceptionsTest, EachIsCaughtAsExceptionWithTheThrowersText) {
    expectCaughtAsException<CannotAccessClosedDatabaseException>("closed");
    expectCaughtAsException<IdAlreadyUsedException>("used");
    expectCaughtAsException<IdDoesntExistException>("absent");
    expectCaughtAsException<InvalidColumnNameException>("group");
    expectCaughtAsException<OutOfUniqueIdsException>("No more unique identifiers are available");
    expectCaughtAsException<RowDataMismatchException>("mismatch");
    expectCaughtAsException<ZeroTableColumnsException>("zero");
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
