#include "PolledRead.h"

#include <cerrno>

#include <poll.h>
#include <unistd.h>

namespace trelfetch {
namespace {

// How often a reader waiting for input looks whether it should stop.
constexpr int kStopCheckMs = 100;

} // namespace

std::optional<ssize_t> readWhenReadable(int fd, std::vector<char>& buffer, const std::atomic<bool>& stopping)
{
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
        return count;
    }
    return std::nullopt;
}

} // namespace trelfetch
