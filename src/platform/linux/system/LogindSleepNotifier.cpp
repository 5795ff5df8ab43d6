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
    if (m_listening)
        takeLock();
}

void LogindSleepNotifier::takeLock()
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(kService, kPath, kManager, QStringLiteral("Inhibit"));
    call << QStringLiteral("sleep") << QStringLiteral("Vemira")
         << QStringLiteral("Enregistrement de la conversation en cours") << QStringLiteral("delay");
    // Asked without blocking: the start-up must not wait on logind. A refused lock only
    // means the machine will not wait for us; the signal still comes.
    auto* watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call, 5000), this);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, this,
                     [this](QDBusPendingCallWatcher* finished) {
                         QDBusPendingReply<QDBusUnixFileDescriptor> reply = *finished;
                         if (reply.isValid() && !reply.isError())
                             m_lock = reply.value();
                         finished->deleteLater();
                     });
}

void LogindSleepNotifier::prepareForSleep(bool start)
{
    if (!start) {
        takeLock();
        if (onWoke)
            onWoke();
        return;
    }
    if (onWillSleep)
        onWillSleep();
    m_lock = QDBusUnixFileDescriptor(); // closing our copy lets the machine sleep
}

std::unique_ptr<SleepNotifier> createPlatformSleepNotifier()
{
    return std::make_unique<LogindSleepNotifier>();
}

} // namespace vemira
