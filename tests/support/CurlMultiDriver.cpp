#include "CurlMultiDriver.h"

#include <QDeadlineTimer>

namespace trel::test {

CurlMultiDriver::CurlMultiDriver()
    : handle(curl_multi_init())
{ }

CurlMultiDriver::~CurlMultiDriver()
{
    transfers.clear(); // cancels what is still active, before the multi handle goes
    curl_multi_cleanup(handle);
}

void CurlMultiDriver::start(const QSharedPointer<HttpClientTransfer>& transfer)
{
    transfers.append(transfer);
    transfer->start(handle);
}

bool CurlMultiDriver::run(int timeoutMs)
{
    const QDeadlineTimer deadline(timeoutMs);
    while (!transfers.isEmpty() && !deadline.hasExpired()) {
        int running = 0;
        curl_multi_perform(handle, &running);
        for (const auto& transfer : QList<QSharedPointer<HttpClientTransfer>>(transfers)) {
            transfer->update();
        }
        int left = 0;
        while (CURLMsg* const message = curl_multi_info_read(handle, &left)) {
            if (message->msg != CURLMSG_DONE) {
                continue;
            }
            for (int i = 0; i < transfers.size(); ++i) {
                if (transfers[i]->handle() == message->easy_handle) {
                    const auto done = transfers.takeAt(i);
                    done->finish(message);
                    break;
                }
            }
        }
        if (!transfers.isEmpty()) {
            curl_multi_poll(handle, nullptr, 0, 50, nullptr);
        }
    }
    return transfers.isEmpty();
}

} // namespace trel::test
