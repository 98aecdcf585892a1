#include "StdinStreamer.h"

#include <QByteArray>

#include <cerrno>
#include <vector>

#include <poll.h>
#include <unistd.h>

namespace trelfetch {
namespace {

// What one read of standard input takes at most; any size works, since empty
// or exactly consumed chunks never end the upload.
constexpr int kChunkSize = 64 * 1024;
// How often a producer waiting for input looks whether it should stop.
constexpr int kStopCheckMs = 100;

} // namespace

StdinStreamer::StdinStreamer(int fd)
    : fd(fd)
    , queue_(QSharedPointer<HttpClientQueue>::create())
    , producer([this] { run(); })
{ }

StdinStreamer::~StdinStreamer()
{
    stopping = true;
    producer.join();
    queue_->close();
}

// Runs on the producer thread. Input is polled rather than read blindly so that
// a run that ends early (the request failed) can stop a producer waiting on a
// terminal.
void StdinStreamer::run()
{
    std::vector<char> buffer(kChunkSize);
    while (!stopping) {
        pollfd watched { fd, POLLIN, 0 };
        const int ready = ::poll(&watched, 1, kStopCheckMs);
        if (ready == 0 || (ready < 0 && errno == EINTR)) {
            continue;
        }
        const ssize_t count = ready < 0 ? -1 : ::read(fd, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0 || !queue_->append(QByteArray(buffer.data(), static_cast<int>(count)))) {
            break; // end of input, a read error, or the queue was closed
        }
        bytesQueued_ += count;
    }
    queue_->close();
}

} // namespace trelfetch
