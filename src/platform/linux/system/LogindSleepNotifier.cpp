#include "platform/linux/system/LogindSleepNotifier.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>

namespace vemira {

namespace {
const QString kService = QStringLiteral("org.freedesktop.login1");
const QString kPath = QStringLiteral("/org/freedesktop/login1");
const QString kManager = QStringLiteral("org.freedesktop.login1.Manager");
} // namespace

LogindSleepNotifier::LogindSleepNotifier(QDBusConnection bus) : m_bus(std::move(bus))
{
    if (!m_bus.isConnected())
        return;
    m_listening = m_bus.connect(kService, kPath, kManager, QStringLiteral("PrepareForSleep"), this,
                                SLOT(prepareForSleep(bool)));
    if (!m_listening)
        return;
    takeLock(QStringLiteral("sleep"), &m_lock);
    if (m_bus.connect(kService, kPath, kManager, QStringLiteral("PrepareForShutdown"), this,
                      SLOT(prepareForShutdown(bool))))
        takeLock(QStringLiteral("shutdown"), &m_shutdownLock);
}

void LogindSleepNotifier::takeLock(const QString& what, QDBusUnixFileDescriptor* lock)
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(kService, kPath, kManager, QStringLiteral("Inhibit"));
    call << what << QStringLiteral("Vemira")
         << QStringLiteral("Enregistrement de la conversation en cours") << QStringLiteral("delay");
    // Asked without blocking: the start-up must not wait on logind. A refused lock only
    // means the machine will not wait for us; the signal still comes.
    auto* watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call, 5000), this);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, this,
                     [lock](QDBusPendingCallWatcher* finished) {
                         QDBusPendingReply<QDBusUnixFileDescriptor> reply = *finished;
                         if (reply.isValid() && !reply.isError())
                             *lock = reply.value();
                         finished->deleteLater();
                     });
}

void LogindSleepNotifier::prepareForSleep(bool start)
{
    if (!start) {
        takeLock(QStringLiteral("sleep"), &m_lock);
        if (onWoke)
            onWoke();
        return;
    }
    if (onWillSleep)
        onWillSleep();
    m_lock = QDBusUnixFileDescriptor(); // closing our copy lets the machine sleep
}

void LogindSleepNotifier::prepareForShutdown(bool start)
{
    // A shutdown called off (start false) needs nothing: the model stays paused.
    if (!start)
        return;
    if (onWillPowerOff)
        onWillPowerOff();
    m_shutdownLock = QDBusUnixFileDescriptor();
}

std::unique_ptr<SleepNotifier> createPlatformSleepNotifier()
{
    return std::make_unique<LogindSleepNotifier>();
}

} // namespace vemira
