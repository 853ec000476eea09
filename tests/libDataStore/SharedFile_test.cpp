// Stores of different families opened on one file: none may leave the file unusable to the
// store that owns it.

#include <gtest/gtest.h>
#include <libDataStore/DataStore.h>

#include <functional>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace {

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

// One store family: opens its store on a file, writes one record there (the n-th), and checks,
// on a reopening, that the file still opens, is valid, carries the family's version and holds
// every record written so far.
struct Family {
    std::string name;
    std::function<void(std::string const&, int)> write;
    std::function<void(std::string const&, int)> verify;
};

std::vector<Family> families() {
    return {
        {"event",
         [](std::string const& path, int n) {
             EventDataStore store{String(path)};
             ASSERT_TRUE(store.logAppStart("App", "user", "Scheduled", at(1000 + n)));
         },
         [](std::string const& path, int n) {
             ASSERT_TRUE(EventDataStore::create(String(path)));
             EventDataStore store{String(path)};
             EXPECT_EQ(store.getVersion(), 3);
             String error;
             EXPECT_TRUE(store.checkValidity(error)) << error;
             test::RawDb raw(path, true);
             EXPECT_EQ(raw.scalar("SELECT count(*) FROM ApplicationRuns"), std::to_string(n));
         }},
        {"general",
         [](std::string const& path, int n) {
             GeneralDataStore store{String(path)};
             ASSERT_TRUE(store.isInitialized());
             LogKeyValueSet values;
             values.append(LogKeyValue("k", "v"));
             ASSERT_TRUE(store.logOrUpdate(
                 GenericLog("T", String("G" + std::to_string(n)), "c", "s", 0u, values)));
         },
         [](std::string const& path, int n) {
             GeneralDataStore store{String(path)};
             ASSERT_TRUE(store.isInitialized());
             EXPECT_EQ(store.getVersion(), 1);
             String error;
             EXPECT_TRUE(store.checkValidity(error)) << error;
             EXPECT_EQ(store.getLogs(GenericLogFilter()).size(), static_cast<std::size_t>(n));
         }},
        {"appstate",
         [](std::string const& path, int n) {
             AppStateDataStore store{String(path)};
             ASSERT_TRUE(store.insert(String("key" + std::to_string(n)), "data", "group"));
         },
         [](std::string const& path, int n) {
             AppStateDataStore store{String(path)};
             String error;
             EXPECT_TRUE(store.checkValidity(error)) << error;
             for (int i = 1; i <= n; ++i) {
                 EXPECT_TRUE(store.contains(String("key" + std::to_string(i)))) << i;
             }
         }},
        {"softwarediag",
         [](std::string const& path, int) {
             SoftwareDiagEventDataStore store{String(path)};
             ASSERT_TRUE(store.logSessionStarted());
         },
         [](std::string const& path, int n) {
             SoftwareDiagEventDataStore store{String(path)};
             EXPECT_EQ(store.getVersion(), 1);
             String error;
             EXPECT_TRUE(store.checkValidity(error)) << error;
             test::RawDb raw(path, true);
             EXPECT_EQ(raw.scalar("SELECT count(*) FROM Sessions"), std::to_string(n));
         }},
    };
}

TEST(SharedFileTest, EveryStoreStillOpensItsFileAfterAnyOtherStoreUsedIt) {
    test::TempDir dir;
    test::ScopedEnv locks("ZRN_LOCK_DIR", dir.path().c_str());
    for (Family const& owner : families()) {
        for (Family const& other : families()) {
            if (other.name == owner.name) continue;
            SCOPED_TRACE(owner.name + " file opened by " + other.name);
            std::string const path = dir.file(owner.name + "-" + other.name + ".db");
            ASSERT_NO_FATAL_FAILURE(owner.write(path, 1));
            ASSERT_NO_FATAL_FAILURE(other.write(path, 1));
            // Twice: the first reopening may repair what the other store changed, the second
            // must find a file its owner left usable.
            ASSERT_NO_FATAL_FAILURE(owner.verify(path, 1));
            ASSERT_NO_FATAL_FAILURE(owner.write(path, 2));
            ASSERT_NO_FATAL_FAILURE(owner.verify(path, 2));
            // And the visitor, too, still finds its own records.
            ASSERT_NO_FATAL_FAILURE(other.verify(path, 1));
        }
    }
}

}  // namespace
}  // namespace zrn
