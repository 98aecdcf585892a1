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

// Code names an option by its enumerator, never by its long name, so a
// misspelling fails to compile instead of reading as "never given". Each one
// has exactly one entry in optionTable(); optionsNotListedOnce() checks that.
enum class Option
{
    Output,
    RemoteName,
    RemoteNameAll,
    OutputDir,
    CreateDirs,
    Clobber,
    NoClobber,
    SaveErrors,
    MaxFilesize,
    Report,
    ReportFile,
    Request,
    Header,
    Referer,
    User,
    Basic,
    Digest,
    Range,
    ContinueAt,
    Head,
    Include,
    DumpHeader,
    WriteOut,
    Data,
    DataBinary,
    DataRaw,
    DataUrlencode,
    Json,
    Get,
    GlobOff,
    Form,
    UploadFile,
    Stream,
    Location,
    MaxRedirs,
    Post301,
    Post302,
    Post303,
    Insecure,
    CaCert,
    CaPath,
    Cert,
    Key,
    Proxy,
    NoProxy,
    Cookie,
    CookieJar,
    MaxTime,
    LimitRate,
    Retry,
    RetryDelay,
    RetryMaxTime,
    ConnectTimeout,
    ProgressBar,
    Silent,
    ShowError,
    Fail,
    FailWithBody,
    Verbose,
    TraceLibrary,
    UserAgent,
    Compressed,
    Http11,
    Http2,
    Config,
    DisableRc,
    Parallel,
    ParallelMax,
    UrlFile,
    CacheSize,
    Repeat,
    CancelAfter,
    Push,
    Version,
    Help,
    Man,
    Count, // not an option: the number of those above, so they can be counted
};

struct OptionSpec
{
    Option option;
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
// The entry of `option` in optionTable().
const OptionSpec& optionEntry(Option option);
// The enumerators that `table` does not hold exactly once (Option::Count if it
// holds that at all), in enumerator order; empty for a table without gaps or
// repeats.
QList<Option> optionsNotListedOnce(const QList<OptionSpec>& table);
const QList<Example>& examples();
const QList<ExitCode>& exitCodes();

// The text of --help.
QString helpText();
// trel-fetch.1 in roff, from the same table as helpText().
QString manPage();

} // namespace trelfetch
