// The cookie engine against the loopback server: off by default; on, a cookie
// a response set goes with later matching requests of the same client only,
// by path; saved with cookies() and restored into another client with
// setCookies(); turned off again, nothing goes; and nothing of a cookied
// exchange reaches the response cache.
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

// /login sets "session=abc" for every path and "area=admin" for /admin only;
// /whoami and /admin/whoami answer with the Cookie field they got; /public is
// cacheable and sets nothing; /login is cacheable too.
ScriptedResponse cookieRoutes(const RecordedRequest& request)
{
    if (request.target == "/login") {
        return ScriptedResponse::ok("welcome")
            .addHeader("Set-Cookie", "session=abc; Path=/")
            .addHeader("Set-Cookie", "area=admin; Path=/admin")
            .addHeader("Cache-Control", "max-age=60");
    }
    if (request.target.endsWith("/whoami")) {
        return ScriptedResponse::ok("cookie:" + request.header("Cookie"));
    }
    return ScriptedResponse::ok("public").addHeader("Cache-Control", "max-age=60");
}

class Cookies : public ::testing::Test
{
protected:
    void SetUp() override
    {
        server.setHandler(cookieRoutes);
        ASSERT_TRUE(server.start());
    }

    // The body of one GET, or the status's name when it fails.
    QByteArray fetch(HttpClient& client, const QByteArray& path)
    {
        const HttpClientResult result = trel::test::getOnce(client, TrelUrl::fromEncoded(server.url(path)));
        return result.status == HttpClientStatus::OK ? result.body : "failed";
    }

    LoopbackServer server;
};

TEST_F(Cookies, AreNeitherKeptNorSentByDefault)
{
    HttpClient client;
    ASSERT_EQ(fetch(client, "/login"), QByteArray("welcome"));
    EXPECT_EQ(fetch(client, "/whoami"), QByteArray("cookie:"));
    EXPECT_FALSE(server.requests().last().hasHeader("Cookie"));
}

TEST_F(Cookies, GoWithLaterRequestsThatMatchTheirPath)
{
    HttpClient client;
    client.setCookiesEnabled(true);
    ASSERT_EQ(fetch(client, "/login"), QByteArray("welcome"));
    EXPECT_EQ(fetch(client, "/whoami"), QByteArray("cookie:session=abc"));
    const QByteArray admin = fetch(client, "/admin/whoami");
    EXPECT_TRUE(admin.contains("session=abc")) << admin.constData();
    EXPECT_TRUE(admin.contains("area=admin")) << admin.constData();
}

TEST_F(Cookies, BelongToOneClientOnly)
{
    HttpClient first;
    HttpClient second;
    first.setCookiesEnabled(true);
    second.setCookiesEnabled(true);
    ASSERT_EQ(fetch(first, "/login"), QByteArray("welcome"));
    EXPECT_EQ(fetch(second, "/whoami"), QByteArray("cookie:"));
    EXPECT_EQ(fetch(first, "/whoami"), QByteArray("cookie:session=abc"));
}

TEST_F(Cookies, SavedFromOneClientAreSentByAnother)
{
    QByteArray saved;
    {
        HttpClient client;
        client.setCookiesEnabled(true);
        ASSERT_EQ(fetch(client, "/login"), QByteArray("welcome"));
        saved = client.cookies();
    }
    EXPECT_TRUE(saved.startsWith("# Netscape HTTP Cookie File\n")) << saved.constData();
    EXPECT_TRUE(saved.contains("127.0.0.1\tFALSE\t/\tFALSE\t0\tsession\tabc")) << saved.constData();
    HttpClient restored;
    restored.setCookies(saved);
    EXPECT_EQ(fetch(restored, "/whoami"), QByteArray("cookie:")); // restoring does not turn the engine on
    restored.setCookiesEnabled(true);
    EXPECT_EQ(fetch(restored, "/whoami"), QByteArray("cookie:session=abc"));
}

TEST_F(Cookies, AnEmptyJarSavesTheHeaderLineAlone)
{
    HttpClient client;
    EXPECT_EQ(client.cookies(), QByteArray("# Netscape HTTP Cookie File\n"));
    client.setCookiesEnabled(true);
    EXPECT_EQ(client.cookies(), QByteArray("# Netscape HTTP Cookie File\n"));
}

TEST_F(Cookies, SetCookieLinesAndCommentsAreReadToo)
{
    HttpClient client;
    client.setCookiesEnabled(true);
    client.setCookies("# a comment\n\nSet-Cookie: theme=dark; Domain=127.0.0.1; Path=/\n");
    EXPECT_EQ(fetch(client, "/whoami"), QByteArray("cookie:theme=dark"));
}

TEST_F(Cookies, TurnedOffAgainNothingIsSent)
{
    HttpClient client;
    client.setCookiesEnabled(true);
    ASSERT_EQ(fetch(client, "/login"), QByteArray("welcome"));
    client.setCookiesEnabled(false);
    EXPECT_EQ(fetch(client, "/whoami"), QByteArray("cookie:"));
    EXPECT_TRUE(client.cookies().contains("session")); // the jar is kept for later
}

TEST_F(Cookies, NothingOfACookiedExchangeReachesTheCache)
{
    HttpClient client;
    client.setCacheSize(1 << 20);
    client.setCookiesEnabled(true);
    ASSERT_EQ(fetch(client, "/login"), QByteArray("welcome"));
    ASSERT_EQ(fetch(client, "/login"), QByteArray("welcome"));
    EXPECT_EQ(server.requestCount(), 2) << "a response that sets a cookie is never stored";
    ASSERT_EQ(fetch(client, "/public"), QByteArray("public"));
    ASSERT_EQ(fetch(client, "/public"), QByteArray("public"));
    EXPECT_EQ(server.requestCount(), 4) << "with cookies in the jar, a GET bypasses the cache";
}

TEST_F(Cookies, WithoutTheEngineTheCacheWorksAsBefore)
{
    HttpClient client;
    client.setCacheSize(1 << 20);
    ASSERT_EQ(fetch(client, "/public"), QByteArray("public"));
    ASSERT_EQ(fetch(client, "/public"), QByteArray("public"));
    EXPECT_EQ(server.requestCount(), 1);
}

} // namespace
