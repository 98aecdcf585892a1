// What a request comes to when libcurl's multi handle says no: a refused add
// ends that request with an Error result carrying libcurl's reason and a code,
// and a failing socket action is logged at ERROR. libcurl is made to refuse by
// the interposed multi calls of CurlMultiFaults.

#include <trel/HttpClient.h>

#include "CurlMultiFaults.h"
#include "LogCapture.h"
#include "LoopbackServer.h"
#include "WaitFor.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using trel::test::LogCapture;
using trel::test::LoopbackServer;
using trel::test::ScriptedResponse;
using trel::test::waitFor;
namespace faults = trel::test::curlMultiFaults;

class CurlRefusal : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(server.start()); }
    void TearDown() override
    {
        faults::reset();
        server.stop();
    }

    void* get(const QByteArray& path, const HttpClientOptions& options = HttpClientOptions())
    {
        return client.get(TrelUrl(QString::fromLatin1(server.url(path))), options,
            [this](const HttpClientResult& result) { results.push_back(result); });
    }

    bool waitForResults(size_t count)
    {
        return waitFor([&] { return results.size() >= count; });
    }

    LoopbackServer server;
    HttpClient client;
    std::vector<HttpClientResult> results;
};

QString errorOf(const HttpClientResult& result)
{
    return result.headers.value(QString::fromLatin1(HttpClientHeaders::ErrorField), QString());
}

QString errorCodeOf(const HttpClientResult& result)
{
    return result.headers.value(QString::fromLatin1(HttpClientHeaders::ErrorCodeField), QString());
}

TEST_F(CurlRefusal, ARefusedAddEndsThatRequestWithAnErrorResult)
{
    LogCapture capture(log4cplus::ERROR_LOG_LEVEL);
    faults::refuseAdds(CURLM_OUT_OF_MEMORY);
    void* const id = get("/refused");
    ASSERT_NE(id, nullptr);
    EXPECT_TRUE(results.empty()); // never inside the call

    ASSERT_TRUE(waitForResults(1));
    const HttpClientResult& refused = results.front();
    EXPECT_EQ(refused.status, HttpClientStatus::Error);
    EXPECT_EQ(refused.code, 0);
    EXPECT_TRUE(refused.body.isEmpty());
    EXPECT_EQ(errorOf(refused), QStringLiteral("could not start the transfer: Out of memory"));
    EXPECT_EQ(errorCodeOf(refused), QStringLiteral("27"));
    EXPECT_EQ(capture.countPrefix(
                  log4cplus::ERROR_LOG_LEVEL, "Failed to add the transfer to libcurl: Out of memory"),
        1);
    EXPECT_EQ(server.requestCount(), 0);
    EXPECT_FALSE(client.cancel(id)); // it has ended
}

TEST_F(CurlRefusal, OtherRefusalsCarryTheInitialisationFailureCode)
{
    faults::refuseAdds(CURLM_INTERNAL_ERROR);
    get("/refused");
    ASSERT_TRUE(waitForResults(1));
    EXPECT_EQ(results.front().status, HttpClientStatus::Error);
    EXPECT_EQ(errorOf(results.front()), QStringLiteral("could not start the transfer: Internal error"));
    EXPECT_EQ(errorCodeOf(results.front()), QStringLiteral("2"));
}

TEST_F(CurlRefusal, TheClientGoesOnAfterARefusal)
{
    faults::refuseAdds(CURLM_OUT_OF_MEMORY);
    get("/refused");
    get("/after");
    ASSERT_TRUE(waitForResults(2));
    EXPECT_EQ(results[0].status, HttpClientStatus::Error);
    EXPECT_EQ(results[1].status, HttpClientStatus::OK);
    EXPECT_EQ(results[1].code, 200);
    ASSERT_EQ(server.requestCount(), 1);
    EXPECT_EQ(server.requests().front().target, QByteArray("/after"));
}

// A request that waited for a connection is added when a place frees; refused
// then, it ends there and frees its place for the one behind it.
TEST_F(CurlRefusal, AWaitingRequestRefusedWhenAdmittedEndsAndLetsTheNextGo)
{
    client.setMaxConnections(1);
    server.setHandler([](const trel::test::RecordedRequest& request) {
        ScriptedResponse response = ScriptedResponse::ok(request.target);
        response.delayMs = request.target == "/first" ? 200 : 0;
        return response;
    });
    get("/first");
    get("/second");
    get("/third");
    faults::refuseAdds(CURLM_OUT_OF_MEMORY); // the first is in libcurl already
    ASSERT_TRUE(waitForResults(3));
    EXPECT_EQ(results[0].status, HttpClientStatus::OK);
    EXPECT_EQ(results[0].body, QByteArray("/first"));
    EXPECT_EQ(results[1].status, HttpClientStatus::Error);
    EXPECT_EQ(errorCodeOf(results[1]), QStringLiteral("27"));
    EXPECT_EQ(results[2].status, HttpClientStatus::OK);
    EXPECT_EQ(results[2].body, QByteArray("/third"));
}

// Cancelling a waiting request hands it to libcurl first; refused there, it
// reports the refusal, once, and nothing else.
TEST_F(CurlRefusal, CancellingAWaitingRequestThatLibcurlRefusesReportsOnce)
{
    client.setMaxConnections(1);
    server.setHandler([](const trel::test::RecordedRequest& request) {
        ScriptedResponse response = ScriptedResponse::ok(request.target);
        response.delayMs = 200;
        return response;
    });
    get("/first");
    void* const waiting = get("/waiting");
    faults::refuseAdds(CURLM_OUT_OF_MEMORY);
    EXPECT_TRUE(client.cancel(waiting));
    ASSERT_TRUE(waitForResults(2));
    trel::test::spinEventLoop(100);
    ASSERT_EQ(results.size(), 2U);
    EXPECT_EQ(results[0].status, HttpClientStatus::Error);
    EXPECT_EQ(errorCodeOf(results[0]), QStringLiteral("27"));
    EXPECT_EQ(results[1].status, HttpClientStatus::OK);
}

TEST_F(CurlRefusal, AFailingSocketActionIsLoggedAtError)
{
    LogCapture capture(log4cplus::ERROR_LOG_LEVEL);
    faults::failSocketActions(CURLM_INTERNAL_ERROR);
    get("/logged");
    ASSERT_TRUE(waitForResults(1));
    EXPECT_EQ(results.front().status, HttpClientStatus::OK); // the action itself did its work
    EXPECT_EQ(capture.countPrefix(log4cplus::ERROR_LOG_LEVEL, "Socket action failed on socket "), 1);
    bool named = false;
    for (const std::string& message : capture.messages(log4cplus::ERROR_LOG_LEVEL)) {
        named = named || message.find(": Internal error (4)") != std::string::npos;
    }
    EXPECT_TRUE(named);
}

} // namespace
