// The client engine without a network: its meta-object, construction options,
// socket watching, the timer callback and the write-notifier throttle, driven
// through libcurl's callbacks exactly as libcurl would call them.

#include <trel/HttpClient.h>

#include "CurlOptionRecorder.h"
#include "LogCapture.h"
#include "QtCompat.h"
#include "ResultReceiver.h"
#include "WaitFor.h"

#include <gtest/gtest.h>

#include <QMetaMethod>
#include <QMetaType>
#include <QPointer>

#include <log4cplus/configurator.h>

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <sstream>
#include <thread>
#include <vector>

// Reads the engine's private state; declared a friend by HttpClient.
class HttpClientTestAccess
{
public:
    static CURLM* multi(HttpClient& c) { return c.multi; }
    static QTimer& timer(HttpClient& c) { return c.timer; }
    static QTimer& writeRelease(HttpClient& c) { return c.writeNotifiersBlocked; }
    static QSocketNotifier* readNotifier(HttpClient& c, int s) { return c.readNotifiers.value(s).data(); }
    static QSocketNotifier* writeNotifier(HttpClient& c, int s) { return c.writeNotifiers.value(s).data(); }
    static QSet<int> blocked(HttpClient& c) { return c.blockedWriteSockets; }
    static int transferCount(HttpClient& c) { return c.transfers.size(); }
    static void writeActivated(HttpClient& c, int s) { c.on_writeNotifier_activated(s); }
    static void releaseTimeout(HttpClient& c) { c.on_writeNotifiersBlocked_timeout(); }
    static QObject* pushReceiver(HttpClient& c) { return c.pushReceiver; }
    static QByteArray pushSlot(HttpClient& c) { return c.pushSlot; }
    // Pushed transfers have ids of their own, which the caller never sees.
    static void* idOfHandle(HttpClient& c, CURL* easy) { return c.idsByHandle.value(easy); }
    static size_t immediateReadEntries(HttpClient& c) { return c.immediateReadTransfers.size(); }
    static void timerFired(HttpClient& c) { c.on_timer_timeout(); }
    static size_t spareHandles(HttpClient& c) { return c.spareHandles.size(); }
    static void* handleOf(HttpClient& c, void* id)
    {
        const auto transfer = c.transfers.value(id);
        return transfer ? transfer->handle() : nullptr;
    }
};

namespace {

using trel::test::LogCapture;
namespace curlOptions = trel::test::curlOptions;
using Access = HttpClientTestAccess;

// A connected socket pair: one end is handed to the client as libcurl would.
class SocketPair
{
public:
    SocketPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds.data()), 0); }
    ~SocketPair()
    {
        ::close(fds[0]);
        ::close(fds[1]);
    }
    int watched() const { return fds[0]; }

private:
    std::array<int, 2> fds { -1, -1 };
};

int poll(HttpClient& client, int socket, int what)
{
    return HttpClient::handleSocket(nullptr, socket, what, &client, nullptr);
}

TEST(HttpClientMetaObject, SixPrivateSlotsInOrderAndNoSignals)
{
    const QMetaObject& meta = HttpClient::staticMetaObject;
    EXPECT_STREQ(meta.className(), "HttpClient");
    const QList<QByteArray> expected = {
        "on_timer_timeout()",
        "on_readNotifier_activated(int)",
        "on_writeNotifier_activated(int)",
        "on_writeNotifiersBlocked_timeout()",
        "on_transfer_socketData(int,int)",
        "on_notifyCaller_sync(HttpClient::Result,HttpClient::Callback)",
    };
    ASSERT_EQ(meta.methodCount() - meta.methodOffset(), expected.size());
    for (int i = 0; i < expected.size(); ++i) {
        const QMetaMethod method = meta.method(meta.methodOffset() + i);
        EXPECT_EQ(method.methodSignature(), expected[i]);
        EXPECT_EQ(method.methodType(), QMetaMethod::Slot);
        EXPECT_EQ(method.access(), QMetaMethod::Private);
    }
    EXPECT_EQ(meta.propertyCount(), meta.propertyOffset());
    EXPECT_EQ(meta.enumeratorCount(), meta.enumeratorOffset());
}

