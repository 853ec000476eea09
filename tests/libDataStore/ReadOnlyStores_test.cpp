// The four stores opened with ReadOnly: they read existing files without changing a byte,
// refuse what is not theirs, never wait on the named mutexes and wait for a writer only as
// long as they are told.

#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libDataStore/DataStore.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace {

using Clock = std::chrono::steady_clock;

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

class ReadOnlyStoresTest : public ::testing::Test {
protected:
    void SetUp() override {
        EventDataStore events{String(m_events)};
        long long const app = *events.logAppStart("app", "user", "run", at(100));
        long long const script =
            *events.logScriptStart(app, "PASS", "sg", "script", at(100), 1, "<script/>");
        long long const test =
            *events.logTestStart(script, "memory", "dev", "tg", "dg", "type", "FAIL", at(110), 1);
        events.logTestFinished(test, "FAIL", "E1", at(120));
        ASSERT_TRUE(events.logAlert(
            EventDataStore::AlertData{app, "g1", "k", "t", "title", "m", "d", at(130), {}, {}}));

        GeneralDataStore general{String(m_general)};
        LogKeyValueSet keyValues;
        keyValues.append(LogKeyValue("a", "1"));
        ASSERT_TRUE(general.logOrUpdate(GenericLog("T", "G", "cat", "sub", 1u, keyValues)));

        AppStateDataStore state{String(m_state)};
        ASSERT_TRUE(state.insert("key", "data", "group"));

        SoftwareDiagEventDataStore repair{String(m_repair)};
        ASSERT_TRUE(repair.logSessionStarted());
    }

    test::TempDir m_dir;
    std::string const m_events = m_dir.file("event.db");
    std::string const m_general = m_dir.file("genstore.db");
    std::string const m_state = m_dir.file("appstate.db");
    std::string const m_repair = m_dir.file("softwarediagevent.db");
};

TEST_F(ReadOnlyStoresTest, ServeTheirQueriesRefuseWritesAndLeaveEveryByteAndMtime) {
    auto const before = test::snapshot(m_dir.path());
    test::LogCapture log;
    {
        EventDataStore events{String(m_events), ReadOnly{}};
        EXPECT_EQ(events.getVersion(), 3);
        String error;
        EXPECT_TRUE(events.checkValidity(error)) << error;
        EXPECT_EQ(events.getAllFails(EventTimePoint(), EventTimePoint()).size(), 1u);
        EXPECT_EQ(events.getRecentFails("dg", nullptr, nullptr, at(200)).size(), 1u);
        EXPECT_TRUE(events.alertExists("g1"));
        EXPECT_EQ(events.appRunTime(1), -100);
        EXPECT_EQ(test::messageOf([&] { events.logAppStart("x", "y", "z", at(1)); }),
                  "SQLite database '" + m_events + "': opened read-only: refused to write");
        EXPECT_THROW(events.markAlertAsTracked("g1"), DatabaseError);
        EXPECT_FALSE(events.logAlert(
            EventDataStore::AlertData{1, "g2", "k", "t", "title", "m", "d", at(1), {}, {}}));

        GeneralDataStore general{String(m_general), ReadOnly{}};
        EXPECT_EQ(general.getVersion(), 1);
        GenericLogList const logs = general.getLogs(GenericLogFilter("T", "G"));
        ASSERT_EQ(logs.size(), 1u);
        EXPECT_EQ(logs.get(0).keyValues().size(), 1u);
        EXPECT_FALSE(general.logOrUpdate(GenericLog("T", "H", "", "", 0u, LogKeyValueSet())));
        EXPECT_EQ(log.messagesStartingWith("libDataStore.GeneralDataStore", "651 ").at(0),
                  "651 SQLite database '" + m_general + "': opened read-only: refused to write");

        AppStateDataStore state{String(m_state), ReadOnly{}};
        EXPECT_EQ(state.data("key"), "data");
        EXPECT_EQ(state.count(""), 1);
        EXPECT_FALSE(state.insert("other", "data", ""));
        EXPECT_FALSE(state.remove("key"));
        // A copy shares the reader and its connection.
        AppStateDataStore const copy = state;
        EXPECT_EQ(copy.group("key"), "group");

        SoftwareDiagEventDataStore repair{String(m_repair), ReadOnly{}};
        EXPECT_EQ(repair.getVersion(), 1);
        EXPECT_EQ(repair.getSessions(TimeStamp(), TimeStamp(), true, 0).size(), 1u);
        EXPECT_THROW(repair.logSessionStarted(), DatabaseError);
    }
    // Not one byte, not one mtime, and no journal or other file left behind.
    EXPECT_EQ(test::snapshot(m_dir.path()), before);

    // The default opening is untouched: it still completes and writes the file.
    { EventDataStore writer{String(m_events)}; }
    EXPECT_NE(test::snapshot(m_dir.path()).at("event.db").second, before.at("event.db").second);
}

