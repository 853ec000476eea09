#include "Follow.h"

#include <csignal>
#include <ctime>
#include <functional>
#include <iostream>
#include <sstream>
#include <vector>

#include "Output.h"
#include "RawStore.h"

namespace datastore {

namespace {

volatile std::sig_atomic_t g_stop = 0;

extern "C" void onStop(int) { g_stop = 1; }

// The SQL text of a value: a string between single quotes, every quote doubled.
std::string value(std::string const& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("''") : std::string(1, c);
    return quoted + "'";
}

long long secondsIn(Json const& cell) {
    if (cell.is_number_integer()) return cell.get<long long>();
    if (cell.is_string()) {
        try {
            return std::stoll(cell.get<std::string>());
        } catch (std::exception const&) {
        }
    }
    return 0;
}

// New rows are those whose `key` (rowid or an INTEGER PRIMARY KEY, which only grows for a
// table nobody prunes meanwhile) is above the highest seen.
struct Source {
    std::string table;
    std::string key;
    std::string select;     // the columns read, with `key` first
    std::string condition;  // "" or an extra AND condition
    std::function<Json(std::vector<Json> const&)> record;
    std::vector<Field> fields;
};

void follow(Options const& options, Source const& source) {
    std::string const path = existingStorePath(options, Store::Event);
    RawStore db(path, static_cast<int>(readOnly(options).wait.count()));
    long long mark = db.number("SELECT MAX(" + source.key + ") FROM `" + source.table + "` AS r");
    long long version = db.number("PRAGMA data_version");

    struct sigaction action {};
    action.sa_handler = onStop;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: the pause between looks ends at once.
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);

    Format const format = outputStyle().format;
    bool const headerEachPrint =
        format == Format::Table || format == Format::Csv || format == Format::Tsv;
    bool first = true;
    while (!g_stop) {
        // A quarter of a second: changes show promptly and an idle follower costs nothing
        // worth measuring (one PRAGMA reading a counter in memory).
        timespec pause{0, 250 * 1000 * 1000};
        nanosleep(&pause, nullptr);
        if (g_stop) break;
        long long const now = db.number("PRAGMA data_version");
        if (now == version) continue;
        version = now;
        RecordPrinter printer(source.fields, options.json);
        db.query("SELECT " + source.select + " FROM `" + source.table + "` AS r WHERE " +
                     source.key + " > " + std::to_string(mark) + source.condition + " ORDER BY " +
                     source.key,
                 [&](auto const&, std::vector<Json>& cells) {
                     mark = std::max(mark, secondsIn(cells[0]));
                     printer.add(source.record(cells));
                 });
        if (printer.count() == 0) continue;
        std::ostringstream text;
        printer.print(text);
        std::string out = text.str();
        // One header for the whole run.
        if (headerEachPrint && !first) out.erase(0, out.find('\n') + 1);
        first = false;
        std::cout << out << std::flush;
    }
}

}  // namespace

void followApps(Options const& options, FollowFilter const& filter) {
    Source source;
    source.table = "ApplicationRuns";
    source.key = "r.`appId`";
    source.select = "r.`appId`,r.`name`,r.`userName`,r.`typeOfRun`,r.`startTime`,r.`endTime`";
    if (!filter.type.empty()) source.condition += " AND r.`typeOfRun` = " + value(filter.type);
    if (!filter.user.empty()) source.condition += " AND r.`userName` = " + value(filter.user);
    source.fields = {{"appId", "RUN"},         {"name", "APPLICATION"}, {"userName", "USER"},
                     {"typeOfRun", "TYPE"},    {"start", "STARTED"},    {"end", "ENDED", 2},
                     {"seconds", "SECONDS", 1}};
    bool const json = options.json;
    source.record = [json](std::vector<Json> const& c) {
        long long const start = secondsIn(c[4]);
        long long const end = secondsIn(c[5]);
        return Json{{"appId", c[0]},
                    {"name", c[1].is_null() ? Json("") : c[1]},
                    {"userName", c[2].is_null() ? Json("") : c[2]},
                    {"typeOfRun", c[3].is_null() ? Json("") : c[3]},
                    {"start", timeCell(json, start)},
                    {"end", timeCell(json, end)},
                    {"seconds", end > 0 ? Json(end - start) : Json()}};
    };
    follow(options, source);
}

void followAlerts(Options const& options, FollowFilter const& filter) {
    Source source;
    source.table = "Alerts";
    source.key = "r.rowid";
    // Tracked as the store answers it: any alert of the GUID marked.
    source.select =
        "r.rowid,r.`dateTime`,r.`type`,r.`key`,r.`title`,r.`deviceName`,"
        "EXISTS (SELECT 1 FROM `Alerts` t WHERE t.`guid` = r.`guid` AND t.`tracked` = 1),"
        "r.`message`,r.`guid`";
    if (!filter.type.empty()) source.condition += " AND r.`type` = " + value(filter.type);
    if (filter.untracked) source.condition += " AND r.`tracked` = 0";
    source.fields = {{"alertId", "ALERT"},
                     {"time", "TIME"},
                     {"type", "TYPE"},
                     {"title", "TITLE"},
                     {"deviceName", "DEVICE", 1},
                     {"tracked", "TRACKED", 2},
                     {"message", "MESSAGE"}};
    bool const json = options.json;
    source.record = [json](std::vector<Json> const& c) {
        auto text = [](Json const& cell) { return cell.is_null() ? Json("") : cell; };
        return Json{{"alertId", c[0]},
                    {"time", timeCell(json, secondsIn(c[1]))},
                    {"type", text(c[2])},
                    {"key", text(c[3])},
                    {"title", text(c[4])},
                    {"deviceName", text(c[5])},
                    {"tracked", secondsIn(c[6]) != 0},
                    {"message", text(c[7])},
                    {"guid", text(c[8])}};
    };
    follow(options, source);
}

void followEvents(Options const& options, FollowFilter const& filter) {
    Source source;
    source.table = "TestRunEvents";
    source.key = "r.rowid";
    source.select =
        "r.rowid,r.`dateTime`,r.`type`,r.`eventCode`,r.`customerEventCode`,r.`message`,"
        "r.`testId`";
    source.condition =
        filter.testId > 0
            ? " AND r.`testId` = " + std::to_string(filter.testId)
            : " AND r.`testId` IN (SELECT `testId` FROM `TestRuns` WHERE `scriptId` = " +
                  std::to_string(filter.scriptId) + ")";
    source.fields = {{"time", "TIME"},
                     {"type", "TYPE"},
                     {"eventCode", "CODE"},
                     {"customerEventCode", "CUSTOMER CODE", 1},
                     {"message", "MESSAGE"}};
    bool const json = options.json;
    source.record = [json](std::vector<Json> const& c) {
        auto text = [](Json const& cell) { return cell.is_null() ? Json("") : cell; };
        return Json{{"time", timeCell(json, secondsIn(c[1]))},
                    {"type", text(c[2])},
                    {"eventCode", text(c[3])},
                    {"customerEventCode", text(c[4])},
                    {"message", text(c[5])},
                    {"testId", c[6]}};
    };
    follow(options, source);
}

}  // namespace datastore
