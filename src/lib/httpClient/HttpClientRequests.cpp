// The request entry points: every get/head/post/put/delete_/patch/postStream/putStream/
// postForm/postFile/postMultipart/sendCustomRequest call becomes a transfer here, or a cached
// result, or a refusal.

#include <trel/HttpClient.h>

#include "Log.h"

#include <algorithm>

namespace {
const char* const kLogFile = "src/lib/httpClient/HttpClient";
const log4cplus::Logger logger = trel::log::libraryLogger();

// A response to a request that carried credentials belongs to that user alone:
// it is neither served from the cache nor stored in it.
bool carriesCredentials(const HttpClientOptions& options)
{
    // Names in lower case: matching without case then makes no new string.
    const HttpClientHeaders headers = options.headers();
    return headers.contains(QStringLiteral("authorization")) || headers.contains(QStringLiteral("cookie"));
}

// RFC 9110's token: the only spelling a method may have on the request line.
bool isHttpToken(const QByteArray& verb)
{
    static const QByteArray kPunctuation("!#$%&'*+-.^_`|~");
    return !verb.isEmpty() && std::all_of(verb.cbegin(), verb.cend(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')
            || kPunctuation.contains(c);
    });
}
} // namespace

// ---------------------------------------------------------------------------
// Requests

template <typename T>
void* HttpClient::send(const TrelUrl& url, HttpMethod method, const T& body, const HttpClientOptions& options,
    const Reply& reply, const char* signature, const QByteArray& verb)
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
    if (method == Get && !carriesCredentials(options) && !cookieJarInUse()) {
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
    if (!verb.isEmpty()) { // in place of the method's own; libcurl keeps it across redirects
        curl_easy_setopt(static_cast<CURL*>(transfer->handle()), CURLOPT_CUSTOMREQUEST, verb.constData());
    }
    if (method > Head && !transfer->setDataToUpload(body)) {
        return nullptr; // destroyed unstarted: no result follows
    }
    void* const id = registerTransfer(transfer, options.immediateRead());
    if (options.inactivityTimeoutMs() > 0) {
        transfer->setInactivityHandler([this, id](qint64 idleMs) { endInactive(id, idleMs); });
    }
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

QSharedPointer<HttpClientTransfer> HttpClient::createTransfer(
    TrelUrl url, HttpMethod method, const HttpClientOptions& options, const Reply& reply)
{
    TREL_ENTER("Url: " << trel::log::RedactedUrl { url } << " method: " << static_cast<int>(method));
    // The caller's own URL, before rewriting: results and the cache use it.
    // With the cookie engine on, a response that sets a cookie is private too.
    const bool offerToCache = method == Get && !carriesCredentials(options) && !cookieJarInUse();
    const bool cookiesOn = cookiesEnabled;
    auto completion = [this, callerUrl = url, offerToCache, cookiesOn, options, reply](
                          HttpClientStatus status, long code, QByteArray body, HttpClientHeaders headers) {
        const bool setsCookie = cookiesOn && headers.contains(QStringLiteral("Set-Cookie"));
        cookieJarMayHoldCookies = cookieJarMayHoldCookies || setsCookie;
        if (offerToCache && !setsCookie) {
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
    if (options.progressCallback() || options.traceCallback()) {
        transfer->setReportQueue([this](std::function<void()> report) { queueReport(std::move(report)); });
    }
    applyCookieEngine(static_cast<CURL*>(transfer->handle()));
    if (proxyChosen) {
        // Empty, each is libcurl's "whatever the environment says": no proxy at
        // all, and no host exempt from the chosen one (no_proxy is ignored).
        CURL* const handle = static_cast<CURL*>(transfer->handle());
        curl_easy_setopt(handle, CURLOPT_PROXY, proxyUrl.constData());
        curl_easy_setopt(handle, CURLOPT_NOPROXY, "");
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

void* HttpClient::putStream(const TrelUrl& url, const QSharedPointer<HttpClientQueue>& queue,
    QObject* receiver, const char* slot, const HttpClientOptions& options)
{
    return send(url, Put, queue, options, Reply::toResultSlot(receiver, slot), __PRETTY_FUNCTION__);
}

void* HttpClient::putStream(const TrelUrl& url, const QSharedPointer<HttpClientQueue>& queue,
    const HttpClientOptions& options, Callback callback)
{
    return send(url, Put, queue, options, Reply::toCallback(std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::putStream(const TrelUrl& url, const QSharedPointer<HttpClientQueue>& queue,
    const HttpClientOptions& options, QObject* context, Callback callback)
{
    return send(
        url, Put, queue, options, Reply::toCallback(context, std::move(callback)), __PRETTY_FUNCTION__);
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

void* HttpClient::postMultipart(const TrelUrl& url, const HttpClientMultipart& form, QObject* receiver,
    const char* slot, const HttpClientOptions& options)
{
    return send(url, Post, form, options, Reply::toResultSlot(receiver, slot), __PRETTY_FUNCTION__);
}

void* HttpClient::postMultipart(
    const TrelUrl& url, const HttpClientMultipart& form, const HttpClientOptions& options, Callback callback)
{
    return send(url, Post, form, options, Reply::toCallback(std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::postMultipart(const TrelUrl& url, const HttpClientMultipart& form,
    const HttpClientOptions& options, QObject* context, Callback callback)
{
    return send(
        url, Post, form, options, Reply::toCallback(context, std::move(callback)), __PRETTY_FUNCTION__);
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

// A HEAD in custom form is a HEAD: libcurl must not wait for the body that
// its response announces but never sends. Any other verb travels like a PUT
// (the body sent whole, nothing cached) under its own name.
void* HttpClient::sendCustom(const QByteArray& verb, const TrelUrl& url, const QByteArray& body,
    const HttpClientOptions& options, const Reply& reply, const char* signature)
{
    if (!isHttpToken(verb)) {
        TREL_ERROR(
            "Refused, the method is not an HTTP token: \"" << verb.toPercentEncoding().constData() << '"');
        return nullptr;
    }
    if (verb == "HEAD") {
        return send(url, Head, QByteArray(), options, reply, signature);
    }
    return send(url, Put, body, options, reply, signature, verb);
}

void* HttpClient::sendCustomRequest(const QByteArray& verb, const TrelUrl& url, const QByteArray& body,
    QObject* receiver, const char* slot, const HttpClientOptions& options)
{
    return sendCustom(verb, url, body, options, Reply::toResultSlot(receiver, slot), __PRETTY_FUNCTION__);
}

void* HttpClient::sendCustomRequest(const QByteArray& verb, const TrelUrl& url, const QByteArray& body,
    const HttpClientOptions& options, Callback callback)
{
    return sendCustom(verb, url, body, options, Reply::toCallback(std::move(callback)), __PRETTY_FUNCTION__);
}

void* HttpClient::sendCustomRequest(const QByteArray& verb, const TrelUrl& url, const QByteArray& body,
    const HttpClientOptions& options, QObject* context, Callback callback)
{
    return sendCustom(
        verb, url, body, options, Reply::toCallback(context, std::move(callback)), __PRETTY_FUNCTION__);
}
