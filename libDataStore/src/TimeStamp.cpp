#include <libDataStore/TimeStamp.h>

#include <libCommon/SprintfFormat.h>

namespace zrn {

namespace {

// A DateTime too far from 1970 to be held in the word, with the count of its owners.
struct SharedDateTime {
    long owners;
    DateTime value;
};

static_assert(sizeof(SharedDateTime*) <= sizeof(std::uint64_t), "a pointer fits in the word");
static_assert(alignof(SharedDateTime) % 2 == 0, "a pointer leaves the lowest bit clear");

SharedDateTime* block(std::uint64_t word) {
    return reinterpret_cast<SharedDateTime*>(static_cast<std::uintptr_t>(word));
}

}  // namespace

std::uint64_t TimeStamp::wordFor(DateTime const& value) {
    if (!value.isInitialized()) return 1;
    long long const seconds = value.unixTimeStamp();
    if (seconds >= -kInlineLimit && seconds < kInlineLimit) {
        return (static_cast<std::uint64_t>(seconds) << 3) |
               (value.kind() == DateTime::UTC ? kUtcBit : 0) | kInitialisedBit | 1;
    }
    return static_cast<std::uint64_t>(
        reinterpret_cast<std::uintptr_t>(new SharedDateTime{1, value}));
}

TimeStamp::TimeStamp(DateTime const& dateTime) : m_word(wordFor(dateTime)) {}

// An empty handle reads as uninitialised.
TimeStamp::TimeStamp(Handle handle) : TimeStamp(handle ? *handle : DateTime()) {}

void TimeStamp::retain() const { ++block(m_word)->owners; }

void TimeStamp::release() {
    SharedDateTime* const shared = block(m_word);
    if (--shared->owners == 0) delete shared;
}

DateTime TimeStamp::dateTime() const {
    if (shared()) return block(m_word)->value;
    if (!(m_word & kInitialisedBit)) return DateTime();
    // The seconds are the word's upper bits, sign included.
    auto const seconds = static_cast<long long>(m_word) >> 3;
    DateTime const utc = DateTime::fromUnixTimeStamp(seconds);
    return m_word & kUtcBit ? utc : utc.toLocalTime();
}

TimeStamp TimeStamp::getCurrentTimeStamp() { return TimeStamp(DateTime::getCurrentDateTime()); }

TimeStamp TimeStamp::getCurrentUTCTimeStamp() {
    return TimeStamp(DateTime::getCurrentUTCDateTime());
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
