// TLS trust chosen per request: a private CA's server is trusted only when its
// CA is given (as a file or as a hashed directory), and a server that demands a
// client certificate gets one only when the request names it. nginx serves
// HTTPS with certificates that a CA made here with openssl signed.
#include <trel/HttpClient.h>

#include "LocalServers.h"
#include "ResultCollector.h"
#include "WaitFor.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <memory>
#include <vector>

namespace {

using trel::test::NginxServer;
using trel::test::TestCertificate;
using trel::test::TestCertificateAuthority;

// libcurl's codes, as X-TrelErrorCode carries them.
constexpr int kPeerFailedVerification = 60; // CURLE_PEER_FAILED_VERIFICATION
constexpr int kCaCertificateBadFile = 77; // CURLE_SSL_CACERT_BADFILE

class TlsTrust : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        keys = std::make_unique<QTemporaryDir>();
        ASSERT_TRUE(keys->isValid());
        ca = std::make_unique<TestCertificateAuthority>();
        otherCa = std::make_unique<TestCertificateAuthority>();
        const QString otherDirectory = keys->path() + QStringLiteral("/other");
        ASSERT_TRUE(QDir().mkpath(otherDirectory));
        ASSERT_TRUE(ca->create(keys->path(), QStringLiteral("Trel Test CA"))) << ca->error().toStdString();
        ASSERT_TRUE(otherCa->create(otherDirectory, QStringLiteral("Other CA")))
            << otherCa->error().toStdString();
        TestCertificate server;
        ASSERT_TRUE(ca->issueServer(QStringLiteral("server"), server)) << ca->error().toStdString();
        ASSERT_TRUE(ca->issueClient(QStringLiteral("client"), client)) << ca->error().toStdString();
        ASSERT_TRUE(otherCa->issueClient(QStringLiteral("stranger"), stranger))
            << otherCa->error().toStdString();

        NginxServer::Options options;
        options.http2Tls = true;
        options.tlsCertificate = server;
        open = std::make_unique<NginxServer>();
        ASSERT_TRUE(open->start(options)) << open->error().toStdString();
        open->writeFile(QStringLiteral("files/trust.txt"), "trusted\n");

        options.clientCaPath = ca->certificatePath();
        demanding = std::make_unique<NginxServer>();
        ASSERT_TRUE(demanding->start(options)) << demanding->error().toStdString();
        demanding->writeFile(QStringLiteral("files/trust.txt"), "trusted\n");
    }

    static void TearDownTestSuite()
    {
        demanding.reset();
        open.reset();
        keys.reset();
    }

    static HttpClientResult fetch(const NginxServer& server, const HttpClientOptions& options)
    {
        HttpClient client;
        return trel::test::getOnce(client, TrelUrl::fromEncoded(server.tlsUrl("/files/trust.txt")), options);
    }

    static int errorCode(const HttpClientResult& result)
    {
        return result.headers.value(HttpClientHeaders::ErrorCodeField, QStringLiteral("none")).toInt();
    }

    static HttpClientOptions trusting(const QString& caFile)
    {
        HttpClientOptions options;
        options.setCaFile(caFile);
        return options;
    }

    static inline std::unique_ptr<QTemporaryDir> keys;
    static inline std::unique_ptr<TestCertificateAuthority> ca;
    static inline std::unique_ptr<TestCertificateAuthority> otherCa;
    static inline TestCertificate client;
    static inline TestCertificate stranger;
    static inline std::unique_ptr<NginxServer> open;
    static inline std::unique_ptr<NginxServer> demanding;
};

TEST_F(TlsTrust, APrivateCaIsNotTrustedByDefault)
{
    const HttpClientResult result = fetch(*open, HttpClientOptions());
    EXPECT_EQ(result.status, HttpClientStatus::Error);
    EXPECT_EQ(errorCode(result), kPeerFailedVerification);
}

TEST_F(TlsTrust, APrivateCaGivenAsAFileIsTrusted)
{
    const HttpClientResult result = fetch(*open, trusting(ca->certificatePath()));
    EXPECT_EQ(result.status, HttpClientStatus::OK) << result.headers.value("X-TrelError", "").toStdString();
    EXPECT_EQ(result.code, 200);
    EXPECT_EQ(result.body, QByteArray("trusted\n"));
}

TEST_F(TlsTrust, APrivateCaGivenAsAHashedDirectoryIsTrusted)
{
    const QString directory = keys->path() + QStringLiteral("/hashed");
    ASSERT_TRUE(QDir().mkpath(directory));
    ASSERT_TRUE(QFile::copy(ca->certificatePath(), directory + QStringLiteral("/ca.pem")));
    QProcess rehash;
    rehash.start(QStringLiteral("openssl"), { QStringLiteral("rehash"), directory });
    ASSERT_TRUE(rehash.waitForFinished(30000) && rehash.exitCode() == 0);

    HttpClientOptions options;
    options.setCaPath(directory);
    const HttpClientResult result = fetch(*open, options);
    EXPECT_EQ(result.status, HttpClientStatus::OK) << result.headers.value("X-TrelError", "").toStdString();
    EXPECT_EQ(result.body, QByteArray("trusted\n"));
}

