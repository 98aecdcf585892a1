#include "FetchConfig.h"

#include "OptionTable.h"

#include <QFile>
#include <QRegularExpression>

#include <cmath>
#include <iterator>
#include <limits>

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

// The options of one command line in the order given, and the URLs.
class ParsedArguments
{
public:
    explicit ParsedArguments(const QStringList& arguments);

    bool isSet(Option option) const;
    QString value(Option option) const; // the last one given
    QStringList values(Option option) const;
    // Every use of the options in `wanted` (such as -o and -O), in order, as (option, value).
    QList<QPair<Option, QString>> inOrder(const QList<Option>& wanted) const;
    const QStringList& positional() const { return urls; }

private:
    void parseLong(const QString& argument, const QStringList& arguments, int& index);
    void parseShortGroup(const QString& argument, const QStringList& arguments, int& index);
    static const OptionSpec& findLong(const QString& name);
    static const OptionSpec& findShort(QChar name);

    QList<QPair<Option, QString>> given;
    QStringList urls;
};

ParsedArguments::ParsedArguments(const QStringList& arguments)
{
    bool optionsEnded = false;
    for (int index = 0; index < arguments.size(); ++index) {
        const QString& argument = arguments.at(index);
        if (optionsEnded || argument == "-" || !argument.startsWith('-')) {
            urls.append(argument);
        } else if (argument == "--") {
            optionsEnded = true;
        } else if (argument.startsWith("--")) {
            parseLong(argument, arguments, index);
        } else {
            parseShortGroup(argument, arguments, index);
        }
    }
}

const OptionSpec& ParsedArguments::findLong(const QString& name)
{
    for (const OptionSpec& option : optionTable()) {
        if (option.longName == name) {
            return option;
        }
    }
    fail(QString("unknown option '--%1'").arg(name));
}

const OptionSpec& ParsedArguments::findShort(QChar name)
{
    for (const OptionSpec& option : optionTable()) {
        if (option.shortName == name) {
            return option;
        }
    }
    fail(QString("unknown option '-%1'").arg(name));
}

void ParsedArguments::parseLong(const QString& argument, const QStringList& arguments, int& index)
{
    const int equals = argument.indexOf('=');
    const OptionSpec& option = findLong(argument.mid(2, equals < 0 ? -1 : equals - 2));
    if (equals >= 0) {
        if (option.valueKind == ValueKind::None) {
            fail(QString("--%1 takes no value").arg(option.longName));
        }
        given.append({ option.option, argument.mid(equals + 1) });
    } else if (option.valueKind == ValueKind::Required) {
        if (index + 1 >= arguments.size()) {
            fail(QString("--%1 needs a value (%2)").arg(option.longName, option.valueName));
        }
        given.append({ option.option, arguments.at(++index) });
    } else {
        given.append({ option.option, QString() });
    }
}

// "-sSL" is three switches; "-oFILE" and "-o FILE" give -o its value.
void ParsedArguments::parseShortGroup(const QString& argument, const QStringList& arguments, int& index)
{
    for (int position = 1; position < argument.size(); ++position) {
        const OptionSpec& option = findShort(argument.at(position));
        if (option.valueKind != ValueKind::Required) {
            given.append({ option.option, QString() });
            continue;
        }
        if (position + 1 < argument.size()) {
            given.append({ option.option, argument.mid(position + 1) });
        } else if (index + 1 < arguments.size()) {
            given.append({ option.option, arguments.at(++index) });
        } else {
            fail(QString("-%1 needs a value (%2)").arg(option.shortName).arg(option.valueName));
        }
        return;
    }
}

bool ParsedArguments::isSet(Option option) const
{
    return std::any_of(
        given.cbegin(), given.cend(), [option](const auto& entry) { return entry.first == option; });
}

QString ParsedArguments::value(Option option) const
{
    const QStringList all = values(option);
    return all.isEmpty() ? QString() : all.last();
}

QStringList ParsedArguments::values(Option option) const
{
    QStringList all;
    for (const auto& entry : given) {
        if (entry.first == option) {
            all.append(entry.second);
        }
    }
    return all;
}

