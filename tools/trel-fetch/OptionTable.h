#pragma once

// The one description of trel-fetch's command line: the parser reads its
// options from here, and both --help and the trel-fetch.1 man page are written
// from it, so the three cannot disagree.

#include <QChar>
#include <QList>
#include <QString>

namespace trelfetch {

enum class ValueKind
{
    None, // a switch
    Required, // --name VALUE, --name=VALUE, -xVALUE, -x VALUE
    Optional, // --name or --name=VALUE only
};

struct OptionSpec
{
    QChar shortName; // null when the option has no short form
    QString longName;
    ValueKind valueKind = ValueKind::None;
    QString valueName; // shown in help, such as FILE
    QString help;
};

struct Example
{
    QString command;
    QString what;
};

struct ExitCode
{
    int code;
    QString meaning;
};

const QList<OptionSpec>& optionTable();
const QList<Example>& examples();
const QList<ExitCode>& exitCodes();

// The text of --help.
QString helpText();
// trel-fetch.1 in roff, from the same table as helpText().
QString manPage();

} // namespace trelfetch
