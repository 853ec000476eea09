// Power loss, simulated: a VFS records what each sync made durable while the stores work, and
// every moment a power cut could strike is rebuilt from that record alone (whatever was not
// synced is gone) and opened again. In each journal and sync mode the stores offer, the file
// must open, pass integrity_check and hold a whole prefix of the operations; at FULL, every
// operation that had returned.
//
// The model: a write is sure to be on disk only once an xSync of its file returned; a cut
// loses every other write, or, as a disk may write in any order, keeps those of one file and
// loses the rest. Creating and deleting files is durable when done (as SQLite's own crash
// simulation takes it).

#include <gtest/gtest.h>
#include <libDataStore/DataStore.h>
#include <sqlite3.h>

#include <filesystem>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace {

namespace fs = std::filesystem;

// ---- The recording VFS. One at a time: the state is the test's.

struct DurableState {
    std::map<std::string, std::string> files;  // path -> bytes a power cut would leave
    int operationsReturned = 0;                // when this state began
    bool leaked = false;  // a moment's state: the operations returned are the ones above
};

struct Recorder {
    sqlite3_vfs* real = nullptr;
    std::string folder;  // only files in here are recorded
    std::map<std::string, std::string> durable;
    std::vector<DurableState> states;
    int operationsReturned = 0;

    bool recorded(char const* path) const {
        return path && std::string(path).rfind(folder + "/", 0) == 0;
    }
    void pushState() { states.push_back({durable, operationsReturned, false}); }
    // The disk may also have written some unsynced data already, in any order: for each file
    // with writes since its last sync, the state of this moment with only its first of them
    // on disk (a torn transaction), and with all of them, the other files' lost.
    void pushLeaks() {
        for (auto const& file : pending) {
            for (std::size_t count : {std::size_t(1), file.second.size()}) {
                DurableState state{durable, operationsReturned, true};
                std::string& bytes = state.files[file.first];
                for (std::size_t i = 0; i < count; ++i) file.second[i].applyTo(bytes);
                states.push_back(std::move(state));
            }
        }
    }

    // Writes and truncations since the last sync, per file.
    struct Write {
        sqlite3_int64 offset;
        std::string bytes;
        bool truncation;
        void applyTo(std::string& content) const {
            auto const at = static_cast<std::size_t>(offset);
            if (truncation) {
                content.resize(std::min(content.size(), at));
            } else {
                if (content.size() < at + bytes.size()) content.resize(at + bytes.size());
                content.replace(at, bytes.size(), bytes);
            }
        }
    };
    std::map<std::string, std::vector<Write>> pending;
};

Recorder recorder;

struct RecordedFile {
    sqlite3_file base;
    sqlite3_file* real;
    std::string* path;  // null for a file that is not recorded
};

sqlite3_file* realOf(sqlite3_file* file) { return reinterpret_cast<RecordedFile*>(file)->real; }

int recordedSync(sqlite3_file* file, int flags) {
    recorder.pushLeaks();
    int const rc = realOf(file)->pMethods->xSync(realOf(file), flags);
    auto* const recorded = reinterpret_cast<RecordedFile*>(file);
    if (rc == SQLITE_OK && recorded->path) {
        recorder.pending.erase(*recorded->path);
        recorder.durable[*recorded->path] = test::readFile(*recorded->path);
        recorder.pushState();
    }
    return rc;
}

int recordedWrite(sqlite3_file* file, void const* bytes, int count, sqlite3_int64 offset) {
    auto* const recorded = reinterpret_cast<RecordedFile*>(file);
    if (recorded->path) {
        recorder.pending[*recorded->path].push_back(
            {offset, std::string(static_cast<char const*>(bytes), count), false});
    }
    return realOf(file)->pMethods->xWrite(realOf(file), bytes, count, offset);
}

int recordedTruncate(sqlite3_file* file, sqlite3_int64 size) {
    auto* const recorded = reinterpret_cast<RecordedFile*>(file);
    if (recorded->path) recorder.pending[*recorded->path].push_back({size, "", true});
    return realOf(file)->pMethods->xTruncate(realOf(file), size);
}