QList<QPair<Option, QString>> ParsedArguments::inOrder(const QList<Option>& wanted) const
{
    QList<QPair<Option, QString>> found;
    for (const auto& entry : given) {
        if (wanted.contains(entry.first)) {
            found.append(entry);
        }
    }
    return found;
}

// "--max-time", as messages name an option.
QString longForm(Option option)
{
    return "--" + optionEntry(option).longName;
}

long long parseInteger(const ParsedArguments& parsed, Option option, long long minimum, long long maximum)
{
    const QString text = parsed.value(option);
    bool ok = false;
    const long long value = text.toLongLong(&ok);
    if (!ok || value < minimum || value > maximum) {
        fail(QString("%1 needs an integer from %2 to %3, not '%4'")
                 .arg(longForm(option))
                 .arg(minimum)
                 .arg(maximum)
                 .arg(text));
    }
    return value;
}

// Seconds with fractions, as curl takes them, in whole milliseconds (at least 1).
int parseSecondsAsMs(const ParsedArguments& parsed, Option option)
{
    const QString text = parsed.value(option);
    bool ok = false;
    const double seconds = text.toDouble(&ok);
    const double maxSeconds = std::numeric_limits<int>::max() / 1000.0;
    if (!ok || !std::isfinite(seconds) || seconds <= 0 || seconds > maxSeconds) {
        fail(QString("%1 needs a number of seconds above 0 (such as 2.5), not '%2'")
                 .arg(longForm(option), text));
    }
    return std::max(1, static_cast<int>(std::ceil(seconds * 1000.0)));
}

QByteArray readWholeFile(const QString& path, Option option)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        fail(QString("%1: cannot read '%2': %3").arg(longForm(option), path, file.errorString()));
    }
    return file.readAll();
}

QByteArray readAll(std::istream& input)
{
    const std::string text { std::istreambuf_iterator<char>(input), std::istreambuf_iterator<char>() };
    return QByteArray(text.data(), static_cast<int>(text.size()));
}

// The six methods with operations of their own, in any case; any other HTTP
// token becomes a custom verb sent as given, with what PUT may carry.
HttpClient::HttpMethod parseMethod(const QString& text, QByteArray& customVerb)
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
    static const QRegularExpression token(
        QRegularExpression::anchoredPattern(QStringLiteral("[!#$%&'*+.^_`|~0-9A-Za-z-]+")));
    if (!token.match(text).hasMatch()) {
        fail(QString("'%1' is not an HTTP method: a method is one token, such as GET or PROPFIND").arg(text));
    }
    customVerb = text.toLatin1();
    return HttpClient::Put;
}

HttpClientHeaders parseHeaders(const QStringList& lines, const QString& userAgent)
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
    if (!userAgent.isNull()) {
        headers.insert("User-Agent", userAgent);
    }
    return headers;
}

QByteArray dataArgument(const QString& text, std::istream& standardInput)
{
    if (text == "@-") {
        return readAll(standardInput);
    }
    return text.startsWith('@') ? readWholeFile(text.mid(1), Option::Data) : text.toUtf8();
}

// "@PATH;filename=NAME;type=TYPE", as curl takes a file part: the attributes
// are optional and in any order; the file is opened when it is sent.
void addFormFile(const QString& name, const QString& fileArgument, HttpClientMultipart& form)
{
    const QStringList pieces = fileArgument.mid(1).split(';');
    QString fileName;
    QString type;
    for (const QString& attribute : pieces.mid(1)) {
        if (attribute.startsWith("filename=")) {
            fileName = attribute.mid(9);
        } else if (attribute.startsWith("type=")) {
            type = attribute.mid(5);
        } else {
            fail(QString("-F %1: unknown file attribute '%2' (filename= and type= are known)")
                     .arg(name, attribute));
        }
    }
    if (pieces.first().isEmpty()) {
        fail(QString("-F %1=@ needs a file name").arg(name));
    }
    form.addFile(name, pieces.first(), fileName, type);
}

