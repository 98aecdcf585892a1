// trel-soak: a long mixed load against nginx and the loopback server that
// checks the exactly-once promise request by request and watches the process
// for leaks. Every method, forms, files, streamed bodies (fed from producer
// threads, some pausing, some stalling), cancels at random moments, timeouts,
// faults, caching clients, and clients destroyed with requests still live.
//
// Every --sample-every requests the load stops, the requests in flight finish
// (a bounded wait), and RSS, open descriptors and trel-http-fetcher.* files are
// sampled, so samples compare like with like. Exit status 0 only when no result
// was lost, duplicated or inconsistent with its request and the samples are
// flat after warm-up (the rule is printed with the table).

#include <trel/HttpClient.h>

#include "LocalServers.h"
#include "LoopbackServer.h"
#include "PrivateTemporaryDirectory.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QObject>
#include <QTimer>

#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <queue>
#include <random>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace {

using trel::test::LoopbackServer;
using trel::test::NginxServer;
using trel::test::RecordedRequest;
using trel::test::ScriptedResponse;

std::atomic<bool> interrupted { false };

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitizedBuild = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitizedBuild = true;
#else
constexpr bool kSanitizedBuild = false;
#endif
#else
constexpr bool kSanitizedBuild = false;
#endif

void onSignal(int)
{
    interrupted = true;
}

// Every request carries at least this timeout: nothing here may run for ever.
constexpr int kSafetyTimeoutMs = 8000;

struct Config
{
    qint64 requests = 1000000;
    quint32 seed = 20261123;
    int window = 64; // requests in flight, at most
    int clients = 4;
    // The first clients ask for HTTP/2: nginx answers them over TLS with
    // multiplexed streams; the loopback server keeps them on HTTP/1.1.
    int http2Clients = 1;
    int sampleEvery = 10000;
    int churnEvery = 2500; // one client is destroyed and replaced this often
    int deadlineS = 0; // 0: derived from the number of requests
    // The longest wait for the requests in flight at a sample: well past the
    // safety timeout every request carries, so only a lost result can outlast it.
    int drainS = 15;
};

// ---------------------------------------------------------------------------
// Streamed bodies are fed by producer threads. One scheduler serves every
// stream, so thousands of streams need no thread each: a stream appends its
// next chunk when it is due and waits its pause before the one after.

class ProducerPool
{
public:
    explicit ProducerPool(int threads)
    {
        for (int i = 0; i < threads; ++i) {
            workers.emplace_back([this] { run(); });
        }
    }
    ~ProducerPool() { stop(); }
    ProducerPool(const ProducerPool&) = delete;
    ProducerPool& operator=(const ProducerPool&) = delete;

    // Appends the chunks with `pauseMs` between them (after the first one,
    // `firstPauseMs`), then closes the queue.
    void feed(QSharedPointer<HttpClientQueue> queue, QList<QByteArray> chunks, int pauseMs, int firstPauseMs)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        jobs.push(Job { Clock::now(), sequence++,
            std::make_shared<Stream>(
                Stream { std::move(queue), std::move(chunks), 0, pauseMs, firstPauseMs }) });
        wake.notify_one();
    }

    void stop()
    {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            stopping = true;
            wake.notify_all();
        }
        for (std::thread& worker : workers) {
            if (worker.joinable()) {
                worker.join();
            }
        }
        // Whatever was still to be fed ends now.
        while (!jobs.empty()) {
            jobs.top().stream->queue->close();
            jobs.pop();
        }
    }

private:
    using Clock = std::chrono::steady_clock;
    struct Stream
    {
        QSharedPointer<HttpClientQueue> queue;
        QList<QByteArray> chunks;
        int next;
        int pauseMs;
        int firstPauseMs;
    };
    struct Job
    {
        Clock::time_point due;
        quint64 order;
        std::shared_ptr<Stream> stream;
        bool operator>(const Job& other) const
        {
            return due != other.due ? due > other.due : order > other.order;
        }
    };

    void run()
    {
        std::unique_lock<std::mutex> lock(mutex);
        while (!stopping) {
            if (jobs.empty()) {
                wake.wait(lock);
                continue;
            }
            const Clock::time_point due = jobs.top().due; // the heap may change while waiting
            if (due > Clock::now()) {
                wake.wait_until(lock, due);
                continue;
            }
            Job job = jobs.top();
            jobs.pop();
            lock.unlock();
            Stream& stream = *job.stream;
            int pause = -1;
            if (stream.next < stream.chunks.size()) {
                stream.queue->append(stream.chunks.at(stream.next));
                pause = stream.next == 0 ? stream.firstPauseMs : stream.pauseMs;
                ++stream.next;
            } else {
                stream.queue->close();
            }
            lock.lock();
            if (pause >= 0) {
                job.due = Clock::now() + std::chrono::milliseconds(pause);
                job.order = sequence++;
                jobs.push(job);
            }
        }
    }

    std::mutex mutex;
    std::condition_variable wake;
    std::priority_queue<Job, std::vector<Job>, std::greater<Job>> jobs;
    quint64 sequence = 0;
    bool stopping = false;
    std::vector<std::thread> workers;
};

