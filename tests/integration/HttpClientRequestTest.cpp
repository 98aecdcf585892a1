// HttpClient from call to result against the scripted loopback server: what
// goes over the wire, how results are delivered, caching, cancellation and
// teardown, and the exactly-once promise under load.

#include <trel/HttpClient.h>

#include "LogCapture.h"
#include "LoopbackServer.h"
#include "ResultReceiver.h"
#include "SocketCount.h"
#include "WaitFor.h"

#include <gtest/gtest.h>

#include <QDeadlineTimer>
#include <QDir>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <thread>

namespace {

using trel::test::LogCapture;
using trel::test::LoopbackServer;
using trel::test::RecordedRequest;
using trel::test::ResultReceiver;
using trel::test::ScriptedResponse;
using trel::test::waitFor;

// One loopback server for the whole executable, started on port 0.
class ServerEnvironment : public ::testing::Environment
{
public:
    void SetUp() override { ASSERT_TRUE(server().start()); }
    void TearDown() override { server().stop(); }
    static LoopbackServer& server()
    {
        static LoopbackServer instance;
        return instance;
    }
};

const auto* const environment = ::testing::AddGlobalTestEnvironment(new ServerEnvironment);

// Collects callback results in arrival order.
struct Results
{
    HttpClient::Callback callback()
    {
        return [this](const HttpClientResult& result) { received.push_back(result); };
    }
    bool waitFor(size_t n, int timeoutMs = 10000)
    {
        return trel::test::waitFor([&] { return received.size() >= n; }, timeoutMs);
    }
    std::vector<HttpClientResult> received;
};

class HttpClientRequest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        server().clear();
        server().setHandler(&LoopbackServer::defaultRoutes);
    }

    static LoopbackServer& server() { return ServerEnvironment::server(); }
    static TrelUrl url(const QByteArray& path) { return TrelUrl::fromEncoded(server().url(path)); }

    // The client's thread must keep running its event loop while it waits.
    static bool waitForServer(int requests)
    {
        return waitFor([&] { return server().requestCount() >= requests; });
    }

    RecordedRequest onlyRequest()
    {
        EXPECT_TRUE(waitForServer(1));
        const auto requests = server().requests();
        EXPECT_EQ(requests.size(), 1);
        return requests.isEmpty() ? RecordedRequest() : requests.last();
    }

    HttpClient client { nullptr, HttpClient::Http1, false };
    Results results;
    HttpClientOptions options;
};

// ---------------------------------------------------------------------------
// On the wire

TEST_F(HttpClientRequest, EachMethodSendsItsRequestLine)
{
    const std::vector<std::pair<QByteArray, std::function<void*()>>> calls = {
        { "GET", [&] { return client.get(url("/m"), options, results.callback()); } },
        { "HEAD", [&] { return client.head(url("/m"), options, results.callback()); } },
        { "POST", [&] { return client.post(url("/m"), "b", options, results.callback()); } },
        { "PUT", [&] { return client.put(url("/m"), "b", options, results.callback()); } },
        { "DELETE", [&] { return client.delete_(url("/m"), "b", options, results.callback()); } },
        { "PATCH", [&] { return client.patch(url("/m"), "b", options, results.callback()); } },
    };
    for (size_t i = 0; i < calls.size(); ++i) {
        server().clear();
        EXPECT_NE(calls[i].second(), nullptr);
        ASSERT_TRUE(results.waitFor(i + 1));
        const RecordedRequest request = onlyRequest();
        EXPECT_EQ(request.method, calls[i].first);
        EXPECT_EQ(request.target, "/m");
        EXPECT_TRUE(request.raw.startsWith(calls[i].first + " /m HTTP/1.1\r\n"))
            << request.raw.left(40).constData();
        EXPECT_EQ(results.received[i].status, HttpClientStatus::OK);
        EXPECT_EQ(results.received[i].code, 200);
        if (calls[i].first != "GET" && calls[i].first != "HEAD") {
            EXPECT_EQ(request.body, "b");
        }
    }
}

