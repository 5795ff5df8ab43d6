#pragma once

#include "records/CallRecord.h"
#include "records/Dossiers.h"

#include <QAbstractTableModel>
#include <QLocale>

namespace vemira::ui {

// The dossier screen's table: the records the draft lets through, in the draft's order.
// Rows are identified by record id, so a selection survives a new call arriving.
class RecordTableModel : public QAbstractTableModel {
    Q_OBJECT

public:
    enum Column { Date, Caller, Number, Kind, Dossier, Status, Reference, ColumnCount };
    static constexpr int IdRole = Qt::UserRole + 1;

    explicit RecordTableModel(QObject* parent = nullptr);

    // Recomputes the visible rows from all records and the draft's filters and order.
    void refresh(const QList<CallRecord>& all, const DossiersDraft& draft);
    const QList<CallRecord>& visible() const { return m_rows; }
    int rowOf(const QUuid& id) const;
    // The draft comparator a header click asks for (none for the number column).
    static std::optional<RecordComparator::Column> sortColumn(int column);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

private:
    QList<CallRecord> m_rows;
    DossierSearchIndex m_search;
    QLocale m_locale;
};

} // namespace vemira::ui
