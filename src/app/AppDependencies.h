#pragma once

#include "app/SystemServices.h"
#include "audio/AudioDeviceIO.h"
#include "audio/AudioSystem.h"
#include "audio/PhoneAudioRouting.h"
#include "core/Clock.h"
#include "notify/DesktopNotifier.h"
#include "phone/AccessibilityElement.h"
#include "records/DesktopServices.h"

#include <QString>
#include <QStringList>
#include <memory>

namespace vemira {

// Everything the application model needs from the outside world. Tests and the command
// line fill it with their own parts; createPlatformDependencies() gives the real ones.
struct AppDependencies {
    Clock* clock = &SystemClock::instance();
    std::unique_ptr<AudioSystem> audioSystem;
    std::unique_ptr<AudioDeviceIO> deviceIO;
    std::unique_ptr<Accessibility> accessibility;
    // Applications where calls are looked for, and the one whose audio menu is driven.
    QStringList phoneApplications;
    QString phoneApplication;
    // The caller chose `phoneApplications` (vemira standby --phone-app): the user's setting
    // does not replace them.
    bool phoneApplicationsChosen = false;
    // Sends the answered softphone's audio through the virtual devices during a call, where
    // the phone application has no audio menu of its own to drive; null elsewhere.
    std::unique_ptr<PhoneAudioRouting> phoneRouting;
    std::unique_ptr<Workspace> workspace;
    std::unique_ptr<SleepNotifier> sleepNotifier;
    std::unique_ptr<DesktopServices> desktop;
    // Tells the owner about each finished call; null where there is no desktop to notify.
    std::unique_ptr<DesktopNotifier> notifier;
    // The user's "Brelian" folder: history, transcripts, recordings, credentials.
    QString dataFolder;
    // Preferences file; empty = the platform's user preferences.
    QString settingsFile;
};

// The platform's real parts and the user's real data folder.
AppDependencies createPlatformDependencies();

} // namespace vemira
