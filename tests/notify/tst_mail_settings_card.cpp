// The Connexions page's e-mail card, driven like the owner does, against a real mail server.
#include "SmtpTestServer.h"
#include "core/Clock.h"
#include "notify/AfterCallNotices.h"
#include "records/Settings.h"
#include "ui/MailSettingsCard.h"

#include <QApplication>
#include <QCheckBox>
#include <QFileInfo>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTest>

using namespace vemira;
using test::SmtpTestServer;

class MailSettingsCardTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void setUpTestAndTurnOff();
};

void MailSettingsCardTest::setUpTestAndTurnOff()
{
    const auto options =
        SmtpTestServer::Options::withLogin(QStringLiteral("gerant"), QStringLiteral("le-bon"));
    SmtpTestServer server(options);
    QVERIFY(server.started());

    QTemporaryDir dir;
    ManualClock clock;
    Settings settings(dir.filePath(QStringLiteral("prefs.ini")));
    const DataFolder folder(dir.filePath(QStringLiteral("Brelian")));
    AfterCallNotices notices(clock, settings, folder, nullptr);
    ui::MailSettingsCard card(notices);
    QCOMPARE(card.stateLabel()->text(),
             QStringLiteral("Aucun e-mail n’est envoyé après les appels."));
    QVERIFY(!card.testButton()->isEnabled());

    // A wrong address is refused and nothing typed is lost.
    card.serverField()->setText(QStringLiteral("smtp.exemple.fr"));
    card.fromField()->setText(QStringLiteral("standard@exemple.fr"));
    card.toField()->setText(QStringLiteral("gerant@exemple.fr"));
    card.userField()->setText(options.user);
    card.passwordField()->setText(QStringLiteral("le-mauvais"));
    QTest::mouseClick(card.saveButton(), Qt::LeftButton);
    QVERIFY(card.stateLabel()->text().startsWith(
        QStringLiteral("L’adresse du serveur d’envoi « smtp.exemple.fr » n’est pas valable")));
    QCOMPARE(card.passwordField()->text(), QStringLiteral("le-mauvais"));
    QVERIFY(!settings.mail());

    // The test button saves what is typed, then the server's verdict is shown as it is.
    card.serverField()->setText(server.url());
    settings.setMail(std::nullopt);
    QTest::mouseClick(card.saveButton(), Qt::LeftButton);
    QVERIFY(settings.mail());
    Settings::Mail mail = *settings.mail();
    mail.caFile = server.certificate(); // the company's own authority, set once
    settings.setMail(mail);
    card.passwordField()->setText(QStringLiteral("le-mauvais"));
    QTest::mouseClick(card.testButton(), Qt::LeftButton);
    QTRY_COMPARE_WITH_TIMEOUT(
        card.stateLabel()->text(),
        QStringLiteral("Le serveur d’envoi a refusé l’identifiant ou le mot de passe. Réponse du "
                       "serveur : « 535 5.7.8 Authentication credentials invalid »."),
        20000);

    card.passwordField()->setText(options.password);
    QTest::mouseClick(card.testButton(), Qt::LeftButton);
    QTRY_COMPARE_WITH_TIMEOUT(card.stateLabel()->text(),
                              QStringLiteral("E-mail d’essai accepté par le serveur. Vérifiez "
                                             "votre boîte de réception."),
                              20000);
    QCOMPARE(server.mail(1).value(QStringLiteral("subject")).toString(),
             QStringLiteral("Vemira · E-mail d’essai"));
    // The password is kept privately and never shown back.
    const QString passwordFile = folder.credentialsFolder() + QStringLiteral("/smtp.password");
    QCOMPARE(QFileInfo(passwordFile).permissions() & 0x0077, QFileDevice::Permissions());
    QVERIFY(card.passwordField()->text().isEmpty());
    QCOMPARE(settings.mail()->caFile, server.certificate());

    QTest::mouseClick(card.offButton(), Qt::LeftButton);
    QVERIFY(!settings.mail());
    QVERIFY(!QFileInfo::exists(passwordFile));
    QCOMPARE(card.stateLabel()->text(),
             QStringLiteral("Aucun e-mail n’est envoyé après les appels."));
}

QTEST_MAIN(MailSettingsCardTest)
#include "tst_mail_settings_card.moc"
