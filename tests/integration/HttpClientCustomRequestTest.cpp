// Requests with a method of the caller's choosing: the server sees the verb as
// given with the body, through every delivery form; a verb that is not an HTTP
// token never reaches the wire; HEAD keeps its no-body rule; nothing is cached.
#include <trel/HttpClient.h>

#include "LogCapture.h"
#include "LoopbackServer.h"
#include "ResultCollector.h"
#include "ResultReceiver.h"
#include "WaitFor.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using trel::test::LogCapture;
using trel::test::LoopbackServer;
using trel::test::RecordedRequest;
using trel::test::ScriptedResponse;

class CustomRequest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(server.start()); }

    TrelUrl url(const QByteArray& path) const { return TrelUrl::fromEncoded(server.url(path)); }

    LoopbackServer server;
    trel::test::ResultCollector results;
};

TEST_F(CustomRequest, TheServerSeesTheVerbAndTheBody)
{
    HttpClient client;
    const QByteArray body = "<?xml version=\"1.0\"?><propfind xmlns=\"DAV:\"><allprop/></propfind>";
    ASSERT_NE(
        client.sendCustomRequest("PROPFIND", url("/dav/"), body, HttpClientOptions(), results.callback()),
        nullptr);
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::OK);
    EXPECT_EQ(results.received[0].code, 200);
    const QList<RecordedRequest> requests = server.requests();
    ASSERT_EQ(requests.size(), 1);
    EXPECT_TRUE(requests[0].raw.startsWith("PROPFIND /dav/ HTTP/1.1\r\n"))
        << requests[0].raw.left(80).constData();
    EXPECT_EQ(requests[0].body, body);
    EXPECT_EQ(requests[0].header("Content-Length"), QByteArray::number(body.size()));
}

TEST_F(CustomRequest, EveryDeliveryFormCarriesItsResult)
{
    HttpClient client;
    trel::test::ResultReceiver receiver;
    QObject context;
    ASSERT_NE(client.sendCustomRequest(
                  "MKCOL", url("/a/"), QByteArray(), &receiver, "onResult", HttpClientOptions()),
        nullptr);
    ASSERT_NE(client.sendCustomRequest(
                  "MKCOL", url("/b/"), QByteArray(), HttpClientOptions(), &context, results.callback()),
        nullptr);
    ASSERT_TRUE(trel::test::waitFor([&] { return receiver.count() == 1 && results.received.size() == 1; }));
    EXPECT_EQ(receiver.results()[0].status, static_cast<int>(HttpClientStatus::OK));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::OK);
    ASSERT_EQ(server.requests().size(), 2);
    for (const RecordedRequest& request : server.requests()) {
        EXPECT_EQ(request.method, QByteArray("MKCOL"));
    }
}

TEST_F(CustomRequest, TheVerbIsSentAsGivenCaseIncluded)
{
    HttpClient client;
    ASSERT_NE(
        client.sendCustomRequest("x-Report.v2", url("/r"), "q", HttpClientOptions(), results.callback()),
        nullptr);
    ASSERT_TRUE(results.waitFor(1));
    ASSERT_EQ(server.requests().size(), 1);
    EXPECT_EQ(server.requests()[0].method, QByteArray("x-Report.v2"));
}

TEST_F(CustomRequest, AVerbThatIsNotATokenIsRefusedBeforeTheWire)
{
    HttpClient client;
    LogCapture capture;
    const std::vector<QByteArray> verbs
        = { "", "GET /x", "BAD\r\nX-Injected: 1", "PROP(FIND)", "M\xc3\xa9THOD", QByteArray("NUL\0X", 5) };
    for (const QByteArray& verb : verbs) {
        EXPECT_EQ(client.sendCustomRequest(
                      verb, url("/never"), QByteArray(), HttpClientOptions(), results.callback()),
            nullptr)
            << verb.toPercentEncoding().constData();
    }
    EXPECT_EQ(capture.countPrefix(log4cplus::ERROR_LOG_LEVEL, "Refused, the method is not an HTTP token"),
        static_cast<int>(verbs.size()));
    trel::test::spinEventLoop(200);
    EXPECT_TRUE(results.received.empty());
    EXPECT_TRUE(server.requests().isEmpty());
}

TEST_F(CustomRequest, HeadInCustomFormDoesNotWaitForTheAnnouncedBody)
{
    server.setHandler([](const RecordedRequest&) {
        ScriptedResponse response;
        response.raw = "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n"; // a HEAD answer: no body follows
        return response;
    });
    HttpClient client;
    HttpClientOptions options;
    options.setTimeoutMs(10000);
    ASSERT_NE(client.sendCustomRequest("HEAD", url("/h"), "ignored", options, results.callback()), nullptr);
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received[0].status, HttpClientStatus::OK);
    ASSERT_EQ(server.requests().size(), 1);
    EXPECT_EQ(server.requests()[0].method, QByteArray("HEAD"));
    EXPECT_TRUE(server.requests()[0].body.isEmpty());
}

TEST_F(CustomRequest, ACustomGetIsNeitherServedFromNorStoredInTheCache)
{
    server.setHandler([](const RecordedRequest&) {
        return ScriptedResponse::ok("fresh").addHeader("Cache-Control", "max-age=600");
    });
    HttpClient client;
    client.setCacheSize(1 << 20);
    ASSERT_NE(client.get(url("/c"), HttpClientOptions(), results.callback()), nullptr);
    ASSERT_TRUE(results.waitFor(1));
    ASSERT_NE(
        client.sendCustomRequest("GET", url("/c"), QByteArray(), HttpClientOptions(), results.callback()),
        nullptr);
    ASSERT_TRUE(results.waitFor(2));
    EXPECT_EQ(server.requests().size(), 2); // the stored response did not answer the custom GET
    ASSERT_NE(
        client.sendCustomRequest("GET", url("/d"), QByteArray(), HttpClientOptions(), results.callback()),
        nullptr);
    ASSERT_TRUE(results.waitFor(3));
    EXPECT_NE(client.get(url("/d"), HttpClientOptions(), results.callback()),
        nullptr); // a request: /d was not stored
    ASSERT_TRUE(results.waitFor(4));
    EXPECT_EQ(server.requests().size(), 4);
}

} // namespace
