// The client's proxy: a chosen proxy receives every later request in absolute
// form, a dead one fails the request, an empty choice goes direct whatever the
// environment says, and a client that never chooses follows the environment.
#include <trel/HttpClient.h>

#include "LocalServers.h"
#include "LoopbackServer.h"
#include "ResultCollector.h"
#include "WaitFor.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

using trel::test::LoopbackServer;

// Sets http_proxy for the test's lifetime (none when empty) and clears the
// other proxy variables libcurl reads, no_proxy among them; restores all of
// them afterwards.
class ProxyEnvironment
{
public:
    explicit ProxyEnvironment(const QByteArray& proxy)
    {
        for (const char* name : kNames) {
            const char* const value = std::getenv(name);
            saved.push_back({ name, value != nullptr, value ? value : "" });
            ::unsetenv(name);
        }
        if (!proxy.isEmpty()) {
            ::setenv("http_proxy", proxy.constData(), 1);
        }
    }
    ~ProxyEnvironment()
    {
        for (const Saved& variable : saved) {
            if (variable.present) {
                ::setenv(variable.name, variable.value.c_str(), 1);
            } else {
                ::unsetenv(variable.name);
            }
        }
    }
    ProxyEnvironment(const ProxyEnvironment&) = delete;
    ProxyEnvironment& operator=(const ProxyEnvironment&) = delete;

private:
    static constexpr const char* kNames[]
        = { "http_proxy", "HTTP_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY" };
    struct Saved
    {
        const char* name;
        bool present;
        std::string value;
    };
    std::vector<Saved> saved;
};

HttpClientResult fetch(HttpClient& client, const TrelUrl& url)
{
    return trel::test::getOnce(client, url);
}

// A free port is one where nothing listens.
QByteArray deadProxyUrl()
{
    return "http://127.0.0.1:" + QByteArray::number(trel::test::freeLoopbackPort());
}

TEST(HttpClientProxy, AChosenProxyReceivesTheRequestInAbsoluteForm)
{
    LoopbackServer proxy;
    ASSERT_TRUE(proxy.start());
    HttpClient client;
    client.setProxy(QString::fromLatin1(proxy.url("")));
    // A name that never resolves: only the proxy can answer for it.
    const HttpClientResult result = fetch(client, TrelUrl::fromEncoded("http://origin.invalid/through?x=1"));
    EXPECT_EQ(result.status, HttpClientStatus::OK);
    EXPECT_EQ(result.code, 200);
    const QList<trel::test::RecordedRequest> seen = proxy.requests();
    ASSERT_EQ(seen.size(), 1);
    EXPECT_EQ(seen[0].method, QByteArray("GET"));
    EXPECT_EQ(seen[0].target, QByteArray("http://origin.invalid/through?x=1"));
    EXPECT_EQ(seen[0].header("Host"), QByteArray("origin.invalid"));
}

TEST(HttpClientProxy, ADeadProxyFailsTheRequest)
{
    LoopbackServer origin;
    ASSERT_TRUE(origin.start());
    // Even for a host the environment exempts: the chosen proxy takes everything.
    const ProxyEnvironment environment { QByteArray() };
    ::setenv("no_proxy", "127.0.0.1,localhost", 1);
    HttpClient client;
    client.setProxy(QString::fromLatin1(deadProxyUrl()));
    const HttpClientResult result = fetch(client, TrelUrl::fromEncoded(origin.url("/direct")));
    EXPECT_EQ(result.status, HttpClientStatus::ConnectError);
    EXPECT_TRUE(origin.requests().isEmpty());
}

TEST(HttpClientProxy, WithoutAChoiceTheEnvironmentDecides)
{
    LoopbackServer origin;
    ASSERT_TRUE(origin.start());
    const ProxyEnvironment environment(deadProxyUrl());
    HttpClient client;
    const HttpClientResult result = fetch(client, TrelUrl::fromEncoded(origin.url("/direct")));
    EXPECT_EQ(result.status, HttpClientStatus::ConnectError);
    EXPECT_TRUE(origin.requests().isEmpty());
}

TEST(HttpClientProxy, AnEmptyChoiceGoesDirectDespiteTheEnvironment)
{
    LoopbackServer origin;
    ASSERT_TRUE(origin.start());
    const ProxyEnvironment environment(deadProxyUrl());
    HttpClient client;
    client.setProxy(QString());
    const HttpClientResult result = fetch(client, TrelUrl::fromEncoded(origin.url("/direct")));
    EXPECT_EQ(result.status, HttpClientStatus::OK);
    ASSERT_EQ(origin.requests().size(), 1);
    EXPECT_EQ(origin.requests()[0].target, QByteArray("/direct"));
}

TEST(HttpClientProxy, AChoiceOffTheClientsThreadIsRefused)
{
    LoopbackServer origin;
    ASSERT_TRUE(origin.start());
    const ProxyEnvironment environment { QByteArray() };
    HttpClient client;
    std::thread other([&client] { client.setProxy(QStringLiteral("http://127.0.0.1:9")); });
    other.join();
    const HttpClientResult result = fetch(client, TrelUrl::fromEncoded(origin.url("/direct")));
    EXPECT_EQ(result.status, HttpClientStatus::OK);
}

} // namespace
