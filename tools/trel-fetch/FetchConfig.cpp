#include "FetchConfig.h"

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QRegularExpression>
#include <QUrl>

#include <limits>
#include <string>

namespace trelfetch {
namespace {

// Thrown inside the parser only; parseCommandLine turns it into the outcome's message.
struct UsageError
{
    QString message;
};

[[noreturn]] void fail(const QString& message)
{
    throw UsageError { message };
}

QList<QCommandLineOption> optionTable()
{
    return {
        { "help", "Show this help and exit." },
        { "http2", "Use HTTP/2: multiplex all requests over one connection per server." },
        { "method", "Request method: GET, HEAD, POST, PUT, DELETE or PATCH.", "METHOD" },
        { "data", "Request body, or @FILE for a file's contents.", "STRING|@FILE" },
        { "form", "Add a form field (repeatable); the request is a multipart POST.", "NAME=VALUE" },
        { "upload-file", "Upload a file as a multipart file part (POST).", "FILE" },
        { "stream", "Stream the request body from standard input (POST)." },
        { "header", "Add a request header (repeatable).", "'Name: value'" },
        { "timeout", "Give up on a request after MS milliseconds.", "MS" },
        { "max-size", "Fail a response whose body exceeds BYTES (default 65536).", "BYTES" },
        { "max-redirs", "Follow at most N redirects; 0 follows none, -1 any number.", "N" },
        { "post301", "Keep POST after a 301 redirect." },
        { "post302", "Keep POST after a 302 redirect." },
        { "post303", "Keep POST after a 303 redirect." },
        { "compressed", "Accept every content encoding libcurl can decode (default)." },
        { "no-compression", "Ask for uncompressed responses only." },
        { "insecure", "Do not verify the server's TLS certificate." },
        { "immediate", "Deliver and print response data as it arrives." },
        { "cache-size", "Keep up to BYTES of GET responses in the client's cache.", "BYTES" },
        { "repeat", "Fetch the URL list N times, one round after the other.", "N" },
        { "parallel", "Keep at most N requests in flight.", "N" },
        { "cancel-after", "Cancel a request still running MS milliseconds after it started.", "MS" },
        { "push", "Print HTTP/2 server-pushed responses (needs --http2)." },
        { "output", "Save each response body in DIR.", "DIR" },
        { "json", "Print one JSON object per result." },
        { "verbose", "Write the library's trace log to standard error." },
    };
}

long long parseInteger(
    const QCommandLineParser& parser, const QString& name, long long minimum, long long maximum)
{
    const QString text = parser.value(name);
    bool ok = false;
    const long long value = text.toLongLong(&ok);
    if (!ok || value < minimum || value > maximum) {
        fail(QString("--%1 needs an integer from %2 to %3, not '%4'")
                 .arg(name)
                 .arg(minimum)
                 .arg(maximum)
                 .arg(text));
    }
    return value;
}

QByteArray readWholeFile(const QString& path, const QString& option)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        fail(QString("%1: cannot read '%2': %3").arg(option, path, file.errorString()));
    }
    return file.readAll();
}

TrelUrl parseUrl(const QString& text)
{
    const QUrl url(text, QUrl::StrictMode);
    const QString scheme = url.scheme().toLower();
    if (!url.isValid() || (scheme != "http" && scheme != "https") || url.host().isEmpty()) {
        fail(QString("invalid URL '%1': only absolute http:// and https:// URLs are fetched").arg(text));
    }
    return TrelUrl(text);
}

HttpClient::HttpMethod parseMethod(const QString& text)
{
    static const QList<QPair<QString, HttpClient::HttpMethod>> methods = {
        { "GET", HttpClient::Get },
        { "HEAD", HttpClient::Head },
        { "POST", HttpClient::Post },
        { "PUT", HttpClient::Put },
        { "DELETE", HttpClient::Delete },
        { "PATCH", HttpClient::Patch },
    };
    for (const auto& method : methods) {
        if (method.first == text.toUpper()) {
            return method.second;
        }
    }
    fail(QString("unknown method '%1': use GET, HEAD, POST, PUT, DELETE or PATCH").arg(text));
}

