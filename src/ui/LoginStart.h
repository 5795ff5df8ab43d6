#pragma once

#include "app/SystemServices.h"
#include "records/Settings.h"

#include <QObject>
#include <memory>

class QWidget;

namespace vemira {
class AppModel;
}

namespace vemira::ui {

class ToggleSwitch;

// Starting Vemira when the session opens: the switch on the Connexions page and the guided
// setup's last step, and what a start from the session does (stay in the tray, arm standby
// again if it was armed when the last session ended and the owner agreed, asked once).
// Remembers whether standby is armed until the application begins to quit. Main thread only.
class LoginStart : public QObject {
    Q_OBJECT
public:
    LoginStart(AppModel& model, Settings settings, std::unique_ptr<LoginItem> item,
               QObject* parent = nullptr);

    bool enabled() const;
    // Turning it on asks, the first time, whether standby should be armed again; a refusal
    // of the system is shown to the owner. Emits enabledChanged either way, so a switch
    // showing the state returns to the truth.
    void setEnabled(bool enabled, QWidget* dialogParent);
    // The application was started by the session.
    void startedAtLogin(QWidget* dialogParent);
    // The application winds down: standby's state from now on is not the owner's.
    void stopTracking();

    // A switch on the page or step that shows it, kept in step with the system's entry.
    ToggleSwitch* makeSwitch(QWidget* parent);

    static QString label() { return QStringLiteral("Lancer Vemira à l’ouverture de session"); }

Q_SIGNALS:
    void enabledChanged();

private:
    bool askRearm(QWidget* dialogParent);

    AppModel& m_model;
    Settings m_settings;
    std::unique_ptr<LoginItem> m_item;
    QMetaObject::Connection m_tracking;
};

} // namespace vemira::ui
