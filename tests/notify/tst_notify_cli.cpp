#include "SmtpTestServer.h"
#include "notify/MailQueue.h"

#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace {

struct Run {
    int status = -1;
    QString out;
    QString err;
};

} // namespace

using vemira::test::SmtpTestServer;

// `vemira notify` as the owner runs it: a real process, a real server on loopback.
class NotifyCliTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { m_dir = std::make_unique<QTemporaryDir>(); }
    void setTestStatusOff();
    void refusedAndUnreachableAreFailures();
    void wrongUsage();

private:
    Run vemira(const QStringList& arguments, const QByteArray& input = {})
    {
        QProcess process;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("VEMIRA_DATA_DIR"), m_dir->filePath(QStringLiteral("data")));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), m_dir->filePath(QStringLiteral("config")));
        process.setProcessEnvironment(env);
        process.start(QStringLiteral(VEMIRA_CLI_PATH), arguments);
        process.write(input);
        process.closeWriteChannel();
        if (!process.waitForFinished(60000))
            return {};
        return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
                QString::fromUtf8(process.readAllStandardError())};
    }
    QString passwordFile() const
    {
        return m_dir->filePath(QStringLiteral("data/Credentials/smtp.password"));
    }
    std::unique_ptr<QTemporaryDir> m_dir;
};

void NotifyCliTest::setTestStatusOff()
{
    const auto options = SmtpTestServer::Options::withLogin(QStringLiteral("gerant"),
                                                            QStringLiteral(" espace autour "));
    SmtpTestServer server(options);
    QVERIFY(server.started());

    QCOMPARE(vemira({QStringLiteral("notify"), QStringLiteral("status")}).out,
             QStringLiteral("désactivé\n"));
    Run run = vemira({QStringLiteral("notify"), QStringLiteral("test")});
    QCOMPARE(run.status, 1);
    QCOMPARE(run.err, QStringLiteral("L’envoi d’e-mail n’est pas configuré : utilisez d’abord "
                                     "« vemira notify set ».\n"));

    run = vemira({QStringLiteral("notify"), QStringLiteral("set"), QStringLiteral("--smtp"),
                  server.url(), QStringLiteral("--from"), QStringLiteral("standard@exemple.fr"),
                  QStringLiteral("--to"), QStringLiteral("gerant@exemple.fr"),
                  QStringLiteral("--user"), options.user, QStringLiteral("--ca"),
                  server.certificate()},
                 options.password.toUtf8() + '\n');
    QCOMPARE(run.status, 0);
    QVERIFY(!run.err.contains(options.password));
    QCOMPARE(QFileInfo(passwordFile()).permissions() & 0x7777,
             QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadUser |
                 QFileDevice::WriteUser);
    QFile stored(passwordFile());
    QVERIFY(stored.open(QIODevice::ReadOnly));
    QCOMPARE(stored.readAll(), options.password.toUtf8()); // spaces kept, line break not

    run = vemira({QStringLiteral("notify"), QStringLiteral("status")});
    QCOMPARE(run.out, QStringLiteral("activé\t%1\tstandard@exemple.fr\tgerant@exemple.fr\tgerant\t"
                                     "mot de passe enregistré\tenregistrement non joint\n")
                          .arg(server.url()));
    QVERIFY(!run.out.contains(options.password));

    run = vemira({QStringLiteral("notify"), QStringLiteral("test")});
    QCOMPARE(run.status, 0);
    QCOMPARE(run.err,
             QStringLiteral("E-mail d’essai accepté par le serveur pour gerant@exemple.fr\n"));
    const QJsonObject mail = server.mail(1);
    QCOMPARE(mail.value(QStringLiteral("subject")).toString(),
             QStringLiteral("Vemira · E-mail d’essai"));
    QVERIFY(mail.value(QStringLiteral("tls")).toBool());
    QCOMPARE(mail.value(QStringLiteral("login")).toString(), options.user);

    // A call's mail left waiting by a run that could not send it: told, then sent on demand.
    {
        vemira::ManualClock clock;
        vemira::MailQueue queue(clock, m_dir->filePath(QStringLiteral("data/Courriels")), [] {
            return vemira::Result<vemira::SmtpRequest>(
                vemira::AppError(QStringLiteral("hors ligne")));
        });
        QVERIFY(!queue.add("Subject: En attente\r\n\r\nCorps\r\n", QStringLiteral("de l’appel X")));
    }
    run = vemira({QStringLiteral("notify"), QStringLiteral("status")});
    QCOMPARE(run.err, QStringLiteral("1 e-mail(s) en attente d’envoi\n"));
    run = vemira({QStringLiteral("notify"), QStringLiteral("retry")});
    QCOMPARE(run.status, 0);
    QCOMPARE(server.mail(2).value(QStringLiteral("subject")).toString(),
             QStringLiteral("En attente"));
    QCOMPARE(vemira({QStringLiteral("notify"), QStringLiteral("status")}).err, QString());

    run = vemira({QStringLiteral("notify"), QStringLiteral("off")});
    QCOMPARE(run.status, 0);
    QVERIFY(!QFile::exists(passwordFile()));
    QCOMPARE(vemira({QStringLiteral("notify"), QStringLiteral("status")}).out,
             QStringLiteral("désactivé\n"));
}

