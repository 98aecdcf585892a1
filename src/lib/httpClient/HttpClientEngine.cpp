// The event engine: libcurl's sockets on Qt socket notifiers, its timeout on one
// timer, idle write notifiers throttled, and finished transfers harvested.

#include <trel/HttpClient.h>

#include "Log.h"

namespace {
const char* const kLogFile = "src/lib/httpClient/HttpClient";
const log4cplus::Logger logger = trel::log::libraryLogger();

// Most spare easy handles kept for reuse: enough for hundreds of requests in
// flight, while a burst of thousands does not keep its handles afterwards.
constexpr std::size_t kMaxSpareHandles = 256;

// QSocketNotifier::activated() carries a QSocketDescriptor from Qt 5.15 on (the
// int form is deprecated there and kept in Qt 6 only for old string connects);
// the client's notifier slots take the socket as an int, so they are reached
// through this one connection, checked by the compiler in both.
void connectActivated(QSocketNotifier* notifier, HttpClient* client, void (HttpClient::*slot)(int))
{
    QObject::connect(notifier, &QSocketNotifier::activated, client,
        [client, slot](QSocketDescriptor socket) { (client->*slot)(static_cast<int>(socket)); });
}
} // namespace

// ---------------------------------------------------------------------------
// Socket watching

// Runs inside curl_multi_socket_action (or curl_multi_cleanup) on the client's
// thread; may add or remove notifiers.
int HttpClient::handleSocket(CURL* /*easy*/, curl_socket_t s, int what, void* userp, void* /*socketp*/)
{
    auto* const client = static_cast<HttpClient*>(userp);
    TREL_ENTER("Socket: " << s << " action " << what);
    switch (what) {
    case CURL_POLL_IN:
        client->writeWantedSockets.remove(s);
        client->listenSocket(s, true, false);
        break;
    case CURL_POLL_OUT:
        client->writeWantedSockets.insert(s);
        client->listenSocket(s, false, true);
        break;
    case CURL_POLL_INOUT:
        client->writeWantedSockets.insert(s);
        client->listenSocket(s, true, true);
        break;
    case CURL_POLL_REMOVE:
        client->writeWantedSockets.remove(s);
        client->removeSocket(s);
        break;
    default:
        TREL_ERROR("Invalid action: " << what);
        break;
    }
    return 0;
}

QSharedPointer<QSocketNotifier> HttpClient::makeNotifier(curl_socket_t socket, QSocketNotifier::Type type)
{
    // No Qt parent: the table's shared pointer is the only owner.
    return QSharedPointer<QSocketNotifier>::create(socket, type, nullptr);
}

// Only ever adds or enables: a direction libcurl stops asking for keeps its
// notifier enabled until the socket is removed (idle write notifiers are
// throttled instead). A notifier kept from an earlier removal of the same
// descriptor is enabled again rather than made anew.
void HttpClient::listenSocket(curl_socket_t socket, bool in, bool out)
{
    TREL_ENTER("Listen socket " << socket << " in " << in << " out " << out);
    if (in) {
        const auto kept = readNotifiers.constFind(socket);
        if (kept != readNotifiers.cend()) {
            TREL_TRACE("in, already present");
            (*kept)->setEnabled(true);
        } else {
            TREL_TRACE("in, creating new");
            const auto notifier = makeNotifier(socket, QSocketNotifier::Read);
            readNotifiers.insert(socket, notifier);
            connectActivated(notifier.data(), this, &HttpClient::on_readNotifier_activated);
        }
    }
    if (out) {
        const auto kept = writeNotifiers.constFind(socket);
        if (kept != writeNotifiers.cend()) {
            TREL_TRACE("out, already present");
            // libcurl has data to write again: a throttled notifier must not
            // hold it back for the rest of the block time.
            blockedWriteSockets.remove(socket);
            (*kept)->setEnabled(true);
            return;
        }
        TREL_TRACE("out, creating new");
        const auto notifier = makeNotifier(socket, QSocketNotifier::Write);
        writeNotifiers.insert(socket, notifier);
        connectActivated(notifier.data(), this, &HttpClient::on_writeNotifier_activated);
    }
}

// The notifiers stay, disabled, for the next time libcurl asks for this
// descriptor: with keep-alive that is the next request on the connection, and
// making and deleting two QObjects each time cost more than the watching. A
// disabled notifier watches nothing, so a descriptor closed and reused by
// anyone else meanwhile is never served by it; the client deletes the kept
// notifiers when it goes.
void HttpClient::removeSocket(curl_socket_t socket)
{
    TREL_ENTER("Remove socket " << socket);
    for (QHash<int, QSharedPointer<QSocketNotifier>>* const notifiers : { &readNotifiers, &writeNotifiers }) {
        const auto kept = notifiers->constFind(socket);
        if (kept != notifiers->cend()) {
            (*kept)->setEnabled(false);
        }
    }
    // Not released by the throttle either: only libcurl's asking enables it.
    blockedWriteSockets.remove(socket);
}

