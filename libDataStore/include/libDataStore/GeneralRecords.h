#pragma once

#include <libCommon/Array.h>
#include <libCommon/HashTable.h>
#include <libCommon/OrderedHashTable.h>
#include <libCommon/String.h>
#include <libDataStore/Export.h>
#include <libDataStore/TimeStamp.h>

#include <utility>

namespace zrn {

class GeneralDataStore;
class ResultSetRow;

// One named text value of a generic log: key, value, the UTC time it was last written and a
// "tracked" mark, plus the rowid of the owning log when it was read from the store (-1 for a
// value built by a caller). A plain value; copies are independent.
class ZRN_DATASTORE_API LogKeyValue {
public:
    LogKeyValue() = default;
    LogKeyValue(String const& key, String const& value);

    String const& key() const { return m_key; }
    String const& value() const { return m_value; }
    TimeStamp const& updateUTCTimeStamp() const { return m_updateTime; }
    bool tracked() const { return m_tracked; }

    // Marks the value as tracked; nothing clears the mark again.
    void setTracked() { m_tracked = true; }

private:
    friend class GeneralDataStore;

    LogKeyValue(long long setId, String const& key, String const& value,
                TimeStamp const& updateTime, bool tracked);

    // A `KeyValues` row read by column name (`setID`, `key`, `value`, `updateTimeStamp`,
    // `tracked`). A row of fewer than five cells is logged on "DEFECT.GENERIC" and read as far
    // as it goes; never throws.
    static LogKeyValue fromDbRow(ResultSetRow const& row);
    // Puts `setID`, `key`, `value`, `tracked` and `updateTimeStamp` (the given text) into
    // `row`. The tracked cell always comes from this value's own mark; `ignored` is accepted
    // and deliberately unused.
    void toRowData(HashTable<String, String>& row, long long setId, bool ignored,
                   String const& updateTimeStamp) const;
    // Same key, value and tracked mark; set id and time are not compared.
    bool areFieldValuesTheSame(LogKeyValue const& other) const;

    long long m_setId = -1;
    String m_key;
    String m_value;
    TimeStamp m_updateTime;
    bool m_tracked = false;
};

// The key/values of one log, unique by key, in insertion order. Copies are deep.
class ZRN_DATASTORE_API LogKeyValueSet {
public:
    LogKeyValueSet() = default;
    LogKeyValueSet(LogKeyValueSet const&) = default;
    LogKeyValueSet(LogKeyValueSet&&) noexcept = default;
    LogKeyValueSet const& operator=(LogKeyValueSet const& other);
    LogKeyValueSet& operator=(LogKeyValueSet&&) noexcept = default;
    ~LogKeyValueSet() = default;

    unsigned int size() const { return static_cast<unsigned int>(m_keyValues.size()); }
    // The key/value at `index` in insertion order. An index not below size() fails the
    // assertion "index < size()" and stops the process.
    LogKeyValue& get(unsigned int index) { return m_keyValues.valueAt(index); }
    LogKeyValue const& get(unsigned int index) const { return m_keyValues.valueAt(index); }

    // Adds `kv` at the end. False, changing nothing, for an empty key or a key already in
    // the set (the first entry stays).
    bool append(LogKeyValue const& kv);
    // Copies the value of `key` into `value`; false, leaving `value` as it was, when absent.
    bool getKeyValue(String const& key, String& value) const;
    // Replaces the entry of `key` by a fresh LogKeyValue(key, value) moved to the end: its set
    // id, time and tracked mark are dropped. False, changing nothing, when the key is absent.
    bool updateKeyValue(String const& key, String const& value);

private:
    OrderedHashTable<String, LogKeyValue> m_keyValues;
};

// A log of the general store, identified by (typeUUID, guid), with a category, a
// sub-category, creation and update times (UTC), 32 caller-defined flag bits, a tracked mark
// and its key/values. A plain value; copies are independent.
class ZRN_DATASTORE_API GenericLog {
public:
    // A new log: id -1, created now (UTC), update time unset, not tracked.
    GenericLog(String const& typeUUID, String const& guid, String const& category,
               String const& subCategory, unsigned int flags, LogKeyValueSet const& keyValues);

