#include "records/CallRecord.h"

#include "phone/CallPolicy.h"

#include <QTimeZone>
#include <algorithm>
#include <cmath>

namespace vemira {

namespace {
constexpr qint64 referenceUnixMSecs = 978307200000LL; // 2001-01-01 00:00:00 UTC
}

Timestamp Timestamp::fromDateTime(const QDateTime& dateTime)
{
    return Timestamp{double(dateTime.toMSecsSinceEpoch() - referenceUnixMSecs) / 1000.0};
}

QDateTime Timestamp::toDateTime() const
{
    // A hand-edited file may hold any number: keep the conversion to milliseconds defined.
    constexpr double limit = 1e16;
    const double msecs = std::clamp(std::round(secondsSinceReference * 1000.0), -limit, limit);
    return QDateTime::fromMSecsSinceEpoch(referenceUnixMSecs + qint64(msecs), QTimeZone::utc())
        .toLocalTime();
}

QString uuidText(const QUuid& id)
{
    return id.toString(QUuid::WithoutBraces).toUpper();
}

std::optional<QUuid> parseUuid(QStringView text)
{
    if (text.size() != 36)
        return std::nullopt;
    for (qsizetype i = 0; i < 36; ++i) {
        const char16_t c = text[i].unicode();
        const bool hyphenPlace = i == 8 || i == 13 || i == 18 || i == 23;
        const bool hex =
            (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F');
        if (hyphenPlace ? c != u'-' : !hex)
            return std::nullopt;
    }
    return QUuid::fromString(text);
}

TranscriptLine TranscriptLine::create(QString speaker, QString text)
{
    return TranscriptLine{QUuid::createUuid(), std::move(speaker), std::move(text)};
}

CallRecord CallRecord::create(const QDateTime& now, QString caller, QString kind)
{
    CallRecord record;
    record.id = QUuid::createUuid();
    record.date = Timestamp::fromDateTime(now);
    record.caller = std::move(caller);
    record.kind = std::move(kind);
    return record;
}

QString CallRecord::reference() const
{
    return uuidText(id).left(8);
}

QString CallRecord::phoneLabel() const
{
    return CallPolicy::phoneNumber(QStringList{caller}).value_or(QStringLiteral("Non communiqué"));
}

QString CallRecord::folderLabel() const
{
    return dossier.value_or(QStringLiteral("Non classé"));
}

QString CallRecord::statusLabel() const
{
    return followUpStatus.value_or(QStringLiteral("À traiter"));
}

QString CallRecord::kindLabel() const
{
    switch (progress) {
    case CallProgress::InProgress:
        return kind + QStringLiteral(" en cours");
    case CallProgress::Interrupted:
        return kind + QStringLiteral(" interrompu");
    case CallProgress::Ended:
        break;
    }
    return kind;
}

bool CallRecord::isRecordingName(QStringView name)
{
    const QStringView prefix = u"Appel-";
    const QStringView suffix = u".wav";
    return name.size() == prefix.size() + 36 + suffix.size() && name.startsWith(prefix) &&
           name.endsWith(suffix) && parseUuid(name.mid(prefix.size(), 36)).has_value();
}

CallRecord makeDemoRecord(const QDateTime& now)
{
    CallRecord record = CallRecord::create(now, QStringLiteral("Élise Modèle · exemple fictif"),
                                           QStringLiteral("Démonstration"));
    const QString ai = Speaker::assistant();
    const QString caller = Speaker::caller();
    record.transcript = {
        TranscriptLine::create(ai, QStringLiteral("Bonjour, vous êtes bien au service de gestion "
                                                  "locative. Comment puis-je vous aider ?")),
        TranscriptLine::create(caller,
                               QStringLiteral("Il y a une fuite sous mon évier depuis ce "
                                              "matin, au 12 rue des Lilas, appartement 4.")),
        TranscriptLine::create(ai, QStringLiteral("Est-ce que l’eau coule encore et pouvez-vous "
                                                  "fermer le robinet d’arrêt sans risque ?")),
        TranscriptLine::create(caller, QStringLiteral("J’ai fermé le robinet. Ça ne coule plus. "
                                                      "J’ai pris des photos.")),
        TranscriptLine::create(ai, QStringLiteral("Je note la fuite et le robinet fermé. Le "
                                                  "gestionnaire prendra connaissance de votre "
                                                  "message pour organiser la suite.")),
    };
    record.note =
        QStringLiteral("Exemple : fuite sous évier, robinet fermé. Logement et identité à "
                       "confirmer. Photos disponibles, non reçues. Rappel et "
                       "intervention à organiser par le gestionnaire.");
    return record;
}

} // namespace vemira
