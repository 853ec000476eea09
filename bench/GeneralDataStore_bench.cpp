// GeneralDataStore::logOrUpdate (a log of 10 key/values, new and updated) and ::getLogs
// (1,000 logs of 10 key/values each, selected by type out of 10,000, 100,000 and 1,000,000
// stored logs)
// against raw sqlite3 running the same statements on a connection opened the same way, both
// timed in every iteration; getLogs also gives the peak memory of one call on each side.
// Compare getLogs/.../10000 with getLogs/.../100000 to see how the query grows with the file.

#include <libDataStore/GeneralDataStore.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BenchSupport.h"

namespace {

using zrn::GeneralDataStore;
using zrn::GenericLog;
using zrn::GenericLogFilter;
using zrn::LogKeyValue;
using zrn::LogKeyValueSet;
using zrn::String;
using zrn::bench::freshPath;
using zrn::bench::RawConnection;

int const kKeyValues = 10;
int const kLogsPerType = 1000;

std::string nowText() { return std::to_string(static_cast<long long>(std::time(nullptr))); }

// Every row of one statement, every cell as text.
std::vector<std::vector<std::string>> query(RawConnection& raw, std::string const& sql) {
    std::vector<std::vector<std::string>> rows;
    char* error = nullptr;
    int const rc = sqlite3_exec(
        raw.handle(), sql.c_str(),
        [](void* out, int columns, char** cells, char**) {
            std::vector<std::string> row;
            for (int i = 0; i < columns; ++i) row.emplace_back(cells[i] ? cells[i] : "");
            static_cast<std::vector<std::vector<std::string>>*>(out)->push_back(std::move(row));
            return 0;
        },
        &rows, &error);
    if (rc != SQLITE_OK) {
        std::string const message = error ? error : "?";
        sqlite3_free(error);
        throw std::runtime_error(message + " in: " + sql);
    }
    return rows;
}

LogKeyValueSet keyValues(std::string const& valueSuffix) {
    LogKeyValueSet set;
    for (int k = 0; k < kKeyValues; ++k) {
        set.append(
            LogKeyValue("key" + std::to_string(k), "value " + std::to_string(k) + valueSuffix));
    }
    return set;
}

// ---- logOrUpdate -------------------------------------------------------------------------

std::string selectSetId(std::string const& guid) {
    return "SELECT rowid from `GenericLog` WHERE `typeUUID` = 'type' AND `guid` = '" + guid + "'";
}

void logNew(benchmark::State& state, int mode) {
    zrn::bench::useSyncMode(mode);
    std::string const name = zrn::bench::syncModeName(mode);
    GeneralDataStore store{String(freshPath("new-ours-" + name))};
    LogKeyValueSet const kvs = keyValues("");
    std::string const path = freshPath("new-raw-" + name);
    { GeneralDataStore schema{String(path)}; }
    RawConnection raw(path, mode);
    zrn::bench::paired(
        state,
        [&](long long i) {
            GenericLog const log("type", "guid" + std::to_string(i), "cat", "sub", 0u, kvs);
            if (!store.logOrUpdate(log)) state.SkipWithError("logOrUpdate failed");
        },
        [&](long long i) {
            std::string const guid = "guid" + std::to_string(i);
            std::string const now = nowText();
            query(raw, selectSetId(guid));
            raw.exec("BEGIN");
            raw.exec(
                "INSERT OR REPLACE INTO `GenericLog` (`typeUUID`,`guid`,`creationTimeStamp`,"
                "`category`,`subCategory`,`updateTimeStamp`,`tracked`,`flags`) VALUES('type','" +
                guid + "','" + now + "','cat','sub','" + now + "','0','0')");
            std::string const id = query(raw, selectSetId(guid)).at(0).at(0);
            query(raw, "SELECT rowid, * FROM `KeyValues` WHERE `setID`='" + id + "'");
            for (int k = 0; k < kKeyValues; ++k) {
                raw.exec(
                    "INSERT OR REPLACE INTO `KeyValues` (`setID`,`key`,`value`,`tracked`,"
                    "`updateTimeStamp`) VALUES('" +
                    id + "','key" + std::to_string(k) + "','value " + std::to_string(k) +
                    "','0','" + now + "')");
            }
            raw.exec("COMMIT");
        });
}

// Every call changes all ten values, so every key/value is rewritten.
void logUpdate(benchmark::State& state, int mode) {
    zrn::bench::useSyncMode(mode);
    std::string const name = zrn::bench::syncModeName(mode);
    GeneralDataStore store{String(freshPath("update-ours-" + name))};
    store.logOrUpdate(GenericLog("type", "guid", "cat", "sub", 0u, keyValues("")));
    std::string const path = freshPath("update-raw-" + name);
    {
        GeneralDataStore schema{String(path)};
        schema.logOrUpdate(GenericLog("type", "guid", "cat", "sub", 0u, keyValues("")));
    }
    RawConnection raw(path, mode);
    zrn::bench::paired(
        state,
        [&](long long i) {
            GenericLog const log("type", "guid", "cat", "sub", 0u,
                                 keyValues(" #" + std::to_string(i)));
            if (!store.logOrUpdate(log)) state.SkipWithError("logOrUpdate failed");
        },
        [&](long long i) {
            std::string const suffix = " #" + std::to_string(i);
            std::string const now = nowText();
            std::string id = query(raw, selectSetId("guid")).at(0).at(0);
            raw.exec("BEGIN");
            raw.exec(
                "UPDATE `GenericLog` SET `category` = 'cat',`subCategory` = 'sub',"
                "`updateTimeStamp` = '" +
                now + "',`tracked` = '0',`flags` = '0' WHERE `rowid`='" + id + "'");
            id = query(raw, selectSetId("guid")).at(0).at(0);
            std::map<std::string, std::string> rowIds;
            for (auto const& row :
                 query(raw, "SELECT rowid, * FROM `KeyValues` WHERE `setID`='" + id + "'")) {
                rowIds[row.at(2)] = row.at(0);
            }
            for (int k = 0; k < kKeyValues; ++k) {
                std::string const key = "key" + std::to_string(k);
                raw.exec("UPDATE `KeyValues` SET `setID` = '" + id + "',`key` = '" + key +
                         "',`value` = 'value " + std::to_string(k) + suffix +
                         "',`tracked` = '0',`updateTimeStamp` = '" + now + "' WHERE `rowid`='" +
                         rowIds.at(key) + "'");
            }
            raw.exec("COMMIT");
        });
}

// ---- getLogs -----------------------------------------------------------------------------

// A file of `logs` logs of ten key/values each, kLogsPerType logs per type, made once per size
// and shared by both sides (they only read it).
std::string const& storedLogs(int logs) {
    // Removes the files when the program ends.
    static struct Files : std::map<int, std::string> {
        ~Files() {
            for (auto const& file : *this) std::remove(file.second.c_str());
        }
    } files;
    auto const found = files.find(logs);
    if (found != files.end()) return found->second;

    std::string const path = freshPath("general-getlogs-" + std::to_string(logs));
    { GeneralDataStore schema{String(path)}; }
    RawConnection raw(path, 0);
    raw.exec("BEGIN");
    sqlite3_stmt* log = nullptr;
    sqlite3_stmt* kv = nullptr;
    sqlite3_prepare_v2(
        raw.handle(),
        "INSERT INTO GenericLog (typeUUID,guid,category,subCategory,"
        "creationTimeStamp,updateTimeStamp,tracked,flags) VALUES(?,?,'cat','sub',?,?,0,0)",
        -1, &log, nullptr);
    sqlite3_prepare_v2(raw.handle(),
                       "INSERT INTO KeyValues (setID,key,value,tracked,updateTimeStamp) "
                       "VALUES(?,?,?,0,?)",
                       -1, &kv, nullptr);
    int const types = logs / kLogsPerType;
    for (int i = 0; i < logs; ++i) {
        std::string const type = "type-" + std::to_string(i % types);
        std::string const guid = "guid-" + std::to_string(i);
        sqlite3_bind_text(log, 1, type.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(log, 2, guid.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_int64(log, 3, 1600000000 + i);
        sqlite3_bind_int64(log, 4, 1600000000 + i);
        sqlite3_step(log);
        sqlite3_reset(log);
        sqlite3_int64 const id = sqlite3_last_insert_rowid(raw.handle());
        for (int k = 0; k < kKeyValues; ++k) {
            std::string const key = "key" + std::to_string(k);
            std::string const value = "value " + std::to_string(k) + " of " + guid;
            sqlite3_bind_int64(kv, 1, id);
            sqlite3_bind_text(kv, 2, key.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(kv, 3, value.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_int64(kv, 4, 1600000000 + i);
            sqlite3_step(kv);
            sqlite3_reset(kv);
        }
    }
    sqlite3_finalize(log);
    sqlite3_finalize(kv);
    raw.exec("COMMIT");
    return files[logs] = path;
}

// The raw side keeps what it read, as a program that lists logs must.
void getLogs(benchmark::State& state, int logs) {
    std::string const& path = storedLogs(logs);
    GeneralDataStore store{String(path)};
    RawConnection raw(path, 0);
    zrn::bench::paired(
        state,
        [&](long long t) {
            zrn::GenericLogList const found =
                store.getLogs(GenericLogFilter("type-" + std::to_string(t % 7), ""));
            if (found.size() != kLogsPerType) state.SkipWithError("unexpected result size");
            benchmark::DoNotOptimize(found);
        },
        [&](long long t) {
            auto const found = query(raw,
                                     "SELECT kv_set.rowid, * FROM `GenericLog` kv_set\n WHERE "
                                     "`typeUUID` = 'type-" +
                                         std::to_string(t % 7) + "'");
            if (found.size() != kLogsPerType) state.SkipWithError("unexpected result size");
            std::vector<std::vector<std::vector<std::string>>> keyValues;
            keyValues.reserve(found.size());
            for (auto const& row : found) {
                keyValues.push_back(
                    query(raw, "SELECT * from `KeyValues` WHERE `setID` = '" + row[0] + "'"));
            }
            benchmark::DoNotOptimize(keyValues);
        },
        true);
}

}  // namespace

int main(int argc, char** argv) {
    using zrn::bench::syncModeName;
    for (int mode : {0, 2}) {
        benchmark::RegisterBenchmark(
            (std::string("General.logOrUpdate.new@") + syncModeName(mode)).c_str(), logNew, mode);
        benchmark::RegisterBenchmark(
            (std::string("General.logOrUpdate.update@") + syncModeName(mode)).c_str(), logUpdate,
            mode);
    }
    for (int logs : {10000, 100000, 1000000}) {
        benchmark::RegisterBenchmark(("General.getLogs/" + std::to_string(logs)).c_str(), getLogs,
                                     logs)
            ->Unit(benchmark::kMillisecond);
    }
    return zrn::bench::runPaired(argc, argv);
}
