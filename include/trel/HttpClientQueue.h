/// \file
/// HttpClientQueue: the source of a streamed request body, fed from any thread.
#pragma once

#include <trel/trel_http_client_export.h>

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QObject>
#include <QWaitCondition>
#include <QtGlobal>

#include <functional>

class QThread;

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
/// is blocked in read(), append() or prepend().
///
/// Two readers are offered. read() is the blocking one, for code that drives
/// the queue itself. The transfer never blocks: it uses readAvailable(), and
/// when that finds nothing to send, the next append, prepend or close calls the
/// watcher set with setReadyWatcher() through the watcher's event loop, so a
/// paused upload resumes on the client's thread.
///
/// **Bound.** By default the queue holds whatever the producers push, however
/// far they run ahead of the network. With setCapacity(), a producer that
/// pushes while bytesQueued() is at or above the capacity waits until the
/// reader has taken some bytes, so the queue holds less than the capacity plus
/// the largest chunk pushed. Only the thread of the watcher's context (the
/// client's thread, once the queue is given to HttpClient::postStream()) never
/// waits, and its pushes may go past that bound: waiting there would stop the
/// very client that empties the queue.
///
/// **Abandonment.** When the request that reads the queue ends before it read
/// the body to its end (it finished early, failed, timed out, was cancelled, or
/// its client was destroyed), the transfer abandons the queue at that moment,
/// before the result is delivered: the chunks still queued are dropped, waiting
/// producers wake, and every later append() and prepend() returns false, so a
/// producer learns that nobody reads any more instead of pushing into the void.
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
    /// thread blocked in read(), or the armed watcher). With a capacity set,
    /// first waits while bytesQueued() is at or above it, except on the
    /// watcher's thread (see setCapacity()).
    /// \return true; false, dropping the chunk, once the queue is closed or
    ///         abandoned, including when either happens while it waits.
    bool append(const QByteArray& chunk);
    /// Adds \p chunk before every chunk queued so far, so that it is read next,
    /// and wakes the reader and waits for room like append().
    /// \return true; false, dropping the chunk, once the queue is closed or
    ///         abandoned, including when either happens while it waits.
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
    /// already queued are still read, and the reader is woken, as are
    /// producers waiting for room, whose chunks are refused. Closing twice does
    /// nothing more.
    void close();
    /// Whether close() has not been called yet (chunks may remain after it).
    bool isOpened();

    /// Bounds the queue for producers: append() and prepend() wait while
    /// bytesQueued() is at or above \p bytes, until the reader takes some bytes,
    /// the queue is closed or it is abandoned. A push that finds room adds its
    /// whole chunk, so the queue holds less than \p bytes plus the largest chunk
    /// pushed. Pushes on the watcher's context thread never wait and simply add:
    /// that thread runs the client that empties the queue. Before the queue is
    /// given to HttpClient::postStream() no watcher is set, so a push on the
    /// client's own thread that finds the queue full would wait for good; fill
    /// it from there only after postStream() (and close the queue if
    /// postStream() refuses the request, to release waiting producers).
    /// May be called at any time; waiting producers look at the new capacity at
    /// once.
    /// \param bytes the capacity; 0 (the default) or less means unbounded, and
    ///        pushes never wait.
    void setCapacity(qint64 bytes);
    /// The bytes pushed and not yet taken by a reader (the empty rest of a
    /// split chunk counts 0); 0 once the queue is abandoned.
    qint64 bytesQueued() const;
    /// Whether the request reading the queue ended before the body was read to
    /// its end. Once true it stays true. A request that read the queue closed
    /// and drained does not abandon it, whatever its result: then
    /// isAbandoned() stays false, and isOpened() is already false, which
    /// refuses later pushes all the same.
    bool isAbandoned() const;

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
    /// watcher with clearReadyWatcher() before it is destroyed. \p context's
    /// thread, as it is now, is the reader's: pushes made there never wait for
    /// room (see setCapacity()).
    void setReadyWatcher(QObject* context, std::function<void()> onReady);
    /// Forgets the watcher, and its thread, when \p context is the one set;
    /// later pushes wake nobody. Once it returns, no producer posts to
    /// \p context any more.
    void clearReadyWatcher(const QObject* context);

private:
    // The transfer that reads the queue calls abandon() when its request ends.
    friend class HttpClientTransfer;

    enum class End
    {
        Back,
        Front
    };

    // Called by the reading transfer, on its thread, when its request ends:
    // abandons the queue unless it was closed and drained.
    void abandon();
    bool push(const QByteArray& chunk, End end);
    void waitForRoomLocked();
    bool isFullLocked() const;
    int takeLocked(char* data, int maxSize);
    int copyChunksLocked(char* data, int maxSize);
    void wakeLocked();

    QList<QByteArray> chunks;
    mutable QMutex mutex;
    QWaitCondition condition; // readers blocked in read()
    QWaitCondition roomCondition; // producers waiting below the capacity
    bool opened = true;
    bool abandoned = false;
    qint64 queuedBytes = 0;
    qint64 capacityBytes = 0; // 0: unbounded
    QObject* watcherContext = nullptr;
    QThread* watcherThread = nullptr; // the context's thread, where pushes never wait
    std::function<void()> watcherOnReady;
    bool watcherArmed = false;
};
