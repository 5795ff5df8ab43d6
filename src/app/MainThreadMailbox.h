#pragma once

#include <QObject>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

class QSocketNotifier;

namespace vemira {

// Hands work from audio and worker threads to the main thread. A poster takes a short
// lock to queue the task and, when the queue was empty, writes one byte to a pipe; the
// main thread's event loop wakes on the pipe and runs the tasks in posting order. Unlike a
// posted Qt event, every step is a lock or a file descriptor, which race checkers can see.
// post() from any thread; everything else on the thread that created the mailbox.
class MainThreadMailbox final : public QObject {
    Q_OBJECT

public:
    explicit MainThreadMailbox(QObject* parent = nullptr);
    ~MainThreadMailbox() override;

    void post(std::function<void()> task);
    // Runs what is queued now; returns how many tasks ran.
    int drain();

private:
    std::mutex m_lock;
    std::vector<std::function<void()>> m_tasks;
    int m_wakeRead = -1;
    int m_wakeWrite = -1;
    QSocketNotifier* m_notifier = nullptr;
};

} // namespace vemira
