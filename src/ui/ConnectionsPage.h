#pragma once

#include <QWidget>

class QBoxLayout;
class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;

namespace vemira {
class AppModel;
}

namespace vemira::ui {

class GuidedSetup;
class MailSettingsCard;
class ToggleSwitch;

// The API key, the AI check, the call's devices, the manager's devices for an
// intervention, the phone application's audio and the recording switch.
class ConnectionsPage : public QWidget {
    Q_OBJECT

public:
    ConnectionsPage(AppModel* model, GuidedSetup* setup, QWidget* parent = nullptr);

    QLineEdit* keyField() const { return m_key; }
    QPushButton* saveKeyButton() const { return m_saveKey; }
    QPushButton* deleteKeyButton() const { return m_deleteKey; }
    QPushButton* verifyButton() const { return m_verify; }
    QComboBox* modelPicker() const { return m_modelName; }
    QComboBox* inputPicker() const { return m_input; }
    QComboBox* outputPicker() const { return m_output; }
    QComboBox* interventionMicPicker() const { return m_micPicker; }
    QComboBox* interventionOutputPicker() const { return m_listenPicker; }
    ToggleSwitch* recordingSwitch() const { return m_recording; }
    MailSettingsCard* mailCard() const { return m_mail; }
    QComboBox* retentionPicker() const { return m_retention; }
    QComboBox* phoneAppPicker() const { return m_phoneApp; }

    // Places the start-at-login switch beside the other options.
    void addLoginStartSwitch(QWidget* toggle);

private:
    void refreshDevices();

    AppModel* m_model;
    GuidedSetup* m_setup;
    QBoxLayout* m_optionsBody = nullptr;
    QLineEdit* m_key;
    QPushButton* m_saveKey;
    QPushButton* m_deleteKey;
    QLabel* m_keyState;
    QPushButton* m_verify;
    QLabel* m_aiStatus;
    QComboBox* m_modelName;
    QLabel* m_modelCost;
    QComboBox* m_input;
    QComboBox* m_output;
    QLabel* m_routing;
    QComboBox* m_micPicker;
    QComboBox* m_listenPicker;
    QLabel* m_phoneStatus;
    QComboBox* m_phoneApp;
    ToggleSwitch* m_recording;
    QComboBox* m_retention;
    ToggleSwitch* m_rearmOnWake;
    QLabel* m_permissions;
    MailSettingsCard* m_mail;
};

} // namespace vemira::ui
