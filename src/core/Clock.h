#pragma once

#include <QDateTime>
#include <QElapsedTimer>
#include <QPointer>
#include <atomic>
#include <functional>
#include <memory>

class QObject;

namespace vemira {

// Cancels its delayed task when cancel() is called or when the handle is destroyed.
class TaskHandle {
public:
    virtual ~TaskHandle() = default;
    virtual void cancel() = 0;
};
using TaskHandlePtr = std::unique_ptr<TaskHandle>;

// Every reading of time and every delayed task goes through a Clock, so lifecycle
// tests can run minutes of call time in milliseconds. Main-thread only.
class Clock {
public:
    virtual ~Clock() = default;
    // Monotonic seconds since an arbitrary origin (never jumps with the wall clock).
    virtual double uptime() const = 0;
    // Wall-clock time, for records and the session log.
    virtual QDateTime now() const = 0;
    // Runs task on the main thread after delaySeconds, unless the handle is cancelled or
    // released first, or `context` is destroyed meanwhile.
    virtual TaskHandlePtr schedule(double delaySeconds, QObject* context,
                                   std::function<void()> task) = 0;
    // Runs task every periodSeconds until cancelled (the one-second standby tick).
    virtual TaskHandlePtr repeat(double periodSeconds, QObject* context,
                                 std::function<void()> task) = 0;
};

// Real time: QElapsedTimer, QDateTime::currentDateTime and QTimer.
class SystemClock final : public Clock {
public:
    SystemClock();
    double uptime() const override;
    QDateTime now() const override;
    TaskHandlePtr schedule(double delaySeconds, QObject* context,
                           std::function<void()> task) override;
    TaskHandlePtr repeat(double periodSeconds, QObject* context,
                         std::function<void()> task) override;
    static SystemClock& instance();

private:
    QElapsedTimer m_elapsed;
};

// Test time: nothing moves until advance() is called; due tasks then run in time order.
class ManualClock final : public Clock {
public:
    explicit ManualClock(QDateTime start = QDateTime(QDate(2026, 3, 14), QTime(9, 30)));
    ~ManualClock() override;
    // Readable from audio threads (flow health reads it there); advanced on the main thread.
    double uptime() const override { return m_uptime.load(std::memory_order_relaxed); }
    QDateTime now() const override;
    TaskHandlePtr schedule(double delaySeconds, QObject* context,
                           std::function<void()> task) override;
    TaskHandlePtr repeat(double periodSeconds, QObject* context,
                         std::function<void()> task) override;

    // Moves time forward by `seconds`, running every task that falls due on the way
    // (each at its own due time, so a task sees uptime() equal to its deadline).
    void advance(double seconds);
    int pendingTasks() const;

private:
    class Handle;
    std::atomic<double> m_uptime{0.0};
    QDateTime m_start;
    std::shared_ptr<struct ManualQueue> m_queue;
};

} // namespace vemira