int recordedClose(sqlite3_file* file) {
    auto* const recorded = reinterpret_cast<RecordedFile*>(file);
    int const rc = recorded->real->pMethods->xClose(recorded->real);
    delete recorded->path;
    sqlite3_free(recorded->real);
    return rc;
}

// Everything but close and sync goes straight to the real file.
sqlite3_io_methods const kMethods = {
    3,
    recordedClose,
    [](sqlite3_file* f, void* b, int n, sqlite3_int64 o) {
        return realOf(f)->pMethods->xRead(realOf(f), b, n, o);
    },
    recordedWrite,
    recordedTruncate,
    recordedSync,
    [](sqlite3_file* f, sqlite3_int64* s) { return realOf(f)->pMethods->xFileSize(realOf(f), s); },
    [](sqlite3_file* f, int l) { return realOf(f)->pMethods->xLock(realOf(f), l); },
    [](sqlite3_file* f, int l) { return realOf(f)->pMethods->xUnlock(realOf(f), l); },
    [](sqlite3_file* f, int* r) { return realOf(f)->pMethods->xCheckReservedLock(realOf(f), r); },
    [](sqlite3_file* f, int o, void* a) {
        return realOf(f)->pMethods->xFileControl(realOf(f), o, a);
    },
    [](sqlite3_file* f) { return realOf(f)->pMethods->xSectorSize(realOf(f)); },
    [](sqlite3_file* f) { return realOf(f)->pMethods->xDeviceCharacteristics(realOf(f)); },
    [](sqlite3_file* f, int p, int s, int e, void volatile** m) {
        return realOf(f)->pMethods->xShmMap(realOf(f), p, s, e, m);
    },
    [](sqlite3_file* f, int o, int n, int l) {
        return realOf(f)->pMethods->xShmLock(realOf(f), o, n, l);
    },
    [](sqlite3_file* f) { realOf(f)->pMethods->xShmBarrier(realOf(f)); },
    [](sqlite3_file* f, int d) { return realOf(f)->pMethods->xShmUnmap(realOf(f), d); },
    [](sqlite3_file* f, sqlite3_int64 o, int n, void** p) {
        return realOf(f)->pMethods->xFetch(realOf(f), o, n, p);
    },
    [](sqlite3_file* f, sqlite3_int64 o, void* p) {
        return realOf(f)->pMethods->xUnfetch(realOf(f), o, p);
    },
};

int recordedOpen(sqlite3_vfs*, char const* name, sqlite3_file* file, int flags, int* outFlags) {
    auto* const recorded = reinterpret_cast<RecordedFile*>(file);
    recorded->base.pMethods = nullptr;
    recorded->real = static_cast<sqlite3_file*>(sqlite3_malloc(recorder.real->szOsFile));
    int const rc = recorder.real->xOpen(recorder.real, name, recorded->real, flags, outFlags);
    if (rc != SQLITE_OK) {
        sqlite3_free(recorded->real);
        return rc;
    }
    recorded->path = recorder.recorded(name) ? new std::string(name) : nullptr;
    // A file met for the first time holds what was durable before (nothing, when new).
    if (recorded->path && !recorder.durable.count(name)) {
        recorder.durable[name] = test::readFile(name);
        recorder.pushState();
    }
    recorded->base.pMethods = &kMethods;
    return SQLITE_OK;
}

int recordedDelete(sqlite3_vfs*, char const* name, int syncDir) {
    if (recorder.recorded(name)) recorder.pushLeaks();
    int const rc = recorder.real->xDelete(recorder.real, name, syncDir);
    recorder.pending.erase(name);
    if (rc == SQLITE_OK && recorder.recorded(name) && recorder.durable.erase(name))
        recorder.pushState();
    return rc;
}

