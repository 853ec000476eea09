#include <gtest/gtest.h>
#include <libDataStore/GeneralDataStore.h>
#include <libDataStore/GeneralRecords.h>

#include <ctime>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace {

std::vector<std::string> keysOf(LogKeyValueSet const& set) {
    std::vector<std::string> keys;
    for (unsigned int i = 0; i < set.size(); ++i) keys.push_back(set.get(i).key().str());
    return keys;
}

TEST(GeneralRecordsTest, KeyValueSetIsUniqueByKeyAndUpdateMovesTheKeyToTheEnd) {
    LogKeyValueSet set;
    EXPECT_TRUE(set.append(LogKeyValue("a", "1")));
    EXPECT_FALSE(set.append(LogKeyValue("a", "other")));
    EXPECT_FALSE(set.append(LogKeyValue("", "no key")));
    EXPECT_EQ(set.size(), 1u);
    EXPECT_TRUE(set.append(LogKeyValue("b", "2")));
    EXPECT_TRUE(set.append(LogKeyValue("c", "3")));

    String value = "untouched";
    EXPECT_TRUE(set.getKeyValue("a", value));
    EXPECT_EQ(value.str(), "1");
    value = "untouched";
    EXPECT_FALSE(set.getKeyValue("missing", value));
    EXPECT_EQ(value.str(), "untouched");

    set.get(0).setTracked();
    EXPECT_TRUE(set.updateKeyValue("a", "x"));
    EXPECT_EQ(keysOf(set), (std::vector<std::string>{"b", "c", "a"}));
    EXPECT_EQ(set.get(2).value().str(), "x");
    EXPECT_FALSE(set.get(2).tracked());
    EXPECT_FALSE(set.get(2).updateUTCTimeStamp().isInitialized());
    EXPECT_FALSE(set.updateKeyValue("missing", "y"));
    EXPECT_EQ(keysOf(set), (std::vector<std::string>{"b", "c", "a"}));

    // Copies never share storage, in either direction.
    LogKeyValueSet copy(set);
    copy.get(0).setTracked();
    copy.append(LogKeyValue("d", "4"));
    EXPECT_FALSE(set.get(0).tracked());
    EXPECT_EQ(set.size(), 3u);
    LogKeyValueSet assigned;
    assigned = copy;
    assigned = assigned;
    copy.updateKeyValue("b", "changed");
    EXPECT_EQ(keysOf(assigned), (std::vector<std::string>{"b", "c", "a", "d"}));
    EXPECT_TRUE(assigned.get(0).tracked());
    EXPECT_TRUE(assigned.getKeyValue("b", value));
    EXPECT_EQ(value.str(), "2");
}

TEST(GeneralRecordsTest, NewLogIsCreatedNowAndTrackingAlwaysMarksTheLog) {
    LogKeyValueSet kvs;
    kvs.append(LogKeyValue("a", "1"));
    kvs.append(LogKeyValue("b", "2"));
    long long const before = std::time(nullptr);
    GenericLog log("T", "G", "cat", "sub", 7u, kvs);
    long long const after = std::time(nullptr);
    EXPECT_GE(log.creationUTCTimeStamp().getUnixTimeStamp(), before);
    EXPECT_LE(log.creationUTCTimeStamp().getUnixTimeStamp(), after);
    EXPECT_FALSE(log.updateUTCTimeStamp().isInitialized());
    EXPECT_FALSE(log.tracked());

    GenericLog copy = log;
    copy.setTracked(false);
    EXPECT_TRUE(copy.tracked());
    EXPECT_FALSE(copy.keyValues().get(0).tracked());
    EXPECT_FALSE(copy.keyValues().get(1).tracked());
    copy.setTracked(true);
    EXPECT_TRUE(copy.keyValues().get(0).tracked());
    EXPECT_TRUE(copy.keyValues().get(1).tracked());
    EXPECT_FALSE(log.tracked());
    EXPECT_FALSE(log.keyValues().get(0).tracked());
}