// ---------------------------------------------------------------------------
// Process measurements.

double residentMegabytes()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly)) {
        return -1;
    }
    const QList<QByteArray> fields = statm.readAll().split(' ');
    return fields.value(1).toLongLong() * static_cast<double>(::sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

// Open descriptors, and the sockets among them (idle keep-alive connections,
// whose number between samples depends on how requests happened to overlap).
// One pass, so the difference is exact; the listing's own descriptor, closed
// by the time its link is read, is not counted.
struct Descriptors
{
    int all = 0;
    int sockets = 0;
};

Descriptors openDescriptors()
{
    const QDir fds(QStringLiteral("/proc/self/fd"));
    Descriptors count;
    for (const QString& entry : fds.entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)) {
        const QString target = QFile::symLinkTarget(fds.filePath(entry));
        if (target.isEmpty()) {
            continue;
        }
        ++count.all;
        if (target.contains(QLatin1String("socket:["))) {
            ++count.sockets;
        }
    }
    return count;
}

int temporaryFiles()
{
    return QDir::temp()
        .entryList({ QStringLiteral("trel-http-fetcher.*") }, QDir::Files | QDir::Hidden)
        .size();
}

// ---------------------------------------------------------------------------
// The loopback server's routes for the soak, on top of its default ones.

ScriptedResponse soakRoutes(const RecordedRequest& request)
{
    const QByteArray path = request.target.split('?').first();
    if (path == "/stall") {
        return ScriptedResponse::withFault(ScriptedResponse::Fault::Stall);
    }
    if (path.startsWith("/slow/")) {
        ScriptedResponse response = ScriptedResponse::ok("slow");
        response.delayMs = path.mid(6).toInt();
        return response;
    }
    if (path.startsWith("/chunked/")) {
        ScriptedResponse response = LoopbackServer::defaultRoutes([&] {
            RecordedRequest bytes = request;
            bytes.target = "/bytes/" + path.mid(9);
            return bytes;
        }());
        response.chunked = true;
        response.chunkSize = 512;
        return response;
    }
    if (path == "/fault/reset" || path == "/fault/close" || path == "/fault/truncate") {
        ScriptedResponse response = ScriptedResponse::ok(QByteArray(4000, 't'));
        response.fault = path.endsWith("reset") ? ScriptedResponse::Fault::ResetConnection
            : path.endsWith("close")            ? ScriptedResponse::Fault::CloseWithoutResponse
                                                : ScriptedResponse::Fault::Truncate;
        response.truncateAt = 1000;
        return response;
    }
    return LoopbackServer::defaultRoutes(request);
}

// ---------------------------------------------------------------------------

class Soak;

// Receives every slot-form result; the client may be gone by then.
class Sink : public QObject
{
    Q_OBJECT

public:
    explicit Sink(Soak& soak)
        : soak(soak)
    { }

public slots:
    void onResult(const TrelUrl& url, const HttpClientPrivate& context, int status, int code,
        const QByteArray& body, const HttpClientHeaders& headers);

private:
    Soak& soak;
};

struct Sample
{
    qint64 requests = 0;
    qint64 results = 0;
    qint64 lost = 0;
    qint64 duplicated = 0;
    qint64 bad = 0;
    qint64 cancelled = 0;
    qint64 timeouts = 0;
    qint64 cacheHits = 0;
    double rssMb = 0;
    int fds = 0;
    int sockets = 0;
    int tempFiles = 0;
    double elapsedS = 0;
    bool drained = true;
};

class Soak : public QObject
{
public:
    Soak(
        const Config& config, const QByteArray& nginx, const QByteArray& nginxTls, const QByteArray& loopback)
        : config(config)
        , nginxPlain(nginx)
        , nginxTls(nginxTls)
        , loopback(loopback)
        , random(config.seed)
        , tally(static_cast<size_t>(config.requests))
        , sink(*this)
        , producers(2)
    {
        clients.resize(static_cast<size_t>(config.clients));
        for (int i = 0; i < config.clients; ++i) {
            createClient(i);
        }
        nextSampleAt = std::min<qint64>(config.sampleEvery, config.requests);
        nextChurnAt = config.churnEvery;
        pumpTimer.setSingleShot(true);
        pumpTimer.setInterval(0);
        connect(&pumpTimer, &QTimer::timeout, this, [this] { pump(); });
        // Wakes the pump while nothing else happens: drain limits, the deadline, signals.
        watchdog.setInterval(100);
        connect(&watchdog, &QTimer::timeout, this, [this] { pump(); });
        std::printf("%10s %10s %6s %5s %5s %10s %9s %10s %8s %6s %7s %5s %9s\n", "requests", "results",
            "lost", "dup", "bad", "cancelled", "timeouts", "cache hits", "RSS MB", "fds", "sockets", "tmp",
            "elapsed s");
        std::fflush(stdout);
    }

