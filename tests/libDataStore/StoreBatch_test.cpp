// StoreBatch: many store operations as one transaction, read back from the files with raw
// sqlite3; the statements inside and outside a batch from SQLite's own trace.

#include <gtest/gtest.h>
#include <libDataStore/DataStore.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "SqlTrace.h"
#include "TestSupport.h"

namespace zrn {
namespace {

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

class StoreBatchTest : public testing::Test {
protected:
    // A test run with its events, as a test runner records one test.
    static long long recordTest(EventDataStore& store, long long scriptId, int events) {
        long long const id = *store.logTestStart(scriptId, "Memory", "DIMM", "tg", "dg", "Memory",
                                                 "RUNNING", at(100), 1);
        for (int e = 0; e < events; ++e) {
            store.logTestRunEvent(id, "step '" + std::to_string(e) + "'", "INFO", "1000", "",
                                  at(101 + e));
        }
        store.logTestFinished(id, "PASS", "", at(200));
        return id;
    }
    std::string count(std::string const& path, std::string const& table) {
        test::RawDb raw(path, true);
        return raw.scalar("SELECT count(*) FROM `" + table + "`");
    }

    test::TempDir m_dir;
    test::ScopedEnv m_settings{"ZRN_SETTINGS_FILE", m_dir.file("none.ini").c_str()};
    // One lock folder for the whole process: the named mutexes open their lock files once.
    test::ScopedEnv m_locks{"ZRN_LOCK_DIR", lockFolder().c_str()};

