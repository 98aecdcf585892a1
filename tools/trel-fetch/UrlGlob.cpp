#include "UrlGlob.h"

#include <QRegularExpression>

namespace trelfetch {
namespace {

// One piece of a pattern: literal text (a single choice) or a set.
using Choices = QStringList;

std::optional<Choices> alternatives(const QString& body, QString& error)
{
    if (body.contains('{') || body.contains('[')) {
        error = "nested braces or brackets are not supported";
        return std::nullopt;
    }
    return body.split(',');
}

std::optional<Choices> numericRange(const QRegularExpressionMatch& match, QString& error, int limit)
{
    const QString first = match.captured(1);
    bool firstOk = false;
    bool lastOk = false;
    const long long from = first.toLongLong(&firstOk);
    const long long to = match.captured(2).toLongLong(&lastOk);
    const long long step = match.captured(3).isEmpty() ? 1 : match.captured(3).toLongLong();
    if (!firstOk || !lastOk || from > to || step < 1 || (to - from) / step >= limit) {
        error = "bad range";
        return std::nullopt;
    }
    // A first number written with leading zeros pads every number to its width.
    const int width = first.startsWith('0') && first.size() > 1 ? static_cast<int>(first.size()) : 0;
    Choices choices;
    for (long long value = from; value <= to; value += step) {
        choices << QString("%1").arg(value, width, 10, QChar('0'));
    }
    return choices;
}

std::optional<Choices> range(const QString& body, QString& error, int limit)
{
    static const QRegularExpression numbers(QRegularExpression::anchoredPattern("(\\d+)-(\\d+)(?::(\\d+))?"));
    static const QRegularExpression letters(
        QRegularExpression::anchoredPattern("([a-zA-Z])-([a-zA-Z])(?::(\\d+))?"));
    const QRegularExpressionMatch numeric = numbers.match(body);
    if (numeric.hasMatch()) {
        return numericRange(numeric, error, limit);
    }
    const QRegularExpressionMatch alphabetic = letters.match(body);
    const int step = alphabetic.captured(3).isEmpty() ? 1 : alphabetic.captured(3).toInt();
    if (!alphabetic.hasMatch() || alphabetic.captured(1) > alphabetic.captured(2) || step < 1
        || alphabetic.captured(1).at(0).isUpper() != alphabetic.captured(2).at(0).isUpper()) {
        error = "bad range";
        return std::nullopt;
    }
    Choices choices;
    for (ushort letter = alphabetic.captured(1).at(0).unicode();
         letter <= alphabetic.captured(2).at(0).unicode(); letter += static_cast<ushort>(step)) {
        choices << QString(QChar(letter));
    }
    return choices;
}

struct Piece
{
    Choices choices;
    bool isSet = false;
};

std::optional<QList<Piece>> pieces(const QString& pattern, QString& error, int limit)
{
    QList<Piece> found { Piece { { QString() }, false } };
    for (int position = 0; position < pattern.size(); ++position) {
        const QChar c = pattern.at(position);
        if (c == '\\' && position + 1 < pattern.size()
            && QString("[]{}").contains(pattern.at(position + 1))) {
            found.last().choices.first() += pattern.at(++position);
            continue;
        }
        if (c != '[' && c != '{') {
            found.last().choices.first() += c;
            continue;
        }
        const QChar close = c == '[' ? ']' : '}';
        const int end = pattern.indexOf(close, position + 1);
        if (end < 0) {
            error = QString("unmatched %1 at position %2").arg(c).arg(position + 1);
            return std::nullopt;
        }
        const QString body = pattern.mid(position + 1, end - position - 1);
        const std::optional<Choices> choices
            = c == '[' ? range(body, error, limit) : alternatives(body, error);
        if (!choices) {
            error = QString("%1 at position %2").arg(error).arg(position + 1);
            return std::nullopt;
        }
        found << Piece { *choices, true } << Piece { { QString() }, false };
        position = end;
    }
    return found;
}

} // namespace

std::optional<QList<GlobbedUrl>> expandGlob(const QString& pattern, QString& error, int limit)
{
    const std::optional<QList<Piece>> parts = pieces(pattern, error, limit);
    if (!parts) {
        return std::nullopt;
    }
    QList<GlobbedUrl> urls { GlobbedUrl {} };
    for (const Piece& part : *parts) {
        QList<GlobbedUrl> longer;
        for (const GlobbedUrl& prefix : urls) {
            for (const QString& choice : part.choices) {
                GlobbedUrl next { prefix.url + choice, prefix.chosen };
                if (part.isSet) {
                    next.chosen << choice;
                }
                longer << next;
            }
        }
        if (longer.size() > limit) {
            error = QString("more than %1 URLs").arg(limit);
            return std::nullopt;
        }
        urls = longer;
    }
    return urls;
}

QString withChosen(const QString& name, const QStringList& chosen)
{
    static const QRegularExpression reference("#(\\d+)");
    QString result;
    int copied = 0;
    for (auto it = reference.globalMatch(name); it.hasNext();) {
        const QRegularExpressionMatch match = it.next();
        const int index = match.captured(1).toInt() - 1;
        result += name.mid(copied, match.capturedStart() - copied);
        result += index >= 0 && index < chosen.size() ? chosen.at(index) : match.captured(0);
        copied = match.capturedEnd();
    }
    return result + name.mid(copied);
}

} // namespace trelfetch
