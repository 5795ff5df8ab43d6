#pragma once

// The long-lived engines and stores of the application model, kept out of AppModel.h so the
// screens compile against the model without the engines' headers. Private to src/app.

#include "ai/AIConnectionCheck.h"
#include "ai/MessageRequest.h"
#include "ai/RealtimeClient.h"
#include "app/AppModel.h"
#include "app/MainThreadMailbox.h"
#include "app/ProvisionalRecord.h"
#include "audio/AudioBridge.h"
#include "audio/CallAudioRecorder.h"
#include "audio/MacAudioRoute.h"
#include "audio/VoiceEQSettings.h"
#include "notify/AfterCallNotices.h"
#include "phone/NativeAudioSetup.h"
#include "phone/PhoneAutomation.h"
#include "records/APIKeyStore.h"
#include "records/RecordsStore.h"
#include "records/Settings.h"

#include <QHash>
#include <QSet>
#include <memory>

namespace vemira {

struct AppModel::Parts {
    explicit Parts(AppDependencies deps)
        : mailbox(), dependencies(std::move(deps)),
          settings(dependencies.settingsFile.isEmpty() ? Settings()
                                                       : Settings(dependencies.settingsFile)),
          folder(dependencies.dataFolder.isEmpty() ? DataFolder::standard()
                                                   : DataFolder(dependencies.dataFolder)),
          store(folder), keyStore(folder.credentialsFolder())
    {}

    // Audio-thread and worker hand-offs to the main thread. First, so that it outlives
    // everything that may still post to it while the parts are torn down.
    MainThreadMailbox mailbox;
    AppDependencies dependencies;
    Settings settings;
    DataFolder folder;
    RecordsStore store;
    // The record of the call under way, on disk while the call lasts.
    std::unique_ptr<ProvisionalRecord> provisional;
    LocalKeyStore keyStore;
    VoiceEQSettings voiceEQ;
    std::unique_ptr<RealtimeClient> realtime;
    std::unique_ptr<MessageRequest> message; // after `realtime`: gone first
    std::unique_ptr<AudioBridge> audio;
    std::unique_ptr<PhoneAutomation> phone;
    // The applications watched when the user chose none (every known softphone).
    QStringList everyPhoneApplication;
    bool phoneChoicePending = false;
    std::unique_ptr<NativeAudioSetup> audioSetup;
    std::unique_ptr<MacAudioRoute> macRoute;
    std::unique_ptr<AIConnectionCheck> probe;
    bool accessibilityRequested = false;
    // The desktop notification and the e-mail once a call's record is complete.
    std::unique_ptr<AfterCallNotices> notices;
    QString probeKey; // the key the running check proves
    // A call we hung up, watched until the phone lets it go: presses made so far and ticks in
    // a row the phone showed no call.
    struct HangUpWatch {
        int presses = 0;
        int quietTicks = 0;
    };
    std::optional<HangUpWatch> hangUp;
    AnsweringRules rules;
    // The verdict on the call ringing now, made when its ringing was first seen.
    std::optional<AnsweringRules::Decision> ringDecision;
    QString ringCaller;
    // Recordings of calls that leave no record, removed once written.
    QSet<QUuid> discarding;
    // Recorders still mixing their file, by record id.
    QHash<QUuid, std::shared_ptr<CallAudioRecorder>> finishing;
};

} // namespace vemira
