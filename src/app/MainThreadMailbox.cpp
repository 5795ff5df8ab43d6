#include "app/MainThreadMailbox.h"

#include <QSocketNotifier>
#include <fcntl.h>
#include <unistd.h>

namespace vemira {

MainThreadMailbox::MainThreadMailbox(QObject* parent) : QObject(parent)
{
    int fds[2];
    if (::pipe(fds) != 0)
        qFatal("pipe() failed");
    m_wakeRead = fds[0];
    m_wakeWrite = fds[1];
    for (int fd : fds) {
        ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    m_notifier = new QSocketNotifier(m_wakeRead, QSocketNotifier::Read, this);
    QObject::connect(m_notifier, &QSocketNotifier::activated, this, [this] { drain(); });
}

MainThreadMailbox::~MainThreadMailbox()
{
    delete m_notifier;
    ::close(m_wakeRead);
    ::close(m_wakeWrite);
}

void MainThreadMailbox::post(std::function<void()> task)
{
    bool wasEmpty = false;
    {
        std::lock_guard guard(m_lock);
        wasEmpty = m_tasks.empty();
        m_tasks.push_back(std::move(task));
    }
    if (wasEmpty) {
        const char byte = 1;
        // A full pipe already holds a wake-up: nothing is lost by a failed write.
        [[maybe_unused]] const ssize_t written = ::write(m_wakeWrite, &byte, 1);
    }
}

int MainThreadMailbox::drain()
{
    char sink[64];
    while (::read(m_wakeRead, sink, sizeof sink) > 0) {
    }
    std::vector<std::function<void()>> tasks;
    {
        std::lock_guard guard(m_lock);
        tasks.swap(m_tasks);
    }
    for (auto& task : tasks)
        task();
    return static_cast<int>(tasks.size());
}

} // namespace vemira
