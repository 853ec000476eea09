// Every statement, message and schema text of the application-state store, compared whole with
// the golden files under tests/golden/appstate/.

#include <gtest/gtest.h>
#include <libDataStore/AppStateDataStore.h>
#include <libDataStore/DataStoreSettings.h>
#include <libDataStore/StoreBatch.h>

#include <filesystem>
#include <memory>
#include <string>

#include "CatalogueTest.h"
#include "TestSupport.h"

namespace zrn {
namespace {

class AppStateCatalogueTest : public test::CatalogueTest {
protected:
    AppStateCatalogueTest() {
        // Older shapes of the file, made before anything is recorded: a table of two columns
        // without the index, and a full table whose index is missing.
        test::RawDb twoColumns(file("older.db"));
        twoColumns.exec(
            "CREATE TABLE `AppState` (`key` TEXT,`data` TEXT);"
            "INSERT INTO AppState VALUES ('old', 'kept');");
        test::RawDb noIndex(file("noindex.db"));
        noIndex.exec(
            "CREATE TABLE `AppState` (`key` TEXT,`data` TEXT,`filterGroup` TEXT,`dateTime` "
            "TEXT)");
        test::writeFile(file("garbage.db"), std::string(4096, 'G'));
        // A table holding the index's name: the opening fails after making the table.
        test::RawDb(file("failing.db")).exec("CREATE TABLE `AppState-key` (x)");
        // An index of the store's name that another program made without UNIQUE.
        test::RawDb nonUnique(file("nonunique.db"));
        nonUnique.exec(
            "CREATE TABLE `AppState` (`key` TEXT,`data` TEXT,`filterGroup` TEXT,`dateTime` "
            "TEXT);"
            "INSERT INTO AppState VALUES ('k', 'first', 'g1', '2020-05-06T10:00:00+02:00');"
            "CREATE INDEX 'AppState-key' ON AppState (key);");
        start();
        // Entry times are the local time of insertion.
        m_catalogue.replaceCurrentTimes();
    }

