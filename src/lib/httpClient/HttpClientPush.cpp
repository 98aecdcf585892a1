// HTTP/2 server push: where pushed responses go, and the callback that adopts
// each pushed stream as a transfer of its own.

#include <trel/HttpClient.h>

#include "Log.h"

namespace {
const char* const kLogFile = "src/lib/httpClient/HttpClient";
const log4cplus::Logger logger = trel::log::libraryLogger();
} // namespace

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
