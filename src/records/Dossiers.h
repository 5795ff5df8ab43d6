#pragma once

#include "records/CallRecord.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>
#include <QUuid>
#include <functional>
#include <optional>

namespace vemira {

namespace Dossiers {
QString allFolders();              // "Tous les dossiers"
QString unfiled();                 // "Appels non classés"
QString allStatuses();             // "Tous les états"
QStringList followUpStatuses();    // the three statuses a record can be given
QStringList statusFilterChoices(); // "Tous les états" then the three statuses
QString searchPrompt();
QString countLine(qsizetype shown); // "<n> appel(s). Cliquez …"

// Distinct dossier names, sorted by plain character order (case makes different names).
QStringList folders(const QList<CallRecord>& records);

// Localized containment: case- and diacritic-insensitive.
bool containsFolded(const QString& haystack, const QString& needle);
// The form both sides are compared in: accents removed, case folded.
QString fold(const QString& text);
// What the free-text search looks into: reference, caller, displayed number, kind, dossier
// label, note and every transcript text, joined by single spaces (no speaker labels).
QString searchText(const CallRecord& record);
} // namespace Dossiers

// One column sort: the field's natural order, ascending or descending.
struct RecordComparator {
    enum class Column { Date, Caller, Kind, Dossier, Status, Reference };
    Column column = Column::Date;
    bool descending = true;
    // -1, 0, 1
    int compare(const CallRecord& a, const CallRecord& b) const;
};

// Filter state of the dossier screen.
class DossiersDraft {
public:
    QString search;
    QString folder = Dossiers::allFolders();
    QString status = Dossiers::allStatuses();
    std::optional<QUuid> selected;
    QList<RecordComparator> sortOrder{RecordComparator{}};

    bool matches(const CallRecord& record) const;
    // The records shown, in sortOrder (stable for ties), through DossierSearchIndex.
    QList<CallRecord> visible(const QList<CallRecord>& records) const;
    const CallRecord* selectedRecord(const QList<CallRecord>& records) const;
};

// The one search of the dossier screen and of `vemira search`: the folded texts of the whole
// history in one buffer, so a query over tens of thousands of calls is one pass. When the
// list changes, only the records that changed are folded again.
class DossierSearchIndex {
public:
    void rebuild(const QList<CallRecord>& records);
    // Positions in `records` of the records the draft shows, in the draft's sort order. The
    // index follows `records` first when it is not the list it was built from.
    QList<qsizetype> visible(const DossiersDraft& draft, const QList<CallRecord>& records);
    qsizetype textBytes() const { return m_text.size(); }

private:
    QList<qsizetype> query(const DossiersDraft& draft, const QList<CallRecord>& records) const;

    QByteArray m_text;         // folded UTF-8 texts, each followed by a NUL byte
    QList<qsizetype> m_starts; // where each record's text starts in m_text
    QList<double> m_dates;     // each record's date, for the default order without lookups
    // Each record as it was folded, and where its text is, to reuse it while unchanged.
    struct Folded {
        CallRecord record;
        qsizetype start = 0;
        qsizetype length = 0;
    };
    QHash<QUuid, Folded> m_folded;
    QList<CallRecord> m_indexed; // shares its data with the list indexed while that is unchanged
};

// The dossier-name sheet of one record.
class DossierAssignment {
public:
    explicit DossierAssignment(const CallRecord& record);
    QString name; // DossierNameDraft.name
    QUuid recordId;

    static QStringList existing(const QList<CallRecord>& records)
    {
        return Dossiers::folders(records);
    }
    static QString prompt();      // "Ex. SCI Lilas · logement 4 · fuite"
    static QString explanation(); // "Un nom vide retire l’appel du dossier sans le supprimer."
    void choose(const QString& existingName) { name = existingName; }
    // The name "Enregistrer" passes to updateDossier (trimmed).
    QString nameToSave() const { return name.trimmed(); }
};

} // namespace vemira
