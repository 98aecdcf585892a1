// A request's trace against the loopback server and nghttpd: the request head
// as sent (appended header lines included), every response header line in the
// server's order (redirects and interim responses too) and libcurl's text,
// delivered after the request call and before the result in all three request
// forms, never inside cancel; a request without a trace callback turns nothing
// on, not even on a pooled handle a traced request used before; over HTTP/2
// the heads say so, and pushed responses add nothing to the trace.

#include <trel/HttpClient.h>

#include "CurlOptionRecorder.h"
#include "LocalServers.h"
#include "LoopbackServer.h"
#include "ResultCollector.h"
#include "ResultReceiver.h"
#include "WaitFor.h"

#include <gtest/gtest.h>

#include <QObject>

#include <memory>
#include <vector>

// Reads the client's private state; declared a friend by HttpClient.
class HttpClientTestAccess
{
public:
    static void* handleOf(HttpClient& c, void* id)
    {
        const auto transfer = c.transfers.value(id);
        return transfer ? transfer->handle() : nullptr;
    }
};

namespace {

using trel::test::LoopbackServer;
using trel::test::ScriptedResponse;
using trel::test::waitFor;
namespace curlOptions = trel::test::curlOptions;

// Every piece of one request's trace and its result, in the order they
// reached the caller, with whether a piece came inside a call of the test's.
struct TraceJournal
{
    struct Piece
    {
        HttpClientOptions::TraceKind kind;
        QByteArray data;
        bool insideCall;
    };

    HttpClientOptions::TraceCallback trace()
    {
        return [this](HttpClientOptions::TraceKind kind, const QByteArray& data) {
            pieces.push_back({ kind, data, insideCall });
        };
    }
    HttpClient::Callback result()
    {
        return [this](const HttpClientResult& result) { noteResult(result); };
    }
    void noteResult(const HttpClientResult& result)
    {
        results.push_back(result);
        piecesBeforeResult = pieces.size();
    }
    bool waitForResult(int timeoutMs = 20000)
    {
        return waitFor([this] { return !results.empty(); }, timeoutMs);
    }
    QList<QByteArray> of(HttpClientOptions::TraceKind kind) const
    {
        QList<QByteArray> found;
        for (const Piece& piece : pieces) {
            if (piece.kind == kind) {
                found << piece.data;
            }
        }
        return found;
    }
    QByteArray joined(HttpClientOptions::TraceKind kind) const
    {
        QByteArray all;
        for (const QByteArray& data : of(kind)) {
            all += data;
        }
        return all;
    }
    // The response status lines, in the order they arrived.
    QList<QByteArray> statusLines() const
    {
        QList<QByteArray> lines;
        for (const QByteArray& line : of(HttpClientOptions::TraceHeaderIn)) {
            if (line.startsWith("HTTP/")) {
                lines << line;
            }
        }
        return lines;
    }
    bool anyInsideCall() const
    {
        for (const Piece& piece : pieces) {
            if (piece.insideCall) {
                return true;
            }
        }
        return false;
    }

    std::vector<Piece> pieces;
    std::vector<HttpClientResult> results;
    size_t piecesBeforeResult = 0;
    bool insideCall = false;
};

// A response whose every byte is known: its head lines are what the trace
// must show, and its body what it must never show.
const QByteArray kStatusLine = "HTTP/1.1 200 OK\r\n";
const QList<QByteArray> kFieldLines = { "X-Zeta: last-alphabetically\r\n", "Content-Type: text/plain\r\n",
    "X-Alpha: 1\r\n", "Content-Length: 21\r\n" };
const QByteArray kBody = "body-never-in-a-trace";

ScriptedResponse knownResponse()
{
    ScriptedResponse response;
    response.raw = kStatusLine;
    for (const QByteArray& line : kFieldLines) {
        response.raw += line;
    }
    response.raw += "\r\n" + kBody;
    return response;
}

class HttpClientTrace : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.start());
        server.setHandler([](const trel::test::RecordedRequest& request) {
            return request.target == "/known" ? knownResponse() : LoopbackServer::defaultRoutes(request);
        });
    }
    void TearDown() override { server.stop(); }

    TrelUrl url(const QByteArray& path) const { return TrelUrl::fromEncoded(server.url(path)); }
    HttpClientOptions traced(TraceJournal& journal) const
    {
        HttpClientOptions options;
        options.setTimeoutMs(20000);
        options.setTraceCallback(journal.trace());
        return options;
    }

    // What every traced GET of /known shows, whatever form it was made in.
    static void expectKnownExchange(const TraceJournal& journal)
    {
        EXPECT_FALSE(journal.anyInsideCall()) << "a piece came inside the request call";
        EXPECT_EQ(journal.piecesBeforeResult, journal.pieces.size()) << "pieces came after the result";
        EXPECT_TRUE(journal.joined(HttpClientOptions::TraceHeaderOut).startsWith("GET /known HTTP/1.1\r\n"));
        QList<QByteArray> expectedIn = { kStatusLine };
        expectedIn << kFieldLines << QByteArray("\r\n");
        EXPECT_EQ(journal.of(HttpClientOptions::TraceHeaderIn), expectedIn);
        EXPECT_FALSE(journal.of(HttpClientOptions::TraceText).isEmpty());
        for (const TraceJournal::Piece& piece : journal.pieces) {
            EXPECT_FALSE(piece.data.contains(kBody)) << "body bytes in the trace";
        }
    }

    LoopbackServer server;
    HttpClient client;
};