    // Runs the whole load; true when every check passed.
    bool run()
    {
        clock.start();
        const int deadlineS
            = config.deadlineS > 0 ? config.deadlineS : 300 + static_cast<int>(config.requests / 500);
        deadline = QDeadlineTimer(static_cast<qint64>(deadlineS) * 1000);
        watchdog.start();
        pumpTimer.start();
        while (!finished) {
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        }
        watchdog.stop();
        return report();
    }

    void onResult(int index, int status, int code, const QByteArray& body)
    {
        if (index < 0 || index >= static_cast<int>(tally.size())) {
            ++strayResults;
            return;
        }
        ++results;
        Tally& t = tally[static_cast<size_t>(index)];
        if (t.results < 255) {
            ++t.results;
        }
        if (status == HttpClientStatus::Timeout) {
            ++timeouts;
        }
        const auto found = live.find(index);
        if (found == live.end()) {
            // A second result, one for a refused request, or one after its request was given up as lost.
            if (t.expected && t.results == 2) {
                ++duplicated;
                note("duplicated result", index, status, code);
            } else if (!t.expected) {
                ++duplicated;
                note("result for a request that expects none", index, status, code);
            } else {
                ++late;
                note("result after the request was counted lost", index, status, code);
            }
            return;
        }
        check(index, found->second, status, code, body);
        if (found->second.plan == CancelPlan::AfterResult) {
            cancelAfterResult.push_back({ found->second.slot, found->second.generation, found->second.id });
        }
        live.erase(found);
        requestPump();
    }

private:
    enum class Kind : quint8
    {
        Plain, // no check of the body
        Echo, // an OK 200 answer carries exactly the body sent
        Stall, // never answered: ends by timeout, cancel or destruction
        Cache, // the 1 KiB file, maybe from the cache
    };
    enum class CancelPlan : quint8
    {
        None,
        Immediately,
        AfterDelay,
        AfterResult,
    };
    struct Tally
    {
        quint8 results = 0;
        bool expected = false;
    };
    struct Live
    {
        int slot = 0;
        quint64 generation = 0;
        void* id = nullptr;
        bool callback = false;
        bool cancelled = false; // cancel() answered true
        Kind kind = Kind::Plain;
        CancelPlan plan = CancelPlan::None;
        // qHash gives a uint in Qt 5 and a size_t in Qt 6.
        decltype(qHash(QByteArray())) checksum = 0;
        int length = 0;
    };
    struct ClientSlot
    {
        std::unique_ptr<HttpClient> client;
        quint64 generation = 0;
        bool cache = false;
        bool http2 = false;
    };
    struct StaleCancel
    {
        int slot;
        quint64 generation;
        void* id;
    };

    void note(const char* what, int index, int status, int code)
    {
        if (++notes <= 20) {
            std::fprintf(
                stderr, "trel-soak: %s: request %d, status %d, code %d\n", what, index, status, code);
        }
    }

    void check(int index, const Live& request, int status, int code, const QByteArray& body)
    {
        bool good = true;
        if (request.cancelled) {
            good = status == HttpClientStatus::Error && code == -1;
        } else if (request.kind == Kind::Stall) {
            good = status == HttpClientStatus::Timeout || (status == HttpClientStatus::Error && code == -1);
        } else if (status == HttpClientStatus::OK && code == 200) {
            if (request.kind == Kind::Echo) {
                good = body.size() == request.length && qHash(body) == request.checksum;
            } else if (request.kind == Kind::Cache) {
                good = body.size() == 1024;
            }
        }
        if (!good) {
            ++bad;
            note("result inconsistent with its request", index, status, code);
        }
    }

    void requestPump()
    {
        if (!pumpTimer.isActive()) {
            pumpTimer.start();
        }
    }

    void createClient(int slot)
    {
        ClientSlot& c = clients[static_cast<size_t>(slot)];
        c.http2 = slot < config.http2Clients;
        c.client = std::make_unique<HttpClient>(
            nullptr, c.http2 ? HttpClient::Http2 : HttpClient::Http1, random() % 4 == 0);
        c.generation = ++generations;
        c.cache = random() % 2 == 0;
        if (c.cache) {
            // Room for a few dozen of the 1 KiB answers: the cache evicts too.
            c.client->setCacheSize(48 * 1024);
        }
    }

    int pick(int n) { return static_cast<int>(random() % static_cast<quint64>(n)); }

