#pragma once

#include <QString>
#include <QStringList>

namespace vemira {

enum class WordingPlatform { MacOS, Linux };

// The texts that name the computer, its phone application and its sound system, and the
// controls that exist on one platform only. On macOS the computer is "le Mac", the calls come
// from the iPhone through the Phone application and a companion driver provides the virtual
// devices; on Linux a SIP softphone (Twinkle, GNOME Calls…) takes the calls and Vemira makes
// the virtual devices on PulseAudio or PipeWire itself. Every place that shows one of these
// texts reads it here, so the two sets stay side by side and one cannot drift unnoticed.
// The macOS texts are quoted in the guide and in support answers: keep every character.
struct PlatformWording {
    WordingPlatform platform = WordingPlatform::MacOS;

    // Controls that only mean something on one platform.
    bool phoneAudioMenu = false;      // the Phone application's audio menu that Vemira drives
    bool microphoneSettings = false;  // a system settings pane for the microphone permission
    bool makesVirtualDevices = false; // Vemira creates the two devices itself

    // The key.
    QString keyOnce;
    QString keyStored;
    QString keySavedEvent;

    // Conversations and the standby.
    QString conversationKept;
    QString pausedAsleep;
    QString computerConversation; // the caller field of a conversation on the computer
    QString computerAudioSilent;
    QString interventionInterrupted;

    // Audio messages.
    QString readDefaultFailure;  // followed by " (status)."
    QString writeDefaultFailure; // followed by " (status)."
    QString builtInMissing;
    QString defaultsChanged;
    QString formatChanged;
    QString devicesMissing;
    QString devicesIssue; // the readiness list's entry while the devices are missing
    QString defaultDevicesMissing;

    // The test window and the outgoing test call.
    QString talkOnComputer;
    QString talkOnComputerBody;
    QString outgoingBody;
    QString openPhone;
    QString dialStarted;
    QString dialRefused;
    QString noActiveCall;

    // The guided setup.
    QStringList setupSteps;
    QString testComputerMicrophone;
    QString openAccessibility;
    QString soundIntro;
    QString devicesPresent;
    QString devicesAbsent;
    QString phoneStepIntro;
    QString phoneStepHowTo;
    QString phoneAudioTitle;
    QString phoneAudioStateName;
    QString phoneAudioUnset;
    QString relayDetectedEvent;
    QString relayTimeout;

    // The guide and the record deletion.
    QString guidePrepareTitle;
    QString guidePrepareBody;
    QString guideTryMiddle; // between « talk on the computer » and « outgoing test »
    QString guideArmBody;
    QString guideRecordsBody;
    QString deletionTail;

    // Every text above, in declaration order (the step names one by one).
    QStringList allTexts() const;

    // The wording of the platform the application runs on (or the one a test selected).
    static const PlatformWording& current();
    static const PlatformWording& of(WordingPlatform platform);
    // The platform this build runs on.
    static WordingPlatform native();
    // Tests only: show another platform's wording. Main thread, before the screens are built.
    static void select(WordingPlatform platform);
};

} // namespace vemira
