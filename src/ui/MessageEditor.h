#pragma once

#include "records/CallMessage.h"

#include <QUuid>
#include <QWidget>
#include <optional>

class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;

namespace vemira::ui {

// The message a call left, field by field, for the owner to read and correct. Edits are
// saved with "Enregistrer le message"; what is being typed survives the record being
// refreshed, as for the note.
class MessageEditor : public QWidget {
    Q_OBJECT

public:
    explicit MessageEditor(QWidget* parent = nullptr);

    // Shows the record's message (empty fields when it has none). Keeps unsaved typing when
    // it is the same record.
    void show(const QUuid& record, const std::optional<CallMessage>& message);
    // What the fields hold now.
    CallMessage edited() const;
    bool hasChanges() const { return edited() != m_loaded; }

    QLineEdit* field(const QString& key) const; // "identity", "address", … "summary"
    QComboBox* urgencyPicker() const { return m_urgency; }
    QPushButton* saveButton() const { return m_save; }
    QLabel* problemLabel() const { return m_problem; }

Q_SIGNALS:
    // The owner saved a correction; the message is already cleaned.
    void saveRequested(const QUuid& record, const CallMessage& message);

private:
    void load(const CallMessage& message);
    void refreshButton();
    void save();

    QUuid m_record;
    CallMessage m_loaded;
    bool m_updating = false;
    QList<std::pair<QString, QLineEdit*>> m_fields;
    QComboBox* m_urgency;
    QPushButton* m_save;
    QLabel* m_problem;
};

} // namespace vemira::ui