TEST_F(HttpClientRequest, HeadCollectsHeaderLinesInTheBody)
{
    client.head(url("/bytes/10"), options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    const HttpClientResult& result = results.received[0];
    EXPECT_EQ(result.status, HttpClientStatus::OK);
    EXPECT_TRUE(result.body.startsWith("HTTP/1.1 200")) << result.body.constData();
    EXPECT_TRUE(result.body.contains("Content-Length: 10"));
}

TEST_F(HttpClientRequest, ExtraHeadersAreSentAndCompressionIsAskedFor)
{
    options.setHeaders(HttpClientHeaders({ { "X-Custom", "value 1" }, { "Accept", "text/plain" } }));
    client.get(url("/h"), options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    const RecordedRequest request = onlyRequest();
    EXPECT_EQ(request.header("X-Custom"), "value 1");
    EXPECT_EQ(request.header("Accept"), "text/plain");
    EXPECT_TRUE(request.raw.contains("\r\nX-Custom: value 1\r\n"));
    EXPECT_FALSE(request.header("Accept-Encoding").isEmpty());
    EXPECT_TRUE(request.header("Accept-Encoding").contains("gzip"));
}

TEST_F(HttpClientRequest, NoAcceptEncodingWhenCompressionIsDisabled)
{
    options.disableCompression(true);
    client.get(url("/h"), options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_FALSE(onlyRequest().hasHeader("Accept-Encoding"));
}

TEST_F(HttpClientRequest, GzipResponseArrivesDecoded)
{
    client.get(url("/gzip"), options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].body, QByteArray("hello gzip world").repeated(100));
    EXPECT_EQ(results.received[0].headers.value("Content-Encoding", QString()), "gzip");
}

TEST_F(HttpClientRequest, ByteBodiesArriveByteExact)
{
    QByteArray big(5 * 1024 * 1024, '\0');
    std::mt19937 random(7);
    for (char& byte : big) {
        byte = static_cast<char>(random());
    }
    options.setReadSizeLimit(-1);
    for (const QByteArray& body : { QByteArray(), QByteArray("\0binary\r\n", 9), big }) {
        server().clear();
        results.received.clear();
        client.post(url("/echo"), body, options, results.callback());
        ASSERT_TRUE(results.waitFor(1, 30000));
        const RecordedRequest request = onlyRequest();
        EXPECT_EQ(request.method, "POST");
        EXPECT_EQ(request.header("Content-Length"), QByteArray::number(body.size()));
        EXPECT_TRUE(request.body == body) << "sent " << body.size() << " received " << request.body.size();
        EXPECT_TRUE(results.received[0].body == body);
    }
}

TEST_F(HttpClientRequest, FormArrivesAsMultipartWithFieldsInOrder)
{
    const QList<QPair<QString, QString>> fields
        = { { "first", "1" }, { "second", "zwei" }, { "third", "tr\u00e9s" } };
    client.postForm(url("/echo"), fields, options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    const RecordedRequest request = onlyRequest();
    EXPECT_TRUE(request.header("Content-Type").startsWith("multipart/form-data; boundary="));
    ASSERT_EQ(request.parts.size(), 3);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(request.parts[i].name, fields[i].first.toUtf8());
        EXPECT_EQ(request.parts[i].data, fields[i].second.toUtf8());
    }
}

TEST_F(HttpClientRequest, FileArrivesAsOnePartNamedFilenameAndIsRemovedAfterwards)
{
    const QByteArray content("file content \x01\x02 with bytes", 27);
    const QStringList before = QDir::temp().entryList({ "trel-http-fetcher.*" }, QDir::Files);
    client.postFile(url("/echo"), content, options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    const RecordedRequest request = onlyRequest();
    ASSERT_EQ(request.parts.size(), 1);
    EXPECT_EQ(request.parts[0].name, "filename");
    EXPECT_EQ(request.parts[0].contentType, "application/octet-stream");
    EXPECT_TRUE(request.parts[0].filename.startsWith("trel-http-fetcher."));
    EXPECT_EQ(request.parts[0].data, content);
    EXPECT_EQ(QDir::temp().entryList({ "trel-http-fetcher.*" }, QDir::Files), before);
}

TEST_F(HttpClientRequest, StreamedBodyArrivesWholeInPushOrderAndTheConnectionIsReusable)
{
    options.setReadSizeLimit(-1); // the echo is as long as the upload
    auto queue = QSharedPointer<HttpClientQueue>::create(nullptr);
    QList<QByteArray> chunks;
    QByteArray expected;
    for (int i = 0; i < 40; ++i) {
        chunks << QByteArray(1000 + i * 37, static_cast<char>('a' + i % 26));
        expected += chunks.last();
    }
    chunks << QByteArray("tail-1") << QByteArray("tail-2");
    expected += "tail-1tail-2";
    {
        // The producer pauses over a second before its last chunks: the
        // client's thread blocks in the read meanwhile, by design.
        QList<QByteArray> early = chunks.mid(0, 40);
        QList<QByteArray> late = chunks.mid(40);
        auto lateQueue = queue;
        std::thread producer([lateQueue, early, late] {
            for (const QByteArray& chunk : early) {
                lateQueue->append(chunk);
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(1200));
            lateQueue->append(late[0]);
            std::this_thread::sleep_for(std::chrono::milliseconds(1100));
            lateQueue->append(late[1]);
            lateQueue->close();
        });
        client.postStream(url("/echo"), queue, options, results.callback());
        const bool done = results.waitFor(1, 20000);
        producer.join();
        ASSERT_TRUE(done);
    }
    const RecordedRequest request = onlyRequest();
    EXPECT_TRUE(request.chunked);
    EXPECT_TRUE(request.body == expected) << request.body.size() << " vs " << expected.size();
    EXPECT_EQ(results.received[0].status, HttpClientStatus::OK) << results.received[0].code;
    // The keep-alive connection is still good for the next request.
    client.get(url("/after"), options, results.callback());
    ASSERT_TRUE(results.waitFor(2));
    EXPECT_EQ(results.received[1].status, HttpClientStatus::OK);
    const auto requests = server().requests();
    ASSERT_EQ(requests.size(), 2);
    EXPECT_EQ(requests[1].connectionId, requests[0].connectionId);
}

TEST_F(HttpClientRequest, QueueClosedBeforeAnyByteSendsAnEmptyBody)
{
    auto queue = QSharedPointer<HttpClientQueue>::create(nullptr);
    queue->close();
    LogCapture capture(log4cplus::DEBUG_LOG_LEVEL);
    client.postStream(url("/echo"), queue, options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_TRUE(onlyRequest().body.isEmpty());
    EXPECT_GE(capture.count("End of stream reached"), 1);
}

// The queue hands an empty chunk at its head to the reader as a read of 0 bytes,
// and libcurl takes 0 as the end of the body: whatever is queued behind it is
// never sent, although the queue is still open. The same happens when a read
// takes a chunk exactly to its end (over HTTP/2 with 64 KiB chunks the body was
// cut after 128 KiB); producers avoid it with small odd-sized, non-empty chunks.
TEST_F(HttpClientRequest, EmptyChunkAtTheHeadOfTheQueueEndsTheStreamedBody)
{
    auto queue = QSharedPointer<HttpClientQueue>::create(nullptr);
    queue->append(QByteArray());
    queue->append(QByteArray(1024 * 1024, 'x')); // larger than any read libcurl asks for
    LogCapture capture(log4cplus::TRACE_LOG_LEVEL);
    client.postStream(url("/echo"), queue, options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::OK);
    EXPECT_TRUE(onlyRequest().body.isEmpty()) << onlyRequest().body.size();
    EXPECT_EQ(capture.count("Stream read size: 0"), 1);
    EXPECT_TRUE(queue->isOpened());
    queue->close();
}

// ---------------------------------------------------------------------------
// Redirects

TEST_F(HttpClientRequest, RedirectsAreFollowedToTheLimitAndTheEffectiveUrlIsNamed)
{
    client.get(url("/redirect/3"), options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].code, 200);
    EXPECT_EQ(results.received[0].body, "done");
    EXPECT_EQ(results.received[0].headers.value("X-TrelEfectiveUrl", QString()),
        QString::fromLatin1(server().url("/redirect/0")));
    EXPECT_EQ(results.received[0].url, url("/redirect/3")); // the caller's own URL

    options.setMaxRedirects(2);
    client.get(url("/redirect/3"), options, results.callback());
    ASSERT_TRUE(results.waitFor(2));
    EXPECT_EQ(results.received[1].status, HttpClientStatus::Error); // too many redirects

    options.setMaxRedirects(0);
    client.get(url("/redirect/3"), options, results.callback());
    ASSERT_TRUE(results.waitFor(3));
    EXPECT_EQ(results.received[2].status, HttpClientStatus::OK);
    EXPECT_EQ(results.received[2].code, 302);
}

TEST_F(HttpClientRequest, PostRedirectFlagsKeepPostAfter301302303)
{
    for (const int status : { 301, 302, 303 }) {
        server().clear();
        server().setHandler([status](const RecordedRequest& request) {
            if (request.target == "/moved") {
                return ScriptedResponse::redirect(status, "/echo");
            }
            return LoopbackServer::defaultRoutes(request);
        });
        results.received.clear();
        HttpClientOptions keep;
        keep.setPostRedirectFlags(HttpClientOptions::PostRedirAll);
        client.post(url("/moved"), "payload", keep, results.callback());
        ASSERT_TRUE(results.waitFor(1));
        ASSERT_TRUE(waitForServer(2));
        EXPECT_EQ(server().requests()[1].method, "POST") << status;
        EXPECT_EQ(server().requests()[1].body, "payload") << status;

        server().clear();
        results.received.clear();
        client.post(url("/moved"), "payload", HttpClientOptions(), results.callback());
        ASSERT_TRUE(results.waitFor(1));
        ASSERT_TRUE(waitForServer(2));
        EXPECT_EQ(server().requests()[1].method, "GET") << status;
    }
}

// ---------------------------------------------------------------------------
// Failures

TEST_F(HttpClientRequest, RefusedConnectionIsConnectErrorWithCodeZero)
{
    LoopbackServer closed;
    ASSERT_TRUE(closed.start());
    const QByteArray refused = closed.url("/");
    closed.stop();
    client.get(TrelUrl::fromEncoded(refused), options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::ConnectError);
    EXPECT_EQ(results.received[0].code, 0);
    EXPECT_TRUE(results.received[0].headers.headers().isEmpty());
}

TEST_F(HttpClientRequest, UnresolvableHostIsResolveError)
{
    client.get(TrelUrl::fromEncoded("http://no-such-host.invalid/"), options, results.callback());
    ASSERT_TRUE(results.waitFor(1, 20000));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::ResolveError);
}

// Bad input is a result, never a crash or a silent loss: libcurl refuses an
// empty URL and an unknown scheme before any connection, and each request
// still reports once.
TEST_F(HttpClientRequest, UnusableUrlsEndInOneErrorResultEach)
{
    const std::vector<TrelUrl> urls = {
        TrelUrl(),
        TrelUrl::fromEncoded("unknownscheme://127.0.0.1/x"),
    };
    for (const TrelUrl& bad : urls) {
        EXPECT_NE(client.get(bad, options, results.callback()), nullptr) << bad.toString().toStdString();
    }
    ASSERT_TRUE(results.waitFor(urls.size()));
    trel::test::spinEventLoop(50);
    ASSERT_EQ(results.received.size(), urls.size());
    QList<QByteArray> expectedUrls;
    QList<QByteArray> receivedUrls;
    for (size_t i = 0; i < urls.size(); ++i) {
        expectedUrls.append(urls[i].toEncoded());
        const HttpClientResult& result = results.received[i];
        receivedUrls.append(result.url.toEncoded());
        EXPECT_EQ(result.status, HttpClientStatus::Error) << result.url.toString().toStdString();
        EXPECT_EQ(result.code, 0);
        EXPECT_TRUE(result.body.isEmpty());
        EXPECT_FALSE(result.headers.contains("X-TrelEfectiveUrl"));
    }
    std::sort(expectedUrls.begin(), expectedUrls.end());
    std::sort(receivedUrls.begin(), receivedUrls.end());
    EXPECT_EQ(receivedUrls, expectedUrls);
    EXPECT_EQ(server().requestCount(), 0);
}

TEST_F(HttpClientRequest, StalledServerWithATimeoutIsTimeout)
{
    server().setHandler([](const RecordedRequest&) {
        ScriptedResponse response;
        response.fault = ScriptedResponse::Fault::Stall;
        return response;
    });
    options.setTimeoutMs(300);
    LogCapture capture;
    client.get(url("/stall"), options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::Timeout);
    // A failed GET is still offered to the cache, which decides by the headers.
    const std::string offered = "Enter bool HttpClientCache::tryCache(const TrelUrl&, HttpClientStatus, int, "
                                "const HttpClientHeaders&, const QByteArray&): Url: "
        + url("/stall").toString().toStdString() + " status: Timeout code: 0 header: ";
    EXPECT_TRUE(capture.contains(log4cplus::TRACE_LOG_LEVEL, offered));
}

TEST_F(HttpClientRequest, BodyOverTheLimitIsErrorWithTheTruncatedBody)
{
    options.setReadSizeLimit(1000);
    LogCapture capture(log4cplus::ERROR_LOG_LEVEL);
    client.get(url("/bytes/5000"), options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::Error);
    EXPECT_EQ(results.received[0].body.size(), 1000);
    RecordedRequest first1000;
    first1000.method = "GET";
    first1000.target = "/bytes/1000";
    EXPECT_EQ(results.received[0].body, LoopbackServer::defaultRoutes(first1000).body);
    const auto errors = capture.messages(log4cplus::ERROR_LOG_LEVEL);
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors[0].rfind("CURL data: not enough space in buffer, trimmed by ", 0), 0u);
    EXPECT_FALSE(results.received[0].headers.contains("X-TrelEfectiveUrl"));
}

// ---------------------------------------------------------------------------
// Delivery

TEST_F(HttpClientRequest, ResultsNeverArriveBeforeTheCallReturns)
{
    bool delivered = false;
    void* const id = client.get(url("/x"), options, [&](const HttpClientResult&) { delivered = true; });
    EXPECT_NE(id, nullptr);
    EXPECT_FALSE(delivered);
    ASSERT_TRUE(waitFor([&] { return delivered; }));
}

TEST_F(HttpClientRequest, SlotDeliveryCarriesTheSixArgumentsAndTheStatusAsInt)
{
    ResultReceiver receiver;
    options.setUserData(HttpClientPrivate(42));
    client.get(url("/bytes/3"), &receiver, "onResult", options);
    ASSERT_TRUE(waitFor([&] { return receiver.count() == 1; }));
    const auto result = receiver.results()[0];
    EXPECT_EQ(result.url, url("/bytes/3"));
    EXPECT_EQ(result.context.getInt(), 42);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.code, 200);
    EXPECT_EQ(result.body, "abc");
    EXPECT_EQ(result.headers.value("Content-Length", QString()), "3");
    EXPECT_EQ(result.thread, QThread::currentThread());
}

