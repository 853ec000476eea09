// StoreReader: any store file read as tables with typed cells, whatever its table names, what
// it says of damaged, foreign and locked files, one snapshot across reads, and backups.

#include <gtest/gtest.h>
#include <libDataStore/DataStore.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace {

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

std::string messageOf(std::function<void()> const& action) {
    try {
        action();
    } catch (StoreReadError const& e) {
        char const* causes[] = {"locked", "damaged", "other"};
        return std::string(causes[static_cast<int>(e.cause())]) + ": " + e.getMessage().str();
    }
    return "<no exception>";
}

// Every row of a table as "column=value(type)" text, in key order.
std::vector<std::string> dump(StoreReader& reader, std::string const& table,
                              StoreRowQuery const& query = StoreRowQuery{}) {
    char const* types[] = {"null", "int", "real", "text", "blob"};
    std::vector<std::string> rows;
    reader.forEachRow(
        table,
        [&](StoreRow const& row) {
            std::string text = "key=" + std::to_string(row.key);
            for (std::size_t i = 0; i < row.cells.size(); ++i) {
                text += " " + row.columns[i] + "=" + row.cells[i].asText() + "(" +
                        types[static_cast<int>(row.cells[i].type)] + ")";
            }
            rows.push_back(text);
        },
        query);
    return rows;
}

class StoreReaderTest : public ::testing::Test {
protected:
    // A file of no store: odd names, every storage class, a rowid table and a keyed one.
    void makeOddFile() {
        test::RawDb db(m_odd);
        db.exec(
            "PRAGMA journal_mode=WAL;"
            "CREATE TABLE `odd\"na``me x` (`it's` TEXT, \"n\"\"um\" REAL, b BLOB, i INTEGER);"
            "INSERT INTO `odd\"na``me x` VALUES ('a''b', 1.5, x'00ff', 7);"
            "INSERT INTO `odd\"na``me x` VALUES (NULL, NULL, NULL, NULL);"
            "INSERT INTO `odd\"na``me x` VALUES ('c', 2, x'', -3);"
            "CREATE TABLE Keyed (id INTEGER PRIMARY KEY, name TEXT NOT NULL);"
            "INSERT INTO Keyed VALUES (10, 'ten'), (20, 'twenty'), (30, 'thirty');"
            "CREATE TABLE Pair (a TEXT, b TEXT, PRIMARY KEY (a, b));");
    }

    void makeEventStore() {
        EventDataStore events{String(m_events)};
        long long const app = *events.logAppStart("app", "user", "run", at(100));
        events.logAppStart("second", "other", "service", at(200));
        ASSERT_TRUE(events.logScriptStart(app, "PASS", "sg", "script", at(100), 1, "<s/>"));
        ASSERT_TRUE(events.logAlert(
            EventDataStore::AlertData{app, "g1", "k", "t", "title", "m", "d", at(130), {}, {}}));
    }

    test::TempDir m_dir;
    std::string const m_odd = m_dir.file("odd.db");
    std::string const m_events = m_dir.file("event.db");
};