    void items(AppStateDataStore& store);
    void failures(AppStateDataStore& store, char const* title);
    void olderFiles();
    void optIns();
};

void AppStateCatalogueTest::items(AppStateDataStore& store) {
    step("insert");
    note("inserted: " + yesNo(store.insert("a", "1", "g")));
    note("inserted: " + yesNo(store.insert("O'Brien", "it's", "it's")));
    note("inserted: " + yesNo(store.insert("b", "2", "")));
    step("insert an existing key");
    note("inserted: " + yesNo(store.insert("a", "again", "h")));
    step("data, group, contains and entryTime of an item and of a missing key");
    for (char const* key : {"O'Brien", "none"}) {
        note("data: " + store.data(key).str());
        note("group: " + store.group(key).str());
        note("contains: " + yesNo(store.contains(key)));
        note("entryTime: " + yesNo(store.entryTime(key).has_value()));
    }
    step("count all, of a group and of a group with a quote");
    for (char const* group : {"", "g", "it's"})
        note("count: " + std::to_string(store.count(group)));
    step("getItems of all and of a group with a quote");
    for (char const* group : {"", "it's"}) {
        std::string text = "items:";
        for (auto const& [key, data] : store.getItems(group))
            text += " " + key.str() + "=" + data.str();
        note(text);
    }
    step("checkValidity");
    String error;
    note("valid: " + yesNo(store.checkValidity(error)));
    step("remove an item and a missing key");
    note("removed: " + yesNo(store.remove("b")));
    note("removed: " + yesNo(store.remove("none")));
}

// Every operation of a store that is closed or holds no table.
void AppStateCatalogueTest::failures(AppStateDataStore& store, char const* title) {
    step(title);
    String error;
    note("inserted: " + yesNo(store.insert("k", "v", "g")));
    note("data: " + store.data("k").str());
    note("contains: " + yesNo(store.contains("k")));
    note("removed: " + yesNo(store.remove("k")));
    note("entryTime: " + yesNo(store.entryTime("k").has_value()));
    note("group: " + store.group("k").str());
    note("count: " + std::to_string(store.count("g")));
    note("items: " + std::to_string(store.getItems("g").size()));
    note("valid: " + yesNo(store.checkValidity(error)));
    note("error: " + error.str());
    note("isClosed: " + yesNo(store.isClosed()));
    note("closed: " + yesNo(store.close()));
}

void AppStateCatalogueTest::olderFiles() {
    step("open a file whose table lacks columns and the index");
    AppStateDataStore older{String(file("older.db"))};
    note("data: " + older.data("old").str());
    step("open a file whose index is missing");
    AppStateDataStore noIndex{String(file("noindex.db"))};
    step("open an existing file");
    AppStateDataStore again{String(file("appstate.db"))};
    step("open a non-database file");
    AppStateDataStore garbage{String(file("garbage.db"))};
    note("unchanged: " + yesNo(test::readFile(file("garbage.db")) == std::string(4096, 'G')));
    failures(garbage, "every operation of a store whose opening failed");
    step("open a file where a table holds the index's name");
    AppStateDataStore failing{String(file("failing.db"))};
    step("insert an existing key where the index is not unique");
    AppStateDataStore nonUnique{String(file("nonunique.db"))};
    note("inserted: " + yesNo(nonUnique.insert("k", "second", "g2")));
    note("entryTime: " + std::to_string(nonUnique.entryTime("k")->time_since_epoch().count()));
    step("open a file in a missing folder");
    AppStateDataStore missing{String(file("missing/appstate.db"))};
    step("create with a path");
    note("created: " + yesNo(AppStateDataStore::create(String(file("appstate.db"))) != nullptr));
    step("create and construct at the default location");
    DataStoreSettings::setAppStateDataStorePath(String(file("default")));
    std::filesystem::create_directories(file("default"));
    note("created: " + yesNo(AppStateDataStore::create() != nullptr));
    AppStateDataStore byDefault;
    note("contains: " + yesNo(byDefault.contains("k")));
    note("file: " + yesNo(std::filesystem::exists(file("default/appstate.db"))));
}

void AppStateCatalogueTest::optIns() {
    step("read-only: open, read, and refuse to write");
    {
        AppStateDataStore reader(String(file("appstate.db")), ReadOnly{});
        note("data: " + reader.data("a").str());
        note("count: " + std::to_string(reader.count("")));
        note("items: " + std::to_string(reader.getItems("g").size()));
        note("inserted: " + yesNo(reader.insert("r", "v", "")));
        note("removed: " + yesNo(reader.remove("a")));
        note("closed: " + yesNo(reader.close()));
    }
    step("read-only: a missing file");
    AppStateDataStore absent(String(file("absent.db")), ReadOnly{});
    step("a batch of two inserts, committed");
    AppStateDataStore store{String(file("appstate.db"))};
    {
        StoreBatch batch(store);
        store.insert("c", "3", "batch");
        store.insert("a", "duplicate", "batch");
        batch.commit();
    }
    step("a batch left uncommitted");
    {
        StoreBatch batch(store);
        store.insert("d", "4", "batch");
    }
    step("JournalMode WAL on a new file");
    settings("SQLiteDataStore.JournalMode = WAL\n");
    AppStateDataStore wal{String(file("wal.db"))};
    settings("");
}

TEST_F(AppStateCatalogueTest, EveryStatementMessageAndSchema) {
    step("open a new file");
    auto store = std::make_unique<AppStateDataStore>(String(file("appstate.db")));
    items(*store);
    step("a copy shares the connection; close it");
    AppStateDataStore copy(*store);
    note("closed: " + yesNo(copy.close()));
    note("isClosed: " + yesNo(store->isClosed()));
    failures(*store, "every operation after close");
    store.reset();

    olderFiles();
    optIns();

    test::expectGolden("appstate/statements.txt", m_catalogue.statements());
    test::expectGolden("appstate/messages.txt", m_catalogue.messages());
    test::expectGolden("appstate/schema.txt",
                       "## a new file\n" + test::schemaText(file("appstate.db"), {}) +
                           "## a file whose table lacked columns and the index, upgraded\n" +
                           test::schemaText(file("older.db"), {}) +
                           "## a file whose opening failed\n" +
                           test::schemaText(file("failing.db"), {}) +
                           "## a file whose index is not unique, after a refused insert\n" +
                           test::schemaText(file("nonunique.db"), {"AppState"}));
}

}  // namespace
}  // namespace zrn
