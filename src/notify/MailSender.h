#pragma once

#include "core/AppError.h"
#include "core/Clock.h"
#include "notify/SmtpTransport.h"

#include <QList>
#include <QObject>
#include <QThreadPool>
#include <atomic>
#include <functional>
#include <memory>

namespace vemira {

// Sends e-mails in the background, one at a time, and tries again later when the server
// could not take one. Nothing here waits on the main thread: a call's record is saved
// whatever the mail server does. Lives on the main thread; results come back there.
class MailSender : public QObject {
    Q_OBJECT

public:
    using Transport = std::function<SmtpOutcome(const SmtpRequest&, const std::atomic<bool>*)>;
    using Done = std::function<void(const Status&)>;

    // Waits before the 2nd, 3rd, … attempt: 30 s, 2 min, 10 min.
    static QList<double> defaultRetryDelays() { return {30.0, 120.0, 600.0}; }

    explicit MailSender(Clock& clock, QList<double> retryDelays = defaultRetryDelays(),
                        Transport transport = sendMail, QObject* parent = nullptr);
    // Abandons the mail still waiting and interrupts the one being sent.
    ~MailSender() override;

    // Each line of the session log about mail (retries and final failures, in French).
    void setLog(std::function<void(const QString&)> log) { m_log = std::move(log); }

    // Queues the mail; `label` names it in the log ("de l’appel 1A2B3C4D"). `done` gets the
    // final outcome on the main thread, after the last attempt.
    void send(SmtpRequest request, QString label, Done done = {});

    // Mails not yet accepted or given up (waiting, being sent or waiting to retry).
    int pending() const { return static_cast<int>(m_jobs.size()); }

private:
    struct Job;
    void attempt(const std::shared_ptr<Job>& job);
    void finished(const std::shared_ptr<Job>& job, const SmtpOutcome& outcome);
    void log(const QString& line) const;

    Clock& m_clock;
    QList<double> m_retryDelays;
    Transport m_transport;
    std::function<void(const QString&)> m_log;
    QList<std::shared_ptr<Job>> m_jobs;
    std::atomic<bool> m_cancel{false};
    QThreadPool m_pool; // one thread: mails go out in order
};

} // namespace vemira
