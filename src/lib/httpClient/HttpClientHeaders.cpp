#include <trel/HttpClientHeaders.h>

#include "Log.h"

#include <QTextCodec>

#include <cstring>

namespace {
const char* const kLogFile = "src/lib/httpClient/HttpClientHeaders";
const log4cplus::Logger logger = trel::log::libraryLogger();
} // namespace

HttpClientHeaders::HttpClientHeaders(const QHash<QString, QString>& headers)
{
    for (auto it = headers.cbegin(); it != headers.cend(); ++it) {
        insert(it.key(), it.value());
    }
}

HttpClientHeaders::HttpClientHeaders(const std::initializer_list<std::pair<QString, QString>>& headers)
{
    for (const auto& header : headers) {
        insert(header.first, header.second);
    }
}

HttpClientHeaders::HttpClientHeaders(const QByteArray& rawBlock)
{
    // Read as a C string: whatever follows a NUL byte is not part of the block.
    const QByteArray text(
        rawBlock.constData(), static_cast<int>(qstrnlen(rawBlock.constData(), rawBlock.size())));
    // Decoded as a text stream would: the locale's codec unless the block
    // starts with a Unicode byte-order mark. Every result parses one block, so
    // the lines are cut here instead of through a QTextStream.
    const QString block = QTextCodec::codecForUtfText(text, QTextCodec::codecForLocale())->toUnicode(text);
    int start = 0;
    while (start < block.size()) {
        int end = block.indexOf(QLatin1Char('\n'), start);
        const int next = end < 0 ? block.size() : end + 1;
        if (end < 0) {
            end = block.size();
        }
        if (end > start && block.at(end - 1) == QLatin1Char('\r')) {
            --end; // a line ends with "\n" or "\r\n"
        }
        const QStringRef line = block.midRef(start, end - start);
        const int colon = line.indexOf(QLatin1Char(':'));
        if (colon >= 1) { // skips status lines, blank lines, lines starting with a colon
            insert(line.left(colon).toString(), line.mid(colon + 1).trimmed().toString());
        }
        start = next;
    }
}

void HttpClientHeaders::insert(const QString& name, const QString& value)
{
    Header& entry = entries[name.toLower()];
    entry.name = name;
    entry.value = value;
}

bool HttpClientHeaders::contains(const QString& name) const
{
    return entries.contains(name.toLower());
}

QString HttpClientHeaders::value(const QString& name, const QString& defaultValue) const
{
    const auto it = entries.constFind(name.toLower());
    return it == entries.cend() ? defaultValue : it->value;
}

QString HttpClientHeaders::value(const QString& name, bool* exists) const
{
    TREL_ASSERT(exists);
    const auto it = entries.constFind(name.toLower());
    *exists = it != entries.cend();
    return *exists ? it->value : QString();
}

QHash<QString, QString> HttpClientHeaders::headers() const
{
    QHash<QString, QString> result;
    for (const Header& entry : entries) {
        result.insert(entry.name, entry.value);
    }
    return result;
}

std::ostream& operator<<(std::ostream& out, const HttpClientHeaders& headers)
{
    bool first = true;
    for (const HttpClientHeaders::Header& entry : headers.entries) {
        if (!first) {
            out << ", ";
        }
        first = false;
        out << entry.name << ": " << entry.value;
    }
    return out;
}
