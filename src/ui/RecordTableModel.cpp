#include "ui/RecordTableModel.h"

namespace vemira::ui {

RecordTableModel::RecordTableModel(QObject* parent) : QAbstractTableModel(parent) {}

void RecordTableModel::refresh(const QList<CallRecord>& all, const DossiersDraft& draft)
{
    beginResetModel();
    const QList<qsizetype> positions = m_search.visible(draft, all);
    m_rows.clear();
    m_rows.reserve(positions.size());
    for (qsizetype i : positions)
        m_rows.append(all[i]);
    endResetModel();
}

int RecordTableModel::rowOf(const QUuid& id) const
{
    for (int i = 0; i < m_rows.size(); ++i) {
        if (m_rows[i].id == id)
            return i;
    }
    return -1;
}

std::optional<RecordComparator::Column> RecordTableModel::sortColumn(int column)
{
    using C = RecordComparator::Column;
    switch (column) {
    case Date:
        return C::Date;
    case Caller:
        return C::Caller;
    case Kind:
        return C::Kind;
    case Dossier:
        return C::Dossier;
    case Status:
        return C::Status;
    case Reference:
        return C::Reference;
    default:
        return std::nullopt;
    }
}

int RecordTableModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : int(m_rows.size());
}

int RecordTableModel::columnCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant RecordTableModel::data(const QModelIndex& index, int role) const
{
    if (!index.isValid() || index.row() >= m_rows.size())
        return {};
    const CallRecord& r = m_rows[index.row()];
    if (role == IdRole)
        return QVariant::fromValue(r.id);
    if (role != Qt::DisplayRole && role != Qt::AccessibleTextRole && role != Qt::ToolTipRole)
        return {};
    switch (index.column()) {
    case Date:
        return m_locale.toString(r.date.toDateTime(), QLocale::ShortFormat);
    case Caller:
        return r.caller;
    case Number:
        return r.phoneLabel();
    case Kind:
        return r.kindLabel();
    case Dossier:
        return r.folderLabel();
    case Status:
        return r.statusLabel();
    case Reference:
        return r.reference();
    default:
        return {};
    }
}

QVariant RecordTableModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal ||
        (role != Qt::DisplayRole && role != Qt::AccessibleTextRole))
        return QAbstractTableModel::headerData(section, orientation, role);
    switch (section) {
    case Date:
        return QStringLiteral("Date");
    case Caller:
        return QStringLiteral("Interlocuteur");
    case Number:
        return QStringLiteral("Numéro");
    case Kind:
        return QStringLiteral("Type");
    case Dossier:
        return QStringLiteral("Dossier");
    case Status:
        return QStringLiteral("État");
    case Reference:
        return QStringLiteral("Référence");
    default:
        return {};
    }
}

} // namespace vemira::ui
