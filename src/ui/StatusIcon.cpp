#include "ui/StatusIcon.h"

#include "app/AppModel.h"

#include <QAction>
#include <QApplication>
#include <QMenu>
#include <QSystemTrayIcon>

namespace vemira::ui {

StatusIcon::StatusIcon(AppModel* model, QObject* parent)
    : QObject(parent), m_model(model), m_tray(new QSystemTrayIcon(this)), m_menu(new QMenu)
{
    m_status = m_menu->addAction(QString());
    m_status->setEnabled(false);
    m_menu->addSeparator();
    m_standby = m_menu->addAction(QStringLiteral("Répondre aux appels"));
    m_standby->setCheckable(true);
    QAction* open = m_menu->addAction(QStringLiteral("Afficher Vemira"));
    m_menu->addSeparator();
    QAction* quit = m_menu->addAction(QStringLiteral("Quitter Vemira"));
    m_tray->setContextMenu(m_menu);

    connect(m_standby, &QAction::triggered, this, [this] {
        m_model->toggleArmed();
        refresh();
    });
    connect(open, &QAction::triggered, this, &StatusIcon::showWindowRequested);
    connect(quit, &QAction::triggered, qApp, &QApplication::quit);
    connect(m_tray, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason r) {
        if (r == QSystemTrayIcon::Trigger || r == QSystemTrayIcon::DoubleClick)
            Q_EMIT showWindowRequested();
    });
    connect(m_tray, &QSystemTrayIcon::messageClicked, this, [this] {
        if (m_lastNotice)
            Q_EMIT recordRequested(m_lastNotice->record);
    });
    for (auto signal : {&AppModel::armedChanged, &AppModel::busyChanged, &AppModel::statusChanged})
        connect(m_model, signal, this, &StatusIcon::refresh);
    connect(m_model, &AppModel::currentChanged, this, &StatusIcon::watchConversation);
    connect(m_model, &AppModel::busyChanged, this, &StatusIcon::watchConversation);
    refresh();
}

StatusIcon::~StatusIcon()
{
    delete m_menu;
}

bool StatusIcon::show()
{
    if (!QSystemTrayIcon::isSystemTrayAvailable())
        return false;
    m_tray->show();
    qApp->setProperty("vemiraTrayVisible", true);
    return true;
}

StandbyState StatusIcon::state() const
{
    if (m_model->busy())
        return StandbyState::InCall;
    return m_model->armed() ? StandbyState::Listening : StandbyState::Paused;
}

QString StatusIcon::toolTip() const
{
    switch (state()) {
    case StandbyState::InCall:
        return QStringLiteral("Vemira · en appel");
    case StandbyState::Listening:
        return QStringLiteral("Vemira · à l’écoute des appels");
    case StandbyState::Paused:
        break;
    }
    return QStringLiteral("Vemira · en pause");
}

void StatusIcon::refresh()
{
    m_tray->setIcon(AppIcon::tray(state()));
    m_tray->setToolTip(toolTip());
    m_status->setText(m_model->status().isEmpty() ? toolTip() : m_model->status());
    m_standby->setChecked(m_model->armed());
}

// A phone conversation that ends is saved at the head of the records: tell the owner, and
// let the notification open that record.
void StatusIcon::watchConversation()
{
    if (m_model->busy()) {
        if (const auto& current = m_model->current()) {
            m_conversation = current->id;
            m_phoneConversation = m_model->phoneSession();
        }
        return;
    }
    if (m_conversation.isNull())
        return;
    const QUuid finished = m_conversation;
    const bool phone = m_phoneConversation;
    m_conversation = QUuid();
    m_phoneConversation = false;
    if (!phone)
        return;
    for (const CallRecord& record : m_model->records()) {
        if (record.id != finished)
            continue;
        Notice notice{QStringLiteral("Appel pris en charge"),
                      record.caller + QStringLiteral(" · référence ") + record.reference(),
                      record.id};
        m_lastNotice = notice;
        if (m_tray->isVisible())
            m_tray->showMessage(notice.title, notice.body, AppIcon::application(), 10000);
        return;
    }
}

} // namespace vemira::ui
