#pragma once

#include <QUuid>
#include <QWidget>

class QLabel;
class QListWidget;
class QPlainTextEdit;
class QProgressBar;
class QPushButton;
class QTimer;

namespace vemira {
class AppModel;
class Clock;
} // namespace vemira

namespace vemira::ui {

class Card;
class LevelMeter;
class PendingCallsCard;
class UsagePanel;

// What the owner looks at: the switchboard's state, what is missing before it can answer,
// the live call and the session log.
class DashboardPage : public QWidget {
    Q_OBJECT

public:
    DashboardPage(AppModel* model, Clock& clock, QWidget* parent = nullptr);

    QLabel* statusLabel() const { return m_status; }
    QLabel* detailLabel() const { return m_detail; }
    QLabel* ruleLabel() const { return m_rule; }
    QLabel* errorLabel() const { return m_error; }
    Card* readinessCard() const { return m_readiness; }
    Card* callCard() const { return m_call; }
    QPlainTextEdit* transcriptView() const { return m_transcript; }
    QLabel* elapsedLabel() const { return m_elapsed; }
    QPushButton* interventionButton() const { return m_intervene; }
    QLabel* interventionLabel() const { return m_interventionText; }
    UsagePanel* usagePanel() const { return m_usage; }
    QListWidget* logList() const { return m_log; }
    PendingCallsCard* pendingCalls() const { return m_pending; }

Q_SIGNALS:
    void setupRequested();
    void testRequested();
    void recordRequested(const QUuid& id);

private:
    void refreshReadiness();
    void refreshCall();
    void refreshTranscript();
    void refreshIntervention();
    void refreshElapsed();

    AppModel* m_model;
    Clock& m_clock;
    QLabel* m_status;
    QLabel* m_detail;
    QLabel* m_rule;
    QLabel* m_error;
    Card* m_readiness;
    QLabel* m_issues;
    QProgressBar* m_progress;
    QLabel* m_steps;
    PendingCallsCard* m_pending;
    Card* m_call;
    QLabel* m_caller;
    QLabel* m_elapsed;
    QPlainTextEdit* m_transcript;
    int m_transcriptLines = 0;
    QString m_transcriptFor;
    UsagePanel* m_usage;
    QLabel* m_diagnostic;
    LevelMeter* m_rawLevel;
    LevelMeter* m_convertedLevel;
    QLabel* m_interventionText;
    QPushButton* m_intervene;
    QPushButton* m_endCall;
    QListWidget* m_log;
    QTimer* m_ticker;
};

} // namespace vemira::ui
