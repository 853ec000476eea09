// Every list reader against raw sqlite3 running exactly the statements the reader ran, on files
// of 100,000 rows (and 1,000,000 with --million), in one run.
//
// The raw side's statements are not written by hand: each case first calls the reader once on
// a connection traced with sqlite3_trace_v2 and replays the statements it saw, in the same
// order, on its own connection. The raw side keeps what it read as a program would, in plain
// structs: numbers as numbers (sqlite3_column_int64/double), texts as std::string.
//
// Per case: wall and thread CPU time per call (median of the repetitions), their ratios, the
// peak resident memory of one call in a child process and the peak C++ heap bytes of one call.
//
//   Readers_bench [--million] [--benchmark_filter=...] [--benchmark_repetitions=N]

#define ZRN_BENCH_COUNT_HEAP
#include <libDataStore/AppStateDataStore.h>
#include <libDataStore/EventDataStore.h>
#include <libDataStore/GeneralDataStore.h>
#include <libDataStore/SoftwareDiagEventDataStore.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "SqlTrace.h"

namespace zrn {
namespace {

using Statements = std::vector<std::string>;

// ---- Raw side ----------------------------------------------------------------------------

// Steps through `sql` on `db`, handing each row to `onRow(statement)`.
template <class OnRow>
void rawRows(sqlite3* db, std::string const& sql, OnRow onRow) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, sql.c_str(), static_cast<int>(sql.size()), &statement, nullptr) !=
        SQLITE_OK) {
        throw std::runtime_error(std::string(sqlite3_errmsg(db)) + " in: " + sql);
    }
    while (sqlite3_step(statement) == SQLITE_ROW) onRow(statement);
    sqlite3_finalize(statement);
}

std::string text(sqlite3_stmt* statement, int column) {
    auto const* cell = reinterpret_cast<char const*>(sqlite3_column_text(statement, column));
    return cell ? std::string(cell,
                              static_cast<std::size_t>(sqlite3_column_bytes(statement, column)))
                : std::string();
}
long long integer(sqlite3_stmt* statement, int column) {
    return sqlite3_column_int64(statement, column);
}
double real(sqlite3_stmt* statement, int column) {
    return sqlite3_column_double(statement, column);
}

// The statements `call` runs, from a store opened by `open` on a traced connection (the
// connection's opening statements are left out).
template <class Open, class Call>
Statements traced(Open open, Call call) {
    test::SqlTrace trace;
    auto store = open();
    trace.clear();
    call(*store);
    return trace.statements();
}

// ---- Files -------------------------------------------------------------------------------

// One file per reader family and size, made once with raw prepared statements in one
// transaction on a file whose schema the store made; removed with the scratch folder.
class Filler {
public:
    explicit Filler(std::string const& path) : m_raw(path, 0) { m_raw.exec("BEGIN"); }
    ~Filler() {
        for (auto& statement : m_statements) sqlite3_finalize(statement.second);
        m_raw.exec("COMMIT");
    }
    Filler(Filler const&) = delete;
    Filler& operator=(Filler const&) = delete;

    // Runs `sql` with the values bound in order (texts and 64-bit numbers).
    struct Value {
        Value(long long n) : number(n) {}  // NOLINT: implicit by design
        Value(std::string t) : isText(true), textValue(std::move(t)) {}  // NOLINT
        Value(char const* t) : isText(true), textValue(t) {}             // NOLINT
        Value(double r) : isReal(true), realValue(r) {}                  // NOLINT
        long long number = 0;
        bool isText = false;
        bool isReal = false;
        std::string textValue;
        double realValue = 0;
    };
    void run(char const* sql, std::initializer_list<Value> values) {
        sqlite3_stmt*& statement = m_statements[sql];
        if (!statement) sqlite3_prepare_v2(m_raw.handle(), sql, -1, &statement, nullptr);
        int i = 0;
        for (Value const& value : values) {
            ++i;
            if (value.isText) {
                sqlite3_bind_text(statement, i, value.textValue.c_str(), -1, SQLITE_TRANSIENT);
            } else if (value.isReal) {
                sqlite3_bind_double(statement, i, value.realValue);
            } else {
                sqlite3_bind_int64(statement, i, value.number);
            }
        }
        if (sqlite3_step(statement) != SQLITE_DONE) throw std::runtime_error(sql);
        sqlite3_reset(statement);
    }
    long long lastId() { return sqlite3_last_insert_rowid(m_raw.handle()); }

private:
    bench::RawConnection m_raw;
    std::map<std::string, sqlite3_stmt*> m_statements;
};

