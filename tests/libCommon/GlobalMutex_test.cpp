#include <gtest/gtest.h>
#include <libCommon/Exception.h>
#include <libCommon/GlobalMutex.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "TestSupport.h"

namespace zrn {
namespace {

using namespace std::chrono_literals;

class GlobalMutexTest : public testing::Test {
protected:
    test::TempDir m_dir;
    std::string m_lockDir = m_dir.file("locks");
    test::ScopedEnv m_env{"ZRN_LOCK_DIR", m_lockDir.c_str()};
};

TEST_F(GlobalMutexTest, ReentrantForItsThreadAndExclusiveForOthers) {
    GlobalMutex mutex("reentrant");
    GlobalMutex sameName("reentrant");  // another object, the same mutex
    mutex.lock();
    sameName.lock();  // must not deadlock

    std::atomic<bool> acquired{false};
    std::thread other([&] {
        AutoGlobalMutex lock(mutex);
        acquired = true;
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(acquired);
    sameName.unlock();
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(acquired) << "released after the inner unlock";
    mutex.unlock();
    other.join();
    EXPECT_TRUE(acquired);

    struct stat info {};
    ASSERT_EQ(::stat(m_lockDir.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 01777u) << "usable by every local user";
    EXPECT_TRUE(std::filesystem::exists(m_lockDir + "/reentrant.lock"));
}

// Another local user may plant anything in the shared lock folder.
TEST_F(GlobalMutexTest, PlantedLockFilesAreRefusedOrLeftAsTheyAre) {
    ASSERT_EQ(::mkdir(m_lockDir.c_str(), 01777), 0);
    std::string const target = m_dir.file("victim");
    test::writeFile(target, "precious bytes");
    ASSERT_EQ(::chmod(target.c_str(), 0600), 0);
    std::string const link = m_lockDir + "/planted.lock";
    ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
    ASSERT_EQ(::mkfifo((m_lockDir + "/fifo.lock").c_str(), 0666), 0);

    for (std::string name : {"planted", "fifo"}) {
        GlobalMutex mutex(name.c_str());
        try {
            mutex.lock();
            mutex.unlock();
            ADD_FAILURE() << name << " was used as a lock file";
        } catch (Exception const& e) {
            EXPECT_NE(e.getMessage().str().find("'" + m_lockDir + "/" + name + ".lock'"),
                      std::string::npos)
                << e.getMessage();
        }
    }
    struct stat info {};
    ASSERT_EQ(::stat(target.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    EXPECT_EQ(test::readFile(target), "precious bytes");

    // A regular lock file of another user is used, but keeps its owner's mode.
    std::string const foreign = m_lockDir + "/foreign.lock";
    test::writeFile(foreign, "");
    ASSERT_EQ(::chmod(foreign.c_str(), 0644), 0);
    if (::geteuid() == 0 && ::chown(foreign.c_str(), 65534, 65534) == 0) {
        GlobalMutex mutex("foreign");
        mutex.lock();
        mutex.unlock();
        ASSERT_EQ(::stat(foreign.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777, 0644u);
    }
}

// Without ZRN_LOCK_DIR (or with it empty) the folder is zrn-locks in the temporary folder; any
// name becomes one plain file name inside it.
TEST_F(GlobalMutexTest, LockFilesGoToTheTemporaryFolderUnderTheirOwnName) {
    std::string const temp = m_dir.file("temp");
    ASSERT_EQ(::mkdir(temp.c_str(), 0700), 0);
    test::ScopedEnv tmpdir("TMPDIR", (temp + "//").c_str());
    struct Case {
        char const* lockDir;
        char const* name;
        char const* file;
    };
    for (Case const& c : std::initializer_list<Case>{{nullptr, "plain", "plain.lock"},
                                                     {"", "a/b\\c", "a_b_c.lock"},
                                                     {nullptr, "", "_.lock"},
                                                     {nullptr, ".", "_..lock"},
                                                     {nullptr, "..", "_...lock"},
                                                     {nullptr, "...", "....lock"}}) {
        test::ScopedEnv lockDir("ZRN_LOCK_DIR", c.lockDir);
        GlobalMutex mutex(c.name);
        AutoGlobalMutex lock(mutex);
        EXPECT_TRUE(std::filesystem::is_regular_file(temp + "/zrn-locks/" + c.file)) << c.name;
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(temp + "/zrn-locks"),
                            std::filesystem::directory_iterator()),
              6);
    EXPECT_FALSE(std::filesystem::exists(m_lockDir));

    std::string const unreachable = m_dir.file("missing") + "/locks";
    test::ScopedEnv lockDir("ZRN_LOCK_DIR", unreachable.c_str());
    GlobalMutex mutex("nowhere");
    try {
        mutex.lock();
        ADD_FAILURE() << "locked in a folder that cannot exist";
    } catch (Exception const& e) {
        EXPECT_EQ(e.getMessage().str(), "GlobalMutex: cannot create the lock directory '" +
                                            unreachable + "': No such file or directory");
    }
}

TEST_F(GlobalMutexTest, ProcessesNeverLoseAnIncrement) {
    std::string const counter = m_dir.file("counter");
    test::writeFile(counter, "0");
    int const processes = 4;
    int const increments = 150;
    std::vector<int> children;
    for (int i = 0; i < processes; ++i) {
        children.push_back(test::spawnProcess(
            {ZRN_CHILD, "count", "counter", counter, std::to_string(increments)}));
    }
    for (int pid : children) EXPECT_EQ(test::waitProcess(pid, 120), 0);
    EXPECT_EQ(test::readFile(counter), std::to_string(processes * increments));
}

TEST_F(GlobalMutexTest, AKilledHolderReleasesTheMutex) {
    test::MutexHolder holder(ZRN_CHILD, "held", m_dir.file("ready"));

    std::string const counter = m_dir.file("counter");
    test::writeFile(counter, "0");
    int const waiter = test::spawnProcess({ZRN_CHILD, "count", "held", counter, "1"});
    EXPECT_EQ(test::waitProcess(waiter, 0.3), -1) << "must wait while the holder lives";

    EXPECT_EQ(holder.release(), 128 + SIGKILL);
    int const status = test::waitProcess(waiter, 10);
    if (status == -1) ::kill(waiter, SIGKILL);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(test::readFile(counter), "1");
}

}  // namespace
}  // namespace zrn
