#pragma once

#include <QMainWindow>
#include <QPointer>
#include <QUuid>

class QLabel;
class QListWidget;
class QStackedWidget;

namespace vemira {
class AppModel;
class Clock;
} // namespace vemira

namespace vemira::ui {

class AgentPage;
class ConnectionsPage;
class DashboardPage;
class DossiersPage;
class GuidePage;
class GuidedSetup;
class LoginStart;
class RecordingWindow;
class SetupAssistant;
class TestWindow;
class ToggleSwitch;
class VoiceWindow;

// The application's one main window: the standby switch and state always in view at the
// top, the five pages on the left (Ctrl+1 … Ctrl+5), and the secondary windows.
class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    MainWindow(AppModel* model, Clock& clock, GuidedSetup* setup, QWidget* parent = nullptr);
    ~MainWindow() override;

    void showPage(const QString& name);
    QString currentPage() const;
    SetupAssistant* openSetupAssistant();
    // Shows the start-at-login switch on the Connexions page and the setup's last step.
    void setLoginStart(LoginStart* start);
    VoiceWindow* openVoiceWindow();
    TestWindow* openTestWindow();
    RecordingWindow* openRecording(const QUuid& id);
    // Brings the window forward with the record selected on the dossier page.
    void showRecord(const QUuid& id);
    // Opens the guided setup on first start while the switchboard cannot answer yet.
    void presentStartupAssistant();

    ToggleSwitch* standbySwitch() const { return m_standby; }
    QLabel* stateBadge() const { return m_badge; }
    QListWidget* navigation() const { return m_nav; }
    DashboardPage* dashboardPage() const { return m_dashboard; }
    AgentPage* agentPage() const { return m_agent; }
    DossiersPage* dossiersPage() const { return m_dossiers; }
    ConnectionsPage* connectionsPage() const { return m_connections; }
    GuidePage* guidePage() const { return m_guide; }

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    void buildMenus();
    void refreshState();

    AppModel* m_model;
    Clock& m_clock;
    GuidedSetup* m_setup;
    ToggleSwitch* m_standby;
    QLabel* m_badge;
    QLabel* m_company;
    QListWidget* m_nav;
    QStackedWidget* m_stack;
    DashboardPage* m_dashboard;
    AgentPage* m_agent;
    DossiersPage* m_dossiers;
    ConnectionsPage* m_connections;
    GuidePage* m_guide;
    QPointer<SetupAssistant> m_setupWindow;
    LoginStart* m_loginStart = nullptr; // owned by the caller of setLoginStart
    QPointer<VoiceWindow> m_voiceWindow;
    QPointer<TestWindow> m_testWindow;
    QPointer<RecordingWindow> m_recordingWindow;
};

} // namespace vemira::ui
