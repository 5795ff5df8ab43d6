#pragma once

#include "ui/Widgets.h"

class QCheckBox;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;
class QSpinBox;

namespace vemira {
class AppModel;
}

namespace vemira::ui {

// "Quand répondre": ring times, opening hours, closing days, numbers never taken and calls
// without a number. The same rules as `vemira rules`; saved by its own button, refused with
// the model's message naming the field, the fields then kept as typed.
class AnsweringRulesCard : public Card {
    Q_OBJECT

public:
    explicit AnsweringRulesCard(AppModel* model, QWidget* parent = nullptr);

    QSpinBox* ringOpenBox() const { return m_ringOpen; }
    QSpinBox* ringClosedBox() const { return m_ringClosed; }
    QLineEdit* hoursField() const { return m_hours; }
    QLineEdit* closedDaysField() const { return m_closedDays; }
    QPlainTextEdit* neverEditor() const { return m_never; }
    QCheckBox* answerHiddenBox() const { return m_answerHidden; }
    QPushButton* saveButton() const { return m_save; }
    QLabel* stateLabel() const { return m_state; }

    void load();
    bool save();

private:
    AppModel* m_model;
    QSpinBox* m_ringOpen;
    QSpinBox* m_ringClosed;
    QLineEdit* m_hours;
    QLineEdit* m_closedDays;
    QPlainTextEdit* m_never;
    QCheckBox* m_answerHidden;
    QPushButton* m_save;
    QLabel* m_state;
};

} // namespace vemira::ui
