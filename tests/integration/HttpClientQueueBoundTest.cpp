// HttpClient::postStream() fed through a bounded HttpClientQueue: a producer far
// faster than the server is held back to the queue's capacity, so memory stays
// flat and every byte arrives; and a producer waiting on a full queue learns at
// once, with false, that the request ended (cancel, timeout, client destroyed).

#include <trel/HttpClient.h>
#include <trel/HttpClientQueue.h>

#include "ProcessState.h"
#include "StreamProducers.h"
#include "WaitFor.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <QByteArray>
#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QMutex>
#include <QMutexLocker>
#include <QSharedPointer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TREL_TEST_MEASURES_LIVE_HEAP 1
// The bytes the sanitizer's allocator has handed out and not taken back. Both
// runtimes export it; GCC installs no header declaring it
// (sanitizer/allocator_interface.h comes with Clang only).
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace {

using trel::test::threadState;

constexpr qint64 kMiB = qint64(1) << 20;

// The measured case: 64 KiB chunks, 200 MiB in all, into a 1 MiB queue.
constexpr int kChunkBytes = 64 * 1024;
constexpr qint64 kBodyBytes = 200 * kMiB;
constexpr qint64 kCapacity = 1 * kMiB;

// Once the producer waits on the full queue the server reads 32 MiB/s: the
// 200 MiB take six seconds and a quarter. The producer only copies its chunks
// (the expected hash is taken beforehand): alone it manages over a GiB/s, about
// 70 MiB/s under ThreadSanitizer, less on a loaded machine; it need not outrun
// the server for the bounds below to hold. A real slow server (1 MB/s) would
// hold the test for minutes without showing anything more.
constexpr qint64 kReadBytesPerSecond = 32 * kMiB;

// What may lie between the producer and the server once the queue is full:
// the queue (capacity plus one chunk), libcurl's upload buffer and both
// sockets' kernel buffers (the sender's grows to 4 MiB on loopback).
constexpr qint64 kMostAhead = 16 * kMiB;

// The bound on the process's memory growth while the body streams.
constexpr qint64 kMostGrowth = 16 * kMiB;

#if !defined(TREL_TEST_MEASURES_LIVE_HEAP)
// One field of /proc/self/status in bytes ("VmRSS", "VmHWM"); -1 when absent.
qint64 statusBytes(const std::string& field)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field + ":", 0) == 0) {
            return std::atoll(line.c_str() + field.size() + 1) * 1024;
        }
    }
    return -1;
}
#endif

// The memory the process uses, sampled between a start and an end. Plain builds
// measure the resident set (the kernel's peak, reset at the start, and the
// samples). Under the sanitizers the resident set is theirs more than the
// program's: AddressSanitizer keeps freed blocks in quarantine (256 MiB by
// default) and ThreadSanitizer maps shadow for every address ever used, so
// both count every chunk ever freed. There the live heap is measured instead,
// which is what an unbounded queue grows.
class MemoryWatch
{
public:
    MemoryWatch()
    {
#if !defined(TREL_TEST_MEASURES_LIVE_HEAP)
        // Writing 5 resets the peak resident set (VmHWM) to the current one.
        std::ofstream("/proc/self/clear_refs") << "5";
#endif
        baseline = current();
        peak = baseline;
    }

    void sample()
    {
        peak = std::max(peak, current());
    }

    qint64 growth()
    {
        sample();
#if !defined(TREL_TEST_MEASURES_LIVE_HEAP)
        peak = std::max(peak, statusBytes("VmHWM"));
#endif
        return peak - baseline;
    }

    qint64 startBytes() const
    {
        return baseline;
    }

    // What is measured, for the log.
    static const char* measure()
    {
#if defined(TREL_TEST_MEASURES_LIVE_HEAP)
        return "live heap";
#else
        return "resident set";
#endif
    }

private:
    static qint64 current()
    {
#if defined(TREL_TEST_MEASURES_LIVE_HEAP)
        return static_cast<qint64>(__sanitizer_get_current_allocated_bytes());
#else
        return statusBytes("VmRSS");
#endif
    }

