// The client's life and settings: creating the multi handle and its timers,
// ending every live request on destruction, the connection and cache settings.

#include <trel/HttpClient.h>

#include "Log.h"

#include <QThread>

#include <sys/resource.h>

#include <algorithm>

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
} // namespace

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

bool HttpClient::onOwnThread(const char* operation) const
{
    if (QThread::currentThread() == thread()) {
        return true;
    }
    TREL_ERROR("Refused, called off the client's thread: " << operation);
    return false;
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

void HttpClient::setProxy(const QString& url)
{
    TREL_ENTER("Proxy: " << trel::log::RedactedUrl { TrelUrl(url) });
    if (!onOwnThread(__PRETTY_FUNCTION__)) {
        return;
    }
    proxyChosen = true;
    proxyUrl = url.toUtf8();
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
