#include "Records.h"

namespace datastore {

Json timeOf(bool json, zrn::TimeStamp const& time) {
    return timeCell(json, time.isInitialized() ? time.getUnixTimeStamp() : 0);
}

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

std::vector<Field> issueFields() {
    return {{"issueId", "ISSUE"},
            {"sessionId", "SESSION", 3},
            {"softwareDiagnosticId", "DIAGNOSTIC", 2},
            {"name", "NAME"},
            {"time", "FOUND"},
            {"description", "DESCRIPTION", 1}};
}

Json issueRecord(bool json, zrn::IssueLog const& issue) {
    return Json{{"record", "issue"},
                {"issueId", issue.issueId()},
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
    return Json{{"record", "fixAction"},
                {"fixActionId", fix.fixActionId()},
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
