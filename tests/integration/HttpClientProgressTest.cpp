// Progress reports: 10 MiB from nginx, and 10 MiB each way through the
// loopback server's echo, end with a report of the whole body, ahead of the
// result; a body streamed over a second is reported
// as it moves, never twice within 100 ms; reports never run inside a request
// call, and they reach slot-form requests too.
#include <trel/HttpClient.h>

#include "LocalServers.h"
#include "LoopbackServer.h"
#include "ResultReceiver.h"
#include "WaitFor.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QTimer>

#include <memory>
#include <vector>

namespace {

using trel::test::NginxServer;

constexpr qint64 kTenMiB = 10 * 1024 * 1024;

// Every report and the result, in the order they reached the caller.
struct Journal
{
    struct Report
    {
        qint64 received;
        qint64 receiveTotal;
        qint64 sent;
        qint64 sendTotal;
        qint64 atMs;
        bool insideRequestCall;
    };

    HttpClientOptions::ProgressCallback progress()
    {
        clock.start();
        return [this](qint64 received, qint64 receiveTotal, qint64 sent, qint64 sendTotal) {
            reports.push_back(
                { received, receiveTotal, sent, sendTotal, clock.elapsed(), insideRequestCall });
        };
    }
    HttpClient::Callback result()
    {
        return [this](const HttpClientResult& result) {
            results.push_back(result);
            reportsBeforeResult = reports.size();
        };
    }
    bool waitForResult()
    {
        return trel::test::waitFor([this] { return !results.empty(); }, 60000);
    }

    QElapsedTimer clock;
    std::vector<Report> reports;
    std::vector<HttpClientResult> results;
    size_t reportsBeforeResult = 0;
    bool insideRequestCall = false;
};

class Progress : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        nginx = std::make_unique<NginxServer>();
        ASSERT_TRUE(nginx->start()) << nginx->error().toStdString();
        nginx->writeFile(QStringLiteral("files/ten.bin"), QByteArray(kTenMiB, 't'));
    }
    static void TearDownTestSuite() { nginx.reset(); }

    static HttpClientOptions withProgress(Journal& journal)
    {
        HttpClientOptions options;
        options.setReadSizeLimit(-1);
        options.setProgressCallback(journal.progress());
        return options;
    }

    static inline std::unique_ptr<NginxServer> nginx;
};

TEST_F(Progress, ADownloadEndsWithTheWholeBodyReportedBeforeTheResult)
{
    HttpClient client;
    Journal journal;
    client.get(TrelUrl::fromEncoded(nginx->url("/files/ten.bin")), withProgress(journal), journal.result());
    ASSERT_TRUE(journal.waitForResult());
    ASSERT_EQ(journal.results[0].status, HttpClientStatus::OK);
    ASSERT_FALSE(journal.reports.empty());
    EXPECT_EQ(journal.reportsBeforeResult, journal.reports.size()); // none after the result
    const Journal::Report& last = journal.reports.back();
    EXPECT_EQ(last.received, kTenMiB);
    EXPECT_EQ(last.receiveTotal, kTenMiB);
    for (size_t i = 1; i < journal.reports.size(); ++i) {
        EXPECT_GE(journal.reports[i].received, journal.reports[i - 1].received);
    }
}

TEST_F(Progress, AnEchoedUploadEndsWithBothBodiesReportedBeforeTheResult)
{
    trel::test::LoopbackServer echo;
    ASSERT_TRUE(echo.start());
    HttpClient client;
    Journal journal;
    journal.insideRequestCall = true;
    client.post(TrelUrl::fromEncoded(echo.url("/echo")), QByteArray(kTenMiB, 'u'), withProgress(journal),
        journal.result());
    journal.insideRequestCall = false;
    ASSERT_TRUE(journal.waitForResult());
    ASSERT_EQ(journal.results[0].status, HttpClientStatus::OK);
    ASSERT_FALSE(journal.reports.empty());
    EXPECT_EQ(journal.reportsBeforeResult, journal.reports.size());
    EXPECT_EQ(journal.reports.back().sent, kTenMiB);
    EXPECT_EQ(journal.reports.back().sendTotal, kTenMiB);
    EXPECT_EQ(journal.reports.back().received, kTenMiB); // the echo
    for (const Journal::Report& report : journal.reports) {
        EXPECT_FALSE(report.insideRequestCall);
    }
}

TEST_F(Progress, AStreamedBodyIsReportedAsItMovesAtMostEvery100Ms)
{
    trel::test::LoopbackServer echo;
    ASSERT_TRUE(echo.start());
    HttpClient client;
    Journal journal;
    const auto queue = QSharedPointer<HttpClientQueue>::create(nullptr);
    client.postStream(
        TrelUrl::fromEncoded(echo.url("/echo")), queue, withProgress(journal), journal.result());
    // 20 pieces of 4 KiB, one every 50 ms: a second of movement.
    int piecesSent = 0;
    QTimer producer;
    QObject::connect(&producer, &QTimer::timeout, &producer, [&] {
        queue->append(QByteArray(4096, 's'));
        if (++piecesSent == 20) {
            producer.stop();
            queue->close();
        }
    });
    producer.start(50);
    ASSERT_TRUE(journal.waitForResult());
    ASSERT_EQ(journal.results[0].status, HttpClientStatus::OK);
    EXPECT_GE(journal.reports.size(), 4u) << "a second of movement, reported at most every 100 ms";
    // Over HTTP/1.1 libcurl counts the chunk framing it wraps the body in: a
    // chunk of one 4 KiB piece gains "1000\r\n" and "\r\n" (pieces read
    // together share a chunk), and the end is "0\r\n\r\n".
    EXPECT_GE(journal.reports.back().sent, 20 * 4096 + 8 + 5);
    EXPECT_LE(journal.reports.back().sent, 20 * (4096 + 8) + 5);
    EXPECT_EQ(journal.reports.back().sendTotal, -1); // streamed: no length known
    // Every report but the last waited its 100 ms (a timer's millisecond of
    // rounding allowed); the last one is due when the body has ended.
    for (size_t i = 1; i + 1 < journal.reports.size(); ++i) {
        EXPECT_GE(journal.reports[i].atMs - journal.reports[i - 1].atMs, 99) << "report " << i;
    }
}

TEST_F(Progress, ASlotFormRequestReportsToo)
{
    HttpClient client;
    Journal journal;
    trel::test::ResultReceiver receiver;
    receiver.onReceived = [&journal](const trel::test::ReceivedResult&) {
        journal.reportsBeforeResult = journal.reports.size();
    };
    client.get(
        TrelUrl::fromEncoded(nginx->url("/files/ten.bin")), &receiver, "onResult", withProgress(journal));
    ASSERT_TRUE(trel::test::waitFor([&] { return receiver.count() == 1; }, 60000));
    ASSERT_FALSE(journal.reports.empty());
    EXPECT_EQ(journal.reportsBeforeResult, journal.reports.size());
    EXPECT_EQ(journal.reports.back().received, kTenMiB);
}

} // namespace
