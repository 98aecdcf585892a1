// trel-fetch: fetch URLs with one HttpClient, the way curl does. See --help.

#include "FetchConfig.h"
#include "Fetcher.h"
#include "InterruptWatcher.h"
#include "OptionTable.h"
#include "Outcome.h"
#include "Reporter.h"

#include <trel/Version.h>

#include <QCoreApplication>
#include <QtGlobal>

#include <curl/curl.h>

#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <memory>

namespace {

// The library logs to the logger "HttpClient". Under --trace-library its whole
// trace goes to standard error; otherwise it is switched off, which also keeps
// log4cplus from complaining that no appender is configured.
void configureLogging(bool traceLibrary)
{
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    log4cplus::Logger library = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("HttpClient"));
    if (!traceLibrary) {
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

int usageError(const QString& message, int exitCode = trelfetch::exitcode::kUsage)
{
    std::fprintf(
        stderr, "trel-fetch: %s\nTry 'trel-fetch --help' for more information.\n", qPrintable(message));
    return exitCode;
}

void printVersions()
{
    std::printf("trel-fetch %s\nlibtrel_http_client %s\n%s\nQt %s\n", TREL_HTTP_CLIENT_VERSION_STRING,
        trelHttpClientVersion(), curl_version(), qVersion());
}

bool bodiesGoToStandardOutput(const trelfetch::FetchConfig& config)
{
    const auto commandLineUrls = config.urls.size() - config.urls.count("-");
    const bool someWithoutOutput = config.outputs.size() < commandLineUrls || config.readsStandardInputList()
        || !config.urlFile.isEmpty();
    const bool dashOutput = std::any_of(config.outputs.cbegin(), config.outputs.cend(),
        [](const trelfetch::OutputTarget& output) { return output.path == "-"; });
    return dashOutput || (!config.remoteNameAll && someWithoutOutput);
}

int run(QCoreApplication& app, const trelfetch::FetchConfig& config)
{
    configureLogging(config.traceLibrary);
    trelfetch::Reporter reporter(config, bodiesGoToStandardOutput(config));
    QString error;
    if (!reporter.open(error)) {
        return usageError(error);
    }
    trelfetch::Fetcher fetcher(config, reporter);
    trelfetch::InterruptWatcher interrupts;
    QObject::connect(
        &interrupts, &trelfetch::InterruptWatcher::interrupted, &fetcher, &trelfetch::Fetcher::interrupt);
    QObject::connect(&fetcher, &trelfetch::Fetcher::finished, &app, [&] { app.exit(fetcher.exitCode()); });
    fetcher.start();
    return app.exec();
}

} // namespace

int main(int argc, char** argv)
{
    log4cplus::Initializer logging;
    QCoreApplication app(argc, argv);
    // A closed standard output (trel-fetch ... | head) is a write error with
    // exit code 23, as with curl, rather than death by SIGPIPE.
    std::signal(SIGPIPE, SIG_IGN);

    const trelfetch::ParseOutcome outcome = trelfetch::parseCommandLine(app.arguments().mid(1), std::cin);
    switch (outcome.action) {
    case trelfetch::Action::Help:
        std::fputs(qPrintable(trelfetch::helpText()), stdout);
        return 0;
    case trelfetch::Action::Version:
        printVersions();
        return 0;
    case trelfetch::Action::Manual:
        std::fputs(qPrintable(trelfetch::manPage()), stdout);
        return 0;
    case trelfetch::Action::UsageError:
        return usageError(outcome.error, outcome.exitCode);
    case trelfetch::Action::Run:
        break;
    }
    return run(app, *outcome.config);
}
