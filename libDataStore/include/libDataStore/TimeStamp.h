#pragma once

#include <libCommon/DateTime.h>
#include <libCommon/SharedResource.h>
#include <libCommon/String.h>
#include <libDataStore/Export.h>

#include <cstdint>
#include <utility>

namespace zrn {

// The library's time value: a cheaply copied handle on an immutable DateTime, whose copies
// all see one value. Stores write it into SQL as Unix seconds and read it back with
// fromUnixTimeStamp. A default-constructed TimeStamp is not initialised; neither is one whose
// value was moved away.
//
// How the value is held: the DateTime is fixed when the TimeStamp is made and nothing can
// change it afterwards (no setter, no access to the held object, assignment replaces the whole
// value), so a copy holding the same bits sees exactly what a copy sharing a heap object would
// see. The handle is therefore one 64-bit word that is either
//  - the value itself (lowest bit 1): the seconds in the upper 61 bits, the kind (LOCAL or UTC)
//    and whether it is initialised in bits 2 and 1. Every instant within about 36 billion years
//    of 1970 fits, so a time stamp read from a file or taken from the clock allocates nothing
//    and copies as a word; or
//  - for seconds beyond that, a pointer (lowest bit 0) to a heap DateTime with a plain,
//    intrusive count, shared by the copies and freed with the last one, as the count is not
//    locked a TimeStamp and its copies must not be copied or destroyed on several threads at
//    once.
// A list of records that carry time stamps thus costs the records and nothing per value (one
// allocation per value before, and twice the size). A Handle given to the private constructor
// is read once; its object may be released afterwards.
class ZRN_DATASTORE_API TimeStamp {
public:
    using Handle = SharedResource<PointerStorage<DateTime>, false>;

    TimeStamp() = default;
    // The readers make two of these per record: a time near enough to 1970 (any of this era)
    // is made here, in the caller, straight from its seconds.
    explicit TimeStamp(long long unixSeconds)
        : m_word(unixSeconds >= -kInlineLimit && unixSeconds < kInlineLimit
                     ? (static_cast<std::uint64_t>(unixSeconds) << 3) | kUtcBit | kInitialisedBit |
                           1
                     : wordFor(DateTime::fromUnixTimeStamp(unixSeconds))) {}
    explicit TimeStamp(DateTime const& dateTime);
    TimeStamp(TimeStamp const& other) : m_word(other.m_word) {
        if (shared()) retain();
    }
    // The source is left uninitialised, as an emptied handle reads.
    TimeStamp(TimeStamp&& other) noexcept : m_word(std::exchange(other.m_word, kUninitialised)) {}
    TimeStamp& operator=(TimeStamp const& other) {
        TimeStamp copy(other);
        std::swap(m_word, copy.m_word);
        return *this;
    }
    TimeStamp& operator=(TimeStamp&& other) noexcept {
        TimeStamp moved(std::move(other));
        std::swap(m_word, moved.m_word);
        return *this;
    }
    ~TimeStamp() {
        if (shared()) release();
    }

    static TimeStamp getCurrentTimeStamp();
    static TimeStamp getCurrentUTCTimeStamp();
    static TimeStamp fromUnixTimeStamp(long long unixSeconds) { return TimeStamp(unixSeconds); }

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

    // An inline, uninitialised value: bit 0 set, every other bit clear.
    static constexpr std::uint64_t kUninitialised = 1;
    // Bits 1 and 2 of an inline value; its seconds start at bit 3. Times at least 2^60
    // seconds away from 1970 are held in a shared block instead.
    static constexpr std::uint64_t kInitialisedBit = 2;
    static constexpr std::uint64_t kUtcBit = 4;
    static constexpr long long kInlineLimit = 1LL << 60;

    static std::uint64_t wordFor(DateTime const& value);

    bool shared() const { return (m_word & 1) == 0; }
    void retain() const;
    void release();
    DateTime dateTime() const;

    std::uint64_t m_word = kUninitialised;
};

}  // namespace zrn
