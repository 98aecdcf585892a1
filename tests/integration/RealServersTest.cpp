// HttpClient against real servers from Debian's packages: nginx for HTTP/1.1
// keep-alive and uploads (its /echo is proxied to the loopback server so the
// bytes nginx accepted can be checked), nghttpd for HTTP/2 over TLS,
// multiplexing and server push.

#include <trel/HttpClient.h>

#include "LocalServers.h"
#include "LoopbackServer.h"
#include "ProcessState.h"
#include "ResultCollector.h"
#include "ResultReceiver.h"
#include "SocketCount.h"
#include "StreamProducers.h"
#include "WaitFor.h"

#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QTemporaryFile>
#include <QTimer>

#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include <random>
#include <thread>

namespace {

using trel::test::residentKilobytes;

using trel::test::HeldProducer;
using trel::test::LoopbackServer;
using trel::test::NghttpdServer;
using trel::test::NginxServer;
using trel::test::PacedProducer;
using trel::test::randomBytes;
using trel::test::ResultReceiver;
using trel::test::sha256;
using trel::test::waitFor;

using Results = trel::test::ResultCollector;

QList<QByteArray> split(const QByteArray& bytes, int pieces)
{
    QList<QByteArray> chunks;
    const int step = (bytes.size() + pieces - 1) / pieces;
    for (int at = 0; at < bytes.size(); at += step) {
        chunks << bytes.mid(at, step);
    }
    return chunks;
}

// ---------------------------------------------------------------------------
// nginx

class Nginx : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        backend = std::make_unique<LoopbackServer>();
        ASSERT_TRUE(backend->start());
        nginx = std::make_unique<NginxServer>();
        NginxServer::Options options;
        options.backendPort = backend->port();
        ASSERT_TRUE(nginx->start(options)) << nginx->error().toStdString();
    }
    static void TearDownTestSuite()
    {
        nginx.reset(); // before the backend it forwards to
        backend.reset();
    }
    void SetUp() override { backend->clear(); }

    static inline std::unique_ptr<LoopbackServer> backend;
    static inline std::unique_ptr<NginxServer> nginx;
    Results results;
    HttpClientOptions options;
};

TEST_F(Nginx, StreamWithLongPausesArrivesIntactThroughNginx)
{
    HttpClient client;
    const QByteArray body = randomBytes(200000, 4);
    auto queue = QSharedPointer<HttpClientQueue>::create(nullptr);
    options.setReadSizeLimit(-1);
    QList<QByteArray> chunks = split(body, 4);
    {
        // Pauses of 1.1 s between chunks: longer than any libcurl or nginx idle tick.
        PacedProducer producer(queue, chunks, 1100);
        client.postStream(TrelUrl::fromEncoded(nginx->url("/echo")), queue, options, results.callback());
        ASSERT_TRUE(results.waitFor(1, 30000));
    }
    EXPECT_EQ(results.received[0].status, HttpClientStatus::OK);
    EXPECT_EQ(results.received[0].code, 200);
    EXPECT_TRUE(results.received[0].body == body);
    ASSERT_TRUE(waitFor([&] { return backend->requestCount() == 1; }));
    EXPECT_TRUE(backend->requests()[0].body == body); // what nginx accepted and forwarded
    client.get(
        TrelUrl::fromEncoded(nginx->url("/files/1k?marker=after-stream")), options, results.callback());
    ASSERT_TRUE(results.waitFor(2));
    EXPECT_EQ(results.received[1].code, 200);
    EXPECT_EQ(results.received[1].body.size(), 1024);
    // The first field of a log line is its connection.
    const auto connectionOf = [&](const QString& request) {
        const QStringList lines = nginx->accessLogLines(request);
        return lines.size() == 1 ? lines[0].section(' ', 0, 0) : QString();
    };
    ASSERT_TRUE(waitFor([&] {
        return !connectionOf(" /echo ").isEmpty() && !connectionOf("marker=after-stream").isEmpty();
    }));
    EXPECT_EQ(connectionOf("marker=after-stream"), connectionOf(" /echo ")); // the same connection
}

