// The inactivity limit against the loopback server: a response that stops
// midway, one that never starts and an upload that stops feeding end as
// Timeout with libcurl's timeout code and what had arrived; a response that
// keeps trickling for longer than the limit is never cut; below 1 means no
// limit; the request's place goes to the next waiting one.
#include <trel/HttpClient.h>

#include "LoopbackServer.h"
#include "ResultCollector.h"
#include "WaitFor.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using trel::test::LoopbackServer;
using trel::test::RecordedRequest;
using trel::test::ScriptedResponse;

// Generous: a stall is recognised by the words of the reason, not by this.
constexpr int kGuardTimeoutMs = 30000;

using Results = trel::test::ResultCollector;

HttpClientOptions withInactivityLimit(int limitMs)
{
    HttpClientOptions options;
    options.setInactivityTimeoutMs(limitMs);
    options.setTimeoutMs(kGuardTimeoutMs);
    return options;
}

ScriptedResponse neverAnswered()
{
    return ScriptedResponse::withFault(ScriptedResponse::Fault::Stall);
}

void expectInactivityTimeout(const HttpClientResult& result)
{
    EXPECT_EQ(result.status, HttpClientStatus::Timeout);
    EXPECT_EQ(result.headers.value(QStringLiteral("X-TrelErrorCode"), QString()), QStringLiteral("28"));
    EXPECT_TRUE(result.headers.value(QStringLiteral("X-TrelError"), QString())
                    .contains(QStringLiteral("no data moved")))
        << result.headers.value(QStringLiteral("X-TrelError"), QString()).toStdString();
}

TEST(HttpClientInactivity, AResponseThatStopsMidwayEndsAsTimeoutWithWhatArrived)
{
    const QByteArray head = "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n";
    const QByteArray body = QByteArray(1000, 'b');
    LoopbackServer server;
    server.setHandler([&](const RecordedRequest&) {
        ScriptedResponse response;
        response.raw = head + body;
        response.fault = ScriptedResponse::Fault::StallAfter;
        response.cutAt = static_cast<int>(head.size()) + 300;
        return response;
    });
    ASSERT_TRUE(server.start());
    HttpClient client;
    Results results;
    const HttpClientOptions options = withInactivityLimit(300);
    client.get(TrelUrl::fromEncoded(server.url("/stops")), options, results.callback());
    ASSERT_TRUE(results.waitFor(1));
    const HttpClientResult& result = results.received.front();
    expectInactivityTimeout(result);
    EXPECT_EQ(result.code, 200);
    EXPECT_EQ(result.body, body.left(300));
}

TEST(HttpClientInactivity, AResponseThatNeverStartsEndsAsTimeout)
{
    LoopbackServer server;
    server.setHandler([](const RecordedRequest&) { return neverAnswered(); });
    ASSERT_TRUE(server.start());
    HttpClient client;
    Results results;
    client.get(TrelUrl::fromEncoded(server.url("/silent")), withInactivityLimit(200), results.callback());
    ASSERT_TRUE(results.waitFor(1));
    expectInactivityTimeout(results.received.front());
    EXPECT_EQ(results.received.front().code, 0);
}

TEST(HttpClientInactivity, AnUploadThatStopsBeingFedEndsAsTimeout)
{
    LoopbackServer server;
    ASSERT_TRUE(server.start());
    HttpClient client;
    Results results;
    const auto queue = QSharedPointer<HttpClientQueue>::create(nullptr);
    queue->append(QByteArray(1000, 'u'));
    client.postStream(
        TrelUrl::fromEncoded(server.url("/echo")), queue, withInactivityLimit(300), results.callback());
    ASSERT_TRUE(results.waitFor(1)); // the queue stays open: the body never ends
    expectInactivityTimeout(results.received.front());
}

TEST(HttpClientInactivity, AResponseThatKeepsTricklingPastTheLimitIsNeverCut)
{
    const QByteArray body = "trickling, one byte at a time";
    LoopbackServer server;
    server.setHandler([&](const RecordedRequest&) {
        ScriptedResponse response = ScriptedResponse::ok(body);
        response.dripMs = 50; // about 1.5 s in all, never 400 ms without a byte
        return response;
    });
    ASSERT_TRUE(server.start());
    HttpClient client;
    Results results;
    client.get(TrelUrl::fromEncoded(server.url("/drip")), withInactivityLimit(400), results.callback());
    ASSERT_TRUE(results.waitFor(1));
    EXPECT_EQ(results.received.front().status, HttpClientStatus::OK)
        << results.received.front().headers.value(QStringLiteral("X-TrelError"), QString()).toStdString();
    EXPECT_EQ(results.received.front().body, body);
}

TEST(HttpClientInactivity, BelowOneMeansNoLimit)
{
    LoopbackServer server;
    server.setHandler([](const RecordedRequest&) {
        ScriptedResponse response = ScriptedResponse::ok("late");
        response.delayMs = 300;
        return response;
    });
    ASSERT_TRUE(server.start());
    HttpClient client;
    Results results;
    client.get(TrelUrl::fromEncoded(server.url("/late")), withInactivityLimit(0), results.callback());
    client.get(TrelUrl::fromEncoded(server.url("/late")), withInactivityLimit(-5), results.callback());
    ASSERT_TRUE(results.waitFor(2));
    for (const HttpClientResult& result : results.received) {
        EXPECT_EQ(result.status, HttpClientStatus::OK);
        EXPECT_EQ(result.body, QByteArray("late"));
    }
}

TEST(HttpClientInactivity, TheNextWaitingRequestTakesTheInactivePlace)
{
    LoopbackServer server;
    server.setHandler([](const RecordedRequest& request) {
        if (request.target == "/silent") {
            return neverAnswered();
        }
        return ScriptedResponse::ok("next");
    });
    ASSERT_TRUE(server.start());
    HttpClient client;
    client.setMaxConnections(1);
    Results results;
    client.get(TrelUrl::fromEncoded(server.url("/silent")), withInactivityLimit(200), results.callback());
    client.get(TrelUrl::fromEncoded(server.url("/next")), HttpClientOptions(), results.callback());
    ASSERT_TRUE(results.waitFor(2));
    expectInactivityTimeout(results.received[0]);
    EXPECT_EQ(results.received[1].status, HttpClientStatus::OK);
    EXPECT_EQ(results.received[1].body, QByteArray("next"));
}

} // namespace
