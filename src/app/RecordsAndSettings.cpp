#include "app/AppModel.h"
#include "app/AppModelParts.h"
#include "core/PlatformWording.h"
#include "records/AgentInstructions.h"
#include "records/RecordingRetention.h"

#include <QPointer>

namespace vemira {

void AppModel::saveHistory()
{
    if (Status saved = d->store.saveHistory()) {
        m_error = saved->message();
        event(saved->message());
    }
}

void AppModel::addDemo()
{
    RecordsStore::DemoAdded added = d->store.addDemo(m_clock.now());
    if (added.saved)
        m_error = added.saved->message();
    m_selectedRecord = added.id;
    m_page = QStringLiteral("Conversations");
}

void AppModel::updateNote(const QUuid& id, const QString& text)
{
    if (Status s = d->store.updateNote(id, text))
        m_error = s->message();
}

void AppModel::updateDossier(const QUuid& id, const QString& name)
{
    if (Status s = d->store.updateDossier(id, name))
        m_error = s->message();
}

void AppModel::applyRecordingRetention()
{
    m_nextRetention = m_clock.uptime() + 24 * 3600.0;
    const int days = m_recordingRetentionDays;
    const QStringList removed = RecordingRetention::purge(d->store, days, m_clock.now());
    if (!removed.isEmpty()) {
        event(QStringLiteral("Enregistrements de plus de %1 jours supprimés (%2) : ")
                  .arg(days)
                  .arg(removed.size()) +
              removed.join(QStringLiteral(", ")));
    }
}

void AppModel::deleteRecord(const QUuid& id)
{
    if (m_finalizingRecordings.contains(id)) {
        m_error = QStringLiteral("L’enregistrement de cet appel est en cours de finalisation : "
                                 "réessayez dans un instant.");
        return;
    }
    const CallRecord* record = d->store.find(id);
    if (!record)
        return;
    const QString reference = record->reference();
    if (Status s = d->store.deleteRecord(id)) {
        m_error = s->message();
        return;
    }
    event(QStringLiteral("Appel ") + reference + QStringLiteral(" supprimé"));
}

void AppModel::updateMessage(const QUuid& id, const CallMessage& message)
{
    if (Status s = d->store.updateMessage(id, message))
        m_error = s->message();
}

void AppModel::updateFollowUpStatus(const QUuid& id, const QString& status)
{
    if (Status s = d->store.updateFollowUpStatus(id, status))
        m_error = s->message();
}

void AppModel::saveKey(const QString& text)
{
    Result<QString> key = keyFromUserText(text);
    if (!key) {
        m_error = key.error().message();
        return;
    }
    if (Status saved = d->keyStore.save(key.value())) {
        m_error = saved->message();
        return;
    }
    forgetAICheck();
    m_aiStatus = QStringLiteral("Clé enregistrée · connexion à vérifier");
    m_keyPresent = true;
    d->settings.setKeySaved(true);
    event(PlatformWording::current().keySavedEvent);
}

void AppModel::deleteKey()
{
    if (m_call)
        return;
    if (Status removed = d->keyStore.remove()) {
        m_error = removed->message();
        return;
    }
    forgetAICheck();
    m_keyPresent = false;
    d->settings.setKeySaved(false);
}

void AppModel::setVoice(const QString& v)
{
    if (m_voice == v)
        return;
    m_voice = v;
    forgetAICheck();
}

void AppModel::setModel(const QString& v)
{
    if (m_model == v)
        return;
    m_model = v;
    forgetAICheck();
    if (const QString notice = setup::modelRetirementNotice(v.trimmed(), m_clock.now().date());
        !notice.isEmpty())
        event(notice);
}

std::optional<ModelRetirement> AppModel::modelRetirement() const
{
    return ModelCatalogue::retirement(m_model.value().trimmed(), m_clock.now().date());
}

void AppModel::adoptSuccessorModel()
{
    const auto retirement = modelRetirement();
    if (!retirement || retirement->successor.isEmpty())
        return;
    setModel(retirement->successor);
    saveSettings();
}

void AppModel::replaceRetiredModel()
{
    // A model past its shutdown cannot answer: the receptionist moves on to its successor.
    const auto retirement = modelRetirement();
    if (retirement && retirement->retired && !retirement->successor.isEmpty()) {
        const QString retired = m_model.value().trimmed();
        m_model = retirement->successor;
        d->settings.saveGroup(
            {m_inputUID, m_outputUID, m_voice, m_model, m_company, m_customInstructions});
        event(setup::modelReplacedNotice(retired));
        return;
    }
    if (const QString notice =
            setup::modelRetirementNotice(m_model.value().trimmed(), m_clock.now().date());
        !notice.isEmpty())
        event(notice);
}

void AppModel::saveSettings()
{
    d->settings.saveGroup(
        {m_inputUID, m_outputUID, m_voice, m_model, m_company, m_customInstructions});
    event(QStringLiteral("Réglages enregistrés"));
}

void AppModel::copyTranscript(const QUuid& id)
{
    const CallRecord* record = d->store.find(id);
    if (!record || !d->dependencies.desktop)
        return;
    if (std::optional<QString> message = d->store.copyTranscript(*record, *d->dependencies.desktop))
        m_transcriptCopyStatus = *message;
}

void AppModel::exportTranscript(const QUuid& id)
{
    const CallRecord* record = d->store.find(id);
    if (!record || !d->dependencies.desktop)
        return;
    if (auto message = d->store.exportTranscript(*record, *d->dependencies.desktop))
        m_error = *message;
}

void AppModel::revealTranscript(const QUuid& id)
{
    const CallRecord* record = d->store.find(id);
    if (!record || !d->dependencies.desktop)
        return;
    if (auto message = d->store.revealTranscript(*record, *d->dependencies.desktop))
        m_error = *message;
}

void AppModel::exportRecording(const QUuid& id)
{
    const CallRecord* record = d->store.find(id);
    if (!record || !d->dependencies.desktop)
        return;
    if (auto message = d->store.exportRecording(*record, *d->dependencies.desktop))
        m_error = *message;
}

QString AppModel::instructions() const
{
    return composeInstructions({m_company, m_customInstructions, m_voiceStyle, m_recordingEnabled});
}

void AppModel::applyVoiceStyle(const QString& text)
{
    InstructionInputs inputs{m_company, m_customInstructions, m_voiceStyle, m_recordingEnabled};
    QPointer<AppModel> self(this);
    d->realtime->onInstructionsApplied = [self] {
        if (self)
            self->m_voiceStyleStatus = voiceStyleReceivedStatus();
    };
    const QString status =
        vemira::applyVoiceStyle(text, inputs, d->settings, [this](const QString& composed) {
            return m_connected && d->realtime->updateInstructions(composed);
        });
    m_voiceStyle = inputs.voiceStyle;
    Q_EMIT instructionsChanged();
    m_voiceStyleStatus = status;
}

const VoiceEQSettings& AppModel::voiceEQ() const
{
    return d->voiceEQ;
}

void AppModel::setVoiceEQ(const VoiceEQSettings& settings)
{
    if (d->voiceEQ == settings)
        return;
    d->voiceEQ = settings;
    d->settings.setVoiceEQ(settings.toJson());
    d->audio->setVoiceEQ(settings);
    Q_EMIT voiceEQChanged();
}

} // namespace vemira
