#include "records/TranscriptDocument.h"

namespace vemira {

namespace {

// The locale's long date-time format carries a time-zone token ("t") the document does not
// show; drop it with the space that joins it, leaving quoted literals alone.
QString withoutTimeZone(const QString& format)
{
    QString out;
    bool quoted = false;
    for (qsizetype i = 0; i < format.size(); ++i) {
        const QChar c = format.at(i);
        if (c == u'\'') {
            quoted = !quoted;
            out += c;
            continue;
        }
        if (!quoted && c == u't') {
            while (i + 1 < format.size() && format.at(i + 1) == u't')
                ++i;
            while (out.endsWith(u' '))
                out.chop(1);
            continue;
        }
        out += c;
    }
    return out.trimmed();
}

} // namespace

QString documentDate(const CallRecord& record, const QLocale& locale)
{
    static thread_local QString cachedLocale;
    static thread_local QString cachedFormat;
    if (cachedLocale != locale.name() || cachedFormat.isEmpty()) {
        cachedLocale = locale.name();
        cachedFormat = withoutTimeZone(locale.dateTimeFormat(QLocale::LongFormat));
    }
    return locale.toString(record.date.toDateTime(), cachedFormat);
}

QString transcriptDocument(const CallRecord& record, const QLocale& locale)
{
    QString body;
    if (record.transcript.isEmpty()) {
        body = QStringLiteral("Aucune parole transcrite.");
    } else {
        bool first = true;
        for (const TranscriptLine& line : record.transcript) {
            if (!first)
                body += QStringLiteral("\n\n");
            first = false;
            body += line.speaker + QStringLiteral(" : ") + line.text;
        }
    }
    const QString note = record.note.isEmpty() ? QStringLiteral("Aucune note.") : record.note;

    return QStringLiteral("TRANSCRIPTION D’APPEL — VEMIRA\n") + QStringLiteral("Référence : ") +
           uuidText(record.id) + u'\n' + QStringLiteral("Date : ") + documentDate(record, locale) +
           u'\n' + QStringLiteral("Type : ") + record.kindLabel() + u'\n' +
           QStringLiteral("Interlocuteur : ") + record.caller + u'\n' +
           QStringLiteral("Numéro affiché : ") + record.phoneLabel() + u'\n' +
           QStringLiteral("Dossier : ") + record.folderLabel() + u'\n' + QStringLiteral("État : ") +
           record.statusLabel() + u'\n' + u'\n' + QStringLiteral("TRANSCRIPTION\n") + body + u'\n' +
           u'\n' + QStringLiteral("NOTE DU GESTIONNAIRE\n") + note +
           (record.message ? QStringLiteral("\n\n") + messageSection(*record.message) : QString());
}

QString messageSection(const CallMessage& message)
{
    const auto field = [](const QString& label, const QString& value) {
        return label + QStringLiteral(" : ") +
               (value.isEmpty() ? QStringLiteral("Non précisé") : value);
    };
    return QStringLiteral("MESSAGE\n") + field(QStringLiteral("Nom"), message.identity) + u'\n' +
           field(QStringLiteral("Adresse"), message.address) + u'\n' +
           field(QStringLiteral("Problème"), message.problem) + u'\n' +
           field(QStringLiteral("Depuis"), message.since) + u'\n' +
           field(QStringLiteral("Urgence"), message.urgency) + u'\n' +
           field(QStringLiteral("Rappel"), message.callback);
}

QString transcriptFileName(const CallRecord& record)
{
    return QStringLiteral("Appel-") + uuidText(record.id) + QStringLiteral(".txt");
}

QString exportFileName(const CallRecord& record)
{
    return QStringLiteral("Conversation-") + record.reference() + QStringLiteral(".txt");
}

} // namespace vemira
