#pragma once

#include "records/CallRecord.h"

#include <QString>
#include <QUuid>
#include <functional>
#include <memory>

namespace vemira {

// One call as the desktop notification shows it.
struct CallNotice {
    QUuid callId;
    QString title; // "Vemira · <urgence> · <appelant>"
    QString body;  // the summary, or what to do when there is none
    bool urgent = false;
};
CallNotice callNotice(const CallRecord& record);

// The operating system's notifications (freedesktop Notifications on Linux, the
// UserNotifications framework on macOS). Main thread only; nothing here blocks.
class DesktopNotifier {
public:
    virtual ~DesktopNotifier() = default;
    virtual void show(const CallNotice& notice) = 0;

    // The owner clicked a notification: open that call.
    std::function<void(const QUuid& callId)> onActivated;
    // A notification could not be shown (French, for the session log).
    std::function<void(const QString& message)> onError;
};

// The system's own, defined by the system backend of each platform; null when this process
// cannot show notifications.
std::unique_ptr<DesktopNotifier> createPlatformDesktopNotifier();

} // namespace vemira
