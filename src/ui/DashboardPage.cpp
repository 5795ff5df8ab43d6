#include "ui/DashboardPage.h"

#include "app/AppModel.h"
#include "audio/AudioBridge.h"
#include "setup/Readiness.h"
#include "ui/Bind.h"
#include "ui/PendingCallsCard.h"
#include "ui/SetupProgress.h"
#include "ui/Theme.h"
#include "ui/UiTexts.h"
#include "ui/UsagePanel.h"
#include "ui/Widgets.h"

#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QTimer>
#include <QVBoxLayout>

namespace vemira::ui {

namespace {

QString elapsedText(double seconds)
{
    const int total = qMax(0, int(seconds));
    return QStringLiteral("%1:%2").arg(total / 60).arg(total % 60, 2, 10, QLatin1Char('0'));
}

} // namespace

DashboardPage::DashboardPage(AppModel* model, Clock& clock, QWidget* parent)
    : QWidget(parent), m_model(model), m_clock(clock)
{
    setAccessibleName(QStringLiteral("Accueil"));
    auto* layout = makeScrollingPage(this);
    auto* content = layout->parentWidget();

    // Status: headline, second line, error.
    auto* state = new Card(QString(), content);
    m_status = new QLabel(state);
    Theme::styleHeadline(m_status);
    m_status->setAccessibleName(QStringLiteral("État du standard"));
    state->body()->addWidget(m_status);
    m_detail = makeLabel(QString(), state);
    Theme::styleSecondary(m_detail);
    m_detail->setAccessibleName(QStringLiteral("Détail"));
    state->body()->addWidget(m_detail);
    m_rule = makeLabel(QString(), state);
    Theme::styleSecondary(m_rule);
    m_rule->setAccessibleName(QStringLiteral("Règle en vigueur"));
    state->body()->addWidget(m_rule);
    m_error = makeLabel(QString(), state);
    Theme::styleError(m_error);
    m_error->setAccessibleName(QStringLiteral("Erreur"));
    state->body()->addWidget(m_error);
    layout->addWidget(state);

    // The calls still to be dealt with, most urgent first.
    m_pending = new PendingCallsCard(m_model, content);
    layout->addWidget(m_pending);
    connect(m_pending, &PendingCallsCard::openRequested, this, &DashboardPage::recordRequested);

    // What is missing before calls can be answered, and the setup progression.
    m_readiness = new Card(texts::notReadyHeading(), content);
    m_issues = makeLabel(QString(), m_readiness);
    m_issues->setAccessibleName(QStringLiteral("Étapes manquantes"));
    m_readiness->body()->addWidget(m_issues);
    m_progress = new QProgressBar(m_readiness);
    m_progress->setRange(0, 100);
    m_progress->setAccessibleName(QStringLiteral("Progression de la configuration"));
    m_progress->setFormat(QStringLiteral("Configuration : %p %"));
    m_readiness->body()->addWidget(m_progress);
    m_steps = makeLabel(QString(), m_readiness);
    m_steps->setAccessibleName(QStringLiteral("Étapes de la configuration"));
    m_readiness->body()->addWidget(m_steps);
    auto* setupRow = new QHBoxLayout;
    auto* openSetup = makeButton(QStringLiteral("Ouvrir la &configuration guidée"), m_readiness);
    setupRow->addWidget(openSetup);
    setupRow->addStretch(1);
    m_readiness->body()->addLayout(setupRow);
    layout->addWidget(m_readiness);
    connect(openSetup, &QPushButton::clicked, this, &DashboardPage::setupRequested);

    // The live call.
    m_call = new Card(QStringLiteral("Appel en cours"), content);
    auto* head = new QHBoxLayout;
    m_caller = new QLabel(m_call);
    Theme::styleHeadline(m_caller);
    m_caller->setAccessibleName(QStringLiteral("Interlocuteur"));
    head->addWidget(m_caller, 1);
    m_elapsed = new QLabel(m_call);
    Theme::styleHeadline(m_elapsed);
    m_elapsed->setAccessibleName(QStringLiteral("Durée de l’appel"));
    head->addWidget(m_elapsed);
    m_call->body()->addLayout(head);
    m_transcript = new QPlainTextEdit(m_call);
    m_transcript->setReadOnly(true);
    m_transcript->setTabChangesFocus(true);
    m_transcript->setMinimumHeight(180);
    m_transcript->setAccessibleName(QStringLiteral("Transcription en direct"));
    QFont big = m_transcript->font();
    big.setPointSizeF(big.pointSizeF() * 1.1);
    m_transcript->setFont(big);
    m_call->body()->addWidget(m_transcript, 1);
    m_usage = new UsagePanel(m_call);
    m_call->body()->addWidget(m_usage);

    auto* audio = new QGridLayout;
    m_diagnostic = makeLabel(QString(), m_call);
    Theme::styleSecondary(m_diagnostic);
    m_diagnostic->setAccessibleName(QStringLiteral("Diagnostic audio"));
    audio->addWidget(m_diagnostic, 0, 0, 1, 2);
    audio->addWidget(new QLabel(QStringLiteral("Son reçu"), m_call), 1, 0);
    m_rawLevel = new LevelMeter(QStringLiteral("Niveau du son reçu"), m_call);
    audio->addWidget(m_rawLevel, 1, 1);
    audio->addWidget(new QLabel(QStringLiteral("Son transmis à l’IA"), m_call), 2, 0);
    m_convertedLevel = new LevelMeter(QStringLiteral("Niveau du son transmis à l’IA"), m_call);
    audio->addWidget(m_convertedLevel, 2, 1);
    audio->setColumnStretch(1, 1);
    m_call->body()->addLayout(audio);

    auto* intervention = new QHBoxLayout;
    m_interventionText = makeLabel(QString(), m_call);
    m_interventionText->setAccessibleName(QStringLiteral("Intervention"));
    intervention->addWidget(m_interventionText, 1);
    m_intervene = makeButton(texts::intervene(), m_call);
    intervention->addWidget(m_intervene);
    m_endCall = makeButton(QStringLiteral("&Terminer la conversation"), m_call);
    intervention->addWidget(m_endCall);
    m_call->body()->addLayout(intervention);
    layout->addWidget(m_call);
    connect(m_intervene, &QPushButton::clicked, m_model, &AppModel::toggleIntervention);
    connect(m_endCall, &QPushButton::clicked, m_model, &AppModel::finish);

    // Session log.
    auto* logCard = new Card(QStringLiteral("Journal de la session"), content);
    m_log = new QListWidget(logCard);
    m_log->setAccessibleName(QStringLiteral("Journal de la session"));
    m_log->setMinimumHeight(120);
    m_log->setWordWrap(true);
    logCard->body()->addWidget(m_log);
    layout->addWidget(logCard, 1);

    m_ticker = new QTimer(this);
    m_ticker->setInterval(1000);
    connect(m_ticker, &QTimer::timeout, this, &DashboardPage::refreshElapsed);

    bind(m_model, &AppModel::statusChanged, this,
         [this] { setTextIfChanged(m_status, m_model->status()); });
    bind(m_model, &AppModel::detailChanged, this,
         [this] { setTextIfChanged(m_detail, m_model->detail()); });
    bind(m_model, &AppModel::answeringRuleChanged, this,
         [this] { setTextIfChanged(m_rule, m_model->answeringRule()); });
    bind(m_model, &AppModel::errorChanged, this, [this] {
        setTextIfChanged(m_error, m_model->error());
        m_error->setVisible(!m_model->error().isEmpty());
    });
    bind(m_model, &AppModel::readinessIssuesChanged, this, &DashboardPage::refreshReadiness);
    connect(m_model, &AppModel::setupPercentChanged, this, &DashboardPage::refreshReadiness);
    connect(m_model, &AppModel::validatedCallIDChanged, this, &DashboardPage::refreshReadiness);
    bind(m_model, &AppModel::busyChanged, this, &DashboardPage::refreshCall);
    connect(m_model, &AppModel::connectedChanged, this, &DashboardPage::refreshCall);
    connect(m_model, &AppModel::currentChanged, this, &DashboardPage::refreshCall);
    bind(m_model, &AppModel::conversationUsageChanged, this, [this] {
        const ConversationUsage usage = m_model->conversationUsage();
        m_usage->setUsageLabel(usage.label());
        m_usage->setModelName(usage.model.isEmpty() ? m_model->model() : usage.model);
    });
    bind(m_model, &AppModel::audioDiagnosticChanged, this,
         [this] { setTextIfChanged(m_diagnostic, m_model->audioDiagnostic()); });
    bind(m_model, &AppModel::probeLevelsChanged, this, [this] {
        m_rawLevel->setLevel(m_model->probeLevels().first);
        m_convertedLevel->setLevel(m_model->probeLevels().second);
    });
    bind(m_model, &AppModel::interveningChanged, this, &DashboardPage::refreshIntervention);
    bind(m_model, &AppModel::logChanged, this, [this] {
        const QStringList lines = m_model->log();
        m_log->clear();
        m_log->addItems(lines);
    });
}

void DashboardPage::refreshReadiness()
{
    const QStringList issues = m_model->readinessIssues();
    m_readiness->setVisible(!issues.isEmpty());
    QStringList bullets;
    for (const QString& issue : issues)
        bullets << QStringLiteral("• ") + issue;
    setTextIfChanged(m_issues, bullets.join(QLatin1Char('\n')));
    m_progress->setValue(m_model->setupPercent());
    setTextIfChanged(m_steps, setupStepsLine(*m_model));
}

void DashboardPage::refreshCall()
{
    const bool busy = m_model->busy();
    m_call->setVisible(busy);
    if (busy && !m_ticker->isActive())
        m_ticker->start();
    if (!busy)
        m_ticker->stop();
    const auto& current = m_model->current();
    setTextIfChanged(m_caller, current ? current->caller : QString());
    refreshTranscript();
    refreshIntervention();
    refreshElapsed();
}

void DashboardPage::refreshTranscript()
{
    const auto& current = m_model->current();
    if (!current) {
        return;
    }
    const QString id = current->id.toString();
    if (id != m_transcriptFor) {
        m_transcript->clear();
        m_transcriptLines = 0;
        m_transcriptFor = id;
    }
    // Lines only ever get appended during a call: add the new ones, keep the reader's place
    // unless they were following the end.
    QScrollBar* bar = m_transcript->verticalScrollBar();
    const bool following = bar->value() >= bar->maximum() - 4;
    for (qsizetype i = m_transcriptLines; i < current->transcript.size(); ++i) {
        const TranscriptLine& line = current->transcript[i];
        m_transcript->appendPlainText(line.speaker + QStringLiteral(" : ") + line.text);
    }
    m_transcriptLines = int(current->transcript.size());
    if (following)
        bar->setValue(bar->maximum());
}

void DashboardPage::refreshIntervention()
{
    const bool phoneCall = m_model->busy() && m_model->phoneSession();
    m_intervene->setVisible(phoneCall);
    m_interventionText->setVisible(phoneCall);
    if (!phoneCall)
        return;
    // The manager can only take over a call whose sound already flows.
    const bool soundWorks = m_model->connected() && !m_model->audio().needsRestart();
    if (m_model->intervening()) {
        setTextIfChanged(m_interventionText, texts::micOpen());
        m_intervene->setText(texts::giveBack());
        m_intervene->setAccessibleName(texts::giveBack());
        m_intervene->setEnabled(true);
    } else if (soundWorks) {
        setTextIfChanged(m_interventionText, texts::micClosed());
        m_intervene->setText(texts::intervene());
        m_intervene->setAccessibleName(texts::intervene());
        m_intervene->setEnabled(true);
    } else {
        setTextIfChanged(m_interventionText, texts::interventionNeedsSound());
        m_intervene->setText(texts::intervene());
        m_intervene->setAccessibleName(texts::intervene());
        m_intervene->setEnabled(false);
    }
}

void DashboardPage::refreshElapsed()
{
    const auto started = m_model->callStarted();
    setTextIfChanged(m_elapsed, started ? elapsedText(m_clock.uptime() - *started) : QString());
    if (m_model->connected()) {
        const auto [raw, converted] = m_model->audio().inputLevels();
        m_rawLevel->setLevel(raw);
        m_convertedLevel->setLevel(converted);
        refreshIntervention(); // the sound may have stopped or come back
    }
}

} // namespace vemira::ui
