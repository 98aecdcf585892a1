#pragma once

#include <trel/trel_http_client_export.h>

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QWaitCondition>

// Carries a streamed request body from producer threads to the transfer that
// sends it. Producers append/prepend and finally close from any thread; the
// transfer reads on the client's thread and blocks there while the queue is open
// and empty, stalling that client's event loop until data or close arrives.
class TREL_HTTP_CLIENT_EXPORT HttpClientQueue : public QObject
{
    Q_OBJECT

public:
    explicit HttpClientQueue(QObject* parent = nullptr);
    ~HttpClientQueue() override;

    // Both return false, dropping the chunk, once the queue is closed.
    bool append(const QByteArray& chunk);
    bool prepend(const QByteArray& chunk);
    // Copies at most maxSize (> 0) bytes: blocks only for the first chunk, then
    // takes whole following chunks while they fit with room to spare. Returns -1
    // once the queue is closed and drained.
    int read(char* data, int maxSize);
    void close();
    bool isOpened();

private:
    QList<QByteArray> chunks;
    QMutex mutex;
    QWaitCondition condition;
    bool opened = true;
};
