#include "notify/AfterCallMail.h"

#include "records/TranscriptDocument.h"

#include <QFile>
#include <QFileInfo>

namespace vemira {

namespace {
const QString kNotGiven = QStringLiteral("Non précisé");

QString orNotGiven(const QString& text)
{
    return text.trimmed().isEmpty() ? kNotGiven : text;
}
} // namespace

CallHeadline callHeadline(const CallRecord& record)
{
    CallHeadline headline;
    const CallMessage message = record.message.value_or(CallMessage());
    // The name the caller gave comes first; the caller label (often a number) otherwise.
    if (!message.identity.trimmed().isEmpty())
        headline.caller = message.identity;
    else if (!record.caller.trimmed().isEmpty())
        headline.caller = record.caller;
    else
        headline.caller = QStringLiteral("Appelant inconnu");
    headline.urgency = message.urgency.trimmed().isEmpty() ? kNotGiven : message.urgency;
    headline.summary = message.summary;
    headline.callback = message.callback;
    return headline;
}

QString afterCallSubject(const CallHeadline& headline)
{
    // Line breaks in a caller's name would end the header early.
    QString caller = headline.caller;
    caller.replace(QLatin1Char('\r'), QLatin1Char(' '))
        .replace(QLatin1Char('\n'), QLatin1Char(' '));
    return QStringLiteral("Vemira · ") + headline.urgency + QStringLiteral(" · ") + caller;
}

MailContent afterCallMail(const CallRecord& record, const Settings::Mail& settings,
                          const QString& recordingPath, const QDateTime& now, const QLocale& locale)
{
    const CallHeadline headline = callHeadline(record);
    MailContent mail;
    mail.fromName = QStringLiteral("Vemira");
    mail.from = settings.from;
    mail.to = settings.to;
    mail.subject = afterCallSubject(headline);
    mail.date = now;

    QString recordingLine;
    const QFileInfo recording(recordingPath);
    if (record.recordingFile) {
        recordingLine = QStringLiteral("Enregistrement : ") + *record.recordingFile;
        if (settings.attachRecording && !recordingPath.isEmpty() && recording.isFile()) {
            QFile file(recordingPath);
            if (recording.size() > kMaxAttachedRecording) {
                recordingLine += QStringLiteral(" (trop volumineux pour être joint, gardé sur "
                                                "l’ordinateur)");
            } else if (file.open(QIODevice::ReadOnly)) {
                mail.attachments.append(
                    {*record.recordingFile, QByteArrayLiteral("audio/wav"), file.readAll()});
                recordingLine += QStringLiteral(" (joint à cet e-mail)");
            }
        }
    } else {
        recordingLine = QStringLiteral("Enregistrement : ") +
                        record.recordingError.value_or(QStringLiteral("aucun"));
    }

    QStringList lines;
    lines << QStringLiteral("Appelant : ") + headline.caller
          << QStringLiteral("Urgence : ") + headline.urgency
          << QStringLiteral("Résumé : ") + orNotGiven(headline.summary)
          << QStringLiteral("Rappel : ") + orNotGiven(headline.callback) << recordingLine
          << QString() << transcriptDocument(record, locale);
    mail.body = lines.join(QLatin1Char('\n'));
    return mail;
}

MailContent alertMail(const Settings::Mail& settings, const QString& subject, const QString& why,
                      const QString& whatToDo, const QDateTime& now, const QLocale& locale)
{
    MailContent mail;
    mail.fromName = QStringLiteral("Vemira");
    mail.from = settings.from;
    mail.to = settings.to;
    mail.subject = subject;
    mail.date = now;
    mail.body = QStringLiteral("%1\n\nQue faire : %2\n\nVemira, le %3")
                    .arg(why, whatToDo, locale.toString(now, QLocale::LongFormat));
    return mail;
}

MailContent testMail(const Settings::Mail& settings, const QDateTime& now)
{
    MailContent mail;
    mail.fromName = QStringLiteral("Vemira");
    mail.from = settings.from;
    mail.to = settings.to;
    mail.subject = QStringLiteral("Vemira · E-mail d’essai");
    mail.date = now;
    mail.body = QStringLiteral(
        "Ceci est un e-mail d’essai envoyé par Vemira.\n"
        "Après chaque appel, vous recevrez à cette adresse le message de l’appelant, "
        "la transcription et le nom de l’enregistrement.");
    return mail;
}

} // namespace vemira
