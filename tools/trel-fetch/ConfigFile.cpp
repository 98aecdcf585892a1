#include "ConfigFile.h"

#include "DataArguments.h"
#include "OptionTable.h"

#include <QRegularExpression>

namespace trelfetch {
namespace {

const OptionSpec* findOption(const QString& name)
{
    for (const OptionSpec& option : optionTable()) {
        const bool matches = name.startsWith("--") ? "--" + option.longName == name
                                                   : name.size() == 2 && option.shortName == name.at(1);
        if (matches) {
            return &option;
        }
    }
    return nullptr;
}

// A double-quoted value from `text` at `position` (just past the quote).
QString quotedValue(const QString& text, int position)
{
    static const QString escapes = "\\\"tnrv";
    static const QString meanings = "\\\"\t\n\r\v";
    QString value;
    for (; position < text.size() && text.at(position) != '"'; ++position) {
        const QChar c = text.at(position);
        if (c == '\\' && position + 1 < text.size()) {
            const int escape = escapes.indexOf(text.at(++position));
            value += escape >= 0 ? meanings.at(escape) : text.at(position);
        } else {
            value += c;
        }
    }
    return value;
}

QString lineValue(const QString& rest)
{
    QString value = rest.trimmed();
    if (value.startsWith('=') || value.startsWith(':')) {
        value = value.mid(1).trimmed();
    }
    if (value.startsWith('"')) {
        return quotedValue(value, 1);
    }
    static const QRegularExpression whiteSpace("\\s");
    const int space = value.indexOf(whiteSpace);
    return space < 0 ? value : value.left(space);
}

std::optional<QStringList> lineArguments(const QString& line, QString& error)
{
    static const QRegularExpression nameEnds("[\\s=:]");
    const int nameEnd = line.indexOf(nameEnds);
    QString name = nameEnd < 0 ? line : line.left(nameEnd);
    const QString value = lineValue(nameEnd < 0 ? QString() : line.mid(nameEnd));
    if (name == "url") {
        return QStringList { "--", value };
    }
    if (!name.startsWith('-')) {
        name.prepend("--");
    }
    const OptionSpec* const option = findOption(name);
    if (!option) {
        error = QString("unknown option '%1'").arg(name);
        return std::nullopt;
    }
    if (option->valueKind == ValueKind::None) {
        return QStringList { name };
    }
    return option->valueKind == ValueKind::Required ? QStringList { name, value }
                                                    : QStringList { name + "=" + value };
}

} // namespace

std::optional<QStringList> configArguments(const QString& text, QString& error)
{
    QStringList arguments;
    QStringList urls;
    for (const QString& rawLine : text.split('\n')) {
        const QString line = rawLine.trimmed();
        if (line.isEmpty() || line.startsWith('#')) {
            continue;
        }
        const std::optional<QStringList> fromLine = lineArguments(line, error);
        if (!fromLine) {
            return std::nullopt;
        }
        // URLs go last, after "--", so one starting with '-' is still a URL.
        if (fromLine->first() == "--") {
            urls << fromLine->last();
        } else {
            arguments << *fromLine;
        }
    }
    return urls.isEmpty() ? arguments : arguments + QStringList { "--" } + urls;
}

std::optional<QStringList> withConfigFiles(
    const QStringList& arguments, std::istream& standardInput, QString& error)
{
    QStringList expanded;
    QStringList urls;
    for (int index = 0; index < arguments.size(); ++index) {
        const QString& argument = arguments.at(index);
        QString path;
        if ((argument == "-K" || argument == "--config") && index + 1 < arguments.size()) {
            path = arguments.at(++index);
        } else if (argument.startsWith("--config=")) {
            path = argument.mid(9);
        } else if (argument.startsWith("-K") && argument.size() > 2) {
            path = argument.mid(2);
        } else {
            expanded << argument;
            continue;
        }
        const std::optional<QByteArray> text = readSource(path, standardInput);
        if (!text) {
            error = QString("--config: cannot read '%1'").arg(path);
            return std::nullopt;
        }
        const std::optional<QStringList> fromFile = configArguments(QString::fromUtf8(*text), error);
        if (!fromFile) {
            error = QString("--config %1: %2").arg(path, error);
            return std::nullopt;
        }
        const int separator = static_cast<int>(fromFile->indexOf("--"));
        expanded << fromFile->mid(0, separator); // mid(0, -1) is the whole list
        if (separator >= 0) {
            urls << fromFile->mid(separator + 1);
        }
    }
    // A config file's URLs come after the command line's options, as "--" ends options.
    return urls.isEmpty() ? expanded : expanded + QStringList { "--" } + urls;
}

} // namespace trelfetch
