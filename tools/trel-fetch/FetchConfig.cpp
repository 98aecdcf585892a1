#include "FetchConfig.h"

#include "ConfigFile.h"
#include "DataArguments.h"
#include "OptionTable.h"
#include "Outcome.h"
#include "UrlGlob.h"

#include <QFile>
#include <QRegularExpression>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <limits>

namespace trelfetch {
namespace {

// Thrown inside the parser only; parseCommandLine turns it into the outcome's message.
struct UsageError
{
    QString message;
    int exitCode = 2;
};

[[noreturn]] void fail(const QString& message, int exitCode = 2)
{
    throw UsageError { message, exitCode };
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

// Seconds with fractions, as curl takes them, in whole milliseconds (at least
// 1); 0 stays 0, which means no limit.
int parseSecondsAsMs(const ParsedArguments& parsed, Option option)
{
    const QString text = parsed.value(option);
    bool ok = false;
    const double seconds = text.toDouble(&ok);
    const double maxSeconds = std::numeric_limits<int>::max() / 1000.0;
    if (!ok || !std::isfinite(seconds) || seconds < 0 || seconds > maxSeconds) {
        fail(QString("%1 needs a number of seconds (such as 2.5; 0 for no limit), not '%2'")
                 .arg(longForm(option), text));
    }
    return seconds == 0 ? 0 : std::max(1, static_cast<int>(std::ceil(seconds * 1000.0)));
}

// A byte count with curl's suffixes: k, M, G (and T), 1024-based, any case.
std::int64_t parseSize(const ParsedArguments& parsed, Option option)
{
    static const QRegularExpression size(QRegularExpression::anchoredPattern("(\\d+)([kKmMgGtT]?)"));
    const QString text = parsed.value(option);
    const QRegularExpressionMatch match = size.match(text);
    const QString suffix = match.captured(2).toUpper();
    const int shift = suffix.isEmpty() ? 0 : 10 * static_cast<int>(QString("KMGT").indexOf(suffix) + 1);
    bool ok = false;
    const std::int64_t number = match.captured(1).toLongLong(&ok);
    if (!match.hasMatch() || !ok || number > (std::numeric_limits<std::int64_t>::max() >> shift)) {
        fail(QString("%1 needs a size in bytes, with k, M or G if wanted (such as 512k), not '%2'")
                 .arg(longForm(option), text));
    }
    return number << shift;
}

QByteArray readWholeFile(const QString& path, Option option)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        fail(QString("%1: cannot read '%2': %3").arg(longForm(option), path, file.errorString()),
            exitcode::kRead);
    }
    return file.readAll();
}

// The six methods with operations of their own, written in capitals; any
// other HTTP token (lower-case "delete" included) becomes a verb sent exactly
// as given, as curl sends it.
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
        if (method.first == text) {
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
        // As curl, a name given again sends every value, each on its own line.
        if (headers.contains(match.captured(1))) {
            headers.append(match.captured(1), match.captured(2).trimmed());
        } else {
            headers.insert(match.captured(1), match.captured(2).trimmed());
        }
    }
    if (!userAgent.isNull()) {
        headers.insert("User-Agent", userAgent);
    }
    return headers;
}

// A file part's type when none is given, guessed from the name's extension
// as curl guesses it.
QString guessedType(const QString& path)
{
    static const QList<QPair<QString, QString>> types = {
        { "gif", "image/gif" },
        { "jpg", "image/jpeg" },
        { "jpeg", "image/jpeg" },
        { "png", "image/png" },
        { "svg", "image/svg+xml" },
        { "txt", "text/plain" },
        { "htm", "text/html" },
        { "html", "text/html" },
        { "pdf", "application/pdf" },
        { "xml", "application/xml" },
    };
    const QString extension = path.mid(path.lastIndexOf('.') + 1).toLower();
    for (const auto& [known, type] : types) {
        if (path.contains('.') && extension == known) {
            return type;
        }
    }
    return "application/octet-stream";
}

// The part after NAME=, as curl reads it: @PATH (a file part), <PATH (the
// file's contents as the value) or the value itself, each optionally followed
// by ;filename=NAME and ;type=TYPE in any order.
struct FormValue
{
    QString value;
    QString fileName;
    QString type;
};

FormValue parseFormValue(const QString& name, const QString& text)
{
    const QStringList pieces = text.split(';');
    FormValue parsed { pieces.first(), {}, {} };
    for (const QString& attribute : pieces.mid(1)) {
        if (attribute.startsWith("filename=")) {
            parsed.fileName = attribute.mid(9);
        } else if (attribute.startsWith("type=")) {
            parsed.type = attribute.mid(5);
        } else {
            fail(QString("-F %1: unknown attribute '%2' (filename= and type= are known)")
                     .arg(name, attribute));
        }
    }
    return parsed;
}

