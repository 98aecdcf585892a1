// One request's life in libcurl: its easy handle made or reused, started, then
// finished or cancelled, with the failure's status, code and words.

#include <trel/HttpClient.h>
#include <trel/HttpClientTransfer.h>

#include "Log.h"

namespace {
const char* const kLogFile = "src/lib/httpClient/HttpClientTransfer";
const log4cplus::Logger logger = trel::log::libraryLogger();

// The one place where a libcurl result becomes a status.
HttpClientStatus statusFromCurlCode(CURLcode code)
{
    switch (code) {
    case CURLE_OK:
        return HttpClientStatus::OK;
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
        return HttpClientStatus::ResolveError;
    case CURLE_COULDNT_CONNECT:
        return HttpClientStatus::ConnectError;
    case CURLE_OPERATION_TIMEDOUT:
        return HttpClientStatus::Timeout;
    default:
        return HttpClientStatus::Error;
    }
}

// Every failed result carries its words and libcurl's code side by side.
void noteFailure(HttpClientHeaders& headers, const QString& reason, int code)
{
    headers.insert(QString::fromLatin1(HttpClientHeaders::ErrorField), reason);
    headers.insert(QString::fromLatin1(HttpClientHeaders::ErrorCodeField), QString::number(code));
}
} // namespace

// ---------------------------------------------------------------------------
// Construction

HttpClientTransfer::HttpClientTransfer(
    int httpVersion, const TrelUrl& url, int method, const HttpClientOptions& options, Completion callback)
    : HttpClientTransfer(httpVersion, url, method, options, std::move(callback), EasyHandle())
{ }

HttpClientTransfer::HttpClientTransfer(int httpVersion, const TrelUrl& url, int method,
    const HttpClientOptions& options, Completion callback, EasyHandle reused)
    : QObject(nullptr)
    , easy(std::move(reused))
    , url(url)
    , method(method)
    , options(options)
    , callback(std::move(callback))
{
    receiveBuffer.sizeLimit = options.readSizeLimit();
    receiveBuffer.reserveAnnounced = !options.immediateRead() && method != HttpClient::Head;
    receiveBuffer.limitPerDelivery = options.immediateRead();
    if (!easy) {
        easy.reset(curl_easy_init());
    }
    if (easy) {
        configure(httpVersion);
    }
}

HttpClientTransfer::HttpClientTransfer(
    int /*httpVersion*/, void* pushedEasy, void* multi, const HttpClientOptions& options, Completion callback)
    : QObject(nullptr)
    , easy(static_cast<CURL*>(pushedEasy))
    , method(HttpClient::Get) // a pushed stream never takes a body
    , options(options)
    , callback(std::move(callback))
    , activeMulti(static_cast<CURLM*>(multi)) // libcurl already added the pushed handle
{
    receiveBuffer.sizeLimit = options.readSizeLimit();
    receiveBuffer.reserveAnnounced = !options.immediateRead();
    receiveBuffer.limitPerDelivery = options.immediateRead();
    forgetParentCallbacks();
    installReceiveCallbacks();
}

// libcurl makes a pushed handle as a copy of its parent's, options included:
// left alone, the parent's debug and progress functions would be called with
// the parent's transfer (which may be gone by then, and whose caller asked for
// reports of its own request only), and failures written into its buffer.
void HttpClientTransfer::forgetParentCallbacks()
{
    CURL* const handle = easy.get();
    curl_easy_setopt(handle, CURLOPT_VERBOSE, 0L);
    curl_easy_setopt(handle, CURLOPT_DEBUGFUNCTION, static_cast<curl_debug_callback>(nullptr));
    curl_easy_setopt(handle, CURLOPT_DEBUGDATA, static_cast<void*>(nullptr));
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 1L);
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, static_cast<curl_xferinfo_callback>(nullptr));
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, static_cast<void*>(nullptr));
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorText.data());
}

HttpClientTransfer::~HttpClientTransfer()
{
    if (activeMulti) {
        cancel(); // an active transfer still reports to its caller
    }
    // Before the QObject base goes: no producer may post to this object later.
    endUploadStream();
    // The easy handle goes before the header list and the bodies it points at.
    easy.reset();
    headerList.reset();
}

void* HttpClientTransfer::handle()
{
    return easy.get();
}

HttpClientTransfer::EasyHandle HttpClientTransfer::releaseHandle()
{
    if (activeMulti || !easy) {
        return EasyHandle();
    }
    curl_easy_reset(easy.get());
    return std::move(easy);
}

// ---------------------------------------------------------------------------
// Completion

void HttpClientTransfer::setReportQueue(std::function<void(std::function<void()>)> queue)
{
    reportQueue = std::move(queue);
}

void HttpClientTransfer::start(CURLM* multi)
{
    if (activeMulti) {
        TREL_FATAL("Transfer is already active");
        return;
    }
    if (!unreadableFile.isEmpty()) {
        reportUnreadableFile();
        return;
    }
    const CURLMcode added = curl_multi_add_handle(multi, easy.get());
    if (added != CURLM_OK) {
        reportAddFailure(added);
        return;
    }
    activeMulti = multi;
    startInactivityWatch();
}

