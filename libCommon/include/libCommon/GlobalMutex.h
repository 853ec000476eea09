#pragma once

#include <libCommon/Export.h>
#include <libCommon/String.h>

#include <memory>

namespace zrn {

// A mutex that is one and the same for every thread of every process of the machine that uses
// its name. The owning thread may lock it again (re-entrant); it is released when the
// outermost lock is released, or when the holding process dies.
//
// Behind it: a per-process recursive lock shared by all GlobalMutex objects of that name, plus
// an exclusive flock() on "<dir>/<name>.lock", where dir is $ZRN_LOCK_DIR or the system temp
// directory + "/zrn-locks". The directory is made on demand and left writable by all local
// users. The lock file is opened on first use and kept open.
class ZRN_COMMON_API GlobalMutex {
public:
    explicit GlobalMutex(String const& name);
    GlobalMutex(GlobalMutex const&) = delete;
    GlobalMutex& operator=(GlobalMutex const&) = delete;
    ~GlobalMutex();

    // Throws Exception when the lock file cannot be opened or locked.
    void lock();
    void unlock();

    String const& name() const { return m_name; }

    struct Impl;

private:
    String m_name;
    std::shared_ptr<Impl> m_impl;
};

// Holds a GlobalMutex for its own lifetime.
class ZRN_COMMON_API AutoGlobalMutex {
public:
    explicit AutoGlobalMutex(GlobalMutex& mutex) : m_mutex(mutex) { m_mutex.lock(); }
    AutoGlobalMutex(AutoGlobalMutex const&) = delete;
    AutoGlobalMutex& operator=(AutoGlobalMutex const&) = delete;
    ~AutoGlobalMutex() { m_mutex.unlock(); }

private:
    GlobalMutex& m_mutex;
};

// Process-local critical sections (recursive), initialised and destroyed explicitly.
namespace mutex {
struct CriticalSection {
    void* impl = nullptr;
};
ZRN_COMMON_API void init(CriticalSection& section);
ZRN_COMMON_API void lock(CriticalSection& section);
ZRN_COMMON_API void unlock(CriticalSection& section);
ZRN_COMMON_API void destroy(CriticalSection& section);
}  // namespace mutex

}  // namespace zrn
