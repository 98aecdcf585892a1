#include <trel/HttpClient.h>

#include "Log.h"

#include <QMetaObject>
#include <QThread>

#include <sys/resource.h>

#include <algorithm>
#include <string>

namespace {
const char* const kLogFile = "src/lib/httpClient/HttpClient";
const log4cplus::Logger logger = trel::log::libraryLogger();

// Idle writable sockets wake the loop at most once per this interval.
constexpr int kWriteNotifierBlockMs = 50;

// The default limit on open connections: half the soft descriptor limit,
// leaving the other half to the application, within bounds. A burst of 20,000
// requests otherwise opened up to 11,921 descriptors to one server, and under
// the usual soft limit of 1,024, 3,000 requests at once ended in 1,983
// connect errors. 1,024 still lets 500 requests run on connections of their own.
constexpr long kMinDefaultConnections = 256;
constexpr long kMaxDefaultConnections = 1024;

long defaultMaxConnections()
{
    rlimit limit {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) {
        return kMaxDefaultConnections;
    }
    return static_cast<long>(
        std::clamp<rlim_t>(limit.rlim_cur / 2, kMinDefaultConnections, kMaxDefaultConnections));
}

// Most spare easy handles kept for reuse: enough for hundreds of requests in
// flight, while a burst of thousands does not keep its handles afterwards.
constexpr std::size_t kMaxSpareHandles = 256;

// The argument list every result slot has, as Qt's meta-object system spells
// it after normalising: what the delivery's queued invocation looks up.
const char* const kResultSlotArguments = "(TrelUrl,HttpClientPrivate,int,int,QByteArray,HttpClientHeaders)";

// The bare name of the six-argument result slot that `slot` names on a class,
// or empty when the class has none. `slot` may be the bare name, the full
// signature, or the SLOT() spelling (its leading method-kind digit). Checked
// when the request is made: a result for a slot that does not exist would
// otherwise be lost at delivery with only Qt's warning.
QByteArray resultSlotName(const QMetaObject& receiverClass, const char* slot)
{
    QByteArray spelled = QByteArray(slot).trimmed();
    if (!spelled.isEmpty() && spelled.front() >= '0' && spelled.front() <= '9') {
        spelled.remove(0, 1); // no C++ name starts with a digit
    }
    const int argumentsStart = spelled.indexOf('(');
    const QByteArray name = (argumentsStart < 0 ? spelled : spelled.left(argumentsStart)).trimmed();
    if (name.isEmpty()) {
        return {};
    }
    const QByteArray signature = name + kResultSlotArguments;
    if (argumentsStart >= 0 && QMetaObject::normalizedSignature(spelled.constData()) != signature) {
        return {};
    }
    return receiverClass.indexOfMethod(signature.constData()) >= 0 ? name : QByteArray();
}

// RFC 9110's token characters: what a field name may be made of.
bool isTokenCharacter(QChar c)
{
    static const QString punctuation = QStringLiteral("!#$%&'*+-.^_`|~");
    const ushort code = c.unicode();
    return (code >= 'a' && code <= 'z') || (code >= 'A' && code <= 'Z') || (code >= '0' && code <= '9')
        || punctuation.contains(c);
}

bool isFieldName(const QString& name)
{
    return !name.isEmpty() && std::all_of(name.cbegin(), name.cend(), isTokenCharacter);
}

// CR and LF would end the field and start another (or a whole second request);
// a NUL would cut the value where libcurl reads it as a C string.
bool isFieldValue(const QString& value)
{
    return std::none_of(value.cbegin(), value.cend(),
        [](QChar c) { return c == QLatin1Char('\r') || c == QLatin1Char('\n') || c == QChar(0); });
}

// The name as a log line may show it: control characters as \xHH, so a name
// carrying CR or LF cannot forge log lines either.
std::string printableName(const QString& name)
{
    std::string shown;
    for (const char byte : name.toUtf8()) {
        const auto code = static_cast<unsigned char>(byte);
        if (code < 0x20 || code == 0x7f) {
            static const char digits[] = "0123456789abcdef";
            shown += "\\x";
            shown += digits[code >> 4];
            shown += digits[code & 0xf];
        } else {
            shown += byte;
        }
    }
    return shown;
}

// A response to a request that carried credentials belongs to that user alone:
// it is neither served from the cache nor stored in it.
bool carriesCredentials(const HttpClientOptions& options)
{
    // Names in lower case: matching without case then makes no new string.
    const HttpClientHeaders headers = options.headers();
    return headers.contains(QStringLiteral("authorization")) || headers.contains(QStringLiteral("cookie"));
}
} // namespace

