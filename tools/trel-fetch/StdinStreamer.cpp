#include "StdinStreamer.h"

#include "PolledRead.h"

#include <QByteArray>

#include <vector>

namespace trelfetch {
namespace {

// What one read of standard input takes at most; any size works, since empty
// or exactly consumed chunks never end the upload.
constexpr int kChunkSize = 64 * 1024;

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
