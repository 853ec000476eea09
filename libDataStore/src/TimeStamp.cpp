#include <libDataStore/TimeStamp.h>

#include <libCommon/SprintfFormat.h>

namespace zrn {

// Time stamps are made for every row a query reads: the DateTime and its count share one
// allocation.
TimeStamp::TimeStamp() : m_dateTime(Handle::make()) {}

TimeStamp::TimeStamp(long long unixSeconds)
    : m_dateTime(Handle::make(DateTime::fromUnixTimeStamp(unixSeconds))) {}

TimeStamp::TimeStamp(DateTime const& dateTime) : m_dateTime(Handle::make(dateTime)) {}

TimeStamp::TimeStamp(Handle handle) : m_dateTime(std::move(handle)) {}

TimeStamp::~TimeStamp() = default;

TimeStamp TimeStamp::getCurrentTimeStamp() { return TimeStamp(DateTime::getCurrentDateTime()); }

TimeStamp TimeStamp::getCurrentUTCTimeStamp() {
    return TimeStamp(DateTime::getCurrentUTCDateTime());
}

TimeStamp TimeStamp::fromUnixTimeStamp(long long unixSeconds) { return TimeStamp(unixSeconds); }

DateTime const& TimeStamp::dateTime() const {
    static DateTime const uninitialised;
    // A moved-from TimeStamp holds no DateTime; it reads as uninitialised.
    return m_dateTime ? *m_dateTime : uninitialised;
}

long long TimeStamp::getUnixTimeStamp() const { return dateTime().unixTimeStamp(); }

TimeStamp TimeStamp::toLocalTime() const { return TimeStamp(dateTime().toLocalTime()); }

String TimeStamp::toString() const { return dateTime().toString(); }

bool TimeStamp::isInitialized() const { return dateTime().isInitialized(); }

String TimeStamp::toDisplayString() const {
    DateTime const local = DateTime::fromUnixTimeStamp(getUnixTimeStamp()).toLocalTime();
    return SprintfFormat("%04u/%02u/%02u %02u:%02u:%02u", unsigned{local.getYear()},
                         unsigned{local.getMonth()}, unsigned{local.getDay()},
                         unsigned{local.getHour()}, unsigned{local.getMinute()},
                         unsigned{local.getSecond()});
}

bool TimeStamp::operator==(TimeStamp const& other) const { return dateTime() == other.dateTime(); }

}  // namespace zrn