HttpClient::Reply HttpClient::Reply::toSlot(QObject* receiver, const char* slot)
{
    Reply reply;
    reply.receiver = receiver;
    reply.slot = QByteArray(slot);
    reply.toReceiver = receiver != nullptr;
    return reply;
}

HttpClient::Reply HttpClient::Reply::toResultSlot(QObject* receiver, const char* slot)
{
    Reply reply = toSlot(receiver, slot);
    if (receiver) {
        const QByteArray bareName = resultSlotName(*receiver->metaObject(), slot);
        reply.slotMissing = bareName.isEmpty();
        if (!reply.slotMissing) {
            reply.slot = bareName;
        }
    }
    return reply;
}

HttpClient::Reply HttpClient::Reply::toCallback(Callback callback)
{
    Reply reply;
    reply.callback = std::move(callback);
    return reply;
}

HttpClient::Reply HttpClient::Reply::toCallback(QObject* context, Callback callback)
{
    Reply reply = toCallback(std::move(callback));
    reply.context = context;
    reply.hasContext = context != nullptr;
    return reply;
}

// ---------------------------------------------------------------------------
// Lifecycle

HttpClient::HttpClient(QObject* parent, HttpVersion version, bool encodePlusSign)
    : QObject(parent)
    , timer(this) // children, so they move with the client to another thread
    , httpVersion(version)
    , encodePlusSign(encodePlusSign)
    , writeNotifiersBlocked(this)
    , waitingExpiry(this)
    , connectionLimit(defaultMaxConnections())
{
    // The one hand-written label: GCC spells a nested type of the function's own
    // class without the class ("HttpVersion"), and log readers match this line
    // with the type named in full.
    TREL_ENTER_AS("HttpClient::HttpClient(QObject*, HttpClient::HttpVersion, bool)",
        "HttpVersion: " << static_cast<int>(version) << " encodePlusSign: " << encodePlusSign);
    multi = curl_multi_init();
    curl_multi_setopt(multi, CURLMOPT_SOCKETFUNCTION, &HttpClient::handleSocket);
    curl_multi_setopt(multi, CURLMOPT_MAX_TOTAL_CONNECTIONS, connectionLimit);
    curl_multi_setopt(multi, CURLMOPT_SOCKETDATA, this);

    // Queued: libcurl's timeouts are served from the event loop, never inside
    // the timer's emission or a libcurl callback.
    timer.setSingleShot(true);
    connectVerified(&timer, SIGNAL(timeout()), SLOT(on_timer_timeout()), Qt::QueuedConnection);
    curl_multi_setopt(multi, CURLMOPT_TIMERFUNCTION, &HttpClient::startTimeout);
    curl_multi_setopt(multi, CURLMOPT_TIMERDATA, this);

    qRegisterMetaType<HttpClientPrivate>("HttpClientPrivate");
    qRegisterMetaType<HttpClientHeaders>("HttpClientHeaders");
    qRegisterMetaType<HttpClientResult>("HttpClient::Result");
    qRegisterMetaType<Callback>("HttpClient::Callback");

    if (httpVersion == Http2) {
        curl_multi_setopt(multi, CURLMOPT_PUSHFUNCTION, &HttpClient::serverPushCallback);
        curl_multi_setopt(multi, CURLMOPT_PUSHDATA, this);
        curl_multi_setopt(multi, CURLMOPT_PIPELINING, CURLPIPE_MULTIPLEX);
    }

    waitingExpiry.setSingleShot(true);
    connect(&waitingExpiry, &QTimer::timeout, this, &HttpClient::expireWaiting);

    writeNotifiersBlocked.setSingleShot(true);
    writeNotifiersBlocked.setInterval(kWriteNotifierBlockMs);
    connectVerified(&writeNotifiersBlocked, SIGNAL(timeout()), SLOT(on_writeNotifiersBlocked_timeout()),
        Qt::QueuedConnection);
}

