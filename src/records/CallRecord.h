#pragma once

#include "records/CallMessage.h"
#include "records/ConversationUsage.h"

#include <QDateTime>
#include <QList>
#include <QString>
#include <QUuid>
#include <compare>
#include <optional>

namespace vemira {

// Speaker labels written in transcripts.
namespace Speaker {
inline QString assistant()
{
    return QStringLiteral("Vemira");
}
inline QString caller()
{
    return QStringLiteral("Interlocuteur");
}
inline QString followUp()
{
    return QStringLiteral("Suivi");
}
} // namespace Speaker

// A point in time as the history file stores it: seconds since 2001-01-01 00:00:00 UTC,
// fractional part kept, so a file read and written back keeps its dates exactly.
struct Timestamp {
    double secondsSinceReference = 0;

    static Timestamp fromDateTime(const QDateTime& dateTime);
    QDateTime toDateTime() const; // in local time
    auto operator<=>(const Timestamp&) const = default;
};

// Canonical 36-character upper-case text of a UUID, as written everywhere.
QString uuidText(const QUuid& id);
// Parses the canonical hyphenated form in any case; nothing else (no braces).
std::optional<QUuid> parseUuid(QStringView text);

struct TranscriptLine {
    QUuid id;
    QString speaker;
    QString text;

    static TranscriptLine create(QString speaker, QString text); // fresh id
    bool operator==(const TranscriptLine&) const = default;
};

// Where the conversation stood when the record was written. A record is saved while its call
// is under way, so a crash leaves one marked in progress; the next receptionist to start on
// the folder marks it interrupted.
enum class CallProgress { Ended, InProgress, Interrupted };

// A new field must also be merged field by field in HistoryMerge.cpp.
struct CallRecord {
    QUuid id;
    Timestamp date;
    QString caller;
    QString kind;
    QList<TranscriptLine> transcript;
    QString note;
    std::optional<QString> dossier;
    // A bare name of the recordings folder's own pattern (isRecordingName); nothing else is
    // ever read from a file, so no record can make Vemira open or delete a file elsewhere.
    std::optional<QString> recordingFile;
    std::optional<QString> recordingError;
    std::optional<ConversationUsage> usage;
    std::optional<QString> followUpStatus;
    std::optional<CallMessage> message; // the message taken for the owner, when one was
    CallProgress progress = CallProgress::Ended;

    // A fresh record: new random id, date = now, everything else empty.
    static CallRecord create(const QDateTime& now, QString caller, QString kind);

    QString reference() const;   // first 8 characters of the upper-case id
    QString phoneLabel() const;  // the number read in `caller`, or "Non communiqué"
    QString folderLabel() const; // dossier, or "Non classé"
    QString statusLabel() const; // follow-up status, or "À traiter"
    QString kindLabel() const;   // kind, with " en cours" or " interrompu" while not ended

    // "Appel-<UUID>.wav": the only names a recording of the recordings folder has.
    static bool isRecordingName(QStringView name);

    bool operator==(const CallRecord&) const = default;
};

// The demonstration conversation added by "addDemo".
CallRecord makeDemoRecord(const QDateTime& now);

} // namespace vemira
