#include "Records.h"

namespace datastore {

namespace {

long long secondsOf(zrn::EventTimePoint time) { return time.time_since_epoch().count(); }

long long secondsOf(zrn::TimeStamp const& time) {
    return time.isInitialized() ? time.getUnixTimeStamp() : 0;
}

}  // namespace

Json timeOf(bool json, zrn::TimeStamp const& time) { return timeCell(json, secondsOf(time)); }

Json timeOf(bool json, zrn::EventTimePoint time) { return timeCell(json, secondsOf(time)); }

std::string fixStateName(unsigned state) {
    switch (state) {
        case 0:
            return "not finished";
        case 1:
            return "done";
        case 2:
            return "done in part";
        default:
            return "state " + std::to_string(state);
    }
}

// ---- The event store

std::vector<Field> appRunFields() {
    return {{"appId", "RUN"},         {"name", "APPLICATION"}, {"userName", "USER"},
            {"typeOfRun", "TYPE"},    {"start", "STARTED"},    {"end", "ENDED", 2},
            {"seconds", "SECONDS", 1}};
}

Json appRunRecord(bool json, zrn::ApplicationRunRow const& run) {
    return Json{{"appId", run.appId},
                {"name", run.name},
                {"userName", run.userName},
                {"typeOfRun", run.typeOfRun},
                {"start", timeCell(json, run.startTime)},
                {"end", timeCell(json, run.endTime)},
                {"seconds", run.endTime > 0 ? Json(run.endTime - run.startTime) : Json()}};
}

std::vector<Field> scriptRunFields() {
    return {{"scriptId", "SCRIPT"},   {"name", "NAME"},    {"result", "RESULT"},
            {"start", "STARTED"},     {"end", "ENDED", 2}, {"totalPasses", "PASSES", 3},
            {"guid", "GUID", 1, true}};
}

Json scriptRunRecord(bool json, zrn::ScriptResultLog const& log) {
    return Json{{"scriptId", log.scriptId()},         {"name", log.name().str()},
                {"result", log.result().str()},       {"start", timeOf(json, log.startTime())},
                {"end", timeOf(json, log.endTime())}, {"totalPasses", log.totalPasses()},
                {"guid", log.guid().str()},           {"scriptXml", log.scriptXml().str()}};
}

std::vector<Field> testRunFields() {
    return {{"testId", "TEST"},          {"testName", "NAME"},
            {"deviceName", "DEVICE", 3}, {"result", "RESULT"},
            {"errorCode", "ERROR", 1},   {"pass", "PASS", 4},
            {"start", "STARTED", 2},     {"deviceGuid", "DEVICE GUID", 0, true}};
}

Json testRunRecord(bool json, zrn::TestRunResultLog const& log) {
    return Json{{"testId", log.testId()},
                {"testName", log.testName().str()},
                {"deviceName", log.deviceName().str()},
                {"result", log.result().str()},
                {"errorCode", log.errorCode().str()},
                {"pass", log.pass()},
                {"start", timeOf(json, log.timeStamp())},
                {"deviceGuid", log.deviceGuid().str()},
                {"deviceType", log.deviceType().str()},
                {"testGuid", log.testGuid().str()}};
}

std::vector<Field> eventFields() {
    return {{"time", "TIME"},
            {"testId", "TEST", 2},
            {"type", "TYPE"},
            {"eventCode", "CODE"},
            {"customerEventCode", "CUSTOMER CODE", 1},
            {"message", "MESSAGE"}};
}

Json eventRecord(bool json, zrn::TestRunEventResultLog const& log, long long testId) {
    return Json{{"time", timeOf(json, log.timeStamp())},
                {"type", log.type().str()},
                {"eventCode", log.eventCode().str()},
                {"customerEventCode", log.customerEventCode().str()},
                {"message", log.message().str()},
                {"testId", testId}};
}

std::vector<Field> tipFields() {
    return {{"time", "TIME"},
            {"key", "KEY", 0, true},
            {"type", "TYPE"},
            {"title", "TITLE"},
            {"text", "TEXT"}};
}

Json tipRecord(bool json, zrn::TipResultLog const& log) {
    return Json{{"time", timeOf(json, log.timeStamp())},
                {"key", log.key().str()},
                {"type", log.type().str()},
                {"title", log.title().str()},
                {"text", log.text().str()},
                {"extendedText", log.extendedText().str()}};
}

std::vector<Field> alertFields() {
    return {{"alertId", "ALERT"},
            {"time", "TIME"},
            {"type", "TYPE"},
            {"title", "TITLE"},
            {"deviceName", "DEVICE", 1},
            {"tracked", "TRACKED", 2},
            {"message", "MESSAGE"}};
}

Json alertRecord(bool json, zrn::AlertResultLog const& log, bool tracked) {
    return Json{{"alertId", log.alertId()},   {"time", timeOf(json, log.timeStamp())},
                {"type", log.type().str()},   {"key", log.key().str()},
                {"title", log.title().str()}, {"deviceName", log.deviceName().str()},
                {"tracked", tracked},         {"message", log.message().str()},
                {"guid", log.guid().str()}};
}

std::vector<Field> alertKeyValueFields() { return {{"key", "KEY", 0, true}, {"value", "VALUE"}}; }

Json alertKeyValueRecord(long long alertId, zrn::AlertKeyValueResultLog const& kv) {
    return Json{{"alertId", alertId}, {"key", kv.key().str()}, {"value", kv.value().str()}};
}

std::vector<Field> measurementFields() {
    return {{"type", "TYPE"},       {"spanStart", "SPAN START"}, {"spanMiddle", "MIDDLE", 3},
            {"spanEnd", "END", 2},  {"minimum", "MIN"},          {"maximum", "MAX"},
            {"average", "AVERAGE"}, {"median", "MEDIAN", 1},     {"numberOfSamples", "SAMPLES"}};
}

// Built in place: listings of measurements run to hundreds of thousands of records.
Json measurementRecord(bool json, zrn::MeasurementLog const& log) {
    return objectOf("type", log.type().str(),                      //
                    "spanStart", timeOf(json, log.spanStart()),    //
                    "spanMiddle", timeOf(json, log.spanMiddle()),  //
                    "spanEnd", timeOf(json, log.spanEnd()),        //
                    "minimum", log.minimum(),                      //
                    "maximum", log.maximum(),                      //
                    "average", log.average(),                      //
                    "median", log.median(),                        //
                    "numberOfSamples", log.numberOfSamples());
}

std::vector<Field> diffFields() {
    return {{"time", "TIME"},
            {"category", "CATEGORY"},
            {"changesCount", "CHANGES"},
            {"serializedDiff", "DIFF"}};
}

Json diffRecord(bool json, zrn::ProfilerDiffLog const& log) {
    return Json{{"time", timeOf(json, log.timeStamp())},
                {"category", log.category().str()},
                {"changesCount", log.changesCount()},
                {"serializedDiff", log.serializedDiff().str()}};
}

std::vector<Field> scriptletFields() {
    return {{"time", "TIME"},
            {"key", "KEY", 0, true},
            {"category", "CATEGORY"},
            {"status", "STATUS"},
            {"result", "RESULT"}};
}

Json scriptletRecord(bool json, zrn::ScriptletResultLog const& log) {
    return Json{{"time", timeOf(json, log.timeStamp())},
                {"key", log.key().str()},
                {"category", log.category().str()},
                {"status", log.status().str()},
                {"result", log.result().str()}};
}

// ---- The general and application-state stores

// People get the columns they filter on; the machine formats have every field.
std::vector<Field> genericLogFields() {
    return {{"created", "CREATED"},
            {"category", "CATEGORY"},
            {"subCategory", "SUBCATEGORY", 1},
            {"tracked", "TRACKED", 2},
            {"keyValuesText", "KEY/VALUES"},
            {"guid", "GUID", 0, true},
            {"typeUUID", "TYPE", 3, true}};
}

Json genericLogRecord(bool json, zrn::GenericLog const& log) {
    Json keyValues = Json::array();
    std::string keyValuesText;
    for (unsigned k = 0; k < log.keyValues().size(); ++k) {
        zrn::LogKeyValue const& kv = log.keyValues().get(k);
        keyValues.push_back(Json{{"key", kv.key().str()},
                                 {"value", kv.value().str()},
                                 {"tracked", kv.tracked()},
                                 {"updated", timeOf(true, kv.updateUTCTimeStamp())}});
        keyValuesText +=
            (keyValuesText.empty() ? "" : ", ") + kv.key().str() + "=" + kv.value().str();
    }
    Json record{{"typeUUID", log.typeUUID().str()},
                {"guid", log.guid().str()},
                {"category", log.category().str()},
                {"subCategory", log.subCategory().str()},
                {"created", timeOf(json, log.creationUTCTimeStamp())},
                {"updated", timeOf(json, log.updateUTCTimeStamp())},
                {"flags", log.flags()},
                {"tracked", log.tracked()}};
    if (json) {
        record["keyValues"] = std::move(keyValues);
    } else {
        record["keyValuesText"] = keyValuesText;
    }
    return record;
}

std::vector<Field> stateItemFields() {
    return {{"key", "KEY", 0, true}, {"group", "GROUP"}, {"written", "WRITTEN"}, {"data", "DATA"}};
}

Json stateItemRecord(bool json, StateItem const& item) {
    return Json{{"key", item.key},
                {"group", item.group},
                {"written", timeCell(json, item.written)},
                {"data", item.data}};
}

// ---- The repair tool's store

std::vector<Field> sessionFields() {
    return {{"sessionId", "SESSION"}, {"start", "STARTED"}, {"end", "ENDED", 3}};
}

Json sessionRecord(bool json, zrn::SessionLog const& session) {
    return Json{{"sessionId", session.sessionId()},
                {"start", timeOf(json, session.startTimeStamp())},
                {"end", timeOf(json, session.endTimeStamp())}};
}

std::vector<Field> diagnosticFields() {
    return {{"softwareDiagnosticId", "ID"}, {"name", "DIAGNOSTIC"}, {"result", "RESULT"},
            {"start", "STARTED"},           {"end", "ENDED"},       {"uuid", "UUID", 0, true}};
}

Json diagnosticRecord(bool json, zrn::SoftwareDiagnosticLog const& diagnostic) {
    return Json{{"softwareDiagnosticId", diagnostic.softwareDiagnosticId()},
                {"runTransactionId", diagnostic.runTransactionId()},
                {"name", diagnostic.diagnosticName().str()},
                {"result", diagnostic.diagnosticResult().str()},
                {"start", timeOf(json, diagnostic.startTimeStamp())},
                {"end", timeOf(json, diagnostic.endTimeStamp())},
                {"uuid", diagnostic.diagnosticUuid().str()}};
}

std::vector<Field> issueFields() {
    return {{"issueId", "ISSUE"},
            {"sessionId", "SESSION", 3},
            {"softwareDiagnosticId", "DIAGNOSTIC", 2},
            {"name", "NAME"},
            {"time", "FOUND"},
            {"description", "DESCRIPTION", 1}};
}

Json issueRecord(bool json, zrn::IssueLog const& issue) {
    return Json{{"issueId", issue.issueId()},
                {"sessionId", issue.sessionId()},
                {"softwareDiagnosticId", issue.softwareDiagnosticId()},
                {"name", issue.issueName().str()},
                {"time", timeOf(json, issue.timeStamp())},
                {"description", issue.issueDescription().str()}};
}

std::vector<Field> fixActionFields() {
    return {{"fixActionId", "FIX"}, {"sessionId", "SESSION", 3}, {"stateName", "STATE"},
            {"summary", "SUMMARY"}, {"result", "RESULT"},        {"start", "STARTED", 2},
            {"end", "ENDED", 2}};
}

Json fixActionRecord(bool json, zrn::FixActionLog const& fix) {
    unsigned const state = static_cast<unsigned>(fix.fixState());
    return Json{{"fixActionId", fix.fixActionId()},
                {"sessionId", fix.sessionId()},
                {"state", state},
                {"stateName", fixStateName(state)},
                {"summary", fix.fixSummary().str()},
                {"result", fix.fixResult().str()},
                {"typeUuid", fix.fixTypeUuid().str()},
                {"start", timeOf(json, fix.startTimeStamp())},
                {"end", timeOf(json, fix.endTimeStamp())}};
}

}  // namespace datastore
