#include "InterruptWatcher.h"

#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace trelfetch {
namespace {

// The one piece of state the handler reaches: a signal handler gets no
// argument, so the pipe's write end must be static. Only the watcher sets it.
volatile std::sig_atomic_t interruptWriteFd = -1;

extern "C" void onInterrupt(int /*signal*/)
{
    const char byte = 1;
    if (interruptWriteFd >= 0) {
        [[maybe_unused]] const ssize_t written = ::write(interruptWriteFd, &byte, 1);
    }
}

} // namespace

InterruptWatcher::InterruptWatcher(QObject* parent)
    : QObject(parent)
{
    if (::pipe2(pipeFds, O_CLOEXEC | O_NONBLOCK) != 0) {
        return;
    }
    interruptWriteFd = pipeFds[1];
    notifier = std::make_unique<QSocketNotifier>(pipeFds[0], QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, [this] {
        drain();
        emit interrupted();
    });
    struct sigaction action
    {
    };
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
}

InterruptWatcher::~InterruptWatcher()
{
    std::signal(SIGINT, SIG_DFL);
    interruptWriteFd = -1;
    notifier.reset();
    for (const int fd : pipeFds) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

void InterruptWatcher::drain()
{
    char buffer[64];
    while (::read(pipeFds[0], buffer, sizeof buffer) > 0) { }
}

} // namespace trelfetch
