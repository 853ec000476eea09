#pragma once

// One definition per kind of record the tool prints: its fields (names, order, headers), JSON
// types, times and state names. Every command that prints a record of that kind takes it from
// here; a command may add context fields after the record's own, never rename or drop one.

#include <libDataStore/SoftwareDiagRecords.h>

#include <string>
#include <vector>

#include "Output.h"

namespace datastore {

// A time of the stores: timeCell() of its Unix seconds, empty (null) when not set.
Json timeOf(bool json, zrn::TimeStamp const& time);

// The fix states this suite's repair tool records ("not finished", "done", "done in part");
// the store keeps any number as given, shown as "state N".
std::string fixStateName(unsigned state);

// Issue: issueId, sessionId, softwareDiagnosticId, name, time, description.
std::vector<Field> issueFields();
Json issueRecord(bool json, zrn::IssueLog const& issue);

// Fix action: fixActionId, sessionId, state (the number), stateName, summary, result, typeUuid,
// start, end.
std::vector<Field> fixActionFields();
Json fixActionRecord(bool json, zrn::FixActionLog const& fix);

}  // namespace datastore