template <class Store, class Fill>
std::string const& file(char const* name, int rows, Fill fill) {
    static std::map<std::pair<std::string, int>, std::string> made;
    auto const key = std::make_pair(std::string(name), rows);
    auto const found = made.find(key);
    if (found != made.end()) return found->second;
    bench::useSyncMode(0);
    std::string const path = bench::freshPath(std::string(name) + "-" + std::to_string(rows));
    { Store schema{String(path)}; }
    {
        Filler filler(path);
        fill(filler, rows);
    }
    return made[key] = path;
}

long long const kT0 = 1700000000;

std::string const& sessionsFile(int rows) {
    return file<SoftwareDiagEventDataStore>("sessions", rows, [](Filler& f, int n) {
        for (long long i = 0; i < n; ++i) {
            f.run("INSERT INTO Sessions (startTimeStamp,endTimeStamp) VALUES(?,?)",
                  {kT0 + i, kT0 + i + 60});
        }
    });
}

std::string const& appStateFile(int rows) {
    return file<AppStateDataStore>("appstate", rows, [](Filler& f, int n) {
        for (int i = 0; i < n; ++i) {
            f.run("INSERT INTO AppState (key,data,filterGroup,dateTime) VALUES(?,?,?,?)",
                  {"item key " + std::to_string(i), "the value of item " + std::to_string(i),
                   "group", "2026-11-25T10:00:00+00:00"});
        }
    });
}

std::string const& eventFile(int rows) {
    return file<EventDataStore>("event", rows, [](Filler& f, int n) {
        for (int i = 0; i < n; ++i) {
            long long const t = kT0 + (i * 7919LL) % n;
            f.run(
                "INSERT INTO Alerts (appId,guid,key,type,title,message,deviceName,dateTime,"
                "tracked) VALUES(1,?,'alert.key',?,'A title','An alert message','Disk 0',?,0)",
                {"alert-guid-" + std::to_string(i), i % 2 ? "Disk" : "Network", t});
            f.run(
                "INSERT INTO TestRuns (scriptId,testName,deviceName,result,startTime,endTime,"
                "testGuid,deviceGuid,deviceType,pass,errorCode) "
                "VALUES(1,'Surface scan','Disk 0','PASS',?,?,?,'device-guid','HDD',1,'0')",
                {t, t + 30, "test-guid-" + std::to_string(i)});
            f.run(
                "INSERT INTO Measurements (type,spanStartTime,spanEndTime,spanMiddleTime,maximum,"
                "minimum,average,median,numberOfSamples) VALUES('cpu.temperature',?,?,?,?,?,?,?,"
                "60)",
                {t - 30, t + 30, t, 71.5 + i % 10, 40.25, 55.125 + i % 7, 54.5});
        }
    });
}

int const kKeyValuesPerLog = 10;

// rows/10 logs of ten key/values each: `rows` key/values.
std::string const& generalFile(int rows) {
    return file<GeneralDataStore>("general", rows, [](Filler& f, int n) {
        for (int i = 0; i < n / kKeyValuesPerLog; ++i) {
            f.run(
                "INSERT INTO GenericLog (typeUUID,guid,category,subCategory,creationTimeStamp,"
                "updateTimeStamp,tracked,flags) VALUES('type',?,'category','sub',?,?,0,0)",
                {"log-guid-" + std::to_string(i), kT0 + i, kT0 + i});
            long long const id = f.lastId();
            for (int k = 0; k < kKeyValuesPerLog; ++k) {
                f.run(
                    "INSERT INTO KeyValues (setID,key,value,tracked,updateTimeStamp) "
                    "VALUES(?,?,?,0,?)",
                    {id, "key" + std::to_string(k), "value " + std::to_string(k * i), kT0 + i});
            }
        }
    });
}

// ---- Cases -------------------------------------------------------------------------------

