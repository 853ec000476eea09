#pragma once

#include <libCommon/Export.h>
#include <libCommon/String.h>

#include <memory>
#include <string>

namespace zrn {

namespace LoggerPriority {
enum LOGGER_PRIORITY { TRACE = 1, NOTICE = 2, WARNING = 3, ERROR = 4 };
}

// Builds one log message. Use it on a temporary: LoggerStream() + "208 " + text.
class ZRN_COMMON_API LoggerStream {
public:
    LoggerStream() = default;

    LoggerStream& operator+(char const* text);
    LoggerStream& operator+(String const& text);
    LoggerStream& operator+(std::string const& text);
    LoggerStream& operator+(char c);
    LoggerStream& operator+(int number);
    LoggerStream& operator+(unsigned int number);
    LoggerStream& operator+(long number);
    LoggerStream& operator+(unsigned long number);
    LoggerStream& operator+(long long number);
    LoggerStream& operator+(unsigned long long number);
    LoggerStream& operator+(double number);
    // Pointers print as 0x followed by hexadecimal digits.
    LoggerStream& operator+(void const* pointer);

    std::string const& str() const { return m_text; }

private:
    std::string m_text;
};

// Where finished log lines go. The default sink writes one line per message to $ZRN_LOG_FILE
// (appended) or standard error. Tests install their own to capture what is logged.
class ZRN_COMMON_API LogSink {
public:
    virtual ~LogSink();
    virtual void write(String const& loggerName, LoggerPriority::LOGGER_PRIORITY priority,
                       String const& message) = 0;
};

// A named logger. A message at priority p is written only when the process-wide minimum
// (LogFactory::getPriority), the logger's own minimum and its resolved minimum are all at most
// p. Loggers live as long as the process; pointers to them stay valid.
class ZRN_COMMON_API Logger {
public:
    String const& name() const { return m_name; }

    // The logger's own minimum priority; 0 means "not set" (inherit from its parent).
    int getPriority() const;
    void setPriority(int priority);
    // The effective minimum: the own one when set, else that of the nearest dotted ancestor
    // ("a.b" for "a.b.c") that has one, else 1.
    int resolvePriority() const;

    bool isEnabledFor(LoggerPriority::LOGGER_PRIORITY priority) const;

    // Writes the message when the logger is enabled at `priority`.
    void log(LoggerPriority::LOGGER_PRIORITY priority, LoggerStream const& message);

private:
    friend class LogFactory;
    explicit Logger(String name);

    String m_name;
    int m_priority = 0;
};

class ZRN_COMMON_API LogFactory {
public:
    // Creates the named logger, or finds it when it exists, and stores it in `logger`.
    static void createLogger(char const* name, Logger*& logger);

    // The process-wide minimum priority: $ZRN_LOG_LEVEL (1-4 or trace, notice, warning,
    // error), else the setting "level" of section "log", else 3.
    static int getPriority();
    static void setPriority(int priority);

    // Replaces the sink; null restores the default one. Returns the sink it replaced
    // (null for the default). The caller keeps ownership.
    static LogSink* setSink(LogSink* sink);
};

// Logs the message that `build` returns, calling it only when the logger is enabled at
// `priority`, so a filtered message is never even built.
template <class Build>
inline void logAt(Logger* logger, LoggerPriority::LOGGER_PRIORITY priority, Build&& build) {
    if (logger && logger->isEnabledFor(priority)) {
        logger->log(priority, build());
    }
}

}  // namespace zrn
