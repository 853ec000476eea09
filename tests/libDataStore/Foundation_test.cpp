// TimeStamp, the store exceptions and the store locations.

#include <gtest/gtest.h>
#include <libCommon/System.h>
#include <libDataStore/DataStoreExceptions.h>
#include <libDataStore/DataStoreSettings.h>
#include <libDataStore/TimeStamp.h>

#include <ctime>

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
}

}  // namespace
}  // namespace zrn
