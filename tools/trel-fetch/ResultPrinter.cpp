#include "ResultPrinter.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

#include <unistd.h>

namespace trelfetch {
namespace {

double perSecond(double count, std::int64_t elapsedUs)
{
    return elapsedUs > 0 ? count * 1e6 / static_cast<double>(elapsedUs) : 0.0;
}

QString kindName(DeliveryKind kind)
{
    switch (kind) {
    case DeliveryKind::Final:
        return "result";
    case DeliveryKind::Immediate:
        return "immediate";
    case DeliveryKind::Pushed:
        return "push";
    }
    return "result";
}

void writeLine(std::FILE* stream, const QString& line)
{
    const QByteArray bytes = line.toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stream);
    std::fputc('\n', stream);
    std::fflush(stream);
}

} // namespace

ResultPrinter::ResultPrinter(bool json, bool showRounds, bool progressAllowed, std::FILE* out, std::FILE* err)
    : json(json)
    , showRounds(showRounds)
    , showProgress(progressAllowed && !json && isatty(fileno(err)) == 1)
    , out(out)
    , err(err)
{ }

QString ResultPrinter::textLine(const Delivery& delivery, bool showRound)
{
    QStringList tags;
    if (delivery.kind == DeliveryKind::Pushed) {
        tags << "push";
    }
    if (delivery.cached) {
        tags << "from cache";
    }
    if (delivery.cancelled) {
        tags << "cancelled";
    }
    if (showRound) {
        tags << QString("round %1").arg(delivery.round);
    }
    if (!delivery.savedTo.isEmpty()) {
        tags << "saved to " + delivery.savedTo;
    }
    QString line = QString("%1 %2 %3B %4ms %5")
                       .arg(HttpClient::toString(delivery.status))
                       .arg(delivery.code)
                       .arg(delivery.bytes)
                       .arg(delivery.elapsedMs)
                       .arg(delivery.effectiveUrl);
    if (!tags.isEmpty()) {
        line += " [" + tags.join(", ") + "]";
    }
    return line;
}

QString ResultPrinter::jsonLine(const Delivery& delivery)
{
    QJsonObject object {
        { "kind", kindName(delivery.kind) },
        { "url", QString::fromUtf8(delivery.url.toEncoded()) },
        { "effective_url", delivery.effectiveUrl },
        { "status", HttpClient::toString(delivery.status) },
        { "code", delivery.code },
        { "bytes", static_cast<double>(delivery.bytes) },
        { "ms", static_cast<double>(delivery.elapsedMs) },
        { "round", delivery.round },
        { "cached", delivery.cached },
        { "cancelled", delivery.cancelled },
    };
    if (!delivery.savedTo.isEmpty()) {
        object.insert("saved_to", delivery.savedTo);
    }
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

QString ResultPrinter::summaryLine(const Totals& totals, std::int64_t elapsedUs)
{
    QString line = QString("%1 requests, %2 failed, %3 bytes in %4 s, %5 requests/s")
                       .arg(totals.requests)
                       .arg(totals.failures)
                       .arg(totals.bytes)
                       .arg(static_cast<double>(elapsedUs) / 1e6, 0, 'f', 3)
                       .arg(perSecond(totals.requests, elapsedUs), 0, 'f', 1);
    if (totals.cached > 0) {
        line += QString(", %1 from cache").arg(totals.cached);
    }
    if (totals.pushed > 0) {
        line += QString(", %1 pushed").arg(totals.pushed);
    }
    return line;
}

void ResultPrinter::print(const Delivery& delivery)
{
    clearProgress();
    writeLine(out, json ? jsonLine(delivery) : textLine(delivery, showRounds));
}

void ResultPrinter::progress(const Totals& totals, int total, std::int64_t elapsedUs)
{
    if (!showProgress) {
        return;
    }
    const QString line = QString("\r%1/%2 done, %3 bytes, %4 requests/s")
                             .arg(totals.requests)
                             .arg(total)
                             .arg(totals.bytes)
                             .arg(perSecond(totals.requests, elapsedUs), 0, 'f', 1);
    std::fputs(line.toUtf8().constData(), err);
    std::fflush(err);
    progressShown = true;
}

void ResultPrinter::summary(const Totals& totals, std::int64_t elapsedUs)
{
    clearProgress();
    writeLine(err, "trel-fetch: " + summaryLine(totals, elapsedUs));
}

void ResultPrinter::clearProgress()
{
    if (progressShown) {
        std::fputs("\r\033[K", err); // back to column 0 and erase the line
        progressShown = false;
    }
}

} // namespace trelfetch
