// Result delivery: every result reaches its slot or callback from the event
// loop, never inside the call that caused it; callback results go in batches.

#include <trel/HttpClient.h>

#include "Log.h"

#include <QMetaObject>
#include <QPointer>

namespace {
const char* const kLogFile = "src/lib/httpClient/HttpClient";
const log4cplus::Logger logger = trel::log::libraryLogger();
} // namespace

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

// A request's trace pieces and last progress report join the same queue before
// its result is reported, so the caller hears them first: ahead of a callback
// result in the queue, and delivered before a slot result's later posted call.
void HttpClient::queueReport(std::function<void()> report)
{
    queuedCallbacks.push_back(QueuedCallback {
        HttpClientResult(), [report = std::move(report)](const HttpClientResult&) { report(); }, {}, false });
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
