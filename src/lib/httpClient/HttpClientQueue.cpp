// A streamed request body: producers on any thread append, the client's thread
// reads without waiting, and the queue's capacity bounds what it holds.

#include <trel/HttpClientQueue.h>

#include <QMetaObject>
#include <QMutexLocker>
#include <QThread>

#include <cstring>

HttpClientQueue::HttpClientQueue(QObject* parent)
    : QObject(parent)
{ }

// Neither closes nor wakes: shared ownership guarantees no reader or producer
// is left when this runs.
HttpClientQueue::~HttpClientQueue() = default;

bool HttpClientQueue::append(const QByteArray& chunk)
{
    return push(chunk, End::Back);
}

bool HttpClientQueue::prepend(const QByteArray& chunk)
{
    return push(chunk, End::Front);
}

bool HttpClientQueue::push(const QByteArray& chunk, End end)
{
    QMutexLocker locker(&mutex);
    waitForRoomLocked();
    if (!opened || abandoned) {
        return false;
    }
    if (end == End::Front) {
        chunks.prepend(chunk);
    } else {
        chunks.append(chunk);
    }
    queuedBytes += chunk.size();
    wakeLocked();
    return true;
}

// Waits with the mutex released, so the reader can take bytes meanwhile. The
// watcher's thread never waits: it runs the client whose transfer empties the
// queue, and would wait for itself.
void HttpClientQueue::waitForRoomLocked()
{
    if (QThread::currentThread() == watcherThread) {
        return;
    }
    while (opened && !abandoned && isFullLocked()) {
        roomCondition.wait(&mutex);
    }
}

bool HttpClientQueue::isFullLocked() const
{
    return capacityBytes > 0 && queuedBytes >= capacityBytes;
}

int HttpClientQueue::read(char* data, int maxSize)
{
    QMutexLocker locker(&mutex);
    while (opened && chunks.isEmpty()) {
        condition.wait(&mutex);
    }
    if (chunks.isEmpty()) {
        return -1; // closed and drained
    }
    return takeLocked(data, maxSize);
}

int HttpClientQueue::readAvailable(char* data, int maxSize)
{
    QMutexLocker locker(&mutex);
    // An empty chunk carries nothing; handing it on as 0 would end the body.
    while (!chunks.isEmpty() && chunks.first().isEmpty()) {
        chunks.removeFirst();
    }
    if (!chunks.isEmpty()) {
        return takeLocked(data, maxSize);
    }
    if (!opened) {
        return -1;
    }
    watcherArmed = true; // checked and armed under one lock: no push can slip between
    return 0;
}

// Takes from a non-empty list under the lock.
int HttpClientQueue::takeLocked(char* data, int maxSize)
{
    const int taken = copyChunksLocked(data, maxSize);
    if (taken > 0) {
        queuedBytes -= taken;
        roomCondition.wakeAll(); // the producers check the capacity again
    }
    return taken;
}

int HttpClientQueue::copyChunksLocked(char* data, int maxSize)
{
    const QByteArray first = chunks.takeFirst();
    if (maxSize <= first.size()) {
        std::memcpy(data, first.constData(), static_cast<size_t>(maxSize));
        // The remainder goes back even when empty; the next read consumes it as
        // a zero-length chunk.
        chunks.prepend(first.mid(maxSize));
        return maxSize;
    }

    std::memcpy(data, first.constData(), static_cast<size_t>(first.size()));
    int total = first.size();
    // A following chunk is taken only whole and only with room to spare.
    while (!chunks.isEmpty() && maxSize - total > chunks.first().size()) {
        const QByteArray next = chunks.takeFirst();
        std::memcpy(data + total, next.constData(), static_cast<size_t>(next.size()));
        total += next.size();
    }
    return total;
}

void HttpClientQueue::close()
{
    QMutexLocker locker(&mutex);
    opened = false;
    wakeLocked();
    roomCondition.wakeAll(); // their chunks are refused now
}

bool HttpClientQueue::isOpened()
{
    QMutexLocker locker(&mutex);
    return opened;
}

void HttpClientQueue::setCapacity(qint64 bytes)
{
    QMutexLocker locker(&mutex);
    capacityBytes = qMax<qint64>(bytes, 0);
    roomCondition.wakeAll(); // a larger capacity may make room at once
}

qint64 HttpClientQueue::bytesQueued() const
{
    QMutexLocker locker(&mutex);
    return queuedBytes;
}

bool HttpClientQueue::isAbandoned() const
{
    QMutexLocker locker(&mutex);
    return abandoned;
}

// A queue read closed and drained lost nothing: its producers have already been
// refused by close(), and there is nothing to tell them.
void HttpClientQueue::abandon()
{
    QMutexLocker locker(&mutex);
    if (!opened && queuedBytes == 0) {
        return;
    }
    abandoned = true;
    chunks.clear(); // nobody will read them; their memory goes now
    queuedBytes = 0;
    roomCondition.wakeAll();
}

void HttpClientQueue::setReadyWatcher(QObject* context, std::function<void()> onReady)
{
    QMutexLocker locker(&mutex);
    watcherContext = context;
    watcherThread = context ? context->thread() : nullptr;
    watcherOnReady = std::move(onReady);
    watcherArmed = false;
}

void HttpClientQueue::clearReadyWatcher(const QObject* context)
{
    QMutexLocker locker(&mutex);
    if (watcherContext == context) {
        watcherContext = nullptr;
        watcherThread = nullptr;
        watcherOnReady = nullptr;
        watcherArmed = false;
    }
}

// Under the lock, so a watcher cleared by its context's destructor is never
// posted to afterwards; Qt drops events already posted to a destroyed context.
void HttpClientQueue::wakeLocked()
{
    condition.wakeAll();
    if (watcherArmed && watcherContext) {
        watcherArmed = false;
        QMetaObject::invokeMethod(watcherContext, watcherOnReady, Qt::QueuedConnection);
    }
}
