#pragma once

#include <atomic>
#include <cstddef>
#include <utility>

namespace zrn {

// Storage policy for SharedResource: the resource is a heap object freed with `delete`.
template <class T>
struct PointerStorage {
    using element_type = T;
    static void release(T* object) { delete object; }
};

namespace detail {
template <bool Locked>
struct RefCount;

// The locked count may be copied and released on several threads at once.
template <>
struct RefCount<true> {
    std::atomic<long> value{1};
    void* block = nullptr;  // set when the object lives in one allocation with this count
    void increment() { value.fetch_add(1, std::memory_order_relaxed); }
    bool decrementToZero() { return value.fetch_sub(1, std::memory_order_acq_rel) == 1; }
    long get() const { return value.load(std::memory_order_acquire); }
};

// The plain count is for values that never cross threads while being copied.
template <>
struct RefCount<false> {
    long value = 1;
    void* block = nullptr;  // set when the object lives in one allocation with this count
    void increment() { ++value; }
    bool decrementToZero() { return --value == 0; }
    long get() const { return value; }
};
}  // namespace detail

// A reference-counted owner of a heap object: copies share the object, the last owner frees
// it. `Locked` selects a count that is safe to change from several threads (used for database
// connections) or a plain one (used for immutable values such as a TimeStamp's DateTime).
template <class Storage, bool Locked = true>
class SharedResource {
public:
    using element_type = typename Storage::element_type;

    SharedResource() = default;
    // Takes ownership of `object`; a null object gives an empty handle.
    explicit SharedResource(element_type* object) : m_object(object), m_count(countFor(object)) {}

    // Builds the object and its count in one allocation (one malloc instead of two, for small
    // values that are made often, such as a TimeStamp's DateTime).
    template <class... Args>
    static SharedResource make(Args&&... args) {
        auto* block = new Block(std::forward<Args>(args)...);
        block->count.block = block;
        SharedResource handle;
        handle.m_object = &block->object;
        handle.m_count = &block->count;
        return handle;
    }

    SharedResource(SharedResource const& other) : m_object(other.m_object), m_count(other.m_count) {
        if (m_count) m_count->increment();
    }
    SharedResource(SharedResource&& other) noexcept
        : m_object(std::exchange(other.m_object, nullptr)),
          m_count(std::exchange(other.m_count, nullptr)) {}

    SharedResource& operator=(SharedResource const& other) {
        if (m_count != other.m_count) {
            SharedResource copy(other);
            swap(copy);
        }
        return *this;
    }
    SharedResource& operator=(SharedResource&& other) noexcept {
        if (this != &other) {
            SharedResource moved(std::move(other));
            swap(moved);
        }
        return *this;
    }

    ~SharedResource() { reset(); }

    void reset() {
        if (m_count && m_count->decrementToZero()) destroy(m_object, m_count);
        m_object = nullptr;
        m_count = nullptr;
    }

    void swap(SharedResource& other) noexcept {
        std::swap(m_object, other.m_object);
        std::swap(m_count, other.m_count);
    }

    element_type* get() const { return m_object; }
    element_type* operator->() const { return m_object; }
    element_type& operator*() const { return *m_object; }
    bool isNull() const { return m_object == nullptr; }
    explicit operator bool() const { return m_object != nullptr; }
    long useCount() const { return m_count ? m_count->get() : 0; }

    // True when both handles share the same object (or are both empty).
    bool sharesWith(SharedResource const& other) const { return m_object == other.m_object; }

private:
    // The count of a newly adopted object. Should allocating it fail, the object is freed
    // before the failure passes on: ownership was handed over with the call.
    static detail::RefCount<Locked>* countFor(element_type* object) {
        if (!object) return nullptr;
        try {
            return new detail::RefCount<Locked>();
        } catch (...) {
            Storage::release(object);
            throw;
        }
    }

    // Out of line: the last release is the cold path, and inlining it lets GCC 12 report a
    // false use-after-free when two owners die in one function.
    [[gnu::noinline]] static void destroy(element_type* object, detail::RefCount<Locked>* count) {
        if (count->block) {
            delete static_cast<Block*>(count->block);
            return;
        }
        Storage::release(object);
        delete count;
    }

    struct Block {
        template <class... Args>
        explicit Block(Args&&... args) : object(std::forward<Args>(args)...) {}
        detail::RefCount<Locked> count;
        element_type object;
    };

    element_type* m_object = nullptr;
    detail::RefCount<Locked>* m_count = nullptr;
};

}  // namespace zrn
