#pragma once

#include "records/AgentInstructions.h"

#include <QWidget>

class QComboBox;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;

namespace vemira {
class AppModel;
}

namespace vemira::ui {

class AnsweringRulesCard;

// Who the assistant answers for and what it must do: company, mission (from a template if
// wanted), tone and voice. Edits stay in an AgentDraft until "Enregistrer les réglages".
class AgentPage : public QWidget {
    Q_OBJECT

public:
    explicit AgentPage(AppModel* model, QWidget* parent = nullptr);

    const AgentDraft& draft() const { return m_draft; }
    // Reloads the draft from the model's settings (discarding unsaved edits).
    void reload();
    void save();

    QLineEdit* companyField() const { return m_company; }
    QComboBox* templatePicker() const { return m_template; }
    QPushButton* useExampleButton() const { return m_useExample; }
    QComboBox* tonePicker() const { return m_tone; }
    QComboBox* voicePicker() const { return m_voice; }
    QPlainTextEdit* missionEditor() const { return m_mission; }
    QPushButton* saveButton() const { return m_save; }
    QPushButton* adoptSuccessorButton() const { return m_adoptSuccessor; }
    AnsweringRulesCard* rulesCard() const { return m_rules; }

Q_SIGNALS:
    void voiceWindowRequested();
    void testWindowRequested();

private:
    AppModel* m_model;
    AgentDraft m_draft;
    bool m_loading = false;
    QWidget* m_retiring;
    QLabel* m_retiringText;
    QPushButton* m_adoptSuccessor;
    QLineEdit* m_company;
    QComboBox* m_template;
    QPushButton* m_useExample;
    QComboBox* m_tone;
    QComboBox* m_voice;
    QPlainTextEdit* m_mission;
    QPushButton* m_save;
    QLabel* m_saved;
    QPlainTextEdit* m_composed;
    AnsweringRulesCard* m_rules;
};

} // namespace vemira::ui