TEST_F(HttpClientRequest, SlotDeliveryRunsOnTheReceiversThread)
{
    QThread worker;
    worker.start();
    ResultReceiver receiver;
    receiver.moveToThread(&worker);
    client.get(url("/x"), &receiver, "onResult", options);
    ASSERT_TRUE(waitFor([&] { return receiver.count() == 1; }));
    EXPECT_EQ(receiver.results()[0].thread, &worker);
    worker.quit();
    worker.wait();
}

TEST_F(HttpClientRequest, WrongSlotNameLosesThatResultAndNothingElse)
{
    ResultReceiver receiver;
    client.get(url("/a"), &receiver, "noSuchSlot", options);
    client.get(url("/b"), &receiver, "SLOT(onResult)", options);
    client.get(url("/c"), &receiver,
        "onResult(TrelUrl,HttpClientPrivate,int,int,QByteArray,HttpClientHeaders)", options);
    client.get(url("/d"), &receiver, "onResult", options);
    ASSERT_TRUE(waitFor([&] { return receiver.count() == 1; }));
    ASSERT_TRUE(waitForServer(4));
    trel::test::spinEventLoop(100);
    ASSERT_EQ(receiver.count(), 1);
    EXPECT_EQ(receiver.results()[0].url, url("/d"));
}

