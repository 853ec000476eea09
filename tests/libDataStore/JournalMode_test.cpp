// The journal mode of the store files: read from the settings at every opening, left alone
// by default, and a WAL file read correctly by the read-only stores and by plain SQLite.

#include <gtest/gtest.h>
#include <libCommon/ResultSet.h>
#include <libDataStore/DataStore.h>

#include <filesystem>
#include <string>
#include <vector>

#include "SqlTrace.h"
#include "TestSupport.h"

namespace zrn {
namespace {

char const* const kLogger = "libDataStore.SQLiteDataStore";

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

SQLiteDataStoreColumnSpec const kColumns[] = {{"key", "TEXT"}, {nullptr, nullptr}};

class JournalModeTest : public testing::Test {
protected:
    void setMode(std::string const& value) {
        test::writeFile(m_settings, "[libDataStore]\nSQLiteDataStore.JournalMode=" + value + "\n");
    }
    // Opens (and so creates or upgrades) every store of the folder, then lets them go.
    void openEveryStore() {
        { EventDataStore events{String(m_events)}; }
        { GeneralDataStore general{String(m_general)}; }
        { AppStateDataStore state{String(m_state)}; }
        { SoftwareDiagEventDataStore repair{String(m_repair)}; }
        { SQLiteDataStore table(String(m_table), "t", kColumns); }
    }
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        for (auto const& entry : std::filesystem::directory_iterator(m_dir.path()))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    test::TempDir m_dir;
    std::string const m_settings = m_dir.file("settings.ini");
    test::ScopedEnv m_env{"ZRN_SETTINGS_FILE", m_settings.c_str()};
    std::string const m_events = m_dir.file("event.db");
    std::string const m_general = m_dir.file("genstore.db");
    std::string const m_state = m_dir.file("appstate.db");
    std::string const m_repair = m_dir.file("softwarediagevent.db");
    std::string const m_table = m_dir.file("table.db");
};

TEST_F(JournalModeTest, SettingIsReadAfreshInAnyCaseAndUnknownValuesWarnAndKeepDelete) {
    EXPECT_EQ(SQLiteDataStore::dbJournalMode(), SQLiteDataStore::DELETE);  // no file
    struct Case {
        char const* value;
        SQLiteDataStore::JOURNAL_MODE expected;
        bool warned;
    };
    Case const cases[] = {
        {"wal", SQLiteDataStore::WAL, false},
        {"Truncate", SQLiteDataStore::TRUNCATE, false},
        {"PERSIST", SQLiteDataStore::PERSIST, false},
        {"delete", SQLiteDataStore::DELETE, false},
        {"memory", SQLiteDataStore::DELETE, true},
        {"WAL2", SQLiteDataStore::DELETE, true},
        {"", SQLiteDataStore::DELETE, true},
        {"WAL", SQLiteDataStore::WAL, false},
    };
    for (auto const& c : cases) {
        setMode(c.value);
        test::LogCapture log;
        EXPECT_EQ(SQLiteDataStore::dbJournalMode(), c.expected) << c.value;
        std::vector<std::string> expected;
        if (c.warned) {
            expected.push_back(std::string("112 Unknown SQLiteDataStore.JournalMode '") + c.value +
                               "': using DELETE");
        }
        EXPECT_EQ(log.messages(kLogger), expected) << c.value;
        if (c.warned) {
            EXPECT_EQ(log.entries().at(0).priority, 3);
        }
    }
}

TEST_F(JournalModeTest, DefaultAndDeleteRunNoStatementOtherModesOneOnEveryWritingOpening) {
    for (char const* value : {"", "DELETE"}) {
        if (*value) setMode(value);
        test::SqlTrace trace;
        openEveryStore();
        EXPECT_TRUE(trace.startingWith("PRAGMA journal").empty()) << value;
        EXPECT_FALSE(std::filesystem::exists(m_events + "-wal"));
        test::RawDb raw(m_events, true);
        EXPECT_EQ(raw.scalar("PRAGMA journal_mode"), "delete");
    }
    // What the default wrote is what it wrote before the setting existed: no trace of a mode
    // in any file header (bytes 18 and 19 are 1 for a rollback journal, 2 for WAL).
    for (auto const& path : {m_events, m_general, m_state, m_repair, m_table}) {
        std::string const header = test::readFile(path).substr(18, 2);
        EXPECT_EQ(header, std::string("\x01\x01", 2)) << path;
    }

    setMode("truncate");
    {
        SQLiteDataStore table(String(m_table), "t", kColumns);
        // Its statement and message are the catalogues'. A connection's own mode: it is in force on
        // the store's connection, not in the file.
        ResultSet mode;
        table.database()->execute("PRAGMA journal_mode", &mode);
        EXPECT_EQ(mode.row(0).columnValue(0).str(), "truncate");
        table.append([] {
            HashTable<String, String> row;
            row.insert("key", "k");
            return row;
        }());
        EXPECT_TRUE(std::filesystem::exists(m_table + "-journal"));  // truncated, kept
    }

    setMode("Wal");
    test::SqlTrace trace;
    openEveryStore();
    // Every writing opening asks once.
    std::vector<std::string> const asked = trace.startingWith("PRAGMA journal");
    EXPECT_EQ(asked.size(), 5u);
    for (auto const& statement : asked) EXPECT_EQ(statement, "PRAGMA journal_mode=WAL");
    // The last connection to close checkpoints and removes the -wal and -shm files.
    EXPECT_FALSE(std::filesystem::exists(m_events + "-wal"));
    EXPECT_FALSE(std::filesystem::exists(m_events + "-shm"));
    for (auto const& path : {m_events, m_general, m_state, m_repair, m_table}) {
        test::RawDb raw(path, true);
        EXPECT_EQ(raw.scalar("PRAGMA journal_mode"), "wal") << path;
    }

    // SQLite may keep the mode it has: without file locking (a URI's nolock=1) there is no
    // WAL. The store opens all the same, with a warning that names the mode in force.
    {
        std::string const unlocked = "file:" + m_dir.file("unlocked.db") + "?nolock=1";
        test::LogCapture log;
        SQLiteDataStore table(String(unlocked), "t", kColumns);
        EXPECT_EQ(log.messagesStartingWith(kLogger, "114 "),
                  std::vector<std::string>{"114 Journal mode WAL not taken by " + unlocked +
                                           ": it stays delete"});
        EXPECT_EQ(log.entries().back().priority, 3);
    }

    // An in-memory or temporary database has no file whose mode could be chosen: nothing is
    // asked, nothing is logged, and the store works.
    trace.clear();
    test::LogCapture log;
    SQLiteDataStore memory(String(":memory:"), "t", kColumns);
    SQLiteDataStore temporary(String(""), "t", kColumns);
    EXPECT_TRUE(trace.startingWith("PRAGMA journal").empty());
    EXPECT_TRUE(log.messagesStartingWith(kLogger, "11").empty());
    EXPECT_EQ(temporary.count("", ""), 0u);
    EXPECT_EQ(memory.count("", ""), 0u);
}

TEST_F(JournalModeTest, WalStoreIsReadByReadOnlyStoresAndPlainReadersWhileWrittenAndAfter) {
    setMode("WAL");
    EventDataStore writer{String(m_events)};
    long long const app = *writer.logAppStart("app", "user", "run", at(100));
    ASSERT_TRUE(writer.logAlert(
        EventDataStore::AlertData{app, "g1", "k", "t", "title", "m", "d", at(130), {}, {}}));
    GeneralDataStore general{String(m_general)};
    ASSERT_TRUE(general.logOrUpdate(GenericLog("T", "G", "cat", "sub", 1u, LogKeyValueSet())));
    // The writers are still open: the rows are in the -wal files, not yet in the databases.
    ASSERT_TRUE(std::filesystem::exists(m_events + "-wal"));
    ASSERT_GT(std::filesystem::file_size(m_events + "-wal"), 0u);

    auto readAll = [&](char const* when) {
        {
            EventDataStore reader{String(m_events), ReadOnly{}};
            EXPECT_TRUE(reader.alertExists("g1")) << when;
            EXPECT_EQ(reader.appRunTime(app), -100) << when;
            GeneralDataStore logs{String(m_general), ReadOnly{}};
            EXPECT_EQ(logs.getLogs(GenericLogFilter("T", "G")).size(), 1u) << when;
        }
        test::RawDb raw(m_events, true);
        EXPECT_EQ(raw.scalar("SELECT count(*) FROM `Alerts` WHERE `guid`='g1'"), "1") << when;
        EXPECT_EQ(raw.scalar("SELECT `name` FROM `ApplicationRuns`"), "app") << when;
    };
    readAll("while the writers are open");

    // A reader in the middle of its transaction keeps its snapshot while the writer goes on.
    test::RawDb snapshot(m_events, true);
    snapshot.exec("BEGIN; SELECT count(*) FROM `Alerts`;");
    ASSERT_TRUE(writer.logAlert(
        EventDataStore::AlertData{app, "g2", "k", "t", "title", "m", "d", at(140), {}, {}}));
    EXPECT_EQ(snapshot.scalar("SELECT count(*) FROM `Alerts`"), "1");
    snapshot.exec("COMMIT");
    EXPECT_EQ(snapshot.scalar("SELECT count(*) FROM `Alerts`"), "2");

    writer.close();
    general.close();
    readAll("after the writers closed");
}

}  // namespace
}  // namespace zrn
