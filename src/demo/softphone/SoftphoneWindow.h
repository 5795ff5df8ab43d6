#pragma once

#include "CallAudio.h"
#include "demo/ConversationScript.h"
#include "demo/MarksFile.h"

#include <QMainWindow>
#include <QTimer>

class QLabel;
class QSocketNotifier;
class QVBoxLayout;

namespace vemira::e2e {

// A deliberately plain softphone window for the scenario: it rings, shows the caller's
// number and an answer button, becomes an active call with a hang-up button once answered,
// and plays its side of the scripted conversation, each caller line once the other side has
// finished speaking. Its labels are those any softphone shows, so it is found the way a real
// one would be: through its accessibility tree.
class SoftphoneWindow : public QMainWindow {
    Q_OBJECT

public:
    struct Options {
        ConversationScript script;
        QString callSink;    // where the caller's voice is played
        QString voiceSource; // where the reply is heard (the voice device's monitor)
        QString marksPath;
        QString recordingPath;
        double ringAfterSeconds = 1.0;
        double ringTimeoutSeconds = 45.0;
        double turnTimeoutSeconds = 25.0;
        double quitAfterCallSeconds = -1; // negative: stay open until closed
        bool ringOnStdin = false;         // ring when a line "ring" is read instead
    };

    explicit SoftphoneWindow(Options options);

private:
    enum class State { Idle, Ringing, InCall, Ended };

    void showPanel(const QString& headline, const QString& number, const QString& button);
    void ring();
    void answer();
    void hangUp(const QString& by);
    void assistantStarted(qint64 atNs);
    void assistantStopped(qint64 atNs);
    void speakNextLine();

    Options m_options;
    MarksFile m_marks;
    CallAudio m_audio;
    State m_state = State::Idle;
    QVBoxLayout* m_layout = nullptr;
    QWidget* m_panel = nullptr;
    QTimer m_ringTimeout;
    QSocketNotifier* m_stdin = nullptr;
    QTimer m_turnTimeout;
    QList<ScriptLine> m_callerLines;
    int m_nextLine = 0;
    bool m_waitingForReply = false;
    bool m_replyHeard = false;
};

} // namespace vemira::e2e