    qint64 baseline = 0;
    qint64 peak = 0;
};

// The body of a chunked HTTP/1.1 request, decoded as it arrives and hashed
// instead of kept.
class ChunkedBody
{
public:
    // Takes what it can from the front of `input`, leaving an incomplete line.
    // False when the framing is malformed.
    bool consume(QByteArray& input)
    {
        int position = 0;
        bool wellFormed = true;
        while (wellFormed && state != State::Done) {
            if (state == State::Data) {
                const int take = static_cast<int>(std::min<qint64>(remaining, input.size() - position));
                if (take == 0) {
                    break;
                }
                hash.addData(QByteArray::fromRawData(input.constData() + position, take));
                position += take;
                remaining -= take;
                total += take;
                state = remaining == 0 ? State::DataEnd : State::Data;
                continue;
            }
            const int lineEnd = input.indexOf("\r\n", position);
            if (lineEnd < 0) {
                break;
            }
            wellFormed = takeLine(input.mid(position, lineEnd - position));
            position = lineEnd + 2;
        }
        input.remove(0, position);
        return wellFormed;
    }

    bool ended() const { return state == State::Done; }
    qint64 size() const { return total; }
    QByteArray sha256Hex() const { return hash.result().toHex(); }

private:
    enum class State
    {
        SizeLine,
        Data,
        DataEnd,
        Trailer,
        Done
    };

    bool takeLine(const QByteArray& line)
    {
        switch (state) {
        case State::SizeLine: {
            bool ok = false;
            remaining = line.split(';').first().trimmed().toLongLong(&ok, 16);
            state = remaining == 0 ? State::Trailer : State::Data;
            return ok && remaining >= 0;
        }
        case State::DataEnd:
            state = State::SizeLine;
            return line.isEmpty();
        case State::Trailer:
            state = line.isEmpty() ? State::Done : State::Trailer;
            return true;
        default:
            return false;
        }
    }

    State state = State::SizeLine;
    qint64 remaining = 0;
    qint64 total = 0;
    QCryptographicHash hash { QCryptographicHash::Sha256 };
};

// A one-connection HTTP/1.1 server on 127.0.0.1 (ephemeral port), on a thread of
// its own. It reads a chunked request body at a set pace, hashing it instead of
// keeping it, and answers 200 once the body ends. At pace 0 it accepts the
// connection and never reads from it, as a server that stopped reading.
class PacedSink
{
public:
    // `held`: reads nothing after the connection until release().
    explicit PacedSink(qint64 bytesPerSecond, bool held = false)
        : bytesPerSecond(bytesPerSecond)
        , held(held)
    { }
    ~PacedSink() { stop(); }
    PacedSink(const PacedSink&) = delete;
    PacedSink& operator=(const PacedSink&) = delete;

