#pragma once

#include "records/CallRecord.h"

#include <QList>
#include <QLocale>
#include <QString>

namespace vemira {

// The calls the owner still has to deal with (status "À traiter"), the most pressing first:
// by urgency ("Urgent", "Rapide", "Normal", then none), newest first within each.
QList<const CallRecord*> pendingCalls(const QList<CallRecord>& records);

// Who called, as the list shows it: the name the caller gave, else the record's caller.
QString pendingCaller(const CallRecord& record);
// One line of the list: "Urgent · 14/03/2026 09:30 · Jean Dupuis — <summary>"; the urgency
// only when known, "Sans résumé" when there is no summary.
QString pendingLine(const CallRecord& record, const QLocale& locale = QLocale());

} // namespace vemira
