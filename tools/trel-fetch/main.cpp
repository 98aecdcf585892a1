// trel-fetch: fetch URLs concurrently with one HttpClient. See --help.

#include "FetchConfig.h"
#include "Fetcher.h"
#include "ResultPrinter.h"

#include <QCoreApplication>
#include <QDir>

#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

#include <cstdio>
#include <iostream>
#include <memory>

namespace {

constexpr int kUsageExitCode = 2;

// The library logs to the logger "HttpClient". Under --verbose its whole trace
// goes to standard error; otherwise it is switched off, which also keeps
// log4cplus from complaining that no appender is configured.
void configureLogging(bool verbose)
{
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    log4cplus::Logger library = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("HttpClient"));
    if (!verbose) {
        root.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender()));
        library.setLogLevel(log4cplus::OFF_LOG_LEVEL);
        return;
    }
    log4cplus::SharedAppenderPtr console(new log4cplus::ConsoleAppender(true /*stderr*/, true /*flush*/));
    console->setLayout(
        std::make_unique<log4cplus::PatternLayout>(LOG4CPLUS_TEXT("%D{%H:%M:%S.%q} %-5p %m%n")));
    library.addAppender(console);
    library.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
}

int usageError(const QString& message)
{
    std::fprintf(
        stderr, "trel-fetch: %s\nTry 'trel-fetch --help' for more information.\n", qPrintable(message));
    return kUsageExitCode;
}

} // namespace

int main(int argc, char** argv)
{
    log4cplus::Initializer logging;
    QCoreApplication app(argc, argv);

    const trelfetch::ParseOutcome outcome = trelfetch::parseCommandLine(app.arguments().mid(1), std::cin);
    if (outcome.help) {
        std::fputs(qPrintable(trelfetch::usage()), stdout);
        return 0;
    }
    if (!outcome.config) {
        return usageError(outcome.error);
    }
    const trelfetch::FetchConfig& config = *outcome.config;
    if (!config.outputDir.isEmpty() && !QDir().mkpath(config.outputDir)) {
        return usageError(QString("cannot create output directory '%1'").arg(config.outputDir));
    }
    configureLogging(config.verbose);

    trelfetch::ResultPrinter printer(config.json, config.repeat > 1, true);
    trelfetch::Fetcher fetcher(config, printer);
    QObject::connect(&fetcher, &trelfetch::Fetcher::finished, &app, [&] { app.exit(fetcher.exitCode()); });
    fetcher.start();
    return app.exec();
}
