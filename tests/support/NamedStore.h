#pragma once

// A store object built in storage whose address is known before the store exists, so that the
// traces naming the object's address ("this: 0x...", or the address as a decimal number) are
// recorded by a catalogue with a fixed name in its place. Every NamedStore gets storage of its
// own that is kept to the end of the program, so no two of them ever share an address.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "Golden.h"

namespace zrn {
namespace test {

template <class Store>
class NamedStore {
public:
    NamedStore(Catalogue& catalogue, std::string const& name) {
        auto& pool = storage();
        pool.push_back(std::make_unique<Bytes>());
        m_bytes = pool.back()->bytes;
        char hex[32];
        std::snprintf(hex, sizeof hex, "%p", static_cast<void const*>(m_bytes));
        catalogue.replace(hex, "<" + name + ">");
        catalogue.replace(std::to_string(reinterpret_cast<std::uintptr_t>(m_bytes)),
                          "<" + name + ">");
    }
    ~NamedStore() { reset(); }
    NamedStore(NamedStore const&) = delete;
    NamedStore& operator=(NamedStore const&) = delete;

    // Builds the store (destroying one built before); a throwing constructor leaves none.
    template <class... Args>
    Store& emplace(Args&&... args) {
        reset();
        m_store = new (m_bytes) Store(std::forward<Args>(args)...);
        return *m_store;
    }
    void reset() {
        if (m_store) m_store->~Store();
        m_store = nullptr;
    }
    Store& operator*() { return *m_store; }
    Store* operator->() { return m_store; }

private:
    struct Bytes {
        alignas(Store) unsigned char bytes[sizeof(Store)];
    };
    static std::vector<std::unique_ptr<Bytes>>& storage() {
        static std::vector<std::unique_ptr<Bytes>> instance;
        return instance;
    }

    unsigned char* m_bytes = nullptr;
    Store* m_store = nullptr;
};

}  // namespace test
}  // namespace zrn
