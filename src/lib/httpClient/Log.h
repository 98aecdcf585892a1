#pragma once

// The library's one logging helper. Every record goes to the logger
// "HttpClient" with the source file named without its extension, the line of
// the statement and the function. Messages are built by streaming, and only
// after the level check, so a disabled level costs one comparison. URLs and
// header fields go through RedactedUrl and RedactedHeaders, so no log line
// carries a password, a token or a cookie.

#include <trel/DbgLog.h>
#include <trel/HttpClientHeaders.h>
#include <trel/HttpClientStatus.h>
#include <trel/TrelUrl.h>

#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>

#include <sstream>

namespace trel::log {

inline log4cplus::Logger libraryLogger()
{
    return log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("HttpClient"));
}

// Whether a record of `logger` would reach an appender. An application that
// never configured log4cplus has none, and log4cplus would then complain on
// standard error about a library's lines the application never asked for.
// Takes a copy: log4cplus asks for appenders through a non-const handle.
bool reachesAnAppender(log4cplus::Logger logger);

// A URL as log lines show it: the password of its user information as "***".
struct RedactedUrl
{
    const TrelUrl& url;
};
std::ostream& operator<<(std::ostream& out, const RedactedUrl& redacted);

// Header fields as log lines show them: the values of the fields that carry
// credentials (Authorization, Proxy-Authorization, Cookie, Set-Cookie) as "***".
struct RedactedHeaders
{
    const HttpClientHeaders& headers;
};
std::ostream& operator<<(std::ostream& out, const RedactedHeaders& redacted);

} // namespace trel::log

// Each source file defines `kLogFile` (its path without extension) and
// `logger` (a static log4cplus::Logger named "HttpClient") before using these.
#define TREL_LOG(level, message)                                                                             \
    do {                                                                                                     \
        if (logger.isEnabledFor(level) && trel::log::reachesAnAppender(logger)) {                            \
            std::ostringstream trelLogStream_;                                                               \
            trelLogStream_ << message;                                                                       \
            logger.forcedLog(level, trelLogStream_.str(), kLogFile, __LINE__, __func__);                     \
        }                                                                                                    \
    } while (false)

#define TREL_TRACE(message) TREL_LOG(log4cplus::TRACE_LOG_LEVEL, message)
#define TREL_DEBUG(message) TREL_LOG(log4cplus::DEBUG_LOG_LEVEL, message)
#define TREL_ERROR(message) TREL_LOG(log4cplus::ERROR_LOG_LEVEL, message)
#define TREL_FATAL(message) TREL_LOG(log4cplus::FATAL_LOG_LEVEL, message)

// "Enter <label>: <message>", where the label is the platform's name for the
// enclosing function's full signature as the compiler spells it, so a renamed
// parameter type can never leave a stale entry line behind.
#define TREL_ENTER(message) TREL_ENTER_AS(__PRETTY_FUNCTION__, message)
// The same for a signature handed down from the operation the caller called.
#define TREL_ENTER_AS(signature, message)                                                                    \
    TREL_TRACE("Enter " << dbglog_scopedFunction(signature, "HttpClient") << ": " << message)

// A contract check that stays on in every build type and names the condition.
#define TREL_ASSERT(condition)                                                                               \
    ((condition) ? static_cast<void>(0) : qt_assert(#condition, kLogFile, __LINE__))
