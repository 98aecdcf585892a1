#pragma once

// Turns SIGINT (Ctrl-C) into a Qt signal on the event loop's thread. A signal
// handler may only do async-signal-safe things, so it writes one byte to a
// pipe and a QSocketNotifier on the pipe's other end emits interrupted().

#include <QObject>
#include <QSocketNotifier>

#include <memory>

namespace trelfetch {

class InterruptWatcher : public QObject
{
    Q_OBJECT

public:
    explicit InterruptWatcher(QObject* parent = nullptr);
    // Restores the default SIGINT action and closes the pipe.
    ~InterruptWatcher() override;
    InterruptWatcher(const InterruptWatcher&) = delete;
    InterruptWatcher& operator=(const InterruptWatcher&) = delete;

signals:
    void interrupted();

private:
    void drain();

    int pipeFds[2] = { -1, -1 };
    std::unique_ptr<QSocketNotifier> notifier;
};

} // namespace trelfetch
