#include <libDataStore/EventRecords.h>

#include <utility>

namespace zrn {

namespace {

EventTimePoint secondsToTimePoint(long long seconds) {
    return EventTimePoint(EventTimePoint::duration(seconds));
}

}  // namespace

ScriptResultLog::ScriptResultLog(long long scriptId, String name, String result,
                                 EventTimePoint startTime, EventTimePoint endTime,
                                 unsigned int totalPasses, String scriptXml, String guid)
    : m_scriptId(scriptId),
      m_name(std::move(name)),
      m_result(std::move(result)),
      m_startTime(startTime),
      m_endTime(endTime),
      m_totalPasses(totalPasses),
      m_scriptXml(std::move(scriptXml)),
      m_guid(std::move(guid)) {}

PropertyChange::PropertyChange(String value, EventTimePoint timeStamp)
    : m_value(std::move(value)), m_timeStamp(timeStamp) {}

PropertyChangeLog::PropertyChangeLog(long long testRunModificationId, String propertyKey,
                                     String name, String description, SQLite3Database& /*database*/)
    : m_testRunModificationId(testRunModificationId),
      m_propertyKey(std::move(propertyKey)),
      m_name(std::move(name)),
      m_description(std::move(description)) {}

TestRunResultLog::TestRunResultLog(long long testId, String testName, String deviceName,
                                   String testGuid, String deviceGuid, String deviceType,
                                   String errorCode, String result, EventTimePoint timeStamp,
                                   unsigned int pass, SQLite3Database& /*database*/)
    : m_testId(testId),
      m_testName(std::move(testName)),
      m_deviceName(std::move(deviceName)),
      m_testGuid(std::move(testGuid)),
      m_deviceGuid(std::move(deviceGuid)),
      m_deviceType(std::move(deviceType)),
      m_errorCode(std::move(errorCode)),
      m_result(std::move(result)),
      m_timeStamp(timeStamp),
      m_pass(pass) {}

TestRunEventResultLog::TestRunEventResultLog(String message, String type, String eventCode,
                                             String customerEventCode, EventTimePoint timeStamp)
    : m_message(std::move(message)),
      m_type(std::move(type)),
      m_eventCode(std::move(eventCode)),
      m_customerEventCode(std::move(customerEventCode)),
      m_timeStamp(timeStamp) {}

TipResultLog::TipResultLog(String key, String type, String title, String text, String extendedText,
                           EventTimePoint timeStamp)
    : m_key(std::move(key)),
      m_type(std::move(type)),
      m_title(std::move(title)),
      m_text(std::move(text)),
      m_extendedText(std::move(extendedText)),
      m_timeStamp(timeStamp) {}

AlertResultLog::AlertResultLog(long long alertId, String guid, String key, String type,
                               String title, String message, String deviceName,
                               EventTimePoint timeStamp)
    : m_alertId(alertId),
      m_guid(std::move(guid)),
      m_key(std::move(key)),
      m_type(std::move(type)),
      m_title(std::move(title)),
      m_message(std::move(message)),
      m_deviceName(std::move(deviceName)),
      m_timeStamp(timeStamp) {}

AlertKeyValueResultLog::AlertKeyValueResultLog(String key, String value)
    : m_key(std::move(key)), m_value(std::move(value)) {}

ScriptletResultLog::ScriptletResultLog(String key, String category, String status, String result,
                                       EventTimePoint timeStamp)
    : m_key(std::move(key)),
      m_category(std::move(category)),
      m_status(std::move(status)),
      m_result(std::move(result)),
      m_timeStamp(timeStamp) {}

MeasurementLog::MeasurementLog(String type, EventTimePoint spanStart, EventTimePoint spanMiddle,
                               EventTimePoint spanEnd, double maximum, double minimum,
                               double average, double median, unsigned int numberOfSamples)
    : m_type(std::move(type)),
      m_spanStart(spanStart),
      m_spanMiddle(spanMiddle),
      m_spanEnd(spanEnd),
      m_maximum(maximum),
      m_minimum(minimum),
      m_average(average),
      m_median(median),
      m_numberOfSamples(numberOfSamples) {}

ProfilerDiffLog::ProfilerDiffLog(String category, String const& timeStamp,
                                 String const& changesCount, String serializedDiff)
    : m_category(std::move(category)),
      m_timeStamp(secondsToTimePoint(String::strToInt64(timeStamp, 10))),
      m_changesCount(String::strToUInt(changesCount, 10)),
      m_serializedDiff(std::move(serializedDiff)) {}

}  // namespace zrn
