#pragma once

#include "ui/AppIcon.h"

#include <QObject>
#include <QUuid>

class QAction;
class QMenu;
class QSystemTrayIcon;

namespace vemira {
class AppModel;
}

namespace vemira::ui {

// The icon in the menu bar / system tray: paused, listening or in a call, with the standby
// switch at hand, and the notification of each call taken and saved.
class StatusIcon : public QObject {
    Q_OBJECT

public:
    explicit StatusIcon(AppModel* model, QObject* parent = nullptr);
    ~StatusIcon() override;

    StandbyState state() const;
    QString toolTip() const;
    QAction* standbyAction() const { return m_standby; }
    QMenu* menu() const { return m_menu; }
    bool show();

    // The text of the notification for a call taken and saved.
    struct Notice {
        QString title;
        QString body;
        QUuid record;
    };
    const std::optional<Notice>& lastNotice() const { return m_lastNotice; }

Q_SIGNALS:
    void showWindowRequested();
    // The user clicked the notification of this record.
    void recordRequested(const QUuid& id);

private:
    void refresh();
    void watchConversation();

    AppModel* m_model;
    QSystemTrayIcon* m_tray;
    QMenu* m_menu;
    QAction* m_status;
    QAction* m_standby;
    QUuid m_conversation; // record id of the conversation under way
    bool m_phoneConversation = false;
    std::optional<Notice> m_lastNotice;
};

} // namespace vemira::ui