TEST_F(StoreReaderTest, ReadsAnyTableAsTypedCellsWhateverItsName) {
    makeOddFile();
    StoreReader reader(m_odd);
    EXPECT_EQ(reader.tableNames(), (std::vector<std::string>{"odd\"na`me x", "Keyed", "Pair"}));
    EXPECT_TRUE(reader.hasTable("odd\"na`me x"));
    EXPECT_FALSE(reader.hasTable("odd"));
    EXPECT_FALSE(reader.identify().kind);

    StoreTable const odd = reader.table("odd\"na`me x");
    EXPECT_EQ(odd.rowKey, "rowid");
    EXPECT_EQ(odd.rows, 3);
    EXPECT_EQ(odd.readColumns(), (std::vector<std::string>{"rowid", "it's", "n\"um", "b", "i"}));
    EXPECT_EQ(odd.columns[1].type, "REAL");
    std::vector<std::string> const rows = dump(reader, odd.name);
    EXPECT_EQ(rows[0], "key=1 rowid=1(int) it's=a'b(text) n\"um=1.5(real) b=" +
                           std::string("\0\xff", 2) + "(blob) i=7(int)");
    EXPECT_EQ(rows[1], "key=2 rowid=2(int) it's=(null) n\"um=(null) b=(null) i=(null)");
    EXPECT_EQ(rows[2], "key=3 rowid=3(int) it's=c(text) n\"um=2(real) b=(blob) i=-3(int)");

    // After a key, by equal cells (a quote in a value), with a limit.
    StoreRowQuery query;
    query.afterKey = 1;
    EXPECT_EQ(dump(reader, odd.name, query).size(), 2u);
    query.afterKey.reset();
    query.equal = {{"it's", StoreCell::of(std::string("a'b"))}};
    EXPECT_EQ(dump(reader, odd.name, query).size(), 1u);
    query.equal = {{"i", StoreCell()}};
    EXPECT_EQ(dump(reader, odd.name, query),
              (std::vector<std::string>{
                  "key=2 rowid=2(int) it's=(null) n\"um=(null) b=(null) i=(null)"}));

    StoreTable const keyed = reader.table("Keyed");
    EXPECT_EQ(keyed.rowKey, "id");
    EXPECT_TRUE(keyed.columns[1].notNull);
    EXPECT_EQ(keyed.columns[0].keyPosition, 1);
    query = StoreRowQuery{};
    query.afterKey = 10;
    query.limit = 1;
    EXPECT_EQ(dump(reader, "Keyed", query),
              (std::vector<std::string>{"key=20 id=20(int) name=twenty(text)"}));
    EXPECT_EQ(reader.lastKey("Keyed"), 30);
    EXPECT_EQ(reader.lastKey("Pair"), 0);
    // A two-column key is no row identity: the rowid is.
    EXPECT_EQ(reader.table("Pair").rowKey, "rowid");
    EXPECT_EQ(reader.table("Pair").columns[1].keyPosition, 2);
    EXPECT_TRUE(reader.integrityCheck().empty());
    EXPECT_EQ(messageOf([&] { reader.table("Nope"); }), "other: " + m_odd + ": no table `Nope`");
}

TEST_F(StoreReaderTest, TellsEachStoreAndItsVersionFromTheLibrary) {
    makeEventStore();
    std::string const general = m_dir.file("genstore.db");
    std::string const state = m_dir.file("appstate.db");
    std::string const repair = m_dir.file("softwarediagevent.db");
    { GeneralDataStore{String(general)}; }
    { AppStateDataStore{String(state)}; }
    { SoftwareDiagEventDataStore{String(repair)}; }
    std::vector<std::pair<std::string, int>> const expected = {
        {state, -1}, {general, 1}, {m_events, 3}, {repair, 1}};
    ASSERT_EQ(storeFamily().size(), 4u);
    for (std::size_t i = 0; i < expected.size(); ++i) {
        StoreFacts const& facts = storeFamily()[i];
        EXPECT_EQ(m_dir.file(facts.fileName), expected[i].first);
        EXPECT_EQ(std::string(facts.name) + ".db", facts.fileName);
        EXPECT_EQ(&factsOf(facts.kind), &facts);
        StoreReader reader(expected[i].first);
        StoreIdentity const identity = reader.identify();
        ASSERT_TRUE(identity.kind) << facts.name;
        EXPECT_EQ(*identity.kind, facts.kind);
        EXPECT_EQ(identity.version, expected[i].second);
        EXPECT_EQ(identity.version, facts.schemaVersion);
        EXPECT_TRUE(identity.missingTables.empty()) << facts.name;
        std::vector<std::string> const names = reader.tableNames();
        EXPECT_EQ(std::set<std::string>(names.begin(), names.end()),
                  std::set<std::string>(facts.tables.begin(), facts.tables.end()));
    }
    // A store file with a table gone still says what it is, and what is missing.
    test::RawDb(m_events).exec("DROP TABLE ProfilerDiffs; UPDATE Versioning SET version = 4");
    StoreIdentity const changed = StoreReader(m_events).identify();
    EXPECT_EQ(changed.missingTables, (std::vector<std::string>{"ProfilerDiffs"}));
    EXPECT_EQ(changed.version, 4);
}