    static std::string const& lockFolder() {
        // Removed when the process ends.
        static struct Folder {
            std::string path =
                testing::TempDir() + "zrn-storebatch-locks-" + std::to_string(::getpid());
            ~Folder() {
                std::error_code ignored;
                std::filesystem::remove_all(path, ignored);
            }
        } const folder;
        return folder.path;
    }
    std::string const m_events = m_dir.file("event.db");
};

// The statements of a batch (BEGIN, the operations' own, COMMIT) are the catalogue's.
TEST_F(StoreBatchTest, OneTransactionAndNothingBeforeCommit) {
    EventDataStore store{String(m_events)};
    {
        StoreBatch batch(store);
        recordTest(store, 0, 3);
        // Not in the file yet: another connection sees nothing.
        EXPECT_EQ(count(m_events, "TestRunEvents"), "0");
        EXPECT_EQ(count(m_events, "TestRuns"), "0");
        batch.commit();
        EXPECT_EQ(test::messageOf<DatabaseError>([&] { batch.commit(); }),
                  "SQLite database '" + m_events + "': this batch was committed already");
    }
    EXPECT_EQ(count(m_events, "TestRunEvents"), "3");
    test::RawDb raw(m_events, true);
    EXPECT_EQ(raw.scalar("SELECT `message` FROM `TestRunEvents` WHERE rowid=1"), "step '0'");
    EXPECT_EQ(raw.scalar("SELECT `result` FROM `TestRuns`"), "PASS");
}

TEST_F(StoreBatchTest, OperationsWithTheirOwnTransactionStayAllOrNothingWithTheirMessages) {
    {
        // Every tip insert fails: logAlerts must fail part-way, after its first alert row.
        EventDataStore opening{String(m_events)};
        test::RawDb raw(m_events);
        raw.exec(
            "CREATE TRIGGER no_tips BEFORE INSERT ON `AlertTips` BEGIN "
            "SELECT RAISE(ABORT, 'tips refused'); END;");
    }
    EventDataStore::AlertData alert{1, "g1", "k", "t", "title", "m", "d", at(130), {}, {}};
    alert.keyValues.emplace_back("key", "value");
    alert.tips.emplace_back("tip", "info", "Tip", "text", "", at(130));
    EventDataStore::AlertData plainAlert{1, "g2", "k", "t", "title", "m", "d", at(131), {}, {}};

    std::string const failure = [&] {
        // The same failure outside a batch, for its message.
        EventDataStore store{String(m_events)};
        test::LogCapture log;
        EXPECT_FALSE(store.logAlerts({alert}));
        return log.messagesStartingWith("libDataStore.EventDataStore", "1262 ").at(0);
    }();

    test::SqlTrace trace;
    EventDataStore store{String(m_events)};
    test::LogCapture log;
    trace.clear();
    {
        StoreBatch batch(store);
        recordTest(store, 0, 2);
        EXPECT_FALSE(store.logAlerts({plainAlert, alert}));
        EXPECT_TRUE(store.logAlert(plainAlert));
        batch.commit();
    }
    EXPECT_EQ(log.messagesStartingWith("libDataStore.EventDataStore", "1262 "),
              std::vector<std::string>{failure});
    // The failed call left nothing, the rest of the batch is in the file.
    EXPECT_EQ(count(m_events, "Alerts"), "1");
    EXPECT_EQ(count(m_events, "AlertKeyValues"), "0");
    EXPECT_EQ(count(m_events, "TestRunEvents"), "2");
    auto const nested = trace.startingWith("SAVEPOINT");
    EXPECT_EQ(nested,
              (std::vector<std::string>{"SAVEPOINT transaction_1", "SAVEPOINT transaction_2"}));
    EXPECT_TRUE(trace.contains("ROLLBACK TO transaction_1"));
    EXPECT_TRUE(trace.contains("RELEASE transaction_2"));

    // Outside a batch the store's own texts again.
    trace.clear();
    plainAlert.guid = "g3";
    EXPECT_TRUE(store.logAlert(plainAlert));
    EXPECT_TRUE(trace.startingWith("SAVEPOINT").empty());
    EXPECT_EQ(trace.startingWith("BEGIN"), std::vector<std::string>{"BEGIN"});
    EXPECT_EQ(trace.startingWith("COMMIT"), std::vector<std::string>{"COMMIT"});
}

TEST_F(StoreBatchTest, FailedCommitThrowsAndLeavesNothingAndTheDestructorRollsBack) {
    EventDataStore store{String(m_events)};
    {
        StoreBatch batch(store);
        recordTest(store, 0, 2);
    }  // not committed
    EXPECT_EQ(count(m_events, "TestRuns"), "0");
    EXPECT_EQ(count(m_events, "TestRunEvents"), "0");

    {
        StoreBatch batch(store);
        recordTest(store, 0, 2);
        store.close();  // the connection goes, and with it the open transaction
        EXPECT_EQ(test::messageOf<DatabaseError>([&] { batch.commit(); }),
                  "SQLite database '" + m_events + "': the connection is closed");
    }
    EXPECT_EQ(count(m_events, "TestRuns"), "0");
    EXPECT_FALSE(std::filesystem::exists(m_events + "-journal"));

    // A closed store, a failed opening and a read-only store take no batch, and hold nothing.
    EXPECT_EQ(test::messageOf<DatabaseError>([&] { StoreBatch batch(store); }),
              "SQLite database '" + m_events + "': the connection is closed");
    EventDataStore reader{String(m_events), ReadOnly{}};
    EXPECT_EQ(test::messageOf<DatabaseError>([&] { StoreBatch batch(reader); }),
              "SQLite database '" + m_events + "': opened read-only: refused to write");
    GeneralDataStore broken{String(m_dir.file("missing/genstore.db"))};
    EXPECT_EQ(test::messageOf<DatabaseError>([&] { StoreBatch batch(broken); }),
              "StoreBatch: the store has no database open");
    // The named mutex was let go each time: another process gets it at once.
    EXPECT_EQ(test::runProcess({ZRN_CHILD, "lock", "event_store", m_dir.file("got")}), 0);
}

TEST_F(StoreBatchTest, NestedBatchesTwoStoresCopiesAndOtherProcessesWaiting) {
    EventDataStore store{String(m_events)};
    {
        StoreBatch outer(store);
        recordTest(store, 1, 1);
        {
            StoreBatch inner(store);
            recordTest(store, 2, 1);
            inner.commit();  // kept for the outer batch, not yet in the file
        }
        EXPECT_EQ(count(m_events, "TestRuns"), "0");
        {
            StoreBatch inner(store);
            recordTest(store, 3, 1);
        }  // undoes its own test only
        outer.commit();
    }
    test::RawDb raw(m_events, true);
    EXPECT_EQ(raw.scalar("SELECT group_concat(`scriptId`) FROM `TestRuns`"), "1,2");

    // Two stores at once: two transactions, each ending on its own.
    std::string const general = m_dir.file("genstore.db");
    GeneralDataStore logs{String(general)};
    {
        StoreBatch events(store);
        StoreBatch generic(logs);
        recordTest(store, 4, 1);
        EXPECT_TRUE(logs.logOrUpdate(GenericLog("T", "G", "cat", "sub", 1u, LogKeyValueSet())));
        events.commit();
    }
    EXPECT_EQ(count(m_events, "TestRuns"), "3");
    EXPECT_EQ(count(general, "GenericLog"), "0");

    // An app-state copy shares the connection and joins; an event-store copy has its own and
    // sees the batch's work once it is committed.
    std::string const state = m_dir.file("appstate.db");
    AppStateDataStore items{String(state)};
    {
        AppStateDataStore copy = items;
        StoreBatch batch(items);
        EXPECT_TRUE(copy.insert("k1", "v", "g"));
        EXPECT_FALSE(copy.insert("k1", "again", "g"));  // refused as ever, the batch goes on
        EXPECT_TRUE(items.insert("k2", "v", "g"));
    }
    EXPECT_EQ(count(state, "AppState"), "0");
    // An event-store copy opens a database of its own: the batch neither covers nor holds it.
    EventDataStore copy(store);
    std::string const ready = m_dir.file("locked");
    int child = -1;
    {
        StoreBatch batch(store);
        recordTest(store, 5, 1);
        {
            StoreBatch own(copy);
            EXPECT_EQ(recordTest(copy, 5, 1), 1);
        }
        // Another process that wants the store waits for the batch, commit included.
        child = test::spawnProcess({ZRN_CHILD, "lock", "event_store", ready});
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_FALSE(std::filesystem::exists(ready));
        batch.commit();
        EXPECT_EQ(test::waitProcess(child, 0.2), -1);
        EXPECT_FALSE(std::filesystem::exists(ready));
    }
    EXPECT_EQ(test::waitProcess(child, 10), 0);
    EXPECT_TRUE(std::filesystem::exists(ready));
    EXPECT_EQ(count(m_events, "TestRuns"), "4");
    EXPECT_EQ(test::runProcess({ZRN_CHILD, "lock", "event_store", m_dir.file("again")}), 0);
}

}  // namespace
}  // namespace zrn
