// The limit on connecting: a server whose kernel completes the TCP handshake
// but which never answers the TLS one holds a request in the connecting phase,
// where only the connect limit (or the whole-transfer one) can end it.
#include <trel/HttpClient.h>

#include "WaitFor.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

namespace {

constexpr int kOperationTimedOut = 28; // CURLE_OPERATION_TIMEDOUT

// Listens on 127.0.0.1 and never accepts: the kernel completes connections
// into the backlog, and nothing is ever read or written on them.
class SilentListener
{
public:
    SilentListener()
        : fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        listening = fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0
            && ::listen(fd, 16) == 0
            && ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
        port = ntohs(address.sin_port);
    }
    ~SilentListener()
    {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    SilentListener(const SilentListener&) = delete;
    SilentListener& operator=(const SilentListener&) = delete;

    bool isListening() const { return listening; }
    TrelUrl httpsUrl() const
    {
        return TrelUrl::fromEncoded("https://127.0.0.1:" + QByteArray::number(port) + "/never");
    }

private:
    const int fd;
    bool listening = false;
    quint16 port = 0;
};

std::vector<HttpClientResult> fetchAll(const TrelUrl& url, const HttpClientOptions& options, int count)
{
    HttpClient client;
    std::vector<HttpClientResult> received;
    for (int i = 0; i < count; ++i) {
        client.get(url, options, [&received](const HttpClientResult& result) { received.push_back(result); });
    }
    trel::test::waitFor([&] { return received.size() == static_cast<size_t>(count); }, 20000);
    return received;
}

TEST(HttpClientConnectTimeout, AStalledTlsHandshakeEndsWithTimeout)
{
    const SilentListener server;
    ASSERT_TRUE(server.isListening());
    HttpClientOptions options;
    options.setConnectTimeoutMs(200);
    const std::vector<HttpClientResult> results = fetchAll(server.httpsUrl(), options, 2);
    ASSERT_EQ(results.size(), 2u);
    for (const HttpClientResult& result : results) {
        EXPECT_EQ(result.status, HttpClientStatus::Timeout);
        EXPECT_EQ(
            result.headers.value(HttpClientHeaders::ErrorCodeField, QString()).toInt(), kOperationTimedOut);
    }
}

TEST(HttpClientConnectTimeout, WithoutTheLimitTheHandshakeIsStillWaitedFor)
{
    // The contrast: the same server, no connect limit, and a whole-transfer
    // limit far longer than the wait: five times the limit above passes and
    // the request is still connecting.
    const SilentListener server;
    ASSERT_TRUE(server.isListening());
    HttpClientOptions options;
    options.setTimeoutMs(60000);
    std::vector<HttpClientResult> received;
    HttpClient client;
    client.get(server.httpsUrl(), options,
        [&received](const HttpClientResult& result) { received.push_back(result); });
    trel::test::spinEventLoop(1000);
    EXPECT_TRUE(received.empty());
}

} // namespace
