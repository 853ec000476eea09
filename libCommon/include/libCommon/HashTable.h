#pragma once

#include <libCommon/String.h>

#include <cstddef>
#include <functional>
#include <unordered_map>
#include <utility>

namespace zrn {

template <class K>
struct HashFunc {
    static std::size_t hash(K const& key) { return std::hash<K>()(key); }
    std::size_t operator()(K const& key) const { return hash(key); }
};

template <class K>
struct EqualFunc {
    static bool equal(K const& a, K const& b) { return a == b; }
    bool operator()(K const& a, K const& b) const { return equal(a, b); }
};

// An unordered map. Iteration visits every entry once in the table's own (hash) order.
// A new table starts with 32 buckets.
template <class K, class V>
class HashTable {
    using Map = std::unordered_map<K, V, HashFunc<K>, EqualFunc<K>>;

public:
    static constexpr std::size_t INITIAL_BUCKETS = 32;

    using iterator = typename Map::iterator;
    using const_iterator = typename Map::const_iterator;

    explicit HashTable(std::size_t buckets = INITIAL_BUCKETS) : m_map(buckets) {}

    // Inserts or replaces the value under `key`.
    void insert(K const& key, V const& value) { m_map[key] = value; }
    void insert(K const& key, V&& value) { m_map[key] = std::move(value); }

    // The value under `key`, or null.
    V const* lookup(K const& key) const {
        auto it = m_map.find(key);
        return it == m_map.end() ? nullptr : &it->second;
    }
    V* lookup(K const& key) {
        auto it = m_map.find(key);
        return it == m_map.end() ? nullptr : &it->second;
    }
    // Copies the value under `key` into `out`; false (and `out` untouched) when absent.
    bool lookup(K const& key, V& out) const {
        auto it = m_map.find(key);
        if (it == m_map.end()) return false;
        out = it->second;
        return true;
    }
    bool contains(K const& key) const { return m_map.find(key) != m_map.end(); }

    // Removes the entry under `key`; false when there was none.
    bool remove(K const& key) { return m_map.erase(key) != 0; }
    void clear() { m_map.clear(); }

    std::size_t size() const { return m_map.size(); }
    bool empty() const { return m_map.empty(); }
    std::size_t bucketCount() const { return m_map.bucket_count(); }

    iterator begin() { return m_map.begin(); }
    iterator end() { return m_map.end(); }
    const_iterator begin() const { return m_map.begin(); }
    const_iterator end() const { return m_map.end(); }

private:
    Map m_map;
};

}  // namespace zrn
