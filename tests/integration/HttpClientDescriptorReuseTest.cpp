// A descriptor libcurl has let go of is watched no more: never while closed
// (Qt would warn of an invalid socket), and not once the number is reused for
// a pipe with data waiting, which its own notifier alone serves without Qt's
// warning about two notifiers on one descriptor; the client goes on working.
#include <trel/HttpClient.h>

#include "LogCapture.h"
#include "LoopbackServer.h"
#include "ResultCollector.h"
#include "WaitFor.h"

#include <gtest/gtest.h>

#include <QSocketNotifier>

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

using trel::test::LogCapture;
using trel::test::LoopbackServer;
using trel::test::RecordedRequest;
using trel::test::ScriptedResponse;

const std::string kRemoveEntry = "Enter void HttpClient::removeSocket(curl_socket_t): Remove socket ";

// Qt's warnings while it lives.
class QtWarnings
{
public:
    QtWarnings() { previous = qInstallMessageHandler(&QtWarnings::record); }
    ~QtWarnings() { qInstallMessageHandler(previous); }
    QtWarnings(const QtWarnings&) = delete;
    QtWarnings& operator=(const QtWarnings&) = delete;
    static inline std::vector<std::string> seen;

private:
    static void record(QtMsgType type, const QMessageLogContext&, const QString& message)
    {
        if (type != QtDebugMsg) {
            seen.push_back(message.toStdString());
        }
    }
    QtMessageHandler previous = nullptr;
};

// The descriptor of the last socket libcurl removed, from the library's log.
int lastRemovedSocket(const LogCapture& capture)
{
    int socket = -1;
    for (const std::string& message : capture.messages()) {
        if (message.rfind(kRemoveEntry, 0) == 0) {
            socket = std::stoi(message.substr(kRemoveEntry.size()));
        }
    }
    return socket;
}

HttpClientStatus fetch(HttpClient& client, const QByteArray& url)
{
    return trel::test::getOnce(client, TrelUrl::fromEncoded(url)).status;
}

TEST(ReleasedDescriptors, ADescriptorReusedForSomethingElseIsNotWatched)
{
    LoopbackServer server;
    server.setHandler([](const RecordedRequest&) {
        ScriptedResponse response = ScriptedResponse::ok("closing");
        response.closeAfter = true; // libcurl closes its socket after the answer
        return response;
    });
    ASSERT_TRUE(server.start());
    QtWarnings warnings; // an enabled notifier on a closed descriptor makes Qt warn
    HttpClient client;
    LogCapture capture;
    ASSERT_EQ(fetch(client, server.url("/first")), HttpClientStatus::OK);
    ASSERT_TRUE(trel::test::waitFor([&capture] { return lastRemovedSocket(capture) >= 0; }, 10000));
    const int reused = lastRemovedSocket(capture);

    // The number now names the read end of a pipe with a byte waiting.
    int pipeEnds[2] = { -1, -1 };
    ASSERT_EQ(::pipe2(pipeEnds, O_CLOEXEC | O_NONBLOCK), 0);
    ASSERT_EQ(::dup2(pipeEnds[0], reused), reused);
    ASSERT_EQ(::write(pipeEnds[1], "x", 1), 1);
    capture.clear();
    int pipeActivations = 0;
    {
        QSocketNotifier pipeNotifier(reused, QSocketNotifier::Read);
        QObject::connect(
            &pipeNotifier, &QSocketNotifier::activated, [&pipeActivations] { ++pipeActivations; });
        // Level-triggered: the unread byte keeps it firing, turn after turn.
        EXPECT_TRUE(trel::test::waitFor([&pipeActivations] { return pipeActivations >= 5; }, 10000));
    }
    EXPECT_EQ(
        capture.count("Enter void HttpClient::on_readNotifier_activated(int): " + std::to_string(reused)), 0);
    EXPECT_TRUE(warnings.seen.empty()) << warnings.seen.front();
    ::close(reused);
    ::close(pipeEnds[0]);
    ::close(pipeEnds[1]);

    EXPECT_EQ(fetch(client, server.url("/second")), HttpClientStatus::OK);
    EXPECT_EQ(fetch(client, server.url("/third")), HttpClientStatus::OK);
    EXPECT_TRUE(warnings.seen.empty()) << warnings.seen.front();
}

} // namespace
