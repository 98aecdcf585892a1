#include "Reporter.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>
#include <QUrl>

#include <trel/Version.h>

#include <algorithm>

#include <unistd.h>

namespace trelfetch {
namespace {

bool isTerminal(std::FILE* stream)
{
    return ::isatty(::fileno(stream)) == 1;
}

QString size(double bytes)
{
    static const char* const units[] = { "B", "KiB", "MiB", "GiB", "TiB" };
    int unit = 0;
    while (bytes >= 1024 && unit < 4) {
        bytes /= 1024;
        ++unit;
    }
    return QString("%1 %2").arg(bytes, 0, 'f', unit == 0 ? 0 : 1).arg(units[unit]);
}

QString duration(double seconds)
{
    const auto whole = static_cast<long long>(seconds + 0.5);
    return QString("%1:%2").arg(whole / 60).arg(whole % 60, 2, 10, QChar('0'));
}

// The library's own pseudo-headers are not part of the response.
bool isPseudoHeader(const QString& name)
{
    return name.compare(HttpClientHeaders::EffectiveUrlField, Qt::CaseInsensitive) == 0
        || name.compare(HttpClientHeaders::ErrorField, Qt::CaseInsensitive) == 0
        || name.compare(HttpClientHeaders::ErrorCodeField, Qt::CaseInsensitive) == 0;
}

// Every value of a repeated field on a line of its own, as it arrived; fields
// sorted by name.
} // namespace

Reporter::Reporter(const FetchConfig& config, bool bodiesToStandardOutput)
    : config(config)
    , showProgress(isTerminal(stderr) && !config.silent && !config.verbose
          && !(config.report != ReportFormat::None && config.reportFile.isEmpty())
          && !(bodiesToStandardOutput && isTerminal(stdout)))
{ }

bool Reporter::open(QString& error)
{
    if (config.reportFile.isEmpty()) {
        return true;
    }
    reportFile = std::make_unique<QFile>(config.reportFile);
    if (!reportFile->open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered)) {
        error = QString("cannot write the report to '%1': %2")
                    .arg(config.reportFile, reportFile->errorString());
        return false;
    }
    return true;
}

QString Reporter::textLine(const ResultRecord& record)
{
    QStringList tags;
    if (record.outcome.failed()) {
        tags << QString("exit %1: %2").arg(record.outcome.exitCode).arg(record.outcome.reason);
    }
    if (record.pushed) {
        tags << "push";
    }
    if (record.cached) {
        tags << "from cache";
    }
    if (record.cancelled) {
        tags << "cancelled";
    }
    if (record.round > 1) {
        tags << QString("round %1").arg(record.round);
    }
    if (!record.savedTo.isEmpty()) {
        tags << "saved to " + record.savedTo;
    }
    QString line = QString("#%1 %2 %3 %4B %5ms %6")
                       .arg(record.index + 1)
                       .arg(HttpClient::toString(record.status))
                       .arg(record.code)
                       .arg(record.bytes)
                       .arg(record.totalMs)
                       .arg(record.effectiveUrl.isEmpty() ? record.url : record.effectiveUrl);
    if (!tags.isEmpty()) {
        line += " [" + tags.join(", ") + "]";
    }
    return line;
}

