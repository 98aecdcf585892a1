// HttpClient against servers that misbehave and callers that abuse it. Every
// row of the fault table is one scripted misbehaviour of the loopback server
// (or a real condition: a refused connection, an unresolvable host), run as a
// GET and as a file upload on a fresh client, and each asserts the status and
// code the caller gets, exactly one result per request, no hang past the
// request's timeout, and no descriptor or temporary file left behind.

#include <trel/HttpClient.h>

#include "LocalServers.h"
#include "LoopbackServer.h"
#include "ProcessState.h"
#include "ResultReceiver.h"
#include "SocketCount.h"
#include "WaitFor.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include <zlib.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <set>
#include <string>

namespace {

using trel::test::LoopbackServer;
using trel::test::peakResidentBytes;
using trel::test::RecordedRequest;
using trel::test::resetPeakResident;
using trel::test::ResultReceiver;
using trel::test::ScriptedResponse;
using trel::test::waitFor;

using Fault = ScriptedResponse::Fault;

// One loopback server for the whole executable, started on port 0, and a
// second one that redirects may point at.
class ServerEnvironment : public ::testing::Environment
{
public:
    void SetUp() override
    {
        ASSERT_TRUE(server().start());
        ASSERT_TRUE(other().start());
    }
    void TearDown() override
    {
        server().stop();
        other().stop();
    }
    static LoopbackServer& server()
    {
        static LoopbackServer instance;
        return instance;
    }
    static LoopbackServer& other()
    {
        static LoopbackServer instance;
        return instance;
    }
};

const auto* const environment = ::testing::AddGlobalTestEnvironment(new ServerEnvironment);

LoopbackServer& server()
{
    return ServerEnvironment::server();
}

TrelUrl url(const QByteArray& path)
{
    return TrelUrl::fromEncoded(server().url(path));
}

QStringList temporaryUploadFiles()
{
    return QDir::temp().entryList({ "trel-http-fetcher.*" }, QDir::Files);
}

// The head of the response every body-carrying row starts from.
const QByteArray kBody = QByteArray(10000, 'b');

QByteArray headOf(const ScriptedResponse& response)
{
    return "HTTP/1.1 " + QByteArray::number(response.status) + ' ' + response.reason + "\r\n"
        + "Content-Type: text/plain\r\nContent-Length: " + QByteArray::number(response.body.size())
        + "\r\n\r\n";
}

// The results of one request, by the tag its callback carries.
struct TaggedResults
{
    HttpClient::Callback callback(const std::string& tag)
    {
        return [this, tag](const HttpClientResult& result) { received[tag].push_back(result); };
    }
    size_t total() const
    {
        size_t n = 0;
        for (const auto& entry : received) {
            n += entry.second.size();
        }
        return n;
    }
    std::map<std::string, std::vector<HttpClientResult>> received;
};

struct FaultCase
{
    std::string name;
    std::function<ScriptedResponse()> reply; // what the loopback server does
    std::function<TrelUrl()> target; // the loopback server's /fault when empty
    int timeoutMs = 0; // the request's own timeout; 0 sets none
    HttpClientStatus status;
    int code;
};

std::ostream& operator<<(std::ostream& out, const FaultCase& row)
{
    return out << row.name;
}

ScriptedResponse withFault(Fault fault, int cutAt = 0)
{
    ScriptedResponse response = ScriptedResponse::ok(kBody);
    response.fault = fault;
    response.cutAt = cutAt;
    return response;
}

ScriptedResponse rawReply(const QByteArray& bytes)
{
    ScriptedResponse response;
    response.raw = bytes;
    response.closeAfter = true;
    return response;
}

QByteArray manyHeaderLines(int count)
{
    QByteArray head = "HTTP/1.1 200 OK\r\n";
    for (int i = 0; i < count; ++i) {
        head += "X-Line-" + QByteArray::number(i) + ": v\r\n";
    }
    return head + "Content-Length: 2\r\n\r\nok";
}

const std::vector<FaultCase>& faultTable()
{
    static const std::vector<FaultCase> rows = {
        { "ResetBeforeTheStatusLine", [] { return withFault(Fault::ResetConnection); }, {}, 0,
            HttpClientStatus::Error, 0 },
        { "ResetMidHeaders", [] { return withFault(Fault::ResetAfter, 30); }, {}, 0, HttpClientStatus::Error,
            200 },
        { "ResetMidBody",
            [] { return withFault(Fault::ResetAfter, headOf(ScriptedResponse::ok(kBody)).size() + 500); }, {},
            0, HttpClientStatus::Error, 200 },
        { "ContentLengthLargerThanTheBodyThenClose",
            [] {
                ScriptedResponse response = withFault(Fault::Truncate);
                response.truncateAt = 500;
                return response;
            },
            {}, 0, HttpClientStatus::Error, 200 },
        { "TruncatedChunkedEncoding",
            [] {
                ScriptedResponse response = withFault(Fault::CutAfter, 300);
                response.chunked = true;
                response.chunkSize = 100;
                return response;
            },
            {}, 0, HttpClientStatus::Error, 200 },
        { "GarbageStatusLine", [] { return rawReply("SSH-2.0-NotHttp\r\nwhat: ever\r\n\r\n"); }, {}, 0,
            HttpClientStatus::Error, 0 },
        { "OneMegabyteHeaderLine",
            [] {
                return rawReply("HTTP/1.1 200 OK\r\nX-Huge: " + QByteArray(1024 * 1024, 'h')
                    + "\r\nContent-Length: 2\r\n\r\nok");
            },
            {}, 0, HttpClientStatus::Error, 200 },
        { "TenThousandHeaderLines", [] { return rawReply(manyHeaderLines(10000)); }, {}, 0,
            HttpClientStatus::Error, 200 },
        { "BodyAtOneBytePer50msWithATimeout",
            [] {
                ScriptedResponse response = ScriptedResponse::ok(kBody);
                response.dripMs = 50;
                return response;
            },
            {}, 400, HttpClientStatus::Timeout, 200 },
        { "RedirectLoop", [] { return ScriptedResponse::redirect(302, "/fault"); }, {}, 0,
            HttpClientStatus::Error, 302 },
        { "RedirectToAnotherPort",
            [] { return ScriptedResponse::redirect(302, ServerEnvironment::other().url("/elsewhere")); }, {},
            0, HttpClientStatus::OK, 200 },
        { "RedirectToANonHttpScheme",
            [] {
                return ScriptedResponse::redirect(
                    302, "ftp://127.0.0.1:" + QByteArray::number(server().port()) + "/x");
            },
            {}, 3000, HttpClientStatus::Error, 302 },
        { "ConnectionRefused", [] { return ScriptedResponse::ok("unused"); },
            [] {
                return TrelUrl::fromEncoded(
                    "http://127.0.0.1:" + QByteArray::number(trel::test::freeLoopbackPort()) + "/");
            },
            0, HttpClientStatus::ConnectError, 0 },
        { "UnresolvableHost", [] { return ScriptedResponse::ok("unused"); },
            [] { return TrelUrl::fromEncoded("http://no-such-host.invalid/"); }, 0,
            HttpClientStatus::ResolveError, 0 },
        { "AcceptsAndNeverAnswers", [] { return withFault(Fault::Stall); }, {}, 300,
            HttpClientStatus::Timeout, 0 },
    };
    return rows;
}

class FaultTable : public ::testing::TestWithParam<FaultCase>
{
protected:
    void SetUp() override
    {
        server().clear();
        const FaultCase& row = GetParam();
        server().setHandler([reply = row.reply](const RecordedRequest&) { return reply(); });
    }
    void TearDown() override { server().setHandler(&LoopbackServer::defaultRoutes); }
};

TEST_P(FaultTable, OneResultWithTheExpectedStatusAndNothingLeftBehind)
{
    const FaultCase& row = GetParam();
    const int descriptorsBefore = trel::test::openFileDescriptors();
    const QStringList temporaryBefore = temporaryUploadFiles();
    HttpClientOptions options;
    options.setTimeoutMs(row.timeoutMs);
    TaggedResults results;
    {
        HttpClient client;
        const TrelUrl target = row.target ? row.target() : url("/fault");
        EXPECT_NE(client.get(target, options, results.callback("get")), nullptr);
        EXPECT_NE(client.postFile(target, "file payload", options, results.callback("file")), nullptr);
        // No hang past the timeout: a generous bound over it, never a fixed sleep.
        const int bound = (row.timeoutMs > 0 ? row.timeoutMs : 0) + 15000;
        ASSERT_TRUE(waitFor([&] { return results.total() >= 2; }, bound)) << row.name;
        trel::test::spinEventLoop(50);
        for (const std::string tag : { "get", "file" }) {
            ASSERT_EQ(results.received[tag].size(), 1u) << tag;
            const HttpClientResult& result = results.received[tag].front();
            EXPECT_EQ(result.status, row.status)
                << tag << ": " << HttpClient::toString(result.status).toStdString();
            EXPECT_EQ(result.code, row.code) << tag;
            EXPECT_EQ(result.headers.contains("X-TrelEfectiveUrl"), row.status == HttpClientStatus::OK)
                << tag;
        }
    }
    EXPECT_TRUE(waitFor([&] { return trel::test::openFileDescriptors() <= descriptorsBefore; }))
        << trel::test::openFileDescriptors() << " descriptors open, " << descriptorsBefore << " before";
    EXPECT_EQ(temporaryUploadFiles(), temporaryBefore);
}

INSTANTIATE_TEST_SUITE_P(Loopback, FaultTable, ::testing::ValuesIn(faultTable()),
    [](const ::testing::TestParamInfo<FaultCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------
// Cases that need more than one request or a look at memory

class Faults : public ::testing::Test
{
protected:
    void SetUp() override { server().clear(); }
    void TearDown() override { server().setHandler(&LoopbackServer::defaultRoutes); }
};

// A keep-alive connection that the server closes silently after its answer:
// libcurl sees the closed socket before it reuses it and opens a new one, so
// the second request succeeds.
TEST_F(Faults, KeepAliveConnectionClosedSilentlyBetweenTwoRequests)
{
    server().setHandler([](const RecordedRequest&) {
        ScriptedResponse response = ScriptedResponse::ok("first");
        response.fault = Fault::CloseSilently;
        return response;
    });
    HttpClient client;
    HttpClientOptions options;
    TaggedResults results;
    client.get(url("/one"), options, results.callback("one"));
    ASSERT_TRUE(waitFor([&] { return results.total() == 1; }));
    // Wait until the server has closed its side, as it would between requests.
    ASSERT_TRUE(waitFor([&] { return trel::test::establishedConnectionsTo(server().port()) == 0; }));
    client.get(url("/two"), options, results.callback("two"));
    ASSERT_TRUE(waitFor([&] { return results.total() == 2; }));
    EXPECT_EQ(results.received["one"].front().status, HttpClientStatus::OK);
    EXPECT_EQ(results.received["two"].front().status, HttpClientStatus::OK);
    EXPECT_EQ(results.received["two"].front().body, "first");
    EXPECT_EQ(server().connectionCount(), 2);
}

// A gzip stream of `size` zero bytes, made once per size.
QByteArray gzippedZeros(qint64 size)
{
    static std::map<qint64, QByteArray> made;
    if (const auto found = made.find(size); found != made.end()) {
        return found->second;
    }
    z_stream stream {};
    EXPECT_EQ(deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 9, Z_DEFAULT_STRATEGY), Z_OK);
    const QByteArray zeros(1024 * 1024, '\0');
    QByteArray out;
    char buffer[65536];
    for (qint64 left = size; left >= 0; left -= zeros.size()) {
        const bool last = left <= zeros.size();
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(zeros.constData()));
        stream.avail_in = static_cast<uInt>(std::min<qint64>(left, zeros.size()));
        do {
            stream.next_out = reinterpret_cast<Bytef*>(buffer);
            stream.avail_out = sizeof(buffer);
            deflate(&stream, last ? Z_FINISH : Z_NO_FLUSH);
            out.append(buffer, static_cast<int>(sizeof(buffer) - stream.avail_out));
        } while (stream.avail_out == 0);
        if (last) {
            break;
        }
    }
    deflateEnd(&stream);
    made[size] = out;
    return out;
}

constexpr qint64 kBombSize = 1024LL * 1024 * 1024;

void serveGzipBomb()
{
    const QByteArray bomb = gzippedZeros(kBombSize);
    server().setHandler([bomb](const RecordedRequest&) {
        return ScriptedResponse::ok(bomb, "application/octet-stream").addHeader("Content-Encoding", "gzip");
    });
}

// A gzip body that expands to 1 GiB ends at the read-size limit: the client
// decodes as it goes and never holds more than the limit.
TEST_F(Faults, GzipBombStopsAtTheDefaultReadSizeLimitWithBoundedMemory)
{
    serveGzipBomb();
    HttpClient client;
    TaggedResults results;
    resetPeakResident();
    const qint64 before = peakResidentBytes();
    client.get(url("/bomb"), HttpClientOptions(), results.callback("bomb"));
    ASSERT_TRUE(waitFor([&] { return results.total() == 1; }, 60000));
    const qint64 growth = peakResidentBytes() - before;
    const HttpClientResult& result = results.received["bomb"].front();
    EXPECT_EQ(result.status, HttpClientStatus::Error);
    EXPECT_EQ(result.code, 200);
    EXPECT_EQ(result.body.size(), HttpClientOptions().readSizeLimit());
    // The limit is 64 KiB; libcurl's buffers and the compressed bytes add a few MiB.
    EXPECT_LT(growth, 32LL * 1024 * 1024) << growth << " bytes of peak growth";
}

// With no limit the whole GiB arrives, intact.
TEST_F(Faults, GzipBombWithoutALimitArrivesWhole)
{
    serveGzipBomb();
    HttpClient client;
    HttpClientOptions options;
    options.setReadSizeLimit(-1);
    TaggedResults results;
    client.get(url("/bomb"), options, results.callback("bomb"));
    ASSERT_TRUE(waitFor([&] { return results.total() == 1; }, 120000));
    HttpClientResult& result = results.received["bomb"].front();
    EXPECT_EQ(result.status, HttpClientStatus::OK);
    EXPECT_EQ(result.body.size(), kBombSize);
    EXPECT_EQ(result.body.count('\0'), kBombSize);
    result.body.clear(); // the GiB goes now, not with the fixture
}

// ---------------------------------------------------------------------------
// HTTP/2: nghttpd cannot misbehave on demand, but it can go away mid-stream.

TEST(Http2Faults, ServerGoingAwayMidBodyEndsTheStreamWithOneError)
{
    trel::test::NghttpdServer nghttpd;
    ASSERT_TRUE(nghttpd.start()) << nghttpd.error().toStdString();
    nghttpd.writeFile("big.bin", QByteArray(64 * 1024 * 1024, 'x'));
    HttpClient client(nullptr, HttpClient::Http2);
    HttpClientOptions options;
    options.setVerifyPeer(false);
    options.setImmediateRead(true);
    options.setReadSizeLimit(-1);
    int partial = 0;
    std::vector<HttpClientResult> finals;
    client.get(TrelUrl::fromEncoded(nghttpd.url("/big.bin")), options, [&](const HttpClientResult& result) {
        if (result.status == HttpClientStatus::ImmediateRead) {
            if (++partial == 1) {
                nghttpd.stop(); // the server goes away with the body half sent
            }
            return;
        }
        finals.push_back(result);
    });
    ASSERT_TRUE(waitFor([&] { return !finals.empty(); }, 30000));
    trel::test::spinEventLoop(50);
    ASSERT_EQ(finals.size(), 1u);
    EXPECT_GE(partial, 1);
    EXPECT_EQ(finals[0].status, HttpClientStatus::Error);
}

TEST(Http2Faults, RefusedConnectionIsConnectError)
{
    HttpClient client(nullptr, HttpClient::Http2);
    TaggedResults results;
    client.get(
        TrelUrl::fromEncoded("https://127.0.0.1:" + QByteArray::number(trel::test::freeLoopbackPort()) + "/"),
        HttpClientOptions(), results.callback("h2"));
    ASSERT_TRUE(waitFor([&] { return results.total() == 1; }));
    EXPECT_EQ(results.received["h2"].front().status, HttpClientStatus::ConnectError);
    EXPECT_EQ(results.received["h2"].front().code, 0);
}

// ---------------------------------------------------------------------------
// Caller abuse

class CallerAbuse : public ::testing::Test
{
protected:
    void SetUp() override
    {
        server().clear();
        server().setHandler([](const RecordedRequest& request) {
            ScriptedResponse response = ScriptedResponse::ok("answer");
            response.delayMs = request.target.startsWith("/slow") ? 300 : 0;
            if (request.target.startsWith("/cacheable")) {
                response.addHeader("Cache-Control", "max-age=60");
                response.body = request.target.contains("empty") ? QByteArray() : QByteArray("cached");
            }
            return response;
        });
    }
    void TearDown() override { server().setHandler(&LoopbackServer::defaultRoutes); }

