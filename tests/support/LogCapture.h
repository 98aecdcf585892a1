#pragma once

// Records every log event of the logger "HttpClient" while it lives, so tests
// can assert exact log lines: level, logger, file, line, function and message.

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/loglevel.h>

#include <mutex>
#include <string>
#include <vector>

namespace trel::test {

struct LogRecord
{
    log4cplus::LogLevel level = log4cplus::NOT_SET_LOG_LEVEL;
    std::string logger;
    std::string file;
    int line = 0;
    std::string function;
    std::string message;
};

class LogCapture
{
public:
    // Sets the logger's level (TRACE by default) and restores it on destruction.
    explicit LogCapture(log4cplus::LogLevel level = log4cplus::TRACE_LOG_LEVEL);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogRecord> records() const;
    std::vector<std::string> messages() const;
    std::vector<std::string> messages(log4cplus::LogLevel level) const;
    // How many records carry exactly this message (at any level).
    int count(const std::string& message) const;
    // How many records at `level` start with `prefix`.
    int countPrefix(log4cplus::LogLevel level, const std::string& prefix) const;
    bool contains(log4cplus::LogLevel level, const std::string& message) const;
    void clear();

private:
    class Appender;
    log4cplus::Logger logger;
    log4cplus::LogLevel previousLevel;
    log4cplus::SharedAppenderPtr appender;
    Appender* recorder;
};

} // namespace trel::test
