#include "records/Dossiers.h"

#include <QSet>
#include <algorithm>
#include <cstring>

namespace vemira {

namespace Dossiers {

QString allFolders()
{
    return QStringLiteral("Tous les dossiers");
}

QString unfiled()
{
    return QStringLiteral("Appels non classés");
}

QString allStatuses()
{
    return QStringLiteral("Tous les états");
}

QStringList followUpStatuses()
{
    return {QStringLiteral("À traiter"), QStringLiteral("En cours"), QStringLiteral("Terminé")};
}

QStringList statusFilterChoices()
{
    return QStringList{allStatuses()} + followUpStatuses();
}

QString searchPrompt()
{
    return QStringLiteral("Rechercher un numéro, un nom, un dossier ou une phrase");
}

QString countLine(qsizetype shown)
{
    return QString::number(shown) +
           QStringLiteral(" appel(s). Cliquez sur une colonne pour trier, puis sur un appel pour "
                          "l’ouvrir.");
}

QStringList folders(const QList<CallRecord>& records)
{
    QSet<QString> seen;
    QStringList names;
    for (const CallRecord& record : records) {
        if (record.dossier && !seen.contains(*record.dossier)) {
            seen.insert(*record.dossier);
            names.append(*record.dossier);
        }
    }
    // Plain character order: "dupont" and "Dupont" stay two dossiers, in code-unit order.
    std::sort(names.begin(), names.end(),
              [](const QString& a, const QString& b) { return a.compare(b) < 0; });
    return names;
}

QString fold(const QString& text)
{
    // Fast path: plain ASCII needs only case folding.
    bool ascii = true;
    for (QChar c : text) {
        if (c.unicode() >= 0x80) {
            ascii = false;
            break;
        }
    }
    if (ascii)
        return text.toLower();
    const QString decomposed = text.normalized(QString::NormalizationForm_KD);
    QString out;
    out.reserve(decomposed.size());
    for (QChar c : decomposed) {
        // People type the plain apostrophe; the texts hold the typographic one (and the
        // other way round): all the apostrophes compare as one.
        if (c == u'\u2019' || c == u'\u2018' || c == u'\u02BC')
            out += u'\'';
        else if (c.category() != QChar::Mark_NonSpacing)
            out += c;
    }
    return out.toCaseFolded();
}

bool containsFolded(const QString& haystack, const QString& needle)
{
    if (needle.isEmpty())
        return true;
    return fold(haystack).contains(fold(needle));
}

QString searchText(const CallRecord& record)
{
    QString text = record.reference() + u' ' + record.caller + u' ' + record.phoneLabel() + u' ' +
                   record.kind + u' ' + record.folderLabel() + u' ' + record.note;
    for (const TranscriptLine& line : record.transcript)
        text += u' ' + line.text;
    if (const auto& m = record.message) {
        for (const QString* field :
             {&m->identity, &m->address, &m->problem, &m->since, &m->callback, &m->summary})
            text += u' ' + *field;
    }
    return text;
}

} // namespace Dossiers

int RecordComparator::compare(const CallRecord& a, const CallRecord& b) const
{
    int order = 0;
    switch (column) {
    case Column::Date:
        order = a.date.secondsSinceReference < b.date.secondsSinceReference   ? -1
                : a.date.secondsSinceReference > b.date.secondsSinceReference ? 1
                                                                              : 0;
        break;
    case Column::Caller:
        order = a.caller.compare(b.caller);
        break;
    case Column::Kind:
        order = a.kind.compare(b.kind);
        break;
    case Column::Dossier:
        order = a.folderLabel().compare(b.folderLabel());
        break;
    case Column::Status:
        order = a.statusLabel().compare(b.statusLabel());
        break;
    case Column::Reference:
        order = a.reference().compare(b.reference());
        break;
    }
    order = order < 0 ? -1 : order > 0 ? 1 : 0;
    return descending ? -order : order;
}

namespace {

bool passesFilters(const DossiersDraft& draft, const CallRecord& record)
{
    if (draft.folder == Dossiers::unfiled()) {
        if (record.dossier)
            return false;
    } else if (draft.folder != Dossiers::allFolders()) {
        if (record.dossier != draft.folder)
            return false;
    }
    if (draft.status != Dossiers::allStatuses() && record.statusLabel() != draft.status)
        return false;
    return true;
}

void sortPositions(QList<qsizetype>& positions, const DossiersDraft& draft,
                   const QList<CallRecord>& records)
{
    std::stable_sort(positions.begin(), positions.end(), [&](qsizetype x, qsizetype y) {
        for (const RecordComparator& comparator : draft.sortOrder) {
            const int order = comparator.compare(records[x], records[y]);
            if (order != 0)
                return order < 0;
        }
        return false;
    });
}

} // namespace

bool DossiersDraft::matches(const CallRecord& record) const
{
    if (!passesFilters(*this, record))
        return false;
    return search.isEmpty() || Dossiers::containsFolded(Dossiers::searchText(record), search);
}

QList<CallRecord> DossiersDraft::visible(const QList<CallRecord>& records) const
{
    DossierSearchIndex index;
    const QList<qsizetype> positions = index.visible(*this, records);
    QList<CallRecord> shown;
    shown.reserve(positions.size());
    for (qsizetype i : positions)
        shown.append(records[i]);
    return shown;
}

const CallRecord* DossiersDraft::selectedRecord(const QList<CallRecord>& records) const
{
    if (!selected)
        return nullptr;
    for (const CallRecord& record : records) {
        if (record.id == *selected)
            return &record;
    }
    return nullptr;
}

void DossierSearchIndex::rebuild(const QList<CallRecord>& records)
{
    QByteArray text;
    text.reserve(m_text.size() + 64);
    QList<qsizetype> starts;
    QList<double> dates;
    QHash<QUuid, Folded> folded;
    starts.reserve(records.size() + 1);
    dates.reserve(records.size());
    folded.reserve(records.size());
    for (const CallRecord& record : records) {
        const qsizetype start = text.size();
        starts.append(start);
        dates.append(record.date.secondsSinceReference);
        const auto known = m_folded.constFind(record.id);
        if (known != m_folded.constEnd() && known->record == record)
            text.append(m_text.constData() + known->start, known->length);
        else
            text += Dossiers::fold(Dossiers::searchText(record)).toUtf8();
        folded.insert(record.id, Folded{record, start, text.size() - start});
        text += '\0';
    }
    starts.append(text.size());
    m_text = std::move(text);
    m_starts = std::move(starts);
    m_dates = std::move(dates);
    m_folded = std::move(folded);
    m_indexed = records;
}

QList<qsizetype> DossierSearchIndex::visible(const DossiersDraft& draft,
                                             const QList<CallRecord>& records)
{
    if (!records.isSharedWith(m_indexed) || records.size() != m_indexed.size() ||
        m_starts.isEmpty())
        rebuild(records);
    return query(draft, records);
}

QList<qsizetype> DossierSearchIndex::query(const DossiersDraft& draft,
                                           const QList<CallRecord>& records) const
{
    QList<qsizetype> positions;
    const qsizetype count = std::min(records.size(), m_starts.size() - 1);
    if (draft.search.isEmpty()) {
        for (qsizetype i = 0; i < count; ++i) {
            if (passesFilters(draft, records[i]))
                positions.append(i);
        }
    } else {
        // One forward scan: after a hit, jump to the next record's text. memmem is several
        // times faster than a generic search over tens of megabytes.
        const QByteArray needle = Dossiers::fold(draft.search).toUtf8();
        const char* const text = m_text.constData();
        qsizetype from = 0;
        qsizetype record = 0;
        while (record < count) {
            const void* found = ::memmem(text + from, size_t(m_text.size() - from),
                                         needle.constData(), size_t(needle.size()));
            if (!found)
                break;
            const qsizetype hit = static_cast<const char*>(found) - text;
            record = std::upper_bound(m_starts.cbegin() + record, m_starts.cend(), hit) -
                     m_starts.cbegin() - 1;
            if (record >= count)
                break;
            if (hit + needle.size() < m_starts[record + 1] && passesFilters(draft, records[record]))
                positions.append(record);
            ++record;
            from = m_starts[record];
        }
    }
    const bool byDateOnly = draft.sortOrder.size() == 1 &&
                            draft.sortOrder.first().column == RecordComparator::Column::Date &&
                            m_dates.size() >= count;
    if (byDateOnly) {
        const bool descending = draft.sortOrder.first().descending;
        std::stable_sort(positions.begin(), positions.end(), [&](qsizetype x, qsizetype y) {
            return descending ? m_dates[x] > m_dates[y] : m_dates[x] < m_dates[y];
        });
    } else {
        sortPositions(positions, draft, records);
    }
    return positions;
}

DossierAssignment::DossierAssignment(const CallRecord& record)
    : name(record.dossier.value_or(QString())), recordId(record.id)
{}

QString DossierAssignment::prompt()
{
    return QStringLiteral("Ex. SCI Lilas · logement 4 · fuite");
}

QString DossierAssignment::explanation()
{
    return QStringLiteral("Un nom vide retire l’appel du dossier sans le supprimer.");
}

} // namespace vemira