TEST(HttpClientConstruction, RegistersTheValueTypesForQueuedDelivery)
{
    HttpClient client;
    for (const char* name : { "HttpClientPrivate", "HttpClientHeaders", "HttpClient::Result",
             "HttpClient::Callback", "TrelUrl" }) {
        EXPECT_NE(trel::test::metaTypeIdByName(name), QMetaType::UnknownType) << name;
    }
}

TEST(HttpClientConstruction, Http1NeverSetsPushOrPipelining)
{
    for (const int version : { 0, 2, -1 }) {
        HttpClient client(nullptr, static_cast<HttpClient::HttpVersion>(version), false);
        CURLM* const multi = Access::multi(client);
        EXPECT_FALSE(curlOptions::multi(multi, CURLMOPT_PUSHFUNCTION)) << version;
        EXPECT_FALSE(curlOptions::multi(multi, CURLMOPT_PUSHDATA)) << version;
        EXPECT_FALSE(curlOptions::multi(multi, CURLMOPT_PIPELINING)) << version;
        EXPECT_TRUE(curlOptions::multi(multi, CURLMOPT_SOCKETFUNCTION));
        EXPECT_TRUE(curlOptions::multi(multi, CURLMOPT_TIMERFUNCTION));
    }
}

TEST(HttpClientConstruction, Http2SetsPushAndMultiplexing)
{
    HttpClient client(nullptr, HttpClient::Http2, false);
    CURLM* const multi = Access::multi(client);
    ASSERT_TRUE(curlOptions::multi(multi, CURLMOPT_PIPELINING));
    EXPECT_EQ(curlOptions::multi(multi, CURLMOPT_PIPELINING)->value, CURLPIPE_MULTIPLEX);
    EXPECT_TRUE(curlOptions::multi(multi, CURLMOPT_PUSHFUNCTION));
    EXPECT_EQ(curlOptions::multi(multi, CURLMOPT_PUSHDATA)->value, reinterpret_cast<std::intptr_t>(&client));
}

TEST(HttpClientConstruction, EntryLineNamesVersionAndPlusFlag)
{
    LogCapture capture;
    HttpClient client(nullptr, HttpClient::Http2, true);
    EXPECT_TRUE(capture.contains(log4cplus::TRACE_LOG_LEVEL,
        "Enter HttpClient::HttpClient(QObject*, HttpClient::HttpVersion, bool): "
        "HttpVersion: 1 encodePlusSign: 1"));
    const auto records = capture.records();
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.front().logger, "HttpClient");
    EXPECT_EQ(records.front().file, "src/lib/httpClient/HttpClient");
}

TEST(HttpClientConstruction, PushReceiverStartsEmpty)
{
    HttpClient client;
    EXPECT_EQ(Access::pushReceiver(client), nullptr);
    EXPECT_TRUE(Access::pushSlot(client).isEmpty());
}

TEST(HttpClientSockets, PollInTwiceCreatesOneReadNotifier)
{
    HttpClient client;
    SocketPair pair;
    LogCapture capture;
    EXPECT_EQ(poll(client, pair.watched(), CURL_POLL_IN), 0);
    QSocketNotifier* const first = Access::readNotifier(client, pair.watched());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(poll(client, pair.watched(), CURL_POLL_IN), 0);
    EXPECT_EQ(Access::readNotifier(client, pair.watched()), first);
    EXPECT_EQ(capture.count("in, creating new"), 1);
    EXPECT_EQ(capture.count("in, already present"), 1);
    EXPECT_EQ(Access::writeNotifier(client, pair.watched()), nullptr);
    EXPECT_TRUE(capture.contains(log4cplus::TRACE_LOG_LEVEL,
        "Enter static int HttpClient::handleSocket(CURL*, curl_socket_t, int, void*, "
        "void*): Socket: "
            + std::to_string(pair.watched()) + " action 1"));
    EXPECT_TRUE(capture.contains(log4cplus::TRACE_LOG_LEVEL,
        "Enter void HttpClient::listenSocket(curl_socket_t, bool, bool): Listen socket "
            + std::to_string(pair.watched()) + " in 1 out 0"));
}

