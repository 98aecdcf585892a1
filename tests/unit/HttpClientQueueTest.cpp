#include <trel/HttpClient.h>
#include <trel/HttpClientQueue.h>
#include <trel/HttpClientTransfer.h>

#include "ProcessState.h"
#include "WaitFor.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QSharedPointer>
#include <QWeakPointer>

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using trel::test::threadState;

// Bytes after maxSize that read must never touch.
constexpr int guardSize = 16;
constexpr char guardByte = '#';

// What a read that has not returned reports; no real result can equal it.
constexpr int stillBlocked = std::numeric_limits<int>::min();

struct ReadOutcome
{
    int result = 0;
    QByteArray bytes;
    bool guardIntact = true;
};

// One call of a queue that may wait, run on a thread of its own: a read, as the
// transfer's read callback runs on the client's thread, or a push, as producers
// push from others. Joined on destruction.
class BackgroundCall
{
public:
    BackgroundCall(HttpClientQueue& queue, const char* what, std::function<void()> call)
        : queue(queue)
        , what(what)
        , call(std::move(call))
        , thread([this] { run(); })
    { }

    ~BackgroundCall()
    {
        // A call still waiting here means an expectation already failed; closing
        // releases it so the thread can be joined instead of hanging the run. If
        // even close cannot release it, no call of the queue can, and ending the
        // run with a message beats waiting for the test timeout.
        if (!finished.load()) {
            queue.close();
            if (!waitFinished()) {
                std::fprintf(stderr, "%s stayed blocked in HttpClientQueue after close()\n", what);
                std::abort();
            }
        }
        thread.join();
    }

    BackgroundCall(const BackgroundCall&) = delete;
    BackgroundCall& operator=(const BackgroundCall&) = delete;

    bool waitFinished(int timeoutMs = 10000)
    {
        return trel::test::waitFor([this] { return finished.load(); }, timeoutMs);
    }

    // True once the thread is seen asleep inside the call without having
    // returned: with nobody else holding the queue's mutex, the only place it
    // can sleep is the queue's wait (for data, or for room).
    bool waitBlocked(int timeoutMs = 10000)
    {
        return trel::test::waitFor(
            [this] {
                const pid_t tid = callerTid.load();
                return tid != 0 && !finished.load() && threadState(tid) == 'S' && !finished.load();
            },
            timeoutMs);
    }

    bool isFinished() const { return finished.load(); }

private:
    void run()
    {
        callerTid.store(static_cast<pid_t>(::syscall(SYS_gettid)));
        call();
        finished.store(true);
    }

    HttpClientQueue& queue;
    const char* const what;
    const std::function<void()> call;
    std::atomic<pid_t> callerTid { 0 };
    std::atomic<bool> finished { false };
    std::thread thread;
};

// A read running on a thread of its own.
class BackgroundRead
{
public:
    BackgroundRead(HttpClientQueue& queue, int maxSize)
        : maxSize(maxSize)
        , buffer(static_cast<size_t>(maxSize + guardSize), guardByte)
        , background(
              queue, "a reader", [this, &queue] { result.store(queue.read(buffer.data(), this->maxSize)); })
    { }

    bool waitFinished(int timeoutMs = 10000) { return background.waitFinished(timeoutMs); }
    bool waitBlocked(int timeoutMs = 10000) { return background.waitBlocked(timeoutMs); }
    bool isFinished() const { return background.isFinished(); }

    ReadOutcome outcome() const
    {
        ReadOutcome outcome;
        if (!background.isFinished()) {
            outcome.result = stillBlocked;
            return outcome;
        }
        outcome.result = result.load();
        if (outcome.result > 0) {
            outcome.bytes = QByteArray(buffer.data(), outcome.result);
        }
        for (int i = maxSize; i < maxSize + guardSize; ++i) {
            outcome.guardIntact = outcome.guardIntact && buffer[static_cast<size_t>(i)] == guardByte;
        }
        return outcome;
    }

private:
    const int maxSize;
    std::vector<char> buffer;
    std::atomic<int> result { 0 };
    BackgroundCall background; // last: its thread starts once the rest exists, and is joined first
};

// One read of a queue that should answer at once (it holds a chunk, or is closed).
// It runs on a thread of its own all the same, so that a read which wrongly
// waits fails the test instead of hanging it.
ReadOutcome readNow(HttpClientQueue& queue, int maxSize)
{
    BackgroundRead reader(queue, maxSize);
    if (!reader.waitFinished(5000)) {
        ADD_FAILURE() << "read(" << maxSize << ") did not return although it had no reason to wait";
    }
    return reader.outcome();
}

// One read that must answer at once with exactly `expected`, leaving every byte
// past the room untouched.
::testing::AssertionResult readsNow(HttpClientQueue& queue, int maxSize, const QByteArray& expected)
{
    const ReadOutcome outcome = readNow(queue, maxSize);
    if (outcome.result != expected.size() || outcome.bytes != expected) {
        return ::testing::AssertionFailure()
            << "read(" << maxSize << ") returned " << outcome.result << " bytes \""
            << outcome.bytes.constData() << "\", expected " << expected.size() << " bytes \""
            << expected.constData() << "\"";
    }
    if (!outcome.guardIntact) {
        return ::testing::AssertionFailure() << "read(" << maxSize << ") wrote past its room";
    }
    return ::testing::AssertionSuccess();
}

// Runs one producer call on a thread other than the reader's and joins it.
template <typename Push> void pushFromAnotherThread(Push push)
{
    std::thread producer(push);
    producer.join();
}

TEST(HttpClientQueue, IsOpenedUntilClosedAndCannotBeReopened)
{
    HttpClientQueue queue;
    EXPECT_TRUE(queue.isOpened());
    queue.close();
    EXPECT_FALSE(queue.isOpened());
    queue.close();
    EXPECT_FALSE(queue.isOpened());
    EXPECT_FALSE(queue.append("x"));
    EXPECT_FALSE(queue.isOpened());
}

TEST(HttpClientQueue, IsOpenedSeesACloseFromAnotherThread)
{
    HttpClientQueue queue;
    std::atomic<bool> closed { false };
    std::thread producer([&] {
        EXPECT_TRUE(queue.isOpened());
        queue.close();
        closed.store(true);
    });
    // Polled while the producer closes, as a caller checking on its stream would.
    const bool seen = trel::test::waitFor([&] { return !queue.isOpened(); });
    producer.join();
    EXPECT_TRUE(seen);
    EXPECT_TRUE(closed.load());
    EXPECT_FALSE(queue.isOpened());
}

TEST(HttpClientQueue, IsAQObjectWithoutMembersOfItsOwn)
{
    HttpClientQueue queue;
    QObject* object = &queue;
    EXPECT_STREQ(queue.metaObject()->className(), "HttpClientQueue");
    EXPECT_EQ(qobject_cast<HttpClientQueue*>(object), &queue);
    EXPECT_NE(queue.qt_metacast("HttpClientQueue"), nullptr);
    EXPECT_EQ(queue.metaObject()->superClass(), &QObject::staticMetaObject);
    EXPECT_EQ(queue.metaObject()->methodCount(), QObject::staticMetaObject.methodCount());
    EXPECT_EQ(queue.metaObject()->propertyCount(), QObject::staticMetaObject.propertyCount());
    EXPECT_EQ(queue.parent(), nullptr);
}

