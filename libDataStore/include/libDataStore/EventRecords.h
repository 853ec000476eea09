#pragma once

// The records the event store hands back: one value per database row. They hold no reference
// to the store or to the database once built; copies are independent.

#include <libCommon/String.h>
#include <libDataStore/Export.h>

#include <chrono>
#include <ratio>
#include <vector>

namespace zrn {

class SQLite3Database;
class EventDataStore;

// Every time of the event store: a steady-clock time point in whole seconds, stored in the
// database as the decimal text of its seconds count. The zero time point stands for "none"
// wherever a time is optional (query bounds, missing cells).
using EventTimePoint = std::chrono::time_point<std::chrono::steady_clock,
                                               std::chrono::duration<long long, std::ratio<1, 1>>>;

// One script run (ScriptRuns) with the text of its script (ScriptSpecs).
class ZRN_DATASTORE_API ScriptResultLog {
public:
    ScriptResultLog(long long scriptId, String name, String result, EventTimePoint startTime,
                    EventTimePoint endTime, unsigned int totalPasses, String scriptXml,
                    String guid);

    long long scriptId() const { return m_scriptId; }
    String const& name() const { return m_name; }
    String const& result() const { return m_result; }
    EventTimePoint startTime() const { return m_startTime; }
    EventTimePoint endTime() const { return m_endTime; }
    unsigned int totalPasses() const { return m_totalPasses; }
    String const& scriptXml() const { return m_scriptXml; }
    String const& guid() const { return m_guid; }

private:
    long long m_scriptId;
    String m_name;
    String m_result;
    EventTimePoint m_startTime;
    EventTimePoint m_endTime;
    unsigned int m_totalPasses;
    String m_scriptXml;
    String m_guid;
};

// A value of a property at a time. Nothing in this library builds one.
class ZRN_DATASTORE_API PropertyChange {
public:
    String const& getValueStr() const { return m_value; }
    EventTimePoint getTimeStamp() const { return m_timeStamp; }

protected:
    PropertyChange(String value, EventTimePoint timeStamp);

private:
    String m_value;
    EventTimePoint m_timeStamp;
};

// A described property of a test-run modification. Nothing in this library builds one.
class ZRN_DATASTORE_API PropertyChangeLog {
public:
    long long testRunModificationId() const { return m_testRunModificationId; }
    String const& propertyKey() const { return m_propertyKey; }
    String const& name() const { return m_name; }
    String const& description() const { return m_description; }

protected:
    // `database` is not used; the signature is kept for the callers that pass one.
    PropertyChangeLog(long long testRunModificationId, String propertyKey, String name,
                      String description, SQLite3Database& database);

private:
    long long m_testRunModificationId;
    String m_propertyKey;
    String m_name;
    String m_description;
};

// One test run (TestRuns). `timeStamp` is the run's time column chosen by the query that
// built it (the start time for every reader of the event store). Only the store builds it.
class ZRN_DATASTORE_API TestRunResultLog {
public:
    long long testId() const { return m_testId; }
    String const& testName() const { return m_testName; }
    String const& deviceName() const { return m_deviceName; }
    String const& testGuid() const { return m_testGuid; }
    String const& deviceGuid() const { return m_deviceGuid; }
    String const& deviceType() const { return m_deviceType; }
    String const& errorCode() const { return m_errorCode; }
    String const& result() const { return m_result; }
    EventTimePoint timeStamp() const { return m_timeStamp; }
    unsigned int pass() const { return m_pass; }

protected:
    friend class EventDataStore;

    // `database` is not used: the property changes always start empty.
    TestRunResultLog(long long testId, String testName, String deviceName, String testGuid,
                     String deviceGuid, String deviceType, String errorCode, String result,
                     EventTimePoint timeStamp, unsigned int pass, SQLite3Database& database);

private:
    long long m_testId;
    String m_testName;
    String m_deviceName;
    String m_testGuid;
    String m_deviceGuid;
    String m_deviceType;
    String m_errorCode;
    String m_result;
    EventTimePoint m_timeStamp;
    unsigned int m_pass;
    // Filled by no code of this library; carried along by copies and moves.
    std::vector<PropertyChangeLog> m_propertyChanges;
};

// One event of a test run (TestRunEvents).
class ZRN_DATASTORE_API TestRunEventResultLog {
public:
    TestRunEventResultLog(String message, String type, String eventCode, String customerEventCode,
                          EventTimePoint timeStamp);

