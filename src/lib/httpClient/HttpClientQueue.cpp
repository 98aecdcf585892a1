#include <trel/HttpClientQueue.h>

#include <QMetaObject>
#include <QMutexLocker>

#include <cstring>

HttpClientQueue::HttpClientQueue(QObject* parent)
    : QObject(parent)
{ }

// Neither closes nor wakes: shared ownership guarantees no reader or producer
// is left when this runs.
HttpClientQueue::~HttpClientQueue() = default;

bool HttpClientQueue::append(const QByteArray& chunk)
{
    QMutexLocker locker(&mutex);
    if (!opened) {
        return false;
    }
    chunks.append(chunk);
    wakeLocked();
    return true;
}

bool HttpClientQueue::prepend(const QByteArray& chunk)
{
    QMutexLocker locker(&mutex);
    if (!opened) {
        return false;
    }
    chunks.prepend(chunk);
    wakeLocked();
    return true;
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
}

bool HttpClientQueue::isOpened()
{
    QMutexLocker locker(&mutex);
    return opened;
}

void HttpClientQueue::setReadyWatcher(QObject* context, std::function<void()> onReady)
{
    QMutexLocker locker(&mutex);
    watcherContext = context;
    watcherOnReady = std::move(onReady);
    watcherArmed = false;
}

void HttpClientQueue::clearReadyWatcher(const QObject* context)
{
    QMutexLocker locker(&mutex);
    if (watcherContext == context) {
        watcherContext = nullptr;
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
