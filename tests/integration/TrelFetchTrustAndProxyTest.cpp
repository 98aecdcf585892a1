// trel-fetch's TLS trust and proxy options, as a user runs them: --cacert and
// --capath against nginx with a private CA's certificate, -E/--key against a
// server that demands one, -x and --noproxy against the environment's proxy.
#include "LoopbackServer.h"
#include "TrelFetchSupport.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <memory>

namespace {

using trel::test::FetchRun;
using trel::test::LoopbackServer;
using trel::test::NginxServer;
using trel::test::runFetch;
using trel::test::TestCertificate;
using trel::test::TestCertificateAuthority;

// curl's exit codes, which trel-fetch follows.
constexpr int kExitConnect = 7;
constexpr int kExitUsage = 2;
constexpr int kExitTls = 60; // libcurl's and curl's code for a certificate that cannot be verified

class TrelFetchTrust : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        keys = std::make_unique<QTemporaryDir>();
        ca = std::make_unique<TestCertificateAuthority>();
        TestCertificate server;
        if (!keys->isValid() || !ca->create(keys->path(), QStringLiteral("Trel Fetch Test CA"))
            || !ca->issueServer(QStringLiteral("server"), server)
            || !ca->issueClient(QStringLiteral("client"), client)) {
            startError = QStringLiteral("certificates: ") + ca->error();
            return;
        }
        NginxServer::Options options;
        options.http2Tls = true;
        options.tlsCertificate = server;
        options.clientCaPath = ca->certificatePath();
        nginx = std::make_unique<NginxServer>();
        if (!nginx->start(options)) {
            startError = nginx->error();
            return;
        }
        nginx->writeFile(QStringLiteral("files/trust.txt"), "trusted\n");
    }
    static void TearDownTestSuite()
    {
        nginx.reset();
        keys.reset();
    }
    void SetUp() override { ASSERT_TRUE(startError.isEmpty()) << startError.toStdString(); }

    static QString url() { return QString::fromLatin1(nginx->tlsUrl("/files/trust.txt")); }

    static inline std::unique_ptr<QTemporaryDir> keys;
    static inline std::unique_ptr<TestCertificateAuthority> ca;
    static inline TestCertificate client;
    static inline std::unique_ptr<NginxServer> nginx;
    static inline QString startError;
};

TEST_F(TrelFetchTrust, APrivateCaIsRefusedUntilGivenWithCacert)
{
    const FetchRun refused = runFetch({ "-s", url() });
    EXPECT_EQ(refused.exitCode, kExitTls) << refused.err.constData();
    const FetchRun trusted = runFetch({ "-s", "--cacert", ca->certificatePath(), "-E", client.certificatePath,
        "--key", client.keyPath, url() });
    EXPECT_EQ(trusted.exitCode, 0) << trusted.err.constData();
    EXPECT_EQ(trusted.out, QByteArray("trusted\n"));
}

TEST_F(TrelFetchTrust, CapathTrustsAHashedDirectory)
{
    const QString directory = keys->path() + QStringLiteral("/hashed");
    ASSERT_TRUE(QDir().mkpath(directory));
    QFile::copy(ca->certificatePath(), directory + QStringLiteral("/ca.pem"));
    QProcess rehash;
    rehash.start(QStringLiteral("openssl"), { QStringLiteral("rehash"), directory });
    ASSERT_TRUE(rehash.waitForFinished(30000) && rehash.exitCode() == 0);
    const FetchRun run = runFetch(
        { "-s", "--capath", directory, "--cert", client.certificatePath, "--key", client.keyPath, url() });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    EXPECT_EQ(run.out, QByteArray("trusted\n"));
}

TEST_F(TrelFetchTrust, WithoutACertificateTheDemandingServerAnswers400)
{
    const FetchRun run = runFetch({ "-s", "--cacert", ca->certificatePath(), "-f", url() });
    EXPECT_EQ(run.exitCode, 22) << run.err.constData(); // -f: HTTP 400 from nginx
}

TEST(TrelFetchOptions, KeyWithoutCertIsAUsageError)
{
    const FetchRun run = runFetch({ "--key", "/k.pem", "http://127.0.0.1:9/" });
    EXPECT_EQ(run.exitCode, kExitUsage);
    EXPECT_TRUE(run.err.contains("--key needs --cert")) << run.err.constData();
}

// ---------------------------------------------------------------------------
// Proxies

// The test's environment with http_proxy naming a dead proxy, and nothing
// exempting 127.0.0.1.
QProcessEnvironment deadProxyEnvironment()
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const char* name : { "HTTP_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY" }) {
        environment.remove(QString::fromLatin1(name));
    }
    environment.insert(QStringLiteral("http_proxy"),
        QStringLiteral("http://127.0.0.1:%1").arg(trel::test::freeLoopbackPort()));
    return environment;
}

TEST(TrelFetchProxy, NoproxyStarGoesDirectDespiteTheEnvironment)
{
    LoopbackServer origin;
    ASSERT_TRUE(origin.start());
    const QString target = QString::fromLatin1(origin.url("/bytes/5"));
    const FetchRun viaEnvironment = runFetch({ "-s", target }, {}, 60000, deadProxyEnvironment());
    EXPECT_EQ(viaEnvironment.exitCode, kExitConnect) << viaEnvironment.err.constData();
    const FetchRun direct = runFetch({ "-s", "--noproxy", "*", target }, {}, 60000, deadProxyEnvironment());
    EXPECT_EQ(direct.exitCode, 0) << direct.err.constData();
    EXPECT_EQ(direct.out, QByteArray("abcde"));
}

TEST(TrelFetchProxy, TheProxyOfXReceivesTheRequest)
{
    LoopbackServer proxy;
    ASSERT_TRUE(proxy.start());
    const FetchRun run
        = runFetch({ "-s", "-x", QString::fromLatin1(proxy.url("")), "http://origin.invalid/bytes/3" });
    EXPECT_EQ(run.exitCode, 0) << run.err.constData();
    EXPECT_EQ(run.out, QByteArray("ok")); // the loopback server's answer to a target it has no route for
    ASSERT_EQ(proxy.requests().size(), 1);
    EXPECT_EQ(proxy.requests()[0].target, QByteArray("http://origin.invalid/bytes/3"));
}

TEST(TrelFetchProxy, OnlyStarIsANoproxyList)
{
    const FetchRun run = runFetch({ "--noproxy", "localhost", "http://127.0.0.1:9/" });
    EXPECT_EQ(run.exitCode, kExitUsage);
    EXPECT_TRUE(run.err.contains("--noproxy takes '*' only")) << run.err.constData();
}

} // namespace