QString Reporter::jsonLine(const ResultRecord& record)
{
    QJsonObject headers;
    const QHash<QString, QString> all = record.headers.headers();
    for (auto it = all.cbegin(); it != all.cend(); ++it) {
        if (!isPseudoHeader(it.key())) {
            headers.insert(it.key(), it.value());
        }
    }
    QJsonObject object {
        { "kind", record.pushed ? "push" : "result" },
        { "index", record.index },
        { "round", record.round },
        { "url", record.url },
        { "effective_url", record.effectiveUrl },
        { "status", HttpClient::toString(record.status) },
        { "code", record.code },
        { "exit_code", record.outcome.exitCode },
        { "reason", record.outcome.reason },
        { "bytes", static_cast<double>(record.bytes) },
        { "headers", headers },
        { "timings",
            QJsonObject { { "total_ms", static_cast<double>(record.totalMs) },
                { "first_byte_ms", static_cast<double>(record.firstByteMs) } } },
        { "cached", record.cached },
        { "cancelled", record.cancelled },
    };
    if (!record.savedTo.isEmpty()) {
        object.insert("saved_to", record.savedTo);
    }
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

QString Reporter::summaryLine(const Totals& totals, std::int64_t elapsedUs, bool interrupted)
{
    const double seconds = static_cast<double>(elapsedUs) / 1e6;
    QString line = QString("%1 %2, %3 failed, %4 bytes in %5 s")
                       .arg(totals.requests)
                       .arg(totals.requests == 1 ? "request" : "requests")
                       .arg(totals.failures)
                       .arg(totals.bytes)
                       .arg(seconds, 0, 'f', 3);
    if (totals.cached > 0) {
        line += QString(", %1 from cache").arg(totals.cached);
    }
    if (totals.pushed > 0) {
        line += QString(", %1 pushed").arg(totals.pushed);
    }
    if (interrupted) {
        line += ", interrupted";
    }
    return line;
}

// As curl's -# draws it: a bar of '#' and the share done, or the bytes moved
// while a length is unknown.
QString Reporter::progressBar(const ProgressSnapshot& snapshot)
{
    constexpr int kBarWidth = 50;
    if (snapshot.toMove <= 0) {
        return QString("%1 moved, %2 in flight, %3 done")
            .arg(size(static_cast<double>(snapshot.moved)))
            .arg(snapshot.inFlight)
            .arg(snapshot.done);
    }
    const double share
        = std::min(1.0, static_cast<double>(snapshot.moved) / static_cast<double>(snapshot.toMove));
    const int filled = static_cast<int>(share * kBarWidth);
    return QString(filled, '#') + QString(kBarWidth - filled, ' ')
        + QString(" %1%").arg(100.0 * share, 5, 'f', 1);
}

QString Reporter::progressLine(const ProgressSnapshot& snapshot)
{
    if (snapshot.bar) {
        return progressBar(snapshot);
    }
    QString line = QString("%1 received, %2 in flight, %3 done, %4/s")
                       .arg(size(static_cast<double>(snapshot.inFlightReceived)))
                       .arg(snapshot.inFlight)
                       .arg(snapshot.done)
                       .arg(size(snapshot.bytesPerSecond));
    if (snapshot.inFlightExpected > 0) {
        const double expected = static_cast<double>(snapshot.inFlightExpected);
        const double received = static_cast<double>(snapshot.inFlightReceived);
        line += QString(", %1%").arg(std::min(100.0, 100.0 * received / expected), 0, 'f', 0);
        if (snapshot.bytesPerSecond > 0) {
            line += " ETA " + duration(std::max(0.0, expected - received) / snapshot.bytesPerSecond);
        }
    }
    return line;
}

void Reporter::writeLine(std::FILE* stream, const QString& line)
{
    if (stream == stderr) {
        endProgress();
    }
    const QByteArray bytes = line.toUtf8() + '\n';
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
    std::fflush(stream);
}

void Reporter::writeReportLine(const QString& line)
{
    if (reportFile) {
        reportFile->write(line.toUtf8() + '\n');
    } else {
        writeLine(stderr, line);
    }
}

void Reporter::result(const ResultRecord& record)
{
    if (config.report != ReportFormat::None) {
        writeReportLine(config.report == ReportFormat::Json ? jsonLine(record) : textLine(record));
    }
    // A report on standard error already names the failure; a second line in
    // another format would break a JSON Lines reader.
    const bool reportedOnStandardError = config.report != ReportFormat::None && config.reportFile.isEmpty();
    if (record.outcome.failed() && config.showsErrors() && !reportedOnStandardError) {
        writeLine(stderr,
            QString("trel-fetch: (%1) %2: %3")
                .arg(record.outcome.exitCode)
                .arg(record.outcome.reason, record.url));
    }
}

// libcurl's exchange in curl's -v form: each line of `data` behind `prefix`.
void Reporter::traceLines(const char* prefix, const QByteArray& data)
{
    QByteArrayList lines = data.split('\n');
    if (lines.size() > 1 && lines.last().isEmpty()) {
        lines.removeLast(); // the piece's own final newline makes no line of its own
    }
    QByteArrayList prefixed;
    for (QByteArray line : lines) {
        if (line.endsWith('\r')) {
            line.chop(1);
        }
        prefixed << prefix + line;
    }
    writeLine(stderr, QString::fromUtf8(prefixed.join('\n')));
}

void Reporter::message(const QString& text)
{
    if (config.showsErrors()) {
        writeLine(stderr, "trel-fetch: " + text);
    }
}

void Reporter::progress(const ProgressSnapshot& snapshot)
{
    if (!showProgress) {
        return;
    }
    const QByteArray line = "\r\033[K" + progressLine(snapshot).toUtf8();
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stderr);
    std::fflush(stderr);
    progressShown = true;
}

// The progress line is finished with a line break, so it stays readable above
// what follows, as curl leaves its meter.
void Reporter::endProgress()
{
    if (progressShown) {
        progressShown = false;
        std::fputc('\n', stderr);
    }
}

void Reporter::summary(const Totals& totals, std::int64_t elapsedUs, bool interrupted)
{
    const bool progressWasShown = progressShown;
    endProgress();
    if (config.report == ReportFormat::Json) {
        const QJsonObject object { { "kind", "summary" }, { "requests", totals.requests },
            { "failed", totals.failures }, { "bytes", static_cast<double>(totals.bytes) },
            { "ms", static_cast<double>(elapsedUs) / 1000.0 }, { "cached", totals.cached },
            { "pushed", totals.pushed }, { "interrupted", interrupted } };
        writeReportLine(QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact)));
    } else if (config.report == ReportFormat::Text) {
        writeReportLine("trel-fetch: " + summaryLine(totals, elapsedUs, interrupted));
    }
    const bool summaryOnStandardError = config.report != ReportFormat::None && config.reportFile.isEmpty();
    if (!summaryOnStandardError && !config.silent && (progressWasShown || interrupted)) {
        writeLine(stderr, "trel-fetch: " + summaryLine(totals, elapsedUs, interrupted));
    }
}

} // namespace trelfetch
