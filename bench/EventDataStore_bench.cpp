// EventDataStore against raw sqlite3 running the same statements on a file of the same schema.
//
// Each case times both sides in the same loop: every iteration runs the store's operation and
// the raw statements once each, alternating which goes first, so drift in the machine's load
// hits both alike. The counters store_us and raw_us are the mean times per operation and
// ratio = store/raw; the table printed at the end gives the median ratio over the repetitions
// (5 unless --benchmark_repetitions says otherwise). Files and the named mutexes' lock files go
// to a private folder.
//
//   EventDataStore_bench [--benchmark_filter=...] [--benchmark_repetitions=N]
//   EventDataStore_bench --plans    (prints SQLite's query plans for the look-ups instead)

#include <benchmark/benchmark.h>
#include <libDataStore/EventDataStore.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "BenchSupport.h"

namespace zrn {
namespace {

using Clock = std::chrono::steady_clock;

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

char const* modeName(int mode) { return bench::syncModeName(mode); }

std::string freshFile(std::string const& name) { return bench::freshPath(name); }

void useSyncMode(int mode) { bench::useSyncMode(mode); }

std::string quoted(std::string const& text) {
    std::string out = "'";
    for (char c : text) {
        if (c == '\'') out += '\'';
        out += c;
    }
    return out + "'";
}

// Two files of the store's schema: one used through the store, one through raw sqlite3.
struct Files {
    Files(std::string const& name, int mode) {
        useSyncMode(mode);
        std::string const rawPath = freshFile(name + "-raw");
        { EventDataStore schema{String(rawPath)}; }
        store.reset(new EventDataStore(String(freshFile(name + "-store"))));
        raw.reset(new bench::RawConnection(rawPath, mode));
    }
    std::unique_ptr<EventDataStore> store;
    std::unique_ptr<bench::RawConnection> raw;
};

using bench::paired;

// ---- Run logging -------------------------------------------------------------------------

void logTestStart(benchmark::State& state, int mode) {
    Files files("start", mode);
    paired(
        state,
        [&](long long i) {
            benchmark::DoNotOptimize(files.store->logTestStart(
                7, "Disk surface", "Disk 0", "tg-" + std::to_string(i % 1000), "dg-1", "HDD",
                "RUNNING", at(1700000000 + i), 1));
        },
        [&](long long i) {
            files.raw->exec(
                "INSERT INTO TestRuns (scriptId,testName,deviceName,testGuid,deviceGuid,"
                "deviceType,result,startTime,pass) VALUES(7,'Disk surface','Disk 0','tg-" +
                std::to_string(i % 1000) + "','dg-1','HDD','RUNNING'," +
                std::to_string(1700000000 + i) + ",1);");
            benchmark::DoNotOptimize(sqlite3_last_insert_rowid(files.raw->handle()));
        });
}

void logTestRunEvent(benchmark::State& state, int mode) {
    Files files("event", mode);
    paired(
        state,
        [&](long long i) {
            files.store->logTestRunEvent(i % 1000, "Sector 'reallocated'", "warning", "E17", "C17",
                                         at(1700000000 + i));
        },
        [&](long long i) {
            // The table layer's append: every value quoted, also the numbers.
            files.raw->exec(
                "INSERT OR REPLACE INTO `TestRunEvents` (`testId`,`message`,`type`,"
                "`eventCode`,`customerEventCode`,`dateTime`) VALUES('" +
                std::to_string(i % 1000) + "'," + quoted("Sector 'reallocated'") +
                ",'warning','E17','C17','" + std::to_string(1700000000 + i) + "')");
        });
}

void logTestFinished(benchmark::State& state, int mode) {
    int const runs = 1000;
    Files files("finish", mode);
    files.raw.reset();
    {
        // The same test runs in both files, with the same ids.
        std::string const rawPath = bench::freshPath("finish-raw");
        EventDataStore filler{String(rawPath)};
        for (int n = 0; n < runs; ++n) {
            files.store->logTestStart(7, "t", "d", "tg", "dg", "HDD", "RUNNING", at(1), 1);
            filler.logTestStart(7, "t", "d", "tg", "dg", "HDD", "RUNNING", at(1), 1);
        }
        files.raw.reset(new bench::RawConnection(rawPath, mode));
    }
    paired(
        state,
        [&](long long i) {
            files.store->logTestFinished(1 + i % runs, "PASS", "0", at(1700000000 + i));
        },
        [&](long long i) {
            // The existence test, then the table layer's update.
            std::string const id = "'" + std::to_string(1 + i % runs) + "'";
            files.raw->exec("SELECT `testId` FROM `TestRuns` WHERE `testId`=" + id);
            files.raw->exec("UPDATE `TestRuns` SET `testId` = " + id +
                            ",`result` = 'PASS',`errorCode` = '0',`endTime` = '" +
                            std::to_string(1700000000 + i) + "' WHERE `testId`=" + id);
        });
}

// ---- Alerts and queries ------------------------------------------------------------------

// The statements the store runs for one new alert (the look-up, the alert row through the
// table layer's append, its key/values and tips), run raw.
void rawLogAlert(bench::RawConnection& raw, std::string const& guid, long long time) {
    raw.exec("SELECT a.rowid FROM `Alerts` a  WHERE a.`guid` = " + quoted(guid));
    raw.exec(
        "INSERT OR REPLACE INTO `Alerts` (`appId`,`guid`,`key`,`type`,`title`,`message`,"
        "`deviceName`,`dateTime`,`tracked`) VALUES('3'," +
        quoted(guid) + ",'disk.temperature','Disk','Disk is hot','It''s 71 degrees','Disk 0','" +
        std::to_string(time) + "','0')");
    std::string const id = std::to_string(sqlite3_last_insert_rowid(raw.handle()));
    for (int k = 0; k < 5; ++k) {
        raw.exec("INSERT INTO AlertKeyValues (alertId,key,value) VALUES(" + id + ",'key" +
                 std::to_string(k) + "','value " + std::to_string(k) + "');");
    }
    for (int t = 0; t < 2; ++t) {
        raw.exec(
            "INSERT OR REPLACE INTO `AlertTips` (`alertId`,`key`,`type`,`title`,`text`,"
            "`extended_text`,`dateTime`) VALUES('" +
            id + "','tip" + std::to_string(t) +
            "','info','Cool it','Clean the fan','The fan is dusty','" + std::to_string(time) +
            "')");
    }
}

EventDataStore::AlertData storeAlert(std::string const& guid, long long time) {
    EventDataStore::AlertData alert{
        3,  guid, "disk.temperature", "Disk", "Disk is hot", "It's 71 degrees", "Disk 0", at(time),
        {}, {}};
    for (int k = 0; k < 5; ++k) {
        alert.keyValues.emplace_back("key" + std::to_string(k), "value " + std::to_string(k));
    }
    for (int t = 0; t < 2; ++t) {
        alert.tips.emplace_back("tip" + std::to_string(t), "info", "Cool it", "Clean the fan",
                                "The fan is dusty", at(time));
    }
    return alert;
}

void logAlerts(benchmark::State& state, int mode) {
    int const batch = 100;
    Files files("alerts", mode);
    paired(
        state,
        [&](long long i) {
            std::vector<EventDataStore::AlertData> alerts;
            alerts.reserve(batch);
            for (int n = 0; n < batch; ++n) {
                alerts.push_back(storeAlert(std::to_string(i) + "-" + std::to_string(n), i));
            }
            if (!files.store->logAlerts(alerts)) state.SkipWithError("logAlerts failed");
        },
        [&](long long i) {
            files.raw->exec("BEGIN");
            for (int n = 0; n < batch; ++n) {
                rawLogAlert(*files.raw, std::to_string(i) + "-" + std::to_string(n), i);
            }
            files.raw->exec("COMMIT");
        });
}

// Files of `rows` alerts, test runs and recent-fail candidates, made once per size with raw
// sqlite3 in one transaction and shared by the read-only cases.
struct ReadFiles {
    std::string alerts, testRuns, recentFails;
};

int const kScriptSize = 1000;   // test runs per script run
int const kDeviceGuids = 1000;  // tests of the device getRecentFails asks about
int const kRunsPerGuid = 2;

ReadFiles const& readFiles(int rows) {
    static std::map<int, ReadFiles> made;
    auto const found = made.find(rows);
    if (found != made.end()) return found->second;

    useSyncMode(0);
    ReadFiles files;
    std::string const tag = std::to_string(rows);
    files.alerts = freshFile("alerts-" + tag);
    files.testRuns = freshFile("testruns-" + tag);
    files.recentFails = freshFile("recentfails-" + tag);
    for (std::string const* path : {&files.alerts, &files.testRuns, &files.recentFails}) {
        { EventDataStore schema{String(*path)}; }
    }
    {
        bench::RawConnection raw(files.alerts, 0);
        raw.exec("BEGIN");
        for (int i = 0; i < rows; ++i) {
            std::string const n = std::to_string(i);
            raw.exec(
                "INSERT INTO Alerts (appId,guid,key,type,title,message,deviceName,dateTime,"
                "tracked) VALUES(1,'alert-" +
                n + "','k','" + (i % 2 ? "Disk" : "Net") + "','title','message','Disk 0'," +
                std::to_string(1700000000 + (i * 7919) % rows) + "," + std::to_string(i % 3 == 0) +
                ")");
            raw.exec("INSERT INTO AlertKeyValues (alertId,key,value) VALUES(" +
                     std::to_string(sqlite3_last_insert_rowid(raw.handle())) + ",'k','v')");
        }
        raw.exec("COMMIT");
    }
    {
        bench::RawConnection raw(files.testRuns, 0);
        raw.exec("BEGIN");
        for (int i = 0; i < rows; ++i) {
            std::string const n = std::to_string(i);
            raw.exec(
                "INSERT INTO TestRuns (scriptId,testName,deviceName,result,startTime,endTime,"
                "testGuid,deviceGuid,deviceType,pass,errorCode) VALUES(" +
                std::to_string(i / kScriptSize) + ",'test','Disk 0','PASS'," +
                std::to_string(1700000000 + (i * 7919) % rows) + ",0,'tg-" + n + "','dev-" +
                std::to_string(i % 50) + "','HDD',1,'0')");
        }
        raw.exec("COMMIT");
    }
    {
        // The device's tests, each failed then passed or passed then failed, among runs of
        // other devices that fill the file to `rows`.
        bench::RawConnection raw(files.recentFails, 0);
        raw.exec("BEGIN");
        int const own = kDeviceGuids * kRunsPerGuid;
        for (int i = 0; i < rows; ++i) {
            bool const target = i < own;
            int const guid = target ? i % kDeviceGuids : i;
            char const* result = (i / kDeviceGuids + guid) % 2 ? "FAIL" : "PASS";
            raw.exec(
                "INSERT INTO TestRuns (scriptId,testName,deviceName,result,startTime,endTime,"
                "testGuid,deviceGuid,deviceType,pass,errorCode) VALUES(1,'test','Disk 0','" +
                std::string(result) + "'," + std::to_string(1000 + i) + "," +
                std::to_string(2000 + i) + ",'tg-" + std::to_string(guid) + "','" +
                (target ? "target" : "other-" + std::to_string(i % 50)) + "','HDD',1,'0')");
        }
        raw.exec("COMMIT");
    }
    return made.emplace(rows, files).first->second;
}

struct ReadPair {
    ReadPair(std::string const& path) : store(new EventDataStore(String(path))), raw(path, 0) {}
    std::unique_ptr<EventDataStore> store;
    bench::RawConnection raw;
};

void alertExists(benchmark::State& state, int rows) {
    ReadPair pair(readFiles(rows).alerts);
    // Every other question is about an alert that is not there.
    auto const guid = [rows](long long i) {
        return i % 2 ? "alert-" + std::to_string((i * 7919) % rows)
                     : "missing-" + std::to_string(i);
    };
    paired(
        state, [&](long long i) { benchmark::DoNotOptimize(pair.store->alertExists(guid(i))); },
        [&](long long i) {
            pair.raw.exec("SELECT a.rowid FROM `Alerts` a  WHERE a.`guid` = " + quoted(guid(i)));
        });
}

void testRunResultLogs(benchmark::State& state, int rows) {
    ReadPair pair(readFiles(rows).testRuns);
    int const scripts = rows / kScriptSize;
    paired(
        state,
        [&](long long i) {
            auto const runs = pair.store->testRunResultLogs(i % scripts, {}, {}, 100);
            if (runs.size() != 100) state.SkipWithError("expected 100 test runs");
        },
        [&](long long i) {
            pair.raw.exec(
                "SELECT `testId`,`testName`,`deviceName`,`testGuid`,`deviceGuid`,"
                "`deviceType`,`errorCode`,`result`,`startTime`,`pass` FROM `TestRuns` "
                "WHERE `scriptId` = " +
                std::to_string(i % scripts) + " ORDER BY `startTime` DESC LIMIT 100");
        });
}

void alertResultLogs(benchmark::State& state, int rows) {
    ReadPair pair(readFiles(rows).alerts);
    paired(
        state,
        [&](long long) {
            auto const alerts = pair.store->alertResultLogs({}, {}, "", false, 100);
            if (alerts.size() != 100) state.SkipWithError("expected 100 alerts");
        },
        [&](long long) {
            pair.raw.exec(
                "SELECT `rowid`,`guid`,`key`,`type`,`title`,`message`,`deviceName`,"
                "`dateTime` FROM `Alerts` ORDER BY `dateTime` DESC,`rowid` DESC LIMIT 100");
        });
}

std::string const kRecentDevice = " (`deviceGuid` = 'target' AND `endTime` <= 2000000000)";

void getRecentFails(benchmark::State& state, int rows) {
    ReadPair pair(readFiles(rows).recentFails);
    paired(
        state,
        [&](long long) {
            auto const fails =
                pair.store->getRecentFails("target", nullptr, nullptr, at(2000000000));
            if (fails.size() != kDeviceGuids / 2) state.SkipWithError("unexpected fails");
        },
        [&](long long) {
            sqlite3_stmt* statement = nullptr;
            std::string const distinct = "SELECT DISTINCT `testGuid` FROM `TestRuns` WHERE " +
                                         kRecentDevice + " ORDER BY `endTime` DESC";
            sqlite3_prepare_v2(pair.raw.handle(), distinct.c_str(), -1, &statement, nullptr);
            std::vector<std::string> guids;
            while (sqlite3_step(statement) == SQLITE_ROW) {
                guids.emplace_back(
                    reinterpret_cast<char const*>(sqlite3_column_text(statement, 0)));
            }
            sqlite3_finalize(statement);
            for (std::string const& guid : guids) {
                pair.raw.exec(
                    "SELECT `testId`,`testName`,`deviceName`,`testGuid`,`deviceGuid`,"
                    "`deviceType`,`errorCode`,`result`,`startTime`,`pass` FROM "
                    "`TestRuns` WHERE " +
                    kRecentDevice +
                    " AND  (`result` = 'FAIL' OR `result` = 'PASS') AND `testGuid` = " +
                    quoted(guid) + " ORDER BY `endTime` DESC LIMIT 1");
            }
        });
}

// The plans SQLite picks for the look-ups above, on the largest files.
void printQueryPlans(int rows) {
    ReadFiles const& files = readFiles(rows);
    struct Plan {
        std::string const* path;
        std::string statement;
    };
    Plan const plans[] = {
        {&files.alerts, "SELECT a.rowid FROM `Alerts` a  WHERE a.`guid` = 'alert-1'"},
        {&files.alerts,
         "SELECT a.rowid FROM `Alerts` a  WHERE a.`guid` = 'alert-1' AND EXISTS "
         "(SELECT 1 FROM `AlertKeyValues` kv  WHERE kv.`alertId` = a.rowid)"},
        {&files.testRuns,
         "SELECT `testId` FROM `TestRuns` WHERE `scriptId` = 5 ORDER BY "
         "`startTime` DESC LIMIT 100"},
        {&files.alerts,
         "SELECT `rowid` FROM `Alerts` ORDER BY `dateTime` DESC,`rowid` DESC "
         "LIMIT 100"},
        {&files.recentFails, "SELECT DISTINCT `testGuid` FROM `TestRuns` WHERE " + kRecentDevice +
                                 " ORDER BY `endTime` DESC"},
        {&files.recentFails, "SELECT `testId` FROM `TestRuns` WHERE " + kRecentDevice +
                                 " AND  (`result` = 'FAIL' OR `result` = 'PASS') AND `testGuid` "
                                 "= 'tg-1' ORDER BY `endTime` DESC LIMIT 1"},
    };
    std::printf("Query plans (%d rows):\n", rows);
    for (Plan const& plan : plans) {
        bench::RawConnection raw(*plan.path, 0);
        std::printf("  %s\n", plan.statement.c_str());
        sqlite3_stmt* statement = nullptr;
        std::string const explain = "EXPLAIN QUERY PLAN " + plan.statement;
        sqlite3_prepare_v2(raw.handle(), explain.c_str(), -1, &statement, nullptr);
        while (sqlite3_step(statement) == SQLITE_ROW) {
            std::printf("    -> %s\n",
                        reinterpret_cast<char const*>(sqlite3_column_text(statement, 3)));
        }
        sqlite3_finalize(statement);
    }
    std::printf("\n");
}

// ---- Reporting ---------------------------------------------------------------------------

// Prints, after the usual output, the median of each case's counters over its repetitions.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(std::vector<Run> const& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (Run const& run : runs) {
            // Single runs, or the median aggregates when only aggregates are reported.
            bool const single = run.run_type == Run::RT_Iteration && run.iterations != 0;
            bool const median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (!single && !median) continue;
            auto const ratio = run.counters.find("ratio");
            if (ratio == run.counters.end()) continue;
            Sample& s = m_samples[run.run_name.function_name];
            s.ratio.push_back(ratio->second.value);
            s.store.push_back(run.counters.at("store_us").value);
            s.raw.push_back(run.counters.at("raw_us").value);
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-40s %12s %12s %8s\n", "case (median over repetitions)", "store us",
                    "raw us", "ratio");
        for (auto const& entry : m_samples) {
            std::printf("%-40s %12.2f %12.2f %8.3f\n", entry.first.c_str(),
                        median(entry.second.store), median(entry.second.raw),
                        median(entry.second.ratio));
        }
        std::printf("\n%-40s %12s %12s\n", "growth 10000 -> 1000000 rows", "store", "raw");
        for (auto const& entry : m_samples) {
            std::string const& name = entry.first;
            std::string const small = "/10000";
            if (name.size() < small.size() ||
                name.compare(name.size() - small.size(), small.size(), small) != 0) {
                continue;
            }
            std::string const base = name.substr(0, name.size() - small.size());
            auto const large = m_samples.find(base + "/1000000");
            if (large == m_samples.end()) continue;
            std::printf("%-40s %11.2fx %11.2fx\n", base.c_str(),
                        median(large->second.store) / median(entry.second.store),
                        median(large->second.raw) / median(entry.second.raw));
        }
    }

