// Every statement, message and schema text of the general store, compared whole with the golden
// files under tests/golden/general/.

#include <gtest/gtest.h>
#include <libDataStore/DataStoreSettings.h>
#include <libDataStore/GeneralDataStore.h>
#include <libDataStore/StoreBatch.h>

#include <filesystem>
#include <memory>
#include <regex>
#include <string>

#include "CatalogueTest.h"
#include "TestSupport.h"

namespace zrn {
namespace {

char const kType[] = "{6f1c2a5e-0b7d-4c39-9e21-3a8d5f4b7c10}";
char const kGuid[] = "{d2b94e13-58a6-4f0e-b7c2-91e6a3f0d845}";
long long const kFrom = 1588000000;    // 2020-04-27
long long const kTo = 1893456000;      // 2030-01-01
long long const kFuture = 4102444800;  // 2100-01-01

LogKeyValueSet keyValues(std::initializer_list<std::pair<char const*, char const*>> pairs) {
    LogKeyValueSet set;
    for (auto const& p : pairs) set.append(LogKeyValue(p.first, p.second));
    return set;
}

class GeneralCatalogueTest : public test::CatalogueTest {
protected:
    GeneralCatalogueTest() {
        makeOlderFiles();
        test::writeFile(file("garbage.db"), std::string(4096, 'G'));
        start();
        // Creation and update times are the moment of logging.
        m_catalogue.replaceCurrentTimes();
        m_catalogue.rewrite([](std::string text) {
            static std::regex const address("this: 0x[0-9a-f]+");
            return std::regex_replace(text, address, "this: <address>");
        });
    }

    // Older shapes of the file, made before anything is recorded.
    void makeOlderFiles() {
        // Tables without the tracked and flags columns, version 0, and no index or view.
        test::RawDb older(file("older.db"));
        older.exec(
            "CREATE TABLE `Version` (`version` INTEGER PRIMARY KEY);"
            "INSERT INTO Version VALUES (0);"
            "CREATE TABLE `GenericLog` (`typeUUID` TEXT,`guid` TEXT,`category` TEXT,"
            "`subCategory` TEXT,`creationTimeStamp` INTEGER,`updateTimeStamp` INTEGER);"
            "CREATE TABLE `KeyValues` (`setID` INTEGER,`key` TEXT,`value` TEXT,"
            "`updateTimeStamp` INTEGER);"
            "INSERT INTO GenericLog VALUES ('T', 'G', 'c', 's', 1588000000, 1588000000);"
            "INSERT INTO KeyValues VALUES (1, 'k', 'v', 1588000000);");
        // A whole schema whose Version table was emptied: it looks new, and its indexes exist.
        { GeneralDataStore made{String(file("emptied.db"))}; }
        test::RawDb emptied(file("emptied.db"));
        emptied.exec("DELETE FROM Version");
        // A store whose key/values SQLite refuses when one is "boom".
        { GeneralDataStore made{String(file("refusing.db"))}; }
        test::RawDb refusing(file("refusing.db"));
        refusing.exec(
            "CREATE TRIGGER refuse BEFORE INSERT ON KeyValues WHEN NEW.value = 'boom' "
            "BEGIN SELECT RAISE(ABORT, 'boom refused'); END;");
        // An open store whose tables another program then narrowed: its rows read short. Its
        // connection predates the catalogue, so only its messages are recorded.
        m_narrowed = std::make_unique<GeneralDataStore>(String(file("narrowed.db")));
        m_narrowed->logOrUpdate(GenericLog(kType, kGuid, "c", "s", 0u, keyValues({{"k", "v"}})));
        test::RawDb narrowed(file("narrowed.db"));
        narrowed.exec(
            "ALTER TABLE GenericLog DROP COLUMN flags; ALTER TABLE GenericLog DROP COLUMN tracked;"
            "ALTER TABLE KeyValues DROP COLUMN tracked;");
    }

    // Notes each log the filter selects: its guid, category, flags and key/values.
    void noteLogs(GeneralDataStore const& store, GenericLogFilter const& filter);
    void logging(GeneralDataStore& store);
    void queries(GeneralDataStore& store);
    void closedAndUnopened(std::unique_ptr<GeneralDataStore> store);
    void olderFiles();
    void optIns();

