#pragma once

#include "core/AppError.h"
#include "core/Clock.h"
#include "notify/MailSender.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QString>
#include <QThreadPool>
#include <atomic>
#include <functional>
#include <map>
#include <memory>

class QLockFile;

namespace vemira {

// The after-call e-mails not yet accepted by the owner's mail server, one file each in a
// folder of the data folder (owner-only), so that neither a server away for days nor a
// restart loses one. Every process of the folder may add and send: a mail being sent is
// locked, so two processes never send the same one, and each file is written whole.
// Lives on the main thread; the sending itself runs on one worker thread.
class MailQueue : public QObject {
    Q_OBJECT

public:
    using Transport = MailSender::Transport;
    // The server, login and addresses as set up now (they may change while a mail waits).
    using RequestMaker = std::function<Result<SmtpRequest>()>;

    // Waits after the 1st, 2nd, … failed attempt; the last one repeats.
    static QList<double> defaultRetryDelays();
    // A mail the server did not take, whatever the reason, is tried again for at least this
    // long, then given up.
    static constexpr double kKeepSeconds = 3 * 24 * 3600.0;

    MailQueue(Clock& clock, QString folder, RequestMaker makeRequest,
              QList<double> retryDelays = defaultRetryDelays(), Transport transport = sendMail,
              QObject* parent = nullptr);
    // Interrupts the mail being sent; the waiting ones stay on disk for the next run.
    ~MailQueue() override;

    // Each line of the session log about mail (French, never a password).
    void setLog(std::function<void(const QString&)> log) { m_log = std::move(log); }

    // Keeps the mail (a whole encoded message) on disk, then sends it. `label` names it in
    // the log ("de l’appel 1A2B3C4D").
    Status add(const QByteArray& message, const QString& label);
    // Takes up the mails left on disk by an earlier run, each at its own time.
    void resume();
    // Tries every waiting mail now.
    void retryNow();

    // Mails this process still has to send (waiting for their time or being sent).
    int pending() const { return int(m_timers.size() + m_sending.size()); }
    // Mails waiting on disk in `folder`, whoever queued them.
    static int waitingIn(const QString& folder);
    // Called when the last attempt under way has ended.
    std::function<void()> onIdle;

private:
    struct Entry;
    void schedule(const QString& id, double delay);
    void attempt(const QString& id);
    void finished(const QString& id, Entry entry, const SmtpOutcome& outcome);
    void log(const QString& line) const;
    QString pathOf(const QString& id) const;

    Clock& m_clock;
    QString m_folder;
    RequestMaker m_makeRequest;
    QList<double> m_retryDelays;
    Transport m_transport;
    std::function<void(const QString&)> m_log;
    std::map<QString, TaskHandlePtr> m_timers;            // waiting for their time
    QHash<QString, std::shared_ptr<QLockFile>> m_sending; // being sent, locked
    bool m_starting = false; // retryNow is starting attempts: idle is told once, at its end
    std::atomic<bool> m_cancel{false};
    QThreadPool m_pool; // one thread: mails go out in order
};

} // namespace vemira
