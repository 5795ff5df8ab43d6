#pragma once

#include "core/AppError.h"
#include "notify/SmtpTransport.h"

#include <QList>
#include <QObject>
#include <QThreadPool>
#include <atomic>
#include <functional>
#include <memory>

namespace vemira {

// Sends e-mails in the background, one at a time, each tried once: the trial mail wants its
// answer now, and the calls' mails are retried by their queue on disk. Nothing here waits on
// the main thread. Lives on the main thread; results come back there.
class MailSender : public QObject {
    Q_OBJECT

public:
    using Transport = std::function<SmtpOutcome(const SmtpRequest&, const std::atomic<bool>*)>;
    using Done = std::function<void(const Status&)>;

    explicit MailSender(Transport transport = sendMail, QObject* parent = nullptr);
    // Interrupts the mail being sent.
    ~MailSender() override;

    // Each line of the session log about mail (sent or not, in French).
    void setLog(std::function<void(const QString&)> log) { m_log = std::move(log); }

    // Queues the mail; `label` names it in the log ("de l’appel 1A2B3C4D"). `done` gets the
    // outcome on the main thread.
    void send(SmtpRequest request, QString label, Done done = {});

    // Mails queued or being sent.
    int pending() const { return static_cast<int>(m_jobs.size()); }

private:
    struct Job;
    void attempt(const std::shared_ptr<Job>& job);
    void finished(const std::shared_ptr<Job>& job, const SmtpOutcome& outcome);
    void log(const QString& line) const;

    Transport m_transport;
    std::function<void(const QString&)> m_log;
    QList<std::shared_ptr<Job>> m_jobs;
    std::atomic<bool> m_cancel{false};
    QThreadPool m_pool; // one thread: mails go out in order
};

} // namespace vemira