// Text of `seconds` in local time, as the records display it, computed with the C library.
std::string localDisplay(long long seconds) {
    std::time_t const t = static_cast<std::time_t>(seconds);
    std::tm tm{};
    localtime_r(&t, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y/%m/%d %H:%M:%S", &tm);
    return text;
}

TEST(GeneralRecordsTest, ToStringOfANewLogShowsLocalTimesAndEndsAfterTrackedWithoutKeyValues) {
    test::ScopedEnv tz("TZ", "XYZ-3");
    long long const before = std::time(nullptr);
    GenericLog log("type", "guid", "cat", "sub", 255u, LogKeyValueSet());
    std::string const head =
        "GenericLog:\n"
        "   typeUUID:                 type\n"
        "   category:                 cat\n"
        "   subCategory:              sub\n"
        "   guid:                     guid\n"
        "   creationTimeStamp(local): ";
    std::string const tail =
        "\n"
        "   updateTimeStamp(local):   1970/01/01 03:00:00\n"
        "   flags:                    000000FFh\n"
        "   tracked:                  NO\n";
    std::string const text = log.toString().str();
    long long const created = log.creationUTCTimeStamp().getUnixTimeStamp();
    EXPECT_GE(created, before);
    EXPECT_EQ(text, head + localDisplay(created) + tail);
}

// Logs whose every field is known: written with raw sqlite3, read back through the store.
class StoredLogsTest : public ::testing::Test {
protected:
    StoredLogsTest() {
        raw.exec(
            "INSERT INTO GenericLog (rowid,typeUUID,guid,category,subCategory,creationTimeStamp,"
            "updateTimeStamp,tracked,flags) VALUES"
            "(1,'T','one','cat','sub',1636016587,1636016647,1,255),"
            "(2,'T','two','','',0,0,0,4294967295),"
            "(3,'T','three','c','s',1636016587,1636016587,2,0);"
            "INSERT INTO KeyValues (setID,key,value,tracked,updateTimeStamp) VALUES"
            "(1,'ab','1',0,1636016647),(1,'c','long value',1,1636016647),"
            "(3,'k1','v',0,0),(3,'k2','',5,1636016587);");
    }

    GenericLog stored(char const* guid) {
        GenericLogList const logs = store.getLogs(GenericLogFilter("T", guid));
        EXPECT_EQ(logs.size(), 1u);
        return logs.get(0);
    }

    test::TempDir dir;
    std::string path = dir.file("genstore.db");
    GeneralDataStore store{String(path)};
    test::RawDb raw{path};
};

TEST_F(StoredLogsTest, ToStringLaysOutTheKeyValueTableWithTheFittingRule) {
    test::ScopedEnv tz("TZ", "XYZ-3");
    // K = 2 is too narrow for the marker: the keys stay unpadded, "c" included.
    EXPECT_EQ(stored("one").toString().str(),
              "GenericLog:\n"
              "   typeUUID:                 T\n"
              "   category:                 cat\n"
              "   subCategory:              sub\n"
              "   guid:                     one\n"
              "   creationTimeStamp(local): 2021/11/04 12:03:07\n"
              "   updateTimeStamp(local):   2021/11/04 12:04:07\n"
              "   flags:                    000000FFh\n"
              "   tracked:                  YES\n"
              "   Key-Values:\n"
              "      Key Value       Tracked  Last Update\n"
              "      --  ----------  -------  -------------------  \n"
              "      ab  1           NO       2021/11/04 12:04:07\n"
              "      c  long value  YES      2021/11/04 12:04:07\n");

    // V = 1 cuts the "Value" heading down to the marker alone; an empty value is not padded.
    std::string const three = stored("three").toString().str();
    std::string const table =
        "   Key-Values:\n"
        "      Key ...Tracked  Last Update\n"
        "      --  -  -------  -------------------  \n"
        "      k1  v  NO       1970/01/01 03:00:00\n"
        "      k2    YES      2021/11/04 12:03:07\n";
    ASSERT_GE(three.size(), table.size());
    EXPECT_EQ(three.substr(three.size() - table.size()), table);
    EXPECT_NE(three.find("   tracked:                  YES\n"), std::string::npos);
}

TEST_F(StoredLogsTest, FieldsReadBackFromTheirColumns) {
    GenericLog const two = stored("two");
    EXPECT_EQ(two.flags(), 4294967295u);
    EXPECT_FALSE(two.tracked());
    EXPECT_EQ(two.keyValues().size(), 0u);
    EXPECT_TRUE(two.creationUTCTimeStamp().isInitialized());
    EXPECT_EQ(two.creationUTCTimeStamp().getUnixTimeStamp(), 0);

    GenericLog const three = stored("three");
    EXPECT_TRUE(three.tracked());  // any non-zero value counts
    EXPECT_EQ(three.category().str(), "c");
    EXPECT_EQ(three.subCategory().str(), "s");
    ASSERT_EQ(three.keyValues().size(), 2u);
    EXPECT_FALSE(three.keyValues().get(0).tracked());
    EXPECT_TRUE(three.keyValues().get(1).tracked());
    EXPECT_EQ(three.keyValues().get(1).updateUTCTimeStamp().getUnixTimeStamp(), 1636016587);
    EXPECT_EQ(three.updateUTCTimeStamp().getUnixTimeStamp(), 1636016587);
}

}  // namespace
}  // namespace zrn