TEST(HttpClientQueue, ReadOnOpenEmptyQueueBlocksUntilAnotherThreadAppends)
{
    HttpClientQueue queue;
    BackgroundRead reader(queue, 64);
    ASSERT_TRUE(reader.waitBlocked());
    EXPECT_FALSE(reader.isFinished());

    bool appended = false;
    pushFromAnotherThread([&] { appended = queue.append("hello"); });
    EXPECT_TRUE(appended);

    ASSERT_TRUE(reader.waitFinished());
    const ReadOutcome outcome = reader.outcome();
    EXPECT_EQ(outcome.result, 5);
    EXPECT_EQ(outcome.bytes, QByteArray("hello"));
    EXPECT_TRUE(outcome.guardIntact);
    EXPECT_TRUE(queue.isOpened());
}

TEST(HttpClientQueue, ReadOnOpenEmptyQueueIsReleasedByPrependFromAnotherThread)
{
    HttpClientQueue queue;
    BackgroundRead reader(queue, 64);
    ASSERT_TRUE(reader.waitBlocked());

    pushFromAnotherThread([&] { queue.prepend("front"); });

    ASSERT_TRUE(reader.waitFinished());
    EXPECT_EQ(reader.outcome().bytes, QByteArray("front"));
}

TEST(HttpClientQueue, ReadReturnsAtOnceWithWhatIsQueuedWithoutWaitingForMore)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("abc"));

    // Room for far more than is queued: the read must not wait for the rest.
    BackgroundRead reader(queue, 100);
    ASSERT_TRUE(reader.waitFinished());
    const ReadOutcome outcome = reader.outcome();
    EXPECT_EQ(outcome.result, 3);
    EXPECT_EQ(outcome.bytes, QByteArray("abc"));
    EXPECT_TRUE(outcome.guardIntact);
    EXPECT_TRUE(queue.isOpened());
}

TEST(HttpClientQueue, FollowingChunksAreTakenWholeOnlyWhileTheyFitWithRoomToSpare)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("abc"));
    ASSERT_TRUE(queue.append("defg"));
    ASSERT_TRUE(queue.append("hijkl"));

    // 3 + 4 leaves 3 bytes of room, which is not more than the 5-byte chunk.
    EXPECT_TRUE(readsNow(queue, 10, "abcdefg"));
    EXPECT_TRUE(readsNow(queue, 10, "hijkl"));
}

TEST(HttpClientQueue, FollowingChunkThatWouldFillTheRoomExactlyWaitsForTheNextRead)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("abc"));
    ASSERT_TRUE(queue.append("defghij"));

    // 7 bytes of room left after the first chunk are not strictly more than 7.
    EXPECT_TRUE(readsNow(queue, 10, "abc"));
    EXPECT_TRUE(readsNow(queue, 10, "defghij"));
}

TEST(HttpClientQueue, FollowingChunkOneByteShorterThanTheRoomLeftIsTaken)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("abc"));
    ASSERT_TRUE(queue.append("defghi"));
    ASSERT_TRUE(queue.append("j"));

    // 7 bytes of room take the 6-byte chunk; the single byte left is not more
    // than the 1-byte chunk behind it.
    EXPECT_TRUE(readsNow(queue, 10, "abcdefghi"));
    EXPECT_TRUE(readsNow(queue, 10, "j"));
}

TEST(HttpClientQueue, FollowingChunkIsNeverSplitEvenWhenPartOfItWouldFit)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("ab"));
    ASSERT_TRUE(queue.append("0123456789ABCDEF"));

    EXPECT_TRUE(readsNow(queue, 10, "ab"));

    // Now first in line, the long chunk is split like any first chunk.
    EXPECT_TRUE(readsNow(queue, 10, "0123456789"));
    EXPECT_TRUE(readsNow(queue, 10, "ABCDEF"));
}

TEST(HttpClientQueue, ChunkLargerThanTheRoomIsSplitAndItsRestIsReadNext)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("abcdefghij"));
    ASSERT_TRUE(queue.append("XY"));

    EXPECT_TRUE(readsNow(queue, 4, "abcd"));
    EXPECT_TRUE(readsNow(queue, 4, "efgh"));

    // The 2-byte rest leaves 2 bytes of room, not more than the 2-byte chunk.
    EXPECT_TRUE(readsNow(queue, 4, "ij"));
    EXPECT_TRUE(readsNow(queue, 4, "XY"));
}

TEST(HttpClientQueue, RestOfASplitChunkIsCombinedWithWholeChunksBehindIt)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("abcdef"));
    ASSERT_TRUE(queue.append("gh"));
    ASSERT_TRUE(queue.append("ij"));

    EXPECT_TRUE(readsNow(queue, 4, "abcd"));
    EXPECT_TRUE(readsNow(queue, 10, "efghij"));
}

TEST(HttpClientQueue, ExactlyConsumedChunkLeavesAnEmptyRestThatTheNextReadReturnsAsZero)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("0123456789"));

    EXPECT_TRUE(readsNow(queue, 10, "0123456789"));

    // The empty rest is still queued: the next read returns 0 at once although
    // the queue is open and holds no bytes.
    {
        BackgroundRead reader(queue, 10);
        ASSERT_TRUE(reader.waitFinished());
        EXPECT_EQ(reader.outcome().result, 0);
        EXPECT_TRUE(reader.outcome().guardIntact);
    }
    EXPECT_TRUE(queue.isOpened());

    // It was consumed once: the read after it waits for data again.
    BackgroundRead reader(queue, 10);
    ASSERT_TRUE(reader.waitBlocked());
    pushFromAnotherThread([&] { queue.append("next"); });
    ASSERT_TRUE(reader.waitFinished());
    EXPECT_EQ(reader.outcome().result, 4);
    EXPECT_EQ(reader.outcome().bytes, QByteArray("next"));
}

TEST(HttpClientQueue, ReadThatConsumesTheEmptyRestTakesTheChunksBehindIt)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("0123456789"));
    ASSERT_TRUE(queue.append("abc"));
    ASSERT_TRUE(queue.append("de"));

    EXPECT_EQ(readNow(queue, 10).result, 10);

    EXPECT_TRUE(readsNow(queue, 10, "abcde"));
}

TEST(HttpClientQueue, EmptyRestFollowedByAChunkThatFillsTheRoomReturnsZero)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("0123456789"));
    ASSERT_TRUE(queue.append("ABCDEFGHIJ"));

    EXPECT_EQ(readNow(queue, 10).result, 10);

    // Room 10 is not strictly more than the 10-byte chunk behind the empty rest.
    ReadOutcome outcome = readNow(queue, 10);
    EXPECT_EQ(outcome.result, 0);

    EXPECT_TRUE(readsNow(queue, 10, "ABCDEFGHIJ"));
}