TEST_F(Nginx, ExactSizedAndEmptyChunksArriveWholeThroughNginx)
{
    HttpClient client;
    const QList<QByteArray> chunks = trel::test::exactSizedChunksWithEmptyOnes(31);
    const QByteArray expected = trel::test::joined(chunks);
    auto queue = QSharedPointer<HttpClientQueue>::create(nullptr);
    options.setReadSizeLimit(-1);
    {
        PacedProducer producer(queue, chunks, 5);
        client.postStream(TrelUrl::fromEncoded(nginx->url("/echo")), queue, options, results.callback());
        ASSERT_TRUE(results.waitFor(1, 30000));
    }
    EXPECT_EQ(results.received[0].status, HttpClientStatus::OK);
    EXPECT_EQ(results.received[0].code, 200);
    EXPECT_EQ(sha256(results.received[0].body), sha256(expected));
    ASSERT_TRUE(waitFor([&] { return backend->requestCount() == 1; }));
    EXPECT_EQ(sha256(backend->requests()[0].body), sha256(expected)); // what nginx accepted
}

TEST_F(Nginx, TwoHundredSequentialRequestsReuseOneConnection)
{
    HttpClient client;
    int done = 0;
    std::function<void()> next = [&] {
        const TrelUrl url = TrelUrl::fromEncoded(nginx->url("/files/1k?reuse=" + QByteArray::number(done)));
        client.get(url, options, [&](const HttpClientResult& result) {
            EXPECT_EQ(result.code, 200);
            if (++done < 200) {
                next();
            }
        });
    };
    next();
    ASSERT_TRUE(waitFor([&] { return done == 200; }, 30000));
    ASSERT_TRUE(waitFor([&] { return nginx->accessLogLines("/files/1k?reuse=").size() == 200; }));
    QSet<QString> connections;
    for (const QString& line : nginx->accessLogLines("/files/1k?reuse=")) {
        connections.insert(line.section(' ', 0, 0));
    }
    EXPECT_EQ(connections.size(), 1);
}

TEST_F(Nginx, Http2ClientFallsBackToHttp1OverCleartext)
{
    HttpClient client(nullptr, HttpClient::Http2);
    client.get(TrelUrl::fromEncoded(nginx->url("/files/1k")), options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::OK);
    EXPECT_EQ(results.received[0].body.size(), 1024);
}

TEST_F(Nginx, CacheableResponseIsServedFromTheCacheOnTheSecondRound)
{
    HttpClient client;
    client.setCacheSize(1 << 20);
    const TrelUrl url = TrelUrl::fromEncoded(nginx->url("/cache/1k?marker=second-round"));
    EXPECT_NE(client.get(url, options, results.callback()), nullptr);
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(client.get(url, options, results.callback()), nullptr);
    ASSERT_TRUE(results.waitFor(2));
    EXPECT_EQ(results.received[1].body, results.received[0].body);
    EXPECT_EQ(results.received[1].headers.value("Cache-Control", QString()), "max-age=60");
    ASSERT_TRUE(waitFor([&] { return nginx->accessLogLines("marker=second-round").size() == 1; }));
    trel::test::spinEventLoop(50);
    EXPECT_EQ(nginx->accessLogLines("marker=second-round").size(), 1);
}

// ---------------------------------------------------------------------------
// nginx over HTTP/1.1 and, with TLS, HTTP/2: what results carry

class NginxBothVersions : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        nginx = std::make_unique<NginxServer>();
        NginxServer::Options options;
        options.http2Tls = true;
        ASSERT_TRUE(nginx->start(options)) << nginx->error().toStdString();
    }
    static void TearDownTestSuite() { nginx.reset(); }

    struct Route
    {
        const char* name;
        HttpClient::HttpVersion version;
        QByteArray (NginxServer::*url)(const QByteArray&) const;
    };
    static std::vector<Route> routes()
    {
        return { { "HTTP/1.1", HttpClient::Http1, &NginxServer::url },
            { "HTTP/2", HttpClient::Http2, &NginxServer::tlsUrl } };
    }
    static TrelUrl urlOf(const Route& route, const QByteArray& path)
    {
        return TrelUrl::fromEncoded(((*nginx).*route.url)(path));
    }
    HttpClientResult fetch(const Route& route, const QByteArray& path)
    {
        HttpClient client(nullptr, route.version);
        Results results;
        client.get(urlOf(route, path), insecure(), results.callback());
        EXPECT_TRUE(results.waitFor(1)) << route.name;
        return results.received.empty() ? HttpClientResult() : results.received[0];
    }
    static HttpClientOptions insecure()
    {
        HttpClientOptions options;
        options.setVerifyPeer(false); // the test certificate is self-signed
        return options;
    }

    static inline std::unique_ptr<NginxServer> nginx;
};