// Records while it lives, as the default VFS every connection opened meanwhile takes.
class Recording {
public:
    explicit Recording(std::string const& folder) {
        recorder = Recorder();
        recorder.real = sqlite3_vfs_find("unix");
        recorder.folder = folder;
        for (auto const& entry : fs::directory_iterator(folder))
            recorder.durable[entry.path().string()] = test::readFile(entry.path().string());
        recorder.pushState();
        m_vfs = *recorder.real;
        m_vfs.zName = "zrn-power-loss";
        m_vfs.szOsFile = sizeof(RecordedFile);
        m_vfs.xOpen = recordedOpen;
        m_vfs.xDelete = recordedDelete;
        sqlite3_vfs_register(&m_vfs, 1);
    }
    ~Recording() {
        sqlite3_vfs_unregister(&m_vfs);
        sqlite3_vfs_register(recorder.real, 1);
    }
    Recording(Recording const&) = delete;
    Recording& operator=(Recording const&) = delete;

private:
    sqlite3_vfs m_vfs;
};

// ---- Reading a state back, through SQLite's own VFS

// The schema and every row of every table, sorted: what the operations wrote, whatever order
// the pages are in. "" for a file that is not there.
std::string contentsOf(std::string const& path, std::string* integrity = nullptr,
                       std::size_t* rowCount = nullptr) {
    if (!fs::exists(path)) return "";
    sqlite3* db = nullptr;
    sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, "unix");
    auto const rows = [&](std::string const& sql) {
        std::vector<std::string> out;
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK)
            return std::vector<std::string>{"error: " + std::string(sqlite3_errmsg(db)) + "|"};
        while (sqlite3_step(statement) == SQLITE_ROW) {
            std::string row;
            for (int i = 0; i < sqlite3_column_count(statement); ++i) {
                auto const* text = sqlite3_column_text(statement, i);
                row += (text ? reinterpret_cast<char const*>(text) : "<NULL>") + std::string("|");
            }
            out.push_back(row);
        }
        sqlite3_finalize(statement);
        return out;
    };
    if (integrity) {
        std::string const row = rows("PRAGMA integrity_check").front();
        *integrity = row.substr(0, row.size() - 1);
    }
    std::string text;
    for (auto const& table : rows("SELECT name FROM sqlite_master WHERE type='table' "
                                  "ORDER BY name")) {
        std::string const name = table.substr(0, table.size() - 1);
        auto all = rows("SELECT * FROM `" + name + "`");
        std::sort(all.begin(), all.end());
        if (rowCount) *rowCount += all.size();
        text += "## " + name + "\n";
        for (auto const& row : all) text += row + "\n";
    }
    for (auto const& entry : rows("SELECT type, name, sql FROM sqlite_master ORDER BY name"))
        text += entry + "\n";
    sqlite3_close(db);
    return text;
}

char const* const kStores[] = {"event.db", "genstore.db"};

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

LogKeyValueSet keyValues(char const* key, char const* value) {
    LogKeyValueSet set;
    set.append(LogKeyValue(key, value));
    return set;
}

// The operation after which a new general store is there, whole.
int const kGeneralOpened = 7;

struct Mode {
    char const* name;
    char const* settings;
    bool full;  // every operation that returned survives
};

void PrintTo(Mode const& mode, std::ostream* out) { *out << mode.name; }

class PowerLossTest : public testing::TestWithParam<Mode> {
protected:
    void SetUp() override {
        fs::create_directory(m_stores);
        test::writeFile(m_settings, GetParam().settings);
        // An event store of version 1, which the first operation upgrades.
        sqlite3* db = nullptr;
        sqlite3_open_v2(m_event.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, "unix");
        sqlite3_exec(db,
                     "CREATE TABLE `Versioning` (`version` INTEGER PRIMARY KEY);"
                     "INSERT INTO Versioning VALUES(1);"
                     "CREATE TABLE `ScriptRuns` (`scriptId` INTEGER PRIMARY KEY,`appId` INTEGER,"
                     "`name` TEXT,`result` TEXT,`startTime` INTEGER,`endTime` INTEGER,"
                     "`totalPasses` INTEGER,`specId` INTEGER);"
                     "INSERT INTO ScriptRuns (appId, name) VALUES(1, 'old run');",
                     nullptr, nullptr, nullptr);
        sqlite3_close(db);
        m_boundaries.push_back(current());
    }