TEST(HttpClientQueue, SingleByteRoomSplitsEveryChunkAndYieldsAZeroAfterEachOne)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("ab"));
    ASSERT_TRUE(queue.append("c"));

    std::vector<int> results;
    QByteArray bytes;
    for (int i = 0; i < 5; ++i) {
        const ReadOutcome outcome = readNow(queue, 1);
        EXPECT_TRUE(outcome.guardIntact);
        results.push_back(outcome.result);
        bytes += outcome.bytes;
    }
    // "ab": 'a', 'b' (empty rest), then the empty rest is read, then 'c' with
    // its own empty rest.
    EXPECT_EQ(results, (std::vector<int> { 1, 1, 0, 1, 0 }));
    EXPECT_EQ(bytes, QByteArray("abc"));
}

TEST(HttpClientQueue, EmptyChunksAreAcceptedAndReadAsZeroBytes)
{
    HttpClientQueue queue;
    EXPECT_TRUE(queue.append(QByteArray()));
    ReadOutcome outcome = readNow(queue, 8);
    EXPECT_EQ(outcome.result, 0);
    EXPECT_TRUE(outcome.guardIntact);

    EXPECT_TRUE(queue.prepend(QByteArray("")));
    EXPECT_EQ(readNow(queue, 8).result, 0);
    EXPECT_TRUE(queue.isOpened());

    // Each empty chunk was read once: the queue is empty again and the next
    // read waits.
    BackgroundRead reader(queue, 8);
    ASSERT_TRUE(reader.waitBlocked());
    pushFromAnotherThread([&] { queue.close(); });
    ASSERT_TRUE(reader.waitFinished());
    EXPECT_EQ(reader.outcome().result, -1);
}

TEST(HttpClientQueue, SeveralEmptyChunksGoInOneRead)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append(QByteArray()));
    ASSERT_TRUE(queue.append(QByteArray()));
    ASSERT_TRUE(queue.prepend(QByteArray()));
    ASSERT_TRUE(queue.append("z"));

    EXPECT_TRUE(readsNow(queue, 2, "z"));
}

TEST(HttpClientQueue, EmptyChunkBetweenDataIsTakenAlongWithIt)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("ab"));
    ASSERT_TRUE(queue.append(QByteArray()));
    ASSERT_TRUE(queue.append("cd"));

    EXPECT_TRUE(readsNow(queue, 10, "abcd"));
}

TEST(HttpClientQueue, PrependPutsTheChunkBeforeTheQueuedOnes)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("world"));
    ASSERT_TRUE(queue.append("!"));
    ASSERT_TRUE(queue.prepend("hello "));

    ReadOutcome outcome = readNow(queue, 6);
    EXPECT_EQ(outcome.bytes, QByteArray("hello "));

    outcome = readNow(queue, 100);
    EXPECT_EQ(outcome.bytes, QByteArray("world!"));
}

TEST(HttpClientQueue, PrependGoesInFrontOfThePartlyReadRestOfAChunk)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("abcdef"));

    EXPECT_EQ(readNow(queue, 2).bytes, QByteArray("ab"));
    ASSERT_TRUE(queue.prepend("XY"));

    // "XY" leaves 1 byte of room, too little for the 4-byte rest.
    EXPECT_TRUE(readsNow(queue, 3, "XY"));
    EXPECT_TRUE(readsNow(queue, 10, "cdef"));
}

TEST(HttpClientQueue, PushesAfterCloseAreRefusedAndDropped)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("abc"));
    queue.close();

    EXPECT_FALSE(queue.append("late"));
    EXPECT_FALSE(queue.prepend("early"));
    EXPECT_FALSE(queue.append(QByteArray()));
    EXPECT_FALSE(queue.isOpened());

    EXPECT_TRUE(readsNow(queue, 100, "abc"));
    EXPECT_EQ(readNow(queue, 100).result, -1);
}

TEST(HttpClientQueue, PushesFromAnotherThreadAfterCloseAreRefused)
{
    HttpClientQueue queue;
    queue.close();

    bool appended = true;
    bool prepended = true;
    pushFromAnotherThread([&] {
        appended = queue.append("x");
        prepended = queue.prepend("y");
    });
    EXPECT_FALSE(appended);
    EXPECT_FALSE(prepended);
    EXPECT_EQ(readNow(queue, 10).result, -1);
}

TEST(HttpClientQueue, QueuedDataIsStillReadAfterCloseThenEveryReadReturnsMinusOne)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("12345"));
    queue.close();

    EXPECT_TRUE(readsNow(queue, 100, "12345"));

    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(readNow(queue, 100).result, -1) << "read " << i << " after the queue drained";
    }
}

TEST(HttpClientQueue, ChunksQueuedBeforeCloseAreDrainedInOrderAcrossSplits)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("abcdefghij"));
    ASSERT_TRUE(queue.append("kl"));
    queue.close();

    EXPECT_EQ(readNow(queue, 4).bytes, QByteArray("abcd"));
    EXPECT_EQ(readNow(queue, 4).bytes, QByteArray("efgh"));
    EXPECT_EQ(readNow(queue, 4).bytes, QByteArray("ij"));
    EXPECT_EQ(readNow(queue, 4).bytes, QByteArray("kl"));
    EXPECT_EQ(readNow(queue, 4).result, -1);
}

TEST(HttpClientQueue, ExactlyConsumedLastChunkAfterCloseGivesZeroBeforeMinusOne)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("12345"));
    queue.close();

    EXPECT_EQ(readNow(queue, 5).result, 5);
    // The empty rest is still in the list, so the queue is not drained yet.
    EXPECT_EQ(readNow(queue, 5).result, 0);
    EXPECT_EQ(readNow(queue, 5).result, -1);
}

TEST(HttpClientQueue, CloseFromAnotherThreadWakesABlockedReader)
{
    HttpClientQueue queue;
    BackgroundRead reader(queue, 32);
    ASSERT_TRUE(reader.waitBlocked());
    EXPECT_FALSE(reader.isFinished());

    pushFromAnotherThread([&] { queue.close(); });

    ASSERT_TRUE(reader.waitFinished());
    EXPECT_EQ(reader.outcome().result, -1);
    EXPECT_TRUE(reader.outcome().guardIntact);
    EXPECT_EQ(readNow(queue, 32).result, -1);
}

TEST(HttpClientQueue, CloseWakesEveryBlockedReader)
{
    HttpClientQueue queue;
    BackgroundRead first(queue, 8);
    BackgroundRead second(queue, 8);
    ASSERT_TRUE(first.waitBlocked());
    ASSERT_TRUE(second.waitBlocked());

    pushFromAnotherThread([&] { queue.close(); });

    ASSERT_TRUE(first.waitFinished());
    ASSERT_TRUE(second.waitFinished());
    EXPECT_EQ(first.outcome().result, -1);
    EXPECT_EQ(second.outcome().result, -1);
}

