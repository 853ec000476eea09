#pragma once

// The fixture of a store's catalogue test: a private folder (written <dir> in the texts), an
// empty settings file of its own, a Catalogue recording from the start (or from start(), once
// the test has made the files its workload needs), and the schema dumps the workload takes
// along the way, compared at the end with tests/golden/<store>/.

#include <gtest/gtest.h>
#include <libDataStore/ReadOnly.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Golden.h"
#include "NamedStore.h"
#include "TestSupport.h"

namespace zrn {
namespace test {

// A record as a line of the messages text: its fields in declaration order, " | " between them.
inline std::string join(std::initializer_list<std::string> cells) {
    std::string out;
    for (auto const& cell : cells) out += (out.empty() ? "" : " | ") + cell;
    return out;
}
inline std::string n(long long value) { return std::to_string(value); }

class CatalogueTest : public ::testing::Test {
protected:
    CatalogueTest() {
        writeFile(m_settings, "");
        m_catalogue.replace(m_dir.path(), "<dir>");
    }

    // Starts the record afresh: what the test did to prepare its files is not the library's.
    void start() { m_catalogue.discard(); }
    // Lines of the section "libDataStore" in force for the connections opened from now on.
    void settings(std::string const& lines) { writeFile(m_settings, "[libDataStore]\n" + lines); }
    static std::string yesNo(bool value) { return value ? "yes" : "no"; }

    void step(std::string const& title) { m_catalogue.step(title); }
    template <class... Args>
    void note(Args&&... args) {
        m_catalogue.note(std::forward<Args>(args)...);
    }
    void noteThrow(std::string const& what, std::function<void()> const& work) {
        m_catalogue.noteThrow(what, work);
    }
    void noteThrow(std::function<void()> const& action) { m_catalogue.noteThrow(action); }
    std::string file(std::string const& name) const { return m_dir.file(name); }
    // A file of the folder by its name alone, for step titles.
    std::string nameOf(std::string const& path) const {
        return path.substr(m_dir.path().size() + 1);
    }

