#pragma once

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTest>
#include <QThread>
#include <functional>

namespace vemira::testing {

// Lets the event loop run (process output, timers, queued hand-offs) until `condition` holds or
// `seconds` pass; whether it held. Looks again every 5 ms: QTest::qWaitFor's longer naps made
// the whole calls through the model five times slower (test_call_lifecycle 22 s against 4 s).
inline bool waitFor(const std::function<bool()>& condition, double seconds = 5.0)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > qint64(seconds * 1000))
            return condition();
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        QThread::msleep(5);
    }
    return true;
}

} // namespace vemira::testing