TEST_F(HttpClientRequest, EmptySlotNameWithoutCallbackDeliversNothing)
{
    ResultReceiver receiver;
    EXPECT_NE(client.get(url("/a"), &receiver, "", options), nullptr);
    EXPECT_NE(client.get(url("/a"), &receiver, nullptr, options), nullptr);
    ASSERT_TRUE(waitForServer(2));
    client.get(url("/b"), &receiver, "onResult", options);
    ASSERT_TRUE(waitFor([&] { return receiver.count() == 1; }));
    trel::test::spinEventLoop(50);
    EXPECT_EQ(receiver.count(), 1);
    EXPECT_EQ(receiver.results()[0].url, url("/b"));
}

TEST_F(HttpClientRequest, TwoResultsForOneReceiverArriveInTheOrderQueued)
{
    options.setHeaders({});
    server().setHandler([](const RecordedRequest& request) {
        auto response = ScriptedResponse::ok(request.target);
        response.addHeader("Cache-Control", "max-age=60");
        return response;
    });
    client.setCacheSize(10000);
    Results warm;
    client.get(url("/first"), options, warm.callback());
    client.get(url("/second"), options, warm.callback());
    ASSERT_TRUE(warm.waitFor(2));
    // Both answered from the cache: queued back to back inside this turn.
    ResultReceiver receiver;
    EXPECT_EQ(client.get(url("/second"), &receiver, "onResult", options), nullptr);
    EXPECT_EQ(client.get(url("/first"), &receiver, "onResult", options), nullptr);
    EXPECT_EQ(receiver.count(), 0);
    ASSERT_TRUE(waitFor([&] { return receiver.count() == 2; }));
    EXPECT_EQ(receiver.results()[0].body, "/second");
    EXPECT_EQ(receiver.results()[1].body, "/first");
}