TEST_F(HttpClientTrace, AGetShowsItsHeadSentTheResponseLinesInOrderAndTextBetweenCallAndResult)
{
    TraceJournal journal;
    HttpClientOptions options = traced(journal);
    HttpClientHeaders headers;
    headers.append("X-Twice", "1");
    headers.append("X-Twice", "2");
    options.setHeaders(headers);
    journal.insideCall = true;
    ASSERT_NE(client.get(url("/known"), options, journal.result()), nullptr);
    journal.insideCall = false;
    ASSERT_TRUE(journal.waitForResult());
    ASSERT_EQ(journal.results[0].status, HttpClientStatus::OK);
    EXPECT_EQ(journal.results[0].body, kBody);
    expectKnownExchange(journal);
    const QByteArray sent = journal.joined(HttpClientOptions::TraceHeaderOut);
    EXPECT_TRUE(sent.contains("\r\nX-Twice: 1\r\nX-Twice: 2\r\n")) << sent.constData();
    EXPECT_TRUE(sent.endsWith("\r\n\r\n")) << sent.constData();
    // The head the trace shows is the head the server received.
    ASSERT_EQ(server.requests().size(), 1);
    EXPECT_EQ(sent, server.requests()[0].raw);
    EXPECT_TRUE(journal.joined(HttpClientOptions::TraceText).contains("127.0.0.1"));
}

TEST_F(HttpClientTrace, ASlotFormRequestIsTracedBeforeItsResult)
{
    TraceJournal journal;
    trel::test::ResultReceiver receiver;
    receiver.onReceived = [&journal](const trel::test::ReceivedResult&) {
        journal.piecesBeforeResult = journal.pieces.size();
    };
    journal.insideCall = true;
    ASSERT_NE(client.get(url("/known"), &receiver, "onResult", traced(journal)), nullptr);
    journal.insideCall = false;
    ASSERT_TRUE(waitFor([&] { return receiver.count() == 1; }));
    EXPECT_EQ(receiver.results()[0].status, static_cast<int>(HttpClientStatus::OK));
    expectKnownExchange(journal);
}

TEST_F(HttpClientTrace, AContextFormRequestIsTracedBeforeItsResult)
{
    TraceJournal journal;
    QObject context;
    journal.insideCall = true;
    ASSERT_NE(client.get(url("/known"), traced(journal), &context, journal.result()), nullptr);
    journal.insideCall = false;
    ASSERT_TRUE(journal.waitForResult());
    EXPECT_EQ(journal.results[0].status, HttpClientStatus::OK);
    expectKnownExchange(journal);
}

TEST_F(HttpClientTrace, ARedirectShowsBothStatusLinesAndBothRequestsInOrder)
{
    TraceJournal journal;
    HttpClientOptions options = traced(journal);
    options.setMaxRedirects(1);
    client.get(url("/redirect/1"), options, journal.result());
    ASSERT_TRUE(journal.waitForResult());
    ASSERT_EQ(journal.results[0].status, HttpClientStatus::OK);
    EXPECT_EQ(
        journal.statusLines(), QList<QByteArray>({ "HTTP/1.1 302 Redirect\r\n", "HTTP/1.1 200 OK\r\n" }));
    const QByteArray sent = journal.joined(HttpClientOptions::TraceHeaderOut);
    const int first = sent.indexOf("GET /redirect/1 HTTP/1.1\r\n");
    const int second = sent.indexOf("GET /redirect/0 HTTP/1.1\r\n");
    EXPECT_EQ(first, 0) << sent.constData();
    EXPECT_GT(second, first) << sent.constData();
    EXPECT_EQ(journal.piecesBeforeResult, journal.pieces.size());
}

TEST_F(HttpClientTrace, AnInterimResponsesStatusLineComesFirst)
{
    server.setHandler([](const trel::test::RecordedRequest&) {
        ScriptedResponse response;
        response.raw = "HTTP/1.1 103 Early Hints\r\nLink: </style.css>; rel=preload\r\n\r\n"
                       "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
        return response;
    });
    TraceJournal journal;
    client.get(url("/interim"), traced(journal), journal.result());
    ASSERT_TRUE(journal.waitForResult());
    ASSERT_EQ(journal.results[0].status, HttpClientStatus::OK);
    EXPECT_EQ(journal.of(HttpClientOptions::TraceHeaderIn),
        QList<QByteArray>({ "HTTP/1.1 103 Early Hints\r\n", "Link: </style.css>; rel=preload\r\n", "\r\n",
            "HTTP/1.1 200 OK\r\n", "Content-Length: 2\r\n", "\r\n" }));
}

