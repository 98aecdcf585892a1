// Admission of requests to libcurl: at most the connection limit's number of
// transfers are in libcurl at once; the rest wait here, in order, with their
// timeouts running.
//
// libcurl's own queue for transfers beyond CURLMOPT_MAX_TOTAL_CONNECTIONS costs
// work for every waiting transfer whenever a connection frees: 8,000 GETs at
// once under a limit of 1,024 saw 68 results in 60 s, the rest timing out,
// where 20,000 GETs admitted 1,024 at a time all ended OK within 2.4 s.

#include <trel/HttpClient.h>

#include "Log.h"

#include <algorithm>
#include <chrono>
#include <limits>

namespace {
const char* const kLogFile = "src/lib/httpClient/HttpClient";
const log4cplus::Logger logger = trel::log::libraryLogger();

std::int64_t nowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
} // namespace

// Runs on the client's thread inside a request call.
void HttpClient::admitOrWait(void* id, HttpClientTransfer& transfer, int timeoutMs)
{
    if (waitingOrder.empty() && hasRoomForAnother()) {
        admit(id, transfer);
        return;
    }
    WaitingTransfer entry { nowMs(), timeoutMs, waitingDeadlines.end() };
    if (timeoutMs > 0) {
        entry.deadline = waitingDeadlines.emplace(entry.enqueuedMs + timeoutMs, id);
    }
    waiting.insert(id, entry);
    waitingOrder.push_back(id);
    TREL_TRACE("Waiting for a connection: " << id << ", " << waiting.size() << " waiting");
    armWaitingExpiry();
}

bool HttpClient::hasRoomForAnother() const
{
    return connectionLimit <= 0 || admittedIds.size() < connectionLimit;
}

void HttpClient::admit(void* id, HttpClientTransfer& transfer)
{
    transfer.start(multi);
    if (transfer.isActive()) {
        admittedIds.insert(id);
        return;
    }
    // libcurl refused it and the transfer has reported its failure: it holds
    // no place and leaves the table like a finished one.
    takeTransfer(id);
    recycleHandle(transfer);
}

// A request that ended (finished, cancelled) frees its place for the next.
// Runs for every request that ends: with nobody waiting (the usual case) it
// costs the one set removal.
void HttpClient::releaseAdmission(void* id)
{
    if (admittedIds.remove(id) && !waitingOrder.empty()) {
        admitWaiting();
    }
}

void HttpClient::admitWaiting()
{
    while (!waitingOrder.empty() && hasRoomForAnother()) {
        void* const id = waitingOrder.front();
        waitingOrder.pop_front();
        if (waiting.contains(id)) { // not cancelled or expired meanwhile
            startAfterWaiting(id);
        }
    }
    armWaitingExpiry();
}

// The transfer keeps what is left of its timeout.
void HttpClient::startAfterWaiting(void* id)
{
    const WaitingTransfer entry = stopWaiting(id);
    const QSharedPointer<HttpClientTransfer> transfer = transfers.value(id);
    if (!transfer) {
        return;
    }
    if (entry.timeoutMs > 0) {
        const std::int64_t left = entry.timeoutMs - (nowMs() - entry.enqueuedMs);
        curl_easy_setopt(static_cast<CURL*>(transfer->handle()), CURLOPT_TIMEOUT_MS,
            static_cast<long>(std::max<std::int64_t>(left, 1)));
    }
    admit(id, *transfer);
}

HttpClient::WaitingTransfer HttpClient::stopWaiting(void* id)
{
    const WaitingTransfer entry = waiting.take(id);
    if (entry.deadline != waitingDeadlines.end()) {
        waitingDeadlines.erase(entry.deadline);
    }
    return entry;
}

// Runs from the event loop. A request whose timeout ran out while it waited
// ends here as Timeout: libcurl never saw it.
void HttpClient::expireWaiting()
{
    const std::int64_t now = nowMs();
    while (!waitingDeadlines.empty() && waitingDeadlines.begin()->first <= now) {
        void* const id = waitingDeadlines.begin()->second;
        const WaitingTransfer entry = stopWaiting(id);
        const QSharedPointer<HttpClientTransfer> transfer = takeTransfer(id);
        if (transfer) {
            TREL_TRACE("Timed out waiting for a connection: " << id);
            transfer->timeOutUnstarted(now - entry.enqueuedMs);
            recycleHandle(*transfer);
        }
    }
    armWaitingExpiry();
}

void HttpClient::armWaitingExpiry()
{
    if (waitingDeadlines.empty()) {
        waitingExpiry.stop();
        return;
    }
    const std::int64_t due = std::max<std::int64_t>(waitingDeadlines.begin()->first - nowMs(), 0);
    waitingExpiry.start(static_cast<int>(std::min<std::int64_t>(due, std::numeric_limits<int>::max())));
}

// Every end of a request that did not finish in libcurl: cancel() and the
// client's destructor. A waiting transfer is handed to libcurl first, so it
// ends, and reports, exactly as a running one does.
void HttpClient::endRequest(void* id, HttpClientTransfer& transfer)
{
    if (waiting.contains(id)) {
        stopWaiting(id);
        transfer.start(multi);
        if (!transfer.isActive()) {
            return; // refused by libcurl: it has reported that failure instead
        }
    }
    transfer.cancel(); // reports Error/-1; the delivery is queued
    releaseAdmission(id);
}

// Runs from the event loop, from the transfer's inactivity timer: the request
// ends as Timeout and its place goes to the next waiting one.
void HttpClient::endInactive(void* id, qint64 idleMs)
{
    const QSharedPointer<HttpClientTransfer> transfer = takeTransfer(id);
    if (!transfer) {
        return;
    }
    transfer->timeOutInactive(idleMs);
    recycleHandle(*transfer);
    releaseAdmission(id);
}