TEST(HttpClientSockets, InOutThenOutKeepsBothNotifiers)
{
    HttpClient client;
    SocketPair pair;
    LogCapture capture;
    poll(client, pair.watched(), CURL_POLL_INOUT);
    QSocketNotifier* const reader = Access::readNotifier(client, pair.watched());
    QSocketNotifier* const writer = Access::writeNotifier(client, pair.watched());
    ASSERT_NE(reader, nullptr);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(reader->type(), QSocketNotifier::Read);
    EXPECT_EQ(writer->type(), QSocketNotifier::Write);
    EXPECT_TRUE(reader->isEnabled());
    EXPECT_TRUE(writer->isEnabled());
    capture.clear();
    poll(client, pair.watched(), CURL_POLL_OUT);
    EXPECT_EQ(capture.count("out, already present"), 1);
    EXPECT_EQ(capture.count("in, already present"), 0);
    EXPECT_EQ(Access::readNotifier(client, pair.watched()), reader);
    EXPECT_EQ(Access::writeNotifier(client, pair.watched()), writer);
}

TEST(HttpClientSockets, AddOnlyDirectionsStayAfterLibcurlStopsAsking)
{
    HttpClient client;
    SocketPair pair;
    poll(client, pair.watched(), CURL_POLL_INOUT);
    poll(client, pair.watched(), CURL_POLL_IN);
    ASSERT_NE(Access::writeNotifier(client, pair.watched()), nullptr);
    EXPECT_TRUE(Access::writeNotifier(client, pair.watched())->isEnabled());
}

TEST(HttpClientSockets, RemoveDisablesBothNotifiersAndALaterPollEnablesOnlyWhatItAsks)
{
    HttpClient client;
    SocketPair pair;
    poll(client, pair.watched(), CURL_POLL_INOUT);
    QPointer<QSocketNotifier> reader = Access::readNotifier(client, pair.watched());
    QPointer<QSocketNotifier> writer = Access::writeNotifier(client, pair.watched());
    LogCapture capture;
    poll(client, pair.watched(), CURL_POLL_REMOVE);
    ASSERT_FALSE(reader.isNull());
    ASSERT_FALSE(writer.isNull());
    EXPECT_FALSE(reader->isEnabled()); // at once, not later
    EXPECT_FALSE(writer->isEnabled());
    EXPECT_TRUE(capture.contains(log4cplus::TRACE_LOG_LEVEL,
        "Enter void HttpClient::removeSocket(curl_socket_t): Remove socket "
            + std::to_string(pair.watched())));
    capture.clear();
    poll(client, pair.watched(), CURL_POLL_IN);
    EXPECT_EQ(Access::readNotifier(client, pair.watched()), reader.data());
    EXPECT_TRUE(reader->isEnabled());
    EXPECT_FALSE(writer->isEnabled());
    EXPECT_EQ(capture.count("in, creating new"), 0);
    poll(client, pair.watched(), CURL_POLL_OUT);
    EXPECT_EQ(Access::writeNotifier(client, pair.watched()), writer.data());
    EXPECT_TRUE(writer->isEnabled());
}

// A removed descriptor's notifiers watch nothing once it is closed, so Qt's
// dispatcher never polls a dead descriptor; the client deletes them when it goes.
TEST(HttpClientSockets, KeptNotifiersWatchNothingOnceClosedAndGoWithTheClient)
{
    QPointer<QSocketNotifier> reader;
    {
        HttpClient client;
        int watched = -1;
        {
            SocketPair pair;
            watched = pair.watched();
            poll(client, watched, CURL_POLL_IN);
            reader = Access::readNotifier(client, watched);
            poll(client, watched, CURL_POLL_REMOVE);
        }
        ASSERT_FALSE(reader.isNull());
        EXPECT_FALSE(reader->isEnabled());
    }
    EXPECT_TRUE(reader.isNull());
}

TEST(HttpClientSockets, RemovingAnUnwatchedSocketIsSilent)
{
    HttpClient client;
    LogCapture capture(log4cplus::DEBUG_LOG_LEVEL);
    EXPECT_EQ(poll(client, 12345, CURL_POLL_REMOVE), 0);
    EXPECT_TRUE(capture.records().empty());
}

TEST(HttpClientSockets, InvalidActionsLogOneErrorAndChangeNothing)
{
    HttpClient client;
    SocketPair pair;
    for (const int what : { 0, 5 }) {
        LogCapture capture;
        EXPECT_EQ(poll(client, pair.watched(), what), 0);
        EXPECT_EQ(capture.messages(log4cplus::ERROR_LOG_LEVEL),
            std::vector<std::string> { "Invalid action: " + std::to_string(what) });
        EXPECT_EQ(Access::readNotifier(client, pair.watched()), nullptr);
        EXPECT_EQ(Access::writeNotifier(client, pair.watched()), nullptr);
    }
}

