#include "LineReader.h"

#include <QByteArray>

#include <cerrno>
#include <cstring>
#include <vector>

#include <poll.h>
#include <unistd.h>

namespace trelfetch {
namespace {

constexpr int kReadSize = 64 * 1024;
// How often a reader waiting for input looks whether it should stop.
constexpr int kStopCheckMs = 100;

} // namespace

LineReader::LineReader(int fd, QObject* context, LineHandler onLine, EndHandler onEnd)
    : fd(fd)
    , context(context)
    , onLine(std::move(onLine))
    , onEnd(std::move(onEnd))
    , reader([this] { run(); })
{ }

LineReader::~LineReader()
{
    stopping = true;
    reader.join();
}

// Runs on the reader thread. Input is polled so that a run that ends early
// (Ctrl-C) can stop a reader waiting on a pipe or a terminal.
void LineReader::run()
{
    std::vector<char> buffer(kReadSize);
    QByteArray pending;
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
        if (count < 0) {
            finish(QString("cannot read the URL list: %1").arg(std::strerror(errno)));
            return;
        }
        if (count == 0) {
            break;
        }
        pending.append(buffer.data(), static_cast<int>(count));
        for (int newline = pending.indexOf('\n'); newline >= 0; newline = pending.indexOf('\n')) {
            deliver(pending.left(newline));
            pending.remove(0, newline + 1);
        }
    }
    if (!pending.isEmpty()) {
        deliver(pending); // a last line without a newline
    }
    finish({});
}

void LineReader::deliver(const QByteArray& line)
{
    const QString text = QString::fromUtf8(line);
    QMetaObject::invokeMethod(
        context, [handler = onLine, text] { handler(text); }, Qt::QueuedConnection);
}

void LineReader::finish(const QString& error)
{
    QMetaObject::invokeMethod(
        context, [handler = onEnd, error] { handler(error); }, Qt::QueuedConnection);
}

} // namespace trelfetch