TEST_F(NginxBothVersions, RepeatedFieldsKeepEveryValueInOrder)
{
    for (const Route& route : routes()) {
        const HttpClientResult result = fetch(route, "/repeated");
        ASSERT_EQ(result.status, HttpClientStatus::OK) << route.name;
        EXPECT_EQ(result.headers.values("set-cookie"), QStringList({ "a=1", "b=2" })) << route.name;
        EXPECT_EQ(result.headers.values("LINK"), QStringList({ "</p2>; rel=next", "</p9>; rel=last" }))
            << route.name;
        EXPECT_EQ(result.headers.values("Vary"), QStringList({ "Accept", "Origin" })) << route.name;
        EXPECT_EQ(result.headers.values("X-Mixed"), QStringList({ "one", "two" })) << route.name;
        // The one-value view is what it always was: the last line wins.
        EXPECT_EQ(result.headers.value("Set-Cookie", QString()), "b=2") << route.name;
        EXPECT_EQ(result.headers.value("x-MIXED", QString()), "two") << route.name;
    }
}

TEST_F(NginxBothVersions, ARedirectsCookieComesBeforeTheFinalResponses)
{
    for (const Route& route : routes()) {
        const HttpClientResult result = fetch(route, "/repeated-redirect");
        ASSERT_EQ(result.status, HttpClientStatus::OK) << route.name;
        EXPECT_EQ(result.headers.values("Set-Cookie"), QStringList({ "r=0", "a=1", "b=2" })) << route.name;
        EXPECT_EQ(result.headers.value("Set-Cookie", QString()), "b=2") << route.name;
    }
}

TEST_F(NginxBothVersions, FieldsNamedLikeTheLibrarysOwnNeverReachTheCaller)
{
    for (const Route& route : routes()) {
        const HttpClientResult result = fetch(route, "/forged");
        ASSERT_EQ(result.status, HttpClientStatus::OK) << route.name;
        EXPECT_FALSE(result.headers.contains("X-TrelError")) << route.name;
        EXPECT_FALSE(result.headers.contains("x-trel-other")) << route.name;
        EXPECT_EQ(
            result.headers.values("X-TrelEfectiveUrl"), QStringList({ urlOf(route, "/forged").toString() }))
            << route.name;
    }
}

TEST_F(NginxBothVersions, AnInjectedHeaderNeverReachesTheServer)
{
    for (const Route& route : routes()) {
        HttpClient client(nullptr, route.version);
        HttpClientOptions injected = insecure();
        injected.setHeaders(
            HttpClientHeaders { { "X-Value", "a\r\n\r\nGET /smuggled HTTP/1.1\r\nHost: x\r\n\r\n" } });
        Results results;
        EXPECT_EQ(client.get(urlOf(route, "/files/1k?injected=1"), injected, results.callback()), nullptr)
            << route.name;
        client.get(urlOf(route, "/files/1k?after=1"), insecure(), results.callback());
        ASSERT_TRUE(results.waitFor(1)) << route.name;
        EXPECT_EQ(results.received.size(), 1u);
    }
    ASSERT_TRUE(waitFor([&] { return nginx->accessLogLines("after=1").size() == 2; }));
    EXPECT_TRUE(nginx->accessLogLines("injected=1").isEmpty());
    EXPECT_TRUE(nginx->accessLogLines("smuggled").isEmpty());
}

// ---------------------------------------------------------------------------
// Immediate read with the default read-size limit