TEST_F(HttpClientTrace, ACancelledRequestsTraceNeverComesInsideCancelAndEndsBeforeItsResult)
{
    server.setHandler([](const trel::test::RecordedRequest&) {
        return ScriptedResponse::withFault(ScriptedResponse::Fault::Stall);
    });
    TraceJournal journal;
    void* const id = client.get(url("/stall"), traced(journal), journal.result());
    ASSERT_TRUE(waitFor([&] { return server.requestCount() == 1; }));
    ASSERT_TRUE(waitFor([&] { return !journal.of(HttpClientOptions::TraceHeaderOut).isEmpty(); }));
    journal.insideCall = true;
    ASSERT_TRUE(client.cancel(id));
    journal.insideCall = false;
    ASSERT_TRUE(journal.waitForResult());
    EXPECT_EQ(journal.results[0].code, -1);
    EXPECT_FALSE(journal.anyInsideCall());
    EXPECT_EQ(journal.piecesBeforeResult, journal.pieces.size());
    EXPECT_TRUE(journal.of(HttpClientOptions::TraceHeaderIn).isEmpty());
}

// ---------------------------------------------------------------------------
// No callback, no cost

TEST_F(HttpClientTrace, ARequestWithoutACallbackTurnsOnNoVerboseModeOrDebugFunction)
{
    trel::test::ResultCollector results;
    HttpClientOptions plain;
    void* const id = client.get(url("/plain"), plain, results.callback());
    void* const handle = HttpClientTestAccess::handleOf(client, id);
    ASSERT_NE(handle, nullptr);
    EXPECT_FALSE(curlOptions::easy(handle, CURLOPT_VERBOSE).has_value());
    EXPECT_FALSE(curlOptions::easy(handle, CURLOPT_DEBUGFUNCTION).has_value());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::OK);
}

TEST_F(HttpClientTrace, APooledHandleATracedRequestUsedDoesNotTraceTheNextRequest)
{
    TraceJournal journal;
    void* const tracedId = client.get(url("/known"), traced(journal), journal.result());
    void* const handle = HttpClientTestAccess::handleOf(client, tracedId);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(curlOptions::easy(handle, CURLOPT_VERBOSE)->value, 1);
    ASSERT_TRUE(journal.waitForResult());
    const size_t tracedPieces = journal.pieces.size();
    ASSERT_GT(tracedPieces, 0U);

    trel::test::ResultCollector results;
    void* const plainId = client.get(url("/known"), HttpClientOptions(), results.callback());
    ASSERT_EQ(HttpClientTestAccess::handleOf(client, plainId), handle) << "the handle was not reused";
    EXPECT_FALSE(curlOptions::easy(handle, CURLOPT_VERBOSE).has_value());
    EXPECT_FALSE(curlOptions::easy(handle, CURLOPT_DEBUGFUNCTION).has_value());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::OK);
    EXPECT_EQ(journal.pieces.size(), tracedPieces); // nothing more reached the first request's callback
}

// ---------------------------------------------------------------------------
// HTTP/2

class HttpClientTraceHttp2 : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        server = std::make_unique<trel::test::NghttpdServer>();
        trel::test::NghttpdServer::Options options;
        options.pushes = QStringList { QStringLiteral("/index.html=/style.css,/1k") };
        ASSERT_TRUE(server->start(options)) << server->error().toStdString();
    }
    static void TearDownTestSuite() { server.reset(); }

    static inline std::unique_ptr<trel::test::NghttpdServer> server;
};

TEST_F(HttpClientTraceHttp2, TheHeadsSayHttp2AndPushedResponsesAddNothing)
{
    HttpClient client(nullptr, HttpClient::Http2);
    trel::test::ResultReceiver pushes;
    client.setPushProperties(&pushes, "onResult", HttpClientOptions());
    TraceJournal journal;
    HttpClientOptions options;
    options.setVerifyPeer(false); // nghttpd's certificate is self-signed
    options.setTraceCallback(journal.trace());
    client.get(TrelUrl::fromEncoded(server->url("/index.html")), options, journal.result());
    ASSERT_TRUE(journal.waitForResult());
    ASSERT_EQ(journal.results[0].status, HttpClientStatus::OK);
    EXPECT_EQ(journal.results[0].body, "hello h2");
    ASSERT_TRUE(waitFor([&] { return pushes.count() == 2; }));
    EXPECT_TRUE(journal.joined(HttpClientOptions::TraceHeaderOut).startsWith("GET /index.html HTTP/2\r\n"))
        << journal.joined(HttpClientOptions::TraceHeaderOut).constData();
    // One response of the request's own: the pushed ones' heads are not in its trace.
    EXPECT_EQ(journal.statusLines(), QList<QByteArray>({ "HTTP/2 200 \r\n" }));
    EXPECT_EQ(journal.piecesBeforeResult, journal.pieces.size());
}

} // namespace
