/// \file
/// HttpClientQueue: the source of a streamed request body, fed from any thread.
#pragma once

#include <trel/trel_http_client_export.h>

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QWaitCondition>

#include <functional>

/// Carries a streamed request body from producer threads to the transfer that
/// sends it (HttpClient::postStream()).
///
/// Producers append() and prepend() chunks and finally close() the queue, from
/// any thread, the client's own included; every member is thread-safe (one
/// mutex guards the chunks). Every byte of every chunk is sent, in order; an
/// empty chunk adds nothing and does not end the body, which ends only when the
/// queue is closed and drained.
/// Share it through QSharedPointer between the producers and the request; it is
/// destroyed with the last reference, which must not be dropped while a thread
/// is blocked in read().
///
/// Two readers are offered. read() is the blocking one, for code that drives
/// the queue itself. The transfer never blocks: it uses readAvailable(), and
/// when that finds nothing to send, the next append, prepend or close calls the
/// watcher set with setReadyWatcher() through the watcher's event loop, so a
/// paused upload resumes on the client's thread.
class TREL_HTTP_CLIENT_EXPORT HttpClientQueue : public QObject
{
    Q_OBJECT

public:
    /// An open, empty queue. \p parent, when given, owns it; a queue shared
    /// through QSharedPointer should have none.
    explicit HttpClientQueue(QObject* parent = nullptr);
    /// Neither closes the queue nor wakes anyone: no reader, producer or
    /// watcher may be left when it runs.
    ~HttpClientQueue() override;

    /// Adds \p chunk after every chunk queued so far and wakes the reader (a
    /// thread blocked in read(), or the armed watcher).
    /// \return true; false, dropping the chunk, once the queue is closed.
    bool append(const QByteArray& chunk);
    /// Adds \p chunk before every chunk queued so far, so that it is read next,
    /// and wakes the reader like append().
    /// \return true; false, dropping the chunk, once the queue is closed.
    bool prepend(const QByteArray& chunk);
    /// Blocking read, for code that drives the queue itself; the client never
    /// calls it. Copies at most \p maxSize (> 0) bytes into \p data: blocks
    /// only for the first chunk, then takes whole following chunks while they
    /// fit with room to spare; a chunk longer than \p maxSize is split and its
    /// remainder stays first. When the first chunk is empty (an empty chunk,
    /// or the empty remainder a read leaves when it takes a chunk exactly to its
    /// end), the read returns 0 unless following whole chunks fit.
    /// \return the bytes copied, possibly 0 (see above); -1 once the queue is
    ///         closed and drained.
    int read(char* data, int maxSize);
    /// Ends the body: later append() and prepend() calls are refused, chunks
    /// already queued are still read, and the reader is woken. Closing twice
    /// does nothing more.
    void close();
    /// Whether close() has not been called yet (chunks may remain after it).
    bool isOpened();

    /// Non-blocking read, the one the client uses on its own thread. Skips empty
    /// chunks and copies at most \p maxSize (> 0) bytes into \p data, the same
    /// way as read().
    /// \return the bytes copied (> 0); 0 when the queue is open and holds no
    ///         data (the watcher is then armed, never 0 for an empty chunk);
    ///         -1 once the queue is closed and drained.
    int readAvailable(char* data, int maxSize);
    /// Sets the one watcher, replacing any other and disarming it: \p onReady
    /// runs on \p context's thread, queued, once after a readAvailable() that
    /// returned 0 is followed by an append(), prepend() or close(). Safe
    /// against producers on any thread as long as \p context clears the
    /// watcher with clearReadyWatcher() before it is destroyed.
    void setReadyWatcher(QObject* context, std::function<void()> onReady);
    /// Forgets the watcher when \p context is the one set; later pushes wake
    /// nobody. Once it returns, no producer posts to \p context any more.
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