TEST(HttpClientQueue, ReaderWokenWithoutDataForItWaitsAgain)
{
    HttpClientQueue queue;
    BackgroundRead first(queue, 8);
    BackgroundRead second(queue, 8);
    ASSERT_TRUE(first.waitBlocked());
    ASSERT_TRUE(second.waitBlocked());

    // One chunk for two waiting readers: exactly one of them gets it, the other
    // goes back to waiting.
    pushFromAnotherThread([&] { queue.append("one"); });
    ASSERT_TRUE(trel::test::waitFor([&] { return first.isFinished() || second.isFinished(); }));
    BackgroundRead& served = first.isFinished() ? first : second;
    BackgroundRead& waiting = first.isFinished() ? second : first;
    EXPECT_EQ(served.outcome().bytes, QByteArray("one"));
    ASSERT_TRUE(waiting.waitBlocked());
    EXPECT_FALSE(waiting.isFinished());

    pushFromAnotherThread([&] { queue.append("two"); });
    ASSERT_TRUE(waiting.waitFinished());
    EXPECT_EQ(waiting.outcome().bytes, QByteArray("two"));
}

// Two readers with room for half a chunk each: one push must wake both, since
// the first one woken leaves the other half queued and nothing else would wake
// the second.
void expectOnePushWakesEveryBlockedReader(bool (HttpClientQueue::*push)(const QByteArray&))
{
    HttpClientQueue queue;
    BackgroundRead first(queue, 2);
    BackgroundRead second(queue, 2);
    ASSERT_TRUE(first.waitBlocked());
    ASSERT_TRUE(second.waitBlocked());

    pushFromAnotherThread([&] { (queue.*push)("abcd"); });

    ASSERT_TRUE(first.waitFinished());
    ASSERT_TRUE(second.waitFinished());
    EXPECT_EQ(first.outcome().result, 2);
    EXPECT_EQ(second.outcome().result, 2);
    const QByteArray firstBytes = first.outcome().bytes;
    const QByteArray secondBytes = second.outcome().bytes;
    EXPECT_TRUE(firstBytes + secondBytes == "abcd" || secondBytes + firstBytes == "abcd")
        << firstBytes.constData() << " / " << secondBytes.constData();
}

TEST(HttpClientQueue, AppendWakesEveryBlockedReader)
{
    expectOnePushWakesEveryBlockedReader(&HttpClientQueue::append);
}

TEST(HttpClientQueue, PrependWakesEveryBlockedReader)
{
    expectOnePushWakesEveryBlockedReader(&HttpClientQueue::prepend);
}

TEST(HttpClientQueue, OpenQueueWithPendingChunksIsDestroyedWithoutClose)
{
    QObject parent;
    QPointer<HttpClientQueue> queue = new HttpClientQueue(&parent);
    ASSERT_TRUE(queue->append(QByteArray(4096, 'a')));
    ASSERT_TRUE(queue->append("partly read"));
    EXPECT_EQ(readNow(*queue, 4000).result, 4000);
    EXPECT_TRUE(queue->isOpened());

    delete queue.data();
    EXPECT_TRUE(queue.isNull());
    EXPECT_TRUE(parent.children().isEmpty());
}

TEST(HttpClientQueue, LastSharedOwnerDestroysTheQueueWithoutClose)
{
    auto producerSide = QSharedPointer<HttpClientQueue>::create();
    const QWeakPointer<HttpClientQueue> watch = producerSide;
    QSharedPointer<HttpClientQueue> readerSide = producerSide;

    // The producer pushes and lets go of its reference on its own thread without
    // closing; the reader's reference keeps the queue alive.
    std::thread producer([queue = std::move(producerSide)]() mutable {
        queue->append("body");
        queue.reset();
    });
    producer.join();
    ASSERT_FALSE(watch.isNull());
    EXPECT_TRUE(readerSide->isOpened());
    EXPECT_EQ(readNow(*readerSide, 16).bytes, QByteArray("body"));

    readerSide.reset();
    EXPECT_TRUE(watch.isNull());
}

// Stream of many producers: each chunk is a frame carrying its producer, its
// sequence number and a payload of varied length whose bytes derive from both,
// so the byte stream the reader sees can be parsed back and checked.
constexpr int producerCount = 4;
constexpr int chunksPerProducer = 25000;
constexpr int frameHeaderSize = 7; // producer (1), sequence (4), payload length (2)

int payloadLength(int producer, int sequence)
{
    // Now and then a chunk far larger than most reads, so it is split many times.
    if (sequence % 1000 == 999) {
        return 3000 + producer * 7;
    }
    return (sequence * 37 + producer * 11) % 181;
}

char payloadByte(int producer, int sequence, int index)
{
    return static_cast<char>((producer * 31 + sequence * 7 + index * 13) & 0xff);
}

QByteArray frame(int producer, int sequence)
{
    const int length = payloadLength(producer, sequence);
    QByteArray bytes;
    bytes.reserve(frameHeaderSize + length);
    bytes.append(static_cast<char>(producer));
    for (int shift = 0; shift < 32; shift += 8) {
        bytes.append(static_cast<char>((static_cast<uint32_t>(sequence) >> shift) & 0xff));
    }
    bytes.append(static_cast<char>(length & 0xff));
    bytes.append(static_cast<char>((length >> 8) & 0xff));
    for (int i = 0; i < length; ++i) {
        bytes.append(payloadByte(producer, sequence, i));
    }
    return bytes;
}

::testing::AssertionResult everyProducersFramesArrivedWholeAndInOrder(const std::string& stream)
{
    std::array<int, producerCount> next {};
    const auto byteAt = [&](size_t position) { return static_cast<uint8_t>(stream[position]); };
    size_t position = 0;
    while (position < stream.size()) {
        if (stream.size() - position < frameHeaderSize) {
            return ::testing::AssertionFailure() << "truncated frame header at byte " << position;
        }
        const int producer = byteAt(position);
        uint32_t sequence = 0;
        for (int i = 0; i < 4; ++i) {
            sequence |= static_cast<uint32_t>(byteAt(position + 1 + static_cast<size_t>(i))) << (8 * i);
        }
        const int length = byteAt(position + 5) | (byteAt(position + 6) << 8);
        if (producer >= producerCount) {
            return ::testing::AssertionFailure()
                << "unknown producer " << producer << " at byte " << position;
        }
        if (static_cast<int>(sequence) != next[static_cast<size_t>(producer)]) {
            return ::testing::AssertionFailure()
                << "producer " << producer << ": chunk " << sequence << " where chunk "
                << next[static_cast<size_t>(producer)] << " was due, at byte " << position;
        }
        if (length != payloadLength(producer, static_cast<int>(sequence))) {
            return ::testing::AssertionFailure()
                << "producer " << producer << " chunk " << sequence << ": length " << length;
        }
        position += frameHeaderSize;
        if (stream.size() - position < static_cast<size_t>(length)) {
            return ::testing::AssertionFailure()
                << "producer " << producer << " chunk " << sequence << " truncated";
        }
        for (int i = 0; i < length; ++i) {
            if (stream[position + static_cast<size_t>(i)]
                != payloadByte(producer, static_cast<int>(sequence), i)) {
                return ::testing::AssertionFailure() << "producer " << producer << " chunk " << sequence
                                                     << ": payload byte " << i << " corrupted";
            }
        }
        position += static_cast<size_t>(length);
        ++next[static_cast<size_t>(producer)];
    }
    for (int producer = 0; producer < producerCount; ++producer) {
        if (next[static_cast<size_t>(producer)] != chunksPerProducer) {
            return ::testing::AssertionFailure()
                << "producer " << producer << ": " << next[static_cast<size_t>(producer)] << " of "
                << chunksPerProducer << " chunks arrived";
        }
    }
    return ::testing::AssertionSuccess();
}