TEST(HttpClientTimer, ZeroStartsAnImmediateTimerMinusOneStopsPositiveKeepsItsValue)
{
    HttpClient client;
    CURLM* const multi = Access::multi(client);
    QTimer& timer = Access::timer(client);
    EXPECT_TRUE(timer.isSingleShot());

    EXPECT_EQ(HttpClient::startTimeout(multi, 2500, &client), 0);
    EXPECT_TRUE(timer.isActive());
    EXPECT_EQ(timer.interval(), 2500);

    EXPECT_EQ(HttpClient::startTimeout(multi, -1, &client), 0);
    EXPECT_FALSE(timer.isActive());

    // Served on the next turn of the event loop (through the queued
    // connection), never inside libcurl's callback.
    EXPECT_EQ(HttpClient::startTimeout(multi, 0, &client), 0);
    EXPECT_TRUE(timer.isActive());
    EXPECT_EQ(timer.interval(), 0);
    EXPECT_TRUE(trel::test::waitFor([&] { return !timer.isActive(); }, 2000));
}

TEST(HttpClientThrottle, IdleWriteNotifierIsBlockedAfterFiringAndReleasedByTheTimer)
{
    HttpClient client;
    SocketPair pair;
    poll(client, pair.watched(), CURL_POLL_INOUT);
    poll(client, pair.watched(), CURL_POLL_IN); // libcurl no longer wants to write
    QSocketNotifier* const writer = Access::writeNotifier(client, pair.watched());
    LogCapture capture;
    Access::writeActivated(client, pair.watched());
    EXPECT_FALSE(writer->isEnabled());
    EXPECT_TRUE(Access::blocked(client).contains(pair.watched()));
    EXPECT_EQ(capture.count("blocking write-notifier on " + std::to_string(pair.watched())), 1);
    QTimer& release = Access::writeRelease(client);
    EXPECT_TRUE(release.isActive());
    EXPECT_EQ(release.interval(), 50);
    EXPECT_TRUE(trel::test::waitFor([&] { return writer->isEnabled(); }, 2000));
    EXPECT_TRUE(Access::blocked(client).isEmpty());
    EXPECT_EQ(capture.count("unblocking write-notifier on " + std::to_string(pair.watched())), 1);
}

TEST(HttpClientThrottle, SocketLibcurlStillWritesToIsNotThrottled)
{
    HttpClient client;
    SocketPair pair;
    poll(client, pair.watched(), CURL_POLL_OUT);
    QSocketNotifier* const writer = Access::writeNotifier(client, pair.watched());
    LogCapture capture;
    Access::writeActivated(client, pair.watched());
    EXPECT_TRUE(writer->isEnabled());
    EXPECT_TRUE(Access::blocked(client).isEmpty());
    EXPECT_EQ(capture.countPrefix(log4cplus::TRACE_LOG_LEVEL, "blocking write-notifier"), 0);
}

TEST(HttpClientThrottle, AskingToWriteAgainReleasesABlockedNotifierAtOnce)
{
    HttpClient client;
    SocketPair pair;
    poll(client, pair.watched(), CURL_POLL_INOUT);
    poll(client, pair.watched(), CURL_POLL_IN);
    QSocketNotifier* const writer = Access::writeNotifier(client, pair.watched());
    Access::writeActivated(client, pair.watched());
    ASSERT_FALSE(writer->isEnabled());
    poll(client, pair.watched(), CURL_POLL_INOUT);
    EXPECT_TRUE(writer->isEnabled());
    EXPECT_FALSE(Access::blocked(client).contains(pair.watched()));
}

