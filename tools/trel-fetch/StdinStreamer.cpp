#include "StdinStreamer.h"

#include "PolledRead.h"

#include <QByteArray>

#include <unistd.h>

#include <vector>

namespace trelfetch {
namespace {

// What one read of standard input takes at most; any size works, since empty
// or exactly consumed chunks never end the upload.
constexpr int kChunkSize = 64 * 1024;
// What the queue holds at most before the thread waits: a few chunks ahead of
// the connection, never the whole input.
constexpr qint64 kQueueCapacity = 16 * kChunkSize;

} // namespace

StdinStreamer::StdinStreamer(int fd, bool ownsFd)
    : fd(fd)
    , ownsFd(ownsFd)
    , queue_(QSharedPointer<HttpClientQueue>::create())
{
    queue_->setCapacity(kQueueCapacity);
    producer = std::thread([this] { run(); });
}

StdinStreamer::~StdinStreamer()
{
    stopping = true;
    queue_->close(); // wakes the thread if it waits for room
    producer.join();
    if (ownsFd) {
        ::close(fd);
    }
}

// Runs on the producer thread.
void StdinStreamer::run()
{
    std::vector<char> buffer(kChunkSize);
    while (const std::optional<ssize_t> count = readWhenReadable(fd, buffer, stopping)) {
        if (*count <= 0 || !queue_->append(QByteArray(buffer.data(), static_cast<int>(*count)))) {
            break; // end of input, a read error, or the queue was closed
        }
        bytesQueued_ += *count;
    }
    queue_->close();
}

} // namespace trelfetch