    String const& typeUUID() const { return m_typeUUID; }
    String const& guid() const { return m_guid; }
    String const& category() const { return m_category; }
    String const& subCategory() const { return m_subCategory; }
    TimeStamp const& creationUTCTimeStamp() const { return m_creationTime; }
    TimeStamp const& updateUTCTimeStamp() const { return m_updateTime; }
    unsigned int flags() const { return m_flags; }
    bool tracked() const { return m_tracked; }
    LogKeyValueSet& keyValues() { return m_keyValues; }
    LogKeyValueSet const& keyValues() const { return m_keyValues; }

    void setFlags(unsigned int flags) { m_flags = flags; }
    void setCategories(String const& category, String const& subCategory);
    // Marks the log as tracked whatever the argument says; with true, every key/value too.
    // Nothing clears the mark again.
    void setTracked(bool alsoKeyValues);

    // A multi-line description: one labelled line per field (times in local time), then,
    // when there are key/values, a table of them.
    String toString() const;

private:
    friend class GeneralDataStore;

    GenericLog(long long id, String const& typeUUID, String const& guid, String const& category,
               String const& subCategory, TimeStamp const& creation, TimeStamp const& update,
               unsigned int flags, bool tracked, LogKeyValueSet const& keyValues);

    // A row of "SELECT kv_set.rowid, * FROM `GenericLog` ..." read by position: id, typeUUID,
    // guid, category, subCategory, creation, update, tracked, flags. A row of fewer than nine
    // cells is logged on "DEFECT.GENERIC" and read as far as it goes; never throws.
    static GenericLog fromDbRow(ResultSetRow const& row, LogKeyValueSet const& keyValues);
    // The `GenericLog` row: for a new row the identity columns and creation time first; always
    // category, subCategory, updateTimeStamp (the given text), tracked and flags.
    void toRowData(HashTable<String, String>& row, bool forUpdate,
                   String const& updateTimeStamp) const;

    long long m_id = -1;
    String m_typeUUID;
    String m_guid;
    String m_category;
    String m_subCategory;
    TimeStamp m_creationTime;
    TimeStamp m_updateTime;
    unsigned int m_flags = 0;
    bool m_tracked = false;
    LogKeyValueSet m_keyValues;
};

// Generic logs in append order. Copies are deep.
class ZRN_DATASTORE_API GenericLogList {
public:
    unsigned int size() const { return static_cast<unsigned int>(m_logs.size()); }
    void append(GenericLog const& log) { m_logs.append(log); }
    // Takes the log over instead of copying its key/values.
    void append(GenericLog&& log) { m_logs.append(std::move(log)); }
    // An index not below size() fails the assertion "index < size()" and stops the process.
    GenericLog& get(unsigned int index) { return m_logs[index]; }
    GenericLog const& get(unsigned int index) const { return m_logs[index]; }

private:
    Array<GenericLog> m_logs;
};

// What GeneralDataStore::getLogs selects. Every field left at its default selects all: empty
// texts, unset times, no key/value requirement, and a result limit of 0 (no limit).
class ZRN_DATASTORE_API GenericLogFilter {
public:
    GenericLogFilter() = default;
    GenericLogFilter(String const& typeUUID, String const& guid);

    void setCategoryFilter(String const& category, String const& subCategory);
    // Only logs created at or after `from` and at or before `to`; an unset bound is no bound.
    void setDateFilter(TimeStamp const& from, TimeStamp const& to);
    void setResultLimit(unsigned int limit) { m_resultLimit = limit; }
    // Requires the log to hold `key` with exactly `value`. An empty key adds nothing; a second
    // requirement on the same key is ignored.
    void addKeyValueRequirement(String const& key, String const& value);

private:
    friend class GeneralDataStore;

    unsigned int m_resultLimit = 0;
    String m_typeUUID;
    String m_guid;
    String m_category;
    String m_subCategory;
    TimeStamp m_dateFrom;
    TimeStamp m_dateTo;
    LogKeyValueSet m_keyValues;
};

}  // namespace zrn