    String const& message() const { return m_message; }
    String const& type() const { return m_type; }
    String const& eventCode() const { return m_eventCode; }
    String const& customerEventCode() const { return m_customerEventCode; }
    EventTimePoint timeStamp() const { return m_timeStamp; }

private:
    String m_message;
    String m_type;
    String m_eventCode;
    String m_customerEventCode;
    EventTimePoint m_timeStamp;
};

// One tip of a test run (TestRunTips) or of an alert (AlertTips).
class ZRN_DATASTORE_API TipResultLog {
public:
    TipResultLog(String key, String type, String title, String text, String extendedText,
                 EventTimePoint timeStamp);

    String const& key() const { return m_key; }
    String const& type() const { return m_type; }
    String const& title() const { return m_title; }
    String const& text() const { return m_text; }
    String const& extendedText() const { return m_extendedText; }
    EventTimePoint timeStamp() const { return m_timeStamp; }

private:
    String m_key;
    String m_type;
    String m_title;
    String m_text;
    String m_extendedText;
    EventTimePoint m_timeStamp;
};

// One alert (Alerts); `alertId` is its row id.
class ZRN_DATASTORE_API AlertResultLog {
public:
    AlertResultLog(long long alertId, String guid, String key, String type, String title,
                   String message, String deviceName, EventTimePoint timeStamp);

    long long alertId() const { return m_alertId; }
    String const& guid() const { return m_guid; }
    String const& key() const { return m_key; }
    String const& type() const { return m_type; }
    String const& title() const { return m_title; }
    String const& message() const { return m_message; }
    String const& deviceName() const { return m_deviceName; }
    EventTimePoint timeStamp() const { return m_timeStamp; }

private:
    long long m_alertId;
    String m_guid;
    String m_key;
    String m_type;
    String m_title;
    String m_message;
    String m_deviceName;
    EventTimePoint m_timeStamp;
};

// One key/value of an alert (AlertKeyValues).
class ZRN_DATASTORE_API AlertKeyValueResultLog {
public:
    AlertKeyValueResultLog(String key, String value);

    String const& key() const { return m_key; }
    String const& value() const { return m_value; }

private:
    String m_key;
    String m_value;
};

// One scriptlet result (ScriptletRuns). Note the argument order: status before result, the
// reverse of the table's columns.
class ZRN_DATASTORE_API ScriptletResultLog {
public:
    ScriptletResultLog(String key, String category, String status, String result,
                       EventTimePoint timeStamp);

    String const& key() const { return m_key; }
    String const& category() const { return m_category; }
    String const& status() const { return m_status; }
    String const& result() const { return m_result; }
    EventTimePoint timeStamp() const { return m_timeStamp; }

private:
    String m_key;
    String m_category;
    String m_status;
    String m_result;
    EventTimePoint m_timeStamp;
};

// One measurement (Measurements). Note the argument order: the span's middle before its end,
// unlike the table's columns.
class ZRN_DATASTORE_API MeasurementLog {
public:
    MeasurementLog(String type, EventTimePoint spanStart, EventTimePoint spanMiddle,
                   EventTimePoint spanEnd, double maximum, double minimum, double average,
                   double median, unsigned int numberOfSamples);

    String const& type() const { return m_type; }
    EventTimePoint spanStart() const { return m_spanStart; }
    EventTimePoint spanMiddle() const { return m_spanMiddle; }
    EventTimePoint spanEnd() const { return m_spanEnd; }
    double maximum() const { return m_maximum; }
    double minimum() const { return m_minimum; }
    double average() const { return m_average; }
    double median() const { return m_median; }
    unsigned int numberOfSamples() const { return m_numberOfSamples; }

private:
    String m_type;
    EventTimePoint m_spanStart;
    EventTimePoint m_spanMiddle;
    EventTimePoint m_spanEnd;
    double m_maximum;
    double m_minimum;
    double m_average;
    double m_median;
    unsigned int m_numberOfSamples;
};

// One profiler difference (ProfilerDiffs), built from the row's cells as text. The time and
// the count are parsed as decimal numbers without validation: text that holds no number
// gives 0, as the runtime's parsers do.
class ZRN_DATASTORE_API ProfilerDiffLog {
public:
    ProfilerDiffLog(String category, String const& timeStamp, String const& changesCount,
                    String serializedDiff);

    String const& category() const { return m_category; }
    EventTimePoint timeStamp() const { return m_timeStamp; }
    unsigned int changesCount() const { return m_changesCount; }
    String const& serializedDiff() const { return m_serializedDiff; }

private:
    String m_category;
    EventTimePoint m_timeStamp;
    unsigned int m_changesCount;
    String m_serializedDiff;
};

}  // namespace zrn
