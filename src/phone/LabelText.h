#pragma once

#include <QString>
#include <QStringList>

namespace vemira {

// Labels are compared the way a French reader would: case and accents folded, blanks at
// both ends trimmed. The two apostrophes (’ and ') stay distinct, so tables list both.
QString normalizedLabel(const QString& label);

// True when one of `labels`, normalised, equals an entry of `table` (no substring match).
bool anyLabelIn(const QStringList& labels, const QStringList& table);

namespace phonelabels {
// Entries are stored already normalised.
const QStringList& answer();
const QStringList& hangUp();
const QStringList& callContext();
} // namespace phonelabels

} // namespace vemira
