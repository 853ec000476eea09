#pragma once

#include <libCommon/Array.h>
#include <libCommon/Assert.h>
#include <libCommon/HashTable.h>

#include <cstddef>
#include <utility>

namespace zrn {

// A map that keeps the insertion order of its keys: a hash index from key to position, an
// array of keys and an array of values at the same positions. Index access past the end is an
// assertion failure ("index < size()") that stops the process.
template <class K, class V>
class OrderedHashTable {
public:
    OrderedHashTable() : m_index(HashTable<K, std::size_t>::INITIAL_BUCKETS) {}

    // Appends a new key at the end, or replaces the value of an existing key in place.
    void insert(K const& key, V const& value) {
        if (std::size_t const* position = m_index.lookup(key)) {
            m_values[*position] = value;
            return;
        }
        m_index.insert(key, m_keys.size());
        m_keys.append(key);
        m_values.append(value);
    }

    V const* lookup(K const& key) const {
        std::size_t const* position = m_index.lookup(key);
        return position ? &m_values[*position] : nullptr;
    }
    bool lookup(K const& key, V& out) const {
        V const* value = lookup(key);
        if (!value) return false;
        out = *value;
        return true;
    }
    bool contains(K const& key) const { return m_index.contains(key); }

    // Removes `key`, keeping the order of the others; false when absent.
    bool remove(K const& key) {
        std::size_t const* found = m_index.lookup(key);
        if (!found) return false;
        std::size_t const position = *found;
        m_keys.remove(position);
        m_values.remove(position);
        m_index.remove(key);
        for (auto& entry : m_index) {
            if (entry.second > position) --entry.second;
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
    HashTable<K, std::size_t> m_index;
    Array<K> m_keys;
    Array<V> m_values;
};

}  // namespace zrn
