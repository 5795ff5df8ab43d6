#include "notify/AfterCallNotices.h"

#include "notify/AfterCallMail.h"
#include "notify/MailAccount.h"
#include "records/Settings.h"

#include <QDir>

namespace vemira {

AfterCallNotices::AfterCallNotices(Clock& clock, Settings& settings, DataFolder folder,
                                   std::unique_ptr<DesktopNotifier> notifier, QObject* parent)
    : QObject(parent), m_settings(settings), m_folder(std::move(folder)), m_clock(clock),
      m_notifier(std::move(notifier)),
      m_queue(std::make_unique<MailQueue>(
          clock, m_folder.mailQueueFolder(),
          [this]() -> Result<SmtpRequest> {
              const std::optional<Settings::Mail> mail = m_settings.mail();
              if (!mail)
                  return AppError(QStringLiteral("l’envoi d’e-mail n’est plus configuré."));
              return mailRequest(*mail, mailPasswordStore(m_folder));
          })),
      m_tester(std::make_unique<MailSender>())
{
    m_queue->setLog([this](const QString& line) { log(line); });
    // What an earlier run could not send.
    m_queue->resume();
    if (m_notifier) {
        m_notifier->onActivated = [this](const QUuid& id) {
            if (onOpenCall)
                onOpenCall(id);
        };
        m_notifier->onError = [this](const QString& message) { log(message); };
    }
}

AfterCallNotices::~AfterCallNotices() = default;

void AfterCallNotices::callSaved(const CallRecord& record)
{
    if (m_notifier)
        m_notifier->show(callNotice(record));

    const std::optional<Settings::Mail> mail = m_settings.mail();
    if (!mail)
        return;
    // Queued even when the login cannot be made now (a password missing): it is made at each
    // attempt, so the mail leaves once the owner has set e-mail up again.
    const QString label = QStringLiteral("de l’appel ") + record.reference();
    const QString recording =
        record.recordingFile ? QDir(m_folder.recordingsFolder()).filePath(*record.recordingFile)
                             : QString();
    const QByteArray message = encodeMail(afterCallMail(record, *mail, recording, m_clock.now()));
    if (Status failed = m_queue->add(message, label))
        log(QStringLiteral("E-mail ") + label + QStringLiteral(" non envoyé : ") +
            failed->message());
}

void AfterCallNotices::alert(const QString& title, const QString& why, const QString& whatToDo)
{
    if (m_notifier)
        m_notifier->show({QUuid(), title, why + QLatin1Char(' ') + whatToDo, true});

    const std::optional<Settings::Mail> mail = m_settings.mail();
    if (!mail)
        return;
    const QString label = QStringLiteral("d’alerte");
    // Queued like a call's mail: a stop while the server is away is still told later.
    if (Status failed =
            m_queue->add(encodeMail(alertMail(*mail, title, why, whatToDo, m_clock.now())), label))
        log(QStringLiteral("E-mail ") + label + QStringLiteral(" non envoyé : ") +
            failed->message());
}

void AfterCallNotices::sendTest(std::function<void(const Status&)> done)
{
    const std::optional<Settings::Mail> mail = m_settings.mail();
    if (!mail) {
        done(AppError(QStringLiteral("Renseignez d’abord le serveur d’envoi, l’expéditeur et le "
                                     "destinataire.")));
        return;
    }
    auto request = mailRequest(*mail, mailPasswordStore(m_folder));
    if (!request) {
        done(request.error());
        return;
    }
    request.value().message = encodeMail(testMail(*mail, m_clock.now()));
    m_tester->send(std::move(request.value()), QStringLiteral("d’essai"), std::move(done));
}

std::optional<Settings::Mail> AfterCallNotices::mailSettings() const
{
    return m_settings.mail();
}

bool AfterCallNotices::hasMailPassword() const
{
    return mailPasswordStore(m_folder).exists();
}

Status AfterCallNotices::saveMailSettings(Settings::Mail mail, const QString& password)
{
    if (Status invalid = checkMailSettings(mail))
        return invalid;
    mail.server = parseMailServer(mail.server).value().toString();
    const LocalKeyStore passwords = mailPasswordStore(m_folder);
    if (mail.user.isEmpty()) {
        if (Status failed = passwords.remove())
            return failed;
    } else if (!password.isEmpty()) {
        if (Status failed = passwords.save(password))
            return failed;
    } else if (!passwords.exists()) {
        return AppError(QStringLiteral("Saisissez le mot de passe du serveur d’envoi."));
    }
    m_settings.setMail(mail);
    return std::nullopt;
}

Status AfterCallNotices::turnMailOff()
{
    if (Status failed = mailPasswordStore(m_folder).remove())
        return failed;
    m_settings.setMail(std::nullopt);
    return std::nullopt;
}

void AfterCallNotices::log(const QString& line) const
{
    if (onLog)
        onLog(line);
}

} // namespace vemira