TEST_F(StoreReaderTest, TypedReadersOfTheEventStore) {
    makeEventStore();
    StoreReader reader(m_events);
    std::vector<ApplicationRunRow> const runs = applicationRuns(reader);
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(runs[0].name, "app");
    EXPECT_EQ(runs[0].userName, "user");
    EXPECT_EQ(runs[0].typeOfRun, "run");
    EXPECT_EQ(runs[0].startTime, 100);
    EXPECT_EQ(runs[0].endTime, 0);
    EXPECT_EQ(runs[1].name, "second");
    std::vector<ApplicationRunRow> const later = applicationRuns(reader, runs[0].appId);
    ASSERT_EQ(later.size(), 1u);
    EXPECT_EQ(later[0].appId, runs[1].appId);
    long long const script =
        std::stoll(test::RawDb(m_events).scalar("SELECT scriptId FROM ScriptRuns"));
    EXPECT_TRUE(scriptRunExists(reader, script));
    EXPECT_FALSE(scriptRunExists(reader, script + 1));
    EXPECT_FALSE(testRunExists(reader, 1));
    EXPECT_TRUE(alertExists(reader, 1));
    EXPECT_FALSE(alertExists(reader, 2));
}

// The keys of the rows `query` selects, as forEachRow and as a cursor hand them out.
std::vector<long long> keysOf(StoreReader& reader, std::string const& table,
                              StoreRowQuery const& query) {
    std::vector<long long> keys;
    reader.forEachRow(
        table, [&](StoreRow const& row) { keys.push_back(row.key); }, query);
    StoreReader::Cursor cursor(reader, table, query);
    for (std::size_t i = 0; i < keys.size(); ++i) {
        EXPECT_TRUE(cursor.next());
        EXPECT_EQ(cursor.row().key, keys[i]);
    }
    EXPECT_FALSE(cursor.next());
    return keys;
}

TEST_F(StoreReaderTest, RowsInTheOrderOfAColumnWithinBoundsOneAtATime) {
    makeOddFile();
    // Times as text, as some tables keep them; equal times, a NULL and a name to quote.
    test::RawDb(m_odd).exec(
        "CREATE TABLE `ti'med` (`wh en` TEXT, n INTEGER);"
        "INSERT INTO `ti'med` VALUES ('300', 1), ('100', 2), (NULL, 3), ('100', 4), ('200', 5);");
    StoreReader reader(m_odd);
    StoreRowQuery query;
    query.orderBy = "wh en";
    EXPECT_EQ(keysOf(reader, "ti'med", query), (std::vector<long long>{3, 2, 4, 5, 1}));
    query.atLeast = StoreCell::of(100);
    EXPECT_EQ(keysOf(reader, "ti'med", query), (std::vector<long long>{2, 4, 5, 1}));
    query.descending = true;
    EXPECT_EQ(keysOf(reader, "ti'med", query), (std::vector<long long>{1, 5, 4, 2}));
    query.atLeast = StoreCell::of(150);
    query.atMost = StoreCell::of(std::string("300"));
    query.limit = 1;
    EXPECT_EQ(keysOf(reader, "ti'med", query), (std::vector<long long>{1}));
    // Cursors of one reader go on side by side, each with its own row.
    StoreReader::Cursor keyed(reader, "Keyed");
    StoreReader::Cursor timed(reader, "ti'med", query);
    ASSERT_TRUE(keyed.next() && timed.next() && keyed.next());
    EXPECT_EQ(keyed.row()["name"].asText(), "twenty");
    EXPECT_EQ(timed.row()["n"].asInteger(), 1);
    EXPECT_EQ(messageOf([&] { StoreReader::Cursor(reader, "none"); }),
              "other: " + m_odd + ": no table `none`");
}

