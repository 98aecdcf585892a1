#pragma once

// Waits for a condition while running the calling thread's event loop: never a
// fixed sleep, always bounded.

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QTimer>

#include <functional>

namespace trel::test {

// Processes events (blocking until some arrive; a 5 ms ticker bounds each
// wait) until the condition holds or the time is up.
inline bool waitFor(const std::function<bool()>& condition, int timeoutMs = 10000)
{
    QTimer ticker;
    ticker.start(5);
    const QDeadlineTimer deadline(timeoutMs);
    while (!condition()) {
        if (deadline.hasExpired()) {
            return condition();
        }
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
}

// Runs the event loop for the given time, for tests that must show that
// something does NOT happen within a bounded window.
inline void spinEventLoop(int ms)
{
    waitFor([] { return false; }, ms);
}

} // namespace trel::test