// libcurl never saw the request, so it never ends there: it ends here, as an
// Error with libcurl's words. The code is the transfer-level one closest to the
// multi handle's refusal, so callers branch on one kind of code.
void HttpClientTransfer::reportAddFailure(CURLMcode added)
{
    const char* const reason = curl_multi_strerror(added);
    TREL_ERROR("Failed to add the transfer to libcurl: " << reason << " (" << static_cast<int>(added) << ")");
    const CURLcode code = added == CURLM_OUT_OF_MEMORY ? CURLE_OUT_OF_MEMORY : CURLE_FAILED_INIT;
    HttpClientHeaders headers;
    noteFailure(headers, QStringLiteral("could not start the transfer: %1").arg(QString::fromUtf8(reason)),
        static_cast<int>(code));
    reportCompletion(HttpClientStatus::Error, 0, QByteArray(), headers);
}

// libcurl would send an unreadable file as an empty part and call it success:
// the request ends here instead, as the read failure it is.
void HttpClientTransfer::reportUnreadableFile()
{
    HttpClientHeaders headers;
    noteFailure(headers, unreadableFile, static_cast<int>(CURLE_READ_ERROR));
    reportCompletion(HttpClientStatus::Error, 0, QByteArray(), headers);
}

bool HttpClientTransfer::isActive() const
{
    return activeMulti != nullptr;
}

QString HttpClientTransfer::getEffectiveUrl(void* handle)
{
    const char* text = nullptr;
    curl_easy_getinfo(static_cast<CURL*>(handle), CURLINFO_EFFECTIVE_URL, &text);
    return text ? QString::fromUtf8(text) : QString();
}

void HttpClientTransfer::finish(CURLMsg* message)
{
    if (!activeMulti) {
        TREL_ERROR("Transfer already finished");
        return;
    }
    const long code = responseCode();
    const CURLcode result = message->data.result;
    TREL_TRACE("Transfer [" << easy.get() << "] " << trel::log::RedactedUrl { url }
                            << ", done: " << static_cast<int>(result) << ", code: " << code);
    TREL_TRACE("Output   [" << easy.get() << "] " << receiveBuffer.body.size() << " bytes");
    const HttpClientStatus status = statusFromCurlCode(result);
    HttpClientHeaders headers = receivedHeaders(status == HttpClientStatus::OK);
    if (status != HttpClientStatus::OK) {
        noteFailure(headers, failureReason(result), failureCode(result));
    }
    reportFinalProgress();
    leaveMulti();
    reportCompletion(status, code, receiveBuffer.body, headers);
}

// Out of libcurl for good: no more callbacks, no inactivity watch, and the
// producers of a streamed body learn at once that nobody reads it any more.
void HttpClientTransfer::leaveMulti()
{
    curl_multi_remove_handle(activeMulti, easy.get());
    activeMulti = nullptr;
    stopInactivityWatch();
    endUploadStream();
}

// libcurl's code for the failure; a body cut at the read-size limit, which
// libcurl sees as a short write (23), is the file-size failure it is (63).
int HttpClientTransfer::failureCode(CURLcode result) const
{
    if (result == CURLE_WRITE_ERROR && receiveBuffer.overLimit) {
        return static_cast<int>(CURLE_FILESIZE_EXCEEDED);
    }
    return static_cast<int>(result);
}

QString HttpClientTransfer::failureReason(CURLcode result) const
{
    if (result == CURLE_WRITE_ERROR && receiveBuffer.overLimit) {
        return QStringLiteral("response body larger than the read-size limit of %1 bytes")
            .arg(receiveBuffer.sizeLimit);
    }
    if (errorText.front() != '\0') {
        return QString::fromUtf8(errorText.data());
    }
    return QString::fromUtf8(curl_easy_strerror(result));
}

void HttpClientTransfer::cancel()
{
    if (!activeMulti) {
        TREL_ERROR("Transfer already finished");
        return;
    }
    leaveMulti();
    reportCompletion(HttpClientStatus::Error, -1, QByteArray(), HttpClientHeaders());
}

// Ended here rather than by libcurl, whose own limits count whole seconds:
// reported as the timeout libcurl would have called it, with what arrived.
void HttpClientTransfer::timeOutInactive(qint64 idleMs)
{
    if (!activeMulti) {
        TREL_ERROR("Transfer already finished");
        return;
    }
    const long code = responseCode();
    HttpClientHeaders headers = receivedHeaders(false);
    noteFailure(headers, QStringLiteral("Operation timed out: no data moved for %1 milliseconds").arg(idleMs),
        static_cast<int>(CURLE_OPERATION_TIMEDOUT));
    reportFinalProgress();
    leaveMulti();
    reportCompletion(HttpClientStatus::Timeout, code, receiveBuffer.body, headers);
}

void HttpClientTransfer::timeOutUnstarted(std::int64_t waitedMs)
{
    if (activeMulti) {
        TREL_ERROR("Transfer is already active");
        return;
    }
    HttpClientHeaders headers;
    noteFailure(headers,
        QStringLiteral("Operation timed out after %1 milliseconds waiting for a connection").arg(waitedMs),
        static_cast<int>(CURLE_OPERATION_TIMEDOUT));
    reportCompletion(HttpClientStatus::Timeout, 0, QByteArray(), headers);
}

void HttpClientTransfer::reportCompletion(
    HttpClientStatus status, long code, const QByteArray& body, const HttpClientHeaders& headers)
{
    callback(status, code, body, headers); // an empty callback throws std::bad_function_call
}
