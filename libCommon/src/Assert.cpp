#include <libCommon/Assert.h>

#include <libCommon/Logger.h>

#include <cstdio>
#include <cstdlib>

namespace zrn {

void assertionFailed(char const* expression, char const* source, int line) {
    bool reported = false;
    try {
        // Through the log, where the process's other failures go; a logger configured to
        // drop errors must not swallow the last word of a dying process, so standard error
        // takes it then.
        static Logger* const logger = [] {
            Logger* created = nullptr;
            LogFactory::createLogger("libCommon.Assert", created);
            return created;
        }();
        if (logger && logger->isEnabledFor(LoggerPriority::ERROR)) {
            LoggerStream message;
            message + "Assertion failed: " + expression + " (" + source;
            if (line > 0) message + ", line " + line;
            message + ")";
            logger->log(LoggerPriority::ERROR, message);
            reported = true;
        }
    } catch (...) {
        // Building the message failed (no memory): the plain report below still goes out.
    }
    if (!reported) {
        std::fprintf(stderr, "Assertion failed: %s (%s, line %d)\n", expression, source, line);
        std::fflush(stderr);
    }
    std::abort();
}

void assertionFailed(char const* expression, char const* source) {
    assertionFailed(expression, source, 0);
}

}  // namespace zrn
