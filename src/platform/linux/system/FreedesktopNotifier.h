#pragma once

#include "notify/DesktopNotifier.h"

#include <QDBusConnection>
#include <QHash>
#include <QObject>

namespace vemira {

// Desktop notifications through the freedesktop Notifications service on the session bus
// (any notification daemon: GNOME Shell, KDE Plasma, dunst, xfce4-notifyd…). Clicking the
// notification invokes its "default" action, which opens the call.
class FreedesktopNotifier final : public QObject, public DesktopNotifier {
    Q_OBJECT

public:
    explicit FreedesktopNotifier(QDBusConnection bus = QDBusConnection::sessionBus(),
                                 QObject* parent = nullptr);
    void show(const CallNotice& notice) override;

    // Notifications shown and not yet closed (the daemon's ids).
    int open() const { return static_cast<int>(m_calls.size()); }

private Q_SLOTS:
    void actionInvoked(uint id, const QString& action);
    void notificationClosed(uint id, uint reason);

private:
    QDBusConnection m_bus;
    QHash<uint, QUuid> m_calls; // daemon's notification id -> call
    bool m_markup = true;       // the daemon reads the body as markup (until it says otherwise)
};

} // namespace vemira
