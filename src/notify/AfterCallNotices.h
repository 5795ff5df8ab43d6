#pragma once

#include "core/AppError.h"
#include "core/Clock.h"
#include "notify/DesktopNotifier.h"
#include "notify/MailQueue.h"
#include "notify/MailSender.h"
#include "records/CallRecord.h"
#include "records/DataFolder.h"
#include "records/Settings.h"

#include <QObject>
#include <functional>
#include <memory>

namespace vemira {

// What happens once a call's record is complete and saved: the desktop notification and,
// when the owner set one up, the e-mail. Both leave at once and in the background; neither
// can hold up or harm the record. Main thread only.
class AfterCallNotices : public QObject {
    Q_OBJECT

public:
    // `settings` must outlive this object; `notifier` may be null (no desktop to notify).
    AfterCallNotices(Clock& clock, Settings& settings, DataFolder folder,
                     std::unique_ptr<DesktopNotifier> notifier, QObject* parent = nullptr);
    ~AfterCallNotices() override;

    // A line for the session log (French; never a password).
    std::function<void(const QString&)> onLog;
    // The owner clicked the notification of this call.
    std::function<void(const QUuid&)> onOpenCall;

    void callSaved(const CallRecord& record);
    // Something the owner must act on (the receptionist went off by itself, a call could not
    // be hung up): `why` and `whatToDo` are complete French sentences. A desktop notification
    // that stays, and the e-mail when set up.
    void alert(const QString& title, const QString& why, const QString& whatToDo);
    // "Envoyer un e-mail d’essai": one attempt, `done` gets the server's verdict.
    void sendTest(std::function<void(const Status&)> done);

    // The calls' e-mails, kept on disk until the server takes them.
    MailQueue& mailQueue() { return *m_queue; }

    // The e-mail settings as the Connexions page edits them.
    std::optional<Settings::Mail> mailSettings() const;
    bool hasMailPassword() const;
    // Checks and stores them; with a login, an empty `password` keeps the stored one.
    Status saveMailSettings(Settings::Mail mail, const QString& password);
    // No more e-mail; the stored password is deleted.
    Status turnMailOff();

private:
    void log(const QString& line) const;

    Settings& m_settings;
    DataFolder m_folder;
    Clock& m_clock;
    std::unique_ptr<DesktopNotifier> m_notifier;
    std::unique_ptr<MailQueue> m_queue;   // calls' mails, retried for days
    std::unique_ptr<MailSender> m_tester; // the test mail: one attempt, no retry
};

} // namespace vemira