TEST(HttpClientThrottle, TwoNotifiersBlockedApartAreReleasedByTheSameFiring)
{
    HttpClient client;
    SocketPair first;
    SocketPair second;
    for (const int s : { first.watched(), second.watched() }) {
        poll(client, s, CURL_POLL_INOUT);
        poll(client, s, CURL_POLL_IN);
    }
    QTimer& release = Access::writeRelease(client);
    Access::writeActivated(client, first.watched());
    const int remainingAfterFirst = release.remainingTime();
    trel::test::spinEventLoop(30);
    Access::writeActivated(client, second.watched());
    // Not restarted by the second block: both go at the first one's deadline.
    EXPECT_LE(release.remainingTime(), remainingAfterFirst);
    EXPECT_EQ(Access::blocked(client).size(), 2);
    EXPECT_TRUE(trel::test::waitFor([&] { return Access::blocked(client).isEmpty(); }, 2000));
    EXPECT_TRUE(Access::writeNotifier(client, first.watched())->isEnabled());
    EXPECT_TRUE(Access::writeNotifier(client, second.watched())->isEnabled());
}

TEST(HttpClientThrottle, BlockedSocketRemovedBeforeReleaseIsDroppedSilently)
{
    HttpClient client;
    SocketPair pair;
    poll(client, pair.watched(), CURL_POLL_INOUT);
    poll(client, pair.watched(), CURL_POLL_IN);
    Access::writeActivated(client, pair.watched());
    ASSERT_TRUE(Access::blocked(client).contains(pair.watched()));
    poll(client, pair.watched(), CURL_POLL_REMOVE);
    EXPECT_TRUE(Access::blocked(client).isEmpty());
    LogCapture capture;
    Access::releaseTimeout(client);
    EXPECT_EQ(capture.countPrefix(log4cplus::TRACE_LOG_LEVEL, "unblocking"), 0);
    EXPECT_FALSE(Access::writeNotifier(client, pair.watched())->isEnabled());
}

TEST(HttpClientThrottle, SocketRemovedDuringTheWriteActionIsNotBlocked)
{
    HttpClient client;
    SocketPair pair;
    poll(client, pair.watched(), CURL_POLL_INOUT);
    poll(client, pair.watched(), CURL_POLL_IN);
    // libcurl does not know this socket, so the socket action ends without it;
    // remove it as libcurl would during that action.
    poll(client, pair.watched(), CURL_POLL_REMOVE);
    LogCapture capture;
    Access::writeActivated(client, pair.watched());
    EXPECT_EQ(capture.countPrefix(log4cplus::TRACE_LOG_LEVEL, "blocking"), 0);
    EXPECT_TRUE(Access::blocked(client).isEmpty());
}

TEST(HttpClientCancel, UnknownAndNullIdentifiersAreRefusedWithADebugLine)
{
    HttpClient client;
    LogCapture capture;
    int marker = 0;
    EXPECT_FALSE(client.cancel(nullptr));
    EXPECT_FALSE(client.cancel(&marker));
    EXPECT_EQ(capture.countPrefix(log4cplus::DEBUG_LOG_LEVEL, "No such transfer: "), 2);
    std::ostringstream expected;
    expected << "No such transfer: " << static_cast<void*>(&marker);
    EXPECT_TRUE(capture.contains(log4cplus::DEBUG_LOG_LEVEL, expected.str()));
}

TEST(HttpClientPush, SetPushPropertiesStoresAndLogsTheSlot)
{
    HttpClient client;
    QObject receiver;
    LogCapture capture;
    client.setPushProperties(&receiver, "onPush", HttpClientOptions());
    EXPECT_EQ(Access::pushReceiver(client), &receiver);
    EXPECT_EQ(Access::pushSlot(client), "onPush");
    client.setPushProperties(nullptr, nullptr, HttpClientOptions());
    EXPECT_TRUE(Access::pushSlot(client).isEmpty());
    EXPECT_TRUE(capture.contains(log4cplus::TRACE_LOG_LEVEL,
        "Enter void HttpClient::setPushProperties(QObject*, const char*, "
        "const HttpClientOptions&): Slot: "));
}

// A pushed stream as libcurl hands it over: an easy handle the client adopts.
// The client's table owns it from then on and cleans it up with its transfer.
CURL* acceptPush(HttpClient& client)
{
    CURL* const easy = curl_easy_init();
    EXPECT_NE(easy, nullptr);
    EXPECT_EQ(HttpClient::serverPushCallback(nullptr, easy, 0, nullptr, &client), CURL_PUSH_OK);
    return easy;
}

HttpClientOptions pushOptionsWithNumber(int number)
{
    HttpClientOptions options;
    options.setUserData(HttpClientPrivate(number));
    return options;
}