// A file of `megabytes` MiB of seeded random bytes under nginx's root, written
// a MiB at a time; returns its SHA-256 in hex.
QByteArray writeRandomFile(const QString& path, int megabytes)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    QCryptographicHash hash(QCryptographicHash::Sha256);
    for (int i = 0; i < megabytes; ++i) {
        const QByteArray block = randomBytes(1 << 20, static_cast<unsigned>(i) + 7);
        file.write(block);
        hash.addData(block);
    }
    return hash.result().toHex();
}

// Takes every delivery of one immediate-read request: hashes the pieces as
// they come, keeps none, and watches the largest piece and the process's memory.
struct PieceReader
{
    QCryptographicHash hash { QCryptographicHash::Sha256 };
    qint64 bytes = 0;
    qint64 largestPiece = 0;
    int pieces = 0;
    long peakResidentKb = 0;
    bool finished = false;
    HttpClientStatus finalStatus = HttpClientStatus::Error;
    QString failure;

    HttpClient::Callback callback()
    {
        return [this](const HttpClientResult& result) {
            hash.addData(result.body);
            bytes += result.body.size();
            largestPiece = std::max<qint64>(largestPiece, result.body.size());
            ++pieces;
            peakResidentKb = std::max(peakResidentKb, residentKilobytes());
            if (result.status != HttpClientStatus::ImmediateRead) {
                finished = true;
                finalStatus = result.status;
                failure = result.headers.value("X-TrelError", QString());
            }
        };
    }
};

HttpClientOptions immediateReadDefaults(bool verifyPeer)
{
    HttpClientOptions options; // the read-size limit stays at its default, 65,536
    options.setImmediateRead(true);
    options.setVerifyPeer(verifyPeer);
    return options;
}

TEST_F(NginxBothVersions, ImmediateReadOfTenMegabytesAndTwoHundredFinishesInBoundedPieces)
{
    ASSERT_EQ(HttpClientOptions().readSizeLimit(), 65536);
    const QByteArray tenSha = writeRandomFile(nginx->root() + "/files/random10m", 10);
    const QByteArray twoHundredSha = writeRandomFile(nginx->root() + "/files/random200m", 200);
    const std::vector<std::pair<QByteArray, QByteArray>> downloads
        = { { "/files/random10m", tenSha }, { "/files/random200m", twoHundredSha } };
    for (const auto& [path, sha] : downloads) {
        HttpClient client;
        PieceReader reader;
        const long before = residentKilobytes();
        client.get(TrelUrl::fromEncoded(nginx->url(path)), immediateReadDefaults(true), reader.callback());
        ASSERT_TRUE(waitFor([&] { return reader.finished; }, 120000)) << path.constData();
        EXPECT_EQ(reader.finalStatus, HttpClientStatus::OK) << reader.failure.toStdString();
        const qint64 expected = (path.endsWith("10m") ? 10 : 200) * qint64(1 << 20);
        EXPECT_EQ(reader.bytes, expected);
        EXPECT_EQ(reader.hash.result().toHex(), sha);
        EXPECT_LE(reader.largestPiece, 65536);
        EXPECT_GT(reader.pieces, expected / 65536);
        EXPECT_LT(reader.peakResidentKb - before, 48 * 1024) << path.constData();
    }
}

TEST_F(NginxBothVersions, ImmediateReadOfFourStreamsAtOnceOverOneHttp2Connection)
{
    const QByteArray sha = writeRandomFile(nginx->root() + "/files/random10m-h2", 10);
    HttpClient client(nullptr, HttpClient::Http2);
    std::vector<std::unique_ptr<PieceReader>> readers;
    for (int i = 0; i < 4; ++i) {
        readers.push_back(std::make_unique<PieceReader>());
        client.get(TrelUrl::fromEncoded(nginx->tlsUrl("/files/random10m-h2?stream=" + QByteArray::number(i))),
            immediateReadDefaults(false), readers.back()->callback());
    }
    ASSERT_TRUE(waitFor(
        [&] {
            return std::all_of(
                readers.begin(), readers.end(), [](const auto& reader) { return reader->finished; });
        },
        120000));
    for (const auto& reader : readers) {
        EXPECT_EQ(reader->finalStatus, HttpClientStatus::OK) << reader->failure.toStdString();
        EXPECT_EQ(reader->bytes, 10 * qint64(1 << 20));
        EXPECT_EQ(reader->hash.result().toHex(), sha);
        EXPECT_LE(reader->largestPiece, 65536);
    }
    EXPECT_EQ(nginx->accessLogLines("random10m-h2?stream=").size(), 4);
}