HttpClient::~HttpClient()
{
    TREL_ENTER("");
    // Every live transfer still reports its one result (Error, -1).
    const QList<void*> ids = transfers.keys();
    for (void* id : ids) {
        const QSharedPointer<HttpClientTransfer> transfer = takeTransfer(id);
        if (transfer) { // an earlier end may have taken it already
            endRequest(id, *transfer);
        }
    }
    // libcurl may still ask to remove sockets from here; the tables are alive.
    curl_multi_cleanup(multi);
    multi = nullptr;
}

void HttpClient::connectVerified(
    const QObject* sender, const char* signal, const char* method, Qt::ConnectionType type)
{
    const bool connection = static_cast<bool>(connect(sender, signal, this, method, type));
    TREL_ASSERT(connection);
}

QString HttpClient::toString(HttpClientStatus status)
{
    switch (status) {
    case HttpClientStatus::OK:
        return QStringLiteral("OK");
    case HttpClientStatus::ResolveError:
        return QStringLiteral("ResolveError");
    case HttpClientStatus::ConnectError:
        return QStringLiteral("ConnectError");
    case HttpClientStatus::Timeout:
        return QStringLiteral("Timeout");
    case HttpClientStatus::Error:
        return QStringLiteral("Error");
    case HttpClientStatus::ImmediateRead:
        return QStringLiteral("ImmediateRead");
    }
    return QStringLiteral("Invalid status %1").arg(static_cast<int>(status));
}

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

// Only ever adds: a direction libcurl stops asking for keeps its notifier until
// the socket is removed (idle write notifiers are throttled instead).
void HttpClient::listenSocket(curl_socket_t socket, bool in, bool out)
{
    TREL_ENTER("Listen socket " << socket << " in " << in << " out " << out);
    if (in) {
        if (readNotifiers.contains(socket)) {
            TREL_TRACE("in, already present");
        } else {
            TREL_TRACE("in, creating new");
            const auto notifier = makeNotifier(socket, QSocketNotifier::Read);
            readNotifiers.insert(socket, notifier);
            connectVerified(notifier.data(), SIGNAL(activated(int)), SLOT(on_readNotifier_activated(int)),
                Qt::AutoConnection);
        }
    }
    if (out) {
        if (writeNotifiers.contains(socket)) {
            TREL_TRACE("out, already present");
            // libcurl has data to write again: a throttled notifier must not
            // hold it back for the rest of the block time.
            if (blockedWriteSockets.remove(socket)) {
                writeNotifiers.value(socket)->setEnabled(true);
            }
            return;
        }
        TREL_TRACE("out, creating new");
        const auto notifier = makeNotifier(socket, QSocketNotifier::Write);
        writeNotifiers.insert(socket, notifier);
        connectVerified(notifier.data(), SIGNAL(activated(int)), SLOT(on_writeNotifier_activated(int)),
            Qt::AutoConnection);
    }
}

