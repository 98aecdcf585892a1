#pragma once

// Reads a URL list line by line on a thread of its own and hands every line to
// the event loop's thread as soon as it is complete, so that a list piped in
// slowly starts its transfers as it arrives. A thread, rather than a socket
// notifier, because the list may also be a regular file, which notifiers do not
// watch.

#include <QObject>
#include <QPointer>
#include <QString>

#include <atomic>
#include <functional>
#include <thread>

namespace trelfetch {

class LineReader
{
public:
    using LineHandler = std::function<void(const QString& line)>;
    using EndHandler = std::function<void(const QString& error)>;

    // `onLine` and `onEnd` run on `context`'s thread, queued; `onEnd` runs once,
    // after the last line, with an empty error at end of input.
    LineReader(int fd, QObject* context, LineHandler onLine, EndHandler onEnd);
    // Stops reading and joins the thread; nothing is delivered afterwards.
    ~LineReader();
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

private:
    void run();
    void deliver(const QByteArray& line);
    void finish(const QString& error);

    const int fd;
    const QPointer<QObject> context;
    const LineHandler onLine;
    const EndHandler onEnd;
    std::atomic<bool> stopping { false };
    std::thread reader;
};

} // namespace trelfetch