// Times `read(store)` against `replay(raw connection, statements)`; the store's statements
// are traced once first. Fails the case when the two sides return different record counts.
template <class Store, class Read, class Replay>
void readerCase(benchmark::State& state, std::string const& path, Read read, Replay replay) {
    Statements const statements =
        traced([&] { return std::make_unique<Store>(String(path)); }, read);
    std::fprintf(stderr, "%zu statement(s), the first: %s\n", statements.size(),
                 statements.empty() ? "none" : statements[0].c_str());
    Store store{String(path)};
    bench::RawConnection raw(path, 0);
    std::size_t const expected = read(store);
    if (replay(raw.handle(), statements) != expected) {
        state.SkipWithError("the raw side read another number of records");
        return;
    }
    bench::paired(
        state, [&](long long) { benchmark::DoNotOptimize(read(store)); },
        [&](long long) { benchmark::DoNotOptimize(replay(raw.handle(), statements)); }, true);
}

struct Session {
    long long id, start, end;
};

std::size_t replaySessions(sqlite3* db, Statements const& statements) {
    std::vector<Session> sessions;
    rawRows(db, statements.at(0), [&](sqlite3_stmt* s) {
        sessions.push_back(Session{integer(s, 0), integer(s, 1), integer(s, 2)});
    });
    return sessions.size();
}

void getSessions(benchmark::State& state, int rows, int limit) {
    readerCase<SoftwareDiagEventDataStore>(
        state, sessionsFile(rows),
        [limit](SoftwareDiagEventDataStore& store) -> std::size_t {
            return store.getSessions(TimeStamp(), TimeStamp(), true, limit).size();
        },
        replaySessions);
}

void getItems(benchmark::State& state, int rows) {
    readerCase<AppStateDataStore>(
        state, appStateFile(rows),
        [](AppStateDataStore& store) { return store.getItems("group").size(); },
        [](sqlite3* db, Statements const& statements) {
            std::map<std::string, std::string> items;
            rawRows(db, statements.at(0),
                    [&](sqlite3_stmt* s) { items.emplace(text(s, 0), text(s, 1)); });
            return items.size();
        });
}

struct Alert {
    long long id;
    std::string guid, key, type, title, message, deviceName;
    long long dateTime;
};

void alertResultLogs(benchmark::State& state, int rows, int limit) {
    readerCase<EventDataStore>(
        state, eventFile(rows),
        [limit](EventDataStore& store) {
            return store.alertResultLogs({}, {}, "", false, limit).size();
        },
        [](sqlite3* db, Statements const& statements) {
            std::vector<Alert> alerts;
            rawRows(db, statements.at(0), [&](sqlite3_stmt* s) {
                alerts.push_back(Alert{integer(s, 0), text(s, 1), text(s, 2), text(s, 3),
                                       text(s, 4), text(s, 5), text(s, 6), integer(s, 7)});
            });
            return alerts.size();
        });
}

struct TestRun {
    long long id;
    std::string testName, deviceName, testGuid, deviceGuid, deviceType, errorCode, result;
    long long startTime;
    unsigned pass;
};

void testRunResultLogs(benchmark::State& state, int rows) {
    readerCase<EventDataStore>(
        state, eventFile(rows),
        [](EventDataStore& store) { return store.testRunResultLogs(1, {}, {}, 0).size(); },
        [](sqlite3* db, Statements const& statements) {
            std::vector<TestRun> runs;
            rawRows(db, statements.at(0), [&](sqlite3_stmt* s) {
                runs.push_back(TestRun{integer(s, 0), text(s, 1), text(s, 2), text(s, 3),
                                       text(s, 4), text(s, 5), text(s, 6), text(s, 7),
                                       integer(s, 8), static_cast<unsigned>(integer(s, 9))});
            });
            return runs.size();
        });
}

struct Measurement {
    std::string type;
    long long start, middle, end;
    double maximum, minimum, average, median;
    unsigned samples;
};

void measurementLogs(benchmark::State& state, int rows) {
    readerCase<EventDataStore>(
        state, eventFile(rows),
        [](EventDataStore& store) { return store.measurementLogs({}, {}, "", 0).size(); },
        [](sqlite3* db, Statements const& statements) {
            std::vector<Measurement> measurements;
            rawRows(db, statements.at(0), [&](sqlite3_stmt* s) {
                measurements.push_back(Measurement{
                    text(s, 0), integer(s, 1), integer(s, 2), integer(s, 3), real(s, 4), real(s, 5),
                    real(s, 6), real(s, 7), static_cast<unsigned>(integer(s, 8))});
            });
            return measurements.size();
        });
}