void readForm(const QStringList& fields, FetchConfig& config)
{
    for (const QString& field : fields) {
        const int equals = field.indexOf('=');
        if (equals <= 0) {
            fail(QString("malformed form field '%1': expected NAME=VALUE or NAME=@FILE").arg(field));
        }
        const QString name = field.left(equals);
        const QString value = field.mid(equals + 1);
        if (value.startsWith('@')) {
            addFormFile(name, value, config.form);
        } else {
            config.form.addField(name, value);
        }
    }
    config.bodyKind = BodyKind::Form;
}

// Checked now, so a typo is a usage error; read only while it is sent.
void readUploadFile(const QString& path, FetchConfig& config)
{
    QFile file(path);
    if (path != "-" && !file.open(QIODevice::ReadOnly)) {
        fail(QString("%1: cannot read '%2': %3").arg(longForm(Option::UploadFile), path, file.errorString()));
    }
    config.bodyKind = BodyKind::UploadFile;
    config.uploadFile = path;
}

void readBody(const ParsedArguments& parsed, std::istream& standardInput, FetchConfig& config)
{
    const int sources = int(parsed.isSet(Option::Data)) + int(parsed.isSet(Option::Form))
        + int(parsed.isSet(Option::UploadFile)) + int(parsed.isSet(Option::Stream));
    if (sources > 1) {
        fail("-d, -F, -T and --stream are different ways to give one body: choose one");
    }
    if (parsed.isSet(Option::Data)) {
        config.bodyKind = BodyKind::Data;
        QByteArrayList parts;
        for (const QString& text : parsed.values(Option::Data)) {
            parts.append(dataArgument(text, standardInput));
        }
        config.data = parts.join('&');
    } else if (parsed.isSet(Option::UploadFile)) {
        readUploadFile(parsed.value(Option::UploadFile), config);
    } else if (parsed.isSet(Option::Form)) {
        readForm(parsed.values(Option::Form), config);
    } else if (parsed.isSet(Option::Stream)) {
        config.bodyKind = BodyKind::Stream;
    }
}

// As with curl: -d means POST, -T means PUT, -X overrides either.
void readMethod(const ParsedArguments& parsed, FetchConfig& config)
{
    const HttpClient::HttpMethod implied = parsed.isSet(Option::UploadFile) ? HttpClient::Put
        : config.bodyKind != BodyKind::None                                 ? HttpClient::Post
                                                                            : HttpClient::Get;
    config.method = parsed.isSet(Option::Request)
        ? parseMethod(parsed.value(Option::Request), config.customVerb)
        : implied;
    const bool readOnly = config.method == HttpClient::Get || config.method == HttpClient::Head;
    if (config.bodyKind == BodyKind::Data && readOnly) {
        fail("-d needs a method that sends a body: POST, PUT, DELETE or PATCH");
    }
    if (config.bodyKind == BodyKind::UploadFile
        && (!config.customVerb.isEmpty()
            || (config.method != HttpClient::Put && config.method != HttpClient::Post))) {
        fail("-T streams the file with PUT, or with POST under -X POST");
    }
    if ((config.bodyKind == BodyKind::Form || config.bodyKind == BodyKind::Stream)
        && config.method != HttpClient::Post) {
        fail("-F and --stream send POST requests only");
    }
}

// A body read from standard input as it is sent goes out once.
bool streamsStandardInput(const FetchConfig& config)
{
    return config.bodyKind == BodyKind::Stream
        || (config.bodyKind == BodyKind::UploadFile && config.uploadFile == "-");
}

void readTlsTrust(const ParsedArguments& parsed, HttpClientOptions& options)
{
    options.setCaFile(parsed.value(Option::CaCert));
    options.setCaPath(parsed.value(Option::CaPath));
    if (parsed.isSet(Option::Key) && !parsed.isSet(Option::Cert)) {
        fail("--key needs --cert");
    }
    options.setClientCertificate(parsed.value(Option::Cert), parsed.value(Option::Key));
}