    QByteArray body(int maxSize)
    {
        const int size = pick(4) == 0 ? 0 : pick(maxSize + 1);
        QByteArray bytes(size, '\0');
        quint64 state = random();
        for (char& byte : bytes) {
            state = state * 6364136223846793005ULL + 1442695040888963407ULL;
            byte = static_cast<char>(state >> 56);
        }
        return bytes;
    }

    TrelUrl at(const QByteArray& base, const QByteArray& path) const
    {
        return TrelUrl::fromEncoded(base + path);
    }

    // Issues request `index` on a random client (or on `forcedSlot`, slot form only).
    // One request on its way out: the client, the options, and whether its
    // result comes to the callback or to the sink's slot.
    struct Outgoing
    {
        HttpClient& client;
        Live& request;
        HttpClientOptions options;
        HttpClient::Callback callback;
        Sink& sink;

        bool toCallback() const { return request.callback; }
        void* get(const TrelUrl& url)
        {
            return toCallback() ? client.get(url, options, callback)
                                : client.get(url, &sink, "onResult", options);
        }
        void* head(const TrelUrl& url)
        {
            return toCallback() ? client.head(url, options, callback)
                                : client.head(url, &sink, "onResult", options);
        }
        // 0 POST, 1 PUT, 2 DELETE, 3 PATCH, 4 postFile.
        void* withBody(int method, const TrelUrl& url, const QByteArray& data)
        {
            const bool cb = toCallback();
            switch (method) {
            case 0:
                return cb ? client.post(url, data, options, callback)
                          : client.post(url, data, &sink, "onResult", options);
            case 1:
                return cb ? client.put(url, data, options, callback)
                          : client.put(url, data, &sink, "onResult", options);
            case 2:
                return cb ? client.delete_(url, data, options, callback)
                          : client.delete_(url, data, &sink, "onResult", options);
            case 3:
                return cb ? client.patch(url, data, options, callback)
                          : client.patch(url, data, &sink, "onResult", options);
            default:
                return cb ? client.postFile(url, data, options, callback)
                          : client.postFile(url, data, &sink, "onResult", options);
            }
        }
        void* form(const TrelUrl& url, const QList<QPair<QString, QString>>& fields)
        {
            return toCallback() ? client.postForm(url, fields, options, callback)
                                : client.postForm(url, fields, &sink, "onResult", options);
        }
        void* postStream(const TrelUrl& url, const QSharedPointer<HttpClientQueue>& queue)
        {
            return toCallback() ? client.postStream(url, queue, options, callback)
                                : client.postStream(url, queue, &sink, "onResult", options);
        }
    };

    // Starts the next request on a random client (or on `forcedSlot`, which
    // takes slot results) and tracks it until its one result.
    void issue(int forcedSlot = -1)
    {
        const int index = static_cast<int>(issued++);
        const int slot = forcedSlot >= 0 ? forcedSlot : pick(config.clients);
        ClientSlot& c = clients[static_cast<size_t>(slot)];
        Live request;
        request.slot = slot;
        request.generation = c.generation;
        request.callback = forcedSlot < 0 && pick(2) == 0;
        HttpClientOptions options;
        options.setUserData(HttpClientPrivate(index));
        options.setVerifyPeer(false); // nginx's self-signed certificate
        options.setTimeoutMs(kSafetyTimeoutMs);
        Outgoing out { *c.client, request, options,
            [this, index](const HttpClientResult& r) { onResult(index, r.status, r.code, r.body); }, sink };
        bool cacheable = false;
        void* const id = send(out, c.http2, cacheable);
        track(index, request, id, cacheable && c.cache);
    }

    // Picks what to send, mostly by a roll of the dice, and sends it.
    void* send(Outgoing& out, bool http2, bool& cacheable)
    {
        const bool viaNginx = pick(2) == 0;
        const QByteArray& nginx = http2 ? nginxTls : nginxPlain;
        const QByteArray& server = viaNginx ? nginx : loopback;
        Live& request = out.request;
        const int roll = pick(100);
        if (roll < 14) { // static files, the cacheable one most often
            const int which = pick(4);
            if (which < 2) {
                request.kind = Kind::Cache;
                cacheable = true;
                return out.get(at(nginx, "/cache/1k?v=" + QByteArray::number(pick(64))));
            }
            return out.get(at(nginx, which == 2 ? "/files/index.html" : "/files/missing"));
        }
        if (roll < 24) { // the loopback server's generated answers
            static const char* const paths[]
                = { "/bytes/3000", "/status/503", "/redirect/3", "/gzip", "/chunked/20000", "/status/204" };
            return out.get(at(loopback, paths[pick(6)]));
        }
        if (roll < 30) {
            return out.head(at(server, "/files/1k"));
        }
        if (roll < 52) { // POST, PUT, DELETE, PATCH with a body that comes back
            const QByteArray data = body(8192);
            request.kind = Kind::Echo;
            request.length = data.size();
            request.checksum = qHash(data);
            return out.withBody(pick(4), at(server, "/echo"), data);
        }
        if (roll < 59) {
            QList<QPair<QString, QString>> fields;
            for (int i = pick(4); i >= 0; --i) {
                fields.append({ QStringLiteral("field%1").arg(i), QString::fromLatin1(body(300).toHex()) });
            }
            return out.form(at(server, viaNginx ? "/upload" : "/echo"), fields);
        }
        if (roll < 67) {
            return out.withBody(4, at(server, viaNginx ? "/upload" : "/echo"), body(16384));
        }
        if (roll < 79) {
            return stream(out, server);
        }
        if (roll < 87) { // timeouts: a server that never answers, or answers late
            out.options.setTimeoutMs(20 + pick(180));
            if (pick(2) == 0) {
                request.kind = Kind::Stall;
                return out.get(at(loopback, "/stall"));
            }
            return out.get(at(loopback, "/slow/" + QByteArray::number(pick(300))));
        }
        if (roll < 91) {
            static const char* const faults[] = { "/fault/reset", "/fault/close", "/fault/truncate" };
            return out.get(at(loopback, faults[pick(3)]));
        }
        // plain GETs that finish at once
        return out.get(at(server, viaNginx ? "/files/1k" : "/bytes/1024"));
    }