TEST_F(TlsTrust, AnotherCaDoesNotMakeTheServerTrusted)
{
    const HttpClientResult result = fetch(*open, trusting(otherCa->certificatePath()));
    EXPECT_EQ(result.status, HttpClientStatus::Error);
    EXPECT_EQ(errorCode(result), kPeerFailedVerification);
}

TEST_F(TlsTrust, ACaFileThatCannotBeReadIsAnError)
{
    const HttpClientResult result = fetch(*open, trusting(keys->path() + QStringLiteral("/missing.pem")));
    EXPECT_EQ(result.status, HttpClientStatus::Error);
    EXPECT_EQ(errorCode(result), kCaCertificateBadFile);
}

TEST_F(TlsTrust, TrustIsNotCarriedOverByAReusedConnection)
{
    // One client: the first request leaves a verified connection in the pool,
    // which the second, trusting nothing but the built-in bundle, must not use.
    HttpClient client;
    std::vector<HttpClientResult> received;
    const auto collect = [&received](const HttpClientResult& result) { received.push_back(result); };
    const TrelUrl url = TrelUrl::fromEncoded(open->tlsUrl("/files/trust.txt"));
    client.get(url, trusting(ca->certificatePath()), collect);
    ASSERT_TRUE(trel::test::waitFor([&] { return received.size() == 1; }, 20000));
    client.get(url, HttpClientOptions(), collect);
    ASSERT_TRUE(trel::test::waitFor([&] { return received.size() == 2; }, 20000));
    EXPECT_EQ(received[0].status, HttpClientStatus::OK);
    EXPECT_EQ(received[1].status, HttpClientStatus::Error);
    EXPECT_EQ(errorCode(received[1]), kPeerFailedVerification);
}

TEST_F(TlsTrust, AServerDemandingACertificateRefusesARequestWithoutOne)
{
    const HttpClientResult result = fetch(*demanding, trusting(ca->certificatePath()));
    EXPECT_EQ(result.status, HttpClientStatus::OK);
    EXPECT_EQ(result.code, 400); // nginx: "No required SSL certificate was sent"
    EXPECT_NE(result.body, QByteArray("trusted\n"));
}

TEST_F(TlsTrust, AClientCertificateOfTheServersCaIsAccepted)
{
    HttpClientOptions options = trusting(ca->certificatePath());
    options.setClientCertificate(client.certificatePath, client.keyPath);
    const HttpClientResult result = fetch(*demanding, options);
    EXPECT_EQ(result.status, HttpClientStatus::OK) << result.headers.value("X-TrelError", "").toStdString();
    EXPECT_EQ(result.code, 200);
    EXPECT_EQ(result.body, QByteArray("trusted\n"));
}

TEST_F(TlsTrust, AClientCertificateOfAnotherCaIsRefused)
{
    HttpClientOptions options = trusting(ca->certificatePath());
    options.setClientCertificate(stranger.certificatePath, stranger.keyPath);
    const HttpClientResult result = fetch(*demanding, options);
    EXPECT_EQ(result.status, HttpClientStatus::OK);
    EXPECT_EQ(result.code, 400); // nginx: "The SSL certificate error"
    EXPECT_NE(result.body, QByteArray("trusted\n"));
}

TEST_F(TlsTrust, TheOptionsKeepWhatWasSet)
{
    HttpClientOptions options;
    EXPECT_TRUE(options.caFile().isEmpty());
    EXPECT_TRUE(options.caPath().isEmpty());
    EXPECT_TRUE(options.clientCertificateFile().isEmpty());
    EXPECT_TRUE(options.clientKeyFile().isEmpty());
    EXPECT_EQ(options.connectTimeoutMs(), -1);
    options.setCaFile(QStringLiteral("/a.pem"));
    options.setCaPath(QStringLiteral("/certs"));
    options.setClientCertificate(QStringLiteral("/c.pem"), QStringLiteral("/c.key"));
    options.setConnectTimeoutMs(250);
    EXPECT_EQ(options.caFile(), QStringLiteral("/a.pem"));
    EXPECT_EQ(options.caPath(), QStringLiteral("/certs"));
    EXPECT_EQ(options.clientCertificateFile(), QStringLiteral("/c.pem"));
    EXPECT_EQ(options.clientKeyFile(), QStringLiteral("/c.key"));
    EXPECT_EQ(options.connectTimeoutMs(), 250);
}

} // namespace