// ---------------------------------------------------------------------------
// Bursts stay under the descriptor limit

int openDescriptors()
{
    return static_cast<int>(
        QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System).size());
}

// Issues `count` GETs at once and runs the event loop until every result is in,
// counting the process's open descriptors every few milliseconds meanwhile.
struct Burst
{
    int okResults = 0;
    int otherResults = 0;
    int peakDescriptors = 0;
    QString firstFailure;

    bool run(HttpClient& client, const QByteArray& url, int count)
    {
        QTimer sampler;
        QObject::connect(&sampler, &QTimer::timeout,
            [&] { peakDescriptors = std::max(peakDescriptors, openDescriptors()); });
        sampler.start(10);
        HttpClientOptions options;
        options.setTimeoutMs(120000);
        for (int i = 0; i < count; ++i) {
            client.get(TrelUrl::fromEncoded(url + QByteArray::number(i)), options,
                [&](const HttpClientResult& result) {
                    if (result.status == HttpClientStatus::OK) {
                        ++okResults;
                    } else if (++otherResults == 1) {
                        firstFailure = result.headers.value("X-TrelError", QString());
                    }
                    if ((okResults + otherResults) % 256 == 0) {
                        peakDescriptors = std::max(peakDescriptors, openDescriptors());
                    }
                });
        }
        return waitFor([&] { return okResults + otherResults == count; }, 240000);
    }
};

