#include <libCommon/GlobalMutex.h>

#include <fcntl.h>
#include <libCommon/Exception.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace zrn {

namespace {

std::string lockDirectory() {
    if (char const* dir = std::getenv("ZRN_LOCK_DIR")) {
        if (*dir) return dir;
    }
    char const* temp = std::getenv("TMPDIR");
    std::string base = (temp && *temp) ? temp : "/tmp";
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    return base + "/zrn-locks";
}

// A name becomes one file name: path separators and NULs must not escape the directory.
std::string fileNameFor(std::string const& name) {
    std::string file = name.empty() ? std::string("_") : name;
    for (char& c : file) {
        if (c == '/' || c == '\\' || c == '\0') c = '_';
    }
    if (file == "." || file == "..") file = "_" + file;
    return file + ".lock";
}

[[noreturn]] void fail(std::string const& what, std::string const& path, int error) {
    throw Exception(String("GlobalMutex: " + what + " '" + path + "': " + std::strerror(error)));
}

}  // namespace

// One per name and process: every GlobalMutex of that name shares it, so the per-process
// recursion and the file lock agree even when a caller makes its own object for a name the
// library also uses.
struct GlobalMutex::Impl {
    std::string name;
    std::recursive_mutex threadLock;  // orders the threads of this process
    // Guarded by threadLock:
    unsigned depth = 0;
    int fd = -1;
    pid_t fdOwner = 0;  // a forked child must not share the parent's open file description

    ~Impl() {
        if (fd >= 0) ::close(fd);
    }

    void openLockFile() {
        std::string const dir = lockDirectory();
        if (::mkdir(dir.c_str(), 01777) == 0) {
            // mkdir honours the umask; the directory must be usable by every local user.
            ::chmod(dir.c_str(), 01777);
        } else if (errno != EEXIST) {
            fail("cannot create the lock directory", dir, errno);
        }
        std::string const path = dir + "/" + fileNameFor(name);
        // The folder is writable by every local user, so what sits at `path` may have been
        // planted there: a symbolic link is never followed (O_NOFOLLOW), and anything but a
        // regular file (a FIFO, a device) is refused before it is used. O_NONBLOCK keeps the
        // open itself from waiting on such a file; flock() does not depend on it.
        int const handle = ::open(
            path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK, 0666);
        if (handle < 0) fail("cannot open the lock file", path, errno);
        struct stat info {};
        if (::fstat(handle, &info) != 0) {
            int const error = errno;
            ::close(handle);
            fail("cannot inspect the lock file", path, error);
        }
        if (!S_ISREG(info.st_mode)) {
            ::close(handle);
            throw Exception(
                String("GlobalMutex: the lock file '" + path + "' is not a regular file"));
        }
        // The umask may have narrowed a file this process just made; a file of another user
        // keeps the mode its owner gave it (root could change it, and must not).
        if (info.st_uid == ::geteuid() && (info.st_mode & 07777) != 0666) ::fchmod(handle, 0666);
        fd = handle;
        fdOwner = ::getpid();
    }

    void acquireFileLock() {
        if (fd >= 0 && fdOwner != ::getpid()) {
            ::close(fd);
            fd = -1;
        }
        if (fd < 0) openLockFile();
        while (::flock(fd, LOCK_EX) != 0) {
            if (errno != EINTR) fail("cannot lock", name, errno);
        }
    }
};

namespace {

std::shared_ptr<GlobalMutex::Impl> implFor(std::string const& name) {
    static std::mutex* const registryLock = new std::mutex();
    static auto* const registry = new std::map<std::string, std::weak_ptr<GlobalMutex::Impl>>();
    std::lock_guard<std::mutex> guard(*registryLock);
    std::weak_ptr<GlobalMutex::Impl>& slot = (*registry)[name];
    std::shared_ptr<GlobalMutex::Impl> impl = slot.lock();
    if (!impl) {
        impl = std::make_shared<GlobalMutex::Impl>();
        impl->name = name;
        slot = impl;
    }
    return impl;
}

}  // namespace

GlobalMutex::GlobalMutex(String const& name) : m_name(name), m_impl(implFor(name.str())) {}

GlobalMutex::~GlobalMutex() = default;

void GlobalMutex::lock() {
    m_impl->threadLock.lock();
    if (m_impl->depth == 0) {
        try {
            m_impl->acquireFileLock();
        } catch (...) {
            m_impl->threadLock.unlock();
            throw;
        }
    }
    ++m_impl->depth;
}

void GlobalMutex::unlock() {
    if (--m_impl->depth == 0) ::flock(m_impl->fd, LOCK_UN);
    m_impl->threadLock.unlock();
}

namespace mutex {

void init(CriticalSection& section) { section.impl = new std::recursive_mutex(); }

void lock(CriticalSection& section) { static_cast<std::recursive_mutex*>(section.impl)->lock(); }

void unlock(CriticalSection& section) {
    static_cast<std::recursive_mutex*>(section.impl)->unlock();
}

void destroy(CriticalSection& section) {
    delete static_cast<std::recursive_mutex*>(section.impl);
    section.impl = nullptr;
}

}  // namespace mutex

}  // namespace zrn