private:
    struct Sample {
        std::vector<double> ratio, store, raw;
    };

    static double median(std::vector<double> values) {
        std::sort(values.begin(), values.end());
        return values[values.size() / 2];
    }

    std::map<std::string, Sample> m_samples;
};

void registerCase(std::string const& name, void (*body)(benchmark::State&, int), int mode) {
    benchmark::RegisterBenchmark((name + "/" + modeName(mode)).c_str(), body, mode)
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime();
}

void registerSized(std::string const& name, void (*body)(benchmark::State&, int), int rows) {
    benchmark::RegisterBenchmark((name + "/" + std::to_string(rows)).c_str(), body, rows)
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime();
}

}  // namespace
}  // namespace zrn

int main(int argc, char** argv) {
    using namespace zrn;
    for (int mode : {0, 2}) {
        registerCase("logTestStart", logTestStart, mode);
        registerCase("logTestRunEvent", logTestRunEvent, mode);
        registerCase("logTestFinished", logTestFinished, mode);
        registerCase("logAlerts100", logAlerts, mode);
    }
    for (int rows : {10000, 100000, 1000000}) {
        registerSized("alertExists", alertExists, rows);
        registerSized("testRunResultLogs", testRunResultLogs, rows);
        registerSized("alertResultLogs", alertResultLogs, rows);
        registerSized("getRecentFails", getRecentFails, rows);
    }
    bench::scratch();
    std::vector<char*> args(argv, argv + argc);
    bool repetitions = false;
    for (char* arg : args) repetitions |= std::string(arg).rfind("--benchmark_repetitions", 0) == 0;
    static char defaultRepetitions[] = "--benchmark_repetitions=5";
    if (!repetitions) args.push_back(defaultRepetitions);
    argc = static_cast<int>(args.size());
    argv = args.data();
    benchmark::Initialize(&argc, argv);
    bool printPlans = false;
    for (int i = 1; i < argc; ++i) printPlans = printPlans || std::string(argv[i]) == "--plans";
    if (printPlans) {
        printQueryPlans(100000);
        return 0;
    }
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
