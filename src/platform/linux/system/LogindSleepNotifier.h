#pragma once

#include "app/SystemServices.h"

#include <QDBusConnection>
#include <QDBusUnixFileDescriptor>
#include <QObject>

namespace vemira {

// logind's PrepareForSleep and PrepareForShutdown signals on the system bus. It holds a
// "delay" inhibitor lock for each, so the machine waits (up to logind's InhibitDelayMaxSec)
// until the model has saved the conversation; a lock is released once the callback returned,
// the sleep one taken again when the machine wakes up. Without logind (containers, other init
// systems) nothing is ever reported. Main thread only.
class LogindSleepNotifier final : public QObject, public SleepNotifier {
    Q_OBJECT

public:
    explicit LogindSleepNotifier(QDBusConnection bus = QDBusConnection::systemBus());
    bool listening() const { return m_listening; }
    bool holdsLock() const { return m_lock.isValid(); }
    bool holdsShutdownLock() const { return m_shutdownLock.isValid(); }

private Q_SLOTS:
    void prepareForSleep(bool start);
    void prepareForShutdown(bool start);

private:
    // Asks logind for a delay lock on `what` ("sleep", "shutdown"), kept in `lock`.
    void takeLock(const QString& what, QDBusUnixFileDescriptor* lock);

    QDBusConnection m_bus;
    QDBusUnixFileDescriptor m_lock;
    QDBusUnixFileDescriptor m_shutdownLock;
    bool m_listening = false;
};

} // namespace vemira