    // Expects one result for a started request (a refused one expects none,
    // unless the cache answered it) and plans a cancel for some.
    void track(int index, const Live& started, void* id, bool servedByCache)
    {
        Tally& t = tally[static_cast<size_t>(index)];
        if (!id) {
            if (!servedByCache) {
                ++refused; // no result may follow
                return;
            }
            ++cacheHits;
        }
        t.expected = true;
        Live request = started;
        request.id = id;
        const int plan = pick(100);
        if (id && plan < 5) {
            request.plan = CancelPlan::Immediately;
        } else if (id && plan < 12) {
            request.plan = CancelPlan::AfterDelay;
        } else if (id && plan < 15) {
            request.plan = CancelPlan::AfterResult;
        }
        const CancelPlan cancelPlan = request.plan;
        live.emplace(index, request);
        if (cancelPlan == CancelPlan::Immediately) {
            cancelLive(index);
        } else if (cancelPlan == CancelPlan::AfterDelay) {
            QTimer::singleShot(pick(30), this, [this, index] { cancelLive(index); });
        }
    }

    // A streamed body: fed on this thread before or after the call, by a
    // producer thread with pauses, or by one that stalls past the timeout.
    void* stream(Outgoing& out, const QByteArray& server)
    {
        auto queue = QSharedPointer<HttpClientQueue>::create();
        QList<QByteArray> chunks;
        for (int i = pick(6); i >= 0; --i) {
            chunks.append(pick(5) == 0 ? QByteArray() : body(4096));
        }
        QByteArray all;
        for (const QByteArray& chunk : chunks) {
            all += chunk;
        }
        const int how = pick(10);
        const bool stalls = how == 0;
        if (stalls) {
            out.options.setTimeoutMs(30 + pick(150));
        } else {
            out.request.kind = Kind::Echo;
            out.request.length = all.size();
            out.request.checksum = qHash(all);
        }
        if (how == 1) {
            for (const QByteArray& chunk : chunks) {
                queue->append(chunk);
            }
            queue->close();
        }
        void* const id = out.postStream(at(server, "/echo"), queue);
        if (how == 2) {
            for (const QByteArray& chunk : chunks) {
                queue->append(chunk);
            }
            queue->close();
        } else if (stalls) {
            // Long past the timeout: the request ends while the producer still holds the queue.
            producers.feed(queue, chunks, 0, 400 + pick(400));
        } else if (how >= 3) {
            producers.feed(queue, chunks, how < 6 ? 0 : pick(10), pick(10));
        }
        return id;
    }

    void cancelLive(int index)
    {
        const auto found = live.find(index);
        if (found == live.end() || !found->second.id) {
            return; // answered already
        }
        Live& request = found->second;
        ClientSlot& c = clients[static_cast<size_t>(request.slot)];
        if (c.generation != request.generation || request.cancelled) {
            return; // its client is gone: the destruction ends it
        }
        if (c.client->cancel(request.id)) {
            request.cancelled = true;
            ++cancelled;
        }
    }

