#include "ui/LoginStart.h"

#include "app/AppModel.h"
#include "ui/Widgets.h"

#include <QCoreApplication>
#include <QMessageBox>
#include <QSignalBlocker>

namespace vemira::ui {

LoginStart::LoginStart(AppModel& model, Settings settings, std::unique_ptr<LoginItem> item,
                       QObject* parent)
    : QObject(parent), m_model(model), m_settings(std::move(settings)), m_item(std::move(item))
{
    m_tracking = connect(&model, &AppModel::armedChanged, this,
                         [this] { m_settings.setArmedAtExit(m_model.armed()); });
    // Winding down disarms; what counts is the state the owner left it in.
    connect(qApp, &QCoreApplication::aboutToQuit, this, &LoginStart::stopTracking);
}

bool LoginStart::enabled() const
{
    const Result<bool> enabled = m_item->enabled();
    return enabled && enabled.value();
}

bool LoginStart::askRearm(QWidget* dialogParent)
{
    const bool rearm =
        QMessageBox::question(
            dialogParent, QStringLiteral("Vemira"),
            QStringLiteral("À l’ouverture de session, remettre le standard en veille s’il "
                           "répondait aux appels quand la session a été fermée ?\n\nCette "
                           "question n’est posée qu’une fois."),
            QMessageBox::Yes | QMessageBox::No, QMessageBox::Yes) == QMessageBox::Yes;
    m_settings.setRearmAtLogin(rearm);
    return rearm;
}

void LoginStart::setEnabled(bool enabled, QWidget* dialogParent)
{
    if (Status failed = m_item->setEnabled(enabled)) {
        QMessageBox::warning(dialogParent, QStringLiteral("Vemira"), failed->message());
    } else if (enabled && !m_settings.rearmAtLogin().has_value()) {
        askRearm(dialogParent);
    }
    Q_EMIT enabledChanged();
}

void LoginStart::stopTracking()
{
    disconnect(m_tracking);
}

ToggleSwitch* LoginStart::makeSwitch(QWidget* parent)
{
    auto* toggle = new ToggleSwitch(label(), parent);
    toggle->setAccessibleName(label());
    const auto refresh = [this, toggle] {
        const QSignalBlocker block(toggle);
        toggle->setChecked(enabled());
    };
    refresh();
    connect(this, &LoginStart::enabledChanged, toggle, refresh);
    connect(toggle, &ToggleSwitch::toggled, this,
            [this, toggle](bool on) { setEnabled(on, toggle->window()); });
    return toggle;
}

void LoginStart::startedAtLogin(QWidget* dialogParent)
{
    m_model.event(QStringLiteral("Lancé à l’ouverture de session."));
    if (!m_settings.armedAtExit() || m_model.armed())
        return;
    const std::optional<bool> answer = m_settings.rearmAtLogin();
    if (answer.has_value() ? *answer : askRearm(dialogParent)) {
        m_model.event(QStringLiteral("Le standard était en veille à la fermeture de la "
                                     "session : remise en veille."));
        m_model.toggleArmed();
    }
}

} // namespace vemira::ui