void addFormPart(const QString& name, const QString& text, HttpClientMultipart& form)
{
    const FormValue part = parseFormValue(name, text);
    const QChar kind = part.value.isEmpty() ? QChar() : part.value.at(0);
    if (kind == '@' || kind == '<') {
        const QString path = part.value.mid(1);
        if (path.isEmpty()) {
            fail(QString("-F %1=%2 needs a file name").arg(name, kind));
        }
        if (kind == '@') {
            form.addFile(name, path, part.fileName, part.type.isEmpty() ? guessedType(path) : part.type);
        } else {
            form.addData(name, readWholeFile(path, Option::Form), part.fileName, part.type);
        }
        return;
    }
    if (part.fileName.isEmpty() && part.type.isEmpty()) {
        form.addField(name, part.value);
    } else {
        form.addData(name, part.value.toUtf8(), part.fileName, part.type);
    }
}

void readForm(const QStringList& fields, FetchConfig& config)
{
    for (const QString& field : fields) {
        const int equals = field.indexOf('=');
        if (equals <= 0) {
            fail(QString("malformed form field '%1': expected NAME=VALUE, NAME=@FILE or NAME=<FILE")
                     .arg(field));
        }
        addFormPart(field.left(equals), field.mid(equals + 1), config.form);
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

const QList<QPair<Option, DataKind>>& dataOptions()
{
    static const QList<QPair<Option, DataKind>> options = {
        { Option::Data, DataKind::Ascii },
        { Option::DataBinary, DataKind::Binary },
        { Option::DataRaw, DataKind::Raw },
        { Option::DataUrlencode, DataKind::UrlEncode },
        { Option::Json, DataKind::Json },
    };
    return options;
}

// -d and its kin, in the order given: the body, or with -G the query.
void readData(const ParsedArguments& parsed, std::istream& standardInput, FetchConfig& config)
{
    QList<Option> wanted;
    for (const auto& [option, kind] : dataOptions()) {
        wanted << option;
    }
    QList<DataArgument> arguments;
    for (const auto& [option, text] : parsed.inOrder(wanted)) {
        const auto kind = std::find_if(dataOptions().cbegin(), dataOptions().cend(),
            [option = option](const auto& entry) { return entry.first == option; });
        arguments.append({ kind->second, text });
    }
    QString unreadable;
    const std::optional<DataBody> body = buildDataBody(arguments, standardInput, unreadable);
    if (!body) {
        fail(QString("cannot read the data file '%1'").arg(unreadable), exitcode::kRead);
    }
    if (body->json) {
        HttpClientHeaders headers = config.options.headers();
        for (const char* name : { "Content-Type", "Accept" }) {
            if (!headers.contains(name)) {
                headers.insert(name, "application/json");
            }
        }
        config.options.setHeaders(headers);
    }
    if (parsed.isSet(Option::Get)) {
        config.queryData = body->bytes;
        return;
    }
    config.bodyKind = BodyKind::Data;
    config.data = body->bytes;
}

bool anyDataGiven(const ParsedArguments& parsed)
{
    return std::any_of(dataOptions().cbegin(), dataOptions().cend(),
        [&parsed](const auto& entry) { return parsed.isSet(entry.first); });
}

void readBody(const ParsedArguments& parsed, std::istream& standardInput, FetchConfig& config)
{
    const int sources = int(anyDataGiven(parsed)) + int(parsed.isSet(Option::Form))
        + int(parsed.isSet(Option::UploadFile)) + int(parsed.isSet(Option::Stream));
    if (sources > 1) {
        fail("-d (and its kin), -F, -T and --stream are different ways to give one body: choose one");
    }
    if (anyDataGiven(parsed)) {
        readData(parsed, standardInput, config);
    } else if (parsed.isSet(Option::UploadFile)) {
        readUploadFile(parsed.value(Option::UploadFile), config);
    } else if (parsed.isSet(Option::Form)) {
        readForm(parsed.values(Option::Form), config);
    } else if (parsed.isSet(Option::Stream)) {
        config.bodyKind = BodyKind::Stream;
    }
}

// As with curl: -d means POST, -T means PUT, -I HEAD, -G GET, -X overrides
// any of them, and a method without a body to send sends none.
void readMethod(const ParsedArguments& parsed, FetchConfig& config)
{
    const bool head = parsed.isSet(Option::Head);
    const HttpClient::HttpMethod implied = head ? HttpClient::Head
        : parsed.isSet(Option::UploadFile)      ? HttpClient::Put
        : config.bodyKind != BodyKind::None     ? HttpClient::Post
                                                : HttpClient::Get;
    config.method = parsed.isSet(Option::Request)
        ? parseMethod(parsed.value(Option::Request), config.customVerb)
        : implied;
    config.headersOnly = head;
    if (head && config.bodyKind != BodyKind::None) {
        fail("-I sends HEAD, which carries no body: drop -d, -F, -T or --stream (or use -G)");
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

// -e, -r and -u are header fields curl writes for its user.
void readHeaderShortcuts(const ParsedArguments& parsed, FetchConfig& config)
{
    HttpClientHeaders headers = config.options.headers();
    if (parsed.isSet(Option::Referer)) {
        headers.insert("Referer", parsed.value(Option::Referer));
    }
    if (parsed.isSet(Option::Range)) {
        headers.insert("Range", "bytes=" + parsed.value(Option::Range));
    }
    if (parsed.isSet(Option::Digest)) {
        fail("--digest is not supported: the library offers no way to ask for Digest alone");
    }
    if (parsed.isSet(Option::User)) {
        const QString user = parsed.value(Option::User);
        if (!user.contains(':')) {
            fail("-u needs USER:PASSWORD (trel-fetch does not prompt for a password)");
        }
        headers.insert("Authorization", "Basic " + QString::fromLatin1(user.toUtf8().toBase64()));
    }
    config.options.setHeaders(headers);
}

int parseWholeSecondsAsMs(const ParsedArguments& parsed, Option option)
{
    return static_cast<int>(parseInteger(parsed, option, 0, std::numeric_limits<int>::max() / 1000)) * 1000;
}

void readRetry(const ParsedArguments& parsed, FetchConfig& config)
{
    if (parsed.isSet(Option::Retry)) {
        config.retries = static_cast<int>(parseInteger(parsed, Option::Retry, 0, 1000000));
    }
    if (parsed.isSet(Option::RetryDelay)) {
        config.retryDelayMs = parseWholeSecondsAsMs(parsed, Option::RetryDelay);
    }
    if (parsed.isSet(Option::RetryMaxTime)) {
        config.retryMaxTimeMs = parseWholeSecondsAsMs(parsed, Option::RetryMaxTime);
    }
}

void readRequestOptions(const ParsedArguments& parsed, FetchConfig& config)
{
    HttpClientOptions& options = config.options;
    options.setHeaders(parseHeaders(parsed.values(Option::Header),
        parsed.isSet(Option::UserAgent) ? parsed.value(Option::UserAgent) : QString()));
    readHeaderShortcuts(parsed, config);
    const int maxTimeMs = parsed.isSet(Option::MaxTime) ? parseSecondsAsMs(parsed, Option::MaxTime) : 0;
    if (maxTimeMs > 0) {
        options.setTimeoutMs(maxTimeMs);
    }
    const int connectMs
        = parsed.isSet(Option::ConnectTimeout) ? parseSecondsAsMs(parsed, Option::ConnectTimeout) : 0;
    if (connectMs > 0) {
        options.setConnectTimeoutMs(connectMs);
    }
    if (parsed.isSet(Option::MaxFilesize)) {
        config.maxFilesize = parseSize(parsed, Option::MaxFilesize);
    }
    if (parsed.isSet(Option::ContinueAt)) {
        config.continueAt = parsed.value(Option::ContinueAt) == "-"
            ? -1
            : parseInteger(parsed, Option::ContinueAt, 0, std::numeric_limits<std::int64_t>::max());
    }
    if (parsed.isSet(Option::LimitRate)) {
        config.limitRate = parseSize(parsed, Option::LimitRate);
    }
    readRetry(parsed, config);
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
    // The last of --clobber and --no-clobber decides, as with curl.
    const QList<QPair<Option, QString>> clobbering = parsed.inOrder({ Option::Clobber, Option::NoClobber });
    config.noClobber = !clobbering.isEmpty() && clobbering.last().first == Option::NoClobber;
    config.saveErrors = parsed.isSet(Option::SaveErrors);
    config.includeHeaders = parsed.isSet(Option::Include);
    config.dumpHeader = parsed.value(Option::DumpHeader);
    config.writeOut = parsed.value(Option::WriteOut);
    if (config.writeOut.startsWith('@')) {
        config.writeOut = QString::fromUtf8(readWholeFile(config.writeOut.mid(1), Option::WriteOut));
    }
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
    config.failWithBody = parsed.isSet(Option::FailWithBody);
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

// Each command-line URL stands for every URL its sets and ranges make, and
// its -o for as many files, "#N" in the name taking what the N-th set chose.
void expandGlobs(FetchConfig& config)
{
    QStringList urls;
    QList<OutputTarget> outputs;
    int outputIndex = 0;
    for (const QString& text : config.urls) {
        if (text == "-") {
            urls << text;
            continue;
        }
        QString error;
        const std::optional<QList<GlobbedUrl>> expanded = expandGlob(text, error);
        if (!expanded) {
            fail(QString("bad URL pattern '%1': %2 (-g takes [ ] { } literally)").arg(text, error),
                exitcode::kMalformedUrl);
        }
        const bool hasOutput = outputIndex < config.outputs.size();
        for (const GlobbedUrl& url : *expanded) {
            urls << url.url;
            if (hasOutput) {
                const OutputTarget& given = config.outputs.at(outputIndex);
                outputs.append({ given.remoteName, withChosen(given.path, url.chosen) });
            }
        }
        outputIndex += hasOutput ? 1 : 0;
    }
    config.urls = urls;
    config.outputs = outputs;
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
    if (!parsed.isSet(Option::GlobOff)) {
        expandGlobs(config);
    }
}

ParseOutcome parse(const QStringList& commandLine, std::istream& standardInput)
{
    QString configError;
    const std::optional<QStringList> arguments = withConfigFiles(commandLine, standardInput, configError);
    if (!arguments) {
        fail(configError);
    }
    const ParsedArguments parsed(*arguments);
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
        return { Action::UsageError, std::nullopt, error.message, error.exitCode };
    }
}

} // namespace trelfetch
