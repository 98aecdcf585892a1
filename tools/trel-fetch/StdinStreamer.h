#pragma once

// The producer side of --stream and -T: a thread that reads standard input or
// a file in chunks into an HttpClientQueue and closes the queue at end of
// input, so the upload (paused while the queue is open and empty) always
// resumes and ends. The queue holds a bounded amount: the thread waits while a
// slow server has not taken what was read.

#include <trel/HttpClientQueue.h>

#include <QSharedPointer>

#include <atomic>
#include <cstdint>
#include <thread>

namespace trelfetch {

class StdinStreamer
{
public:
    // Reads \p fd; with \p ownsFd the streamer closes it once the thread ends.
    explicit StdinStreamer(int fd = 0, bool ownsFd = false);
    // Stops reading, closes the queue and joins the thread.
    ~StdinStreamer();
    StdinStreamer(const StdinStreamer&) = delete;
    StdinStreamer& operator=(const StdinStreamer&) = delete;

    QSharedPointer<HttpClientQueue> queue() const { return queue_; }
    // Bytes appended so far; safe from any thread.
    std::int64_t bytesQueued() const { return bytesQueued_.load(); }

private:
    void run();

    const int fd;
    const bool ownsFd;
    const QSharedPointer<HttpClientQueue> queue_;
    std::atomic<bool> stopping { false };
    std::atomic<std::int64_t> bytesQueued_ { 0 };
    std::thread producer;
};

} // namespace trelfetch
