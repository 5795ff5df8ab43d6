#pragma once

#include "app/SystemServices.h"

#include <QDBusConnection>
#include <QDBusUnixFileDescriptor>
#include <QObject>

namespace vemira {

// logind's PrepareForSleep signal on the system bus. While armed it holds a "delay"
// inhibitor lock, so the machine waits (up to logind's InhibitDelayMaxSec) until the
// model has saved the conversation; the lock is released once the callback returned and
// taken again when the machine wakes up. Without logind (containers, other init systems)
// nothing is ever reported. Main thread only.
class LogindSleepNotifier final : public QObject, public SleepNotifier {
    Q_OBJECT

public:
    explicit LogindSleepNotifier(QDBusConnection bus = QDBusConnection::systemBus());
    bool listening() const { return m_listening; }
    bool holdsLock() const { return m_lock.isValid(); }

private Q_SLOTS:
    void prepareForSleep(bool start);

private:
    void takeLock();

    QDBusConnection m_bus;
    QDBusUnixFileDescriptor m_lock;
    bool m_listening = false;
};

} // namespace vemira