    // What the files hold now, every write included: the state once an operation returned.
    std::map<std::string, std::string> current() {
        std::map<std::string, std::string> state;
        fs::remove_all(m_copy);
        fs::create_directory(m_copy);
        for (auto const& entry : fs::directory_iterator(m_stores)) {
            std::string const name = entry.path().filename().string();
            if (name.size() < 4 || name.compare(name.size() - 4, 4, "-shm") != 0)
                fs::copy_file(entry.path(), m_copy + "/" + name);
        }
        for (char const* store : kStores) state[store] = contentsOf(m_copy + "/" + store);
        return state;
    }
    void returned() {
        recorder.pushLeaks();
        ++recorder.operationsReturned;
        m_boundaries.push_back(current());
    }

    void record();
    // Rebuilds each distinct state a power cut could leave, and checks it.
    void checkEveryState();
    void checkState(DurableState const& state, int returned);

    test::TempDir m_dir;
    std::string const m_stores = m_dir.file("stores");
    std::string const m_copy = m_dir.file("copy");
    std::string const m_event = m_stores + "/event.db";
    std::string const m_general = m_stores + "/genstore.db";
    std::string const m_settings = m_dir.file("settings.ini");
    test::ScopedEnv m_env{"ZRN_SETTINGS_FILE", m_settings.c_str()};
    std::vector<std::map<std::string, std::string>> m_boundaries;  // after 0, 1, ... operations
    std::set<std::string> m_halfMade;  // stores of the state being checked caught half made
    int m_checked = 0;
    int m_behind = 0;    // states of a store that lost operations which had returned
    int m_mostLost = 0;  // the most operations such a state lost
};

// Plain operations, a batch, alerts, logOrUpdate, an upgrade and prunes, in two stores.
void PowerLossTest::record() {
    Recording recording(m_stores);
    EventDataStore events{String(m_event)};  // the upgrade
    returned();
    long long const first = *events.logAppStart("app", "user", "scheduled", at(100));
    returned();
    events.setAppName(first, "renamed");
    returned();
    EventDataStore::AlertData alert;
    alert.appId = first;
    alert.guid = "alert-1";
    alert.title = "Disk 'C:' almost full";
    alert.time = at(150);
    alert.keyValues = {{"free", "2%"}, {"drive", "C:"}};
    EventDataStore::AlertData second = alert;
    second.guid = "alert-2";
    events.logAlerts({alert, second});
    returned();
    {
        StoreBatch batch(events);
        long long const app = *events.logAppStart("batched", "user", "manual", at(300));
        events.logAppStop(app, at(400));
        events.logAppStart("batched too", "user", "manual", at(500));
        batch.commit();
    }
    returned();
    events.pruneBefore(at(250));
    returned();

    GeneralDataStore general{String(m_general)};
    returned();
    GenericLog log("type-1", "guid-1", "cat", "sub", 1, keyValues("k", "v"));
    general.logOrUpdate(log);
    returned();
    log.setCategories("cat2", "sub2");
    log.keyValues().append(LogKeyValue("k2", "v2"));
    general.logOrUpdate(log);
    returned();
    {
        StoreBatch batch(general);
        general.logOrUpdate(GenericLog("type-2", "guid-2", "c", "s", 0, keyValues("a", "b")));
        general.logOrUpdate(GenericLog("type-2", "guid-3", "c", "s", 0, keyValues("a", "c")));
        batch.commit();
    }
    returned();
    PruneOptions vacuum;
    vacuum.vacuum = true;
    general.pruneBefore(TimeStamp(DateTime::getCurrentUTCDateTime().unixTimeStamp() + 86400),
                        vacuum);
    returned();
}

