#pragma once

// A receiving object for slot delivery: records every result invoked on its
// slot `onResult`, with the thread it ran on. Thread-safe to read.

#include <trel/HttpClient.h>

#include <QMutex>
#include <QMutexLocker>
#include <QObject>
#include <QThread>

#include <functional>
#include <vector>

namespace trel::test {

struct ReceivedResult
{
    TrelUrl url;
    HttpClientPrivate context;
    int status = -99;
    int code = -99;
    QByteArray body;
    HttpClientHeaders headers;
    QThread* thread = nullptr;
};

class ResultReceiver : public QObject
{
    Q_OBJECT

public:
    explicit ResultReceiver(QObject* parent = nullptr)
        : QObject(parent)
    { }

    std::vector<ReceivedResult> results() const
    {
        QMutexLocker locker(&mutex);
        return received;
    }

    int count() const
    {
        QMutexLocker locker(&mutex);
        return static_cast<int>(received.size());
    }

    // Called on the receiver's thread for every result, after it is recorded.
    std::function<void(const ReceivedResult&)> onReceived;

public slots:
    void onResult(const TrelUrl& url, const HttpClientPrivate& context, int status, int code,
        const QByteArray& body, const HttpClientHeaders& headers)
    {
        const ReceivedResult result { url, context, status, code, body, headers, QThread::currentThread() };
        {
            QMutexLocker locker(&mutex);
            received.push_back(result);
        }
        if (onReceived) {
            onReceived(result);
        }
    }

private:
    mutable QMutex mutex;
    std::vector<ReceivedResult> received;
};

} // namespace trel::test