void HttpClient::removeSocket(curl_socket_t socket)
{
    TREL_ENTER("Remove socket " << socket);
    readNotifiers.remove(socket);
    writeNotifiers.remove(socket);
    // blockedWriteSockets keeps the descriptor until the next release drops it.
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
    // to write to would fire on every turn, so it is silenced for a while.
    if (writeNotifiers.contains(socket) && !writeWantedSockets.contains(socket)) {
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
    curl_multi_socket_action(multi, socket, flags, &running);
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

// ---------------------------------------------------------------------------
// Requests

template <typename T>
void* HttpClient::send(const TrelUrl& url, HttpMethod method, const T& body, const HttpClientOptions& options,
    const Reply& reply, const char* signature)
{
    TREL_ENTER_AS(signature,
        "Url: " << trel::log::RedactedUrl { url } << ", method: " << static_cast<int>(method)
                << ", timeout: " << options.timeoutMs() << "ms");
    if (!onOwnThread(signature)) {
        return nullptr;
    }
    if (reply.slotMissing) {
        refuseMissingSlot(reply);
        return nullptr;
    }
    if (!requestHeadersAllowed(options)) {
        return nullptr;
    }
    if (method == Get && !carriesCredentials(options)) {
        if (const HttpClientCacheEntry* const entry = cache.retrieve(url)) {
            // Copied at once: the entry may go with the next cache change.
            const HttpClientResult result { url, entry->status, entry->code, entry->body, entry->headers };
            notifyCaller(reply, result, options.userData());
            return nullptr;
        }
    }
    const QSharedPointer<HttpClientTransfer> transfer = createTransfer(url, method, options, reply);
    if (!transfer) {
        return nullptr;
    }
    if (method > Head && !transfer->setDataToUpload(body)) {
        return nullptr; // destroyed unstarted: no result follows
    }
    void* const id = registerTransfer(transfer, options.immediateRead());
    admitOrWait(id, *transfer, options.timeoutMs());
    return id;
}

// Ids come from a counter, never from a handle's address: a handle freed with
// its transfer may come back for a later request, an id never does.
void* HttpClient::registerTransfer(const QSharedPointer<HttpClientTransfer>& transfer, bool immediateRead)
{
    void* const id = reinterpret_cast<void*>(++lastRequestId);
    transfers.insert(id, transfer);
    idsByHandle.insert(transfer->handle(), id);
    if (immediateRead) {
        immediateReadTransfers.push_back(transfer);
    }
    return id;
}

QSharedPointer<HttpClientTransfer> HttpClient::takeTransfer(void* id)
{
    const QSharedPointer<HttpClientTransfer> transfer = transfers.take(id);
    if (transfer) {
        idsByHandle.remove(transfer->handle());
    }
    return transfer;
}

// A request header that could split into further fields or requests on the
// wire refuses the whole request: nothing is sent. The value is never logged.
bool HttpClient::requestHeadersAllowed(const HttpClientOptions& options) const
{
    const HttpClientHeaders headers = options.headers();
    const QHash<QString, QString> fields = headers.headers();
    for (auto it = fields.cbegin(); it != fields.cend(); ++it) {
        const QStringList values = headers.values(it.key());
        if (!isFieldName(it.key()) || !std::all_of(values.cbegin(), values.cend(), isFieldValue)) {
            TREL_ERROR("Refused, request header not allowed: " << printableName(it.key()));
            return false;
        }
    }
    return true;
}

void HttpClient::refuseMissingSlot(const Reply& reply) const
{
    const char* const receiverClass = reply.receiver ? reply.receiver->metaObject()->className() : "";
    TREL_ERROR("Refused, " << receiverClass << " has no slot \"" << reply.slot.constData()
                           << "\" taking the result's arguments " << kResultSlotArguments);
}

bool HttpClient::onOwnThread(const char* operation) const
{
    if (QThread::currentThread() == thread()) {
        return true;
    }
    TREL_ERROR("Refused, called off the client's thread: " << operation);
    return false;
}

QSharedPointer<HttpClientTransfer> HttpClient::createTransfer(
    TrelUrl url, HttpMethod method, const HttpClientOptions& options, const Reply& reply)
{
    TREL_ENTER("Url: " << trel::log::RedactedUrl { url } << " method: " << static_cast<int>(method));
    // The caller's own URL, before rewriting: results and the cache use it.
    const bool offerToCache = method == Get && !carriesCredentials(options);
    auto completion = [this, callerUrl = url, offerToCache, options, reply](
                          HttpClientStatus status, long code, QByteArray body, HttpClientHeaders headers) {
        if (offerToCache) {
            cache.tryCache(callerUrl, status, static_cast<int>(code), headers, body);
        }
        const HttpClientResult result { callerUrl, status, static_cast<int>(code), body, headers };
        notifyCaller(reply, result, options.userData());
    };
    if (encodePlusSign) {
        url.setEncodedQuery(url.encodedQuery().replace("+", "%2B"));
    }
    HttpClientTransfer::EasyHandle spare;
    if (!spareHandles.empty()) {
        spare = std::move(spareHandles.back());
        spareHandles.pop_back();
    }
    const auto transfer = QSharedPointer<HttpClientTransfer>::create(static_cast<int>(httpVersion), url,
        static_cast<int>(method), options, std::move(completion), std::move(spare));
    if (!transfer->handle()) {
        TREL_ERROR("Failed to create curl easy handle!");
        return {};
    }
    return transfer;
}

void* HttpClient::get(
    const TrelUrl& url, QObject* receiver, const char* slot, const HttpClientOptions& options)
{
    return send(url, Get, QByteArray(), options, Reply::toResultSlot(receiver, slot), __PRETTY_FUNCTION__);
}

void* HttpClient::get(const TrelUrl& url, const HttpClientOptions& options, Callback callback)
{
    return send(url, Get, QByteArray(), options, Reply::toCallback(std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::get(
    const TrelUrl& url, const HttpClientOptions& options, QObject* context, Callback callback)
{
    return send(url, Get, QByteArray(), options, Reply::toCallback(context, std::move(callback)),
        __PRETTY_FUNCTION__);
}

void* HttpClient::head(
    const TrelUrl& url, QObject* receiver, const char* slot, const HttpClientOptions& options)
{
    return send(url, Head, QByteArray(), options, Reply::toResultSlot(receiver, slot), __PRETTY_FUNCTION__);
}

void* HttpClient::head(const TrelUrl& url, const HttpClientOptions& options, Callback callback)
{
    return send(
        url, Head, QByteArray(), options, Reply::toCallback(std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::head(
    const TrelUrl& url, const HttpClientOptions& options, QObject* context, Callback callback)
{
    return send(url, Head, QByteArray(), options, Reply::toCallback(context, std::move(callback)),
        __PRETTY_FUNCTION__);
}

void* HttpClient::post(const TrelUrl& url, const QByteArray& data, QObject* receiver, const char* slot,
    const HttpClientOptions& options)
{
    return send(url, Post, data, options, Reply::toResultSlot(receiver, slot), __PRETTY_FUNCTION__);
}

void* HttpClient::post(
    const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options, Callback callback)
{
    return send(url, Post, data, options, Reply::toCallback(std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::post(const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options,
    QObject* context, Callback callback)
{
    return send(
        url, Post, data, options, Reply::toCallback(context, std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::put(const TrelUrl& url, const QByteArray& data, QObject* receiver, const char* slot,
    const HttpClientOptions& options)
{
    return send(url, Put, data, options, Reply::toResultSlot(receiver, slot), __PRETTY_FUNCTION__);
}

void* HttpClient::put(
    const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options, Callback callback)
{
    return send(url, Put, data, options, Reply::toCallback(std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::put(const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options,
    QObject* context, Callback callback)
{
    return send(
        url, Put, data, options, Reply::toCallback(context, std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::delete_(const TrelUrl& url, const QByteArray& data, QObject* receiver, const char* slot,
    const HttpClientOptions& options)
{
    return send(url, Delete, data, options, Reply::toResultSlot(receiver, slot), __PRETTY_FUNCTION__);
}

void* HttpClient::delete_(
    const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options, Callback callback)
{
    return send(url, Delete, data, options, Reply::toCallback(std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::delete_(const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options,
    QObject* context, Callback callback)
{
    return send(
        url, Delete, data, options, Reply::toCallback(context, std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::patch(const TrelUrl& url, const QByteArray& data, QObject* receiver, const char* slot,
    const HttpClientOptions& options)
{
    return send(url, Patch, data, options, Reply::toResultSlot(receiver, slot), __PRETTY_FUNCTION__);
}

void* HttpClient::patch(
    const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options, Callback callback)
{
    return send(url, Patch, data, options, Reply::toCallback(std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::patch(const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options,
    QObject* context, Callback callback)
{
    return send(
        url, Patch, data, options, Reply::toCallback(context, std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::postStream(const TrelUrl& url, QSharedPointer<HttpClientQueue> queue, QObject* receiver,
    const char* slot, const HttpClientOptions& options)
{
    return send(url, Post, queue, options, Reply::toResultSlot(receiver, slot), __PRETTY_FUNCTION__);
}

void* HttpClient::postStream(const TrelUrl& url, QSharedPointer<HttpClientQueue> queue,
    const HttpClientOptions& options, Callback callback)
{
    return send(url, Post, queue, options, Reply::toCallback(std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::postStream(const TrelUrl& url, QSharedPointer<HttpClientQueue> queue,
    const HttpClientOptions& options, QObject* context, Callback callback)
{
    return send(
        url, Post, queue, options, Reply::toCallback(context, std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::postForm(const TrelUrl& url, const QList<QPair<QString, QString>>& fields,
    QObject* receiver, const char* slot, const HttpClientOptions& options)
{
    return send(url, Post, fields, options, Reply::toResultSlot(receiver, slot), __PRETTY_FUNCTION__);
}

void* HttpClient::postForm(const TrelUrl& url, const QList<QPair<QString, QString>>& fields,
    const HttpClientOptions& options, Callback callback)
{
    return send(url, Post, fields, options, Reply::toCallback(std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::postForm(const TrelUrl& url, const QList<QPair<QString, QString>>& fields,
    const HttpClientOptions& options, QObject* context, Callback callback)
{
    return send(
        url, Post, fields, options, Reply::toCallback(context, std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::postFile(const TrelUrl& url, const QByteArray& data, QObject* receiver, const char* slot,
    const HttpClientOptions& options)
{
    return send(url, Post, QSharedPointer<HttpClientTransfer::File>::create(data), options,
        Reply::toResultSlot(receiver, slot), __PRETTY_FUNCTION__);
}

void* HttpClient::postFile(
    const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options, Callback callback)
{
    return send(url, Post, QSharedPointer<HttpClientTransfer::File>::create(data), options,
        Reply::toCallback(std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::postFile(const TrelUrl& url, const QByteArray& data, const HttpClientOptions& options,
    QObject* context, Callback callback)
{
    return send(url, Post, QSharedPointer<HttpClientTransfer::File>::create(data), options,
        Reply::toCallback(context, std::move(callback)), __PRETTY_FUNCTION__);
}

// ---------------------------------------------------------------------------
// Cancellation and the cache

bool HttpClient::cancel(void* id)
{
    TREL_ENTER("Id: " << id);
    if (!onOwnThread(__PRETTY_FUNCTION__)) {
        return false;
    }
    const QSharedPointer<HttpClientTransfer> transfer = takeTransfer(id);
    if (!transfer) {
        TREL_DEBUG("No such transfer: " << id);
        return false;
    }
    endRequest(id, *transfer);
    recycleHandle(*transfer);
    return true;
}

void HttpClient::setMaxConnections(int connections)
{
    TREL_ENTER("Connections: " << connections);
    if (!onOwnThread(__PRETTY_FUNCTION__)) {
        return;
    }
    connectionLimit = std::max(connections, 0);
    curl_multi_setopt(multi, CURLMOPT_MAX_TOTAL_CONNECTIONS, connectionLimit);
    admitWaiting(); // a higher limit lets waiting requests go at once
}

void HttpClient::setMaxConnectionsPerHost(int connections)
{
    TREL_ENTER("Connections: " << connections);
    if (!onOwnThread(__PRETTY_FUNCTION__)) {
        return;
    }
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, static_cast<long>(std::max(connections, 0)));
}

void HttpClient::setCacheSize(size_t size)
{
    TREL_ENTER("Cache size: " << size);
    if (!onOwnThread(__PRETTY_FUNCTION__)) {
        return;
    }
    cache.setCacheSize(static_cast<int>(size));
}

void HttpClient::clearCache()
{
    TREL_ENTER("");
    if (!onOwnThread(__PRETTY_FUNCTION__)) {
        return;
    }
    cache.clear();
}

// ---------------------------------------------------------------------------
// Result delivery

// Always queued: a result never arrives inside a request call, a libcurl
// callback or the cache.
void HttpClient::notifyCaller(
    const Reply& reply, const HttpClientResult& result, const HttpClientPrivate& context)
{
    if (reply.toReceiver && !reply.slot.isEmpty()) {
        if (reply.receiver.isNull()) {
            TREL_DEBUG("Receiver of " << reply.slot.constData() << " is gone, result dropped: "
                                      << trel::log::RedactedUrl { result.url });
            return;
        }
        const int status = result.status;
        QMetaObject::invokeMethod(reply.receiver, reply.slot.constData(), Qt::QueuedConnection,
            QArgument<TrelUrl>("TrelUrl", result.url),
            QArgument<HttpClientPrivate>("HttpClientPrivate", context), Q_ARG(int, status),
            Q_ARG(int, result.code), Q_ARG(QByteArray, result.body),
            QArgument<HttpClientHeaders>("HttpClientHeaders", result.headers));
        return;
    }
    if (reply.callback) {
        queueCallback(result, reply);
    }
    // No destination: the result is dropped.
}

// Callback results wait in one queue and one queued call delivers them all, in
// the order they were reported. Looking the delivery slot up by name and
// posting an event for every result cost a wake-up of the event loop each.
void HttpClient::queueCallback(const HttpClientResult& result, const Reply& reply)
{
    queuedCallbacks.push_back(QueuedCallback { result, reply.callback, reply.context, reply.hasContext });
    postCallbackDelivery();
}

void HttpClient::postCallbackDelivery()
{
    if (!callbackDeliveryPosted) {
        callbackDeliveryPosted = true;
        QMetaObject::invokeMethod(this, &HttpClient::deliverQueuedCallbacks, Qt::QueuedConnection);
    }
}

// Runs from the event loop on the client's thread. A callback may issue or
// cancel requests, destroy the client (the rest is then never delivered, as
// with any event addressed to a destroyed object) or run a nested event loop:
// while results wait behind it a delivery stays posted, so the nested loop
// delivers them, in order.
void HttpClient::deliverQueuedCallbacks()
{
    callbackDeliveryPosted = false;
    const QPointer<HttpClient> alive(this);
    while (!queuedCallbacks.empty()) {
        QueuedCallback next = std::move(queuedCallbacks.front());
        queuedCallbacks.pop_front();
        if (!queuedCallbacks.empty()) {
            postCallbackDelivery();
        }
        if (next.hasContext && next.context.isNull()) {
            TREL_DEBUG("Context of a callback is gone, result dropped: " << trel::log::RedactedUrl {
                           next.result.url });
            continue;
        }
        on_notifyCaller_sync(next.result, std::move(next.callback));
        if (!alive) {
            return;
        }
    }
}

void HttpClient::on_notifyCaller_sync(const HttpClient::Result& result, HttpClient::Callback callback)
{
    callback(result);
}

// ---------------------------------------------------------------------------
// Server push

void HttpClient::setPushProperties(QObject* receiver, const char* slot, const HttpClientOptions& options)
{
    TREL_ENTER("Slot: " << (slot ? slot : ""));
    if (!onOwnThread(__PRETTY_FUNCTION__)) {
        return;
    }
    pushOptions = options;
    pushReceiver = receiver;
    pushSlot = QByteArray(slot);
}

// Runs inside curl_multi_socket_action. Every push is accepted; libcurl adds
// the pushed handle to the multi handle itself.
int HttpClient::serverPushCallback(
    CURL* /*parent*/, CURL* easy, size_t /*num_headers*/, curl_pushheaders* /*headers*/, void* userp)
{
    auto* const client = static_cast<HttpClient*>(userp);
    TREL_TRACE("Server push callback");
    // Captured now: a later setPushProperties does not redirect this push.
    const Reply reply = Reply::toSlot(client->pushReceiver, client->pushSlot.constData());
    auto completion
        = [client, reply](HttpClientStatus status, long code, QByteArray body, HttpClientHeaders headers) {
              const HttpClientResult result { TrelUrl(), status, static_cast<int>(code), body, headers };
              client->notifyCaller(reply, result, client->pushOptions.userData());
          };
    const auto transfer = QSharedPointer<HttpClientTransfer>::create(static_cast<int>(client->httpVersion),
        static_cast<void*>(easy), static_cast<void*>(client->multi), client->pushOptions,
        std::move(completion));
    client->registerTransfer(transfer, client->pushOptions.immediateRead());
    return CURL_PUSH_OK;
}