    // Adds the schema of `path`, with the rows of `tables`, under a heading.
    void dumpSchema(std::string const& title, std::string const& path,
                    std::vector<std::string> const& tables = {"Versioning"}) {
        m_catalogue.unrecorded(
            [&] { m_schema += "## " + title + "\n" + schemaText(path, tables); });
    }
    // Runs the test's own `sql` on `path` (making an old file, say), unrecorded.
    void prepare(std::string const& path, std::string const& sql) {
        m_catalogue.unrecorded([&] {
            RawDb raw(path);
            raw.exec(sql);
        });
    }
    // Runs `work` while another connection holds an exclusive lock on `path` (unrecorded).
    void whileLocked(std::string const& path, std::function<void()> const& work) {
        std::unique_ptr<RawDb> writer;
        m_catalogue.unrecorded([&] {
            writer = std::make_unique<RawDb>(path);
            writer->exec("BEGIN EXCLUSIVE");
        });
        work();
        m_catalogue.unrecorded([&] {
            writer->exec("ROLLBACK");
            writer.reset();
        });
    }
    // checkValidity's answer and the error text it leaves (`before` when it leaves none).
    template <class Store>
    void noteValidity(Store& store, char const* before = "") {
        String error(before);
        note("checkValidity(error)", store.checkValidity(error));
        note(std::string("error: ") + error.c_str());
    }
    // The end of a store's life: checkValidity on its file `path` moved away, then closed twice
    // and used closed (`useClosed`), then destroyed.
    template <class Store>
    void closing(NamedStore<Store>& store, std::string const& path,
                 std::function<void()> const& useClosed) {
        step("checkValidity on a file moved away");
        std::filesystem::rename(path, path + ".moved");
        noteValidity(*store);
        std::filesystem::rename(path + ".moved", path);
        step("close, close again, then use the closed store");
        store->close();
        store->close();
        noteValidity(*store);
        useClosed();
        step("destroy the closed store");
        store.reset();
    }
    // Openings (`what`) of a text file and of `fileName` in a missing folder, each followed by
    // `after` (the path and its name); the text stays as it was, the folder is made.
    template <class Store>
    void failedOpenings(
        std::string const& what, std::string const& fileName,
        std::function<void(std::string const&, std::string const&)> const& after = {}) {
        std::string const notes = "These are not the pages of a database, just some text.\n";
        std::string const notADatabase = file("notes.db");
        writeFile(notADatabase, notes);
        for (auto const& path : {notADatabase, file("missing/" + fileName)}) {
            std::string const name = nameOf(path);
            step("open " + name);
            NamedStore<Store> store(m_catalogue, "failing");
            noteThrow(what, [&] { store.emplace(String(path)); });
            if (after) after(path, name);
        }
        note("notes.db unchanged", readFile(notADatabase) == notes);
        note("missing folder made", std::filesystem::exists(file("missing")));
    }
    // Read-only openings (`what`) refused: of `path` while a writer holds it, of a missing file
    // and of a file of a Versioning table alone (made by `versioningSql`).
    template <class Store>
    void refusedReadOnly(std::string const& path, std::string const& what,
                         std::string const& versioningSql) {
        step("ReadOnly: open while a writer holds the file");
        whileLocked(path, [&] {
            NamedStore<Store> store(m_catalogue, "blocked");
            noteThrow(what, [&] {
                store.emplace(String(path), ReadOnly{std::chrono::milliseconds(0), false});
            });
        });
        std::string const other = file("versioning-only.db");
        prepare(other, versioningSql);
        for (auto const& refused : {file("absent.db"), other}) {
            step("ReadOnly: open " + nameOf(refused));
            NamedStore<Store> store(m_catalogue, "refused");
            noteThrow(what, [&] { store.emplace(String(refused), ReadOnly{}); });
        }
    }
    // A new file opened with JournalMode WAL, and `work` done on it.
    template <class Store>
    void walFile(std::function<void(Store&)> const& work) {
        writeFile(m_settings, "[libDataStore]\nSQLiteDataStore.JournalMode = WAL\n");
        step("JournalMode WAL: open a new file and log");
        {
            NamedStore<Store> store(m_catalogue, "wal");
            work(store.emplace(String(file("wal.db"))));
        }
        writeFile(m_settings, "");
    }
    // An older file made by its own statements, opened by the store of today.
    struct OldFile {
        char const* title;
        std::string sql;
    };
    // Opens each older file (its schema dumped as "a file of <title>, <opened>"), then a new
    // file whose Versioning table is emptied under the open store.
    template <class Store>
    void openOldFiles(std::vector<OldFile> const& olds, std::string const& opened) {
        int n = 0;
        for (auto const& old : olds) {
            std::string const path = file("old" + std::to_string(++n) + ".db");
            prepare(path, old.sql);
            step("open a file of " + std::string(old.title));
            {
                NamedStore<Store> store(m_catalogue, "upgraded");
                store.emplace(String(path));
                note("getVersion()", store->getVersion());
            }
            dumpSchema(std::string("a file of ") + old.title + ", " + opened, path);
        }
        std::string const emptied = file("emptied.db");
        step("open a new file to empty its Versioning table");
        NamedStore<Store> store(m_catalogue, "emptied");
        store.emplace(String(emptied));
        prepare(emptied, "DELETE FROM Versioning;");
        step("getVersion on an emptied Versioning table");
        note("getVersion()", store->getVersion());
    }

    // statements.txt, messages.txt and schema.txt of tests/golden/<store>/.
    void expectGoldens(std::string const& store, std::string const& schema) {
        expectGolden(store + "/statements.txt", m_catalogue.statements());
        expectGolden(store + "/messages.txt", m_catalogue.messages());
        expectGolden(store + "/schema.txt", schema);
    }

    TempDir m_dir;
    std::string const m_settings = m_dir.file("settings.ini");
    ScopedEnv m_env{"ZRN_SETTINGS_FILE", m_settings.c_str()};
    Catalogue m_catalogue;
    std::string m_schema;
};

}  // namespace test
}  // namespace zrn
