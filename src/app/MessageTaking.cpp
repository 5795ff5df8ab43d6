// The call's message, asked of the model while its session is still open, once the caller has
// gone and before the record is saved.
#include "ai/MessageRequest.h"
#include "app/AppModelParts.h"
#include "app/Conversation.h"

#include <QPointer>

namespace vemira {

void AppModel::bindMessageTaking()
{
    d->message = std::make_unique<MessageRequest>(*d->realtime, m_clock);
    // The request keeps its own bound and always answers; this one only guards the wind-down
    // against an answer that never reaches it.
    addWindDownStep(MessageRequest::timeoutSeconds + 1, [this](CallRecord& record,
                                                               std::function<void()> done) {
        // No session to ask (an error may have ended it while the socket is still open),
        // or nothing said to take a message from.
        if (!d->realtime->acceptsRequests() || !MessageRequest::worthAsking(record.transcript)) {
            done();
            return;
        }
        QPointer<AppModel> self(this);
        const QUuid generation = m_call->generation;
        d->message->start(
            [self, generation, done = std::move(done)](const MessageRequest::Outcome& outcome) {
                if (!self || !self->m_call || self->m_call->generation != generation)
                    return;
                if (outcome.message) {
                    self->m_call->record.message = outcome.message;
                    Q_EMIT self->currentChanged();
                    self->event(QStringLiteral("Message de l’appel reçu."));
                } else {
                    self->event(outcome.logLine);
                }
                done();
            });
    });
}

} // namespace vemira