    HttpClientOptions options;
    TaggedResults results;
};

TEST_F(CallerAbuse, CancelTwiceAfterTheResultAndOfAMadeUpIdAreRefused)
{
    HttpClient client;
    void* const live = client.get(url("/slow"), options, results.callback("live"));
    void* const done = client.get(url("/fast"), options, results.callback("done"));
    ASSERT_TRUE(waitFor([&] { return results.received["done"].size() == 1; }));
    EXPECT_TRUE(client.cancel(live));
    EXPECT_FALSE(client.cancel(live));
    EXPECT_FALSE(client.cancel(done));
    EXPECT_FALSE(client.cancel(reinterpret_cast<void*>(0xdeadbeef)));
    EXPECT_FALSE(client.cancel(nullptr));
    ASSERT_TRUE(waitFor([&] { return results.total() == 2; }));
    trel::test::spinEventLoop(50);
    ASSERT_EQ(results.received["live"].size(), 1u);
    EXPECT_EQ(results.received["live"].front().status, HttpClientStatus::Error);
    EXPECT_EQ(results.received["live"].front().code, -1);
}

TEST_F(CallerAbuse, CancelFromInsideAResultCallback)
{
    HttpClient client;
    void* const slow = client.get(url("/slow"), options, results.callback("slow"));
    void* fast = nullptr;
    bool cancelledOther = false;
    bool cancelledSelf = true;
    fast = client.get(url("/fast"), options, [&](const HttpClientResult& result) {
        results.received["fast"].push_back(result);
        cancelledOther = client.cancel(slow);
        cancelledSelf = client.cancel(fast);
    });
    ASSERT_TRUE(waitFor([&] { return results.total() == 2; }));
    trel::test::spinEventLoop(50);
    EXPECT_TRUE(cancelledOther);
    EXPECT_FALSE(cancelledSelf);
    ASSERT_EQ(results.received["slow"].size(), 1u);
    EXPECT_EQ(results.received["slow"].front().code, -1);
    EXPECT_EQ(results.received["fast"].front().status, HttpClientStatus::OK);
}

// The callback that destroys the client runs inside the client's own slot;
// the live requests still report once each to their receiver.
TEST_F(CallerAbuse, DestroyingTheClientInsideAResultCallback)
{
    ResultReceiver receiver;
    auto* client = new HttpClient;
    for (int i = 0; i < 3; ++i) {
        client->get(url("/slow?n=" + QByteArray::number(i)), &receiver, "onResult", options);
    }
    bool destroyed = false;
    client->get(url("/fast"), options, [&](const HttpClientResult&) {
        delete client;
        client = nullptr;
        destroyed = true;
    });
    ASSERT_TRUE(waitFor([&] { return destroyed && receiver.count() == 3; }));
    trel::test::spinEventLoop(400); // past the slow answers: nothing more arrives
    EXPECT_EQ(receiver.count(), 3);
    for (const auto& result : receiver.results()) {
        EXPECT_EQ(result.status, static_cast<int>(HttpClientStatus::Error));
        EXPECT_EQ(result.code, -1);
    }
}

TEST_F(CallerAbuse, FiveThousandRequestsThenTheClientIsDestroyedAtOnce)
{
    const int descriptorsBefore = trel::test::openFileDescriptors();
    ResultReceiver receiver;
    {
        HttpClient client;
        for (int i = 0; i < 5000; ++i) {
            ASSERT_NE(
                client.get(url("/many?n=" + QByteArray::number(i)), &receiver, "onResult", options), nullptr);
        }
    }
    ASSERT_TRUE(waitFor([&] { return receiver.count() == 5000; }, 60000));
    trel::test::spinEventLoop(50);
    EXPECT_EQ(receiver.count(), 5000);
    std::set<QString> urls;
    for (const auto& result : receiver.results()) {
        EXPECT_EQ(result.code, -1);
        urls.insert(result.url.toString());
    }
    EXPECT_EQ(urls.size(), 5000u); // one result per request, none twice
    EXPECT_TRUE(waitFor([&] { return trel::test::openFileDescriptors() <= descriptorsBefore; }));
}

// Turning the cache off evicts every entry that costs something; entries with
// empty bodies cost nothing and stay until they expire.
TEST_F(CallerAbuse, CacheSizeZeroWithEntriesStored)
{
    HttpClient client;
    client.setCacheSize(4096);
    // One after the other: the cache trims least recently used first, and run
    // side by side the two could be stored in either order.
    client.get(url("/cacheable"), options, results.callback("store"));
    ASSERT_TRUE(waitFor([&] { return results.total() == 1; }));
    client.get(url("/cacheable?empty"), options, results.callback("store"));
    ASSERT_TRUE(waitFor([&] { return results.total() == 2; }));
    client.setCacheSize(0);
    EXPECT_NE(client.get(url("/cacheable"), options, results.callback("after")), nullptr);
    EXPECT_EQ(client.get(url("/cacheable?empty"), options, results.callback("after")), nullptr);
    ASSERT_TRUE(waitFor([&] { return results.total() == 4; }));
    EXPECT_EQ(results.received["after"][0].status, HttpClientStatus::OK);
    EXPECT_EQ(server().requestCount(), 3);
    // Nothing new is stored while the size is 0.
    EXPECT_NE(client.get(url("/cacheable"), options, results.callback("again")), nullptr);
    ASSERT_TRUE(waitFor([&] { return results.total() == 5; }));
}

TEST_F(CallerAbuse, NullReceiverGetsNothingAndTheClientCarriesOn)
{
    HttpClient client;
    EXPECT_NE(client.get(url("/nobody"), nullptr, "onResult", options), nullptr);
    client.get(url("/somebody"), options, results.callback("after"));
    ASSERT_TRUE(waitFor([&] { return results.total() == 1; }));
    ASSERT_TRUE(server().waitForRequests(2, 5000));
    trel::test::spinEventLoop(50);
    EXPECT_EQ(results.total(), 1u);
    EXPECT_EQ(results.received["after"].front().status, HttpClientStatus::OK);
}

TEST_F(CallerAbuse, SlotNameThatDoesNotExistIsRefusedAndSendsNothing)
{
    HttpClient client;
    ResultReceiver receiver;
    EXPECT_EQ(client.get(url("/wrong"), &receiver, "noSuchSlot", options), nullptr);
    client.get(url("/right"), &receiver, "onResult", options);
    ASSERT_TRUE(waitFor([&] { return receiver.count() == 1; }));
    ASSERT_TRUE(server().waitForRequests(1, 5000));
    trel::test::spinEventLoop(50);
    EXPECT_EQ(receiver.count(), 1);
    EXPECT_EQ(server().requestCount(), 1);
    EXPECT_EQ(receiver.results()[0].url.toString(), url("/right").toString());
}

} // namespace
