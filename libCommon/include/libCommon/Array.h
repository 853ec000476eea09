#pragma once

#include <libCommon/Assert.h>

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <utility>
#include <vector>

namespace zrn {

// A growable, ordered array with index access. Index access past the end is an assertion
// failure that stops the process.
template <class T>
class Array {
public:
    using iterator = typename std::vector<T>::iterator;
    using const_iterator = typename std::vector<T>::const_iterator;

    Array() = default;
    Array(std::initializer_list<T> items) : m_items(items) {}

    void append(T const& item) { m_items.push_back(item); }
    void append(T&& item) { m_items.push_back(std::move(item)); }
    void remove(std::size_t index) {
        ZRN_ASSERT(index < size(), "libCommon\\ZRNArray\\ZRN\\ZRNArrayCommon");
        m_items.erase(m_items.begin() + static_cast<std::ptrdiff_t>(index));
    }
    void clear() { m_items.clear(); }
    void reserve(std::size_t count) { m_items.reserve(count); }

    std::size_t size() const { return m_items.size(); }
    bool empty() const { return m_items.empty(); }

    T& operator[](std::size_t index) {
        ZRN_ASSERT(index < size(), "libCommon\\ZRNArray\\ZRN\\ZRNArrayCommon");
        return m_items[index];
    }
    T const& operator[](std::size_t index) const {
        ZRN_ASSERT(index < size(), "libCommon\\ZRNArray\\ZRN\\ZRNArrayCommon");
        return m_items[index];
    }

    // Exact comparison with operator==.
    bool contains(T const& item) const {
        return std::find(m_items.begin(), m_items.end(), item) != m_items.end();
    }

    iterator begin() { return m_items.begin(); }
    iterator end() { return m_items.end(); }
    const_iterator begin() const { return m_items.begin(); }
    const_iterator end() const { return m_items.end(); }

    bool operator==(Array const& other) const { return m_items == other.m_items; }
    bool operator!=(Array const& other) const { return m_items != other.m_items; }

private:
    std::vector<T> m_items;
};

}  // namespace zrn
