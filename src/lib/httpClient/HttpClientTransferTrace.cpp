// A request's trace: libcurl's debug stream, kept to informational text and
// header lines, queued piece by piece inside libcurl and handed to the caller's
// trace callback from the event loop, all of it ahead of the result.

#include <trel/HttpClientTransfer.h>

#include <optional>

namespace {

// Body bytes and TLS records are never traced: what is queued stays as small
// as the heads, whatever the body's size.
std::optional<HttpClientOptions::TraceKind> traceKindOf(curl_infotype type)
{
    switch (type) {
    case CURLINFO_TEXT:
        return HttpClientOptions::TraceText;
    case CURLINFO_HEADER_IN:
        return HttpClientOptions::TraceHeaderIn;
    case CURLINFO_HEADER_OUT:
        return HttpClientOptions::TraceHeaderOut;
    default:
        return std::nullopt;
    }
}

} // namespace

// Without a trace callback libcurl's verbose mode and debug function stay off,
// as its defaults: the request pays nothing. A reused handle was reset, so
// neither is left over from an earlier request.
void HttpClientTransfer::installTraceCallback()
{
    if (!options.traceCallback()) {
        return;
    }
    traceReceiver = std::make_shared<const HttpClientOptions::TraceCallback>(options.traceCallback());
    CURL* const handle = easy.get();
    curl_easy_setopt(handle, CURLOPT_DEBUGFUNCTION, &HttpClientTransfer::curlDebug);
    curl_easy_setopt(handle, CURLOPT_DEBUGDATA, this);
    curl_easy_setopt(handle, CURLOPT_VERBOSE, 1L);
}

int HttpClientTransfer::curlDebug(CURL* /*easy*/, curl_infotype type, char* data, size_t size, void* transfer)
{
    const std::optional<HttpClientOptions::TraceKind> kind = traceKindOf(type);
    if (kind) {
        static_cast<HttpClientTransfer*>(transfer)->queueTrace(
            *kind, QByteArray(data, static_cast<int>(size)));
    }
    return 0;
}

// Runs inside libcurl: the piece joins the client's delivery queue, so it
// reaches the caller from the event loop, after the pieces before it and
// before the result, which is queued later.
void HttpClientTransfer::queueTrace(HttpClientOptions::TraceKind kind, const QByteArray& piece)
{
    if (!reportQueue || !traceReceiver) {
        return;
    }
    reportQueue([receiver = traceReceiver, kind, piece] { (*receiver)(kind, piece); });
}