TEST(HttpClientQueue, ConcurrentProducersChunksArriveWholeAndInEachProducersOrder)
{
    HttpClientQueue queue;
    std::atomic<bool> closing { false };

    std::string stream;
    size_t expectedBytes = 0;
    for (int producer = 0; producer < producerCount; ++producer) {
        for (int sequence = 0; sequence < chunksPerProducer; ++sequence) {
            expectedBytes += static_cast<size_t>(frameHeaderSize + payloadLength(producer, sequence));
        }
    }
    stream.reserve(expectedBytes);

    std::atomic<bool> consumerDone { false };
    int badResults = 0;
    int minusOneWhileOpen = 0;
    int zeroResults = 0;
    int readsAfterEnd = 0;
    std::thread consumer([&] {
        // Room sizes from one byte to more than the largest chunk, including the
        // exact sizes of the smallest frames.
        static const int rooms[] = { 1, 3, 7, 8, 50, 187, 188, 256, 1000, 4096, 2, 16384 };
        std::vector<char> buffer(16384);
        uint32_t pick = 12345;
        for (;;) {
            pick = pick * 1103515245u + 12345u;
            const int room = (pick >> 16) % 3 == 0 ? rooms[(pick >> 8) % std::size(rooms)]
                                                   : static_cast<int>(1 + (pick >> 16) % 400);
            const int got = queue.read(buffer.data(), room);
            if (got == -1) {
                if (!closing.load()) {
                    ++minusOneWhileOpen;
                }
                // Once drained, a closed queue keeps answering -1.
                if (queue.read(buffer.data(), 64) != -1) {
                    ++readsAfterEnd;
                }
                break;
            }
            if (got < 0 || got > room) {
                ++badResults;
                break;
            }
            if (got == 0) {
                ++zeroResults;
            }
            stream.append(buffer.data(), static_cast<size_t>(got));
        }
        consumerDone.store(true);
    });

    std::atomic<int> refused { 0 };
    std::vector<std::thread> producers;
    for (int producer = 0; producer < producerCount; ++producer) {
        producers.emplace_back([&queue, &refused, producer] {
            for (int sequence = 0; sequence < chunksPerProducer; ++sequence) {
                if (!queue.append(frame(producer, sequence))) {
                    ++refused;
                }
            }
        });
    }
    for (auto& producer : producers) {
        producer.join();
    }
    EXPECT_TRUE(queue.isOpened());
    closing.store(true);
    queue.close();

    // The queue is closed and nothing else can release the consumer.
    if (!trel::test::waitFor([&] { return consumerDone.load(); }, 60000)) {
        std::fprintf(stderr, "the consumer did not reach the end of the closed queue\n");
        std::abort();
    }
    consumer.join();

    EXPECT_EQ(refused.load(), 0);
    EXPECT_EQ(badResults, 0);
    EXPECT_EQ(minusOneWhileOpen, 0);
    EXPECT_EQ(readsAfterEnd, 0);
    EXPECT_EQ(stream.size(), expectedBytes);
    EXPECT_TRUE(everyProducersFramesArrivedWholeAndInOrder(stream));
    RecordProperty("zeroLengthReads", zeroResults);
}

// ---------------------------------------------------------------------------
// The transfer's side: readAvailable never blocks, and the watcher wakes it.

int readAvailable(HttpClientQueue& queue, int maxSize, QByteArray* bytes = nullptr)
{
    std::vector<char> buffer(static_cast<size_t>(maxSize));
    const int got = queue.readAvailable(buffer.data(), maxSize);
    if (bytes) {
        *bytes = got > 0 ? QByteArray(buffer.data(), got) : QByteArray();
    }
    return got;
}

TEST(HttpClientQueueReadAvailable, OpenAndEmptyAnswersZeroAtOnceClosedAndDrainedMinusOne)
{
    HttpClientQueue queue;
    EXPECT_EQ(readAvailable(queue, 10), 0);
    queue.append("abc");
    queue.close();
    QByteArray bytes;
    EXPECT_EQ(readAvailable(queue, 10, &bytes), 3);
    EXPECT_EQ(bytes, "abc");
    EXPECT_EQ(readAvailable(queue, 10), -1);
    EXPECT_EQ(readAvailable(queue, 10), -1);
}

TEST(HttpClientQueueReadAvailable, EmptyChunksAndEmptyRestsAreSkippedNeverReadAsZero)
{
    HttpClientQueue queue;
    queue.append(QByteArray());
    queue.append("0123456789");
    queue.append(QByteArray());
    queue.append(QByteArray());
    queue.append("abc");
    QByteArray bytes;
    EXPECT_EQ(readAvailable(queue, 10, &bytes), 10); // takes the chunk exactly to its end
    EXPECT_EQ(bytes, "0123456789");
    EXPECT_EQ(readAvailable(queue, 10, &bytes), 3); // the empty rest and chunks carried nothing
    EXPECT_EQ(bytes, "abc");
    queue.append(QByteArray());
    EXPECT_EQ(readAvailable(queue, 10), 0); // open, and nothing but an empty chunk
    queue.close();
    EXPECT_EQ(readAvailable(queue, 10), -1);
}

TEST(HttpClientQueueReadAvailable, KeepsTheSplitAndWholeChunkRulesOfRead)
{
    HttpClientQueue queue;
    queue.append("abcdefghij");
    queue.append("XYZ");
    queue.append("1234567");
    QByteArray bytes;
    EXPECT_EQ(readAvailable(queue, 4, &bytes), 4);
    EXPECT_EQ(bytes, "abcd");
    EXPECT_EQ(readAvailable(queue, 10, &bytes), 9); // the rest, then XYZ with room to spare
    EXPECT_EQ(bytes, "efghijXYZ");
    EXPECT_EQ(readAvailable(queue, 10, &bytes), 7);
    EXPECT_EQ(bytes, "1234567");
}