// The streamed form, each record handed over and dropped, against raw sqlite3 making each
// row's record the same way: the memory of neither side grows with the rows.
void streamedMeasurementLogs(benchmark::State& state, int rows) {
    readerCase<EventDataStore>(
        state, eventFile(rows),
        [](EventDataStore& store) {
            std::size_t count = 0;
            store.measurementLogs({}, {}, "", 0, [&](MeasurementLog const& log) {
                benchmark::DoNotOptimize(log.average());
                ++count;
            });
            return count;
        },
        [](sqlite3* db, Statements const& statements) {
            std::size_t count = 0;
            rawRows(db, statements.at(0), [&](sqlite3_stmt* s) {
                Measurement const m{
                    text(s, 0),    integer(s, 1), integer(s, 2),
                    integer(s, 3), real(s, 4),    real(s, 5),
                    real(s, 6),    real(s, 7),    static_cast<unsigned>(integer(s, 8))};
                benchmark::DoNotOptimize(m.average);
                ++count;
            });
            return count;
        });
}

struct KeyValue {
    long long setId;
    std::string key, value;
    long long tracked, updated;
};
struct Log {
    long long id;
    std::string typeUuid, guid, category, subCategory;
    long long created, updated, tracked, flags;
    std::vector<KeyValue> keyValues;
};

// The log statement, then one key/value statement per log, in the order the store ran them.
void getLogs(benchmark::State& state, int rows) {
    readerCase<GeneralDataStore>(
        state, generalFile(rows),
        [](GeneralDataStore& store) { return store.getLogs(GenericLogFilter()).size(); },
        [](sqlite3* db, Statements const& statements) {
            std::vector<Log> logs;
            rawRows(db, statements.at(0), [&](sqlite3_stmt* s) {
                logs.push_back(Log{integer(s, 0),
                                   text(s, 1),
                                   text(s, 2),
                                   text(s, 3),
                                   text(s, 4),
                                   integer(s, 5),
                                   integer(s, 6),
                                   integer(s, 7),
                                   integer(s, 8),
                                   {}});
            });
            for (std::size_t i = 0; i < logs.size() && i + 1 < statements.size(); ++i) {
                rawRows(db, statements[i + 1], [&](sqlite3_stmt* s) {
                    logs[i].keyValues.push_back(KeyValue{integer(s, 0), text(s, 1), text(s, 2),
                                                         integer(s, 3), integer(s, 4)});
                });
            }
            return logs.size();
        });
}

void registerCases(int rows) {
    std::string const n = "/" + std::to_string(rows);
    auto add = [](std::string const& name, auto body) {
        benchmark::RegisterBenchmark(name.c_str(), body)->Unit(benchmark::kMillisecond);
    };
    add("getSessions(all)" + n, [rows](benchmark::State& s) { getSessions(s, rows, 0); });
    add("getSessions(limit 100)" + n, [rows](benchmark::State& s) { getSessions(s, rows, 100); });
    add("AppState.getItems" + n, [rows](benchmark::State& s) { getItems(s, rows); });
    add("alertResultLogs(all)" + n, [rows](benchmark::State& s) { alertResultLogs(s, rows, 0); });
    add("alertResultLogs(limit 100)" + n,
        [rows](benchmark::State& s) { alertResultLogs(s, rows, 100); });
    add("testRunResultLogs" + n, [rows](benchmark::State& s) { testRunResultLogs(s, rows); });
    add("measurementLogs" + n, [rows](benchmark::State& s) { measurementLogs(s, rows); });
    add("measurementLogs(streamed)" + n,
        [rows](benchmark::State& s) { streamedMeasurementLogs(s, rows); });
    add("getLogs(10 kv each)" + n, [rows](benchmark::State& s) { getLogs(s, rows); });
}

}  // namespace
}  // namespace zrn

int main(int argc, char** argv) {
    zrn::bench::HeapCount::counting = true;
    std::vector<char*> args;
    bool million = false;
    for (int i = 0; i < argc; ++i) {
        if (std::strcmp(argv[i], "--million") == 0) {
            million = true;
        } else {
            args.push_back(argv[i]);
        }
    }
    zrn::registerCases(100000);
    if (million) zrn::registerCases(1000000);
    return zrn::bench::runPaired(static_cast<int>(args.size()), args.data());
}
