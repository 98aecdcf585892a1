// Bytes moving: libcurl's numbers kept as they change, handed to a caller's
// progress callback from the event loop at most every 100 ms with a last report
// queued ahead of the result, and the inactivity limit watched on them.

#include <trel/HttpClientTransfer.h>

#include "Log.h"

#include <QTimer>

#include <algorithm>

namespace {
const char* const kLogFile = "src/lib/httpClient/HttpClientTransfer";
const log4cplus::Logger logger = trel::log::libraryLogger();

// The shortest time between two reports of one request.
constexpr qint64 kProgressIntervalMs = 100;

// libcurl says 0 for a length it does not know.
qint64 knownOrUnknown(curl_off_t total)
{
    return total > 0 ? static_cast<qint64>(total) : -1;
}

qint64 infoOffset(CURL* handle, CURLINFO info)
{
    curl_off_t value = -1;
    return curl_easy_getinfo(handle, info, &value) == CURLE_OK ? static_cast<qint64>(value) : -1;
}
} // namespace

// Without a progress callback or an inactivity limit libcurl's progress
// function stays off, as its default: the request pays nothing for either.
void HttpClientTransfer::installProgressCallback()
{
    if (!options.progressCallback() && options.inactivityTimeoutMs() < 1) {
        return;
    }
    CURL* const handle = easy.get();
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, &HttpClientTransfer::curlProgress);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, this);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
}

// Runs on the client's thread inside libcurl: only keeps the numbers. The
// caller's callback never runs from here.
int HttpClientTransfer::curlProgress(
    void* transfer, curl_off_t dltotal, curl_off_t dlnow, curl_off_t ultotal, curl_off_t ulnow)
{
    static_cast<HttpClientTransfer*>(transfer)->noteProgress(static_cast<qint64>(dlnow),
        knownOrUnknown(dltotal), static_cast<qint64>(ulnow), knownOrUnknown(ultotal));
    return 0;
}

void HttpClientTransfer::noteProgress(qint64 received, qint64 receiveTotal, qint64 sent, qint64 sendTotal)
{
    if (received == progress.received && receiveTotal == progress.receiveTotal && sent == progress.sent
        && sendTotal == progress.sendTotal) {
        return;
    }
    progress.received = received;
    progress.receiveTotal = receiveTotal;
    progress.sent = sent;
    progress.sendTotal = sendTotal;
    progress.sinceMoved.restart();
    if (!options.progressCallback()) {
        return;
    }
    progress.unreported = true;
    if (progress.reportScheduled) {
        return;
    }
    progress.reportScheduled = true;
    const qint64 waitMs = progress.sinceReport.isValid()
        ? std::max<qint64>(kProgressIntervalMs - progress.sinceReport.elapsed(), 0)
        : 0;
    // Tied to this transfer: a report still waiting when it ends is dropped,
    // and the last report goes out through the progress context instead.
    QTimer::singleShot(static_cast<int>(waitMs), this, [this] { reportProgress(); });
}

// Runs from the event loop. The caller's callback comes last: it may cancel
// the request or destroy the client, and this transfer with it.
void HttpClientTransfer::reportProgress()
{
    progress.reportScheduled = false;
    if (!progress.unreported || !activeMulti) {
        return;
    }
    progress.unreported = false;
    progress.sinceReport.start();
    const HttpClientOptions::ProgressCallback report = options.progressCallback();
    report(progress.received, progress.receiveTotal, progress.sent, progress.sendTotal);
}

// Runs as the transfer finishes, just before its result is reported: the
// final numbers, as libcurl counted them, join the client's delivery queue
// ahead of the result, so they arrive first and never inside the harvest.
// Nothing goes out when the last report already said them.
void HttpClientTransfer::reportFinalProgress()
{
    if (!options.progressCallback() || !reportQueue) {
        return;
    }
    CURL* const handle = easy.get();
    const qint64 received = infoOffset(handle, CURLINFO_SIZE_DOWNLOAD_T);
    const qint64 receiveTotal = infoOffset(handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T);
    const qint64 sent = infoOffset(handle, CURLINFO_SIZE_UPLOAD_T);
    const qint64 sendTotal = infoOffset(handle, CURLINFO_CONTENT_LENGTH_UPLOAD_T);
    const bool alreadySaid = !progress.unreported && progress.sinceReport.isValid()
        && received == progress.received && receiveTotal == progress.receiveTotal && sent == progress.sent
        && sendTotal == progress.sendTotal;
    progress.unreported = false; // a report still scheduled says nothing more
    if (alreadySaid) {
        TREL_TRACE("Final progress already reported");
        return;
    }
    reportQueue([report = options.progressCallback(), received, receiveTotal, sent, sendTotal] {
        report(received, receiveTotal, sent, sendTotal);
    });
}

void HttpClientTransfer::setInactivityHandler(std::function<void(qint64 idleMs)> expire)
{
    inactivityExpired = std::move(expire);
    inactivityTimer = std::make_unique<QTimer>();
    inactivityTimer->setSingleShot(true);
    connect(inactivityTimer.get(), &QTimer::timeout, this, [this] { checkInactivity(); });
}

// From the moment libcurl has the transfer: connecting counts as nothing moved.
void HttpClientTransfer::startInactivityWatch()
{
    const int limitMs = options.inactivityTimeoutMs();
    if (limitMs < 1 || !inactivityTimer) {
        return;
    }
    progress.sinceMoved.start();
    inactivityTimer->start(limitMs);
}

void HttpClientTransfer::stopInactivityWatch()
{
    if (inactivityTimer) {
        inactivityTimer->stop();
    }
}

// Runs from the event loop. One timer per transfer, moved on only when it is
// due, rather than restarted on every byte: it fires at most once per limit
// while bytes flow.
void HttpClientTransfer::checkInactivity()
{
    if (!activeMulti) {
        return;
    }
    const qint64 limitMs = options.inactivityTimeoutMs();
    const qint64 idleMs = progress.sinceMoved.elapsed();
    if (idleMs < limitMs) {
        inactivityTimer->start(static_cast<int>(limitMs - idleMs));
        return;
    }
    TREL_DEBUG("No data moved for " << idleMs << " ms: " << trel::log::RedactedUrl { url });
    inactivityExpired(idleMs); // ends the request through the client: timeOutInactive()
}