    // Destroys a client with requests still live and puts a new one in its place.
    void churn()
    {
        const int slot = static_cast<int>(churns++ % static_cast<quint64>(config.clients));
        ClientSlot& c = clients[static_cast<size_t>(slot)];
        const quint64 generation = c.generation;
        // A callback result still queued when its client goes is dropped with
        // the client. Callback requests are cancelled and their results taken
        // first, so every result stays countable; slot results outlive the client.
        std::vector<int> callbacks;
        for (auto& [index, request] : live) {
            if (request.generation == generation && request.callback) {
                callbacks.push_back(index);
            }
        }
        for (const int index : callbacks) {
            cancelLive(index);
        }
        // A few fresh requests are certainly live at the destruction.
        for (int i = 0; i < 6 && issued < nextSampleAt; ++i) {
            issue(slot);
        }
        const QDeadlineTimer wait(10000);
        auto pendingCallbacks = [&] {
            return std::any_of(
                callbacks.begin(), callbacks.end(), [&](int index) { return live.count(index); });
        };
        while (pendingCallbacks() && !wait.hasExpired()) {
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
        }
        for (auto& [index, request] : live) {
            if (request.generation == generation && !request.callback && request.id) {
                ++liveAtDestruction;
            }
        }
        c.client.reset();
        createClient(slot);
    }

    void pump()
    {
        if (busy || finished) {
            return;
        }
        busy = true;
        if (interrupted || deadline.hasExpired()) {
            failure = interrupted ? "interrupted" : "global deadline passed";
            finish();
            busy = false;
            return;
        }
        for (const StaleCancel& stale : cancelAfterResult) {
            ClientSlot& c = clients[static_cast<size_t>(stale.slot)];
            if (c.generation == stale.generation) {
                ++lateCancels;
                if (c.client->cancel(stale.id)) {
                    ++bad;
                    std::fprintf(stderr, "trel-soak: cancel of an answered request returned true\n");
                }
            }
        }
        cancelAfterResult.clear();
        if (!draining) {
            while (issued < nextSampleAt && static_cast<int>(live.size()) < config.window) {
                if (issued >= nextChurnAt) {
                    nextChurnAt += config.churnEvery;
                    churn();
                    continue;
                }
                issue();
            }
            if (issued >= nextSampleAt) {
                draining = true;
                drainLimit = QDeadlineTimer(static_cast<qint64>(config.drainS) * 1000);
            }
        }
        if (draining && (live.empty() || drainLimit.hasExpired())) {
            draining = false;
            sample();
            if (issued >= config.requests) {
                finish();
            } else {
                nextSampleAt = std::min<qint64>(nextSampleAt + config.sampleEvery, config.requests);
                requestPump();
            }
        }
        busy = false;
    }

    void sample()
    {
        Sample s;
        s.drained = live.empty();
        // What is still awaited after the bounded wait will not come.
        for (const auto& entry : live) {
            ++lost;
            note("no result", entry.first, -99, -99);
        }
        live.clear();
        s.requests = issued;
        s.results = results;
        s.lost = lost;
        s.duplicated = duplicated;
        s.bad = bad;
        s.cancelled = cancelled;
        s.timeouts = timeouts;
        s.cacheHits = cacheHits;
        s.rssMb = residentMegabytes();
        const Descriptors descriptors = openDescriptors();
        s.fds = descriptors.all;
        s.sockets = descriptors.sockets;
        s.tempFiles = temporaryFiles();
        s.elapsedS = clock.elapsed() / 1000.0;
        samples.push_back(s);
        printRow(s);
    }

    static void printRow(const Sample& s)
    {
        std::printf("%10lld %10lld %6lld %5lld %5lld %10lld %9lld %10lld %8.1f %6d %7d %5d %9.1f%s\n",
            static_cast<long long>(s.requests), static_cast<long long>(s.results),
            static_cast<long long>(s.lost), static_cast<long long>(s.duplicated),
            static_cast<long long>(s.bad), static_cast<long long>(s.cancelled),
            static_cast<long long>(s.timeouts), static_cast<long long>(s.cacheHits), s.rssMb, s.fds,
            s.sockets, s.tempFiles, s.elapsedS, s.drained ? "" : "  (not drained)");
        std::fflush(stdout);
    }