TEST(HttpClientQueueReadAvailable, WatcherRunsQueuedOnItsContextOnceAfterAZeroRead)
{
    HttpClientQueue queue;
    QObject context;
    int woken = 0;
    queue.setReadyWatcher(&context, [&] { ++woken; });
    queue.append("not armed yet");
    trel::test::spinEventLoop(10);
    EXPECT_EQ(woken, 0); // nobody had found the queue empty

    QByteArray bytes;
    EXPECT_EQ(readAvailable(queue, 100, &bytes), 13);
    EXPECT_EQ(readAvailable(queue, 100), 0); // arms the watcher
    std::thread([&] {
        queue.append("one");
        queue.append("two");
    }).join();
    EXPECT_EQ(woken, 0); // never inline in the producer's call
    ASSERT_TRUE(trel::test::waitFor([&] { return woken == 1; }));
    trel::test::spinEventLoop(10);
    EXPECT_EQ(woken, 1); // one wake-up per zero read, however many pushes follow

    EXPECT_EQ(readAvailable(queue, 100, &bytes), 6);
    EXPECT_EQ(readAvailable(queue, 100), 0);
    std::thread([&] { queue.close(); }).join();
    ASSERT_TRUE(trel::test::waitFor([&] { return woken == 2; })); // close wakes too
    EXPECT_EQ(readAvailable(queue, 100), -1);
}

TEST(HttpClientQueueReadAvailable, ClearedWatcherIsNeverCalledAndOnlyItsOwnContextClearsIt)
{
    HttpClientQueue queue;
    QObject context;
    QObject stranger;
    int woken = 0;
    queue.setReadyWatcher(&context, [&] { ++woken; });
    EXPECT_EQ(readAvailable(queue, 10), 0);
    queue.clearReadyWatcher(&stranger); // not its watcher: stays
    queue.append("a");
    ASSERT_TRUE(trel::test::waitFor([&] { return woken == 1; }));

    EXPECT_EQ(readAvailable(queue, 10), 1);
    EXPECT_EQ(readAvailable(queue, 10), 0);
    queue.clearReadyWatcher(&context);
    queue.append("b");
    trel::test::spinEventLoop(20);
    EXPECT_EQ(woken, 1);
}

// A reader on this thread that only ever uses readAvailable and the watcher,
// fed by four producers: every byte arrives once and in each producer's order,
// and the reader's thread is never blocked (it is the event loop that drives it).
TEST(HttpClientQueueReadAvailable, FourProducersFeedANonBlockingReader)
{
    HttpClientQueue queue;
    QObject context;
    std::vector<char> buffer(777);
    std::string stream;
    bool ended = false;
    const std::function<void()> drain = [&] {
        for (;;) {
            const int got = queue.readAvailable(buffer.data(), static_cast<int>(buffer.size()));
            if (got > 0) {
                stream.append(buffer.data(), static_cast<size_t>(got));
                continue;
            }
            ended = got < 0;
            return; // 0: the watcher calls drain again after the next push
        }
    };
    queue.setReadyWatcher(&context, drain);
    std::atomic<int> running { producerCount };
    std::vector<std::thread> producers;
    for (int producer = 0; producer < producerCount; ++producer) {
        producers.emplace_back([&, producer] {
            for (int sequence = 0; sequence < chunksPerProducer; ++sequence) {
                if (sequence % 7 == 0) {
                    queue.append(QByteArray()); // carries nothing, ends nothing
                }
                queue.append(frame(producer, sequence));
            }
            if (--running == 0) {
                queue.close();
            }
        });
    }
    drain();
    const bool done = trel::test::waitFor([&] { return ended; }, 60000);
    for (auto& producer : producers) {
        producer.join();
    }
    ASSERT_TRUE(done);
    EXPECT_TRUE(everyProducersFramesArrivedWholeAndInOrder(stream));
}

// ---------------------------------------------------------------------------
// Capacity: producers wait for room, the reader's own thread never does.

// One append or prepend running on a thread of its own, as a producer pushes
// into a queue the client reads on another thread.
class BackgroundPush
{
public:
    BackgroundPush(HttpClientQueue& queue, QByteArray chunk, bool atFront = false)
        : chunk(std::move(chunk))
        , background(queue, "a producer", [this, &queue, atFront] {
            result.store(atFront ? queue.prepend(this->chunk) : queue.append(this->chunk));
        })
    { }

    bool waitFinished(int timeoutMs = 10000) { return background.waitFinished(timeoutMs); }
    bool waitBlocked(int timeoutMs = 10000) { return background.waitBlocked(timeoutMs); }
    bool isFinished() const { return background.isFinished(); }
    // Meaningful once finished.
    bool accepted() const { return result.load(); }

private:
    const QByteArray chunk;
    std::atomic<bool> result { false };
    BackgroundCall background; // last: its thread starts once the rest exists, and is joined first
};

TEST(HttpClientQueueCapacity, BytesQueuedCountsWhatIsPushedAndNotYetTaken)
{
    HttpClientQueue queue;
    EXPECT_EQ(queue.bytesQueued(), 0);
    ASSERT_TRUE(queue.append("abcdef"));
    ASSERT_TRUE(queue.prepend("XY"));
    ASSERT_TRUE(queue.append(QByteArray()));
    EXPECT_EQ(queue.bytesQueued(), 8);

    EXPECT_EQ(readAvailable(queue, 3), 2); // "XY": "abcdef" does not fit behind it
    EXPECT_EQ(queue.bytesQueued(), 6);
    EXPECT_TRUE(readsNow(queue, 4, "abcd")); // a split
    EXPECT_EQ(queue.bytesQueued(), 2);
    EXPECT_TRUE(readsNow(queue, 2, "ef")); // leaves an empty rest, which counts nothing
    EXPECT_EQ(queue.bytesQueued(), 0);
    queue.close();
    EXPECT_FALSE(queue.append("refused"));
    EXPECT_EQ(queue.bytesQueued(), 0);
}

TEST(HttpClientQueueCapacity, WithoutCapacityPushesNeverWait)
{
    HttpClientQueue queue;
    const QByteArray megabyte(1 << 20, 'm');
    {
        // Far more than any capacity below, from a thread that is not the reader's.
        BackgroundPush first(queue, megabyte);
        ASSERT_TRUE(first.waitFinished());
        EXPECT_TRUE(first.accepted());
    }
    // A capacity set and then taken back leaves the queue unbounded again; so
    // does a negative one.
    for (const qint64 capacity : { qint64(0), qint64(-1) }) {
        queue.setCapacity(16);
        queue.setCapacity(capacity);
        BackgroundPush push(queue, megabyte);
        ASSERT_TRUE(push.waitFinished());
        EXPECT_TRUE(push.accepted());
    }
    EXPECT_EQ(queue.bytesQueued(), 3 << 20);
    EXPECT_FALSE(queue.isAbandoned());
}

TEST(HttpClientQueueCapacity, ProducerWaitsAtCapacityUntilTheReaderTakesBytes)
{
    HttpClientQueue queue;
    queue.setCapacity(10);
    ASSERT_TRUE(queue.append("0123456789")); // exactly at the capacity
    BackgroundPush push(queue, "next");
    ASSERT_TRUE(push.waitBlocked());
    EXPECT_EQ(queue.bytesQueued(), 10);

    EXPECT_TRUE(readsNow(queue, 1, "0"));
    ASSERT_TRUE(push.waitFinished());
    EXPECT_TRUE(push.accepted());
    EXPECT_EQ(queue.bytesQueued(), 13); // the whole chunk went in: room for one byte was enough
    EXPECT_TRUE(readsNow(queue, 100, "123456789next"));
}

