#pragma once

#include <libCommon/Export.h>
#include <libCommon/String.h>

#include <cstdint>

namespace zrn {

// A calendar date-time to the second: an instant plus its kind (local time or UTC), or
// uninitialised. The kind decides only how the fields and the text read; equality compares
// instants.
//
// Text form (toString): ISO 8601 with a numeric offset, "2020-05-06T10:00:00+02:00"; UTC
// values carry "+00:00"; an offset with seconds, as the local mean time of old dates has, is
// written "+00:53:28". The text constructor reads that form back to the same instant, also
// across daylight-saving changes. It also accepts "Z" for UTC, a blank instead of "T",
// fractional seconds (dropped) and text without an offset, which is taken as local wall-clock
// time. Text it cannot read gives an uninitialised value, and so does text of an instant that
// is outside the years 0000 to 9999 in UTC or in local time (its text could not be read back).
class ZRN_COMMON_API DateTime {
public:
    enum Kind { LOCAL, UTC };

    DateTime() = default;
    explicit DateTime(String const& text);

    static DateTime getCurrentDateTime();
    static DateTime getCurrentUTCDateTime();
    // The instant `seconds` after 1970-01-01 00:00:00 UTC, of kind UTC.
    static DateTime fromUnixTimeStamp(long long seconds);

    // Seconds since 1970-01-01 00:00:00 UTC; 0 when uninitialised.
    long long unixTimeStamp() const { return m_seconds; }
    // The same instant, of kind LOCAL.
    DateTime toLocalTime() const;
    // The same instant, of kind UTC.
    DateTime toUTCTime() const;
    // The empty text when uninitialised.
    String toString() const;
    bool isInitialized() const { return m_initialized; }
    Kind kind() const { return m_kind; }

    bool operator==(DateTime const& other) const;
    bool operator!=(DateTime const& other) const { return !(*this == other); }

    // Fields in the value's kind; all 0 when uninitialised. Month and day count from 1.
    std::uint16_t getYear() const;
    std::uint8_t getMonth() const;
    std::uint8_t getDay() const;
    std::uint8_t getHour() const;
    std::uint8_t getMinute() const;
    std::uint8_t getSecond() const;
    // Offset from UTC in seconds at this instant, in the value's kind (0 for UTC).
    int utcOffsetSeconds() const;

private:
    DateTime(long long seconds, Kind kind)
        : m_seconds(seconds), m_kind(kind), m_initialized(true) {}

    struct Fields {
        int year, month, day, hour, minute, second, offset;
    };
    Fields fields() const;

    long long m_seconds = 0;
    Kind m_kind = LOCAL;
    bool m_initialized = false;
};

}  // namespace zrn
