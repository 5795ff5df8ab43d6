#pragma once

#include "core/AppError.h"
#include "core/Clock.h"
#include "records/CallRecord.h"

#include <QUuid>
#include <functional>

class QObject;

namespace vemira {

class RecordsStore;

// The record of the call under way, kept on disk while the call lasts, so that a crash or a
// power cut loses at most its last seconds. It enters the history, marked in progress, when
// the call is answered; its later states are written alone to the call's own file (the cost of
// one record, not of the whole history). Changes (transcript lines, usage, the message) are
// gathered: one write at most every kSaveDelay seconds of the clock, however many come in
// between. The next start folds that file into the history (recoverRecordings). Main thread
// only.
class ProvisionalRecord {
public:
    static constexpr double kSaveDelay = 2.0;

    // `live` gives the record of the conversation under way, or null.
    ProvisionalRecord(RecordsStore& store, Clock& clock, QObject* context,
                      std::function<const CallRecord*()> live);

    // The call was answered: the record goes to the front of the history, marked in progress,
    // and is saved at once.
    Status open(const CallRecord& record);
    // The live record changed: it reaches the file within kSaveDelay.
    void changed();
    // The conversation ended: the history's copy takes the record's final state (inserted
    // when the call never got as far as `open`). The caller saves. Only what the conversation
    // changed is copied: the owner may have edited the record in the list meanwhile.
    void close(const CallRecord& record);

    // A failed save during the call, once per call (the next ones are likely the same).
    std::function<void(const QString&)> onSaveFailed;

private:
    void save();

    RecordsStore& m_store;
    Clock& m_clock;
    QObject* m_context;
    std::function<const CallRecord*()> m_live;
    QUuid m_id;          // the open record; null when none
    CallRecord m_synced; // the record as the history got it at the answer
    TaskHandlePtr m_pending;
    bool m_failureTold = false;
};

} // namespace vemira
