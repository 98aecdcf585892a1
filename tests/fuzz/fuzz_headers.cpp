// Raw response header blocks into HttpClientHeaders.
//
// Checked for every input:
// - only what precedes the first NUL byte counts;
// - the block parses like its lines one after another, each on its own, the
//   last line with a name winning (a line never changes how another is read);
// - every entry has a name without colon or line break, not empty, and a value
//   without surrounding blanks or line breaks;
// - names are found again without regard to case, through both lookups;
// - headers() fed back into the hash constructor gives the same set;
// - streaming writes every entry as "name: value", ", " between entries.
// For a block of plain ASCII the result is also compared with a byte-level
// model of the rules: lines end at "\n" (one "\r" before it dropped), a line
// whose first colon is past its first character holds a header.

#include "FuzzCheck.h"

#include <trel/DbgLog.h>
#include <trel/HttpClientHeaders.h>

#include <QHash>
#include <QList>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sstream>

namespace {

using trel::fuzz::show;

QList<QByteArray> splitLines(const QByteArray& block)
{
    QList<QByteArray> lines = block.split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty()) {
        lines.removeLast(); // the block's final line break ends no further line
    }
    for (QByteArray& line : lines) {
        if (line.endsWith('\r')) {
            line.chop(1);
        }
    }
    return lines;
}

bool isPlainAscii(const QByteArray& block)
{
    for (const char c : block) {
        if (static_cast<unsigned char>(c) >= 0x80) {
            return false;
        }
    }
    return true;
}

bool isPlainAscii(const QString& text)
{
    for (const QChar c : text) {
        if (c.unicode() >= 0x80) {
            return false;
        }
    }
    return true;
}

// Lower-cased name -> (written name, value), as the parser is meant to build it.
QHash<QString, QString> asciiModel(const QList<QByteArray>& lines)
{
    QHash<QString, QPair<QString, QString>> byKey;
    for (const QByteArray& line : lines) {
        const int colon = line.indexOf(':');
        if (colon < 1) {
            continue;
        }
        const QString name = QString::fromLatin1(line.left(colon));
        const QString value = QString::fromLatin1(line.mid(colon + 1)).trimmed();
        byKey[name.toLower()] = qMakePair(name, value);
    }
    QHash<QString, QString> result;
    for (const auto& entry : byKey) {
        result.insert(entry.first, entry.second);
    }
    return result;
}

std::string describe(const QHash<QString, QString>& headers)
{
    std::string out;
    for (auto it = headers.cbegin(); it != headers.cend(); ++it) {
        out += "  " + show(it.key()) + " = " + show(it.value()) + "\n";
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray raw(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const HttpClientHeaders parsed(raw);
    const QHash<QString, QString> all = parsed.headers();

    // Nothing after a NUL byte is read.
    const int nul = raw.indexOf('\0');
    const QByteArray block = nul < 0 ? raw : raw.left(nul);
    if (nul >= 0) {
        FUZZ_CHECK(HttpClientHeaders(block).headers() == all, "text after NUL changed the result");
    }

    // Line by line gives the same as the whole block.
    const QList<QByteArray> lines = splitLines(block);
    HttpClientHeaders merged;
    int headerLines = 0;
    for (const QByteArray& line : lines) {
        const QHash<QString, QString> one = HttpClientHeaders(line).headers();
        FUZZ_CHECK(one.size() <= 1, "one line gave " << std::to_string(one.size()) << " headers");
        for (auto it = one.cbegin(); it != one.cend(); ++it) {
            merged.insert(it.key(), it.value());
            ++headerLines;
        }
    }
    FUZZ_CHECK(merged.headers() == all,
        "block and its lines parse differently\nblock:\n" + describe(all) + "lines:\n"
            + describe(merged.headers()));
    FUZZ_CHECK(all.size() <= headerLines, "more headers than lines holding one");

    if (isPlainAscii(block)) {
        const QHash<QString, QString> expected = asciiModel(lines);
        FUZZ_CHECK(expected == all,
            "ASCII block differs from the model\nparsed:\n" + describe(all) + "model:\n"
                + describe(expected));
    }

    std::size_t streamedSize = 0;
    for (auto it = all.cbegin(); it != all.cend(); ++it) {
        const QString& name = it.key();
        const QString& value = it.value();
        FUZZ_CHECK(!name.isEmpty(), "empty name");
        FUZZ_CHECK(!name.contains(QLatin1Char(':')), "colon in name " + show(name));
        FUZZ_CHECK(!name.contains(QLatin1Char('\n')) && !value.contains(QLatin1Char('\n')),
            "line break in " + show(name) + ": " + show(value));
        FUZZ_CHECK(value == value.trimmed(), "untrimmed value " + show(value));

        FUZZ_CHECK(parsed.contains(name) && parsed.contains(name.toLower()), "lost name " + show(name));
        FUZZ_CHECK(parsed.value(name, QStringLiteral("absent")) == value, "value of " + show(name));
        bool exists = false;
        FUZZ_CHECK(parsed.value(name.toLower(), &exists) == value && exists, "value of " + show(name));
        if (isPlainAscii(name)) {
            FUZZ_CHECK(parsed.contains(name.toUpper()), "upper-case lookup of " + show(name));
        }
        streamedSize += static_cast<std::size_t>(name.toUtf8().size() + 2 + value.toUtf8().size());
    }
    bool exists = true;
    FUZZ_CHECK(parsed.value(QStringLiteral("\n"), &exists).isNull() && !exists, "a name with a line break");

    FUZZ_CHECK(HttpClientHeaders(all).headers() == all, "hash constructor changed the set");

    std::ostringstream out;
    out << parsed;
    if (!all.isEmpty()) {
        streamedSize += static_cast<std::size_t>(2 * (all.size() - 1));
    }
    FUZZ_CHECK(out.str().size() == streamedSize,
        "streamed " + std::to_string(out.str().size()) + " bytes, expected " + std::to_string(streamedSize));
    for (auto it = all.cbegin(); it != all.cend(); ++it) {
        std::ostringstream entry;
        entry << it.key() << ": " << it.value();
        FUZZ_CHECK(out.str().find(entry.str()) != std::string::npos, "entry missing from the stream");
    }
    return 0;
}