void readProxy(const ParsedArguments& parsed, FetchConfig& config)
{
    if (parsed.isSet(Option::NoProxy)) {
        if (parsed.value(Option::NoProxy) != QLatin1String("*")) {
            fail("--noproxy takes '*' only: every request goes directly");
        }
        if (parsed.isSet(Option::Proxy)) {
            fail("-x and --noproxy '*' contradict each other");
        }
        config.proxyChosen = true;
        return;
    }
    if (parsed.isSet(Option::Proxy)) {
        if (parsed.value(Option::Proxy).isEmpty()) {
            fail("-x needs a proxy URL (--noproxy '*' sends requests directly)");
        }
        config.proxyChosen = true;
        config.proxy = parsed.value(Option::Proxy);
    }
}

// As with curl: -b NAME=VALUE is a Cookie header, -b FILE fills the jar from a
// cookie file, and either -b FILE or -c FILE turns the jar on.
void readCookies(const ParsedArguments& parsed, FetchConfig& config)
{
    const QString cookie = parsed.value(Option::Cookie);
    if (cookie.contains('=')) {
        HttpClientHeaders headers = config.options.headers();
        headers.insert("Cookie", cookie);
        config.options.setHeaders(headers);
    } else if (parsed.isSet(Option::Cookie)) {
        config.cookiesEnabled = true;
        config.cookieFile = cookie;
    }
    if (parsed.isSet(Option::CookieJar)) {
        config.cookiesEnabled = true;
        config.cookieJar = parsed.value(Option::CookieJar);
    }
}

void readRequestOptions(const ParsedArguments& parsed, FetchConfig& config)
{
    HttpClientOptions& options = config.options;
    options.setHeaders(parseHeaders(parsed.values(Option::Header),
        parsed.isSet(Option::UserAgent) ? parsed.value(Option::UserAgent) : QString()));
    if (parsed.isSet(Option::MaxTime)) {
        options.setTimeoutMs(parseSecondsAsMs(parsed, Option::MaxTime));
    }
    if (parsed.isSet(Option::ConnectTimeout)) {
        options.setConnectTimeoutMs(parseSecondsAsMs(parsed, Option::ConnectTimeout));
    }
    if (parsed.isSet(Option::MaxFilesize)) {
        config.maxFilesize
            = parseInteger(parsed, Option::MaxFilesize, 0, std::numeric_limits<std::int64_t>::max());
    }
    // Like curl, redirects are followed only with -L, then up to 50 by default.
    const int maxRedirects = parsed.isSet(Option::MaxRedirs)
        ? static_cast<int>(parseInteger(parsed, Option::MaxRedirs, -1, std::numeric_limits<int>::max()))
        : 50;
    options.setMaxRedirects(parsed.isSet(Option::Location) ? maxRedirects : 0);
    QSet<HttpClientOptions::HttpPostRedirFlags> postRedirects;
    const QList<QPair<Option, HttpClientOptions::HttpPostRedirFlags>> flags
        = { { Option::Post301, HttpClientOptions::PostRedir301 },
              { Option::Post302, HttpClientOptions::PostRedir302 },
              { Option::Post303, HttpClientOptions::PostRedir303 } };
    for (const auto& [option, flag] : flags) {
        if (parsed.isSet(option)) {
            postRedirects.insert(flag);
        }
    }
    options.setPostRedirectFlags(postRedirects);
    options.disableCompression(!parsed.isSet(Option::Compressed)); // curl asks for no encoding by default
    options.setVerifyPeer(!parsed.isSet(Option::Insecure));
    readTlsTrust(parsed, options);
    readProxy(parsed, config);
    readCookies(parsed, config);
}

void readOutputOptions(const ParsedArguments& parsed, FetchConfig& config)
{
    for (const auto& [option, value] : parsed.inOrder({ Option::Output, Option::RemoteName })) {
        config.outputs.append({ option == Option::RemoteName, value });
    }
    config.remoteNameAll = parsed.isSet(Option::RemoteNameAll);
    config.outputDir = parsed.value(Option::OutputDir);
    config.createDirs = parsed.isSet(Option::CreateDirs);
    config.clobber = parsed.isSet(Option::Clobber);
    config.saveErrors = parsed.isSet(Option::SaveErrors);
    if (parsed.isSet(Option::Report) || parsed.isSet(Option::ReportFile)) {
        const QString format = parsed.value(Option::Report);
        if (format != "" && format != "text" && format != "json") {
            fail(QString("--report takes text or json, not '%1'").arg(format));
        }
        config.report = format == "json" ? ReportFormat::Json : ReportFormat::Text;
        config.reportFile = parsed.value(Option::ReportFile);
    }
}