TEST(HttpClientQueueCapacity, ProducerWaitsWhileTheQueueStaysAtOrAboveCapacity)
{
    HttpClientQueue queue;
    ASSERT_TRUE(queue.append("abcdefghijklmno")); // 15 bytes, pushed while unbounded
    queue.setCapacity(10);
    BackgroundPush push(queue, "X", true);
    ASSERT_TRUE(push.waitBlocked());

    EXPECT_EQ(readAvailable(queue, 5), 5); // 10 left: still at the capacity
    ASSERT_TRUE(push.waitBlocked());
    EXPECT_FALSE(push.isFinished());

    EXPECT_EQ(readAvailable(queue, 1), 1); // 9 left: room
    ASSERT_TRUE(push.waitFinished());
    EXPECT_TRUE(push.accepted());
    EXPECT_TRUE(readsNow(queue, 1, "X")); // prepended: read next
    EXPECT_EQ(queue.bytesQueued(), 9);
}

TEST(HttpClientQueueCapacity, RaisingTheCapacityReleasesAWaitingProducer)
{
    HttpClientQueue queue;
    queue.setCapacity(4);
    ASSERT_TRUE(queue.append("full"));
    BackgroundPush push(queue, "more");
    ASSERT_TRUE(push.waitBlocked());
    queue.setCapacity(0);
    ASSERT_TRUE(push.waitFinished());
    EXPECT_TRUE(push.accepted());
    EXPECT_EQ(queue.bytesQueued(), 8);
}

TEST(HttpClientQueueCapacity, CloseRefusesTheChunkOfAWaitingProducer)
{
    HttpClientQueue queue;
    queue.setCapacity(4);
    ASSERT_TRUE(queue.append("full"));
    BackgroundPush push(queue, "late");
    ASSERT_TRUE(push.waitBlocked());

    pushFromAnotherThread([&] { queue.close(); });
    ASSERT_TRUE(push.waitFinished());
    EXPECT_FALSE(push.accepted());
    EXPECT_FALSE(queue.isAbandoned()); // closed, not abandoned
    EXPECT_TRUE(readsNow(queue, 100, "full")); // what was queued is still read
    EXPECT_EQ(readNow(queue, 100).result, -1);
}

// Lets the test thread push into a queue whose watcher lives on it: a push
// that wrongly waits is released by closing the queue after a while, so the
// test fails instead of hanging.
class CloseUnlessDone
{
public:
    CloseUnlessDone(HttpClientQueue& queue, int afterMs)
        : thread([this, &queue, afterMs] {
            std::unique_lock<std::mutex> lock(mutex);
            if (!condition.wait_for(lock, std::chrono::milliseconds(afterMs), [this] { return done; })) {
                queue.close();
            }
        })
    { }
    ~CloseUnlessDone()
    {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            done = true;
        }
        condition.notify_all();
        thread.join();
    }
    CloseUnlessDone(const CloseUnlessDone&) = delete;
    CloseUnlessDone& operator=(const CloseUnlessDone&) = delete;

private:
    std::mutex mutex;
    std::condition_variable condition;
    bool done = false;
    std::thread thread; // last: started once the members above exist
};

TEST(HttpClientQueueCapacity, TheWatchersThreadAddsPastTheCapacityWithoutWaiting)
{
    HttpClientQueue queue;
    QObject context; // lives on this thread, as a transfer lives on its client's
    queue.setReadyWatcher(&context, [] {});
    queue.setCapacity(8);
    {
        const CloseUnlessDone guard(queue, 5000);
        for (int i = 0; i < 10; ++i) {
            ASSERT_TRUE(queue.append("01234567")) << "push " << i << " waited and was refused";
        }
        ASSERT_TRUE(queue.prepend("front"));
    }
    EXPECT_EQ(queue.bytesQueued(), 85);

    // The capacity holds for every other thread all the same.
    BackgroundPush push(queue, "other");
    ASSERT_TRUE(push.waitBlocked());
    EXPECT_FALSE(push.isFinished());

    // Without a watcher the thread is no longer the reader's.
    queue.clearReadyWatcher(&context);
    const CloseUnlessDone guard(queue, 300);
    EXPECT_FALSE(queue.append("waits, then is refused at close"));
}

// The queue a request reads through a transfer, as HttpClient::postStream()
// wires it: the transfer is the watcher and lives on this thread.
class TransferReadingAQueue
{
public:
    TransferReadingAQueue()
        : transfer(std::make_unique<HttpClientTransfer>(HttpClient::Http1,
            TrelUrl::fromEncoded("http://127.0.0.1:9/"), HttpClient::Post, HttpClientOptions(),
            [this](HttpClientStatus, long, QByteArray, HttpClientHeaders) {
                abandonedWhenReported = queue->isAbandoned();
                ++reports;
            }))
    {
        EXPECT_TRUE(transfer->setDataToUpload(queue));
    }
    ~TransferReadingAQueue()
    {
        transfer.reset();
        curl_multi_cleanup(multi);
    }
    TransferReadingAQueue(const TransferReadingAQueue&) = delete;
    TransferReadingAQueue& operator=(const TransferReadingAQueue&) = delete;

    void start() { transfer->start(multi); }
    // Ends the transfer as libcurl's CURLMSG_DONE message for its handle would.
    void finishWith(CURLcode result)
    {
        CURLMsg message {};
        message.msg = CURLMSG_DONE;
        message.easy_handle = static_cast<CURL*>(transfer->handle());
        message.data.result = result;
        transfer->finish(&message);
    }

    const QSharedPointer<HttpClientQueue> queue = QSharedPointer<HttpClientQueue>::create(nullptr);
    CURLM* const multi = curl_multi_init();
    std::unique_ptr<HttpClientTransfer> transfer;
    int reports = 0;
    bool abandonedWhenReported = false;
};

TEST(HttpClientQueueAbandonment, DestroyedTransferWakesAWaitingProducerWithFalse)
{
    TransferReadingAQueue request;
    HttpClientQueue& queue = *request.queue;
    queue.setCapacity(6);
    ASSERT_TRUE(queue.append("queued"));
    BackgroundPush push(queue, "waiting");
    ASSERT_TRUE(push.waitBlocked());
    EXPECT_FALSE(queue.isAbandoned());

    request.transfer.reset();
    ASSERT_TRUE(push.waitFinished());
    EXPECT_FALSE(push.accepted());
    EXPECT_TRUE(queue.isAbandoned());
    EXPECT_EQ(queue.bytesQueued(), 0); // nobody reads them: dropped
    EXPECT_TRUE(queue.isOpened()); // abandoned, not closed
}

