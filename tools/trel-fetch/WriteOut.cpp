#include "WriteOut.h"

#include <QStringList>

#include <functional>
#include <map>
#include <optional>

namespace trelfetch {
namespace {

QString headerValue(const WriteOutValues& values, const QString& name)
{
    return values.headers.values(name).join(", ");
}

QString httpCode(const WriteOutValues& values)
{
    return QString("%1").arg(values.httpCode, 3, 10, QChar('0'));
}

std::optional<QString> variable(const QString& name, const WriteOutValues& values)
{
    static const std::map<QString, std::function<QString(const WriteOutValues&)>> variables = {
        { "http_code", httpCode },
        { "response_code", httpCode }, // curl's older name for the same
        { "size_download", [](const auto& v) { return QString::number(v.sizeDownload); } },
        { "size_upload", [](const auto& v) { return QString::number(v.sizeUpload); } },
        { "time_total", [](const auto& v) { return QString::number(v.timeTotal, 'f', 6); } },
        { "url_effective", [](const auto& v) { return v.urlEffective; } },
        { "content_type", [](const auto& v) { return headerValue(v, "Content-Type"); } },
        { "exitcode", [](const auto& v) { return QString::number(v.exitCode); } },
        { "errormsg", [](const auto& v) { return v.errorMessage; } },
        { "num_redirects", [](const auto& v) { return QString::number(v.numRedirects); } },
        { "http_version", [](const auto& v) { return v.httpVersion; } },
    };
    const auto found = variables.find(name);
    if (found == variables.end()) {
        return std::nullopt;
    }
    return found->second(values);
}

QChar escaped(QChar c)
{
    switch (c.unicode()) {
    case 'n':
        return '\n';
    case 'r':
        return '\r';
    case 't':
        return '\t';
    default:
        return c;
    }
}

} // namespace

QList<QPair<WriteOutStream, QByteArray>> formatWriteOut(
    const QString& format, const WriteOutValues& values, QStringList& unknown)
{
    QList<QPair<WriteOutStream, QByteArray>> pieces { { WriteOutStream::Out, {} } };
    auto append = [&pieces](const QString& text) { pieces.last().second += text.toUtf8(); };
    for (int position = 0; position < format.size(); ++position) {
        const QChar c = format.at(position);
        if (c == '\\' && position + 1 < format.size()) {
            append(escaped(format.at(++position)));
            continue;
        }
        if (c != '%' || position + 1 >= format.size()) {
            append(c);
            continue;
        }
        if (format.at(position + 1) == '%') {
            append("%");
            ++position;
            continue;
        }
        const bool isHeader = format.mid(position + 1, 7) == "header{";
        const int open = position + (isHeader ? 7 : 1);
        const int close = format.indexOf('}', open);
        if (format.at(open) != '{' || close < 0) {
            append(c);
            continue;
        }
        const QString name = format.mid(open + 1, close - open - 1);
        position = close;
        if (isHeader) {
            append(headerValue(values, name));
        } else if (name == "stdout" || name == "stderr") {
            pieces.append({ name == "stdout" ? WriteOutStream::Out : WriteOutStream::Err, {} });
        } else if (const std::optional<QString> value = variable(name, values)) {
            append(*value);
        } else {
            unknown << name;
        }
    }
    return pieces;
}

} // namespace trelfetch