// ---------------------------------------------------------------------------
// Event-loop driving

// Runs inside libcurl calls; the timer's queued connection serves even a 0 ms
// timeout from a later turn of the event loop.
int HttpClient::startTimeout(CURLM* /*multi*/, long timeout_ms, void* userp)
{
    auto* const client = static_cast<HttpClient*>(userp);
    if (timeout_ms < 0) {
        client->timer.stop();
    } else {
        client->timer.start(static_cast<int>(timeout_ms));
    }
    return 0;
}

void HttpClient::on_timer_timeout()
{
    on_transfer_socketData(CURL_SOCKET_TIMEOUT, 0);
}

void HttpClient::on_readNotifier_activated(int socket)
{
    TREL_ENTER(socket);
    on_transfer_socketData(socket, CURL_CSELECT_IN);
}

void HttpClient::on_writeNotifier_activated(int socket)
{
    TREL_ENTER(socket);
    on_transfer_socketData(socket, CURL_CSELECT_OUT);
    // A socket libcurl still writes to stays enabled; one it no longer asks
    // to write to would fire on every turn, so it is silenced for a while. One
    // libcurl removed during the action is disabled already and stays so.
    const auto notifier = writeNotifiers.constFind(socket);
    if (notifier != writeNotifiers.cend() && (*notifier)->isEnabled()
        && !writeWantedSockets.contains(socket)) {
        blockWriteNotifier(socket);
    }
}

void HttpClient::blockWriteNotifier(int socket)
{
    TREL_TRACE("blocking write-notifier on " << socket);
    writeNotifiers.value(socket)->setEnabled(false);
    blockedWriteSockets.insert(socket);
    if (!writeNotifiersBlocked.isActive()) {
        writeNotifiersBlocked.start();
    }
}

void HttpClient::on_writeNotifiersBlocked_timeout()
{
    TREL_ENTER("");
    const QSet<int> blocked = blockedWriteSockets;
    for (const int socket : blocked) {
        const auto notifier = writeNotifiers.value(socket);
        if (notifier) {
            TREL_TRACE("unblocking write-notifier on " << socket);
            notifier->setEnabled(true);
        }
    }
    blockedWriteSockets.clear();
}

void HttpClient::on_transfer_socketData(int socket, int flags)
{
    int running = 0;
    const CURLMcode acted = curl_multi_socket_action(multi, socket, flags, &running);
    if (acted != CURLM_OK) {
        TREL_ERROR("Socket action failed on socket " << socket << ": " << curl_multi_strerror(acted) << " ("
                                                     << static_cast<int>(acted) << ")");
    }
    // Only immediate-read transfers have anything to hand over between network
    // events, so only they are visited: one event costs the same however many
    // other transfers are live. Each looks at what arrived, not only the one whose
    // socket fired. Entries of transfers that have left the table (finished,
    // cancelled) have expired and are dropped here. update() only queues.
    std::size_t kept = 0;
    for (std::size_t i = 0; i < immediateReadTransfers.size(); ++i) {
        const QSharedPointer<HttpClientTransfer> transfer = immediateReadTransfers[i].toStrongRef();
        if (!transfer) {
            continue;
        }
        transfer->update();
        if (kept != i) {
            immediateReadTransfers[kept] = immediateReadTransfers[i];
        }
        ++kept;
    }
    immediateReadTransfers.resize(kept);
    harvestFinishedTransfers();
}

void HttpClient::harvestFinishedTransfers()
{
    int left = 0;
    while (CURLMsg* const message = curl_multi_info_read(multi, &left)) {
        TREL_TRACE("MSG(left: " << left << "): " << static_cast<int>(message->msg)
                                << ", result: " << static_cast<int>(message->data.result));
        if (message->msg != CURLMSG_DONE) {
            continue;
        }
        // Out of the table before finish, so a completion that starts or
        // cancels requests sees a table without this transfer.
        void* const id = idsByHandle.value(message->easy_handle);
        const QSharedPointer<HttpClientTransfer> transfer = takeTransfer(id);
        if (transfer) {
            transfer->finish(message);
            recycleHandle(*transfer);
            releaseAdmission(id);
        }
    }
}

void HttpClient::recycleHandle(HttpClientTransfer& transfer)
{
    if (spareHandles.size() >= kMaxSpareHandles) {
        return; // freed with the transfer
    }
    HttpClientTransfer::EasyHandle handle = transfer.releaseHandle();
    if (handle) {
        spareHandles.push_back(std::move(handle));
    }
}