// A cancelled push reports Error/-1 with no URL (a push has none of its own)
// and the push options' user data, here a number.
void expectCancelledPushes(const trel::test::ResultReceiver& receiver, int userNumber)
{
    for (const auto& result : receiver.results()) {
        EXPECT_TRUE(result.url.isEmpty());
        EXPECT_EQ(result.status, static_cast<int>(HttpClientStatus::Error));
        EXPECT_EQ(result.code, -1);
        EXPECT_EQ(result.context.getInt(), userNumber);
    }
}

TEST(HttpClientPush, EveryPushIsAcceptedAsItsOwnTransfer)
{
    HttpClient client(nullptr, HttpClient::Http2);
    trel::test::ResultReceiver receiver;
    client.setPushProperties(&receiver, "onResult", pushOptionsWithNumber(1));
    LogCapture capture;
    // Two pushes of the same resource are not merged or refused.
    CURL* const first = acceptPush(client);
    CURL* const second = acceptPush(client);
    EXPECT_EQ(capture.count("Server push callback"), 2);
    EXPECT_EQ(Access::transferCount(client), 2);
    void* const firstId = Access::idOfHandle(client, first);
    void* const secondId = Access::idOfHandle(client, second);
    ASSERT_NE(firstId, nullptr);
    ASSERT_NE(secondId, nullptr);
    EXPECT_NE(firstId, secondId);
    // Cancelling a pushed stream reports to the push receiver.
    EXPECT_TRUE(client.cancel(firstId));
    EXPECT_TRUE(client.cancel(secondId));
    ASSERT_TRUE(trel::test::waitFor([&] { return receiver.count() == 2; }));
    trel::test::spinEventLoop(20);
    ASSERT_EQ(receiver.count(), 2);
    expectCancelledPushes(receiver, 1);
}

TEST(HttpClientPush, ReceiverIsFixedAtAcceptanceAndUserDataAtCompletion)
{
    trel::test::ResultReceiver before;
    trel::test::ResultReceiver after;
    {
        HttpClient client(nullptr, HttpClient::Http2);
        client.setPushProperties(&before, "onResult", pushOptionsWithNumber(1));
        acceptPush(client);
        acceptPush(client);
        client.setPushProperties(&after, "onResult", pushOptionsWithNumber(2));
        // Destroying the client ends both pushes; each still reports once.
    }
    ASSERT_TRUE(trel::test::waitFor([&] { return before.count() == 2; }));
    trel::test::spinEventLoop(20);
    EXPECT_EQ(before.count(), 2);
    EXPECT_EQ(after.count(), 0);
    expectCancelledPushes(before, 2);
}

TEST(HttpClientPush, PushAcceptedBeforeAnyPropertiesIsDroppedQuietly)
{
    trel::test::ResultReceiver receiver;
    HttpClient client(nullptr, HttpClient::Http2);
    CURL* const easy = acceptPush(client);
    client.setPushProperties(&receiver, "onResult", HttpClientOptions());
    EXPECT_TRUE(client.cancel(Access::idOfHandle(client, easy)));
    trel::test::spinEventLoop(50);
    EXPECT_EQ(receiver.count(), 0);
    EXPECT_EQ(Access::transferCount(client), 0);
}

TEST(HttpClientSweep, OnlyImmediateReadTransfersAreListedAndLeftOnesAreDroppedByTheNextSweep)
{
    HttpClient client(nullptr, HttpClient::Http2);
    HttpClientOptions plain;
    HttpClientOptions immediate;
    immediate.setImmediateRead(true);
    const TrelUrl unreachable(QStringLiteral("http://127.0.0.1:9/"));
    std::vector<void*> plainIds;
    for (int i = 0; i < 200; ++i) {
        plainIds.push_back(client.get(unreachable, plain, [](const HttpClientResult&) {}));
    }
    void* const early = client.get(unreachable, immediate, [](const HttpClientResult&) {});
    client.setPushProperties(nullptr, nullptr, immediate);
    CURL* const pushed = acceptPush(client);
    client.setPushProperties(nullptr, nullptr, plain);
    acceptPush(client);
    EXPECT_EQ(Access::transferCount(client), 203);
    EXPECT_EQ(Access::immediateReadEntries(client), 2U);

    // Leaving the table is enough; the sweep forgets them without a lookup.
    EXPECT_TRUE(client.cancel(early));
    EXPECT_TRUE(client.cancel(Access::idOfHandle(client, pushed)));
    EXPECT_TRUE(client.cancel(plainIds.front()));
    Access::timerFired(client);
    EXPECT_EQ(Access::immediateReadEntries(client), 0U);
    EXPECT_EQ(Access::transferCount(client), 200);
}

