#include "notify/MailSender.h"

namespace vemira {

struct MailSender::Job {
    SmtpRequest request;
    QString label;
    Done done;
};

MailSender::MailSender(Transport transport, QObject* parent)
    : QObject(parent), m_transport(std::move(transport))
{
    m_pool.setMaxThreadCount(1);
}

MailSender::~MailSender()
{
    m_cancel.store(true);
    m_pool.waitForDone();
}

void MailSender::send(SmtpRequest request, QString label, Done done)
{
    auto job = std::make_shared<Job>();
    job->request = std::move(request);
    job->label = std::move(label);
    job->done = std::move(done);
    m_jobs.append(job);
    attempt(job);
}

void MailSender::attempt(const std::shared_ptr<Job>& job)
{
    // The worker gets its own copy; the result hops back through the event loop, and the
    // destructor waits for the worker, so `this` outlives every hop that can still arrive.
    // The worker holds the job weakly so that it is always released on this thread.
    m_pool.start([this, weak = std::weak_ptr<Job>(job), request = job->request] {
        const SmtpOutcome outcome = m_transport(request, &m_cancel);
        QMetaObject::invokeMethod(
            this,
            [this, weak, outcome] {
                if (auto job = weak.lock())
                    finished(job, outcome);
            },
            Qt::QueuedConnection);
    });
}

void MailSender::finished(const std::shared_ptr<Job>& job, const SmtpOutcome& outcome)
{
    if (!m_jobs.contains(job))
        return;
    m_jobs.removeOne(job);
    if (outcome.error) {
        log(QStringLiteral("E-mail ") + job->label + QStringLiteral(" non envoyé : ") +
            outcome.error->message());
    } else {
        log(QStringLiteral("E-mail ") + job->label + QStringLiteral(" envoyé à ") +
            job->request.to);
    }
    if (job->done)
        job->done(outcome.error);
}

void MailSender::log(const QString& line) const
{
    if (m_log)
        m_log(line);
}

} // namespace vemira