TEST_F(ReadOnlyStoresTest, RefuseMissingFilesAndFilesOfAnotherStoreCreatingNothing) {
    std::string const missing = m_dir.file("missing.db");
    EXPECT_EQ(test::messageOf([&] { EventDataStore store(String(missing), ReadOnly{}); }),
              "SQLite database '" + missing + "': no such file");
    EXPECT_EQ(
        test::messageOf([&] { GeneralDataStore store(String(m_events), ReadOnly{}); }),
        "SQLite database '" + m_events + "': not a store of this kind: table `Version` is missing");
    EXPECT_EQ(
        test::messageOf([&] { SoftwareDiagEventDataStore store(String(m_state), ReadOnly{}); }),
        "SQLite database '" + m_state +
            "': not a store of this kind: table `Versioning` is missing");
    {
        // An older file lacking a column is refused rather than upgraded.
        test::RawDb raw(m_events);
        raw.exec("ALTER TABLE `TestRuns` DROP COLUMN `errorCode`");
    }
    EXPECT_EQ(test::messageOf([&] { EventDataStore store(String(m_events), ReadOnly{}); }),
              "SQLite database '" + m_events +
                  "': not a store of this kind: table `TestRuns` lacks the column `errorCode`");

    // The app-state store keeps its policy: the failure is logged and the object has no table.
    test::LogCapture log;
    AppStateDataStore state{String(missing), ReadOnly{}};
    EXPECT_EQ(log.messagesStartingWith("libDataStore.AppStateDataStore", "122 ").at(0),
              "122 Failure creating AppStateDataStore at path: '" + missing +
                  "': SQLite database '" + missing + "': no such file");
    String error;
    EXPECT_FALSE(state.checkValidity(error));
    EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST_F(ReadOnlyStoresTest, TakeNoNamedMutexAndWaitForAWriterOnlyAsLongAsTold) {
    std::string const lockDir = m_dir.file("locks");
    std::filesystem::create_directories(lockDir);
    test::ScopedEnv env("ZRN_LOCK_DIR", lockDir.c_str());
    test::MutexHolder holder(ZRN_CHILD, "event_store", m_dir.file("ready"));
    {
        // Another process holds "event_store" for good: a reader does not care.
        EventDataStore events{String(m_events), ReadOnly{}};
        EXPECT_TRUE(events.alertExists("g1"));
    }
    holder.release();

    ReadOnly shortWait;
    shortWait.wait = std::chrono::milliseconds(300);
    EventDataStore reader{String(m_events), shortWait};
    test::RawDb writer(m_events);
    writer.exec("BEGIN EXCLUSIVE");
    std::string const locked =
        "SQLite database '" + m_events + "': locked by another program (gave up waiting)";
    for (auto const& attempt : std::vector<std::function<void()>>{
             [&] { EventDataStore store(String(m_events), shortWait); },
             [&] { reader.alertExists("g1"); }}) {
        auto const start = Clock::now();
        EXPECT_EQ(test::messageOf(attempt), locked);
        auto const waited = Clock::now() - start;
        EXPECT_GE(waited, std::chrono::milliseconds(250));
        EXPECT_LT(waited, std::chrono::seconds(3));
    }

    // An immutable opening takes no lock at all: meant for copies nobody writes. It goes
    // through a URI, so characters that mean something there stay part of the path.
    ReadOnly evidence;
    evidence.immutable = true;
    EventDataStore copy{String(m_events), evidence};
    EXPECT_TRUE(copy.alertExists("g1"));
    std::string const odd = m_dir.file("case 7?#%41");
    std::filesystem::create_directories(odd);
    std::filesystem::copy_file(m_events, odd + "/event.db");
    EventDataStore oddCopy{String(odd + "/event.db"), evidence};
    EXPECT_TRUE(oddCopy.alertExists("g1"));
    writer.exec("ROLLBACK");
    EXPECT_TRUE(reader.alertExists("g1"));
}

TEST_F(ReadOnlyStoresTest, ReadWalFilesAndSayWhenAHotJournalBlocksReading) {
    {
        test::RawDb raw(m_general);
        EXPECT_EQ(raw.scalar("PRAGMA journal_mode=WAL"), "wal");
    }
    {
        GeneralDataStore general{String(m_general), ReadOnly{}};
        EXPECT_EQ(general.getLogs(GenericLogFilter("T", "G")).size(), 1u);
    }

    // A writer that dies in the middle of a transaction leaves a hot journal: pages already
    // spilled to the file, their old content in the journal.
    pid_t const child = ::fork();
    if (child == 0) {
        sqlite3* db = nullptr;
        sqlite3_open(m_events.c_str(), &db);
        sqlite3_exec(db,
                     "PRAGMA cache_size=1; BEGIN; "
                     "INSERT INTO `TestRunEvents` (`message`) "
                     "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<2000) "
                     "SELECT hex(randomblob(200)) FROM n;",
                     nullptr, nullptr, nullptr);
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(std::filesystem::exists(m_events + "-journal"));
    EXPECT_EQ(test::messageOf([&] { EventDataStore store(String(m_events), ReadOnly{}); }),
              "SQLite database '" + m_events +
                  "': has a hot journal left by a writer that stopped mid-write; it cannot be "
                  "read until a program with write access rolls it back");
    // A writer rolls it back, after which readers see the state before the dead transaction.
    { EventDataStore writer{String(m_events)}; }
    EventDataStore events{String(m_events), ReadOnly{}};
    EXPECT_EQ(events.getAllFails(EventTimePoint(), EventTimePoint()).size(), 1u);
}

}  // namespace
}  // namespace zrn
