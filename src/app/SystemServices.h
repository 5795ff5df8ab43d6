#pragma once

#include "core/AppError.h"

#include <QString>
#include <QUrl>
#include <functional>
#include <memory>

namespace vemira {

// What the application model asks of the desktop it runs on, apart from audio, the
// phone application's interface and the records' clipboard/save dialogs. Main thread only.
class Workspace {
public:
    virtual ~Workspace() = default;
    // Hands an address (for example "tel:+33612345678") to the system; false when refused.
    virtual bool openUrl(const QUrl& url) = 0;
    // Shows the file browser with this one file selected.
    virtual void revealFile(const QString& path) = 0;
    // Whether the user allowed this process to capture audio (always true where the
    // system has no such permission).
    virtual bool microphoneAuthorized() const = 0;
};

// Tells the model that the computer is about to sleep or to power off. The callback runs on the
// main thread; the notifier holds the system back (where it can) until the callback returned, so
// that the conversation under way is saved before the machine stops.
class SleepNotifier {
public:
    virtual ~SleepNotifier() = default;
    std::function<void()> onWillSleep;
    // The computer woke up again (main thread).
    std::function<void()> onWoke;
    // The computer is about to shut down or restart (main thread); held back like a sleep.
    std::function<void()> onWillPowerOff;
};

// Starting the application when the user opens a session: an XDG autostart entry on Linux,
// the application's login item (SMAppService) on macOS. Main thread only.
class LoginItem {
public:
    virtual ~LoginItem() = default;
    virtual Result<bool> enabled() const = 0;
    // A refusal says, in French, what the user can do instead.
    virtual Status setEnabled(bool enabled) = 0;
    // Where the user sees the entry: its file, or the system settings' pane.
    virtual QString where() const = 0;
};

// The platform's real ones, defined by the system backend of each platform.
std::unique_ptr<Workspace> createPlatformWorkspace();
std::unique_ptr<SleepNotifier> createPlatformSleepNotifier();
std::unique_ptr<LoginItem> createPlatformLoginItem();

} // namespace vemira