HttpClientHeaders parseHeaders(const QStringList& lines)
{
    // A field name is an HTTP token; the value may be empty.
    static const QRegularExpression field("^([!#$%&'*+.^_`|~0-9A-Za-z-]+):[ \\t]*(.*)$");
    HttpClientHeaders headers;
    for (const QString& line : lines) {
        const QRegularExpressionMatch match = field.match(line);
        if (!match.hasMatch() || line.contains('\r') || line.contains('\n')) {
            fail(QString("malformed header '%1': expected 'Name: value'").arg(line));
        }
        headers.insert(match.captured(1), match.captured(2).trimmed());
    }
    return headers;
}

QList<QPair<QString, QString>> parseFormFields(const QStringList& fields)
{
    QList<QPair<QString, QString>> parsed;
    for (const QString& field : fields) {
        const int equals = field.indexOf('=');
        if (equals <= 0) {
            fail(QString("malformed form field '%1': expected NAME=VALUE").arg(field));
        }
        parsed.append({ field.left(equals), field.mid(equals + 1) });
    }
    return parsed;
}

QStringList readUrlList(std::istream& input)
{
    QStringList urls;
    std::string line;
    while (std::getline(input, line)) {
        const QString url = QString::fromStdString(line).trimmed();
        if (!url.isEmpty() && !url.startsWith('#')) {
            urls.append(url);
        }
    }
    return urls;
}

void readBody(const QCommandLineParser& parser, FetchConfig& config)
{
    const int sources = int(parser.isSet("data")) + int(parser.isSet("form"))
        + int(parser.isSet("upload-file")) + int(parser.isSet("stream"));
    if (sources > 1) {
        fail("--data, --form, --upload-file and --stream are different ways to give one body: choose one");
    }
    if (parser.isSet("data")) {
        const QString data = parser.value("data");
        config.bodyKind = BodyKind::Data;
        config.data = data.startsWith('@') ? readWholeFile(data.mid(1), "--data") : data.toUtf8();
    } else if (parser.isSet("form")) {
        config.bodyKind = BodyKind::Form;
        config.formFields = parseFormFields(parser.values("form"));
    } else if (parser.isSet("upload-file")) {
        config.bodyKind = BodyKind::File;
        config.data = readWholeFile(parser.value("upload-file"), "--upload-file");
    } else if (parser.isSet("stream")) {
        config.bodyKind = BodyKind::Stream;
    }
}

void readMethod(const QCommandLineParser& parser, FetchConfig& config)
{
    const bool hasBody = config.bodyKind != BodyKind::None;
    config.method = parser.isSet("method") ? parseMethod(parser.value("method"))
                                           : (hasBody ? HttpClient::Post : HttpClient::Get);
    const bool readOnly = config.method == HttpClient::Get || config.method == HttpClient::Head;
    if (config.bodyKind == BodyKind::Data && readOnly) {
        fail("--data needs --method POST, PUT, DELETE or PATCH");
    }
    if ((config.bodyKind == BodyKind::Form || config.bodyKind == BodyKind::File
            || config.bodyKind == BodyKind::Stream)
        && config.method != HttpClient::Post) {
        fail("--form, --upload-file and --stream send POST requests only");
    }
}

void readRequestOptions(const QCommandLineParser& parser, FetchConfig& config)
{
    const long long intMax = std::numeric_limits<int>::max();
    HttpClientOptions& options = config.options;
    options.setHeaders(parseHeaders(parser.values("header")));
    if (parser.isSet("timeout")) {
        options.setTimeoutMs(static_cast<int>(parseInteger(parser, "timeout", 1, intMax)));
    }
    if (parser.isSet("max-size")) {
        options.setReadSizeLimit(static_cast<int>(parseInteger(parser, "max-size", 0, intMax)));
    }
    if (parser.isSet("max-redirs")) {
        options.setMaxRedirects(static_cast<int>(parseInteger(parser, "max-redirs", -1, intMax)));
    }
    QSet<HttpClientOptions::HttpPostRedirFlags> postRedirects;
    if (parser.isSet("post301")) {
        postRedirects.insert(HttpClientOptions::PostRedir301);
    }
    if (parser.isSet("post302")) {
        postRedirects.insert(HttpClientOptions::PostRedir302);
    }
    if (parser.isSet("post303")) {
        postRedirects.insert(HttpClientOptions::PostRedir303);
    }
    options.setPostRedirectFlags(postRedirects);
    if (parser.isSet("compressed") && parser.isSet("no-compression")) {
        fail("--compressed and --no-compression contradict each other");
    }
    options.disableCompression(parser.isSet("no-compression"));
    options.setVerifyPeer(!parser.isSet("insecure"));
    options.setImmediateRead(parser.isSet("immediate"));
}