void PowerLossTest::checkState(DurableState const& state, int returned) {
    std::string const scratch = m_dir.file("crash");
    fs::remove_all(scratch);
    fs::create_directory(scratch);
    for (auto const& file : state.files)
        test::writeFile(scratch + "/" + fs::path(file.first).filename().string(), file.second);
    int const last = static_cast<int>(m_boundaries.size()) - 1;
    for (char const* store : kStores) {
        std::string integrity;
        std::size_t rows = 0;
        std::string const contents = contentsOf(scratch + "/" + store, &integrity, &rows);
        std::string const where =
            std::string(store) + " after " + std::to_string(returned) + " operations returned";
        if (fs::exists(scratch + "/" + store)) {
            EXPECT_EQ(integrity, "ok") << where;
        }
        // A whole prefix of the operations: the ones that returned, perhaps the one under way;
        // with a weaker mode perhaps fewer, never part of one.
        int matched = -1;
        for (int k = std::min(returned + 1, last); k >= 0 && matched < 0; --k)
            if (m_boundaries[k].at(store) == contents) matched = k;
        if (matched < 0 && m_boundaries[returned].at(store).empty() && rows == 0) {
            // The one exception: a new general store makes its tables one statement at a
            // time before the transaction of its indexes, so a cut in its first opening can
            // leave some tables, empty. Its next opening completes them (checked below).
            m_halfMade.insert(store);
            continue;
        }
        ASSERT_GE(matched, 0) << where << ": no operation's end state\n" << contents;
        if (matched < returned) {
            ++m_behind;
            m_mostLost = std::max(m_mostLost, returned - matched);
            EXPECT_FALSE(GetParam().full) << where << ": only " << matched << " kept";
        }
    }
    // And every store opens it for writing again.
    EXPECT_NO_THROW(EventDataStore{String(scratch + "/event.db")});
    EXPECT_NO_THROW(GeneralDataStore{String(scratch + "/genstore.db")});
    for (char const* store : kStores) {
        std::string integrity;
        std::string const contents = contentsOf(scratch + "/" + store, &integrity);
        EXPECT_EQ(integrity, "ok") << store << " reopened";
        if (m_halfMade.count(store)) {
            EXPECT_EQ(contents, m_boundaries[kGeneralOpened].at(store)) << "completed " << store;
        }
    }
    m_halfMade.clear();
    ++m_checked;
}

void PowerLossTest::checkEveryState() {
    auto const& states = recorder.states;
    std::set<std::pair<std::map<std::string, std::string>, int>> seen;
    for (std::size_t i = 0; i < states.size(); ++i) {
        // The latest moment a durable state lasts: just before the next durable change.
        std::size_t next = i + 1;
        while (next < states.size() && states[next].leaked) ++next;
        int const returned = states[i].leaked       ? states[i].operationsReturned
                             : next < states.size() ? states[next].operationsReturned
                                                    : recorder.operationsReturned;
        if (seen.insert({states[i].files, returned}).second) checkState(states[i], returned);
        if (HasFatalFailure()) return;
    }
}

TEST_P(PowerLossTest, EveryCrashStateOpensWholeAndKeepsWhatTheModePromises) {
    record();
    ASSERT_EQ(m_boundaries.size(), 12u);
    // Every operation changed something, so each end state is told apart.
    for (std::size_t k = 1; k < m_boundaries.size(); ++k)
        EXPECT_NE(m_boundaries[k], m_boundaries[k - 1]) << "operation " << k;
    checkEveryState();
    EXPECT_GT(m_checked, 10);
    std::printf(
        "[ power loss ] %s: %zu durable points recorded, %d distinct states checked, "
        "%d store states lost operations that had returned (at most %d)\n",
        GetParam().name, recorder.states.size(), m_checked, m_behind, m_mostLost);
}

Mode const kModes[] = {
    {"DeleteFull", "", true},
    {"DeleteNormal", "[libDataStore]\nSQLiteDataStore.SyncMode=NORMAL\n", false},
    {"WalNormal",
     "[libDataStore]\nSQLiteDataStore.SyncMode=NORMAL\nSQLiteDataStore.JournalMode=WAL\n", false},
    {"WalFull", "[libDataStore]\nSQLiteDataStore.JournalMode=WAL\n", true},
};

INSTANTIATE_TEST_SUITE_P(Modes, PowerLossTest, testing::ValuesIn(kModes),
                         [](testing::TestParamInfo<Mode> const& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
}  // namespace zrn
