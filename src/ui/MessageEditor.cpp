#include "ui/MessageEditor.h"

#include "phone/CallPolicy.h"
#include "ui/Theme.h"
#include "ui/Widgets.h"

#include <QComboBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

namespace vemira::ui {

namespace {

QString notGiven()
{
    return QStringLiteral("Non précisé");
}

} // namespace

MessageEditor::MessageEditor(QWidget* parent) : QWidget(parent)
{
    setAccessibleName(QStringLiteral("Message de l’appel"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* form = new QFormLayout;
    const auto addField = [&](const QString& key, const QString& label) {
        auto* edit = new QLineEdit(this);
        edit->setPlaceholderText(notGiven());
        auto* caption = new QLabel(label, this);
        nameAfter(edit, caption);
        form->addRow(caption, edit);
        m_fields.append({key, edit});
        connect(edit, &QLineEdit::textChanged, this, &MessageEditor::refreshButton);
    };
    addField(QStringLiteral("summary"), QStringLiteral("Résu&mé :"));
    addField(QStringLiteral("identity"), QStringLiteral("N&om :"));
    addField(QStringLiteral("address"), QStringLiteral("Adr&esse :"));
    addField(QStringLiteral("problem"), QStringLiteral("Pro&blème :"));
    addField(QStringLiteral("since"), QStringLiteral("Dep&uis :"));
    m_urgency = new QComboBox(this);
    m_urgency->addItem(notGiven());
    m_urgency->addItems(CallMessage::urgencies());
    auto* urgencyLabel = new QLabel(QStringLiteral("Ur&gence :"), this);
    nameAfter(m_urgency, urgencyLabel);
    form->addRow(urgencyLabel, m_urgency);
    connect(m_urgency, &QComboBox::currentIndexChanged, this, &MessageEditor::refreshButton);
    addField(QStringLiteral("callback"), QStringLiteral("Ra&ppel :"));
    layout->addLayout(form);

    auto* row = new QHBoxLayout;
    m_problem = makeLabel(QString(), this);
    Theme::styleError(m_problem);
    m_problem->setAccessibleName(QStringLiteral("Erreur du message"));
    row->addWidget(m_problem, 1);
    m_save = makeButton(QStringLiteral("Enregistrer le &message"), this);
    m_save->setEnabled(false);
    row->addWidget(m_save);
    layout->addLayout(row);
    connect(m_save, &QPushButton::clicked, this, &MessageEditor::save);
}

QLineEdit* MessageEditor::field(const QString& key) const
{
    for (const auto& [name, edit] : m_fields) {
        if (name == key)
            return edit;
    }
    return nullptr;
}

CallMessage MessageEditor::edited() const
{
    CallMessage m;
    m.identity = field(QStringLiteral("identity"))->text();
    m.address = field(QStringLiteral("address"))->text();
    m.problem = field(QStringLiteral("problem"))->text();
    m.since = field(QStringLiteral("since"))->text();
    m.urgency = m_urgency->currentIndex() > 0 ? m_urgency->currentText() : QString();
    m.callback = field(QStringLiteral("callback"))->text();
    m.summary = field(QStringLiteral("summary"))->text();
    return m;
}

void MessageEditor::show(const QUuid& record, const std::optional<CallMessage>& message)
{
    const CallMessage stored = message.value_or(CallMessage());
    if (record == m_record && hasChanges()) {
        m_loaded = stored; // typing kept; the button compares with what is stored now
        refreshButton();
        return;
    }
    m_record = record;
    load(stored);
}

void MessageEditor::load(const CallMessage& message)
{
    m_updating = true;
    m_loaded = message;
    field(QStringLiteral("identity"))->setText(message.identity);
    field(QStringLiteral("address"))->setText(message.address);
    field(QStringLiteral("problem"))->setText(message.problem);
    field(QStringLiteral("since"))->setText(message.since);
    m_urgency->setCurrentIndex(int(CallMessage::urgencies().indexOf(message.urgency)) + 1);
    field(QStringLiteral("callback"))->setText(message.callback);
    field(QStringLiteral("summary"))->setText(message.summary);
    m_problem->clear();
    m_updating = false;
    refreshButton();
}

void MessageEditor::refreshButton()
{
    if (!m_updating)
        m_save->setEnabled(!m_record.isNull() && hasChanges());
}

void MessageEditor::save()
{
    const CallMessage typed = edited();
    const CallMessage cleaned = typed.cleaned();
    // A number the owner cannot dial is refused, and the typing kept to be corrected.
    if (!typed.callback.trimmed().isEmpty() && cleaned.callback.isEmpty()) {
        m_problem->setText(QStringLiteral(
            "Numéro de rappel non reconnu : indiquez un numéro de 8 à 15 chiffres."));
        return;
    }
    load(cleaned); // shown as it is stored
    Q_EMIT saveRequested(m_record, cleaned);
}

} // namespace vemira::ui