void readRunOptions(const QCommandLineParser& parser, FetchConfig& config)
{
    const long long intMax = std::numeric_limits<int>::max();
    config.version = parser.isSet("http2") ? HttpClient::Http2 : HttpClient::Http1;
    config.outputDir = parser.value("output");
    if (parser.isSet("cache-size")) {
        config.cacheSize = static_cast<std::size_t>(parseInteger(parser, "cache-size", 0, intMax));
    }
    if (parser.isSet("repeat")) {
        config.repeat = static_cast<int>(parseInteger(parser, "repeat", 1, 1000000));
    }
    if (parser.isSet("parallel")) {
        config.parallel = static_cast<int>(parseInteger(parser, "parallel", 1, intMax));
    }
    if (parser.isSet("cancel-after")) {
        config.cancelAfterMs = static_cast<int>(parseInteger(parser, "cancel-after", 1, intMax));
    }
    config.printImmediate = parser.isSet("immediate");
    config.printPushes = parser.isSet("push");
    config.json = parser.isSet("json");
    config.verbose = parser.isSet("verbose");
    if (config.printPushes && config.version != HttpClient::Http2) {
        fail("--push needs --http2: only HTTP/2 servers push");
    }
}

void readUrls(const QCommandLineParser& parser, std::istream& standardInput, FetchConfig& config)
{
    QStringList texts = parser.positionalArguments();
    if (texts.isEmpty()) {
        fail("no URL given (use - to read URLs from standard input)");
    }
    if (texts.contains("-")) {
        if (texts.size() != 1) {
            fail("- reads the URL list from standard input and must be the only URL");
        }
        if (config.bodyKind == BodyKind::Stream) {
            fail("--stream reads the body from standard input, so URLs cannot come from there too");
        }
        texts = readUrlList(standardInput);
        if (texts.isEmpty()) {
            fail("no URL on standard input");
        }
    }
    if (config.bodyKind == BodyKind::Stream && (texts.size() != 1 || config.repeat != 1)) {
        fail("--stream sends standard input once: give exactly one URL and no --repeat");
    }
    for (const QString& text : texts) {
        config.urls.append(parseUrl(text));
    }
}

void describeCommandLine(QCommandLineParser& parser)
{
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    parser.addOptions(optionTable());
    parser.addPositionalArgument(
        "URL", "http:// or https:// URL to fetch; - alone reads URLs from standard input.", "URL...");
}

} // namespace

ParseOutcome parseCommandLine(const QStringList& arguments, std::istream& standardInput)
{
    QCommandLineParser parser;
    describeCommandLine(parser);
    ParseOutcome outcome;
    if (!parser.parse(QStringList { "trel-fetch" } + arguments)) {
        outcome.error = parser.errorText();
        return outcome;
    }
    if (parser.isSet("help")) {
        outcome.help = true;
        return outcome;
    }
    try {
        FetchConfig config;
        readBody(parser, config);
        readMethod(parser, config);
        readRequestOptions(parser, config);
        readRunOptions(parser, config);
        readUrls(parser, standardInput, config);
        outcome.config = std::move(config);
    } catch (const UsageError& error) {
        outcome.error = error.message;
    }
    return outcome;
}

QString usage()
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        "Fetches every URL concurrently on one HttpClient and prints one line per result:\n"
        "status, HTTP code, body bytes, elapsed milliseconds, effective URL.\n"
        "Exit status: 0 when every request ended OK below 400, 2 on bad usage,\n"
        "otherwise the number of failed requests (at most 100).");
    describeCommandLine(parser);
    // The usage line names the program as it was started; show its plain name.
    QString text = parser.helpText();
    const QString started = QCoreApplication::arguments().value(0);
    return started.isEmpty() ? text : text.replace(started, "trel-fetch");
}

} // namespace trelfetch
