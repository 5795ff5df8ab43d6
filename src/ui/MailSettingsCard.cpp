#include "ui/MailSettingsCard.h"

#include "notify/AfterCallNotices.h"
#include "ui/Theme.h"

#include <QCheckBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPointer>
#include <QPushButton>

namespace vemira::ui {

namespace {
QLineEdit* field(const QString& accessibleName, const QString& placeholder, QWidget* parent)
{
    auto* edit = new QLineEdit(parent);
    edit->setAccessibleName(accessibleName);
    edit->setPlaceholderText(placeholder);
    return edit;
}
} // namespace

MailSettingsCard::MailSettingsCard(AfterCallNotices& notices, QWidget* parent)
    : Card(QStringLiteral("E-mail après chaque appel"), parent), m_notices(notices)
{
    auto* explain = makeLabel(
        QStringLiteral("Après chaque appel, Vemira vous envoie le message de l’appelant et la "
                       "transcription par votre propre serveur d’envoi (connexion chiffrée). Le "
                       "mot de passe reste sur cet ordinateur, dans un fichier privé."),
        this);
    Theme::styleSecondary(explain);
    body()->addWidget(explain);

    auto* form = new QFormLayout;
    m_server =
        field(QStringLiteral("Serveur d’envoi"), QStringLiteral("smtps://smtp.exemple.fr"), this);
    form->addRow(QStringLiteral("Serveur d’envoi :"), m_server);
    m_from = field(QStringLiteral("Expéditeur"), QStringLiteral("standard@exemple.fr"), this);
    form->addRow(QStringLiteral("Expéditeur :"), m_from);
    m_to = field(QStringLiteral("Destinataire"), QStringLiteral("vous@exemple.fr"), this);
    form->addRow(QStringLiteral("Destinataire :"), m_to);
    m_user = field(QStringLiteral("Identifiant du serveur d’envoi"),
                   QStringLiteral("vide si le serveur n’en demande pas"), this);
    form->addRow(QStringLiteral("Identifiant :"), m_user);
    m_password = field(QStringLiteral("Mot de passe du serveur d’envoi"), QString(), this);
    m_password->setEchoMode(QLineEdit::Password);
    form->addRow(QStringLiteral("Mot de passe :"), m_password);
    body()->addLayout(form);
    m_attach =
        new QCheckBox(QStringLiteral("Joindre l’enregistrement audio (15 Mo au plus)"), this);
    body()->addWidget(m_attach);

    auto* row = new QHBoxLayout;
    m_save = makeButton(QStringLiteral("Enregistrer l’e-mail"), this);
    m_test = makeButton(QStringLiteral("Envoyer un e-mail d’essai"), this);
    m_off = makeButton(QStringLiteral("Ne plus envoyer d’e-mail"), this);
    row->addWidget(m_save);
    row->addWidget(m_test);
    row->addStretch(1);
    row->addWidget(m_off);
    body()->addLayout(row);
    m_state = makeLabel(QString(), this);
    m_state->setAccessibleName(QStringLiteral("État de l’e-mail"));
    body()->addWidget(m_state);

    connect(m_save, &QPushButton::clicked, this, [this] { save(); });
    connect(m_test, &QPushButton::clicked, this, [this] { sendTest(); });
    connect(m_off, &QPushButton::clicked, this, [this] {
        if (Status failed = m_notices.turnMailOff()) {
            m_state->setText(failed->message());
            return;
        }
        load();
    });
    load();
}

void MailSettingsCard::load()
{
    const std::optional<Settings::Mail> mail = m_notices.mailSettings();
    m_server->setText(mail ? mail->server : QString());
    m_from->setText(mail ? mail->from : QString());
    m_to->setText(mail ? mail->to : QString());
    m_user->setText(mail ? mail->user : QString());
    m_attach->setChecked(mail && mail->attachRecording);
    m_password->clear();
    m_password->setPlaceholderText(m_notices.hasMailPassword()
                                       ? QStringLiteral("enregistré (laisser vide pour le garder)")
                                       : QString());
    m_test->setEnabled(mail.has_value());
    m_off->setEnabled(mail.has_value());
    m_state->setText(mail ? QStringLiteral("Un e-mail est envoyé à ") + mail->to +
                                QStringLiteral(" après chaque appel.")
                          : QStringLiteral("Aucun e-mail n’est envoyé après les appels."));
}

bool MailSettingsCard::save()
{
    Settings::Mail mail = m_notices.mailSettings().value_or(Settings::Mail());
    mail.server = m_server->text().trimmed();
    mail.from = m_from->text().trimmed();
    mail.to = m_to->text().trimmed();
    mail.user = m_user->text().trimmed();
    mail.attachRecording = m_attach->isChecked();
    // Whatever is wrong, the owner's typing stays in the fields.
    if (Status failed = m_notices.saveMailSettings(mail, m_password->text())) {
        m_state->setText(failed->message());
        return false;
    }
    load();
    return true;
}

void MailSettingsCard::sendTest()
{
    // Unsaved changes are what the owner means to test.
    if (!save())
        return;
    m_test->setEnabled(false);
    m_state->setText(QStringLiteral("Envoi de l’e-mail d’essai…"));
    QPointer<MailSettingsCard> self(this);
    m_notices.sendTest([self](const Status& outcome) {
        if (!self)
            return;
        self->m_test->setEnabled(true);
        self->m_state->setText(outcome ? outcome->message()
                                       : QStringLiteral("E-mail d’essai accepté par le serveur. "
                                                        "Vérifiez votre boîte de réception."));
    });
}

} // namespace vemira::ui