    bool start()
    {
        if (::pipe2(wakeFds, O_CLOEXEC) != 0) {
            return false;
        }
        listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        // A small receive window, inherited by the accepted socket: the kernel
        // then buffers little on the server's side, and the pace is the server's.
        const int window = 128 * 1024;
        ::setsockopt(listenFd, SOL_SOCKET, SO_RCVBUF, &window, sizeof(window));
        sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = 0;
        socklen_t length = sizeof(address);
        if (listenFd < 0 || ::bind(listenFd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0
            || ::listen(listenFd, 1) != 0
            || ::getsockname(listenFd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            return false;
        }
        port = ntohs(address.sin_port);
        thread = std::thread([this] { run(); });
        return true;
    }

    // Idempotent: wakes the thread, joins it and closes every socket.
    void stop()
    {
        if (thread.joinable()) {
            const char wake = 'x';
            [[maybe_unused]] const ssize_t written = ::write(wakeFds[1], &wake, 1);
            thread.join();
        }
        for (int* fd : { &connectionFd, &listenFd, &wakeFds[0], &wakeFds[1] }) {
            if (*fd >= 0) {
                ::close(*fd);
                *fd = -1;
            }
        }
    }

    TrelUrl url() const
    {
        return TrelUrl::fromEncoded("http://127.0.0.1:" + QByteArray::number(port) + "/sink");
    }

    // Starts the reading pace now.
    void release() { held.store(false); }

    bool accepted() const { return connectionAccepted.load(); }
    qint64 bodyBytes() const { return bodyReceived.load(); }
    bool bodyEnded() const { return bodyComplete.load(); }
    bool framingBroken() const { return malformed.load(); }
    qint64 readingMs() const { return readingTook.load(); }

    // Valid once bodyEnded().
    QByteArray bodySha256() const
    {
        QMutexLocker locker(&mutex);
        return bodyHash;
    }

private:
    void run()
    {
        if (!waitReadable(listenFd, -1)) {
            return;
        }
        connectionFd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        connectionAccepted.store(connectionFd >= 0);
        if (connectionFd < 0) {
            return;
        }
        if (bytesPerSecond <= 0) {
            waitReadable(-1, -1); // reads nothing until stopped
            return;
        }
        if (waitReleased()) {
            readPaced();
        }
    }

    // False once stop() was called before release().
    bool waitReleased()
    {
        while (held.load()) {
            if (!waitReadable(-1, 5)) {
                return false;
            }
        }
        return true;
    }

    // Waits until `fd` (none when -1) is readable, for at most `timeoutMs`
    // (no limit when -1). False once stop() was called or on error.
    bool waitReadable(int fd, int timeoutMs)
    {
        pollfd fds[2] = { { wakeFds[0], POLLIN, 0 }, { fd, POLLIN, 0 } };
        const int ready = ::poll(fds, fd >= 0 ? 2 : 1, timeoutMs);
        return ready >= 0 && (fds[0].revents & POLLIN) == 0;
    }

    void readPaced()
    {
        QElapsedTimer clock;
        clock.start();
        std::vector<char> buffer(64 * 1024);
        QByteArray input;
        ChunkedBody body;
        bool headRead = false;
        qint64 received = 0;
        for (;;) {
            // Ahead of the pace: wait (stop() interrupts) until it catches up.
            const qint64 allowed = bytesPerSecond * clock.elapsed() / 1000 + qint64(buffer.size());
            if (received >= allowed) {
                const int behindMs = static_cast<int>((received - allowed) * 1000 / bytesPerSecond) + 1;
                if (!waitReadable(-1, behindMs)) {
                    return;
                }
                continue;
            }
            if (!waitReadable(connectionFd, -1)) {
                return;
            }
            const size_t room
                = static_cast<size_t>(std::min<qint64>(qint64(buffer.size()), allowed - received));
            const ssize_t got = ::recv(connectionFd, buffer.data(), room, 0);
            if (got <= 0) {
                return; // the client closed or reset the connection
            }
            received += got;
            input.append(buffer.data(), static_cast<int>(got));
            if (!headRead) {
                headRead = takeHead(input);
                if (!headRead) {
                    continue;
                }
            }
            if (!body.consume(input)) {
                malformed.store(true);
                return;
            }
            bodyReceived.store(body.size());
            if (body.ended()) {
                finish(body, clock.elapsed());
                return;
            }
        }
    }

    // Removes the request head from `input` once complete, answering an
    // "Expect: 100-continue" so that the client sends the body at once.
    bool takeHead(QByteArray& input)
    {
        const int end = input.indexOf("\r\n\r\n");
        if (end < 0) {
            return false;
        }
        if (input.left(end).toLower().contains("\r\nexpect: 100-continue")) {
            sendAll("HTTP/1.1 100 Continue\r\n\r\n");
        }
        input.remove(0, end + 4);
        return true;
    }

    void finish(const ChunkedBody& body, qint64 elapsedMs)
    {
        {
            QMutexLocker locker(&mutex);
            bodyHash = body.sha256Hex();
        }
        readingTook.store(elapsedMs);
        bodyComplete.store(true);
        sendAll("HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    }

    void sendAll(const QByteArray& bytes)
    {
        int sent = 0;
        while (sent < bytes.size()) {
            const ssize_t n
                = ::send(connectionFd, bytes.constData() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) {
                return;
            }
            sent += static_cast<int>(n);
        }
    }

    const qint64 bytesPerSecond;
    std::atomic<bool> held;
    int listenFd = -1;
    int connectionFd = -1;
    int wakeFds[2] = { -1, -1 };
    quint16 port = 0;
    std::atomic<bool> connectionAccepted { false };
    std::atomic<qint64> bodyReceived { 0 };
    std::atomic<bool> bodyComplete { false };
    std::atomic<bool> malformed { false };
    std::atomic<qint64> readingTook { 0 };
    mutable QMutex mutex;
    QByteArray bodyHash;
    std::thread thread; // last: started once the members above exist
};

// The body's chunks: kChunkBytes cut at shifting offsets from a random block,
// no two neighbours alike, so a lost, repeated or swapped chunk changes the
// hash. Read-only once made, shared by the producer's thread and the test's.
class BodyChunks
{
public:
    BodyChunks()
        : block(trel::test::randomBytes(static_cast<int>(kMiB) + kChunkBytes, 7))
    { }

    // A copy, as a producer's fresh chunk would be.
    QByteArray chunk(qint64 index) const { return block.mid(offset(index), kChunkBytes); }

    // The SHA-256 of the first `total` bytes (whole chunks), in hex.
    QByteArray sha256Hex(qint64 total) const
    {
        QCryptographicHash hash(QCryptographicHash::Sha256);
        for (qint64 index = 0; index * kChunkBytes < total; ++index) {
            hash.addData(QByteArray::fromRawData(block.constData() + offset(index), kChunkBytes));
        }
        return hash.result().toHex();
    }

private:
    static int offset(qint64 index) { return static_cast<int>(index * 4099 % kMiB); }

    const QByteArray block;
};

// Pushes `total` bytes of `body` on a thread of its own, as fast as the queue
// takes them, then closes the queue. Stops at the first refused push.
class FastProducer
{
public:
    FastProducer(QSharedPointer<HttpClientQueue> queue, const BodyChunks& body, qint64 total,
        std::function<qint64()> serverProgress)
        : queue(std::move(queue))
        , body(body)
        , total(total)
        , serverProgress(std::move(serverProgress))
        , thread([this] { run(); })
    { }

    ~FastProducer()
    {
        // Still running means an expectation already failed: closing releases
        // a waiting push so that the thread can be joined.
        if (!finished.load()) {
            queue->close();
        }
        thread.join();
    }

    FastProducer(const FastProducer&) = delete;
    FastProducer& operator=(const FastProducer&) = delete;

    bool waitFinished(int timeoutMs)
    {
        return trel::test::waitFor([this] { return finished.load(); }, timeoutMs);
    }

    // True once the producer is seen asleep in a push while the queue is full:
    // nothing else in its loop sleeps.
    bool waitBlocked(int timeoutMs)
    {
        return trel::test::waitFor(
            [this] {
                const pid_t tid = producerTid.load();
                return tid != 0 && !finished.load() && queue->bytesQueued() >= kCapacity
                    && threadState(tid) == 'S' && !finished.load();
            },
            timeoutMs);
    }

    bool isFinished() const { return finished.load(); }
    // The following are meaningful once finished.
    bool wasRefused() const { return refused.load(); }
    qint64 acceptedBytes() const { return accepted.load(); }
    qint64 mostQueued() const { return mostSeenQueued.load(); }
    qint64 serverBytesAtEnd() const { return serverAtEnd.load(); }
    qint64 elapsedMs() const { return took.load(); }

private:
    void run()
    {
        producerTid.store(static_cast<pid_t>(::syscall(SYS_gettid)));
        QElapsedTimer clock;
        clock.start();
        for (qint64 index = 0; index * kChunkBytes < total; ++index) {
            if (!queue->append(body.chunk(index))) {
                refused.store(true);
                break;
            }
            accepted.fetch_add(kChunkBytes);
            mostSeenQueued.store(std::max(mostSeenQueued.load(), queue->bytesQueued()));
        }
        queue->close();
        serverAtEnd.store(serverProgress());
        took.store(clock.elapsed());
        finished.store(true);
    }

    const QSharedPointer<HttpClientQueue> queue;
    const BodyChunks& body;
    const qint64 total;
    const std::function<qint64()> serverProgress;
    std::atomic<pid_t> producerTid { 0 };
    std::atomic<bool> refused { false };
    std::atomic<qint64> accepted { 0 };
    std::atomic<qint64> mostSeenQueued { 0 };
    std::atomic<qint64> serverAtEnd { 0 };
    std::atomic<qint64> took { 0 };
    std::atomic<bool> finished { false };
    std::thread thread; // last: started once the members above exist
};

// Collects callback results in arrival order, with whether the queue was
// already abandoned when each was delivered.
struct Results
{
    HttpClient::Callback callback(const QSharedPointer<HttpClientQueue>& queue)
    {
        return [this, queue](const HttpClientResult& result) {
            received.push_back(result);
            abandonedAtDelivery.push_back(queue->isAbandoned());
        };
    }
    std::vector<HttpClientResult> received;
    std::vector<bool> abandonedAtDelivery;
};

QSharedPointer<HttpClientQueue> boundedQueue()
{
    auto queue = QSharedPointer<HttpClientQueue>::create(nullptr);
    queue->setCapacity(kCapacity);
    return queue;
}

TEST(HttpClientQueueBound, TwoHundredMebibytesToASlowReaderKeepMemoryFlatAndArriveWhole)
{
    const BodyChunks body;
    const QByteArray expectedSha256 = body.sha256Hex(kBodyBytes);
    PacedSink sink(kReadBytesPerSecond, true);
    ASSERT_TRUE(sink.start());
    HttpClient client;
    Results results;
    const auto queue = boundedQueue();
    MemoryWatch memory;

    ASSERT_NE(client.postStream(sink.url(), queue, HttpClientOptions(), results.callback(queue)), nullptr);
    FastProducer producer(queue, body, kBodyBytes, [&sink] { return sink.bodyBytes(); });
    // Held back first: with the server reading nothing the producer must end up
    // asleep on a full queue, however slowly this build runs it. Watching for that
    // while the server reads would depend on the producer outrunning the server.
    ASSERT_TRUE(producer.waitBlocked(60000)) << "queued " << queue->bytesQueued();
    sink.release();
    const bool done = trel::test::waitFor(
        [&] {
            memory.sample();
            return producer.isFinished() && !results.received.empty();
        },
        120000);
    const qint64 growth = memory.growth();
    ASSERT_TRUE(done) << "sent " << producer.acceptedBytes() << ", server read " << sink.bodyBytes();

    EXPECT_EQ(results.received[0].status, HttpClientStatus::OK) << results.received[0].code;
    EXPECT_EQ(results.received[0].code, 200);
    EXPECT_FALSE(producer.wasRefused());
    EXPECT_FALSE(results.abandonedAtDelivery[0]); // read to its end
    EXPECT_FALSE(sink.framingBroken());
    ASSERT_TRUE(sink.bodyEnded());
    EXPECT_EQ(sink.bodyBytes(), kBodyBytes);
    EXPECT_EQ(producer.acceptedBytes(), kBodyBytes);
    EXPECT_EQ(sink.bodySha256(), expectedSha256);

    // The producer never ran more than one chunk past the capacity, and
    // finished only when the server had nearly all.
    EXPECT_LT(producer.mostQueued(), kCapacity + kChunkBytes);
    EXPECT_GE(producer.serverBytesAtEnd(), kBodyBytes - kMostAhead);
    EXPECT_LT(growth, kMostGrowth) << "from " << memory.startBytes();

    RecordProperty("memoryGrowthKiB", static_cast<int>(growth / 1024));
    RecordProperty("producerMs", static_cast<int>(producer.elapsedMs()));
    RecordProperty("serverReadingMs", static_cast<int>(sink.readingMs()));
    std::printf("%s growth %lld KiB (from %lld KiB), producer %lld ms, server %lld ms, server had %lld "
                "KiB when the producer ended\n",
        MemoryWatch::measure(), static_cast<long long>(growth / 1024),
        static_cast<long long>(memory.startBytes() / 1024), static_cast<long long>(producer.elapsedMs()),
        static_cast<long long>(sink.readingMs()), static_cast<long long>(producer.serverBytesAtEnd() / 1024));
}

// A request whose server stopped reading, with its producer waiting on the full
// queue. Far more than the sockets and the queue hold, so it only ends refused.
class BlockedProducer : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(sink.start()); }

    void* startBlocked(HttpClient& client, const HttpClientOptions& options = HttpClientOptions())
    {
        void* const id = client.postStream(sink.url(), queue, options, results.callback(queue));
        EXPECT_NE(id, nullptr);
        producer = std::make_unique<FastProducer>(queue, body, 64 * kBodyBytes, [] { return qint64(0); });
        EXPECT_TRUE(trel::test::waitFor([&] { return sink.accepted(); }));
        EXPECT_TRUE(producer->waitBlocked(10000)) << "queued " << queue->bytesQueued();
        EXPECT_TRUE(results.received.empty());
        EXPECT_FALSE(queue->isAbandoned());
        return id;
    }

    void expectWokenWithFalse()
    {
        ASSERT_TRUE(producer->waitFinished(5000)) << "the producer still waits on the ended request";
        EXPECT_TRUE(producer->wasRefused());
        EXPECT_TRUE(queue->isAbandoned());
        EXPECT_EQ(queue->bytesQueued(), 0);
        EXPECT_FALSE(queue->append("later")) << "a push after the end was accepted";
    }

    const BodyChunks body;
    PacedSink sink { 0 };
    const QSharedPointer<HttpClientQueue> queue = boundedQueue();
    Results results;
    std::unique_ptr<FastProducer> producer;
};

TEST_F(BlockedProducer, WakesWithFalseWhenTheRequestIsCancelled)
{
    HttpClient client;
    void* const id = startBlocked(client);
    ASSERT_TRUE(client.cancel(id));
    EXPECT_TRUE(queue->isAbandoned()); // at once, before the result is delivered
    expectWokenWithFalse();
    ASSERT_TRUE(trel::test::waitFor([&] { return !results.received.empty(); }));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::Error);
    EXPECT_EQ(results.received[0].code, -1);
}

TEST_F(BlockedProducer, WakesWithFalseWhenTheRequestTimesOut)
{
    HttpClient client;
    HttpClientOptions options;
    options.setTimeoutMs(1500);
    startBlocked(client, options);
    expectWokenWithFalse();
    ASSERT_TRUE(trel::test::waitFor([&] { return !results.received.empty(); }));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::Timeout);
    EXPECT_TRUE(results.abandonedAtDelivery[0]); // abandoned when the request ended, not later
}

TEST_F(BlockedProducer, WakesWithFalseWhenTheClientIsDestroyed)
{
    auto client = std::make_unique<HttpClient>();
    startBlocked(*client);
    client.reset();
    EXPECT_TRUE(queue->isAbandoned()); // at once, inside the destructor
    expectWokenWithFalse();
}

} // namespace