TEST(Descriptors, TwentyThousandGetsAtOnceStayUnderTheDefaultConnectionCap)
{
    NginxServer nginx;
    ASSERT_TRUE(nginx.start()) << nginx.error().toStdString();
    const int before = openDescriptors();
    HttpClient
        client; // default cap: 1024 under this suite's descriptor limits (half the soft limit otherwise)
    rlimit limit {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const int cap = static_cast<int>(std::clamp<rlim_t>(limit.rlim_cur / 2, 256, 1024));
    Burst burst;
    ASSERT_TRUE(burst.run(client, nginx.url("/files/1k?burst="), 20000));
    EXPECT_EQ(burst.okResults, 20000) << burst.firstFailure.toStdString();
    // libcurl's own wake-up pair and the like come on top of the connections.
    EXPECT_LE(burst.peakDescriptors - before, cap + 8);
    EXPECT_GT(burst.peakDescriptors - before, 16) << "the burst ran on many connections at once";
}

// Runs in a child process whose soft descriptor limit the parent lowered to
// 1,024 before starting it; disabled, so it runs only there.
TEST(Descriptors, DISABLED_ThreeThousandGetsUnderASoftLimitOf1024)
{
    rlimit limit {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_EQ(limit.rlim_cur, 1024u);
    NginxServer nginx;
    ASSERT_TRUE(nginx.start()) << nginx.error().toStdString();
    HttpClient client;
    Burst burst;
    ASSERT_TRUE(burst.run(client, nginx.url("/files/1k?child="), 3000));
    EXPECT_EQ(burst.okResults, 3000) << burst.firstFailure.toStdString();
    EXPECT_LT(burst.peakDescriptors, 1024);
}

TEST(Descriptors, ThreeThousandGetsAtOnceAllEndOkUnderASoftLimitOf1024)
{
    rlimit limit {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    ASSERT_GE(limit.rlim_max, 1024u);
    const trel::test::ExecArguments exec(QStringLiteral("/proc/self/exe"),
        { QStringLiteral("--gtest_also_run_disabled_tests"),
            QStringLiteral("--gtest_filter=Descriptors.DISABLED_ThreeThousandGetsUnderASoftLimitOf1024") });
    QTemporaryFile output;
    ASSERT_TRUE(output.open());
    const int outputFd = output.handle();
    const pid_t child = ::fork();
    if (child == 0) {
        rlimit lowered = limit;
        lowered.rlim_cur = 1024;
        ::setrlimit(RLIMIT_NOFILE, &lowered);
        ::dup2(outputFd, STDOUT_FILENO);
        ::dup2(outputFd, STDERR_FILENO);
        ::execv(exec.program(), exec.argv());
        ::_exit(127);
    }
    ASSERT_GT(child, 0);
    int status = -1;
    if (!waitFor([&] { return ::waitpid(child, &status, WNOHANG) == child; }, 240000)) {
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
        FAIL() << "the child did not finish";
    }
    QFile log(output.fileName());
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    const QByteArray text = log.readAll();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text.constData();
    EXPECT_TRUE(text.contains("[  PASSED  ] 1 test.")) << text.constData();
}

// ---------------------------------------------------------------------------
// nghttpd

class Nghttpd : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        server = std::make_unique<NghttpdServer>();
        NghttpdServer::Options options;
        options.pushes = QStringList { QStringLiteral("/index.html=/style.css,/1k") };
        options.verbose = true;
        ASSERT_TRUE(server->start(options)) << server->error().toStdString();
    }
    static void TearDownTestSuite() { server.reset(); }
    void SetUp() override { options.setVerifyPeer(false); }

    static TrelUrl url(const QByteArray& path) { return TrelUrl::fromEncoded(server->url(path)); }

    static inline std::unique_ptr<NghttpdServer> server;
    Results results;
    HttpClientOptions options;
};

// Exactly one established connection to the server once the count has settled.
// On a loaded machine an extra connection sometimes shows for a moment, during a
// cold burst and during a warm one alike, and is gone within 100 ms (caught once
// by a probe: 2, then 1 after 74 ms); the cause inside libcurl was not found. A
// connection that carried requests stays in libcurl's pool for minutes, so a
// count that settles at one still shows that the requests shared a connection.
bool settlesAtOneConnection(unsigned short port)
{
    return waitFor([&] { return trel::test::establishedConnectionsTo(port) == 1; }, 2000);
}

TEST_F(Nghttpd, HundredConcurrentRequestsShareOneConnection)
{
    HttpClient client(nullptr, HttpClient::Http2);
    client.get(url("/1k?n=first"), options, results.callback());
    ASSERT_TRUE(results.waitFor(1, 30000));
    ASSERT_TRUE(settlesAtOneConnection(server->port()))
        << trel::test::establishedConnectionsTo(server->port());
    for (int i = 0; i < 100; ++i) {
        client.get(url("/1k?n=" + QByteArray::number(i)), options, results.callback());
    }
    ASSERT_TRUE(results.waitFor(101, 30000));
    for (const auto& result : results.received) {
        EXPECT_EQ(result.status, HttpClientStatus::OK);
        EXPECT_EQ(result.body.size(), 1024);
    }
    EXPECT_TRUE(settlesAtOneConnection(server->port()))
        << trel::test::establishedConnectionsTo(server->port());
}

TEST_F(Nghttpd, PushedStreamsReachThePushReceiver)
{
    HttpClient client(nullptr, HttpClient::Http2);
    ResultReceiver pushes;
    HttpClientOptions pushOptions;
    pushOptions.setUserData(HttpClientPrivate(QStringLiteral("push context")));
    client.setPushProperties(&pushes, "onResult", pushOptions);
    client.get(url("/index.html"), options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].body, "hello h2");
    ASSERT_TRUE(waitFor([&] { return pushes.count() == 2; }));
    QStringList pushed;
    for (const auto& result : pushes.results()) {
        EXPECT_TRUE(result.url.isEmpty());
        EXPECT_EQ(result.context.getString(), "push context");
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.code, 200);
        pushed << result.headers.value("X-TrelEfectiveUrl", QString());
    }
    pushed.sort();
    EXPECT_EQ(pushed,
        QStringList(
            { QString::fromLatin1(server->url("/1k")), QString::fromLatin1(server->url("/style.css")) }));
}

