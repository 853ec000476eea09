#pragma once

#include <libCommon/Array.h>
#include <libCommon/Assert.h>
#include <libCommon/HashTable.h>

#include <cstddef>
#include <utility>

namespace zrn {

// A map that keeps the insertion order of its keys: an array of keys and an array of values at
// the same positions, and, once the table holds more than kLinearLimit keys, a hash index from
// key to position. Small tables (a log's key/values, a table's columns) are searched in order
// instead: they then cost their two arrays and nothing more, where an index of 32 buckets and
// a node per key used to double them. Index access past the end is an assertion failure
// ("index < size()") that stops the process.
template <class K, class V>
class OrderedHashTable {
public:
    // Up to this many keys, look-ups compare the keys in order (EqualFunc, as the index does).
    static constexpr std::size_t kLinearLimit = 16;

    OrderedHashTable() : m_index(0) {}

    // Appends a new key at the end, or replaces the value of an existing key in place.
    void insert(K const& key, V const& value) {
        std::size_t const position = find(key);
        if (position != kMissing) {
            m_values[position] = value;
            return;
        }
        m_keys.append(key);
        m_values.append(value);
        if (m_indexed) {
            m_index.insert(key, m_keys.size() - 1);
        } else if (m_keys.size() > kLinearLimit) {
            buildIndex();
        }
    }

    V const* lookup(K const& key) const {
        std::size_t const position = find(key);
        return position != kMissing ? &m_values[position] : nullptr;
    }
    bool lookup(K const& key, V& out) const {
        V const* value = lookup(key);
        if (!value) return false;
        out = *value;
        return true;
    }
    bool contains(K const& key) const { return find(key) != kMissing; }

    // Removes `key`, keeping the order of the others; false when absent.
    bool remove(K const& key) {
        std::size_t const position = find(key);
        if (position == kMissing) return false;
        m_keys.remove(position);
        m_values.remove(position);
        if (m_indexed) {
            m_index.remove(key);
            for (auto& entry : m_index) {
                if (entry.second > position) --entry.second;
            }
        }
        return true;
    }

    std::size_t size() const { return m_keys.size(); }
    bool empty() const { return m_keys.empty(); }

    K const& keyAt(std::size_t index) const {
        ZRN_ASSERT(index < size(), "libCommon\\ZRNOrderedHashTable");
        return m_keys[index];
    }
    V const& valueAt(std::size_t index) const {
        ZRN_ASSERT(index < size(), "libCommon\\ZRNOrderedHashTable");
        return m_values[index];
    }
    // Mutable access to a value in place; the key stays as it is.
    V& valueAt(std::size_t index) {
        ZRN_ASSERT(index < size(), "libCommon\\ZRNOrderedHashTable");
        return m_values[index];
    }
    V const& operator[](std::size_t index) const { return valueAt(index); }

    // Iteration in insertion order; each step yields a pair of references (key, value).
    class const_iterator {
    public:
        const_iterator(OrderedHashTable const* table, std::size_t position)
            : m_table(table), m_position(position) {}
        std::pair<K const&, V const&> operator*() const {
            return {m_table->m_keys[m_position], m_table->m_values[m_position]};
        }
        const_iterator& operator++() {
            ++m_position;
            return *this;
        }
        bool operator==(const_iterator const& other) const {
            return m_position == other.m_position;
        }
        bool operator!=(const_iterator const& other) const {
            return m_position != other.m_position;
        }

    private:
        OrderedHashTable const* m_table;
        std::size_t m_position;
    };
    const_iterator begin() const { return const_iterator(this, 0); }
    const_iterator end() const { return const_iterator(this, size()); }

    Array<K> const& keys() const { return m_keys; }
    Array<V> const& values() const { return m_values; }

private:
    static constexpr std::size_t kMissing = static_cast<std::size_t>(-1);

    std::size_t find(K const& key) const {
        if (m_indexed) {
            std::size_t const* position = m_index.lookup(key);
            return position ? *position : kMissing;
        }
        for (std::size_t i = 0; i < m_keys.size(); ++i) {
            if (EqualFunc<K>::equal(m_keys[i], key)) return i;
        }
        return kMissing;
    }

    void buildIndex() {
        m_index = HashTable<K, std::size_t>();
        for (std::size_t i = 0; i < m_keys.size(); ++i) m_index.insert(m_keys[i], i);
        m_indexed = true;
    }

    // Empty (no buckets allocated) until the table outgrows kLinearLimit keys.
    HashTable<K, std::size_t> m_index;
    bool m_indexed = false;
    Array<K> m_keys;
    Array<V> m_values;
};

}  // namespace zrn