TEST_F(HttpClientRequest, TwoRequestsForOneUrlGetTwoIdsAndTwoResults)
{
    void* const a = client.get(url("/same"), options, results.callback());
    void* const b = client.get(url("/same"), options, results.callback());
    EXPECT_NE(a, nullptr);
    EXPECT_NE(b, nullptr);
    EXPECT_NE(a, b);
    ASSERT_TRUE(results.waitFor(2));
    trel::test::spinEventLoop(50);
    EXPECT_EQ(results.received.size(), 2u);
}

TEST_F(HttpClientRequest, PlusSignIsRewrittenInTheQueryOnlyWhenAsked)
{
    HttpClient rewriting(nullptr, HttpClient::Http1, true);
    const TrelUrl plusUrl = TrelUrl::fromEncoded(server().url("/p+q?a=1+2&b=a+b"));
    rewriting.get(plusUrl, options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(onlyRequest().target, "/p+q?a=1%2B2&b=a%2Bb");
    EXPECT_EQ(results.received[0].url, plusUrl);
    EXPECT_EQ(results.received[0].url.encodedQuery(), "a=1+2&b=a+b");

    server().clear();
    client.get(plusUrl, options, results.callback());
    ASSERT_TRUE(results.waitFor(2));
    EXPECT_EQ(onlyRequest().target, "/p+q?a=1+2&b=a+b");
}

TEST_F(HttpClientRequest, ImmediateReadDeliversPartsThenTheRemainder)
{
    server().setHandler([](const RecordedRequest&) {
        ScriptedResponse response = ScriptedResponse::ok(QByteArray(300000, 'z'));
        response.chunked = true;
        response.chunkSize = 1000;
        return response;
    });
    options.setImmediateRead(true);
    options.setReadSizeLimit(-1);
    QByteArray assembled;
    int immediate = 0;
    bool final = false;
    client.get(url("/big"), options, [&](const HttpClientResult& result) {
        assembled += result.body;
        if (result.status == HttpClientStatus::ImmediateRead) {
            ++immediate;
            EXPECT_FALSE(final);
            EXPECT_TRUE(result.headers.contains("X-TrelEfectiveUrl"));
        } else {
            final = true;
            EXPECT_EQ(result.status, HttpClientStatus::OK);
        }
    });
    ASSERT_TRUE(waitFor([&] { return final; }));
    EXPECT_GE(immediate, 1);
    EXPECT_EQ(assembled.size(), 300000);
}

TEST_F(HttpClientRequest, AmongManyLiveTransfersOnlyImmediateReadOnesHandOverEarly)
{
    // 120 plain requests stay live (answered late) while three immediate-read
    // ones stream their bodies in pieces through the same event sweeps.
    server().setHandler([](const RecordedRequest& request) {
        if (request.target.startsWith("/pieces/")) {
            ScriptedResponse response = ScriptedResponse::ok(QByteArray(200000, 'p'));
            response.chunked = true;
            response.chunkSize = 1000;
            return response;
        }
        ScriptedResponse response = ScriptedResponse::ok(request.target);
        response.delayMs = 400;
        return response;
    });
    options.setReadSizeLimit(-1);
    constexpr int kPlain = 120;
    constexpr int kImmediate = 3;
    std::map<int, std::vector<HttpClientResult>> plain;
    for (int i = 0; i < kPlain; ++i) {
        const void* const id = client.get(url("/plain/" + QByteArray::number(i)), options,
            [&plain, i](const HttpClientResult& result) { plain[i].push_back(result); });
        ASSERT_NE(id, nullptr);
    }
    HttpClientOptions immediateOptions = options;
    immediateOptions.setImmediateRead(true);
    struct Streamed
    {
        QByteArray assembled;
        int early = 0;
        int finals = 0;
        bool earlyAfterFinal = false;
    };
    std::vector<Streamed> streamed(kImmediate);
    for (int i = 0; i < kImmediate; ++i) {
        client.get(url("/pieces/" + QByteArray::number(i)), immediateOptions,
            [&streamed, i](const HttpClientResult& result) {
                Streamed& s = streamed[static_cast<size_t>(i)];
                s.assembled += result.body;
                if (result.status == HttpClientStatus::ImmediateRead) {
                    ++s.early;
                    s.earlyAfterFinal = s.earlyAfterFinal || s.finals > 0;
                } else {
                    ++s.finals;
                    EXPECT_EQ(result.status, HttpClientStatus::OK);
                }
            });
    }
    ASSERT_TRUE(waitFor(
        [&] {
            const bool streamsDone = std::all_of(
                streamed.begin(), streamed.end(), [](const Streamed& s) { return s.finals > 0; });
            return streamsDone && plain.size() == static_cast<size_t>(kPlain);
        },
        20000));
    for (const Streamed& s : streamed) {
        EXPECT_GE(s.early, 1);
        EXPECT_EQ(s.finals, 1);
        EXPECT_FALSE(s.earlyAfterFinal);
        EXPECT_EQ(s.assembled, QByteArray(200000, 'p'));
    }
    // Let anything still queued arrive before counting.
    trel::test::spinEventLoop(200);
    for (int i = 0; i < kPlain; ++i) {
        const std::vector<HttpClientResult>& got = plain[i];
        ASSERT_EQ(got.size(), 1U) << i;
        EXPECT_EQ(got[0].status, HttpClientStatus::OK) << i;
        EXPECT_EQ(got[0].body, "/plain/" + QByteArray::number(i)) << i;
    }
}

// ---------------------------------------------------------------------------
// Cache

TEST_F(HttpClientRequest, FreshCachedGetIsAnsweredWithoutATransferAfterTheCallReturns)
{
    server().setHandler([](const RecordedRequest& request) {
        auto response = ScriptedResponse::ok("cached body");
        response.addHeader("Cache-Control", "max-age=60");
        response.addHeader("X-Req", request.method);
        return response;
    });
    client.setCacheSize(100000);
    client.get(url("/c"), options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    bool delivered = false;
    HttpClientResult hit;
    EXPECT_EQ(client.get(url("/c"), options,
                  [&](const HttpClientResult& r) {
                      hit = r;
                      delivered = true;
                  }),
        nullptr);
    EXPECT_FALSE(delivered);
    ASSERT_TRUE(waitFor([&] { return delivered; }));
    EXPECT_EQ(hit.body, "cached body");
    EXPECT_EQ(hit.code, 200);
    EXPECT_EQ(hit.status, HttpClientStatus::OK);
    EXPECT_EQ(hit.headers.value("X-Req", QString()), "GET");
    EXPECT_EQ(server().requestCount(), 1);

    // HEAD never consults the cache; POST never fills it.
    EXPECT_NE(client.head(url("/c"), options, results.callback()), nullptr);
    ASSERT_TRUE(results.waitFor(2));
    client.post(url("/p"), "x", options, results.callback());
    ASSERT_TRUE(results.waitFor(3));
    EXPECT_NE(client.get(url("/p"), options, results.callback()), nullptr);
    ASSERT_TRUE(results.waitFor(4));
    EXPECT_EQ(server().requestCount(), 4);

    client.clearCache();
    EXPECT_NE(client.get(url("/c"), options, results.callback()), nullptr);
    ASSERT_TRUE(results.waitFor(5));
}

// ---------------------------------------------------------------------------
// Cancellation and teardown

TEST_F(HttpClientRequest, CancelReportsErrorMinusOnceAfterCancelReturns)
{
    server().setHandler([](const RecordedRequest&) {
        ScriptedResponse response;
        response.fault = ScriptedResponse::Fault::Stall;
        return response;
    });
    void* const id = client.get(url("/slow"), options, results.callback());
    ASSERT_TRUE(waitForServer(1));
    LogCapture capture(log4cplus::DEBUG_LOG_LEVEL);
    EXPECT_TRUE(client.cancel(id));
    EXPECT_TRUE(results.received.empty()); // queued, not delivered inside cancel
    EXPECT_FALSE(client.cancel(id));
    std::ostringstream line;
    line << "No such transfer: " << id;
    EXPECT_TRUE(capture.contains(log4cplus::DEBUG_LOG_LEVEL, line.str()));
    ASSERT_TRUE(results.waitFor(1));
    trel::test::spinEventLoop(50);
    ASSERT_EQ(results.received.size(), 1u);
    EXPECT_EQ(results.received[0].status, HttpClientStatus::Error);
    EXPECT_EQ(results.received[0].code, -1);
    EXPECT_TRUE(results.received[0].body.isEmpty());
    EXPECT_TRUE(results.received[0].headers.headers().isEmpty());
}

TEST_F(HttpClientRequest, CancellingAFinishedRequestReturnsFalse)
{
    void* const id = client.get(url("/x"), options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_FALSE(client.cancel(id));
}

TEST_F(HttpClientRequest, DestroyingTheClientCancelsLiveTransfersAndReportsToSlots)
{
    server().setHandler([](const RecordedRequest&) {
        ScriptedResponse response;
        response.fault = ScriptedResponse::Fault::Stall;
        return response;
    });
    ResultReceiver receiver;
    bool callbackRan = false;
    {
        HttpClient doomed;
        doomed.get(url("/1"), &receiver, "onResult", options);
        doomed.get(url("/2"), &receiver, "onResult", options);
        doomed.get(url("/3"), options, [&](const HttpClientResult&) { callbackRan = true; });
        ASSERT_TRUE(waitForServer(3));
    }
    ASSERT_TRUE(waitFor([&] { return receiver.count() == 2; }));
    for (const auto& result : receiver.results()) {
        EXPECT_EQ(result.status, static_cast<int>(HttpClientStatus::Error));
        EXPECT_EQ(result.code, -1);
    }
    trel::test::spinEventLoop(50);
    // A callback result travels in an event addressed to the client: it dies with it.
    EXPECT_FALSE(callbackRan);
}

TEST_F(HttpClientRequest, ExactlyOneResultPerStartedRequestUnderLoadWithRandomCancels)
{
    server().setHandler([](const RecordedRequest& request) {
        ScriptedResponse response = ScriptedResponse::ok(QByteArray(2000, 'r'));
        response.delayMs = request.target.endsWith("0") ? 20 : 0;
        response.chunked = request.target.endsWith("1");
        response.chunkSize = 100;
        return response;
    });
    constexpr int kTotal = 2000;
    constexpr int kConcurrent = 50;
    constexpr int kLiveAtTeardown = 50;
    std::mt19937 random(20261122);
    std::vector<void*> ids;
    std::vector<bool> cancelled(kTotal, false);
    std::vector<bool> delivered(kTotal, false);
    // Which request holds each id right now. libcurl may hand a finished
    // request's handle address to a new one, so an id names the newest holder.
    std::map<void*, int> holderOf;
    int refusedLateCancels = 0;
    // Slot delivery: results queued for a receiver outlive the client.
    ResultReceiver receiver;
    receiver.onReceived = [&](const trel::test::ReceivedResult& result) {
        const int index = result.context.getInt();
        delivered[index] = true;
        const auto holder = holderOf.find(ids[index]);
        if (holder != holderOf.end() && holder->second == index) {
            holderOf.erase(holder);
        }
    };
    auto client = std::make_unique<HttpClient>();
    auto issue = [&] {
        const int index = static_cast<int>(ids.size());
        HttpClientOptions tagged;
        tagged.setUserData(HttpClientPrivate(index));
        ids.push_back(client->get(url("/load/" + QByteArray::number(index)), &receiver, "onResult", tagged));
        EXPECT_NE(ids.back(), nullptr);
        holderOf[ids.back()] = index;
    };
    // A third of the requests are picked for cancelling, each at one of three
    // moments: at once (before it connects), a few turns of the event loop
    // later (connecting or mid-body), or after its result (cancel refuses).
    enum class Moment
    {
        Immediately,
        Later,
        AfterResult
    };
    std::vector<std::pair<int, Moment>> planned; // request index, moment
    std::map<int, int> turnsLeft;
    auto planCancel = [&](int index) {
        if (random() % 3 != 0) {
            return;
        }
        const auto moment = static_cast<Moment>(random() % 3);
        planned.push_back({ index, moment });
        turnsLeft[index] = static_cast<int>(random() % 6);
    };
    auto cancelByIndex = [&](int index) {
        void* const id = ids[index];
        const auto holder = holderOf.find(id);
        if (holder == holderOf.end() || holder->second != index) {
            // Finished; its id is free or already names a newer request.
            if (holder == holderOf.end()) {
                EXPECT_FALSE(client->cancel(id));
                ++refusedLateCancels;
            }
            return;
        }
        if (client->cancel(id)) {
            cancelled[index] = true;
            holderOf.erase(holder);
        }
    };
    auto runPlannedCancels = [&] {
        std::vector<std::pair<int, Moment>> keep;
        for (const auto& [index, moment] : planned) {
            const bool due = moment == Moment::Immediately
                || (moment == Moment::Later && turnsLeft[index]-- <= 0)
                || (moment == Moment::AfterResult && delivered[index]);
            if (due) {
                cancelByIndex(index);
            } else {
                keep.push_back({ index, moment });
            }
        }
        planned.swap(keep);
    };
    QTimer ticker;
    ticker.start(1);
    const QDeadlineTimer deadline(120000);
    while (static_cast<int>(ids.size()) < kTotal - kLiveAtTeardown) {
        ASSERT_FALSE(deadline.hasExpired()) << "stuck at " << receiver.count() << " results";
        while (static_cast<int>(ids.size()) < kTotal - kLiveAtTeardown
            && static_cast<int>(ids.size()) - receiver.count() < kConcurrent) {
            issue();
            planCancel(static_cast<int>(ids.size()) - 1);
        }
        runPlannedCancels();
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    while (static_cast<int>(ids.size()) < kTotal) {
        issue();
    }
    client.reset(); // the last requests are still live here
    ASSERT_TRUE(waitFor([&] { return receiver.count() >= kTotal; }, 30000)) << receiver.count();
    trel::test::spinEventLoop(50);
    std::vector<int> perRequest(kTotal, 0);
    int teardownCancels = 0;
    for (const auto& result : receiver.results()) {
        const int index = result.context.getInt();
        ASSERT_TRUE(index >= 0 && index < kTotal);
        ++perRequest[index];
        if (cancelled[index]) {
            EXPECT_EQ(result.status, static_cast<int>(HttpClientStatus::Error));
            EXPECT_EQ(result.code, -1);
        }
        if (index >= kTotal - kLiveAtTeardown && result.code == -1) {
            ++teardownCancels;
        }
    }
    const int cancelCount = static_cast<int>(std::count(cancelled.begin(), cancelled.end(), true));
    for (int i = 0; i < kTotal; ++i) {
        EXPECT_EQ(perRequest[i], 1) << "request " << i;
    }
    EXPECT_GT(cancelCount, kTotal / 10);
    EXPECT_GT(refusedLateCancels, kTotal / 100);
    EXPECT_GT(teardownCancels, 0);
    std::cout << "cancelled " << cancelCount << " of " << kTotal << ", " << refusedLateCancels
              << " late cancels refused, " << teardownCancels << " ended by the client's destruction\n";
}

TEST_F(HttpClientRequest, RefusedRequestReturnsNullAndDeliversNothing)
{
    const QByteArray previous = qgetenv("TMPDIR");
    qputenv("TMPDIR", "/proc"); // no temporary file can be made there, even as root
    bool delivered = false;
    void* const id
        = client.postFile(url("/echo"), "data", options, [&](const HttpClientResult&) { delivered = true; });
    previous.isEmpty() ? qunsetenv("TMPDIR") : qputenv("TMPDIR", previous);
    EXPECT_EQ(id, nullptr);
    trel::test::spinEventLoop(100);
    EXPECT_FALSE(delivered);
    EXPECT_EQ(server().requestCount(), 0);
}

TEST_F(HttpClientRequest, NothingIsLeftAfterAClientWithHundredsOfRequestsIsDestroyed)
{
    const int fdsBefore = trel::test::openFileDescriptors();
    const QStringList tempBefore = QDir::temp().entryList({ "trel-http-fetcher.*" }, QDir::Files);
    {
        HttpClient doomed;
        Results done;
        for (int i = 0; i < 300; ++i) {
            switch (i % 3) {
            case 0:
                doomed.get(url("/bytes/100"), options, done.callback());
                break;
            case 1:
                doomed.postFile(url("/echo"), "file", options, done.callback());
                break;
            default:
                doomed.post(url("/echo"), "bytes", options, done.callback());
                break;
            }
        }
        ASSERT_TRUE(done.waitFor(250, 30000));
    }
    trel::test::spinEventLoop(50);
    EXPECT_EQ(trel::test::openFileDescriptors(), fdsBefore);
    EXPECT_EQ(QDir::temp().entryList({ "trel-http-fetcher.*" }, QDir::Files), tempBefore);
}

} // namespace
