#pragma once

// One definition per kind of record the tool prints: its fields (names, order, headers), JSON
// types, times and state names. Every command that prints a record of that kind takes it from
// here; a command may add context fields after the record's own, never rename or drop one.
// The *Fields() are the table's columns (which a narrow terminal may drop); the *Record()
// are every member the machine formats carry, in their order.

#include <libDataStore/EventRecords.h>
#include <libDataStore/GeneralRecords.h>
#include <libDataStore/SoftwareDiagRecords.h>
#include <libDataStore/StoreReader.h>

#include <string>
#include <vector>

#include "Output.h"

namespace datastore {

// A time of the stores: timeCell() of its Unix seconds, empty (null) when not set.
Json timeOf(bool json, zrn::TimeStamp const& time);
Json timeOf(bool json, zrn::EventTimePoint time);

// The fix states this suite's repair tool records ("not finished", "done", "done in part");
// the store keeps any number as given, shown as "state N".
std::string fixStateName(unsigned state);

// Application run: appId, name, userName, typeOfRun, start, end, seconds (null while running).
std::vector<Field> appRunFields();
Json appRunRecord(bool json, zrn::ApplicationRunRow const& run);

// Script run: scriptId, name, result, start, end, totalPasses, guid, scriptXml.
std::vector<Field> scriptRunFields();
Json scriptRunRecord(bool json, zrn::ScriptResultLog const& log);

// Test run: testId, testName, deviceName, result, errorCode, pass, start, deviceGuid,
// deviceType, testGuid.
std::vector<Field> testRunFields();
Json testRunRecord(bool json, zrn::TestRunResultLog const& log);

// Event: time, type, eventCode, customerEventCode, message, testId (the test run it is of).
std::vector<Field> eventFields();
Json eventRecord(bool json, zrn::TestRunEventResultLog const& log, long long testId);

// Tip: time, key, type, title, text, extendedText.
std::vector<Field> tipFields();
Json tipRecord(bool json, zrn::TipResultLog const& log);

// Alert: alertId, time, type, key, title, deviceName, tracked (as the store answers it for the
// alert's GUID), message, guid.
std::vector<Field> alertFields();
Json alertRecord(bool json, zrn::AlertResultLog const& log, bool tracked);

// An alert's key/value: alertId, key, value.
std::vector<Field> alertKeyValueFields();
Json alertKeyValueRecord(long long alertId, zrn::AlertKeyValueResultLog const& kv);

// Measurement: type, spanStart, spanMiddle, spanEnd, minimum, maximum, average, median,
// numberOfSamples.
std::vector<Field> measurementFields();
Json measurementRecord(bool json, zrn::MeasurementLog const& log);

// Profiler diff: time, category, changesCount, serializedDiff.
std::vector<Field> diffFields();
Json diffRecord(bool json, zrn::ProfilerDiffLog const& log);

// Scriptlet result: time, key, category, status, result.
std::vector<Field> scriptletFields();
Json scriptletRecord(bool json, zrn::ScriptletResultLog const& log);

// Generic log: typeUUID, guid, category, subCategory, created, updated, flags, tracked, then
// keyValues (an array of {key, value, tracked, updated}) in the machine formats or
// keyValuesText ("KEY=VALUE, ...") in tables.
std::vector<Field> genericLogFields();
Json genericLogRecord(bool json, zrn::GenericLog const& log);

// Application-state item: key, group, written, data.
struct StateItem {
    std::string key;
    std::string group;
    long long written = 0;  // Unix seconds, 0 when unknown
    std::string data;
};
std::vector<Field> stateItemFields();
Json stateItemRecord(bool json, StateItem const& item);

// Repair session: sessionId, start, end.
std::vector<Field> sessionFields();
Json sessionRecord(bool json, zrn::SessionLog const& session);

// Software diagnostic: softwareDiagnosticId, runTransactionId, name, result, start, end, uuid.
std::vector<Field> diagnosticFields();
Json diagnosticRecord(bool json, zrn::SoftwareDiagnosticLog const& diagnostic);

// Issue: issueId, sessionId, softwareDiagnosticId, name, time, description.
std::vector<Field> issueFields();
Json issueRecord(bool json, zrn::IssueLog const& issue);

// Fix action: fixActionId, sessionId, state (the number), stateName, summary, result, typeUuid,
// start, end.
std::vector<Field> fixActionFields();
Json fixActionRecord(bool json, zrn::FixActionLog const& fix);

}  // namespace datastore
