// What each kind of timeline entry says about its row: the one-line description and the
// command that shows the record in full.

#include <set>

#include "Follow.h"
#include "Records.h"
#include "Timeline.h"

namespace datastore {

namespace {

std::string textOf(zrn::StoreRow const& row, char const* column) { return row[column].asText(); }

// `word` as one word for a shell: kept as it is when it holds nothing a shell would read.
std::string shellWord(std::string const& word) {
    bool const plain = !word.empty() && word.find_first_not_of(
                                            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"
                                            "0123456789._-:/@+={}") == std::string::npos;
    if (plain) return word;
    std::string quoted = "'";
    for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// "7h 50m", "12m 5s", "40s".
std::string spanText(long long seconds) {
    if (seconds >= 3600)
        return std::to_string(seconds / 3600) + "h " + std::to_string(seconds % 3600 / 60) + "m";
    if (seconds >= 60)
        return std::to_string(seconds / 60) + "m " + std::to_string(seconds % 60) + "s";
    return std::to_string(seconds) + "s";
}

// " on DEVICE", or "" when the row names none.
std::string onDevice(zrn::StoreRow const& row) {
    std::string const device = textOf(row, "deviceName");
    return device.empty() ? "" : " on " + device;
}

// ---- event.db

void appRun(zrn::StoreReader&, zrn::StoreRow const& row, TimelineEntry& entry) {
    entry.id = row.key;
    // No command takes a run's id: the runs started in its second are that run.
    std::string const start = "@" + textOf(row, "startTime");
    entry.command = "apps --since " + start + " --until " + start;
    entry.description = textOf(row, "name");
    if (std::string(entry.what) == "started") {
        entry.description +=
            " started (" + textOf(row, "typeOfRun") + ", " + textOf(row, "userName") + ")";
    } else {
        long long const started = row["startTime"].asInteger();
        entry.description += " ended";
        if (started > 0 && entry.time >= started)
            entry.description += " after " + spanText(entry.time - started);
    }
}

void scriptRun(zrn::StoreReader&, zrn::StoreRow const& row, TimelineEntry& entry) {
    entry.id = row.key;
    entry.command = "tests " + std::to_string(row.key);
    entry.description = textOf(row, "name") + " " + entry.what;
    if (std::string(entry.what) == "ended") {
        std::string const result = textOf(row, "result");
        if (!result.empty()) entry.description += ": " + result;
        entry.failed = result == "FAIL";
    }
}

void testRun(zrn::StoreReader&, zrn::StoreRow const& row, TimelineEntry& entry) {
    entry.id = row.key;
    entry.command = "events --test " + std::to_string(row.key);
    std::string const result = textOf(row, "result");
    std::string const code = textOf(row, "errorCode");
    entry.description = (result.empty() ? "" : result + " ") + textOf(row, "testName") +
                        onDevice(row) + (code.empty() ? "" : " (" + code + ")");
    entry.failed = result == "FAIL";
}

void alert(zrn::StoreReader& reader, zrn::StoreRow const& row, TimelineEntry& entry) {
    entry.id = row.key;
    entry.command = "alerts " + std::to_string(row.key);
    std::string const type = textOf(row, "type");
    entry.description = (type.empty() ? "" : type + ": ") + textOf(row, "title") + onDevice(row) +
                        (alertTracked(reader, row["guid"]) ? " (tracked)" : "");
}

// ---- genstore.db, appstate.db

// A log's update is an entry of its own only when it came after the creation.
bool updatedLater(zrn::StoreRow const& row) {
    return row["updateTimeStamp"].asInteger() > row["creationTimeStamp"].asInteger();
}

void genericLog(zrn::StoreReader& reader, zrn::StoreRow const& row, TimelineEntry& entry) {
    entry.id = textOf(row, "guid");
    entry.command = "logs --guid " + shellWord(textOf(row, "guid"));
    std::string const sub = textOf(row, "subCategory");
    entry.description = textOf(row, "category") + (sub.empty() ? "" : "/" + sub) + " " + entry.what;
    zrn::StoreRowQuery query;
    query.equal.emplace_back("setID", zrn::StoreCell::of(row.key));
    std::string values;
    reader.forEachRow(
        "KeyValues",
        [&](zrn::StoreRow const& kv) {
            values += (values.empty() ? "" : ", ") + textOf(kv, "key") + "=" + textOf(kv, "value");
        },
        query);
    if (!values.empty()) entry.description += ": " + values;
}

void stateItem(zrn::StoreReader&, zrn::StoreRow const& row, TimelineEntry& entry) {
    std::string const key = textOf(row, "key");
    entry.id = key;
    entry.command = "state get " + shellWord(key);
    std::string const group = textOf(row, "filterGroup");
    entry.description =
        key + " = " + textOf(row, "data") + (group.empty() ? "" : " (" + group + ")");
}

// ---- softwarediagevent.db

void session(zrn::StoreReader&, zrn::StoreRow const& row, TimelineEntry& entry) {
    entry.id = row.key;
    entry.command = "session " + std::to_string(row.key);
    entry.description = "session " + std::to_string(row.key) + " " + entry.what;
}

// Diagnostics, issues and fix actions are shown with their session.
void ofSession(zrn::StoreRow const& row, TimelineEntry& entry) {
    entry.id = row.key;
    entry.command = "session " + std::to_string(row["sessionId"].asInteger());
}

void diagnostic(zrn::StoreReader&, zrn::StoreRow const& row, TimelineEntry& entry) {
    ofSession(row, entry);
    std::string const result = textOf(row, "diagnosticResult");
    entry.description = textOf(row, "diagnosticName") + (result.empty() ? "" : ": " + result);
}

void issue(zrn::StoreReader&, zrn::StoreRow const& row, TimelineEntry& entry) {
    ofSession(row, entry);
    std::string const text = textOf(row, "issueDescription");
    entry.description = textOf(row, "issueName") + (text.empty() ? "" : ": " + text);
}

void fixAction(zrn::StoreReader&, zrn::StoreRow const& row, TimelineEntry& entry) {
    ofSession(row, entry);
    std::string const result = textOf(row, "fixResult");
    entry.description = fixStateName(static_cast<unsigned>(row["fixState"].asInteger())) + ": " +
                        textOf(row, "fixSummary") + (result.empty() ? "" : " (" + result + ")");
}

}  // namespace

std::vector<TimelineSource> const& timelineSources() {
    static std::vector<TimelineSource> const sources{
        {Store::AppState, "state", "entered", "AppState", "dateTime", true, nullptr, stateItem},
        {Store::General, "log", "created", "GenericLog", "creationTimeStamp", false, nullptr,
         genericLog},
        {Store::General, "log", "updated", "GenericLog", "updateTimeStamp", false, updatedLater,
         genericLog},
        {Store::Event, "app", "started", "ApplicationRuns", "startTime", false, nullptr, appRun},
        {Store::Event, "script", "started", "ScriptRuns", "startTime", false, nullptr, scriptRun},
        {Store::Event, "test", "finished", "TestRuns", "endTime", false, nullptr, testRun},
        {Store::Event, "alert", "raised", "Alerts", "dateTime", false, nullptr, alert},
        {Store::Event, "script", "ended", "ScriptRuns", "endTime", false, nullptr, scriptRun},
        {Store::Event, "app", "ended", "ApplicationRuns", "endTime", false, nullptr, appRun},
        {Store::SoftwareDiag, "session", "started", "Sessions", "startTimeStamp", false, nullptr,
         session},
        {Store::SoftwareDiag, "diagnostic", "ran", "SoftwareDiagnostics", "startTimeStamp", false,
         nullptr, diagnostic},
        {Store::SoftwareDiag, "issue", "found", "Issues", "timeStamp", false, nullptr, issue},
        {Store::SoftwareDiag, "fix", "applied", "FixActions", "startTimeStamp", false, nullptr,
         fixAction},
        {Store::SoftwareDiag, "session", "ended", "Sessions", "endTimeStamp", false, nullptr,
         session}};
    return sources;
}

std::vector<std::string> timelineKinds() {
    std::vector<std::string> kinds;
    std::set<std::string> seen;
    for (TimelineSource const& source : timelineSources()) {
        if (seen.insert(source.kind).second) kinds.emplace_back(source.kind);
    }
    return kinds;
}

TimelineEntry timelineEntry(TimelineSource const& source, int sourceIndex, zrn::StoreReader& reader,
                            zrn::StoreRow const& row) {
    TimelineEntry entry;
    zrn::StoreCell const& time = row[source.timeColumn];
    if (source.textTime) {
        try {
            entry.time = parseTime(time.asText(), source.timeColumn, false);
        } catch (ToolError const&) {
            entry.time = 0;  // no time that could be read: not an entry
        }
    } else {
        entry.time = time.asInteger();
    }
    entry.store = static_cast<int>(source.store);
    entry.source = sourceIndex;
    entry.key = row.key;
    entry.storeName = factsOf(source.store).name;
    entry.kind = source.kind;
    entry.what = source.what;
    if (entry.time > 0) source.describe(reader, row, entry);
    return entry;
}

std::vector<Field> timelineFields() {
    return {{"time", "TIME"},
            {"store", "STORE", 2},
            {"kind", "KIND", 1},
            {"description", "DESCRIPTION"},
            {"command", "SEE", 0, true}};
}

Json timelineRecord(bool json, TimelineEntry const& entry) {
    return objectOf("time", timeCell(json, entry.time), "store", entry.storeName, "kind",
                    entry.kind, "what", entry.what, "id", entry.id, "description",
                    entry.description, "command", entry.command, "failed", entry.failed);
}

}  // namespace datastore
