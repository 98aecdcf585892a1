#pragma once

#include <trel/trel_http_client_export.h>

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QWaitCondition>

#include <functional>

// Carries a streamed request body from producer threads to the transfer that
// sends it. Producers append/prepend and finally close from any thread.
//
// Two readers are offered. `read` is the blocking one for code that drives the
// queue itself. The transfer never blocks: it uses `readAvailable`, and when
// that finds nothing to send, the next append, prepend or close calls the
// watcher set with `setReadyWatcher` through the watcher's event loop, so a
// paused upload resumes on the client's thread.
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
    // takes whole following chunks while they fit with room to spare. An empty
    // chunk, or the empty remainder a read leaves when it takes a chunk exactly
    // to its end, reads as 0. Returns -1 once the queue is closed and drained.
    int read(char* data, int maxSize);
    void close();
    bool isOpened();

    // Never blocks and never returns 0 for an empty chunk: skips empty chunks
    // and returns the bytes copied (> 0), 0 when the queue is open and holds no
    // data (the watcher is then armed), or -1 once the queue is closed and drained.
    int readAvailable(char* data, int maxSize);
    // `onReady` runs on `context`'s thread, queued, once after a readAvailable
    // that returned 0 is followed by an append, prepend or close. Safe against
    // producers on any thread as long as the context clears the watcher (below)
    // before it is destroyed.
    void setReadyWatcher(QObject* context, std::function<void()> onReady);
    // Forgets the watcher when `context` is the one set; later pushes wake nobody.
    void clearReadyWatcher(const QObject* context);

private:
    int takeLocked(char* data, int maxSize);
    void wakeLocked();

    QList<QByteArray> chunks;
    QMutex mutex;
    QWaitCondition condition;
    bool opened = true;
    QObject* watcherContext = nullptr;
    std::function<void()> watcherOnReady;
    bool watcherArmed = false;
};