void NotifyCliTest::refusedAndUnreachableAreFailures()
{
    const auto options =
        SmtpTestServer::Options::withLogin(QStringLiteral("gerant"), QStringLiteral("le-bon"));
    SmtpTestServer server(options);
    QVERIFY(server.started());
    const QStringList set{QStringLiteral("notify"), QStringLiteral("set"),
                          QStringLiteral("--from"), QStringLiteral("standard@exemple.fr"),
                          QStringLiteral("--to"),   QStringLiteral("gerant@exemple.fr"),
                          QStringLiteral("--user"), options.user,
                          QStringLiteral("--ca"),   server.certificate(),
                          QStringLiteral("--smtp")};
    QCOMPARE(vemira(set + QStringList{server.url()}, "le-mauvais\n").status, 0);
    Run run = vemira({QStringLiteral("notify"), QStringLiteral("test")});
    QCOMPARE(run.status, 1);
    QCOMPARE(run.err,
             QStringLiteral("Le serveur d’envoi a refusé l’identifiant ou le mot de passe. "
                            "Réponse du serveur : « 535 5.7.8 Authentication credentials "
                            "invalid ».\n"));
    QVERIFY(!run.err.contains(QStringLiteral("le-mauvais")));

    const int port = vemira::test::freeLoopbackPort();
    QCOMPARE(
        vemira(set + QStringList{QStringLiteral("smtp://127.0.0.1:%1").arg(port)}, "x\n").status,
        0);
    run = vemira({QStringLiteral("notify"), QStringLiteral("test")});
    QCOMPARE(run.status, 1);
    QCOMPARE(run.err,
             QStringLiteral("Le serveur d’envoi 127.0.0.1:%1 est injoignable. Vérifiez son "
                            "adresse, son port et la connexion Internet.\n")
                 .arg(port));
    QCOMPARE(server.received(), 0);
}

void NotifyCliTest::wrongUsage()
{
    // Settings that cannot work are refused before anything is stored.
    Run run = vemira({QStringLiteral("notify"), QStringLiteral("set"), QStringLiteral("--smtp"),
                      QStringLiteral("http://smtp.exemple.fr"), QStringLiteral("--from"),
                      QStringLiteral("a@exemple.fr"), QStringLiteral("--to"),
                      QStringLiteral("b@exemple.fr")});
    QCOMPARE(run.status, 1);
    QVERIFY(run.err.startsWith(QStringLiteral("L’adresse du serveur d’envoi « http://")));
    run = vemira({QStringLiteral("notify"), QStringLiteral("set"), QStringLiteral("--smtp"),
                  QStringLiteral("smtps://smtp.exemple.fr"), QStringLiteral("--from"),
                  QStringLiteral("a@exemple.fr"), QStringLiteral("--to"),
                  QStringLiteral("b@exemple.fr"), QStringLiteral("--user"), QStringLiteral("moi")});
    QCOMPARE(run.status, 1);
    QCOMPARE(run.err, QStringLiteral("Saisissez le mot de passe du serveur d’envoi sur l’entrée "
                                     "standard.\n"));
    QCOMPARE(vemira({QStringLiteral("notify"), QStringLiteral("status")}).out,
             QStringLiteral("désactivé\n"));
    for (const QStringList& arguments :
         {QStringList{QStringLiteral("notify")},
          QStringList{QStringLiteral("notify"), QStringLiteral("set"), QStringLiteral("--to")},
          QStringList{QStringLiteral("notify"), QStringLiteral("envoyer")}}) {
        run = vemira(arguments);
        QCOMPARE(run.status, 2);
        QVERIFY(run.err.startsWith(QStringLiteral("Usage : vemira notify ")));
    }
}

QTEST_GUILESS_MAIN(NotifyCliTest)
#include "tst_notify_cli.moc"
