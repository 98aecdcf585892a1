#include "Fetcher.h"

#include "WriteOut.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUrl>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>

#include <fcntl.h>

namespace trelfetch {
namespace {

constexpr int kProgressIntervalMs = 500;
// Pushed streams may finish after the response that triggered them; once every
// requested result is in, the run ends after this long without a new push.
constexpr int kPushQuietMs = 300;

const char* methodName(HttpClient::HttpMethod method)
{
    switch (method) {
    case HttpClient::Get:
        return "GET";
    case HttpClient::Head:
        return "HEAD";
    case HttpClient::Post:
        return "POST";
    case HttpClient::Put:
        return "PUT";
    case HttpClient::Delete:
        return "DELETE";
    case HttpClient::Patch:
        return "PATCH";
    }
    return "GET";
}

bool parseUrl(const QString& text, TrelUrl& url, QString& error)
{
    const QUrl parsed(text, QUrl::StrictMode);
    const QString scheme = parsed.scheme().toLower();
    if (!parsed.isValid() || (scheme != "http" && scheme != "https") || parsed.host().isEmpty()) {
        error = QString("malformed URL '%1': only absolute http:// and https:// URLs are fetched").arg(text);
        return false;
    }
    url = TrelUrl(text);
    return true;
}

QString effectiveUrl(const HttpClientResult& result)
{
    return result.headers.value(
        HttpClientHeaders::EffectiveUrlField, QString::fromUtf8(result.url.toEncoded()));
}

std::int64_t contentLength(const HttpClientHeaders& headers)
{
    bool ok = false;
    const std::int64_t length = headers.value("Content-Length", QString()).toLongLong(&ok);
    return ok && length >= 0 ? length : -1;
}

Outcome tooLarge(std::int64_t limit)
{
    return { exitcode::kFileTooLarge,
        QString("Maximum file size exceeded: the body is larger than --max-filesize %1 bytes").arg(limit) };
}

// As curl names a -O file: the last segment of the URL's path as written,
// still percent-encoded, without query or fragment.
QString remoteFileName(const QString& url)
{
    const auto end = std::find_if(url.cbegin(), url.cend(), [](QChar c) { return c == '?' || c == '#'; });
    const QString withoutQuery = url.left(static_cast<int>(end - url.cbegin()));
    const int schemeEnd = withoutQuery.indexOf("://");
    const int pathStart = withoutQuery.indexOf('/', schemeEnd < 0 ? 0 : schemeEnd + 3);
    return pathStart < 0 ? QString() : withoutQuery.mid(withoutQuery.lastIndexOf('/') + 1);
}

// --no-clobber: as curl, the first of NAME.1 ... NAME.100 that does not exist.
std::optional<QString> unusedNumberedName(const QString& path)
{
    constexpr int kMostNumbers = 100;
    for (int number = 1; number <= kMostNumbers; ++number) {
        const QString candidate = QString("%1.%2").arg(path).arg(number);
        if (!QFileInfo::exists(candidate)) {
            return candidate;
        }
    }
    return std::nullopt;
}

} // namespace

Fetcher::Fetcher(const FetchConfig& config, Reporter& reporter, QObject* parent)
    : QObject(parent)
    , config(config)
    , reporter(reporter)
    , streamer(config.bodyKind == BodyKind::Stream
                  || (config.bodyKind == BodyKind::UploadFile && config.uploadFile == "-")
              ? std::make_unique<StdinStreamer>()
              : nullptr)
    , client(nullptr, config.version)
{
    client.setCacheSize(config.cacheSize);
    loadCookies();
    if (config.proxyChosen) {
        client.setProxy(config.proxy);
    }
    if (config.push) {
        HttpClientOptions pushOptions = config.options;
        pushOptions.setImmediateRead(false); // a pushed response is reported whole
        pushOptions.setReadSizeLimit(-1);
        client.setPushProperties(this, "onPushed", pushOptions);
    }
    progressTimer.setInterval(kProgressIntervalMs);
    connect(&progressTimer, &QTimer::timeout, this, &Fetcher::showProgress);
    pushQuietTimer.setSingleShot(true);
    pushQuietTimer.setInterval(kPushQuietMs);
    connect(&pushQuietTimer, &QTimer::timeout, this, [this] { finish(false); });
}

Fetcher::~Fetcher() = default;

void Fetcher::start()
{
    wallClock.start();
    if (!config.dumpHeader.isEmpty()) {
        headerDump = config.dumpHeader == "-"
            ? std::unique_ptr<BodySink>(std::make_unique<StreamSink>(stdout))
            : std::make_unique<FileSink>(config.dumpHeader, true, config.createDirs);
    }
    progressTimer.start();
    int outputIndex = 0;
    for (const QString& text : config.urls) {
        if (text != "-") {
            const auto output = outputIndex < config.outputs.size()
                ? std::optional<OutputTarget>(config.outputs.at(outputIndex))
                : std::nullopt;
            ++outputIndex;
            addJob(text, output);
        }
    }
    startListReader();
    finishIfDone();
}

void Fetcher::startListReader()
{
    const QString source = config.urls.contains("-") ? QString("-") : config.urlFile;
    if (source.isEmpty()) {
        return;
    }
    int fd = 0;
    if (source != "-") {
        listFile = std::make_unique<QFile>(source);
        if (!listFile->open(QIODevice::ReadOnly)) {
            reporter.message(
                QString("cannot read the URL list '%1': %2").arg(source, listFile->errorString()));
            firstFailure = { { 0, -1 }, exitcode::kUsage };
            return;
        }
        fd = listFile->handle();
    }
    listOpen = true;
    listReader = std::make_unique<LineReader>(
        fd, this, [this](const QString& line) { onListLine(line); },
        [this](const QString& error) { onListEnd(error); });
}

void Fetcher::addJob(const QString& text, std::optional<OutputTarget> output)
{
    jobs.append({ text, std::move(output) });
    if (round == 1) {
        launchMore();
    }
}

// Blank lines and # comments are skipped; every other line is one URL, even a bad one.
void Fetcher::onListLine(const QString& line)
{
    const QString text = line.trimmed();
    if (!finishing && !text.isEmpty() && !text.startsWith('#')) {
        addJob(text, std::nullopt);
    }
}

void Fetcher::onListEnd(const QString& error)
{
    if (!error.isEmpty()) {
        reporter.message(error);
    }
    listOpen = false;
    finishIfDone();
}

void Fetcher::launchMore()
{
    const std::size_t limit = config.parallel ? static_cast<std::size_t>(config.parallelMax) : 1;
    while (!finishing && transfers.size() < limit && nextJob < jobs.size()) {
        launch(nextJob++);
    }
}

void Fetcher::launch(int jobIndex, int attempt, qint64 firstAttemptMs)
{
    const Job& job = jobs.at(jobIndex);
    const int token = nextToken++;
    Transfer& transfer = transfers[token];
    transfer.job = jobIndex;
    transfer.round = round;
    transfer.url = job.text;
    transfer.attempt = attempt;
    transfer.firstAttemptMs = firstAttemptMs < 0 ? wallClock.elapsed() : firstAttemptMs;
    transfer.clock.start();

    TrelUrl url;
    QString error;
    if (!parseUrl(requestUrlText(job), url, error)) {
        failLater(token, { exitcode::kMalformedUrl, error });
        return;
    }
    Outcome failure;
    transfer.sink = sinkFor(job, failure, transfer.resumeFrom);
    if (failure.failed()) {
        failLater(token, failure);
        return;
    }
    if (config.bodyKind == BodyKind::UploadFile && !streamer) {
        transfer.upload = openUpload(failure);
        if (failure.failed()) {
            failLater(token, failure);
            return;
        }
    }
    transfer.requestUrl = url;
    transfer.id
        = send(url, token, [this, token](const HttpClientResult& result) { onResult(token, result); });
    if (!transfer.id) {
        if (config.method == HttpClient::Get && config.cacheSize > 0) {
            transfer.cached = true; // a GET answered without a transfer comes from the cache
            return;
        }
        failLater(token, { exitcode::kOther, "the library refused the request" });
        return;
    }
    if (config.cancelAfterMs > 0) {
        QTimer::singleShot(config.cancelAfterMs, this, [this, token] {
            const auto found = transfers.find(token);
            if (found != transfers.end() && client.cancel(found->second.id)) {
                found->second.cancelled = true;
            }
        });
    }
}

// What is sent for a URL as given: http:// when it names no scheme, the data
// of -G in its query, and with -T a path ending in / completed by the file's
// name, all as curl does.
QString Fetcher::requestUrlText(const Job& job) const
{
    QString text = job.text.contains("://") ? job.text : "http://" + job.text;
    if (!config.queryData.isEmpty()) {
        text += (text.contains('?') ? "&" : "?") + QString::fromUtf8(config.queryData);
    }
    if (config.bodyKind == BodyKind::UploadFile && config.uploadFile != "-" && text.endsWith('/')) {
        text += QFileInfo(config.uploadFile).fileName();
    }
    return text;
}

// Each request reads the file afresh, so several URLs or rounds all get it whole.
std::unique_ptr<StdinStreamer> Fetcher::openUpload(Outcome& failure) const
{
    const int fd = ::open(QFile::encodeName(config.uploadFile).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        failure = { exitcode::kRead,
            QString("cannot read '%1': %2")
                .arg(config.uploadFile, QString::fromLocal8Bit(std::strerror(errno))) };
        return nullptr;
    }
    return std::make_unique<StdinStreamer>(fd, true);
}

// Standard output unless an output file was asked for. A file that exists is
// replaced once the body is complete, as curl does, unless --no-clobber.
std::unique_ptr<BodySink> Fetcher::sinkFor(const Job& job, Outcome& failure, std::int64_t& resumeFrom) const
{
    std::optional<OutputTarget> target = job.output;
    if (!target && config.remoteNameAll) {
        target = OutputTarget { true, {} };
    }
    // As with curl, -o - is standard output; /dev/stdout is written as the
    // stream it names, whatever standard output is (a file included).
    if (!target || target->path == "-" || target->path == "/dev/stdout") {
        return std::make_unique<StreamSink>(stdout);
    }
    if (target->path == "/dev/stderr") {
        return std::make_unique<StreamSink>(stderr);
    }
    const QString name = target->remoteName ? remoteFileName(job.text) : target->path;
    if (name.isEmpty() || name == "." || name == "..") {
        failure = { exitcode::kWrite, QString("no file name in URL '%1' for -O").arg(job.text) };
        return nullptr;
    }
    QString path = config.outputDir.isEmpty() || QFileInfo(name).isAbsolute()
        ? name
        : QDir(config.outputDir).filePath(name);
    const QFileInfo existing(path);
    if (existing.exists() && !existing.isFile() && !existing.isDir()) {
        return std::make_unique<DeviceSink>(path);
    }
    if (config.noClobber && existing.exists()) {
        const std::optional<QString> numbered = unusedNumberedName(path);
        if (!numbered) {
            failure = { exitcode::kWrite, QString("'%1' and its numbered names .1 to .100 exist").arg(path) };
            return nullptr;
        }
        path = *numbered;
    }
    if (config.continueAt) {
        resumeFrom = *config.continueAt >= 0 ? *config.continueAt : (existing.exists() ? existing.size() : 0);
    }
    return std::make_unique<FileSink>(path, !config.noClobber, config.createDirs, resumeFrom);
}

void* Fetcher::sendStreamed(const TrelUrl& url, const QSharedPointer<HttpClientQueue>& queue,
    const HttpClientOptions& options, HttpClient::Callback callback)
{
    return config.method == HttpClient::Put ? client.putStream(url, queue, options, std::move(callback))
                                            : client.postStream(url, queue, options, std::move(callback));
}

// The library reports from the event loop; a request that has ended is gone
// from the table, and its last report with it.
HttpClientOptions::ProgressCallback Fetcher::progressOf(int token)
{
    return [this, token](qint64 received, qint64 receiveTotal, qint64 sent, qint64 sendTotal) {
        const auto found = transfers.find(token);
        if (found == transfers.end()) {
            return;
        }
        found->second.moved = received + sent;
        found->second.sent = sent;
        const bool sends = config.bodyKind != BodyKind::None;
        found->second.toMove = receiveTotal < 0 || (sends && sendTotal < 0)
            ? -1
            : receiveTotal + std::max<qint64>(sendTotal, 0);
    };
}

// Headers and text of libcurl's exchange are needed for -v, -i, -I, -D and -w.
bool Fetcher::tracesExchange() const
{
    return config.verbose || config.includeHeaders || config.headersOnly || !config.dumpHeader.isEmpty()
        || !config.writeOut.isEmpty();
}

// A method with nothing to send goes without a body, as curl sends it: no
// Content-Length and no form Content-Type.
void* Fetcher::sendWithoutBody(
    const QByteArray& verb, const TrelUrl& url, HttpClientOptions options, HttpClient::Callback callback)
{
    HttpClientHeaders headers = options.headers();
    for (const char* name : { "Content-Type", "Content-Length" }) {
        if (!headers.contains(name)) {
            headers.insert(name, QString()); // an empty field: libcurl leaves its own out
        }
    }
    options.setHeaders(headers);
    return client.sendCustomRequest(verb, url, QByteArray(), options, std::move(callback));
}

// -T FILE goes as curl sends a file: its length announced, no form type and
// no wait for "100 Continue"; standard input's length is not known, so it is
// sent in chunks.
HttpClientOptions Fetcher::asFileUpload(HttpClientOptions options) const
{
    QList<QPair<QString, QString>> fields = { { "Content-Type", QString() }, { "Expect", QString() } };
    if (config.uploadFile != "-") {
        // An empty Transfer-Encoding turns libcurl's chunked framing off once the length is announced.
        fields << qMakePair(QString("Content-Length"), QString::number(QFileInfo(config.uploadFile).size()))
               << qMakePair(QString("Transfer-Encoding"), QString());
    }
    HttpClientHeaders headers = options.headers();
    for (const auto& [name, value] : fields) {
        if (!headers.contains(name)) {
            headers.insert(name, value);
        }
    }
    options.setHeaders(headers);
    return options;
}

// One request's options: the run's, with what this transfer adds.
HttpClientOptions Fetcher::optionsFor(int token)
{
    const Transfer& transfer = transfers.at(token);
    HttpClientOptions options = config.options;
    if (config.progressBar || config.writeOut.contains("size_upload")) {
        options.setProgressCallback(progressOf(token));
    }
    if (tracesExchange()) {
        options.setTraceCallback(traceOf(token));
    }
    if (transfer.resumeFrom > 0) {
        HttpClientHeaders headers = options.headers();
        headers.insert("Range", QString("bytes=%1-").arg(transfer.resumeFrom));
        options.setHeaders(headers);
    }
    if (config.limitRate > 0) {
        options.setMaxReceiveBytesPerSecond(config.limitRate);
        options.setMaxSendBytesPerSecond(config.limitRate);
    }
    // Bodies are written as they arrive; only the cache needs them whole.
    const bool whole = config.cacheSize > 0;
    options.setImmediateRead(!whole);
    const int intMax = std::numeric_limits<int>::max();
    options.setReadSizeLimit(whole && config.maxFilesize >= 0
            ? static_cast<int>(std::min<std::int64_t>(config.maxFilesize, intMax))
            : -1);
    return options;
}

void* Fetcher::send(const TrelUrl& url, int token, HttpClient::Callback callback)
{
    const Transfer& transfer = transfers.at(token);
    const HttpClientOptions options = optionsFor(token);
    switch (config.bodyKind) {
    case BodyKind::Form:
        return client.postMultipart(url, config.form, options, std::move(callback));
    case BodyKind::UploadFile:
        return sendStreamed(url, transfer.upload ? transfer.upload->queue() : streamer->queue(),
            asFileUpload(options), std::move(callback));
    case BodyKind::Stream:
        return client.postStream(url, streamer->queue(), options, std::move(callback));
    case BodyKind::None:
    case BodyKind::Data:
        break;
    }
    const bool readOnly = config.method == HttpClient::Get || config.method == HttpClient::Head;
    const QByteArray verb
        = config.customVerb.isEmpty() ? QByteArray(methodName(config.method)) : config.customVerb;
    if (config.bodyKind == BodyKind::None && (!readOnly || !config.customVerb.isEmpty())) {
        return sendWithoutBody(verb, url, options, std::move(callback));
    }
    if (!config.customVerb.isEmpty() || (readOnly && config.bodyKind == BodyKind::Data)) {
        return client.sendCustomRequest(verb, url, config.data, options, std::move(callback));
    }
    return sendByMethod(url, options, std::move(callback));
}

// The operations of the six methods, with -d's bytes where one takes a body.
void* Fetcher::sendByMethod(
    const TrelUrl& url, const HttpClientOptions& options, HttpClient::Callback callback)
{
    switch (config.method) {
    case HttpClient::Get:
        return client.get(url, options, std::move(callback));
    case HttpClient::Head:
        return client.head(url, options, std::move(callback));
    case HttpClient::Post:
        return client.post(url, config.data, options, std::move(callback));
    case HttpClient::Put:
        return client.put(url, config.data, options, std::move(callback));
    case HttpClient::Delete:
        return client.delete_(url, config.data, options, std::move(callback));
    case HttpClient::Patch:
        return client.patch(url, config.data, options, std::move(callback));
    }
    return nullptr;
}

// The library delivers the trace from the event loop, before the result.
HttpClientOptions::TraceCallback Fetcher::traceOf(int token)
{
    return [this, token](HttpClientOptions::TraceKind kind, const QByteArray& data) {
        const auto found = transfers.find(token);
        if (found != transfers.end()) {
            onTrace(found->second, kind, data);
        }
    };
}

void Fetcher::onTrace(Transfer& transfer, HttpClientOptions::TraceKind kind, const QByteArray& data)
{
    switch (kind) {
    case HttpClientOptions::TraceText:
        if (config.verbose) {
            reporter.traceLines("* ", data);
        }
        return;
    case HttpClientOptions::TraceHeaderOut:
        if (config.verbose) {
            reporter.traceLines("> ", data);
        }
        return;
    case HttpClientOptions::TraceHeaderIn:
        if (config.verbose) {
            reporter.traceLines("< ", data);
        }
        onHeaderLine(transfer, data);
        return;
    }
}

// One response header line as received: kept for -w, written where -i, -I
// and -D say, and counted: a new status line begins a new response.
void Fetcher::onHeaderLine(Transfer& transfer, const QByteArray& line)
{
    if (line.startsWith("HTTP/")) {
        transfer.headerLines.clear();
        const QByteArray version = line.mid(5, line.indexOf(' ') - 5);
        // As curl's %{http_version}: "1", "1.1", "2".
        transfer.httpVersion = QString::fromLatin1(version == "1.1" ? version : version.left(1));
        const int code = line.mid(line.indexOf(' ') + 1, 3).toInt();
        transfer.responses += code >= 200 ? 1 : 0;
    }
    transfer.headerLines += line;
    if (headerDump && !headerDump->write(line)) {
        reporter.message(headerDump->error());
        headerDump.reset();
    }
    // A HEAD response's body already is its header lines (every response's, redirects included).
    const bool headerLinesInBody = config.method == HttpClient::Head;
    if (config.includeHeaders && !headerLinesInBody && transfer.sink && !transfer.localFailure
        && !transfer.sink->write(line)) {
        abort(transfer, { exitcode::kWrite, transfer.sink->error() });
    }
}

// A request that never reached the library still gets its result from the
// event loop, in turn with the others.
void Fetcher::failLater(int token, const Outcome& failure)
{
    transfers.at(token).localFailure = failure;
    QMetaObject::invokeMethod(
        this,
        [this, token] {
            const auto found = transfers.find(token);
            if (found != transfers.end()) {
                HttpClientResult result;
                result.code = 0;
                complete(token, result);
            }
        },
        Qt::QueuedConnection);
}

// Runs on the client's thread for every delivery of a request.
void Fetcher::onResult(int token, const HttpClientResult& result)
{
    const auto found = transfers.find(token);
    if (found == transfers.end()) {
        return;
    }
    if (result.status != HttpClientStatus::ImmediateRead) {
        complete(token, result);
        return;
    }
    receive(found->second, result);
}

// Writes what arrived straight to the body's destination.
void Fetcher::receive(Transfer& transfer, const HttpClientResult& result)
{
    if (transfer.localFailure) {
        return; // being cancelled: what still arrives goes nowhere
    }
    if (transfer.firstByteMs < 0) {
        transfer.firstByteMs = transfer.clock.elapsed();
    }
    mergeHeaders(transfer, result);
    if (result.body.isEmpty()) {
        return;
    }
    noteResponse(transfer);
    if (transfer.localFailure) {
        return;
    }
    transfer.received += result.body.size();
    bytesEver += result.body.size();
    if (config.maxFilesize >= 0 && transfer.received > config.maxFilesize) {
        abort(transfer, tooLarge(config.maxFilesize));
        return;
    }
    if (transfer.sink && !transfer.dropBody && !transfer.sink->write(result.body)) {
        abort(transfer, { exitcode::kWrite, transfer.sink->error() });
    }
}

// Header lines come in pieces over several deliveries. A new response code
// means a new response (after a redirect), whose fields start afresh.
void Fetcher::mergeHeaders(Transfer& transfer, const HttpClientResult& result)
{
    if (result.code > 0 && result.code != transfer.code) {
        transfer.code = result.code;
        transfer.headers = HttpClientHeaders();
    }
    const QHash<QString, QString> arrived = result.headers.headers();
    for (auto it = arrived.cbegin(); it != arrived.cend(); ++it) {
        for (const QString& value : result.headers.values(it.key())) {
            transfer.headers.insert(it.key(), value); // every value of a repeated field
        }
    }
}

// The first body bytes tell which response the body belongs to, after any
// redirects: its code, headers and announced size.
void Fetcher::noteResponse(Transfer& transfer)
{
    if (transfer.responseSeen) {
        return;
    }
    transfer.responseSeen = true;
    transfer.expected = contentLength(transfer.headers);
    // As with curl, only -f holds back an error's body, unless --fail-with-body
    // or a file that --save-errors keeps.
    const bool savedAnyway = config.saveErrors && transfer.sink && !transfer.sink->path().isEmpty();
    // HEAD's header lines are output only when -I or -i asks for them, as curl shows them.
    const bool unwantedHeaderLines
        = config.method == HttpClient::Head && !config.headersOnly && !config.includeHeaders;
    transfer.dropBody = (failsWithoutBody(transfer.code) && !savedAnyway) || unwantedHeaderLines;
    if (transfer.resumeFrom > 0 && transfer.code != 206) {
        abort(transfer,
            { exitcode::kRangeError, "HTTP server doesn't seem to support byte ranges. Cannot resume." });
        return;
    }
    if (config.maxFilesize >= 0 && transfer.expected > config.maxFilesize) {
        abort(transfer, tooLarge(config.maxFilesize));
    }
}

// Stops a transfer for a reason of the tool's own; its final result follows.
void Fetcher::abort(Transfer& transfer, const Outcome& failure)
{
    transfer.localFailure = failure;
    if (transfer.sink) {
        transfer.sink->discard();
    }
    client.cancel(transfer.id);
}

Outcome Fetcher::finalOutcome(Transfer& transfer, const HttpClientResult& result)
{
    if (transfer.localFailure) {
        return *transfer.localFailure;
    }
    if (transfer.cancelled) {
        return { exitcode::kCancelled,
            QString("cancelled after %1 ms (--cancel-after)").arg(config.cancelAfterMs) };
    }
    if (libraryErrorCode(result) == CURLE_FILESIZE_EXCEEDED) { // the library's read-size limit
        return tooLarge(config.maxFilesize);
    }
    return classify(result, config.failOnHttpError || config.failWithBody);
}

void Fetcher::complete(int token, const HttpClientResult& result)
{
    const auto found = transfers.find(token);
    if (found == transfers.end()) {
        return;
    }
    Transfer transfer = std::move(found->second);
    transfers.erase(found);

    if (!transfer.localFailure && (result.status == HttpClientStatus::OK || !result.body.isEmpty())) {
        receive(transfer, result);
        noteResponse(transfer); // an empty body still has a response
    }
    Outcome outcome = finalOutcome(transfer, result);
    if (retryLater(transfer, result, outcome)) {
        return;
    }
    const QString savedTo = settleBody(transfer, result, outcome);
    writeOut(transfer, result, outcome);
    tally(recordOf(transfer, result, outcome, savedTo));
    launchMore();
    finishIfDone();
}

namespace {

// curl's transient failures: a timeout, or an answer that says "later".
bool isTransient(const Outcome& outcome, int httpCode)
{
    static const QList<int> laterCodes { 408, 429, 500, 502, 503, 504 };
    return outcome.exitCode == exitcode::kTimeout || laterCodes.contains(httpCode);
}

// Retry-After in seconds, as curl honours it; -1 when absent or a date.
int retryAfterMs(const HttpClientHeaders& headers)
{
    bool ok = false;
    const int seconds = headers.value("Retry-After", QString()).toInt(&ok);
    return ok && seconds >= 0 ? seconds * 1000 : -1;
}

} // namespace

// --retry: a transient failure with attempts left starts the same URL again
// after the delay, and counts only when the last attempt ends.
bool Fetcher::retryLater(Transfer& transfer, const HttpClientResult& result, const Outcome& outcome)
{
    const int httpCode = responseCode(transfer, result);
    if (finishing || transfer.attempt >= config.retries || transfer.cancelled || transfer.localFailure
        || !isTransient(outcome, httpCode)) {
        return false;
    }
    constexpr int kLongestDelayMs = 10 * 60 * 1000;
    const int announced = retryAfterMs(transfer.headers);
    const int delayMs = config.retryDelayMs >= 0 ? config.retryDelayMs
        : announced >= 0                         ? announced
                         : std::min(kLongestDelayMs, 1000 << std::min(transfer.attempt, 20));
    if (config.retryMaxTimeMs > 0
        && wallClock.elapsed() + delayMs - transfer.firstAttemptMs > config.retryMaxTimeMs) {
        return false;
    }
    if (transfer.sink) {
        transfer.sink->discard();
    }
    reporter.message(QString("Problem: %1. Will retry in %2 seconds. %3 retries left.")
                         .arg(outcome.failed() ? outcome.reason : QString("HTTP error %1").arg(httpCode))
                         .arg(delayMs / 1000)
                         .arg(config.retries - transfer.attempt));
    ++pendingRetries;
    QTimer::singleShot(delayMs, this,
        [this, job = transfer.job, attempt = transfer.attempt + 1, first = transfer.firstAttemptMs] {
            --pendingRetries;
            if (!finishing) {
                launch(job, attempt, first);
            }
        });
    return true;
}

void Fetcher::writeOut(const Transfer& transfer, const HttpClientResult& result, const Outcome& outcome)
{
    if (config.writeOut.isEmpty()) {
        return;
    }
    WriteOutValues values;
    values.httpCode = std::max(0, responseCode(transfer, result));
    values.sizeDownload = transfer.received;
    values.sizeUpload = transfer.sent;
    values.timeTotal = static_cast<double>(transfer.clock.nsecsElapsed()) / 1e9;
    values.urlEffective = result.status == HttpClientStatus::OK ? effectiveUrl(result) : transfer.url;
    values.exitCode = outcome.exitCode;
    values.errorMessage = outcome.reason;
    values.numRedirects = std::max(0, transfer.responses - 1);
    values.httpVersion = transfer.httpVersion;
    values.headers = HttpClientHeaders(transfer.headerLines);
    QStringList unknown;
    for (const auto& [stream, bytes] : formatWriteOut(config.writeOut, values, unknown)) {
        std::FILE* const target = stream == WriteOutStream::Out ? stdout : stderr;
        std::fwrite(bytes.constData(), 1, static_cast<std::size_t>(bytes.size()), target);
        std::fflush(target);
    }
    for (const QString& name : unknown) {
        reporter.message(QString("unknown --write-out variable: '%1'").arg(name));
    }
}

// Commits the body (standard output is flushed; a file gets its final name) or
// discards it. Returns the file it was saved to; a failed commit fails `outcome`.
QString Fetcher::settleBody(Transfer& transfer, const HttpClientResult& result, Outcome& outcome)
{
    if (!transfer.sink) {
        return {};
    }
    // A whole response is kept, an HTTP error's included, unless -f holds it back.
    const bool whole = result.status == HttpClientStatus::OK && !transfer.localFailure && !transfer.cancelled;
    const bool keep = whole && (!failsWithoutBody(responseCode(transfer, result)) || config.saveErrors);
    if (!keep && !transfer.sink->path().isEmpty()) {
        transfer.sink->discard();
        return {};
    }
    if (!transfer.sink->commit()) {
        if (!outcome.failed()) {
            outcome = { exitcode::kWrite, transfer.sink->error() };
        }
        return {};
    }
    return transfer.sink->path();
}

bool Fetcher::failsWithoutBody(int code) const
{
    return config.failOnHttpError && !config.failWithBody && code >= 400;
}

int Fetcher::responseCode(const Transfer& transfer, const HttpClientResult& result)
{
    return transfer.code > 0 ? transfer.code : result.code;
}

ResultRecord Fetcher::recordOf(
    const Transfer& transfer, const HttpClientResult& result, const Outcome& outcome, const QString& savedTo)
{
    ResultRecord record;
    record.index = transfer.job;
    record.round = transfer.round;
    record.url = transfer.url;
    record.effectiveUrl = result.status == HttpClientStatus::OK ? effectiveUrl(result) : QString();
    record.status = transfer.localFailure ? HttpClientStatus::Error : result.status;
    record.code = responseCode(transfer, result);
    record.outcome = outcome;
    record.bytes = transfer.received;
    record.headers = transfer.headers;
    record.totalMs = transfer.clock.elapsed();
    record.firstByteMs = transfer.firstByteMs;
    record.savedTo = savedTo;
    record.cached = transfer.cached;
    record.cancelled = transfer.cancelled;
    return record;
}

void Fetcher::tally(const ResultRecord& record)
{
    ++totals.requests;
    totals.bytes += record.bytes;
    totals.cached += record.cached ? 1 : 0;
    if (record.outcome.failed()) {
        ++totals.failures;
        const std::pair<int, int> position { record.round, record.index };
        if (!firstFailure || position < firstFailure->first) {
            firstFailure = { position, record.outcome.exitCode };
        }
    }
    reporter.result(record);
}

void Fetcher::finishIfDone()
{
    if (finishing || listOpen || nextJob < jobs.size() || !transfers.empty() || pendingRetries > 0) {
        return;
    }
    if (round < config.repeat && !jobs.isEmpty()) {
        ++round;
        nextJob = 0;
        launchMore();
        return;
    }
    progressTimer.stop();
    if (config.push) {
        pushQuietTimer.start();
    } else {
        finish(false);
    }
}

void Fetcher::interrupt()
{
    if (finishing) {
        return;
    }
    listReader.reset();
    for (auto& [token, transfer] : transfers) {
        if (transfer.sink) {
            transfer.sink->discard();
        }
        client.cancel(transfer.id);
        // Counted in the summary as failed requests, with what they had received.
        ++totals.requests;
        ++totals.failures;
        totals.bytes += transfer.received;
    }
    transfers.clear(); // their cancellation results are not waited for
    firstFailure = { { 0, -1 }, exitcode::kInterrupted };
    finish(true);
}

void Fetcher::finish(bool interrupted)
{
    if (finishing) {
        return;
    }
    finishing = true;
    progressTimer.stop();
    pushQuietTimer.stop();
    saveCookies();
    if (headerDump && !headerDump->commit()) {
        reporter.message(headerDump->error());
    }
    reporter.summary(totals, wallClock.nsecsElapsed() / 1000, interrupted);
    emit finished();
}

int Fetcher::exitCode() const
{
    return firstFailure ? firstFailure->second : exitcode::kOk;
}

// Pushed responses come by slot because the client delivers pushes to one receiver.
void Fetcher::onPushed(const TrelUrl& /*url*/, const HttpClientPrivate& /*context*/, int status, int code,
    const QByteArray& body, const HttpClientHeaders& headers)
{
    ++totals.pushed;
    ResultRecord record;
    record.pushed = true;
    record.index = -1;
    record.effectiveUrl = headers.value(HttpClientHeaders::EffectiveUrlField, QString());
    record.url = record.effectiveUrl;
    record.status = static_cast<HttpClientStatus>(status);
    record.code = code;
    record.bytes = body.size();
    record.headers = headers;
    record.totalMs = wallClock.elapsed();
    reporter.result(record);
    if (pushQuietTimer.isActive()) {
        pushQuietTimer.start(); // still arriving: wait again
    }
}

void Fetcher::showProgress()
{
    ProgressSnapshot snapshot;
    snapshot.inFlight = static_cast<int>(transfers.size());
    snapshot.done = totals.requests;
    snapshot.bar = config.progressBar;
    bool allExpected = !transfers.empty();
    bool allSized = !transfers.empty();
    std::int64_t expected = 0;
    std::int64_t toMove = 0;
    for (const auto& [token, transfer] : transfers) {
        snapshot.inFlightReceived += transfer.received;
        allExpected = allExpected && transfer.expected > 0;
        expected += std::max<std::int64_t>(transfer.expected, 0);
        snapshot.moved += transfer.moved;
        allSized = allSized && transfer.toMove > 0;
        toMove += std::max<std::int64_t>(transfer.toMove, 0);
    }
    snapshot.inFlightExpected = allExpected ? expected : -1;
    snapshot.toMove = allSized ? toMove : -1;
    const double seconds = static_cast<double>(wallClock.nsecsElapsed()) / 1e9;
    snapshot.bytesPerSecond = seconds > 0 ? static_cast<double>(bytesEver) / seconds : 0;
    reporter.progress(snapshot);
}

// As curl does, a cookie file that does not exist yet is an empty jar.
void Fetcher::loadCookies()
{
    if (!config.cookiesEnabled) {
        return;
    }
    client.setCookiesEnabled(true);
    QFile file(config.cookieFile);
    if (!config.cookieFile.isEmpty() && file.open(QIODevice::ReadOnly)) {
        client.setCookies(file.readAll());
    }
}

// A jar that cannot be written costs the cookies, not the transfers: a
// message, as curl's warning.
void Fetcher::saveCookies()
{
    if (config.cookieJar.isEmpty()) {
        return;
    }
    QFile file(config.cookieJar);
    const QByteArray jar = client.cookies();
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(jar) != jar.size()) {
        reporter.message(
            QString("cannot save cookies to '%1': %2").arg(config.cookieJar, file.errorString()));
    }
}

} // namespace trelfetch
