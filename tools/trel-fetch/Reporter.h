#pragma once

// Everything trel-fetch writes besides bodies: error messages and -v headers on
// standard error, --report lines (text or JSON Lines) on standard error or a
// file, the progress line on a terminal, and the summary.

#include "FetchConfig.h"
#include "Outcome.h"

#include <trel/HttpClient.h>

#include <QFile>
#include <QString>

#include <cstdint>
#include <cstdio>
#include <memory>

namespace trelfetch {

struct ResultRecord
{
    bool pushed = false;
    int index = 0; // position in input order, from 0
    int round = 1;
    QString url; // as given
    QString effectiveUrl;
    HttpClientStatus status = HttpClientStatus::Error;
    int code = -1;
    Outcome outcome;
    std::int64_t bytes = 0;
    HttpClientHeaders headers;
    std::int64_t totalMs = 0;
    std::int64_t firstByteMs = -1; // -1: nothing arrived
    QString savedTo;
    bool cached = false;
    bool cancelled = false;
};

struct Totals
{
    int requests = 0;
    int failures = 0;
    int cached = 0;
    int pushed = 0;
    std::int64_t bytes = 0;
};

struct ProgressSnapshot
{
    int inFlight = 0;
    int done = 0;
    std::int64_t inFlightReceived = 0; // bytes received by the transfers in flight
    std::int64_t inFlightExpected = -1; // their announced sizes; -1 unless all are known
    double bytesPerSecond = 0;
    bool bar = false; // -#: the line is a bar of the bytes below
    std::int64_t moved = 0; // bytes sent and received by the transfers in flight, as the library reports them
    std::int64_t toMove = -1; // what they will move in all; -1 unless every length is known
};

class Reporter
{
public:
    // False with `error` set when the report file cannot be opened.
    Reporter(const FetchConfig& config, bool bodiesToStandardOutput);
    bool open(QString& error);

    void result(const ResultRecord& record);
    // -v: libcurl's info text and header lines, each line behind `prefix` ("* ", "> ", "< ").
    void traceLines(const char* prefix, const QByteArray& data);
    void message(const QString& text); // "trel-fetch: text", unless silent
    void progress(const ProgressSnapshot& snapshot);
    // Ends the progress line, then writes the summary where it belongs.
    void summary(const Totals& totals, std::int64_t elapsedUs, bool interrupted);

    static QString textLine(const ResultRecord& record);
    static QString jsonLine(const ResultRecord& record);
    static QString summaryLine(const Totals& totals, std::int64_t elapsedUs, bool interrupted);
    static QString progressLine(const ProgressSnapshot& snapshot);
    static QString progressBar(const ProgressSnapshot& snapshot);

private:
    void writeLine(std::FILE* stream, const QString& line);
    void writeReportLine(const QString& line);
    void endProgress();

    const FetchConfig& config;
    const bool showProgress;
    bool progressShown = false;
    std::unique_ptr<QFile> reportFile;
};

} // namespace trelfetch
