#include "SoftphoneWindow.h"

#include "demo/MonotonicTime.h"

#include <QApplication>
#include <QFile>
#include <QJsonObject>
#include <QLabel>
#include <QPushButton>
#include <QSocketNotifier>
#include <QVBoxLayout>
#include <unistd.h>

namespace vemira::e2e {

SoftphoneWindow::SoftphoneWindow(Options options)
    : m_options(std::move(options)), m_marks(m_options.marksPath),
      m_audio(m_options.callSink, m_options.voiceSource)
{
    setWindowTitle(QStringLiteral("Softphone de test"));
    auto* central = new QWidget(this);
    m_layout = new QVBoxLayout(central);
    auto* banner =
        new QLabel(QStringLiteral("Outil de test de Vemira — ce n’est pas un téléphone"), central);
    m_layout->addWidget(banner);
    setCentralWidget(central);
    resize(360, 220);

    m_callerLines = m_options.script.linesOf(ScriptLine::Role::Caller);
    m_marks.set(QStringLiteral("pid"), QCoreApplication::applicationPid());

    connect(&m_audio, &CallAudio::lineStarted, this,
            [this](const QString& id, qint64 written, qint64 played) {
                m_marks.append(QStringLiteral("callerLines"),
                               {{QStringLiteral("id"), id},
                                {QStringLiteral("onsetWritten"), written},
                                {QStringLiteral("onsetPlayed"), played}});
            });
    connect(&m_audio, &CallAudio::lineFinished, this, [this](const QString&) {
        m_waitingForReply = true;
        m_replyHeard = false;
        m_turnTimeout.start();
    });
    connect(&m_audio, &CallAudio::heardSpeechStarted, this, &SoftphoneWindow::assistantStarted);
    connect(&m_audio, &CallAudio::heardSpeechStopped, this, &SoftphoneWindow::assistantStopped);
    connect(&m_audio, &CallAudio::failed, this, [this](const QString& message) {
        m_marks.set(QStringLiteral("audioError"), message);
        hangUp(QStringLiteral("caller"));
    });

    m_ringTimeout.setSingleShot(true);
    m_ringTimeout.setInterval(int(m_options.ringTimeoutSeconds * 1000));
    connect(&m_ringTimeout, &QTimer::timeout, this, [this] {
        m_marks.set(QStringLiteral("missed"), monotonicNs());
        m_state = State::Ended;
        showPanel(QStringLiteral("Appel manqué"), m_options.script.callerNumber, {});
    });
    m_turnTimeout.setSingleShot(true);
    m_turnTimeout.setInterval(int(m_options.turnTimeoutSeconds * 1000));
    connect(&m_turnTimeout, &QTimer::timeout, this, [this] {
        m_marks.set(QStringLiteral("turnTimeout"), monotonicNs());
        hangUp(QStringLiteral("caller"));
    });

    showPanel(QStringLiteral("Aucun appel"), {}, {});
    if (m_options.ringOnStdin) {
        // Whoever drives the scenario says when the call arrives (once Vemira is armed).
        m_stdin = new QSocketNotifier(STDIN_FILENO, QSocketNotifier::Read, this);
        connect(m_stdin, &QSocketNotifier::activated, this, [this] {
            char buffer[64];
            const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
            if (n <= 0) {
                m_stdin->setEnabled(false);
                return;
            }
            if (m_state == State::Idle && QByteArray(buffer, int(n)).contains("ring"))
                ring();
        });
    } else {
        QTimer::singleShot(int(m_options.ringAfterSeconds * 1000), this, &SoftphoneWindow::ring);
    }
}

// Each state gets fresh widgets rather than relabelled ones, so no button of an earlier
// state lingers (hidden but still listed) in the accessibility tree.
void SoftphoneWindow::showPanel(const QString& headline, const QString& number,
                                const QString& button)
{
    if (m_panel) {
        m_panel->hide();
        m_panel->deleteLater();
    }
    m_panel = new QWidget(centralWidget());
    auto* layout = new QVBoxLayout(m_panel);
    layout->addWidget(new QLabel(headline, m_panel));
    if (!number.isEmpty())
        layout->addWidget(new QLabel(number, m_panel));
    if (!button.isEmpty()) {
        auto* push = new QPushButton(button, m_panel);
        layout->addWidget(push);
        if (m_state == State::Ringing)
            connect(push, &QPushButton::clicked, this, &SoftphoneWindow::answer);
        else
            connect(push, &QPushButton::clicked, this,
                    [this] { hangUp(QStringLiteral("callee")); });
    }
    m_layout->addWidget(m_panel);
}

void SoftphoneWindow::ring()
{
    m_state = State::Ringing;
    showPanel(QStringLiteral("Appel entrant"), m_options.script.callerNumber,
              QStringLiteral("Répondre"));
    m_marks.set(QStringLiteral("ringStart"), monotonicNs());
    m_ringTimeout.start();
}

void SoftphoneWindow::answer()
{
    if (m_state != State::Ringing)
        return;
    m_marks.set(QStringLiteral("answered"), monotonicNs());
    m_ringTimeout.stop();
    QString error;
    if (!m_audio.start(&error)) {
        m_marks.set(QStringLiteral("audioError"), error);
        m_state = State::Ended;
        showPanel(QStringLiteral("Appel terminé"), error, {});
        return;
    }
    m_state = State::InCall;
    showPanel(QStringLiteral("Appel en cours"), m_options.script.callerNumber,
              QStringLiteral("Raccrocher"));
    // The answering side speaks first: wait for its greeting.
    m_waitingForReply = true;
    m_replyHeard = false;
    m_turnTimeout.start();
}

void SoftphoneWindow::assistantStarted(qint64 atNs)
{
    m_marks.append(QStringLiteral("heardStarts"), {{QStringLiteral("at"), atNs}});
    if (m_waitingForReply)
        m_replyHeard = true;
}

void SoftphoneWindow::assistantStopped(qint64 atNs)
{
    m_marks.append(QStringLiteral("heardStops"), {{QStringLiteral("at"), atNs}});
    if (!m_waitingForReply || !m_replyHeard)
        return;
    m_waitingForReply = false;
    m_turnTimeout.stop();
    speakNextLine();
}

void SoftphoneWindow::speakNextLine()
{
    if (m_state != State::InCall)
        return;
    if (m_nextLine < m_callerLines.size()) {
        m_audio.say(m_callerLines.at(m_nextLine++));
        return;
    }
    // Nothing left to say: the caller hangs up, as callers do after the goodbye.
    QTimer::singleShot(500, this, [this] { hangUp(QStringLiteral("caller")); });
}

void SoftphoneWindow::hangUp(const QString& by)
{
    if (m_state != State::InCall)
        return;
    m_state = State::Ended;
    m_turnTimeout.stop();
    m_marks.set(QStringLiteral("hungUp"), monotonicNs());
    m_marks.set(QStringLiteral("hangupBy"), by);
    m_audio.stop();
    if (!m_options.recordingPath.isEmpty()) {
        QFile file(m_options.recordingPath);
        if (file.open(QIODevice::WriteOnly))
            file.write(m_audio.recording());
        m_marks.set(QStringLiteral("recording"), m_options.recordingPath);
    }
    showPanel(QStringLiteral("Appel terminé"), m_options.script.callerNumber, {});
    if (m_options.quitAfterCallSeconds >= 0)
        QTimer::singleShot(int(m_options.quitAfterCallSeconds * 1000), qApp, &QApplication::quit);
}

} // namespace vemira::e2e