    std::unique_ptr<GeneralDataStore> m_narrowed;
};

void GeneralCatalogueTest::noteLogs(GeneralDataStore const& store, GenericLogFilter const& filter) {
    GenericLogList const logs = store.getLogs(filter);
    std::string text = "logs:";
    for (unsigned int i = 0; i < logs.size(); ++i) {
        GenericLog const& log = logs.get(i);
        text += " " + log.guid().str() + " " + log.category().str() + " " +
                std::to_string(log.flags()) + " {";
        for (unsigned int k = 0; k < log.keyValues().size(); ++k) {
            LogKeyValue const& kv = log.keyValues().get(k);
            text += (k ? "," : "") + kv.key().str() + "=" + kv.value().str() +
                    (kv.tracked() ? "*" : "");
        }
        text += "}";
    }
    note(text);
}

void GeneralCatalogueTest::logging(GeneralDataStore& store) {
    step("logOrUpdate a new log with two key/values");
    note("logged: " + yesNo(store.logOrUpdate(GenericLog(kType, kGuid, "it's", "sub", 1u,
                                                         keyValues({{"a", "1"}, {"b", "2"}})))));
    step("logOrUpdate it again: one value changed, one key added, tracked, new flags");
    GenericLog second(kType, kGuid, "cat2", "sub2", 0xFFu,
                      keyValues({{"a", "1"}, {"b", "3"}, {"c", "4"}}));
    second.setTracked(false);
    note("logged: " + yesNo(store.logOrUpdate(second)));
    step("logOrUpdate it again with fewer key/values");
    note("logged: " + yesNo(store.logOrUpdate(
                          GenericLog(kType, kGuid, "cat3", "", 3u, keyValues({{"a", "1"}})))));
    step("logOrUpdate it again with one key/value newly tracked");
    LogKeyValueSet tracked = keyValues({{"a", "1"}});
    tracked.get(0).setTracked();
    note("logged: " + yesNo(store.logOrUpdate(GenericLog(kType, kGuid, "cat3", "", 3u, tracked))));
    step("logOrUpdate a second log without key/values");
    note("logged: " +
         yesNo(store.logOrUpdate(GenericLog(kType, "g'2", "c", "s", 0u, LogKeyValueSet()))));
}

void GeneralCatalogueTest::queries(GeneralDataStore& store) {
    step("getLogs with a default filter");
    noteLogs(store, GenericLogFilter());
    step("getLogs with a type, a lower date bound, a key/value and a limit");
    GenericLogFilter example(kType, "");
    example.setDateFilter(TimeStamp::fromUnixTimeStamp(kFrom), TimeStamp());
    example.addKeyValueRequirement("a", "1");
    example.setResultLimit(10);
    noteLogs(store, example);
    step("getLogs with every field set, quotes and two key/values");
    GenericLogFilter everything(kType, "g'2");
    everything.setCategoryFilter("it's", "s");
    everything.setDateFilter(TimeStamp::fromUnixTimeStamp(kFrom),
                             TimeStamp::fromUnixTimeStamp(kTo));
    everything.addKeyValueRequirement("", "ignored");
    everything.addKeyValueRequirement("a", "1");
    everything.addKeyValueRequirement("a", "second on the same key: ignored");
    everything.addKeyValueRequirement("b", "it's");
    noteLogs(store, everything);
    step("getLogs with only an upper date bound and a limit of one");
    GenericLogFilter upper;
    upper.setDateFilter(TimeStamp(), TimeStamp::fromUnixTimeStamp(kTo));
    upper.setResultLimit(1);
    noteLogs(store, upper);
    step("getLogs by a guid with a quote, by two key/values, by a value like a pattern");
    noteLogs(store, GenericLogFilter("", "g'2"));
    GenericLogFilter both;
    both.addKeyValueRequirement("a", "1");
    both.addKeyValueRequirement("b", "3");
    noteLogs(store, both);
    GenericLogFilter pattern;
    pattern.addKeyValueRequirement("a", "%");
    noteLogs(store, pattern);
    step("getLogs in a date range before the logs");
    GenericLogFilter before;
    before.setDateFilter(TimeStamp::fromUnixTimeStamp(kFrom), TimeStamp::fromUnixTimeStamp(kFrom));
    noteLogs(store, before);
    step("getVersion, isInitialized, getDBFilePath, checkValidity");
    note("version: " + std::to_string(store.getVersion()));
    note("initialized: " + yesNo(store.isInitialized()));
    note("path: " + store.getDBFilePath().str());
    String error;
    note("valid: " + yesNo(store.checkValidity(error)));
}

void GeneralCatalogueTest::closedAndUnopened(std::unique_ptr<GeneralDataStore> store) {
    step("close twice, then every operation");
    store->close();
    store->close();
    note("logged: " +
         yesNo(store->logOrUpdate(GenericLog(kType, kGuid, "", "", 0u, LogKeyValueSet()))));
    note("logs: " + std::to_string(store->getLogs(GenericLogFilter()).size()));
    String error;
    note("valid: " + yesNo(store->checkValidity(error)));
    note("error: " + error.str());
    noteThrow([&] { store->getVersion(); });
    step("destroy");
    store.reset();

    step("open a non-database file, then every operation");
    GeneralDataStore garbage{String(file("garbage.db"))};
    note("initialized: " + yesNo(garbage.isInitialized()));
    note("logged: " +
         yesNo(garbage.logOrUpdate(GenericLog(kType, kGuid, "", "", 0u, LogKeyValueSet()))));
    note("logs: " + std::to_string(garbage.getLogs(GenericLogFilter()).size()));
    note("version: " + std::to_string(garbage.getVersion()));
    note("valid: " + yesNo(garbage.checkValidity(error)));
    note("error: " + error.str());
    note("prunable: " + std::to_string(garbage.prunableBefore(TimeStamp(kFuture)).total()));
    garbage.close();
    step("open a file in a missing folder");
    GeneralDataStore missing{String(file("missing/genstore.db"))};
}

void GeneralCatalogueTest::olderFiles() {
    step("open a file of an older shape: version 0, columns missing, no index or view");
    {
        GeneralDataStore older{String(file("older.db"))};
        note("version: " + std::to_string(older.getVersion()));
        note("logs: " + std::to_string(older.getLogs(GenericLogFilter("T", "G")).size()));
    }
    step("open a file whose Version table is empty and whose indexes exist");
    {
        GeneralDataStore emptied{String(file("emptied.db"))};
        note("initialized: " + yesNo(emptied.isInitialized()));
        note("version: " + std::to_string(emptied.getVersion()));
    }
    step("logOrUpdate refused by SQLite midway");
    GeneralDataStore refusing{String(file("refusing.db"))};
    note("logged: " + yesNo(refusing.logOrUpdate(GenericLog(
                          kType, kGuid, "", "", 0u, keyValues({{"a", "1"}, {"b", "boom"}})))));
    step("logOrUpdate after the refusal");
    note("logged: " + yesNo(refusing.logOrUpdate(
                          GenericLog(kType, kGuid, "", "", 0u, keyValues({{"a", "1"}})))));
    step("getLogs of short rows");
    GenericLogList const narrowed = m_narrowed->getLogs(GenericLogFilter(kType, kGuid));
    note("logs: " + std::to_string(narrowed.size()) + ", key/values: " +
         std::to_string(narrowed.size() ? narrowed.get(0).keyValues().size() : 0u));
    m_narrowed.reset();
    step("the default location");
    std::filesystem::create_directories(file("default"));
    DataStoreSettings::setGeneralDataStorePath(String(file("default")));
    GeneralDataStore byDefault;
}

void GeneralCatalogueTest::optIns() {
    step("prunableBefore and pruneBefore a past cutoff");
    {
        GeneralDataStore store{String(file("genstore.db"))};
        note("prunable: " + std::to_string(store.prunableBefore(TimeStamp(kFrom)).total()));
        note("pruned: " + std::to_string(store.pruneBefore(TimeStamp(kFrom)).total()));
    }
    step("read-only: open, read, and refuse to write");
    {
        GeneralDataStore reader(String(file("genstore.db")), ReadOnly{});
        note("logs: " + std::to_string(reader.getLogs(GenericLogFilter(kType, kGuid)).size()));
        note("version: " + std::to_string(reader.getVersion()));
        note("logged: " +
             yesNo(reader.logOrUpdate(GenericLog(kType, kGuid, "", "", 0u, LogKeyValueSet()))));
        note("prunable: " + std::to_string(reader.prunableBefore(TimeStamp(kFuture)).total()));
        noteThrow([&] { reader.pruneBefore(TimeStamp(kFuture)); });
    }
    step("read-only: a missing file");
    noteThrow([&] { GeneralDataStore reader(String(file("absent.db")), ReadOnly{}); });
    step("open the file for batches");
    GeneralDataStore store{String(file("genstore.db"))};
    step("a batch of two logs, committed");
    {
        StoreBatch batch(store);
        store.logOrUpdate(GenericLog(kType, "batch1", "c", "s", 0u, keyValues({{"k", "v"}})));
        store.logOrUpdate(GenericLog(kType, "batch2", "c", "s", 0u, LogKeyValueSet()));
        batch.commit();
    }
    step("a batch left uncommitted");
    {
        StoreBatch batch(store);
        store.logOrUpdate(GenericLog(kType, "batch3", "c", "s", 0u, LogKeyValueSet()));
    }
    step("pruneBefore a future cutoff, with VACUUM");
    PruneOptions vacuum;
    vacuum.vacuum = true;
    note("prunable: " + std::to_string(store.prunableBefore(TimeStamp(kFuture)).total()));
    note("pruned: " + std::to_string(store.pruneBefore(TimeStamp(kFuture), vacuum).total()));
    step("JournalMode WAL on a new file");
    settings("SQLiteDataStore.JournalMode = WAL\n");
    GeneralDataStore wal{String(file("wal.db"))};
    settings("");
}

TEST_F(GeneralCatalogueTest, EveryStatementMessageAndSchema) {
    step("open a new file");
    auto store = std::make_unique<GeneralDataStore>(String(file("genstore.db")));
    logging(*store);
    queries(*store);
    closedAndUnopened(std::move(store));
    olderFiles();
    optIns();

    test::expectGolden("general/statements.txt", m_catalogue.statements());
    test::expectGolden("general/messages.txt", m_catalogue.messages());
    test::expectGolden(
        "general/schema.txt",
        "## a new file\n" + test::schemaText(file("genstore.db"), {"Version"}) +
            "## a file of an older shape, upgraded\n" +
            test::schemaText(file("older.db"), {"Version", "GenericLog", "KeyValues"}));
}

}  // namespace
}  // namespace zrn
