#include <libCommon/Logger.h>

#include <libCommon/DateTime.h>
#include <libCommon/Resource.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>

#include "CLocale.h"

namespace zrn {

namespace {

char const* priorityName(LoggerPriority::LOGGER_PRIORITY priority) {
    switch (priority) {
        case LoggerPriority::TRACE:
            return "TRACE";
        case LoggerPriority::NOTICE:
            return "NOTICE";
        case LoggerPriority::WARNING:
            return "WARNING";
        case LoggerPriority::ERROR:
            return "ERROR";
    }
    return "?";
}

// 1-4 or a priority name, in any case; 0 when the text is neither.
int parsePriority(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (text == "1" || text == "trace") return 1;
    if (text == "2" || text == "notice") return 2;
    if (text == "3" || text == "warning") return 3;
    if (text == "4" || text == "error") return 4;
    return 0;
}

// The environment wins over the settings file; "" when neither sets it.
std::string configured(char const* variable, char const* settingKey) {
    if (char const* value = std::getenv(variable)) {
        if (*value) return value;
    }
    String setting;
    if (Resource::getSetting("log", settingKey, setting, ZRNLocale::getGlobalLocale())) {
        return setting.str();
    }
    return std::string();
}

class DefaultSink : public LogSink {
public:
    void write(String const& loggerName, LoggerPriority::LOGGER_PRIORITY priority,
               String const& message) override {
        using namespace std::chrono;
        auto const now = system_clock::now();
        auto const millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
        std::string const stamp =
            DateTime::fromUnixTimeStamp(duration_cast<seconds>(now.time_since_epoch()).count())
                .toLocalTime()
                .toString()
                .str();
        // Insert the milliseconds before the offset: 2026-01-02T03:04:05.678+01:00.
        char fraction[8];
        std::snprintf(fraction, sizeof fraction, ".%03d", static_cast<int>(millis));
        std::string line = stamp.substr(0, 19) + fraction + stamp.substr(19) + " " +
                           priorityName(priority) + " " + loggerName.str() + ": " + message.str() +
                           "\n";

        std::lock_guard<std::mutex> guard(m_mutex);
        FILE* out = stream();
        std::fwrite(line.data(), 1, line.size(), out);
        std::fflush(out);
    }

private:
    FILE* stream() {
        if (!m_opened) {
            m_opened = true;
            std::string const path = configured("ZRN_LOG_FILE", "file");
            if (!path.empty()) m_file = std::fopen(path.c_str(), "a");
        }
        return m_file ? m_file : stderr;
    }

    std::mutex m_mutex;
    bool m_opened = false;
    FILE* m_file = nullptr;  // kept open for the life of the process
};

struct Registry {
    std::mutex mutex;
    std::map<std::string, Logger*> loggers;  // never freed: callers keep raw pointers
    std::atomic<int> globalPriority{0};      // 0: not read from the configuration yet
    std::atomic<LogSink*> sink{nullptr};
    DefaultSink defaultSink;
};

Registry& registry() {
    // Leaked on purpose: loggers are used from destructors of other static objects.
    static Registry* const instance = new Registry();
    return *instance;
}

}  // namespace

// ---- LoggerStream ----------------------------------------------------------------------

LoggerStream& LoggerStream::operator+(char const* text) {
    if (text) m_text.append(text);
    return *this;
}
LoggerStream& LoggerStream::operator+(String const& text) {
    m_text.append(text.str());
    return *this;
}
LoggerStream& LoggerStream::operator+(std::string const& text) {
    m_text.append(text);
    return *this;
}
LoggerStream& LoggerStream::operator+(char c) {
    m_text.push_back(c);
    return *this;
}
LoggerStream& LoggerStream::operator+(int number) {
    m_text.append(std::to_string(number));
    return *this;
}
LoggerStream& LoggerStream::operator+(unsigned int number) {
    m_text.append(std::to_string(number));
    return *this;
}
LoggerStream& LoggerStream::operator+(long number) {
    m_text.append(std::to_string(number));
    return *this;
}
LoggerStream& LoggerStream::operator+(unsigned long number) {
    m_text.append(std::to_string(number));
    return *this;
}
LoggerStream& LoggerStream::operator+(long long number) {
    m_text.append(std::to_string(number));
    return *this;
}
LoggerStream& LoggerStream::operator+(unsigned long long number) {
    m_text.append(std::to_string(number));
    return *this;
}
LoggerStream& LoggerStream::operator+(double number) {
    CLocaleScope const c;
    char text[32];
    std::snprintf(text, sizeof text, "%.17g", number);
    m_text.append(text);
    return *this;
}
LoggerStream& LoggerStream::operator+(void const* pointer) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    m_text.append(text);
    return *this;
}

LogSink::~LogSink() = default;

// ---- Logger ----------------------------------------------------------------------------

Logger::Logger(String name) : m_name(std::move(name)) {}

int Logger::getPriority() const {
    std::lock_guard<std::mutex> guard(registry().mutex);
    return m_priority;
}

void Logger::setPriority(int priority) {
    std::lock_guard<std::mutex> guard(registry().mutex);
    m_priority = priority;
}

int Logger::resolvePriority() const {
    Registry& r = registry();
    std::lock_guard<std::mutex> guard(r.mutex);
    if (m_priority > 0) return m_priority;
    std::string name = m_name.str();
    for (auto dot = name.rfind('.'); dot != std::string::npos; dot = name.rfind('.')) {
        name.resize(dot);
        auto it = r.loggers.find(name);
        if (it != r.loggers.end() && it->second->m_priority > 0) return it->second->m_priority;
    }
    return 1;
}

bool Logger::isEnabledFor(LoggerPriority::LOGGER_PRIORITY priority) const {
    if (LogFactory::getPriority() > priority) return false;
    return resolvePriority() <= priority;  // covers the own minimum, which takes precedence
}

void Logger::log(LoggerPriority::LOGGER_PRIORITY priority, LoggerStream const& message) {
    if (!isEnabledFor(priority)) return;
    Registry& r = registry();
    LogSink* sink = r.sink.load();
    (sink ? sink : &r.defaultSink)->write(m_name, priority, String(message.str()));
}

// ---- LogFactory ------------------------------------------------------------------------

void LogFactory::createLogger(char const* name, Logger*& logger) {
    Registry& r = registry();
    std::string const key(name ? name : "");
    std::lock_guard<std::mutex> guard(r.mutex);
    Logger*& slot = r.loggers[key];
    if (!slot) slot = new Logger(String(key));
    logger = slot;
}

int LogFactory::getPriority() {
    Registry& r = registry();
    int priority = r.globalPriority.load(std::memory_order_relaxed);
    if (priority == 0) {
        priority = parsePriority(configured("ZRN_LOG_LEVEL", "level"));
        if (priority == 0) priority = 3;
        int expected = 0;
        // A concurrent setPriority wins over the configured value.
        if (!r.globalPriority.compare_exchange_strong(expected, priority)) priority = expected;
    }
    return priority;
}

void LogFactory::setPriority(int priority) { registry().globalPriority.store(priority); }

LogSink* LogFactory::setSink(LogSink* sink) { return registry().sink.exchange(sink); }

}  // namespace zrn