TEST_F(StoreReaderTest, OneSnapshotAcrossReadsAndTheChangeCounter) {
    makeOddFile();
    StoreReader reader(m_odd);
    test::RawDb writer(m_odd);
    long long const before = reader.changeCounter();
    {
        StoreReader::Snapshot const snapshot(reader);
        writer.exec("INSERT INTO Keyed VALUES (40, 'forty'); DELETE FROM `odd\"na``me x`");
        EXPECT_EQ(reader.table("Keyed").rows, 3);
        EXPECT_EQ(reader.table("odd\"na`me x").rows, 3);
    }
    EXPECT_EQ(reader.table("Keyed").rows, 4);
    EXPECT_EQ(reader.table("odd\"na`me x").rows, 0);
    EXPECT_NE(reader.changeCounter(), before);
}

TEST_F(StoreReaderTest, DamagedForeignMissingAndLockedFiles) {
    std::string const missing = m_dir.file("missing.db");
    EXPECT_EQ(messageOf([&] { StoreReader{missing}; }),
              "other: " + missing + ": cannot open: unable to open database file");
    EXPECT_FALSE(std::filesystem::exists(missing));

    std::string const text = m_dir.file("text.db");
    test::writeFile(text, std::string(4096, 'x'));
    StoreReader foreign(text);
    EXPECT_EQ(messageOf([&] { foreign.tableNames(); }),
              "damaged: " + text + ": cannot read: file is not a database");
    EXPECT_EQ(foreign.integrityCheck(),
              (std::vector<std::string>{"cannot read: file is not a database"}));

    makeEventStore();
    std::string const page = m_dir.file("page.db");
    std::string const truncated = m_dir.file("truncated.db");
    std::filesystem::copy_file(m_events, page);
    std::filesystem::copy_file(m_events, truncated);
    {
        std::fstream file(page, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(4096 * 3);  // a table's page, past the schema
        file << std::string(4096, '\x5a');
    }
    std::filesystem::resize_file(truncated, std::filesystem::file_size(m_events) / 2);
    EXPECT_FALSE(StoreReader(page).integrityCheck().empty());
    EXPECT_FALSE(StoreReader(truncated).integrityCheck().empty());
    EXPECT_LE(StoreReader(page).integrityCheck(1).size(), 1u);

    ReadOnly quick;
    quick.wait = std::chrono::milliseconds(100);
    StoreReader waiting(m_events, quick);
    test::RawDb writer(m_events);
    writer.exec("BEGIN EXCLUSIVE");
    EXPECT_EQ(messageOf([&] { waiting.tableNames(); }),
              "locked: " + m_events + ": locked by another program");
    EXPECT_EQ(messageOf([&] { waiting.backupTo(m_dir.file("copy.db")); }),
              "locked: " + m_events + ": locked by another program");
    writer.exec("ROLLBACK");

    // A lock given up within the wait is waited for, and the copy is then made.
    ReadOnly patient;
    patient.wait = std::chrono::seconds(10);
    StoreReader waiter(m_events, patient);
    std::string const waited = m_dir.file("waited.db");
    writer.exec("BEGIN EXCLUSIVE");
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        writer.exec("ROLLBACK");
    });
    EXPECT_NO_THROW(waiter.backupTo(waited));
    release.join();
    EXPECT_EQ(StoreReader(waited).tableNames(), waiter.tableNames());
}

TEST_F(StoreReaderTest, BackupCopiesEveryRow) {
    makeOddFile();
    std::string const copy = m_dir.file("copy.db");
    test::writeFile(copy, "");
    StoreReader reader(m_odd);
    reader.backupTo(copy);
    StoreReader copied(copy);
    for (std::string const& table : reader.tableNames())
        EXPECT_EQ(dump(copied, table), dump(reader, table)) << table;
    EXPECT_EQ(copied.tableNames().size(), 3u);
    std::string const nowhere = m_dir.file("no/such/folder/copy.db");
    EXPECT_EQ(messageOf([&] { reader.backupTo(nowhere); }),
              "other: " + nowhere + ": cannot create: unable to open database file");
}

}  // namespace
}  // namespace zrn
