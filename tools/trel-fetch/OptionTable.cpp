#include "OptionTable.h"

#include <QStringList>
#include <QtGlobal>

#include <algorithm>

namespace trelfetch {
namespace {

const char* const kSynopsis = "trel-fetch [OPTION]... URL...";
const char* const kDescription
    = "Fetches URLs with one HttpClient of libtrel_http_client. Options that curl also has mean what "
      "curl's mean. Bodies go to standard output unless -o, -O or --remote-name-all say "
      "otherwise; they are written as they arrive, so memory stays bounded whatever their size. A URL of "
      "- reads URLs from standard input, one per line, and starts each as it arrives.";

const char* const kExitStatus
    = "with several URLs, the code of the first failure in input order. As with curl, a failed transfer "
      "exits with libcurl's code for the failure; the common ones:";

QString optionLabel(const OptionSpec& option)
{
    QString label = option.shortName.isNull() ? QString("    ") : QString("-%1, ").arg(option.shortName);
    label += "--" + option.longName;
    if (option.valueKind == ValueKind::Required) {
        label += " " + option.valueName;
    } else if (option.valueKind == ValueKind::Optional) {
        label += "[=" + option.valueName + "]";
    }
    return label;
}

// Roff treats a leading dot or quote as a request and a backslash as an escape.
QString roffEscaped(QString text)
{
    text.replace('\\', "\\e").replace('-', "\\-");
    if (text.startsWith('.') || text.startsWith('\'')) {
        text.prepend("\\&");
    }
    return text;
}

QString manOptionLabel(const OptionSpec& option)
{
    QString label = option.shortName.isNull() ? QString() : QString("\\fB\\-%1\\fR, ").arg(option.shortName);
    label += "\\fB" + roffEscaped("--" + option.longName) + "\\fR";
    if (option.valueKind == ValueKind::Required) {
        label += " \\fI" + roffEscaped(option.valueName) + "\\fR";
    } else if (option.valueKind == ValueKind::Optional) {
        label += "[=\\fI" + roffEscaped(option.valueName) + "\\fR]";
    }
    return label;
}

// Help lines are wrapped to fit an 80-column terminal.
QStringList wrapped(const QString& text, int width)
{
    QStringList lines { QString() };
    for (const QString& word : text.split(' ', Qt::SkipEmptyParts)) {
        if (!lines.last().isEmpty() && lines.last().size() + 1 + word.size() > width) {
            lines << QString();
        }
        lines.last() += (lines.last().isEmpty() ? "" : " ") + word;
    }
    return lines;
}

} // namespace

const QList<OptionSpec>& optionTable()
{
    static const QList<OptionSpec> table = {
        { Option::Output, 'o', "output", ValueKind::Required, "FILE",
            "Write the body of the next URL to FILE (one -o per URL, in order), replacing an existing FILE "
            "once the body is complete (- and /dev/stdout are standard output)." },
        { Option::RemoteName, 'O', "remote-name", ValueKind::None, {},
            "Save the body of the next URL under the last segment of its path, as written (still "
            "percent-encoded), without query." },
        { Option::RemoteNameAll, {}, "remote-name-all", ValueKind::None, {},
            "Save every body under the last segment of its URL's path, URLs from lists included." },
        { Option::OutputDir, {}, "output-dir", ValueKind::Required, "DIR",
            "Put the files of -o and -O in DIR." },
        { Option::CreateDirs, {}, "create-dirs", ValueKind::None, {},
            "Create the directories an output file needs." },
        { Option::Clobber, {}, "clobber", ValueKind::None, {},
            "Replace output files that already exist (the default)." },
        { Option::NoClobber, {}, "no-clobber", ValueKind::None, {},
            "Keep output files that already exist: write to FILE.1, FILE.2... up to FILE.100 instead." },
        { Option::SaveErrors, {}, "save-errors", ValueKind::None, {},
            "With -f, still save the bodies of HTTP errors into their output files." },
        { Option::MaxFilesize, {}, "max-filesize", ValueKind::Required, "BYTES",
            "Fail a body larger than BYTES (suffixes k, M, G: 1024-based; exit code 63); nothing "
            "truncated is kept. No limit by default." },
        { Option::Report, {}, "report", ValueKind::Optional, "FORMAT",
            "Write one line per result to standard error: FORMAT text (the default) or json (JSON Lines with "
            "the reason, headers, input index and timings), then a summary." },
        { Option::ReportFile, {}, "report-file", ValueKind::Required, "FILE",
            "Write the --report lines to FILE instead." },
        { Option::Request, 'X', "request", ValueKind::Required, "METHOD",
            "Request method: GET, HEAD, POST, PUT, DELETE, PATCH, or any other (PROPFIND, MKCOL...), "
            "sent as given with what PUT may carry." },
        { Option::Header, 'H', "header", ValueKind::Required, "'NAME: VALUE'",
            "Add a request header (repeatable; a name given several times sends every value). "
            "'NAME:' removes a header libcurl would send." },
        { Option::Referer, 'e', "referer", ValueKind::Required, "URL", "Send Referer: URL." },
        { Option::User, 'u', "user", ValueKind::Required, "USER:PASSWORD",
            "Authenticate with USER and PASSWORD (HTTP Basic, sent with the first request)." },
        { Option::Basic, {}, "basic", ValueKind::None, {},
            "Use HTTP Basic authentication with -u (the default)." },
        { Option::Digest, {}, "digest", ValueKind::None, {},
            "HTTP Digest authentication: not supported; exits 2 rather than send Basic instead." },
        { Option::Range, 'r', "range", ValueKind::Required, "RANGE",
            "Ask for part of the body only: Range: bytes=RANGE (such as 0-99 or 500-)." },
        { Option::ContinueAt, 'C', "continue-at", ValueKind::Required, "OFFSET",
            "Resume: ask for the body from byte OFFSET on (- for the size of the -o/-O file) and add it to "
            "the file's first OFFSET bytes. A server that answers with the whole body fails with exit code "
            "33." },
        { Option::Head, 'I', "head", ValueKind::None, {},
            "Send HEAD and write the response headers to standard output (or -o's file)." },
        { Option::Include, 'i', "include", ValueKind::None, {},
            "Write each response's status line and headers, as the server sent them, before the body." },
        { Option::DumpHeader, 'D', "dump-header", ValueKind::Required, "FILE",
            "Write the response headers, as the server sent them, to FILE (- for standard output)." },
        { Option::WriteOut, 'w', "write-out", ValueKind::Required, "FORMAT",
            "After each transfer, write FORMAT with %{http_code}, %{size_download}, %{size_upload}, "
            "%{time_total}, %{url_effective}, %{content_type}, %{exitcode}, %{errormsg}, "
            "%{num_redirects}, %{http_version}, %header{NAME}, %{stderr} and %{stdout} replaced; "
            "@FILE reads FORMAT from a file." },
        { Option::Data, 'd', "data", ValueKind::Required, "DATA",
            "Send DATA as the body (POST unless -X says otherwise); @FILE sends a file's contents, @- "
            "standard input, with carriage returns and newlines removed. Several data options are joined "
            "with &." },
        { Option::DataBinary, {}, "data-binary", ValueKind::Required, "DATA",
            "As -d, but @FILE is sent exactly as it is." },
        { Option::DataRaw, {}, "data-raw", ValueKind::Required, "DATA", "As -d, but @ has no meaning." },
        { Option::DataUrlencode, {}, "data-urlencode", ValueKind::Required, "DATA",
            "As -d, URL-encoded: CONTENT, =CONTENT, NAME=CONTENT, @FILE or NAME@FILE (only the content "
            "is encoded)." },
        { Option::Json, {}, "json", ValueKind::Required, "DATA",
            "As --data-binary, with Content-Type and Accept application/json; several are joined as "
            "they are." },
        { Option::Get, 'G', "get", ValueKind::None, {},
            "Put the data of -d and its kin into the URL's query and send GET (HEAD with -I)." },
        { Option::GlobOff, 'g', "globoff", ValueKind::None, {},
            "Take [ ] { } in URLs literally instead of as URL ranges and sets." },
        { Option::Form, 'F', "form", ValueKind::Required, "NAME=VALUE",
            "Add a multipart form field (repeatable; POST). NAME=@FILE[;filename=NAME][;type=TYPE] adds "
            "FILE as a file part, read from disk as it is sent." },
        { Option::UploadFile, 'T', "upload-file", ValueKind::Required, "FILE",
            "PUT the raw contents of FILE (- for standard input), read as it is sent; -X POST posts them." },
        { Option::Stream, {}, "stream", ValueKind::None, {},
            "POST standard input as it is read, with unknown length." },
        { Option::Location, 'L', "location", ValueKind::None, {}, "Follow redirects." },
        { Option::MaxRedirs, {}, "max-redirs", ValueKind::Required, "N",
            "With -L, follow at most N redirects (default 50; -1 for no limit)." },
        { Option::Post301, {}, "post301", ValueKind::None, {}, "Keep POST after a 301 redirect." },
        { Option::Post302, {}, "post302", ValueKind::None, {}, "Keep POST after a 302 redirect." },
        { Option::Post303, {}, "post303", ValueKind::None, {}, "Keep POST after a 303 redirect." },
        { Option::Insecure, 'k', "insecure", ValueKind::None, {},
            "Do not verify the server's TLS certificate." },
        { Option::CaCert, {}, "cacert", ValueKind::Required, "FILE",
            "Trust the CA certificates in FILE (PEM) instead of the built-in bundle." },
        { Option::CaPath, {}, "capath", ValueKind::Required, "DIR",
            "Trust the CA certificates in DIR (PEM files under hashed names, as openssl rehash leaves them) "
            "instead of the built-in directory." },
        { Option::Cert, 'E', "cert", ValueKind::Required, "FILE",
            "Present the client certificate in FILE (PEM) to servers that ask for one; its key comes "
            "from --key, or from FILE itself." },
        { Option::Key, {}, "key", ValueKind::Required, "FILE",
            "The private key (PEM, unencrypted) of --cert." },
        { Option::Proxy, 'x', "proxy", ValueKind::Required, "URL",
            "Send every request through the proxy URL (http://, https://, socks5:// or socks5h://), "
            "whatever the environment's no_proxy says." },
        { Option::NoProxy, {}, "noproxy", ValueKind::Required, "'*'",
            "With '*', send every request directly, whatever the environment's proxy variables say "
            "(no other list is supported)." },
        { Option::Cookie, 'b', "cookie", ValueKind::Required, "DATA|FILE",
            "Send the cookies NAME=VALUE[; NAME=VALUE...] as given, or turn the cookie jar on and fill "
            "it from the Netscape cookie FILE (a missing file is an empty jar)." },
        { Option::CookieJar, 'c', "cookie-jar", ValueKind::Required, "FILE",
            "Turn the cookie jar on and write it to FILE, in the Netscape cookie format, at the end." },
        { Option::MaxTime, 'm', "max-time", ValueKind::Required, "SECONDS",
            "Give up on a request after SECONDS (fractions allowed; 0 means no limit)." },
        { Option::LimitRate, {}, "limit-rate", ValueKind::Required, "SPEED",
            "Move at most SPEED bytes a second each way (suffixes k, M, G: 1024-based)." },
        { Option::Retry, {}, "retry", ValueKind::Required, "N",
            "Retry a request up to N times after a timeout or an HTTP 408, 429, 500, 502, 503 or 504, "
            "waiting 1 s, then twice as long each time (or Retry-After's time)." },
        { Option::RetryDelay, {}, "retry-delay", ValueKind::Required, "SECONDS",
            "With --retry, wait SECONDS between attempts instead." },
        { Option::RetryMaxTime, {}, "retry-max-time", ValueKind::Required, "SECONDS",
            "With --retry, start no attempt later than SECONDS after the first." },
        { Option::ConnectTimeout, {}, "connect-timeout", ValueKind::Required, "SECONDS",
            "Give up on a request that has not connected to its server (TCP and TLS) after SECONDS "
            "(fractions allowed; 0 means no limit)." },
        { Option::ProgressBar, '#', "progress-bar", ValueKind::None, {},
            "Show the progress line as a bar of the bytes sent and received, from the library's "
            "progress reports." },
        { Option::Silent, 's', "silent", ValueKind::None, {}, "No progress line and no error messages." },
        { Option::ShowError, 'S', "show-error", ValueKind::None, {}, "With -s, still print error messages." },
        { Option::Fail, 'f', "fail", ValueKind::None, {},
            "Treat HTTP status 400 and above as failure: no body output, exit code 22. Without -f an "
            "error's body is written like any other and the exit code is 0." },
        { Option::FailWithBody, {}, "fail-with-body", ValueKind::None, {},
            "Like -f, but write the error's body too." },
        { Option::Verbose, 'v', "verbose", ValueKind::None, {},
            "Show request and response headers on standard error." },
        { Option::TraceLibrary, {}, "trace-library", ValueKind::None, {},
            "Write the library's own trace log (logger HttpClient) to standard error." },
        { Option::UserAgent, 'A', "user-agent", ValueKind::Required, "NAME", "Send User-Agent: NAME." },
        { Option::Compressed, {}, "compressed", ValueKind::None, {},
            "Ask for a compressed response and write it decoded." },
        { Option::Http11, {}, "http1.1", ValueKind::None, {}, "Use HTTP/1.1 (the default)." },
        { Option::Http2, {}, "http2", ValueKind::None, {},
            "Use HTTP/2: requests to one server share one multiplexed connection." },
        { Option::Parallel, 'Z', "parallel", ValueKind::None, {},
            "Run transfers in parallel instead of one after the other." },
        { Option::ParallelMax, {}, "parallel-max", ValueKind::Required, "N",
            "With -Z, at most N transfers at once (default 50)." },
        { Option::UrlFile, {}, "url-file", ValueKind::Required, "FILE",
            "Read URLs from FILE, one per line, each started as it is read (- is standard input)." },
        { Option::CacheSize, {}, "cache-size", ValueKind::Required, "BYTES",
            "Keep up to BYTES of GET responses in the client's cache (bodies are then held whole)." },
        { Option::Repeat, {}, "repeat", ValueKind::Required, "N",
            "Fetch the URL list N times, one round after the other." },
        { Option::CancelAfter, {}, "cancel-after", ValueKind::Required, "MS",
            "Cancel a request still running MS milliseconds after it started (exit code 42)." },
        { Option::Push, {}, "push", ValueKind::None, {},
            "Report HTTP/2 server-pushed responses (needs --http2)." },
        { Option::Config, 'K', "config", ValueKind::Required, "FILE",
            "Read options from FILE, in curl's syntax: one per line, as --name VALUE, name = VALUE or "
            "name VALUE, \"quoted\" values with \\ escapes, # comments; url = URL adds a URL; - is "
            "standard input." },
        { Option::DisableRc, 'q', "disable", ValueKind::None, {},
            "Read no default configuration file (there is none to read)." },
        { Option::Version, 'V', "version", ValueKind::None, {},
            "Show the versions of trel-fetch, the library, libcurl and Qt." },
        { Option::Help, 'h', "help", ValueKind::None, {}, "Show this help." },
        { Option::Man, {}, "man", ValueKind::None, {}, "Write the manual page (roff) to standard output." },
    };
    return table;
}

const OptionSpec& optionEntry(Option option)
{
    const QList<OptionSpec>& table = optionTable();
    const auto entry = std::find_if(table.cbegin(), table.cend(),
        [option](const OptionSpec& candidate) { return candidate.option == option; });
    if (entry == table.cend()) {
        // A programming error that TrelFetchOptionTableTest catches; there is no entry to return.
        qFatal("trel-fetch: option %d has no entry in the option table", static_cast<int>(option));
    }
    return *entry;
}

QList<Option> optionsNotListedOnce(const QList<OptionSpec>& table)
{
    QList<Option> wrong;
    for (int index = 0; index <= static_cast<int>(Option::Count); ++index) {
        const Option option = static_cast<Option>(index);
        const auto listed = std::count_if(table.cbegin(), table.cend(),
            [option](const OptionSpec& candidate) { return candidate.option == option; });
        if (listed != (option == Option::Count ? 0 : 1)) {
            wrong.append(option);
        }
    }
    return wrong;
}

const QList<Example>& examples()
{
    static const QList<Example> list = {
        { "trel-fetch https://example.org/", "print a page" },
        { "trel-fetch -L -o page.html https://example.org/", "follow redirects, save to page.html" },
        { "trel-fetch -O -O http://host/a.iso http://host/b.iso", "save both under their own names" },
        { "trel-fetch -d @body.json -H 'Content-Type: application/json' http://host/api",
            "POST a file's contents" },
        { "trel-fetch -T report.pdf http://host/upload/report.pdf", "PUT a file" },
        { "trel-fetch -Z --remote-name-all --output-dir out - < urls.txt",
            "fetch a list, 50 at a time, into out/" },
        { "trel-fetch -sf --report=json http://host/a http://host/b >/dev/null",
            "one JSON line per result on standard error" },
    };
    return list;
}

const QList<ExitCode>& exitCodes()
{
    static const QList<ExitCode> table = {
        { 0, "every request succeeded" },
        { 1, "a request failed for a reason libcurl gave no code for" },
        { 2, "usage error: bad option or option value; nothing was sent" },
        { 3, "a URL is malformed (an argument, or a line of a URL list)" },
        { 6, "could not resolve the host" },
        { 7, "could not connect to the server" },
        { 18, "the body ended before the length the server announced" },
        { 22, "HTTP status 400 or above, with --fail or --fail-with-body" },
        { 23, "an output file could not be written" },
        { 26, "a file to send (-d @FILE, -F NAME=@FILE, -T FILE) could not be read" },
        { 28, "timeout (--max-time or --connect-timeout)" },
        { 33, "-C: the server does not send parts of a body" },
        { 35, "the TLS handshake failed" },
        { 42, "cancelled by --cancel-after" },
        { 47, "too many redirects" },
        { 52, "the server closed the connection without a reply" },
        { 56, "the connection failed while receiving" },
        { 60, "the server's certificate could not be verified" },
        { 63, "a body is larger than --max-filesize" },
        { 130, "interrupted by Ctrl-C" },
    };
    return table;
}

QString helpText()
{
    constexpr int kLabelWidth = 30;
    constexpr int kHelpWidth = 80 - kLabelWidth - 3;
    QStringList lines { QString("Usage: %1").arg(kSynopsis), "" };
    lines << wrapped(kDescription, 80) << ""
          << "Options:";
    for (const OptionSpec& option : optionTable()) {
        const QString label = optionLabel(option);
        const QString indent(kLabelWidth + 3, ' ');
        lines << QString("  %1").arg(label, -kLabelWidth) + (label.size() > kLabelWidth ? "\n" + indent : " ")
                + wrapped(option.help, kHelpWidth).join("\n" + indent);
    }
    lines << ""
          << "Examples:";
    for (const Example& example : examples()) {
        lines << "  " + example.command << "      " + example.what;
    }
    lines << "" << wrapped(QString("Exit codes: %1").arg(kExitStatus), 80);
    for (const ExitCode& exit : exitCodes()) {
        lines << QString("  %1  %2").arg(exit.code, 3).arg(exit.meaning);
    }
    return lines.join('\n') + '\n';
}

QString manPage()
{
    QStringList lines { ".TH TRELFETCH 1 \"\" \"trel-fetch\" \"User Commands\"", ".SH NAME",
        "trel\\-fetch \\- fetch URLs with libtrel_http_client, the way curl does", ".SH SYNOPSIS",
        "\\fBtrel\\-fetch\\fR [\\fIOPTION\\fR]... \\fIURL\\fR...", ".SH DESCRIPTION",
        roffEscaped(kDescription), ".SH OPTIONS" };
    for (const OptionSpec& option : optionTable()) {
        lines << ".TP" << manOptionLabel(option) << roffEscaped(option.help);
    }
    lines << ".SH EXAMPLES";
    for (const Example& example : examples()) {
        lines << ".TP"
              << "\\fB" + roffEscaped(example.command) + "\\fR" << roffEscaped(example.what);
    }
    lines << ".SH EXIT STATUS" << roffEscaped(kExitStatus);
    for (const ExitCode& exit : exitCodes()) {
        lines << ".TP" << QString::number(exit.code) << roffEscaped(exit.meaning);
    }
    return lines.join('\n') + '\n';
}

} // namespace trelfetch
