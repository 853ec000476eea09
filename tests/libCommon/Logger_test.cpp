#include <gtest/gtest.h>
#include <libCommon/Assert.h>
#include <libCommon/Logger.h>

#include "TestSupport.h"

namespace zrn {
namespace {

using LoggerPriority::ERROR;
using LoggerPriority::NOTICE;
using LoggerPriority::TRACE;
using LoggerPriority::WARNING;

Logger* loggerNamed(char const* name) {
    Logger* logger = nullptr;
    LogFactory::createLogger(name, logger);
    return logger;
}

TEST(LoggerTest, FactoryReturnsOneLoggerPerName) {
    Logger* first = loggerNamed("libDataStore.Test");
    Logger* second = nullptr;
    LogFactory::createLogger("libDataStore.Test", second);
    EXPECT_EQ(first, second);
    EXPECT_NE(first, loggerNamed("libDataStore.Other"));
    EXPECT_EQ(first->name(), "libDataStore.Test");
}

TEST(LoggerTest, FilteredMessagesAreNeverBuilt) {
    Logger* logger = loggerNamed("test.filter");
    int built = 0;
    auto message = [&] {
        ++built;
        return LoggerStream() + "227 " + "Append SQL Command: " + String("x");
    };

    test::LogCapture capture(3);  // process-wide minimum: warnings
    logAt(logger, TRACE, message);
    logAt(logger, NOTICE, message);
    EXPECT_EQ(built, 0);
    logAt(logger, WARNING, message);
    EXPECT_EQ(built, 1);

    // The logger's own minimum filters too, and so does an ancestor's ("test" for "test.filter").
    LogFactory::setPriority(1);
    logger->setPriority(4);
    logAt(logger, WARNING, message);
    EXPECT_EQ(built, 1);
    logger->setPriority(0);
    Logger* parent = loggerNamed("test");
    parent->setPriority(4);
    EXPECT_EQ(logger->resolvePriority(), 4);
    logAt(logger, WARNING, message);
    EXPECT_EQ(built, 1);
    parent->setPriority(0);
    logAt(logger, TRACE, message);
    EXPECT_EQ(built, 2);

    auto const lines = capture.messages("test.filter");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "227 Append SQL Command: x");
}

TEST(LoggerTest, StreamFormatsNumbersAndPointers) {
    LoggerStream stream;
    stream + "n=" + 42u + " " + -7 + " " + 9000000000LL + " " + String("ü");
    EXPECT_EQ(stream.str(), "n=42 -7 9000000000 ü");
    LoggerStream every;
    every + 'c' + -5L + " " + 6UL + " " + 18446744073709551615ULL + " " + 0.1 + " " + -2.5;
    EXPECT_EQ(every.str(), "c-5 6 18446744073709551615 0.10000000000000001 -2.5");
    LoggerStream pointer;
    pointer + static_cast<void const*>(reinterpret_cast<void*>(0x1234));
    EXPECT_EQ(pointer.str(), "0x1234");
}

// The report goes out once: through the log, or on standard error alone when the log drops it.
TEST(LoggerTest, AFailedAssertionIsReportedOnceThenAborts) {
    std::string const logged = "^[^\n]+ ERROR libCommon\\.Assert: Assertion failed: ";
    EXPECT_DEATH(ZRN_ASSERT(1 + 1 == 3, "libCommon\\Test"),
                 logged + "1 \\+ 1 == 3 \\(libCommon\\\\Test, line [1-9][0-9]*\\)\n$");
    EXPECT_DEATH(assertionFailed("x", "src"), logged + "x \\(src\\)\n$");
    auto silenced = [](auto fail) {
        LogFactory::setPriority(5);
        fail();
    };
    EXPECT_DEATH(silenced([] { ZRN_ASSERT(false, "src"); }),
                 "^Assertion failed: false \\(src, line [1-9][0-9]*\\)\n$");
    EXPECT_DEATH(silenced([] { assertionFailed("x", "src"); }),
                 "^Assertion failed: x \\(src, line 0\\)\n$");
}

// The default sink is configured once per process, so each configuration runs in a child.
TEST(LoggerTest, DefaultSinkWritesOneFlushedLinePerMessageWhereConfigured) {
    test::TempDir dir;
    std::string const logFile = dir.file("out.log");
    std::string const settings = dir.file("settings.ini");

    {
        test::ScopedEnv file("ZRN_LOG_FILE", logFile.c_str());
        test::ScopedEnv level("ZRN_LOG_LEVEL", "trace");
        test::ScopedEnv noSettings("ZRN_SETTINGS_FILE", dir.file("none.ini").c_str());
        ASSERT_EQ(
            test::runProcess({ZRN_CHILD, "log", "libDataStore.X", "1", "159 it's \"verbatim\""}),
            0);
        ASSERT_EQ(test::runProcess({ZRN_CHILD, "log", "libDataStore.X", "4", "second"}), 0);
        ASSERT_EQ(test::runProcess({ZRN_CHILD, "log", "libDataStore.X", "2", "third"}), 0);
        ASSERT_EQ(test::runProcess({ZRN_CHILD, "log", "libDataStore.X", "3", "fourth"}), 0);
    }
    std::string const content = test::readFile(logFile);
    // <ISO time with milliseconds and offset> <PRIORITY> <logger>: <message>, nothing else.
    std::string const stamp =
        "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3}([+-][0-9]{2}:[0-9]{2}|Z)"
        " ";
    EXPECT_TRUE(testing::internal::RE::FullMatch(
        content, testing::internal::RE(stamp + "TRACE libDataStore.X: 159 it's \"verbatim\"\n" +
                                       stamp + "ERROR libDataStore.X: second\n" + stamp +
                                       "NOTICE libDataStore.X: third\n" + stamp +
                                       "WARNING libDataStore.X: fourth\n")))
        << content;

    // A level by name in any case, or by number: warnings and errors only.
    for (char const* warnings : {"Warning", "3"}) {
        std::string const levelled = dir.file(std::string("level-") + warnings + ".log");
        test::ScopedEnv file("ZRN_LOG_FILE", levelled.c_str());
        test::ScopedEnv level("ZRN_LOG_LEVEL", warnings);
        test::ScopedEnv noSettings("ZRN_SETTINGS_FILE", dir.file("none.ini").c_str());
        ASSERT_EQ(test::runProcess({ZRN_CHILD, "log", "b", "2", "dropped"}), 0);
        ASSERT_EQ(test::runProcess({ZRN_CHILD, "log", "b", "3", "kept"}), 0);
        std::string const written = test::readFile(levelled);
        EXPECT_EQ(written.find("dropped"), std::string::npos) << warnings << ": " << written;
        EXPECT_NE(written.find(" WARNING b: kept\n"), std::string::npos) << warnings;
    }

    // The settings file sets level and file; the environment wins over it.
    test::writeFile(settings,
                    "[log]\nlevel = error\nfile = " + dir.file("from-settings.log") + "\n");
    {
        test::ScopedEnv file("ZRN_LOG_FILE", nullptr);
        test::ScopedEnv level("ZRN_LOG_LEVEL", nullptr);
        test::ScopedEnv settingsFile("ZRN_SETTINGS_FILE", settings.c_str());
        ASSERT_EQ(test::runProcess({ZRN_CHILD, "log", "a", "3", "dropped"}), 0);
        ASSERT_EQ(test::runProcess({ZRN_CHILD, "log", "a", "4", "kept"}), 0);
        test::ScopedEnv override("ZRN_LOG_LEVEL", "2");
        ASSERT_EQ(test::runProcess({ZRN_CHILD, "log", "a", "2", "notice"}), 0);
    }
    std::string const fromSettings = test::readFile(dir.file("from-settings.log"));
    EXPECT_EQ(fromSettings.find("dropped"), std::string::npos) << fromSettings;
    EXPECT_NE(fromSettings.find(" ERROR a: kept\n"), std::string::npos) << fromSettings;
    EXPECT_NE(fromSettings.find(" NOTICE a: notice\n"), std::string::npos) << fromSettings;
}

}  // namespace
}  // namespace zrn
