#include <trel/HttpClientHeaders.h>

#include "Log.h"

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
    const int size = static_cast<int>(qstrnlen(rawBlock.constData(), rawBlock.size()));
    const char* const text = rawBlock.constData();
    // Split on bytes and decode each line as UTF-8 on its own. A text stream
    // would decode with the process's locale, switch to UTF-16 on a byte-order
    // mark, and drop an incomplete sequence at the very end of the block.
    for (int start = 0; start < size;) {
        const char* const lineBreak
            = static_cast<const char*>(std::memchr(text + start, '\n', static_cast<size_t>(size - start)));
        const int end = lineBreak ? static_cast<int>(lineBreak - text) : size;
        int length = end - start;
        if (length > 0 && text[start + length - 1] == '\r') {
            --length;
        }
        const QString line = QString::fromUtf8(text + start, length);
        start = end + 1;
        const int colon = line.indexOf(QLatin1Char(':'));
        if (colon >= 1) { // skips status lines, blank lines, lines starting with a colon
            insert(line.left(colon), line.mid(colon + 1).trimmed());
        }
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