void readRunOptions(const ParsedArguments& parsed, FetchConfig& config)
{
    const long long intMax = std::numeric_limits<int>::max();
    config.version = parsed.isSet(Option::Http2) ? HttpClient::Http2 : HttpClient::Http1;
    config.progressBar = parsed.isSet(Option::ProgressBar);
    config.silent = parsed.isSet(Option::Silent);
    config.showError = parsed.isSet(Option::ShowError);
    config.failOnHttpError = parsed.isSet(Option::Fail);
    config.verbose = parsed.isSet(Option::Verbose);
    config.traceLibrary = parsed.isSet(Option::TraceLibrary);
    config.parallel = parsed.isSet(Option::Parallel);
    if (parsed.isSet(Option::ParallelMax)) {
        config.parallelMax = static_cast<int>(parseInteger(parsed, Option::ParallelMax, 1, intMax));
    }
    if (parsed.isSet(Option::CacheSize)) {
        config.cacheSize = static_cast<std::size_t>(parseInteger(parsed, Option::CacheSize, 0, intMax));
    }
    if (parsed.isSet(Option::Repeat)) {
        config.repeat = static_cast<int>(parseInteger(parsed, Option::Repeat, 1, 1000000));
    }
    if (parsed.isSet(Option::CancelAfter)) {
        config.cancelAfterMs = static_cast<int>(parseInteger(parsed, Option::CancelAfter, 1, intMax));
    }
    config.push = parsed.isSet(Option::Push);
    if (config.push && config.version != HttpClient::Http2) {
        fail("--push needs --http2: only HTTP/2 servers push");
    }
}

void readUrls(const ParsedArguments& parsed, FetchConfig& config)
{
    config.urls = parsed.positional();
    config.urlFile = parsed.value(Option::UrlFile);
    if (config.urls.isEmpty() && config.urlFile.isEmpty()) {
        fail("no URL given (use - or --url-file FILE to read URLs from a list)");
    }
    const int standardInputUses = static_cast<int>(config.urls.count("-")) + (config.urlFile == "-" ? 1 : 0);
    if (standardInputUses > 1) {
        fail("standard input holds one URL list: give - or --url-file - once");
    }
    if (standardInputUses == 1
        && (streamsStandardInput(config) || parsed.values(Option::Data).contains("@-"))) {
        fail("standard input cannot hold both the URL list and the request body");
    }
    if (streamsStandardInput(config)
        && (config.urls.size() != 1 || !config.urlFile.isEmpty() || config.repeat != 1)) {
        fail("--stream and -T - send standard input once: give exactly one URL and no --repeat");
    }
    if (config.outputs.size() > config.urls.size()) {
        fail("more -o/-O than URLs: each -o or -O names the output of one URL, in order");
    }
}

ParseOutcome parse(const QStringList& arguments, std::istream& standardInput)
{
    const ParsedArguments parsed(arguments);
    if (parsed.isSet(Option::Help)) {
        return { Action::Help, std::nullopt, {} };
    }
    if (parsed.isSet(Option::Version)) {
        return { Action::Version, std::nullopt, {} };
    }
    if (parsed.isSet(Option::Man)) {
        return { Action::Manual, std::nullopt, {} };
    }
    FetchConfig config;
    readRunOptions(parsed, config);
    readOutputOptions(parsed, config);
    readRequestOptions(parsed, config);
    readBody(parsed, standardInput, config);
    readMethod(parsed, config);
    readUrls(parsed, config);
    return { Action::Run, std::move(config), {} };
}

} // namespace

ParseOutcome parseCommandLine(const QStringList& arguments, std::istream& standardInput)
{
    try {
        return parse(arguments, standardInput);
    } catch (const UsageError& error) {
        return { Action::UsageError, std::nullopt, error.message };
    }
}

} // namespace trelfetch
