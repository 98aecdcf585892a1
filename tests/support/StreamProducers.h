#pragma once

// Producers for streamed uploads that run on their own thread.
//
// A PacedProducer pushes its chunks one by one with a pause after each, then
// closes the queue, so chunks reach the sender one at a time, each alone at
// the head of the queue.
//
// A HeldProducer pushes its first chunks, then waits on a latch until the test
// releases it, then pushes the rest and closes the queue. A client that blocked
// its thread in the queue could never let the test release the latch: the
// producer then gives up after `giveUpMs`, closes the queue, and `gaveUp()` tells
// the test that the client was stuck for that long.

#include <trel/HttpClientQueue.h>

#include <QByteArray>
#include <QCryptographicHash>
#include <QList>
#include <QSharedPointer>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <random>
#include <thread>

namespace trel::test {

class PacedProducer
{
public:
    PacedProducer(QSharedPointer<HttpClientQueue> queue, QList<QByteArray> chunks, int pauseMs)
        : worker([queue, chunks, pauseMs] {
            for (const QByteArray& chunk : chunks) {
                queue->append(chunk);
                std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
            }
            queue->close();
        })
    { }
    ~PacedProducer() { worker.join(); }
    PacedProducer(const PacedProducer&) = delete;
    PacedProducer& operator=(const PacedProducer&) = delete;

private:
    std::thread worker;
};

class HeldProducer
{
public:
    HeldProducer(QSharedPointer<HttpClientQueue> queue, QList<QByteArray> before, QList<QByteArray> after,
        int giveUpMs = 8000)
        : worker([this, queue, before, after, giveUpMs] { run(queue, before, after, giveUpMs); })
    { }
    ~HeldProducer()
    {
        release();
        worker.join();
    }
    HeldProducer(const HeldProducer&) = delete;
    HeldProducer& operator=(const HeldProducer&) = delete;

    void release()
    {
        const std::lock_guard<std::mutex> lock(mutex);
        released = true;
        latch.notify_all();
    }
    bool gaveUp() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return timedOut;
    }
    // True once the first chunks are in the queue and the producer waits.
    bool holding() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return waiting;
    }

private:
    void run(const QSharedPointer<HttpClientQueue>& queue, const QList<QByteArray>& before,
        const QList<QByteArray>& after, int giveUpMs)
    {
        for (const QByteArray& chunk : before) {
            queue->append(chunk);
        }
        {
            std::unique_lock<std::mutex> lock(mutex);
            waiting = true;
            if (!latch.wait_for(lock, std::chrono::milliseconds(giveUpMs), [this] { return released; })) {
                timedOut = true;
            }
            waiting = false;
        }
        for (const QByteArray& chunk : after) {
            queue->append(chunk);
        }
        queue->close();
    }

    mutable std::mutex mutex;
    std::condition_variable latch;
    bool released = false;
    bool timedOut = false;
    bool waiting = false;
    std::thread worker; // last: started once the members above exist
};

inline QByteArray randomBytes(int size, unsigned seed)
{
    std::mt19937 random(seed);
    QByteArray bytes(size, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

// Chunks of exactly 16 KiB, 64 KiB and 128 KiB, four of each, with an empty
// chunk before each one: sizes that libcurl's reads take exactly to their end.
inline QList<QByteArray> exactSizedChunksWithEmptyOnes(unsigned seed)
{
    QList<QByteArray> chunks;
    unsigned next = seed;
    for (const int size : { 16384, 65536, 131072 }) {
        for (int i = 0; i < 4; ++i) {
            chunks << QByteArray() << randomBytes(size, next++);
        }
    }
    chunks << QByteArray();
    return chunks;
}

inline QByteArray joined(const QList<QByteArray>& chunks)
{
    QByteArray all;
    for (const QByteArray& chunk : chunks) {
        all += chunk;
    }
    return all;
}

inline QByteArray sha256(const QByteArray& bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex();
}

} // namespace trel::test
