#pragma once

#include <libCommon/DateTime.h>
#include <libCommon/SharedResource.h>
#include <libCommon/String.h>
#include <libDataStore/Export.h>

namespace zrn {

// The library's time value: a cheaply copied handle on an immutable DateTime. Copies share
// the DateTime. Stores write it into SQL as Unix seconds and read it back with
// fromUnixTimeStamp. A default-constructed TimeStamp is not initialised.
class ZRN_DATASTORE_API TimeStamp {
public:
    using Handle = SharedResource<PointerStorage<DateTime>, false>;

    TimeStamp();
    explicit TimeStamp(long long unixSeconds);
    explicit TimeStamp(DateTime const& dateTime);
    TimeStamp(TimeStamp const&) = default;
    TimeStamp(TimeStamp&&) noexcept = default;
    TimeStamp& operator=(TimeStamp const&) = default;
    TimeStamp& operator=(TimeStamp&&) noexcept = default;
    ~TimeStamp();

    static TimeStamp getCurrentTimeStamp();
    static TimeStamp getCurrentUTCTimeStamp();
    static TimeStamp fromUnixTimeStamp(long long unixSeconds);

    // Seconds since 1970-01-01 00:00:00 UTC (0 when not initialised).
    long long getUnixTimeStamp() const;
    TimeStamp toLocalTime() const;
    String toString() const;
    bool isInitialized() const;

    // The display form of the general store's texts: local time as "2021/11/04 09:03:07".
    String toDisplayString() const;

    bool operator==(TimeStamp const& other) const;
    bool operator!=(TimeStamp const& other) const { return !(*this == other); }

private:
    explicit TimeStamp(Handle handle);

    // The DateTime held, or an uninitialised one for an empty handle.
    DateTime const& dateTime() const;

    Handle m_dateTime;
};

}  // namespace zrn