TEST(HttpClientHandles, AnEndedRequestsHandleServesTheNextRequestConfiguredAfresh)
{
    HttpClient client;
    HttpClientOptions withHeader;
    withHeader.setHeaders({ { QStringLiteral("X-First"), QStringLiteral("1") } });
    const auto ignore = [](const HttpClientResult&) {};
    void* const first
        = client.post(TrelUrl(QStringLiteral("http://127.0.0.1:9/first")), "body", withHeader, ignore);
    void* const handle = Access::handleOf(client, first);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(Access::spareHandles(client), 0U);
    ASSERT_TRUE(client.cancel(first));
    EXPECT_EQ(Access::spareHandles(client), 1U);

    void* const second = client.get(TrelUrl(QStringLiteral("http://127.0.0.1:9/second")), {}, ignore);
    EXPECT_EQ(Access::handleOf(client, second), handle);
    EXPECT_EQ(Access::spareHandles(client), 0U);
    EXPECT_EQ(curlOptions::easy(handle, CURLOPT_URL)->text, "http://127.0.0.1:9/second");
    EXPECT_FALSE(curlOptions::easy(handle, CURLOPT_HTTPHEADER).has_value());
    EXPECT_FALSE(curlOptions::easy(handle, CURLOPT_POSTFIELDS).has_value());
    // A new request while the handle is busy gets a handle of its own.
    void* const third = client.get(TrelUrl(QStringLiteral("http://127.0.0.1:9/third")), {}, ignore);
    EXPECT_NE(Access::handleOf(client, third), handle);
}

TEST(HttpClientHandles, AtMostTwoHundredFiftySixSpareHandlesAreKept)
{
    HttpClient client;
    const auto ignore = [](const HttpClientResult&) {};
    std::vector<void*> ids;
    for (int i = 0; i < 300; ++i) {
        ids.push_back(client.get(TrelUrl(QStringLiteral("http://127.0.0.1:9/")), {}, ignore));
    }
    for (void* const id : ids) {
        ASSERT_TRUE(client.cancel(id));
    }
    EXPECT_EQ(Access::spareHandles(client), 256U);
}

TEST(HttpClientCacheControl, SetCacheSizeAndClearForwardToTheCache)
{
    HttpClient client;
    LogCapture capture;
    client.setCacheSize(4096);
    client.clearCache();
    EXPECT_TRUE(capture.contains(
        log4cplus::TRACE_LOG_LEVEL, "Enter void HttpClient::setCacheSize(size_t): Cache size: 4096"));
    EXPECT_TRUE(capture.contains(
        log4cplus::TRACE_LOG_LEVEL, "Enter void HttpClientCache::setCacheSize(int): Bytes 4096"));
    EXPECT_TRUE(capture.contains(log4cplus::TRACE_LOG_LEVEL, "Enter void HttpClient::clearCache(): "));
    EXPECT_TRUE(capture.contains(log4cplus::TRACE_LOG_LEVEL, "Enter void HttpClientCache::clear(): "));
}

// ---------------------------------------------------------------------------
// Logging of an application that never configured log4cplus

// What a forked child writes to standard output and standard error while it
// makes calls that log at DEBUG and ERROR (the levels log4cplus lets through
// by default): a refused slot and an unknown id.
std::string outputOfLoggingCalls(bool configureLogging)
{
    std::array<int, 2> pipeFds { -1, -1 };
    EXPECT_EQ(::pipe(pipeFds.data()), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(pipeFds[1], STDOUT_FILENO);
        ::dup2(pipeFds[1], STDERR_FILENO);
        ::close(pipeFds[0]);
        if (configureLogging) {
            log4cplus::BasicConfigurator config;
            config.configure();
        }
        {
            HttpClient client;
            QObject receiver;
            client.get(
                TrelUrl::fromEncoded("http://127.0.0.1:9/"), &receiver, "noSuchSlot", HttpClientOptions());
            client.cancel(reinterpret_cast<void*>(0x5eed));
        }
        std::fflush(stdout);
        std::fflush(stderr);
        ::_exit(0);
    }
    ::close(pipeFds[1]);
    std::string output;
    std::array<char, 4096> chunk {};
    for (ssize_t got = 0; (got = ::read(pipeFds[0], chunk.data(), chunk.size())) > 0;) {
        output.append(chunk.data(), static_cast<size_t>(got));
    }
    ::close(pipeFds[0]);
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    return output;
}

