// EventDataStore's recent fails: which runs decide, which lists count, and the store's mutex
// held across the per-test queries. Every reader's statements and the records they give are
// pinned by EventCatalogue_test.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <libDataStore/EventDataStore.h>
#include <sys/file.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace zrn {
namespace {

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

template <class Record, class Field>
std::vector<std::string> fieldOf(std::vector<Record> const& records, Field field) {
    std::vector<std::string> out;
    for (Record const& r : records) out.push_back((r.*field)().str());
    return out;
}

using Strings = std::vector<std::string>;

// Whether the "event_store" mutex is held at this moment: its lock file ("<dir>/event_store.lock",
// dir being $ZRN_LOCK_DIR or the temp directory + "/zrn-locks") carries a flock() that a
// second open file description cannot take.
bool eventStoreMutexHeld() {
    std::string dir;
    if (char const* lockDir = std::getenv("ZRN_LOCK_DIR"); lockDir && *lockDir) {
        dir = lockDir;
    } else {
        char const* temp = std::getenv("TMPDIR");
        dir = std::string(temp && *temp ? temp : "/tmp") + "/zrn-locks";
    }
    int const fd = ::open((dir + "/event_store.lock").c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) return false;
    bool const held = ::flock(fd, LOCK_EX | LOCK_NB) != 0;
    if (!held) ::flock(fd, LOCK_UN);
    ::close(fd);
    return held;
}

// Notes, for every defect reported, whether the store's mutex was held while it was.
class MutexProbingCapture : public test::LogCapture {
public:
    void write(String const& loggerName, LoggerPriority::LOGGER_PRIORITY priority,
               String const& message) override {
        if (loggerName == "DEFECT.GENERIC") heldAtDefect.push_back(eventStoreMutexHeld());
        LogCapture::write(loggerName, priority, message);
    }
    std::vector<bool> heldAtDefect;
};

class FailsTest : public ::testing::Test {
protected:
    test::TempDir m_dir;
    EventDataStore m_store{String(m_dir.file("event.db"))};
    // One finished run of `testGuid` on `device`.
    long long run(std::string const& testGuid, std::string const& device, std::string const& result,
                  long long start, long long end) {
        long long const id = *m_store.logTestStart(1, "name of " + testGuid, "Disk", testGuid,
                                                   device, "HDD", "RUNNING", at(start), 1);
        m_store.logTestFinished(id, result, "E" + std::to_string(id), at(end));
        return id;
    }
};

TEST_F(FailsTest, RecentFailsKeepTestsWhoseNewestDecidingRunFailed) {
    run("passedLast", "dev'1", "FAIL", 100, 110);
    run("passedLast", "dev'1", "PASS", 120, 130);
    run("failedLast", "dev'1", "PASS", 100, 110);
    long long const newestFail = run("failedLast", "dev'1", "FAIL", 120, 140);
    run("failedLast", "dev'1", "ABORTED", 150, 160);  // neither a failure nor a pass
    run("errorOnly", "dev'1", "ERROR", 100, 110);
    run("otherDevice", "dev2", "FAIL", 100, 110);
    run("tooLate", "dev'1", "FAIL", 100, 900);

    auto const fails = m_store.getRecentFails("dev'1", nullptr, nullptr, at(500));
    ASSERT_EQ(fails.size(), 1u);
    EXPECT_EQ(fails[0].testId(), newestFail);
    EXPECT_EQ(fails[0].testGuid(), "failedLast");
    EXPECT_EQ(fails[0].result(), "FAIL");
    EXPECT_EQ(fails[0].errorCode(), "E" + std::to_string(newestFail));
    EXPECT_EQ(fails[0].timeStamp(), at(120));
    EXPECT_TRUE(m_store.getRecentFails("dev1", nullptr, nullptr, at(500)).empty());
    // Up to `until` only: the late run counts once it is in range.
    EXPECT_EQ(fieldOf(m_store.getRecentFails("dev'1", nullptr, nullptr, at(900)),
                      &TestRunResultLog::testGuid),
              (Strings{"tooLate", "failedLast"}));

    // Given lists: ERROR and ABORTED count as failures, FAIL as neither, PASS as a pass.
    std::vector<String> const failures = {"ERROR", "ABORTED"};
    std::vector<String> const passes = {"PASS", "OK"};
    EXPECT_EQ(fieldOf(m_store.getRecentFails("dev'1", &failures, &passes, at(500)),
                      &TestRunResultLog::result),
              (Strings{"ABORTED", "ERROR"}));
    // With a null pass list, PASS still decides against a failure before it.
    std::vector<String> const failOnly = {"FAIL"};
    EXPECT_EQ(fieldOf(m_store.getRecentFails("dev'1", &failOnly, nullptr, at(500)),
                      &TestRunResultLog::testGuid),
              (Strings{"failedLast"}));

    // The defects are reported between the per-test queries: the mutex is held across all
    // of them, so no other writer changes the runs between the list of tests and their runs.
    MutexProbingCapture log;
    std::vector<String> const none;
    EXPECT_TRUE(m_store.getRecentFails("dev'1", &none, nullptr, at(500)).empty());
    EXPECT_EQ(log.heldAtDefect, std::vector<bool>(3, true));
}

}  // namespace
}  // namespace zrn
