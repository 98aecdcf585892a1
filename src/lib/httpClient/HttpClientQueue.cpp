#include <trel/HttpClientQueue.h>

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
    condition.wakeAll();
    return true;
}

bool HttpClientQueue::prepend(const QByteArray& chunk)
{
    QMutexLocker locker(&mutex);
    if (!opened) {
        return false;
    }
    chunks.prepend(chunk);
    condition.wakeAll();
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
    condition.wakeAll();
}

bool HttpClientQueue::isOpened()
{
    QMutexLocker locker(&mutex);
    return opened;
}
