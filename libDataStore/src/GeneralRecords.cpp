#include <libDataStore/GeneralRecords.h>

#include <libCommon/Logger.h>
#include <libCommon/ResultSet.h>
#include <libCommon/SprintfFormat.h>

#include <algorithm>
#include <string>

#include "SqlText.h"
#include "StoreSupport.h"

namespace zrn {

using LoggerPriority::ERROR;

namespace {

char const kMarker[] = "...";
unsigned int const kMarkerLength = 3;

// `text` in a cell of `width` characters: padded with blanks, or cut and ended with "...".
// A width too small for the marker leaves the text as it is, unpadded.
String fit(String const& text, unsigned int width) {
    if (width < kMarkerLength) return text;
    auto const length = static_cast<unsigned int>(text.size());
    if (length <= width) return text + String::repeat(' ', width - length);
    return text.subString(0, width - kMarkerLength) + kMarker;
}

}  // namespace

// ---- LogKeyValue -------------------------------------------------------------------------

LogKeyValue::LogKeyValue(String const& key, String const& value) : m_key(key), m_value(value) {}

LogKeyValue::LogKeyValue(long long setId, String const& key, String const& value,
                         TimeStamp const& updateTime, bool tracked)
    : m_setId(setId), m_key(key), m_value(value), m_updateTime(updateTime), m_tracked(tracked) {}

LogKeyValue LogKeyValue::fromDbRow(ResultSetRow const& row) {
    if (row.columnCount() < 5) {
        logAt(defectLogger(), ERROR, [] {
            return LoggerStream() +
                   "LogKeyValue::fromDbRow() row column count is less than required";
        });
    }
    return LogKeyValue(row.int64Value(String("setID")), row.columnValue(String("key")),
                       row.columnValue(String("value")),
                       TimeStamp::fromUnixTimeStamp(row.int64Value(String("updateTimeStamp"))),
                       row.int64Value(String("tracked")) > 0);
}

void LogKeyValue::toRowData(HashTable<String, String>& row, long long setId, bool /*ignored*/,
                            String const& updateTimeStamp) const {
    // The tracked cell always follows the value's own mark, whatever the caller passes.
    row.insert("setID", sql::number(setId));
    row.insert("key", m_key);
    row.insert("value", m_value);
    row.insert("tracked", m_tracked ? "1" : "0");
    row.insert("updateTimeStamp", updateTimeStamp);
}

bool LogKeyValue::areFieldValuesTheSame(LogKeyValue const& other) const {
    return m_key == other.m_key && m_value == other.m_value && m_tracked == other.m_tracked;
}

// ---- LogKeyValueSet ----------------------------------------------------------------------

LogKeyValueSet const& LogKeyValueSet::operator=(LogKeyValueSet const& other) {
    if (this != &other) m_keyValues = other.m_keyValues;
    return *this;
}

bool LogKeyValueSet::append(LogKeyValue const& kv) {
    if (kv.key().empty() || m_keyValues.contains(kv.key())) return false;
    m_keyValues.insert(kv.key(), kv);
    return true;
}

bool LogKeyValueSet::getKeyValue(String const& key, String& value) const {
    LogKeyValue const* found = m_keyValues.lookup(key);
    if (!found) return false;
    value = found->value();
    return true;
}

bool LogKeyValueSet::updateKeyValue(String const& key, String const& value) {
    if (!m_keyValues.remove(key)) return false;
    // A fresh value without set id, time or tracked mark: the store then sees it as changed
    // and rewrites it with the time of the write.
    return append(LogKeyValue(key, value));
}

// ---- GenericLog --------------------------------------------------------------------------

GenericLog::GenericLog(String const& typeUUID, String const& guid, String const& category,
                       String const& subCategory, unsigned int flags,
                       LogKeyValueSet const& keyValues)
    : m_typeUUID(typeUUID),
      m_guid(guid),
      m_category(category),
      m_subCategory(subCategory),
      m_creationTime(TimeStamp::getCurrentUTCTimeStamp()),
      m_flags(flags),
      m_keyValues(keyValues) {}

GenericLog::GenericLog(long long id, String const& typeUUID, String const& guid,
                       String const& category, String const& subCategory, TimeStamp const& creation,
                       TimeStamp const& update, unsigned int flags, bool tracked,
                       LogKeyValueSet const& keyValues)
    : m_id(id),
      m_typeUUID(typeUUID),
      m_guid(guid),
      m_category(category),
      m_subCategory(subCategory),
      m_creationTime(creation),
      m_updateTime(update),
      m_flags(flags),
      m_tracked(tracked),
      m_keyValues(keyValues) {}

void GenericLog::setCategories(String const& category, String const& subCategory) {
    m_category = category;
    m_subCategory = subCategory;
}

void GenericLog::setTracked(bool alsoKeyValues) {
    // The log itself is marked even for false: callers rely on that.
    m_tracked = true;
    if (!alsoKeyValues) return;
    for (unsigned int i = 0; i < m_keyValues.size(); ++i) m_keyValues.get(i).setTracked();
}

String GenericLog::toString() const {
    String const I = "   ";
    String const I2 = "      ";
    String const gap = "  ";
    String out = "GenericLog:\n";
    auto line = [&](char const* label, String const& value) { out += I + label + value + "\n"; };
    line("typeUUID:                 ", m_typeUUID);
    line("category:                 ", m_category);
    line("subCategory:              ", m_subCategory);
    line("guid:                     ", m_guid);
    line("creationTimeStamp(local): ", m_creationTime.toDisplayString());
    line("updateTimeStamp(local):   ", m_updateTime.toDisplayString());
    line("flags:                    ", SprintfFormat("%08Xh", m_flags));
    line("tracked:                  ", m_tracked ? "YES" : "NO");
    if (m_keyValues.size() == 0) return out;

    unsigned int K = 0;
    unsigned int V = 0;
    for (unsigned int i = 0; i < m_keyValues.size(); ++i) {
        K = std::max(K, static_cast<unsigned int>(m_keyValues.get(i).key().size()));
        V = std::max(V, static_cast<unsigned int>(m_keyValues.get(i).value().size()));
    }
    out += I + "Key-Values:\n";
    out += I2 + fit("Key", K + 2) + fit("Value", V + 2) + "Tracked" + gap + "Last Update" + "\n";
    // The two blanks before the line end belong to the layout.
    out += I2 + String::repeat('-', K) + gap + String::repeat('-', V) + gap +
           String::repeat('-', 7) + gap + String::repeat('-', 19) + gap + "\n";
    for (unsigned int i = 0; i < m_keyValues.size(); ++i) {
        LogKeyValue const& kv = m_keyValues.get(i);
        out += I2 + fit(kv.key(), K) + gap + fit(kv.value(), V) + gap +
               fit(kv.tracked() ? "YES" : "NO", 7) + gap +
               fit(kv.updateUTCTimeStamp().toDisplayString(), 19) + "\n";
    }
    return out;
}

GenericLog GenericLog::fromDbRow(ResultSetRow const& row, LogKeyValueSet const& keyValues) {
    if (row.columnCount() < 9) {
        logAt(defectLogger(), ERROR, [] {
            return LoggerStream() +
                   "GenericLog::fromDbRow() row column count is less than required";
        });
    }
    auto seconds = [&](int index) { return TimeStamp::fromUnixTimeStamp(row.int64Value(index)); };
    return GenericLog(row.int64Value(0), row.columnValue(1), row.columnValue(2), row.columnValue(3),
                      row.columnValue(4), seconds(5), seconds(6),
                      static_cast<unsigned int>(String::strToUInt64(row.columnValue(8), 10)),
                      String::strToUInt64(row.columnValue(7), 10) != 0, keyValues);
}

void GenericLog::toRowData(HashTable<String, String>& row, bool forUpdate,
                           String const& updateTimeStamp) const {
    // An update never rewrites the identity columns or the creation time.
    if (!forUpdate) {
        row.insert("typeUUID", m_typeUUID);
        row.insert("guid", m_guid);
        row.insert("creationTimeStamp", sql::number(m_creationTime.getUnixTimeStamp()));
    }
    row.insert("category", m_category);
    row.insert("subCategory", m_subCategory);
    row.insert("updateTimeStamp", updateTimeStamp);
    row.insert("tracked", m_tracked ? "1" : "0");
    row.insert("flags", sql::number(m_flags));
}

// ---- GenericLogFilter --------------------------------------------------------------------

GenericLogFilter::GenericLogFilter(String const& typeUUID, String const& guid)
    : m_typeUUID(typeUUID), m_guid(guid) {}

void GenericLogFilter::setCategoryFilter(String const& category, String const& subCategory) {
    m_category = category;
    m_subCategory = subCategory;
}

void GenericLogFilter::setDateFilter(TimeStamp const& from, TimeStamp const& to) {
    m_dateFrom = from;
    m_dateTo = to;
}

void GenericLogFilter::addKeyValueRequirement(String const& key, String const& value) {
    // append refuses an empty key and keeps the first requirement on a key.
    m_keyValues.append(LogKeyValue(key, value));
}

}  // namespace zrn
