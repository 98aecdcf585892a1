#include "LogCapture.h"

#include <log4cplus/spi/loggingevent.h>

#include <algorithm>

namespace trel::test {

class LogCapture::Appender : public log4cplus::Appender
{
public:
    Appender() { setName(LOG4CPLUS_TEXT("trel-test-capture")); }
    ~Appender() override { destructorImpl(); }

    void close() override { }

    std::vector<LogRecord> snapshot() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return recorded;
    }

    void reset()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        recorded.clear();
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        LogRecord record;
        record.level = event.getLogLevel();
        record.logger = event.getLoggerName();
        record.file = event.getFile();
        record.line = event.getLine();
        record.function = event.getFunction();
        record.message = event.getMessage();
        const std::lock_guard<std::mutex> lock(mutex);
        recorded.push_back(std::move(record));
    }

private:
    mutable std::mutex mutex;
    std::vector<LogRecord> recorded;
};

LogCapture::LogCapture(log4cplus::LogLevel level)
    : logger(log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("HttpClient")))
    , previousLevel(logger.getLogLevel())
    , recorder(new Appender())
{
    appender = log4cplus::SharedAppenderPtr(recorder);
    logger.addAppender(appender);
    logger.setLogLevel(level);
}

LogCapture::~LogCapture()
{
    logger.removeAppender(appender);
    logger.setLogLevel(previousLevel);
}

std::vector<LogRecord> LogCapture::records() const
{
    return recorder->snapshot();
}

std::vector<std::string> LogCapture::messages() const
{
    std::vector<std::string> result;
    for (const LogRecord& record : records()) {
        result.push_back(record.message);
    }
    return result;
}

std::vector<std::string> LogCapture::messages(log4cplus::LogLevel level) const
{
    std::vector<std::string> result;
    for (const LogRecord& record : records()) {
        if (record.level == level) {
            result.push_back(record.message);
        }
    }
    return result;
}

int LogCapture::count(const std::string& message) const
{
    const auto all = records();
    return static_cast<int>(
        std::count_if(all.begin(), all.end(), [&](const LogRecord& r) { return r.message == message; }));
}

int LogCapture::countPrefix(log4cplus::LogLevel level, const std::string& prefix) const
{
    const auto all = records();
    return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const LogRecord& r) {
        return r.level == level && r.message.compare(0, prefix.size(), prefix) == 0;
    }));
}

bool LogCapture::contains(log4cplus::LogLevel level, const std::string& message) const
{
    const auto all = records();
    return std::any_of(
        all.begin(), all.end(), [&](const LogRecord& r) { return r.level == level && r.message == message; });
}

void LogCapture::clear()
{
    recorder->reset();
}

} // namespace trel::test
