#pragma once

#include <QDialog>

class QCheckBox;
class QLabel;
class QLineEdit;
class QListWidget;
class QProgressBar;
class QPushButton;
class QStackedWidget;
class QVBoxLayout;
class QWidget;

namespace vemira {
class AppModel;
}

namespace vemira::ui {

class GuidedSetup;
class LevelMeter;

// The guided setup: four steps on the left with their state, one step at a time on the
// right, each saying what is missing and offering the one button that fixes it.
class SetupAssistant : public QDialog {
    Q_OBJECT

public:
    SetupAssistant(AppModel* model, GuidedSetup* setup, QWidget* parent = nullptr);

    void showStep(int index);
    // Adds a line to the last step, above its end (the start at login).
    void addToLastStep(QWidget* widget);
    int currentStep() const;
    // The first step not done yet (the last one when all are done).
    int firstOpenStep() const;
    QListWidget* stepList() const { return m_steps; }
    QProgressBar* progress() const { return m_progress; }

private:
    QWidget* buildSoundStep();
    void addDeviceControls(QWidget* page, QVBoxLayout* body);
    QWidget* buildPermissionsStep();
    QWidget* buildAIStep();
    QWidget* buildPhoneStep();
    void refresh();

    AppModel* m_model;
    GuidedSetup* m_setup;
    QListWidget* m_steps;
    QStackedWidget* m_pages;
    QVBoxLayout* m_lastStepBody = nullptr;
    QProgressBar* m_progress;
    QPushButton* m_previous;
    QPushButton* m_next;

    QLabel* m_driver;
    QLabel* m_configuration;
    LevelMeter* m_probeRaw;
    LevelMeter* m_probeConverted;
    QPushButton* m_configure;
    QPushButton* m_createDevices = nullptr;
    QPushButton* m_removeDevices = nullptr;
    QCheckBox* m_persistDevices = nullptr;
    QLabel* m_accessibility;
    QLabel* m_microphone;
    LevelMeter* m_micLevel;
    QLabel* m_micStatus;
    QPushButton* m_testMic;
    QLineEdit* m_key;
    QLabel* m_keyState;
    QLabel* m_aiStatus;
    QPushButton* m_verify;
    QLabel* m_phoneStatus;
    QLabel* m_relayStatus;
    QLabel* m_validated;
    QPushButton* m_observe;
};

} // namespace vemira::ui
