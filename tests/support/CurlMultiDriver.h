#pragma once

// A small blocking curl multi loop for tests that drive HttpClientTransfer
// without HttpClient: start transfers on it, then run() until they are done.
// Mirrors what the client does after every socket action: update() every
// live transfer, then finish() each one libcurl reports done.

#include <trel/HttpClientTransfer.h>

#include <QList>
#include <QSharedPointer>

#include <curl/curl.h>

namespace trel::test {

class CurlMultiDriver
{
public:
    CurlMultiDriver();
    ~CurlMultiDriver();
    CurlMultiDriver(const CurlMultiDriver&) = delete;
    CurlMultiDriver& operator=(const CurlMultiDriver&) = delete;

    CURLM* multi() const { return handle; }
    // Starts the transfer on this driver's multi handle and keeps it alive until done.
    void start(const QSharedPointer<HttpClientTransfer>& transfer);
    // Runs until every started transfer has finished or the time is up; true when all finished.
    bool run(int timeoutMs = 10000);
    int live() const { return transfers.size(); }

private:
    CURLM* handle;
    QList<QSharedPointer<HttpClientTransfer>> transfers;
};

} // namespace trel::test
