// HttpClientTransfer on the wire without the client: transfers driven by a
// plain curl multi loop against the loopback server.

#include <trel/HttpClient.h>
#include <trel/HttpClientTransfer.h>

#include "CurlMultiDriver.h"
#include "LogCapture.h"
#include "LoopbackServer.h"

#include <gtest/gtest.h>

namespace {

using trel::test::CurlMultiDriver;
using trel::test::LogCapture;
using trel::test::LoopbackServer;
using trel::test::RecordedRequest;
using trel::test::ScriptedResponse;

struct Outcome
{
    HttpClientStatus status;
    long code;
    QByteArray body;
    HttpClientHeaders headers;
};

class TransferOnTheWire : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(server.start()); }

    QSharedPointer<HttpClientTransfer> transfer(
        int method, const QByteArray& path, const HttpClientOptions& options = {})
    {
        return QSharedPointer<HttpClientTransfer>::create(HttpClient::Http1,
            TrelUrl::fromEncoded(server.url(path)), method, options,
            [this](HttpClientStatus status, long code, QByteArray body, HttpClientHeaders headers) {
                outcomes.push_back({ status, code, body, headers });
            });
    }

    LoopbackServer server;
    CurlMultiDriver driver;
    std::vector<Outcome> outcomes;
};

TEST_F(TransferOnTheWire, SuccessCarriesCodeBodyHeadersAndTheEffectiveUrl)
{
    driver.start(transfer(HttpClient::Get, "/redirect/2"));
    ASSERT_TRUE(driver.run());
    ASSERT_EQ(outcomes.size(), 1u);
    EXPECT_EQ(outcomes[0].status, HttpClientStatus::OK);
    EXPECT_EQ(outcomes[0].code, 200);
    EXPECT_EQ(outcomes[0].body, "done");
    EXPECT_EQ(outcomes[0].headers.value("X-TrelEfectiveUrl", QString()),
        QString::fromLatin1(server.url("/redirect/0")));
    // Headers of every response in the chain, the last one winning.
    EXPECT_EQ(outcomes[0].headers.value("Location", QString()), "/redirect/0");
    EXPECT_EQ(server.requestCount(), 3);
}

TEST_F(TransferOnTheWire, HeadCollectsHeaderLinesInBodyAndHeaderBlock)
{
    driver.start(transfer(HttpClient::Head, "/bytes/7"));
    ASSERT_TRUE(driver.run());
    ASSERT_EQ(outcomes.size(), 1u);
    EXPECT_TRUE(outcomes[0].body.startsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_TRUE(outcomes[0].body.contains("Content-Length: 7\r\n"));
    EXPECT_EQ(outcomes[0].headers.value("content-length", QString()), "7");
    EXPECT_EQ(server.requests()[0].method, "HEAD");
}

TEST_F(TransferOnTheWire, BodyOverTheLimitEndsWithAWriteErrorAndTheBytesUpToIt)
{
    HttpClientOptions options;
    options.setReadSizeLimit(100);
    LogCapture capture(log4cplus::ERROR_LOG_LEVEL);
    driver.start(transfer(HttpClient::Get, "/bytes/150", options));
    ASSERT_TRUE(driver.run());
    ASSERT_EQ(outcomes.size(), 1u);
    EXPECT_EQ(outcomes[0].status, HttpClientStatus::Error);
    EXPECT_EQ(outcomes[0].body.size(), 100);
    EXPECT_EQ(capture.messages(log4cplus::ERROR_LOG_LEVEL),
        std::vector<std::string> { "CURL data: not enough space in buffer, trimmed by 50 bytes!" });
}

TEST_F(TransferOnTheWire, TruncatedResetAndClosedResponsesAreErrors)
{
    for (const auto fault : { ScriptedResponse::Fault::Truncate, ScriptedResponse::Fault::ResetConnection,
             ScriptedResponse::Fault::CloseWithoutResponse }) {
        outcomes.clear();
        server.setHandler([fault](const RecordedRequest&) {
            ScriptedResponse response = ScriptedResponse::ok(QByteArray(1000, 'x'));
            response.fault = fault;
            response.truncateAt = 10;
            return response;
        });
        driver.start(transfer(HttpClient::Get, "/fault"));
        ASSERT_TRUE(driver.run());
        ASSERT_EQ(outcomes.size(), 1u);
        EXPECT_EQ(outcomes[0].status, HttpClientStatus::Error) << static_cast<int>(fault);
        EXPECT_FALSE(outcomes[0].headers.contains("X-TrelEfectiveUrl"));
    }
}

TEST_F(TransferOnTheWire, ImmediateReadHandsOverPiecesAndTheFinalCarriesTheRest)
{
    server.setHandler([](const RecordedRequest&) {
        ScriptedResponse response = ScriptedResponse::ok(QByteArray(200000, 'q'));
        response.chunked = true;
        response.chunkSize = 4096;
        return response;
    });
    HttpClientOptions options;
    options.setImmediateRead(true);
    options.setReadSizeLimit(-1);
    driver.start(transfer(HttpClient::Get, "/stream", options));
    ASSERT_TRUE(driver.run());
    ASSERT_GE(outcomes.size(), 2u);
    qint64 total = 0;
    for (size_t i = 0; i + 1 < outcomes.size(); ++i) {
        EXPECT_EQ(outcomes[i].status, HttpClientStatus::ImmediateRead);
        EXPECT_EQ(outcomes[i].code, 200);
        total += outcomes[i].body.size();
    }
    EXPECT_EQ(outcomes.back().status, HttpClientStatus::OK);
    total += outcomes.back().body.size();
    EXPECT_EQ(total, 200000);
    EXPECT_TRUE(outcomes.front().headers.contains("Content-Type"));
}

TEST_F(TransferOnTheWire, PutDeleteAndPatchSendTheirVerbWithTheBody)
{
    for (const auto& [method, verb] : std::vector<std::pair<int, QByteArray>> {
             { HttpClient::Put, "PUT" }, { HttpClient::Delete, "DELETE" }, { HttpClient::Patch, "PATCH" } }) {
        server.clear();
        auto request = transfer(method, "/echo");
        ASSERT_TRUE(request->setDataToUpload(QByteArray("payload-" + verb)));
        driver.start(request);
        ASSERT_TRUE(driver.run());
        ASSERT_EQ(server.requestCount(), 1);
        EXPECT_EQ(server.requests()[0].method, verb);
        EXPECT_EQ(server.requests()[0].body, "payload-" + verb);
    }
}

TEST_F(TransferOnTheWire, FormValueIsCutAtANulCharacter)
{
    auto request = transfer(HttpClient::Post, "/echo");
    ASSERT_TRUE(
        request->setDataToUpload(QList<QPair<QString, QString>> { { "k", QString::fromUtf8("ab\0cd", 5) } }));
    driver.start(request);
    ASSERT_TRUE(driver.run());
    ASSERT_EQ(server.requests()[0].parts.size(), 1);
    EXPECT_EQ(server.requests()[0].parts[0].data, "ab");
}

TEST_F(TransferOnTheWire, EmptyFileIsUploadedAsAnEmptyPart)
{
    auto request = transfer(HttpClient::Post, "/echo");
    ASSERT_TRUE(request->setDataToUpload(QSharedPointer<HttpClientTransfer::File>::create(QByteArray())));
    driver.start(request);
    ASSERT_TRUE(driver.run());
    ASSERT_EQ(server.requests()[0].parts.size(), 1);
    EXPECT_EQ(server.requests()[0].parts[0].name, "filename");
    EXPECT_TRUE(server.requests()[0].parts[0].data.isEmpty());
}

} // namespace
