#include "app/ProvisionalRecord.h"

#include "records/HistoryMerge.h"
#include "records/RecordsStore.h"

namespace vemira {

ProvisionalRecord::ProvisionalRecord(RecordsStore& store, Clock& clock, QObject* context,
                                     std::function<const CallRecord*()> live)
    : m_store(store), m_clock(clock), m_context(context), m_live(std::move(live))
{}

Status ProvisionalRecord::open(const CallRecord& record)
{
    m_pending.reset();
    m_id = record.id;
    m_synced = record;
    m_failureTold = false;
    CallRecord provisional = record;
    provisional.progress = CallProgress::InProgress;
    m_store.insertFront(provisional);
    // In the history for every program of the folder to see; its later states go to the
    // call's own file.
    Status failed = m_store.saveHistory();
    if (Status sideFailed = m_store.writeCallInProgress(provisional); sideFailed && !failed)
        failed = sideFailed;
    return failed;
}

void ProvisionalRecord::changed()
{
    if (m_id.isNull() || m_pending)
        return;
    m_pending = m_clock.schedule(kSaveDelay, m_context, [this] {
        m_pending.reset();
        save();
    });
}

void ProvisionalRecord::save()
{
    const CallRecord* live = m_live();
    if (!live || live->id != m_id)
        return;
    // Only the call's file: the lists are not redrawn every few seconds, and the next start
    // takes from it what the call wrote.
    CallRecord last = *live;
    last.progress = CallProgress::InProgress;
    if (Status failed = m_store.writeCallInProgress(last); failed && !m_failureTold) {
        m_failureTold = true;
        if (onSaveFailed)
            onSaveFailed(failed->message());
    }
}

void ProvisionalRecord::close(const CallRecord& record)
{
    m_pending.reset();
    const bool opened = m_id == record.id;
    m_id = QUuid();
    // The history, saved by the caller now, holds the whole call.
    if (opened)
        m_store.removeCallInProgress();
    if (opened && m_store.modify(record.id, [this, &record](CallRecord& stored) {
            stored = mergeRecord(m_synced, record, stored);
            stored.progress = CallProgress::Ended;
        }))
        return;
    // Never opened, or deleted meanwhile from outside: the record is saved whole.
    CallRecord ended = record;
    ended.progress = CallProgress::Ended;
    m_store.insertFront(ended);
}

} // namespace vemira
