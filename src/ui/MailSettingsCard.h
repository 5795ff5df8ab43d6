#pragma once

#include "ui/Widgets.h"

class QCheckBox;
class QLabel;
class QLineEdit;
class QPushButton;

namespace vemira {
class AfterCallNotices;
}

namespace vemira::ui {

// The e-mail sent to the owner after each call: the owner's mail server, the addresses, the
// login, and a test e-mail. The password field is never filled back from the stored one.
class MailSettingsCard : public Card {
    Q_OBJECT

public:
    MailSettingsCard(AfterCallNotices& notices, QWidget* parent = nullptr);

    QLineEdit* serverField() const { return m_server; }
    QLineEdit* fromField() const { return m_from; }
    QLineEdit* toField() const { return m_to; }
    QLineEdit* userField() const { return m_user; }
    QLineEdit* passwordField() const { return m_password; }
    QCheckBox* attachBox() const { return m_attach; }
    QPushButton* saveButton() const { return m_save; }
    QPushButton* testButton() const { return m_test; }
    QPushButton* offButton() const { return m_off; }
    QLabel* stateLabel() const { return m_state; }

private:
    void load();
    bool save();
    void sendTest();

    AfterCallNotices& m_notices;
    QLineEdit* m_server;
    QLineEdit* m_from;
    QLineEdit* m_to;
    QLineEdit* m_user;
    QLineEdit* m_password;
    QCheckBox* m_attach;
    QPushButton* m_save;
    QPushButton* m_test;
    QPushButton* m_off;
    QLabel* m_state;
};

} // namespace vemira::ui