    void finish()
    {
        if (finished) {
            return;
        }
        finished = true;
        // Slot results of the destroyed clients, and any stray second result,
        // arrive within a few turns of the event loop.
        for (ClientSlot& c : clients) {
            c.client.reset();
        }
        producers.stop();
        const QDeadlineTimer settle(300);
        while (!settle.hasExpired()) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
        }
    }

    bool report()
    {
        bool ok = failure.empty();
        // Every request that expected a result, counted once more at the end.
        qint64 missing = 0;
        qint64 doubled = 0;
        for (size_t i = 0; i < static_cast<size_t>(issued); ++i) {
            const Tally& t = tally[i];
            if (t.expected && t.results == 0) {
                ++missing;
            }
            if ((t.expected && t.results > 1) || (!t.expected && t.results > 0)) {
                ++doubled;
            }
        }
        std::printf(
            "\nlost: no result within %d s once the load stopped for a sample, or by the end; dup: a "
            "second result, or one for a refused request; bad: a result that contradicts its request "
            "(an echo unlike the body sent, an answer from the route that never answers, a cancelled "
            "request not ending Error -1, a cancel accepted after the result); cancelled: cancel() "
            "returned true; RSS, fds, sockets, tmp (trel-http-fetcher.* files): sampled with nothing in "
            "flight\n",
            config.drainS);
        std::printf(
            "requests issued %lld of %lld; results %lld; lost %lld; duplicated %lld; inconsistent %lld; "
            "late %lld; stray %lld\n",
            static_cast<long long>(issued), static_cast<long long>(config.requests),
            static_cast<long long>(results), static_cast<long long>(missing), static_cast<long long>(doubled),
            static_cast<long long>(bad), static_cast<long long>(late), static_cast<long long>(strayResults));
        std::printf(
            "refused %lld; cache hits %lld; cancelled %lld; cancels after the result %lld (all refused: "
            "%s); slot requests live when their client was destroyed %lld; clients replaced %lld\n",
            static_cast<long long>(refused), static_cast<long long>(cacheHits),
            static_cast<long long>(cancelled), static_cast<long long>(lateCancels),
            bad == 0 ? "yes" : "see inconsistent", static_cast<long long>(liveAtDestruction),
            static_cast<long long>(churns));
        if (issued < config.requests) {
            ok = false;
        }
        if (missing != 0 || doubled != 0 || bad != 0 || strayResults != 0 || late != 0) {
            ok = false;
        }
        ok = flat() && ok;
        if (!failure.empty()) {
            std::printf("FAILED: %s\n", failure.c_str());
        }
        std::printf("%s\n", ok ? "PASS" : "FAIL");
        std::fflush(stdout);
        return ok;
    }

    // Flat after warm-up: the first 20% of the samples (at least one) set the
    // baseline, and every later sample stays within it plus a small slack.
    // Samples are taken with nothing in flight, so the only descriptors that
    // vary are idle keep-alive sockets (at most a few per client and server).
    bool flat() const
    {
        constexpr int kOtherFdSlack = 2;
        constexpr int kSocketSlack = 32;
        constexpr double kRssGrowth = 0.10;
        constexpr double kRssSlackMb = 8;
        std::printf(
            "flat after warm-up: the first 20%% of samples (at least 1) are warm-up; every later sample "
            "has descriptors other than sockets <= warm-up max + %d, sockets <= warm-up max + %d, "
            "temporary files <= warm-up max, RSS <= max(warm-up max * %.2f, warm-up max + %.0f MB)%s\n",
            kOtherFdSlack, kSocketSlack, 1 + kRssGrowth, kRssSlackMb,
            kSanitizedBuild ? " (RSS not judged: the sanitizer keeps freed memory in quarantine)" : "");
        if (samples.size() < 2) {
            std::printf("flatness: fewer than two samples, nothing to compare\n");
            return samples.size() == 1;
        }
        struct Peak
        {
            double rss = 0;
            int otherFds = 0;
            int sockets = 0;
            int tempFiles = 0;
        };
        auto peak = [&](size_t from, size_t to) {
            Peak p;
            for (size_t i = from; i < to; ++i) {
                p.rss = std::max(p.rss, samples[i].rssMb);
                p.otherFds = std::max(p.otherFds, samples[i].fds - samples[i].sockets);
                p.sockets = std::max(p.sockets, samples[i].sockets);
                p.tempFiles = std::max(p.tempFiles, samples[i].tempFiles);
            }
            return p;
        };
        const size_t warm = std::max<size_t>(1, (samples.size() + 4) / 5);
        const Peak warmUp = peak(0, warm);
        const Peak after = peak(warm, samples.size());
        const double rssLimit = std::max(warmUp.rss * (1 + kRssGrowth), warmUp.rss + kRssSlackMb);
        const bool rssFlat = kSanitizedBuild || after.rss <= rssLimit;
        const bool ok = rssFlat && after.otherFds <= warmUp.otherFds + kOtherFdSlack
            && after.sockets <= warmUp.sockets + kSocketSlack && after.tempFiles <= warmUp.tempFiles;
        std::printf(
            "flatness (%zu warm-up samples of %zu): RSS max %.1f MB (limit %.1f), other descriptors max "
            "%d (limit %d), sockets max %d (limit %d), temporary files max %d (limit %d): %s\n",
            warm, samples.size(), after.rss, rssLimit, after.otherFds, warmUp.otherFds + kOtherFdSlack,
            after.sockets, warmUp.sockets + kSocketSlack, after.tempFiles, warmUp.tempFiles,
            ok ? "flat" : "NOT FLAT");
        return ok;
    }

    const Config config;
    const QByteArray nginxPlain;
    const QByteArray nginxTls; // HTTP/2 over TLS, for the HTTP/2 clients
    const QByteArray loopback;
    std::mt19937_64 random;
    std::vector<Tally> tally; // one per request, allocated (and touched) up front
    std::unordered_map<int, Live> live; // awaiting their result
    std::vector<ClientSlot> clients;
    Sink sink;
    ProducerPool producers;
    std::vector<StaleCancel> cancelAfterResult;
    std::vector<Sample> samples;
    QTimer pumpTimer;
    QTimer watchdog;
    QElapsedTimer clock;
    QDeadlineTimer deadline;
    QDeadlineTimer drainLimit;
    quint64 generations = 0;
    quint64 churns = 0;
    qint64 issued = 0;
    qint64 nextSampleAt = 0;
    qint64 nextChurnAt = 0;
    qint64 results = 0;
    qint64 lost = 0;
    qint64 duplicated = 0;
    qint64 late = 0;
    qint64 bad = 0;
    qint64 strayResults = 0;
    qint64 cancelled = 0;
    qint64 lateCancels = 0;
    qint64 timeouts = 0;
    qint64 cacheHits = 0;
    qint64 refused = 0;
    qint64 liveAtDestruction = 0;
    int notes = 0;
    bool busy = false;
    bool draining = false;
    bool finished = false;
    std::string failure;
};

