#pragma once

#include <QDialog>

class QLabel;
class QLineEdit;
class QPushButton;

namespace vemira {
class AppModel;
}

namespace vemira::ui {

// Trying the assistant before a real call: on this computer, or on an outgoing call that
// the AI then joins.
class TestWindow : public QDialog {
    Q_OBJECT

public:
    explicit TestWindow(AppModel* model, QWidget* parent = nullptr);

    QPushButton* talkButton() const { return m_talk; }
    QPushButton* endButton() const { return m_end; }
    QLineEdit* numberField() const { return m_number; }
    QPushButton* dialButton() const { return m_dial; }
    QPushButton* connectButton() const { return m_connect; }
    QLabel* outgoingStatusLabel() const { return m_outgoingStatus; }

private:
    void refresh();

    AppModel* m_model;
    QLabel* m_route;
    QPushButton* m_talk;
    QPushButton* m_end;
    QLineEdit* m_number;
    QPushButton* m_dial;
    QPushButton* m_openPhone;
    QPushButton* m_connect;
    QLabel* m_outgoingStatus;
    QLabel* m_state;
};

} // namespace vemira::ui
