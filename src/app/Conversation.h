#pragma once

#include "audio/SoundDevice.h"
#include "core/Clock.h"
#include "records/CallRecord.h"

#include <QString>
#include <QUuid>
#include <functional>
#include <memory>
#include <optional>

namespace vemira {

class CallAudioRecorder;

// Where the receptionist stands. `status` and `detail` follow from it (AppModel::setPhase).
enum class Phase {
    Paused,       // standby off
    Listening,    // armed, the phone is watched
    Ringing,      // armed, a call rings and is being confirmed
    Connecting,   // a conversation began, the AI is not ready yet
    InCall,       // a phone call is connected to the AI
    Intervention, // the manager speaks to the caller
    CoolDown,     // armed, right after a conversation: no call is looked at yet
    Testing,      // a conversation on the computer is connected to the AI
};

// One conversation, from `begin` to the end of `finish`. Everything that belongs to a single
// call lives here and dies with it; work started for a call (delayed tasks, audio hand-offs)
// captures `generation` and does nothing once the model holds another conversation or none.
struct Conversation {
    Conversation(bool phoneMode, CallRecord firstRecord, double startedAt, SoundDevice in,
                 SoundDevice out)
        : phoneSession(phoneMode), started(startedAt), input(std::move(in)), output(std::move(out)),
          record(std::move(firstRecord))
    {}

    const QUuid generation = QUuid::createUuid();
    const bool phoneSession;
    // Uptime when it began.
    const double started;
    const SoundDevice input;
    const SoundDevice output;
    // The record being written; saved by `finish`.
    CallRecord record;

    // The AI readiness watchdog and the check made shortly after answering.
    TaskHandlePtr readinessTimeout;
    TaskHandlePtr postAnswerCheck;
    // What runs once the AI is ready (answering the call); cleared when it ran.
    std::function<void()> readyAction;
    std::shared_ptr<CallAudioRecorder> recorder;

    // Whether the phone application was seen holding the call, and the ticks since it was not.
    // An offer waits to be answered once the AI is ready.
    bool awaitingAnswer = false;
    // The phone call is ours: answered by us, or taken over as it was.
    bool answered = false;
    // Ending it presses the phone's hang-up button if the call is still there; not once the
    // caller left, nor when the manager was told to take the call back by hand.
    bool hangUpAtEnd = true;
    // The record goes into the history; not for a call the owner took on the phone first.
    bool keepRecord = true;
    // At the time limit: when the goodbye was asked, and whether the AI said it.
    std::optional<double> goodbyeAsked;
    bool goodbyeSaid = false;
    // The AI left during the manager's intervention: the call is theirs until it ends.
    bool aiGone = false;
    bool sawActiveCall = false;
    int missingActive = 0;
    int audioRecoveryCount = 0;

    // Set once `finish` began: nothing of the conversation's own checks runs any more.
    bool ending = false;
    // What the status line reads once it ended; null: the phase's own text.
    QString endStatus;
    // The detail line once it ended; null: the conversation is said to be kept.
    QString endDetail;
    // The wind-down step under way and its bound.
    int windDownStep = 0;
    TaskHandlePtr windDownBound;
};

} // namespace vemira