void Sink::onResult(const TrelUrl& /*url*/, const HttpClientPrivate& context, int status, int code,
    const QByteArray& body, const HttpClientHeaders& /*headers*/)
{
    soak.onResult(context.getInt(), status, code, body);
}

int usage()
{
    std::fprintf(stderr,
        "usage: trel-soak [--requests N] [--seed S] [--window W] [--clients C] [--http2-clients H] "
        "[--sample-every K] "
        "[--churn-every K] [--deadline-s S]\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    Config config;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (i + 1 >= argc) {
            return usage();
        }
        const long long value = std::atoll(argv[++i]);
        if (value < 0 || (value == 0 && option != "--http2-clients")) {
            return usage();
        }
        if (option == "--requests") {
            config.requests = value;
        } else if (option == "--seed") {
            config.seed = static_cast<quint32>(value);
        } else if (option == "--window") {
            config.window = static_cast<int>(value);
        } else if (option == "--clients") {
            config.clients = static_cast<int>(value);
        } else if (option == "--http2-clients") {
            config.http2Clients = static_cast<int>(value);
        } else if (option == "--sample-every") {
            config.sampleEvery = static_cast<int>(value);
        } else if (option == "--churn-every") {
            config.churnEvery = static_cast<int>(value);
        } else if (option == "--deadline-s") {
            config.deadlineS = static_cast<int>(value);
        } else {
            return usage();
        }
    }
    if (config.requests > 100000000) {
        return usage();
    }

    const trel::test::PrivateTemporaryDirectory temp("trel-soak");
    log4cplus::Initializer logging;
    // The library's refusals and errors go to standard error; its trace stays off.
    {
        log4cplus::SharedAppenderPtr console(new log4cplus::ConsoleAppender(true, true));
        console->setLayout(std::make_unique<log4cplus::PatternLayout>(LOG4CPLUS_TEXT("%-5p %m%n")));
        log4cplus::Logger::getRoot().addAppender(console);
        log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("HttpClient")).setLogLevel(log4cplus::ERROR_LOG_LEVEL);
    }
    QCoreApplication app(argc, argv);
    ::signal(SIGINT, onSignal);
    ::signal(SIGTERM, onSignal);
    ::signal(SIGPIPE, SIG_IGN);

    LoopbackServer loopback;
    loopback.setHandler(&soakRoutes);
    loopback.setRecording(false); // a million recorded requests would be the biggest leak here
    if (!loopback.start()) {
        std::fprintf(stderr, "trel-soak: the loopback server did not start\n");
        return 3;
    }
    NginxServer nginx;
    NginxServer::Options nginxOptions;
    nginxOptions.backendPort = loopback.port();
    nginxOptions.accessLog = false;
    nginxOptions.http2Tls = config.http2Clients > 0;
    if (!nginx.start(nginxOptions)) {
        std::fprintf(stderr, "trel-soak: nginx did not start: %s\n", qPrintable(nginx.error()));
        loopback.stop();
        return 3;
    }
    std::printf(
        "trel-soak: %lld requests, seed %u, window %d, %d clients (%d of them HTTP/2; one replaced every "
        "%d requests), sample every %d requests; nginx on port %u (TLS %u), loopback server on port %u\n",
        static_cast<long long>(config.requests), config.seed, config.window, config.clients,
        std::min(config.http2Clients, config.clients), config.churnEvery, config.sampleEvery, nginx.port(),
        nginx.tlsPort(), loopback.port());

    bool ok = false;
    {
        const QByteArray tls = "https://127.0.0.1:" + QByteArray::number(nginx.tlsPort());
        Soak soak(config, nginx.url(""), tls, loopback.url(""));
        ok = soak.run();
    }
    nginx.stop();
    loopback.stop();
    return ok ? 0 : 1;
}

#include "SoakMain.moc"