TEST(HttpClientQueueAbandonment, PushesAfterTheRequestEndedAreRefusedOnEveryThread)
{
    TransferReadingAQueue request;
    HttpClientQueue& queue = *request.queue;
    request.transfer.reset();
    ASSERT_TRUE(queue.isAbandoned());

    EXPECT_FALSE(queue.append("late"));
    EXPECT_FALSE(queue.prepend("early"));
    bool appended = true;
    bool prepended = true;
    pushFromAnotherThread([&] {
        appended = queue.append("x");
        prepended = queue.prepend("y");
    });
    EXPECT_FALSE(appended);
    EXPECT_FALSE(prepended);
    EXPECT_EQ(queue.bytesQueued(), 0);
    EXPECT_TRUE(queue.isAbandoned()); // for good: close changes nothing
    queue.close();
    EXPECT_TRUE(queue.isAbandoned());
}

TEST(HttpClientQueueAbandonment, UnboundedQueueIsAbandonedToo)
{
    TransferReadingAQueue request;
    HttpClientQueue& queue = *request.queue;
    ASSERT_TRUE(queue.append("never sent"));
    request.transfer.reset();
    EXPECT_TRUE(queue.isAbandoned());
    EXPECT_FALSE(queue.append("more"));
}

TEST(HttpClientQueueAbandonment, CancelAbandonsBeforeTheResultIsReported)
{
    TransferReadingAQueue request;
    HttpClientQueue& queue = *request.queue;
    queue.setCapacity(1);
    ASSERT_TRUE(queue.append("x"));
    request.start();
    BackgroundPush push(queue, "y");
    ASSERT_TRUE(push.waitBlocked());

    request.transfer->cancel();
    EXPECT_EQ(request.reports, 1);
    EXPECT_TRUE(request.abandonedWhenReported);
    ASSERT_TRUE(push.waitFinished());
    EXPECT_FALSE(push.accepted());
}

TEST(HttpClientQueueAbandonment, FinishWithAFailureAbandonsBeforeTheResultIsReported)
{
    TransferReadingAQueue request;
    HttpClientQueue& queue = *request.queue;
    queue.setCapacity(1);
    ASSERT_TRUE(queue.append("x"));
    request.start();
    BackgroundPush push(queue, "y");
    ASSERT_TRUE(push.waitBlocked());

    request.finishWith(CURLE_OPERATION_TIMEDOUT);
    EXPECT_EQ(request.reports, 1);
    EXPECT_TRUE(request.abandonedWhenReported);
    ASSERT_TRUE(push.waitFinished());
    EXPECT_FALSE(push.accepted());
}

// A server may answer before the whole body is sent: the rest is never read,
// and the producer must learn so even though the request succeeded.
TEST(HttpClientQueueAbandonment, RequestThatSucceededBeforeTheQueueWasClosedAbandonsIt)
{
    TransferReadingAQueue request;
    HttpClientQueue& queue = *request.queue;
    request.start();
    request.finishWith(CURLE_OK);
    EXPECT_TRUE(request.abandonedWhenReported);
    EXPECT_FALSE(queue.append("nobody reads this"));
}

TEST(HttpClientQueueAbandonment, RequestThatReadTheQueueToItsEndLeavesItNotAbandoned)
{
    TransferReadingAQueue request;
    HttpClientQueue& queue = *request.queue;
    ASSERT_TRUE(queue.append("whole body"));
    queue.close();
    request.start();
    EXPECT_EQ(readAvailable(queue, 100), 10); // as libcurl's read callback takes it
    EXPECT_EQ(readAvailable(queue, 100), -1);
    request.finishWith(CURLE_OK);
    EXPECT_FALSE(request.abandonedWhenReported);
    request.transfer.reset();
    EXPECT_FALSE(queue.isAbandoned());
    EXPECT_FALSE(queue.isOpened());
    EXPECT_FALSE(queue.append("after the end")); // refused because closed
}

TEST(HttpClientQueueAbandonment, ClosedQueueWithBytesLeftIsAbandoned)
{
    TransferReadingAQueue request;
    HttpClientQueue& queue = *request.queue;
    ASSERT_TRUE(queue.append("0123456789"));
    queue.close();
    request.start();
    EXPECT_EQ(readAvailable(queue, 4), 4);
    request.transfer->cancel();
    EXPECT_TRUE(queue.isAbandoned());
    EXPECT_EQ(queue.bytesQueued(), 0);
}

// Four producers against a small capacity and a non-blocking reader on this
// thread: every byte arrives once and in each producer's order, and the queue
// never holds a whole chunk more than the capacity.
TEST(HttpClientQueueCapacity, FourProducersStayWithinTheCapacityPlusOneChunk)
{
    constexpr qint64 capacity = 4096;
    HttpClientQueue queue;
    queue.setCapacity(capacity);
    QObject context;
    std::vector<char> buffer(777);
    std::string stream;
    bool ended = false;
    qint64 mostQueued = 0;
    const std::function<void()> drain = [&] {
        for (;;) {
            mostQueued = std::max(mostQueued, queue.bytesQueued());
            const int got = queue.readAvailable(buffer.data(), static_cast<int>(buffer.size()));
            if (got > 0) {
                stream.append(buffer.data(), static_cast<size_t>(got));
                continue;
            }
            ended = got < 0;
            return;
        }
    };
    queue.setReadyWatcher(&context, drain);
    std::atomic<int> running { producerCount };
    std::atomic<int> refused { 0 };
    std::atomic<qint64> mostSeenByProducers { 0 };
    int largestFrame = 0;
    for (int producer = 0; producer < producerCount; ++producer) {
        for (int sequence = 0; sequence < chunksPerProducer; ++sequence) {
            largestFrame = std::max(largestFrame, frameHeaderSize + payloadLength(producer, sequence));
        }
    }
    std::vector<std::thread> producers;
    for (int producer = 0; producer < producerCount; ++producer) {
        producers.emplace_back([&, producer] {
            for (int sequence = 0; sequence < chunksPerProducer; ++sequence) {
                if (!queue.append(frame(producer, sequence))) {
                    ++refused;
                }
                const qint64 queued = queue.bytesQueued();
                qint64 most = mostSeenByProducers.load();
                while (queued > most && !mostSeenByProducers.compare_exchange_weak(most, queued)) { }
            }
            if (--running == 0) {
                queue.close();
            }
        });
    }
    drain();
    const bool done = trel::test::waitFor([&] { return ended; }, 120000);
    for (auto& producer : producers) {
        producer.join();
    }
    ASSERT_TRUE(done);
    EXPECT_EQ(refused.load(), 0);
    EXPECT_TRUE(everyProducersFramesArrivedWholeAndInOrder(stream));
    EXPECT_LT(mostQueued, capacity + largestFrame);
    EXPECT_LT(mostSeenByProducers.load(), capacity + largestFrame);
    // The producers did run into the capacity: the bound was exercised.
    EXPECT_GE(std::max(mostQueued, mostSeenByProducers.load()), capacity);
}

} // namespace
