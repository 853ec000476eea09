// A host program that switches to its user's locale must not change a single stored number.

#include <gtest/gtest.h>
#include <libDataStore/DataStore.h>

#include <clocale>
#include <cstdlib>
#include <memory>
#include <string>

#include "TestSupport.h"

namespace zrn {
namespace {

EventTimePoint at(long long seconds) { return EventTimePoint(EventTimePoint::duration(seconds)); }

// Switches the whole process to a German locale, whose decimal separator is a comma, as a host
// program does with setlocale(LC_ALL, ""). A machine without one gets it generated from the
// system's locale sources into the test's folder. Restores "C" when it goes.
class CommaLocale {
public:
    explicit CommaLocale(test::TempDir const& dir) {
        if (trySet()) return;
        std::string const folder = dir.file("locales");
        std::string const command = "mkdir -p '" + folder + "' && localedef -i de_DE -f UTF-8 '" +
                                    folder + "/de_DE.UTF-8' >/dev/null 2>&1";
        if (std::system(command.c_str()) == 0) {
            m_locPath.reset(new test::ScopedEnv("LOCPATH", folder.c_str()));
            trySet();
        }
    }
    ~CommaLocale() { std::setlocale(LC_ALL, "C"); }
    CommaLocale(CommaLocale const&) = delete;
    CommaLocale& operator=(CommaLocale const&) = delete;

    bool active() const { return m_active; }

private:
    bool trySet() {
        for (char const* name : {"de_DE.UTF-8", "de_DE.utf8", "de_DE"}) {
            if (std::setlocale(LC_ALL, name) && *std::localeconv()->decimal_point == ',') {
                m_active = true;
                return true;
            }
        }
        return false;
    }

    bool m_active = false;
    std::unique_ptr<test::ScopedEnv> m_locPath;
};

TEST(LocaleTest, NumbersAreWrittenAndReadWithADecimalPointInACommaLocale) {
    test::TempDir dir;
    test::ScopedEnv locks("ZRN_LOCK_DIR", dir.path().c_str());
    CommaLocale locale(dir);
    if (!locale.active()) {
        GTEST_SKIP() << "no comma-decimal locale on this machine, and localedef could not make "
                        "de_DE.UTF-8";
    }
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "%.1f", 71.5);
    ASSERT_EQ(std::string(buffer), "71,5") << "the locale is not in effect";

    // The runtime's number texts.
    EXPECT_EQ(ZRNValue(71.5).toString(ZRNValue::nilValue()).str(), "71.5");
    EXPECT_EQ(SprintfFormat("%.2f|%g|%i", 0.25, -1.5e-7, 12345).str(), "0.25|-1.5e-07|12345");
    EXPECT_EQ(String::strToReal64("71.5"), 71.5);
    EXPECT_EQ(String::strToInt64("-42", 10), -42);
    {
        test::LogCapture log;
        Logger* logger = nullptr;
        LogFactory::createLogger("LocaleTest", logger);
        logAt(logger, LoggerPriority::ERROR, [] { return LoggerStream() + "x=" + 2.5; });
        auto const written = log.messages("LocaleTest");
        ASSERT_EQ(written.size(), 1u);
        EXPECT_EQ(written[0], "x=2.5");
    }

    // Every numeric column of the event store, written and read back through the store and
    // read from the file by the raw sqlite3 API.
    std::string const path = dir.file("event.db");
    {
        EventDataStore store{String(path)};
        boost::optional<long long> run = store.logAppStart("App", "u", "Scheduled", at(1700000000));
        ASSERT_TRUE(run);
        store.logProfilerDiff(*run, "hw", 1700000001, 12, "<diff/>");
        store.logMeasurement("cpu", 100, 150, 200, 71.5, 0.125, -33.25, 1e-300, 42);
        std::vector<MeasurementLog> const logs = store.measurementLogs(at(0), at(1000), "", 10);
        ASSERT_EQ(logs.size(), 1u);
        EXPECT_EQ(logs[0].maximum(), 71.5);
        EXPECT_EQ(logs[0].minimum(), 0.125);
        EXPECT_EQ(logs[0].average(), -33.25);
        EXPECT_EQ(logs[0].median(), 1e-300);
        EXPECT_EQ(logs[0].numberOfSamples(), 42u);
        EXPECT_EQ(logs[0].spanMiddle(), at(150));
    }
    test::RawDb raw(path, true);
    EXPECT_EQ(
        raw.query("SELECT spanStartTime, spanMiddleTime, spanEndTime, maximum, minimum, "
                  "average, median = 1e-300, numberOfSamples, typeof(maximum) "
                  "FROM Measurements"),
        (test::RawDb::Rows{{"100", "150", "200", "71.5", "0.125", "-33.25", "1", "42", "real"}}));
    EXPECT_EQ(raw.query("SELECT appId, dateTime, numberOfChanges FROM ProfilerDiffs"),
              (test::RawDb::Rows{{"1", "1700000001", "12"}}));
}

}  // namespace
}  // namespace zrn
