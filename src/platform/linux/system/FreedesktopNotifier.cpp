#include "platform/linux/system/FreedesktopNotifier.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QVariantMap>

namespace vemira {

namespace {
const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
const QString kInterface = QStringLiteral("org.freedesktop.Notifications");
const QString kDefaultAction = QStringLiteral("default");
} // namespace

FreedesktopNotifier::FreedesktopNotifier(QDBusConnection bus, QObject* parent)
    : QObject(parent), m_bus(std::move(bus))
{
    m_bus.connect(kService, kPath, kInterface, QStringLiteral("ActionInvoked"), this,
                  SLOT(actionInvoked(uint, QString)));
    m_bus.connect(kService, kPath, kInterface, QStringLiteral("NotificationClosed"), this,
                  SLOT(notificationClosed(uint, uint)));
    auto* capabilities = new QDBusPendingCallWatcher(
        m_bus.asyncCall(QDBusMessage::createMethodCall(kService, kPath, kInterface,
                                                       QStringLiteral("GetCapabilities"))),
        this);
    connect(capabilities, &QDBusPendingCallWatcher::finished, this, [this, capabilities] {
        capabilities->deleteLater();
        const QDBusPendingReply<QStringList> reply = *capabilities;
        if (!reply.isError())
            m_markup = reply.value().contains(QStringLiteral("body-markup"));
    });
}

void FreedesktopNotifier::show(const CallNotice& notice)
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(kService, kPath, kInterface, QStringLiteral("Notify"));
    QVariantMap hints;
    // Urgency: 1 normal, 2 critical (stays until the owner acts on it).
    hints.insert(QStringLiteral("urgency"), QVariant::fromValue<uchar>(notice.urgent ? 2 : 1));
    hints.insert(QStringLiteral("category"), QStringLiteral("im.received"));
    hints.insert(QStringLiteral("desktop-entry"), QStringLiteral(VEMIRA_APP_ID));
    call << QStringLiteral("Vemira") << uint(0) << QStringLiteral("call-start") << notice.title
         << (m_markup ? notice.body.toHtmlEscaped() : notice.body)
         << QStringList{kDefaultAction, notice.callId.isNull() ? QStringLiteral("Ouvrir Vemira")
                                                               : QStringLiteral("Ouvrir l’appel")}
         << hints << int(-1);
    // Asynchronous: a slow or absent daemon never holds up the main thread.
    auto* watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, watcher, callId = notice.callId] {
                watcher->deleteLater();
                const QDBusPendingReply<uint> reply = *watcher;
                if (reply.isError()) {
                    if (onError)
                        onError(QStringLiteral("Notification de bureau impossible : ") +
                                reply.error().message());
                    return;
                }
                m_calls.insert(reply.value(), callId);
            });
}

void FreedesktopNotifier::actionInvoked(uint id, const QString& action)
{
    const auto found = m_calls.constFind(id);
    if (found == m_calls.constEnd() || action != kDefaultAction)
        return;
    const QUuid callId = found.value();
    if (onActivated)
        onActivated(callId);
}

void FreedesktopNotifier::notificationClosed(uint id, uint)
{
    m_calls.remove(id);
}

} // namespace vemira

namespace vemira {

std::unique_ptr<DesktopNotifier> createPlatformDesktopNotifier()
{
    // Without a session bus (a service with no desktop) there is no one to notify.
    if (!QDBusConnection::sessionBus().isConnected())
        return nullptr;
    return std::make_unique<FreedesktopNotifier>();
}

} // namespace vemira
