#include "LineReader.h"

#include "PolledRead.h"

#include <QByteArray>

#include <cerrno>
#include <cstring>
#include <vector>

namespace trelfetch {
namespace {

constexpr int kReadSize = 64 * 1024;

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

// Runs on the reader thread.
void LineReader::run()
{
    std::vector<char> buffer(kReadSize);
    QByteArray pending;
    while (const std::optional<ssize_t> count = readWhenReadable(fd, buffer, stopping)) {
        if (*count < 0) {
            finish(QString("cannot read the URL list: %1").arg(std::strerror(errno)));
            return;
        }
        if (*count == 0) {
            break;
        }
        pending.append(buffer.data(), static_cast<int>(*count));
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