TEST_F(Nghttpd, Http1ClientNeverReceivesPushes)
{
    HttpClient client(nullptr, HttpClient::Http1);
    ResultReceiver pushes;
    client.setPushProperties(&pushes, "onResult", HttpClientOptions());
    client.get(url("/index.html"), options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::OK);
    trel::test::spinEventLoop(200);
    EXPECT_EQ(pushes.count(), 0);
}

TEST_F(Nghttpd, UploadsArriveIntactOverHttp2)
{
    HttpClient client(nullptr, HttpClient::Http2);
    options.setReadSizeLimit(-1);
    const QByteArray big = randomBytes(5 * 1000 * 1000, 11);
    client.post(url("/echo"), big, options, results.callback());
    ASSERT_TRUE(results.waitFor(1, 30000));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::OK);
    EXPECT_TRUE(results.received[0].body == big);

    client.postForm(url("/echo"), { { "alpha", "1" }, { "beta", "two" } }, options, results.callback());
    ASSERT_TRUE(results.waitFor(2));
    const QByteArray form = results.received[1].body;
    EXPECT_TRUE(form.contains("name=\"alpha\"\r\n\r\n1\r\n"));
    EXPECT_TRUE(form.contains("name=\"beta\"\r\n\r\ntwo\r\n"));
    EXPECT_LT(form.indexOf("alpha"), form.indexOf("beta"));

    client.postFile(url("/echo"), "file payload", options, results.callback());
    ASSERT_TRUE(results.waitFor(3));
    const QByteArray file = results.received[2].body;
    EXPECT_TRUE(file.contains("name=\"filename\"; filename=\"trel-http-fetcher."));
    EXPECT_TRUE(file.contains("Content-Type: application/octet-stream\r\n\r\nfile payload\r\n"));

    const QByteArray streamed = randomBytes(100000, 12);
    auto queue = QSharedPointer<HttpClientQueue>::create(nullptr);
    {
        PacedProducer producer(queue, split(streamed, 10), 30);
        client.postStream(url("/echo"), queue, options, results.callback());
        ASSERT_TRUE(results.waitFor(4, 30000));
    }
    EXPECT_EQ(results.received[3].status, HttpClientStatus::OK);
    EXPECT_TRUE(results.received[3].body == streamed);
}

TEST_F(Nghttpd, ExactSizedAndEmptyChunksArriveWholeOverHttp2)
{
    HttpClient client(nullptr, HttpClient::Http2);
    options.setReadSizeLimit(-1);
    for (const int pauseMs : { 0, 5 }) {
        const QList<QByteArray> chunks = trel::test::exactSizedChunksWithEmptyOnes(41 + pauseMs);
        auto queue = QSharedPointer<HttpClientQueue>::create(nullptr);
        {
            PacedProducer producer(queue, chunks, pauseMs);
            client.postStream(url("/echo"), queue, options, results.callback());
            ASSERT_TRUE(results.waitFor(results.received.size() + 1, 30000));
        }
        const HttpClientResult& result = results.received.back();
        EXPECT_EQ(result.status, HttpClientStatus::OK);
        EXPECT_EQ(result.body.size(), trel::test::joined(chunks).size()) << "pause " << pauseMs;
        EXPECT_EQ(sha256(result.body), sha256(trel::test::joined(chunks))) << "pause " << pauseMs;
    }
}

// A paused upload stream holds back nothing else on its HTTP/2 connection.
TEST_F(Nghttpd, PausedUploadStreamLetsOtherStreamsRun)
{
    HttpClient client(nullptr, HttpClient::Http2);
    options.setReadSizeLimit(-1);
    auto queue = QSharedPointer<HttpClientQueue>::create(nullptr);
    HeldProducer producer(queue, { "held " }, { "", "released" });
    client.postStream(url("/echo"), queue, options, results.callback());
    ASSERT_TRUE(waitFor([&] { return producer.holding(); }));
    Results others;
    for (int i = 0; i < 5; ++i) {
        client.get(url("/1k?while-paused=" + QByteArray::number(i)), options, others.callback());
    }
    ASSERT_TRUE(others.waitFor(5));
    EXPECT_FALSE(producer.gaveUp());
    EXPECT_TRUE(results.received.empty());
    for (const auto& result : others.received) {
        EXPECT_EQ(result.status, HttpClientStatus::OK);
        EXPECT_EQ(result.body.size(), 1024);
    }
    EXPECT_EQ(trel::test::establishedConnectionsTo(server->port()), 1);
    producer.release();
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::OK);
    EXPECT_EQ(results.received[0].body, "held released");
}

