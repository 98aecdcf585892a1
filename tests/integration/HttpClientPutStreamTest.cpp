// Streamed PUT: the body a producer thread feeds into a queue goes out chunked
// under PUT, whole and in order, through every delivery form.
#include <trel/HttpClient.h>

#include "LoopbackServer.h"
#include "ResultReceiver.h"
#include "WaitFor.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

using trel::test::LoopbackServer;
using trel::test::RecordedRequest;

// Feeds `pieces` into `queue` from a thread of its own, then closes it.
void produce(const QSharedPointer<HttpClientQueue>& queue, const QList<QByteArray>& pieces)
{
    std::thread producer([queue, pieces] {
        for (const QByteArray& piece : pieces) {
            queue->append(piece);
        }
        queue->close();
    });
    producer.join();
}

QList<QByteArray> numberedPieces(int count)
{
    QList<QByteArray> pieces;
    for (int i = 0; i < count; ++i) {
        pieces << QByteArray(1000 + i, static_cast<char>('a' + i % 26));
    }
    return pieces;
}

TEST(HttpClientPutStream, TheBodyGoesOutChunkedUnderPut)
{
    LoopbackServer server;
    ASSERT_TRUE(server.start());
    HttpClient client;
    std::vector<HttpClientResult> received;
    const auto queue = QSharedPointer<HttpClientQueue>::create(nullptr);
    ASSERT_NE(client.putStream(TrelUrl::fromEncoded(server.url("/echo")), queue, HttpClientOptions(),
                  [&received](const HttpClientResult& result) { received.push_back(result); }),
        nullptr);
    const QList<QByteArray> pieces = numberedPieces(40);
    produce(queue, pieces);
    ASSERT_TRUE(trel::test::waitFor([&] { return !received.empty(); }));

    EXPECT_EQ(received[0].status, HttpClientStatus::OK);
    EXPECT_EQ(received[0].code, 200);
    const QByteArray whole = pieces.join();
    EXPECT_EQ(received[0].body, whole); // /echo answers with the body it read
    const QList<RecordedRequest> requests = server.requests();
    ASSERT_EQ(requests.size(), 1);
    EXPECT_TRUE(requests[0].raw.startsWith("PUT /echo HTTP/1.1\r\n")) << requests[0].raw.left(60).constData();
    EXPECT_TRUE(requests[0].chunked);
    EXPECT_EQ(requests[0].body, whole);
}

TEST(HttpClientPutStream, SlotAndContextFormsDeliverTheirResults)
{
    LoopbackServer server;
    ASSERT_TRUE(server.start());
    HttpClient client;
    trel::test::ResultReceiver receiver;
    QObject context;
    std::vector<HttpClientResult> received;
    const auto forSlot = QSharedPointer<HttpClientQueue>::create(nullptr);
    const auto forContext = QSharedPointer<HttpClientQueue>::create(nullptr);
    ASSERT_NE(client.putStream(TrelUrl::fromEncoded(server.url("/echo")), forSlot, &receiver, "onResult",
                  HttpClientOptions()),
        nullptr);
    ASSERT_NE(client.putStream(TrelUrl::fromEncoded(server.url("/echo")), forContext, HttpClientOptions(),
                  &context, [&received](const HttpClientResult& result) { received.push_back(result); }),
        nullptr);
    produce(forSlot, { "slot body" });
    produce(forContext, { "context ", "body" });
    ASSERT_TRUE(trel::test::waitFor([&] { return receiver.count() == 1 && received.size() == 1; }));
    EXPECT_EQ(receiver.results()[0].body, QByteArray("slot body"));
    EXPECT_EQ(received[0].body, QByteArray("context body"));
    for (const RecordedRequest& request : server.requests()) {
        EXPECT_EQ(request.method, QByteArray("PUT"));
    }
}

} // namespace