TEST(HttpClientLogging, AnApplicationThatConfiguredNoLoggingSeesNothing)
{
    EXPECT_EQ(outputOfLoggingCalls(false), "");
}

TEST(HttpClientLogging, AnApplicationThatConfiguredLoggingGetsTheLines)
{
    const std::string output = outputOfLoggingCalls(true);
    EXPECT_NE(output.find("Refused, QObject has no slot \"noSuchSlot\""), std::string::npos) << output;
    EXPECT_NE(output.find("No such transfer"), std::string::npos) << output;
}

// ---------------------------------------------------------------------------
// Connection limits

long multiOption(HttpClient& client, CURLMoption option)
{
    const auto recorded = curlOptions::multi(Access::multi(client), option);
    EXPECT_TRUE(recorded.has_value()) << "option " << option << " was not set";
    return recorded ? static_cast<long>(recorded->value) : -12345;
}

// Lowers the soft descriptor limit while it lives.
class SoftDescriptorLimit
{
public:
    explicit SoftDescriptorLimit(rlim_t soft)
    {
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
        rlimit lowered = saved;
        lowered.rlim_cur = std::min(soft, saved.rlim_max);
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
    }
    ~SoftDescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &saved); }
    SoftDescriptorLimit(const SoftDescriptorLimit&) = delete;
    SoftDescriptorLimit& operator=(const SoftDescriptorLimit&) = delete;

private:
    rlimit saved {};
};

TEST(HttpClientConnections, TheDefaultTotalIsHalfTheSoftDescriptorLimitWithinBounds)
{
    rlimit current {};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &current), 0);
    ASSERT_GE(current.rlim_max, 1024u);
    const std::vector<std::pair<rlim_t, long>> cases
        = { { 1024, 512 }, { 300, 256 }, { 2048, 1024 }, { 4096, 1024 } };
    for (const auto& [soft, expected] : cases) {
        if (soft > current.rlim_max) {
            continue; // a soft limit cannot rise above the hard one
        }
        const SoftDescriptorLimit lowered(soft);
        HttpClient client;
        EXPECT_EQ(multiOption(client, CURLMOPT_MAX_TOTAL_CONNECTIONS), expected) << soft;
    }
}

TEST(HttpClientConnections, SettersPassTheLimitsOnAndZeroOrLessMeansNone)
{
    HttpClient client;
    client.setMaxConnections(6);
    client.setMaxConnectionsPerHost(2);
    EXPECT_EQ(multiOption(client, CURLMOPT_MAX_TOTAL_CONNECTIONS), 6);
    EXPECT_EQ(multiOption(client, CURLMOPT_MAX_HOST_CONNECTIONS), 2);
    client.setMaxConnections(0);
    client.setMaxConnectionsPerHost(-5);
    EXPECT_EQ(multiOption(client, CURLMOPT_MAX_TOTAL_CONNECTIONS), 0);
    EXPECT_EQ(multiOption(client, CURLMOPT_MAX_HOST_CONNECTIONS), 0);
}

TEST(HttpClientConnections, SettersAreRefusedOffTheClientsThread)
{
    HttpClient client;
    client.setMaxConnections(6);
    client.setMaxConnectionsPerHost(3);
    LogCapture capture(log4cplus::ERROR_LOG_LEVEL);
    std::thread foreign([&] {
        client.setMaxConnections(1);
        client.setMaxConnectionsPerHost(1);
    });
    foreign.join();
    EXPECT_EQ(multiOption(client, CURLMOPT_MAX_TOTAL_CONNECTIONS), 6);
    EXPECT_EQ(multiOption(client, CURLMOPT_MAX_HOST_CONNECTIONS), 3);
    EXPECT_EQ(
        capture.countPrefix(log4cplus::ERROR_LOG_LEVEL, "Refused, called off the client's thread: "), 2);
}

} // namespace