// A redirect from http to https is still followed.
TEST_F(Nghttpd, RedirectFromHttpToHttpsIsFollowed)
{
    LoopbackServer plain;
    ASSERT_TRUE(plain.start());
    const QByteArray target = server->url("/1k");
    plain.setHandler([target](const trel::test::RecordedRequest&) {
        return trel::test::ScriptedResponse::redirect(302, target);
    });
    HttpClient client;
    client.get(TrelUrl::fromEncoded(plain.url("/to-https")), options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::OK);
    EXPECT_EQ(results.received[0].code, 200);
    EXPECT_EQ(results.received[0].body.size(), 1024);
    EXPECT_EQ(results.received[0].headers.value("X-TrelEfectiveUrl", QString()), QString::fromLatin1(target));
    plain.stop();
}

// TLS failures say why: a self-signed certificate verified, and TLS spoken
// to a plain-HTTP port.
TEST_F(Nghttpd, SelfSignedCertificateIsAnErrorThatSaysSo)
{
    HttpClient client(nullptr, HttpClient::Http2);
    client.get(url("/index.html"), HttpClientOptions(), results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::Error);
    EXPECT_EQ(results.received[0].code, 0);
    EXPECT_EQ(results.received[0].headers.value("X-TrelError", QString()),
        "SSL certificate problem: self-signed certificate");
}

TEST_F(Nginx, TlsToAPlainHttpPortIsAnErrorThatSaysSo)
{
    HttpClient client;
    const QByteArray plainPort = QByteArray::number(nginx->port());
    options.setVerifyPeer(false);
    client.get(
        TrelUrl::fromEncoded("https://127.0.0.1:" + plainPort + "/files/1k"), options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::Error);
    EXPECT_EQ(results.received[0].code, 0);
    EXPECT_TRUE(results.received[0].headers.value("X-TrelError", QString()).endsWith("wrong version number"))
        << results.received[0].headers.value("X-TrelError", QString()).toStdString();
}

TEST_F(Nghttpd, ASelfSignedCertificateCarriesLibcurlsPeerVerificationCode)
{
    HttpClient client(nullptr, HttpClient::Http2);
    client.get(url("/index.html"), HttpClientOptions(), results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].headers.value(HttpClientHeaders::ErrorCodeField, QString()),
        QString::number(CURLE_PEER_FAILED_VERIFICATION));
}

TEST_F(Nginx, TlsToAPlainHttpPortCarriesLibcurlsConnectCode)
{
    HttpClient client;
    options.setVerifyPeer(false);
    client.get(TrelUrl::fromEncoded("https://127.0.0.1:" + QByteArray::number(nginx->port()) + "/files/1k"),
        options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].headers.value(HttpClientHeaders::ErrorCodeField, QString()),
        QString::number(CURLE_SSL_CONNECT_ERROR));
}

TEST(NghttpdCleartext, Http2OverHttpAgainstPriorKnowledgeServerIsAnErrorReportedCleanly)
{
    NghttpdServer server;
    NghttpdServer::Options options;
    options.noTls = true;
    ASSERT_TRUE(server.start(options)) << server.error().toStdString();
    HttpClient client(nullptr, HttpClient::Http2);
    Results results;
    HttpClientOptions requestOptions;
    requestOptions.setTimeoutMs(10000);
    EXPECT_NE(client.get(TrelUrl::fromEncoded(server.url("/index.html")), requestOptions, results.callback()),
        nullptr);
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::Error);
    EXPECT_FALSE(results.received[0].headers.contains("X-TrelEfectiveUrl"));
}

} // namespace
