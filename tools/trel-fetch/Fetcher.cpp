#include "Fetcher.h"

#include <QDir>
#include <QRegularExpression>
#include <QUrl>

#include <cstdio>

#include <algorithm>
#include <limits>

namespace trelfetch {
namespace {

constexpr int kProgressIntervalMs = 500;
// Pushed streams may finish after the response that triggered them; once every
// requested result is in, the run ends after this long without a new push.
constexpr int kPushQuietMs = 300;
constexpr int kMaxExitCode = 100;

const char* const kEffectiveUrlHeader = "X-TrelEfectiveUrl";

bool succeeded(const HttpClientResult& result)
{
    return result.status == HttpClientStatus::OK && result.code >= 0 && result.code < 400;
}

// The last path segment, reduced to characters that are safe in a file name.
QString fileNameFor(const QString& url)
{
    static const QRegularExpression unsafe("[^A-Za-z0-9._-]");
    QString name = QUrl(url).fileName();
    name.replace(unsafe, "_");
    return name.isEmpty() || name == "." || name == ".." ? QString("index") : name;
}

// Each URL's body is saved under its last path segment, prefixed with the URL's
// position in the list when two URLs would otherwise share a file.
QStringList outputNames(const QList<TrelUrl>& urls)
{
    QStringList names;
    QHash<QString, int> uses;
    for (const TrelUrl& url : urls) {
        names.append(fileNameFor(url.toString()));
        ++uses[names.last()];
    }
    for (int index = 0; index < names.size(); ++index) {
        if (uses.value(names.at(index)) > 1) {
            names[index] = QString("%1-%2").arg(index + 1).arg(names.at(index));
        }
    }
    return names;
}

} // namespace

Fetcher::Fetcher(const FetchConfig& config, ResultPrinter& printer, QObject* parent)
    : QObject(parent)
    , config(config)
    , printer(printer)
    , streamer(config.bodyKind == BodyKind::Stream ? std::make_unique<StdinStreamer>() : nullptr)
    , client(nullptr, config.version)
    , outputNames(trelfetch::outputNames(config.urls))
{
    client.setCacheSize(config.cacheSize);
    if (config.printPushes) {
        HttpClientOptions pushOptions = config.options;
        pushOptions.setImmediateRead(false); // a pushed response is printed whole
        client.setPushProperties(this, "onPushed", pushOptions);
    }
    progressTimer.setInterval(kProgressIntervalMs);
    connect(&progressTimer, &QTimer::timeout, this, &Fetcher::showProgress);
    pushQuietTimer.setSingleShot(true);
    pushQuietTimer.setInterval(kPushQuietMs);
    connect(&pushQuietTimer, &QTimer::timeout, this, &Fetcher::finishNow);
}

Fetcher::~Fetcher() = default;

void Fetcher::start()
{
    wallClock.start();
    progressTimer.start();
    startRound();
}

int Fetcher::exitCode() const
{
    return std::min(totals.failures, kMaxExitCode);
}

void Fetcher::startRound()
{
    ++round;
    nextIndex = 0;
    completedInRound = 0;
    launchMore();
}

void Fetcher::launchMore()
{
    const std::size_t limit = config.parallel > 0 ? static_cast<std::size_t>(config.parallel)
                                                  : std::numeric_limits<std::size_t>::max();
    while (running.size() < limit && nextIndex < config.urls.size()) {
        launch(nextIndex++);
    }
}

void Fetcher::launch(int index)
{
    const int token = nextToken++;
    Running& request = running[token];
    request.index = index;
    request.clock.start();
    request.id = send(
        config.urls.at(index), [this, token](const HttpClientResult& result) { onResult(token, result); });
    if (!request.id) {
        if (config.method == HttpClient::Get && config.bodyKind == BodyKind::None) {
            request.cached = true; // a GET answered without a transfer comes from the cache
            return;
        }
        // The client refused the request and sends no result: report it from the
        // event loop, as the client would have.
        const HttpClientResult refused { config.urls.at(index), HttpClientStatus::Error, -1, {}, {} };
        QMetaObject::invokeMethod(
            this, [this, token, refused] { completeRequest(token, refused); }, Qt::QueuedConnection);
        return;
    }
    tokensById.insert(request.id, token); // ids are never issued twice
    if (config.cancelAfterMs > 0) {
        QTimer::singleShot(config.cancelAfterMs, this, [this, token] { cancelIfRunning(token); });
    }
}

void* Fetcher::send(const TrelUrl& url, HttpClient::Callback callback)
{
    const HttpClientOptions& options = config.options;
    switch (config.bodyKind) {
    case BodyKind::Form:
        return client.postForm(url, config.formFields, options, std::move(callback));
    case BodyKind::File:
        return client.postFile(url, config.data, options, std::move(callback));
    case BodyKind::Stream:
        return client.postStream(url, streamer->queue(), options, std::move(callback));
    case BodyKind::None:
    case BodyKind::Data:
        break;
    }
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

// Runs on the client's thread for every delivery of a request.
void Fetcher::onResult(int token, const HttpClientResult& result)
{
    if (result.status != HttpClientStatus::ImmediateRead) {
        completeRequest(token, result);
        return;
    }
    const auto found = running.find(token);
    if (found == running.end()) {
        return;
    }
    Running& request = found->second;
    request.bytes += result.body.size();
    const QString savedTo = save(request, outputNames.at(request.index), result.body);
    if (config.printImmediate) {
        Delivery delivery;
        delivery.kind = DeliveryKind::Immediate;
        delivery.url = result.url;
        delivery.effectiveUrl = effectiveUrl(result);
        delivery.status = result.status;
        delivery.code = result.code;
        delivery.bytes = result.body.size();
        delivery.elapsedMs = request.clock.elapsed();
        delivery.round = round;
        delivery.savedTo = savedTo;
        printer.print(delivery);
    }
}

void Fetcher::cancelIfRunning(int token)
{
    const auto found = running.find(token);
    if (found != running.end() && found->second.id && client.cancel(found->second.id)) {
        found->second.cancelled = true;
    }
}

void Fetcher::completeRequest(int token, const HttpClientResult& result)
{
    const auto found = running.find(token);
    if (found == running.end()) {
        return;
    }
    Running request = std::move(found->second);
    running.erase(found);
    if (request.id && tokensById.value(request.id, -1) == token) {
        tokensById.remove(request.id);
    }

    request.bytes += result.body.size();
    Delivery delivery;
    delivery.url = result.url;
    delivery.effectiveUrl = effectiveUrl(result);
    delivery.status = result.status;
    delivery.code = result.code;
    delivery.bytes = request.bytes;
    delivery.elapsedMs = request.clock.elapsed();
    delivery.round = round;
    delivery.cached = request.cached;
    delivery.cancelled = request.cancelled;
    delivery.savedTo = save(request, outputNames.at(request.index), result.body);
    const bool saveFailed = !config.outputDir.isEmpty() && delivery.savedTo.isEmpty();

    ++totals.requests;
    totals.bytes += request.bytes;
    totals.cached += request.cached ? 1 : 0;
    totals.failures += succeeded(result) && !saveFailed ? 0 : 1;
    printer.print(delivery);

    if (++completedInRound < config.urls.size()) {
        launchMore();
    } else if (round < config.repeat) {
        startRound();
    } else {
        requestsElapsedUs = wallClock.nsecsElapsed() / 1000;
        progressTimer.stop();
        if (config.printPushes) {
            pushQuietTimer.start();
        } else {
            finishNow();
        }
    }
}

// Pushed responses come by slot because the client delivers pushes to one receiver.
void Fetcher::onPushed(const TrelUrl& url, const HttpClientPrivate& /*context*/, int status, int code,
    const QByteArray& body, const HttpClientHeaders& headers)
{
    const HttpClientResult result { url, static_cast<HttpClientStatus>(status), code, body, headers };
    ++totals.pushed;
    Running pushed;
    Delivery delivery;
    delivery.kind = DeliveryKind::Pushed;
    delivery.url = url;
    delivery.effectiveUrl = effectiveUrl(result);
    delivery.status = result.status;
    delivery.code = code;
    delivery.bytes = body.size();
    delivery.elapsedMs = wallClock.elapsed();
    delivery.round = round;
    delivery.savedTo = save(
        pushed, QString("push-%1-%2").arg(totals.pushed).arg(fileNameFor(delivery.effectiveUrl)), body);
    printer.print(delivery);
    if (pushQuietTimer.isActive()) {
        pushQuietTimer.start(); // still arriving: wait again
    }
}

void Fetcher::finishNow()
{
    printer.summary(totals, requestsElapsedUs);
    emit finished();
}

// Appends to the request's file, creating it on the request's first delivery.
// Returns the file's path, or an empty string when nothing is saved.
QString Fetcher::save(Running& request, const QString& name, const QByteArray& body)
{
    if (config.outputDir.isEmpty()) {
        return {};
    }
    if (!request.output) {
        request.output = std::make_unique<QFile>(QDir(config.outputDir).filePath(name));
        if (!request.output->open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            std::fprintf(stderr, "trel-fetch: cannot write %s: %s\n", qPrintable(request.output->fileName()),
                qPrintable(request.output->errorString()));
        }
    }
    if (!request.output->isOpen() || request.output->write(body) != body.size()) {
        return {};
    }
    request.output->flush();
    return request.output->fileName();
}

QString Fetcher::effectiveUrl(const HttpClientResult& result) const
{
    return result.headers.value(kEffectiveUrlHeader, QString::fromUtf8(result.url.toEncoded()));
}

void Fetcher::showProgress()
{
    printer.progress(totals, config.urls.size() * config.repeat, wallClock.nsecsElapsed() / 1000);
}

} // namespace trelfetch
