#include "SmtpTestServer.h"
#include "notify/MailQueue.h"
#include "records/AgentInstructions.h"
#include "records/CallRecord.h"
#include "records/DataFolder.h"
#include "records/InstanceLock.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSettings>
#include <QSysInfo>
#include <QTemporaryDir>
#include <QTest>

using namespace vemira;
using test::SmtpTestServer;

namespace {

struct Run {
    int status = -1;
    QString out;
    QString err;
};

QByteArray bytesOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

class CliTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void recordsFromTheCommandLine();
    void failuresAreFrenchOnStandardError();
    void unreadableHistoryIsLeftAlone();
    void deleteAndSecondReceptionist();
    void keyAndInstructions();
    void answeringRules();
    void help();
    void mailSetTestRetryAndOff();
    void mailRefusedUnreachableAndWrongUsage();

private:
    Run vemira(const QStringList& arguments, const QByteArray& input = {});
    QString data() const { return m_dir->filePath(QStringLiteral("data")); }
    std::unique_ptr<QTemporaryDir> m_dir;
};

void CliTest::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

Run CliTest::vemira(const QStringList& arguments, const QByteArray& input)
{
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("VEMIRA_DATA_DIR"), data());
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), m_dir->filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("TZ"), QStringLiteral("Europe/Paris"));
    env.insert(QStringLiteral("LANG"), QStringLiteral("fr_FR.UTF-8"));
    env.remove(QStringLiteral("LC_ALL"));
    process.setProcessEnvironment(env);
    process.start(QStringLiteral(VEMIRA_CLI_PATH), arguments);
    if (!process.waitForStarted(10000))
        return {};
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished(30000);
    Run run;
    run.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

void CliTest::recordsFromTheCommandLine()
{
    const Run added = vemira({QStringLiteral("add-demo")});
    QCOMPARE(added.status, 0);
    const QString ref = added.out.trimmed();
    QCOMPARE(ref.size(), 8);
    QCOMPARE(ref, ref.toUpper());
    QCOMPARE(vemira({QStringLiteral("add-demo")}).status, 0);

    // history: newest first, six tab-separated fields.
    Run history = vemira({QStringLiteral("history")});
    QCOMPARE(history.status, 0);
    QStringList lines = history.out.split(u'\n', Qt::SkipEmptyParts);
    QCOMPARE(lines.size(), 2);
    QVERIFY(lines.last().startsWith(ref + u'\t'));
    const QStringList fields = lines.last().split(u'\t');
    QCOMPARE(fields.size(), 6);
    QCOMPARE(fields.mid(2),
             (QStringList{QStringLiteral("Démonstration"),
                          QStringLiteral("Élise Modèle · exemple fictif"),
                          QStringLiteral("Non classé"), QStringLiteral("À traiter")}));

    // show: the document exactly as the transcript file the application keeps.
    const Run shown = vemira({QStringLiteral("show"), ref.toLower()});
    QCOMPARE(shown.status, 0);
    QVERIFY(
        shown.out.startsWith(QStringLiteral("TRANSCRIPTION D’APPEL — VEMIRA\nRéférence : ") + ref));
    const QString fullId = shown.out.section(u'\n', 1, 1).mid(12);
    QCOMPARE(fullId.size(), 36);
    QCOMPARE(shown.out.toUtf8(), bytesOf(data() + QStringLiteral("/Transcriptions/Appel-") +
                                         fullId + QStringLiteral(".txt")));
    QVERIFY(shown.out.contains(QStringLiteral("\nDate : ")) &&
            shown.out.contains(QStringLiteral(" 20")));

    // export: same bytes in the chosen file.
    const QString exported = m_dir->filePath(QStringLiteral("appel.txt"));
    QCOMPARE(vemira({QStringLiteral("export"), fullId.toLower(), exported}).status, 0);
    QCOMPARE(bytesOf(exported), shown.out.toUtf8());

    // The three edits, saved as the application saves them.
    QCOMPARE(vemira({QStringLiteral("note"), ref, QStringLiteral("Rappeler à 17 h")}).status, 0);
    QCOMPARE(vemira({QStringLiteral("file"), ref, QStringLiteral("  SCI Lilas \n")}).status, 0);
    QCOMPARE(vemira({QStringLiteral("status"), ref, QStringLiteral("En cours")}).status, 0);
    QVERIFY(vemira({QStringLiteral("show"), ref})
                .out.endsWith(QStringLiteral("NOTE DU GESTIONNAIRE\nRappeler à 17 h")));
    QCOMPARE(vemira({QStringLiteral("dossiers")}).out, QStringLiteral("SCI Lilas\n"));
    const Run filed =
        vemira({QStringLiteral("search"), QStringLiteral("--dossier"), QStringLiteral("SCI Lilas"),
                QStringLiteral("--status"), QStringLiteral("En cours"), QStringLiteral("EVIER")});
    QCOMPARE(filed.status, 0);
    QCOMPARE(filed.out.count(u'\n'), 1);
    QVERIFY(filed.out.startsWith(ref + u'\t'));
    QVERIFY(filed.out.contains(QStringLiteral("\tSCI Lilas\tEn cours\n")));
    QCOMPARE(vemira({QStringLiteral("search"), QStringLiteral("--unfiled")}).out.count(u'\n'), 1);
    QCOMPARE(vemira({QStringLiteral("search"), QStringLiteral("inondation")}).out, QString());

    // A blank name takes the call out of its dossier.
    QCOMPARE(vemira({QStringLiteral("file"), ref, QStringLiteral("  ")}).status, 0);
    QCOMPARE(vemira({QStringLiteral("dossiers")}).out, QString());
    QCOMPARE(vemira({QStringLiteral("search"), QStringLiteral("--unfiled")}).out.count(u'\n'), 2);

    // What a record holds never drives the terminal nor makes false lines or fields.
    const QString hostile = QStringLiteral("a\x1b[2J\rb\u2028c\u2029d\x7f\u0085e\tf");
    QCOMPARE(vemira({QStringLiteral("note"), ref, hostile}).status, 0);
    QCOMPARE(vemira({QStringLiteral("file"), ref, hostile}).status, 0);
    const auto printable = [](const QString& text, const QString& allowed) {
        return std::none_of(text.begin(), text.end(), [&](QChar c) {
            return !allowed.contains(c) && (c.category() == QChar::Other_Control ||
                                            c == QChar(0x2028) || c == QChar(0x2029));
        });
    };
    const QString listed = vemira({QStringLiteral("history")}).out;
    QVERIFY(printable(listed, QStringLiteral("\t\n")));
    QCOMPARE(listed.count(u'\n'), 2);
    QCOMPARE(listed.section(u'\n', 0, 0).count(u'\t'), 5);
    const QString document = vemira({QStringLiteral("show"), ref}).out;
    QVERIFY(printable(document, QStringLiteral("\n")));
    QVERIFY(document.endsWith(QStringLiteral("a [2J b c d  e f")));
}

void CliTest::failuresAreFrenchOnStandardError()
{
    const Run none = vemira({QStringLiteral("show"), QStringLiteral("ABCDEF12")});
    QCOMPARE(none.status, 1);
    QCOMPARE(none.out, QString());
    QVERIFY(none.err.contains(QStringLiteral("« ABCDEF12 »")));

    const QString ref = vemira({QStringLiteral("add-demo")}).out.trimmed();
    const Run badStatus = vemira({QStringLiteral("status"), ref, QStringLiteral("Fini")});
    QCOMPARE(badStatus.status, 2);
    QVERIFY(badStatus.err.contains(QStringLiteral("« Fini »")));
    QVERIFY(vemira({QStringLiteral("history")}).out.contains(QStringLiteral("\tÀ traiter\n")));

    QCOMPARE(vemira({QStringLiteral("note"), ref}).status, 2);
    const Run unknown = vemira({QStringLiteral("effacer")});
    QCOMPARE(unknown.status, 2);
    QVERIFY(unknown.err.contains(QStringLiteral("« effacer »")));

    // The transcript folder is blocked by a file: the history is saved, the tool says what
    // failed and exits with 1.
    QVERIFY(QDir(data() + QStringLiteral("/Transcriptions")).removeRecursively());
    QFile blocker(data() + QStringLiteral("/Transcriptions"));
    QVERIFY(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    const Run partly = vemira({QStringLiteral("note"), ref, QStringLiteral("gardée")});
    QCOMPARE(partly.status, 1);
    QVERIFY(partly.err.startsWith(QStringLiteral(
        "Historique enregistré, mais un fichier de transcription n’a pas pu être mis à jour : ")));
    QVERIFY(vemira({QStringLiteral("show"), ref}).out.endsWith(QStringLiteral("\ngardée")));
}

void CliTest::unreadableHistoryIsLeftAlone()
{
    QVERIFY(QDir().mkpath(data()));
    const QByteArray broken = R"([{"id":"0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0","date":1)";
    QFile file(data() + QStringLiteral("/history.json"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(broken);
    file.close();
    for (const QStringList& arguments :
         {QStringList{QStringLiteral("add-demo")}, QStringList{QStringLiteral("history")},
          QStringList{QStringLiteral("note"), QStringLiteral("0F1E2D3C"), QStringLiteral("x")},
          QStringList{QStringLiteral("delete"), QStringLiteral("0F1E2D3C")}}) {
        const Run run = vemira(arguments);
        QCOMPARE(run.status, 1);
        QCOMPARE(run.err, QStringLiteral("Historique illisible. Le fichier existant n’a pas été "
                                         "modifié.\nCause : JSON invalide à l’octet 54.\n"));
    }
    QCOMPARE(bytesOf(data() + QStringLiteral("/history.json")), broken);

    // A good file, then a second record without its note: check names the record and the key
    // and says the backup (the file before the last save) is readable.
    QVERIFY(QFile::remove(data() + QStringLiteral("/history.json")));
    QCOMPARE(vemira({QStringLiteral("add-demo")}).status, 0);
    const Run second = vemira({QStringLiteral("add-demo")});
    const QByteArray good = bytesOf(data() + QStringLiteral("/history.json"));
    QByteArray unreadable = good;
    unreadable.replace(unreadable.lastIndexOf("\"note\""), 6, "\"nota\"");
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(unreadable);
    file.close();
    const Run check = vemira({QStringLiteral("check")});
    QCOMPARE(check.status, 1);
    QCOMPARE(check.out, QStringLiteral("Historique (history.json) : illisible (enregistrement 2 : "
                                       "clé « note » manquante).\n"
                                       "Copie de sauvegarde (history.json.bak) : lisible, 1 "
                                       "appel(s).\n"));
    const Run deleted = vemira({QStringLiteral("delete"), second.out.trimmed()});
    QCOMPARE(deleted.status, 1);
    QVERIFY(deleted.err.endsWith(
        QStringLiteral("Cause : enregistrement 2 : clé « note » manquante.\n")));
    QCOMPARE(bytesOf(data() + QStringLiteral("/history.json")), unreadable);

    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(good);
    file.close();
    QCOMPARE(vemira({QStringLiteral("check")}).out,
             QStringLiteral("Historique (history.json) : lisible, 2 appel(s).\n"
                            "Copie de sauvegarde (history.json.bak) : lisible, 1 appel(s).\n"));
}

void CliTest::deleteAndSecondReceptionist()
{
    const QString ref = vemira({QStringLiteral("add-demo")}).out.trimmed();
    const QString kept = vemira({QStringLiteral("add-demo")}).out.trimmed();
    const Run deleted = vemira({QStringLiteral("delete"), ref.toLower()});
    QCOMPARE(deleted.status, 0);
    QVERIFY(deleted.err.contains(ref));
    QVERIFY(!vemira({QStringLiteral("history")}).out.contains(ref));
    QCOMPARE(QDir(data() + QStringLiteral("/Transcriptions")).entryList(QDir::Files).size(), 1);
    QCOMPARE(vemira({QStringLiteral("delete"), ref}).status, 1);

    // A hand-edited record naming a file of the user's: refused at reading, never deleted.
    const QString history = data() + QStringLiteral("/history.json");
    const QByteArray before = bytesOf(history);
    const QString pdf = m_dir->filePath(QStringLiteral("bail.pdf"));
    QFile(pdf).open(QIODevice::WriteOnly);
    QByteArray edited = before;
    edited.replace(R"("note":)", R"("recordingFile":")" + pdf.toUtf8() + R"(","note":)");
    QFile file(history);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(edited);
    file.close();
    const Run refused = vemira({QStringLiteral("delete"), kept});
    QCOMPARE(refused.status, 1);
    QVERIFY2(refused.err.contains(QStringLiteral("enregistrement 1 : « recordingFile »")),
             qPrintable(refused.err));
    QVERIFY(QFileInfo::exists(pdf));
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(before);
    file.close();
    // A plain apostrophe finds the demonstration's typographic one.
    QVERIFY(vemira({QStringLiteral("search"), QStringLiteral("l'eau coule")}).out.startsWith(kept));

    // While the application runs on this folder, `vemira standby` refuses, naming it.
    auto app = InstanceLock::acquire(DataFolder(data()), QStringLiteral("vemira-app"));
    QVERIFY(app);
    const Run standby = vemira({QStringLiteral("standby")});
    QCOMPARE(standby.status, 1);
    QVERIFY2(standby.err.contains(QStringLiteral("« vemira-app » (processus %1, machine %2)")
                                      .arg(QCoreApplication::applicationPid())
                                      .arg(QSysInfo::machineHostName())),
             qPrintable(standby.err));
    // Edits from the command line are not refused.
    QCOMPARE(vemira({QStringLiteral("note"), kept, QStringLiteral("vu")}).status, 0);
}

void CliTest::answeringRules()
{
    const QString rules = QStringLiteral("rules");
    const QString set = QStringLiteral("set");
    QCOMPARE(
        vemira({rules, set, QStringLiteral("--ring-open"), QStringLiteral("20"),
                QStringLiteral("--hours"), QStringLiteral("lun-ven 9h-12h,14h-18h; sam 9h-12h"),
                QStringLiteral("--never"), QStringLiteral("06 12 34 56 78"),
                QStringLiteral("--never"), QStringLiteral("+33 7 00 00 00 00"),
                QStringLiteral("--answer-hidden"), QStringLiteral("non")})
            .status,
        0);
    const QString shown = QStringLiteral("ring-open\t20\nring-closed\t3\n"
                                         "hours\tlun-ven 09:00-12:00,14:00-18:00; sam 09:00-12:00\n"
                                         "closed-days\t\nnever\t06 12 34 56 78\n"
                                         "never\t+33 7 00 00 00 00\nanswer-hidden\tnon\nnow\t");
    QVERIFY(vemira({rules, QStringLiteral("show")}).out.startsWith(shown));

    // A refused change names its field and leaves the rules as they were.
    const Run backwards = vemira({rules, set, QStringLiteral("--ring-closed"), QStringLiteral("5"),
                                  QStringLiteral("--hours"), QStringLiteral("lun 18:00-09:00")});
    QCOMPARE(backwards.status, 1);
    QVERIFY(backwards.err.contains(QStringLiteral("« 18:00-09:00 »")));
    QVERIFY(vemira({rules, QStringLiteral("show")}).out.startsWith(shown));
    QCOMPARE(
        vemira({rules, set, QStringLiteral("--answer-hidden"), QStringLiteral("peut-être")}).status,
        1);
    QCOMPARE(vemira({rules, set, QStringLiteral("--never")}).status, 2);
}

void CliTest::keyAndInstructions()
{
    QCOMPARE(vemira({QStringLiteral("key"), QStringLiteral("status")}).out,
             QStringLiteral("absente\n"));
    const Run blank = vemira({QStringLiteral("key"), QStringLiteral("set")}, "  \n");
    QCOMPARE(blank.status, 1);
    QCOMPARE(blank.err, QStringLiteral("Saisissez votre clé dans ce champ sécurisé.\n"));

    QCOMPARE(vemira({QStringLiteral("key"), QStringLiteral("set")}, "  sk-test-123 \n").status, 0);
    QCOMPARE(bytesOf(data() + QStringLiteral("/Credentials/openai.key")),
             QByteArray("sk-test-123"));
    QCOMPARE(vemira({QStringLiteral("key"), QStringLiteral("status")}).out,
             QStringLiteral("présente\n"));
    const QString conf = m_dir->filePath(QStringLiteral("config/Brelian/Vemira.conf"));
    QCOMPARE(QSettings(conf, QSettings::IniFormat).value(QStringLiteral("keySaved")).toBool(),
             true);
    QCOMPARE(vemira({QStringLiteral("key"), QStringLiteral("delete")}).status, 0);
    QCOMPARE(vemira({QStringLiteral("key"), QStringLiteral("status")}).out,
             QStringLiteral("absente\n"));
    QCOMPARE(QSettings(conf, QSettings::IniFormat).value(QStringLiteral("keySaved")).toBool(),
             false);

    // The instructions follow the stored settings.
    const Run defaults = vemira({QStringLiteral("instructions")});
    QCOMPARE(defaults.status, 0);
    QVERIFY(defaults.out.startsWith(QStringLiteral(
        "Tu es Vemira, assistante vocale virtuelle pour SCI des Brumaires. Tu parles")));
    QVERIFY(defaults.out.endsWith(QStringLiteral("dans l’accueil.")));
    {
        QSettings settings(conf, QSettings::IniFormat);
        settings.setValue(QStringLiteral("company"), QStringLiteral("Agence Lilas"));
        settings.setValue(QStringLiteral("recordingEnabled"), false);
    }
    const Run changed = vemira({QStringLiteral("instructions")});
    QVERIFY(changed.out.startsWith(
        QStringLiteral("Tu es Vemira, assistante vocale virtuelle pour Agence Lilas. ")));
    QVERIFY(changed.out.endsWith(QStringLiteral("\nL’enregistrement audio est désactivé.")));
}

void CliTest::help()
{
    const Run overview = vemira({QStringLiteral("--help")});
    QCOMPARE(overview.status, 0);
    for (const char* name : {"history", "show", "export", "note", "file", "status", "search",
                             "dossiers", "add-demo", "key", "instructions"})
        QVERIFY2(overview.out.contains(QStringLiteral("\n  ") + QLatin1String(name) + u' '), name);
    const Run one = vemira({QStringLiteral("search"), QStringLiteral("--help")});
    QCOMPARE(one.status, 0);
    QVERIFY(one.out.contains(QStringLiteral("--unfiled")));
}

void CliTest::mailSetTestRetryAndOff()
{
    const auto options = SmtpTestServer::Options::withLogin(QStringLiteral("gerant"),
                                                            QStringLiteral(" espace autour "));
    SmtpTestServer server(options);
    QVERIFY(server.started());
    const QString notify = QStringLiteral("notify");
    const QString status = QStringLiteral("status");
    const QString password = data() + QStringLiteral("/Credentials/smtp.password");
    QCOMPARE(vemira({notify, status}).out, QStringLiteral("désactivé\n"));
    QCOMPARE(vemira({notify, QStringLiteral("test")}).status, 1); // nothing to test yet

    Run run = vemira({notify, QStringLiteral("set"), QStringLiteral("--smtp"), server.url(),
                      QStringLiteral("--from"), QStringLiteral("standard@exemple.fr"),
                      QStringLiteral("--to"), QStringLiteral("gerant@exemple.fr"),
                      QStringLiteral("--user"), options.user, QStringLiteral("--ca"),
                      server.certificate()},
                     options.password.toUtf8() + '\n');
    QCOMPARE(run.status, 0);
    QVERIFY(!run.err.contains(options.password));
    QCOMPARE(QFileInfo(password).permissions() & 0x0077, QFileDevice::Permissions());
    QCOMPARE(bytesOf(password), options.password.toUtf8()); // spaces kept, line break not
    run = vemira({notify, status});
    QCOMPARE(run.out, QStringLiteral("activé\t%1\tstandard@exemple.fr\tgerant@exemple.fr\tgerant\t"
                                     "mot de passe enregistré\tenregistrement non joint\n")
                          .arg(server.url()));

    QCOMPARE(vemira({notify, QStringLiteral("test")}).status, 0);
    QVERIFY(server.mail(1).value(QStringLiteral("tls")).toBool());
    QCOMPARE(server.mail(1).value(QStringLiteral("login")).toString(), options.user);

    // A call's mail left waiting by a run that could not send it: told, then sent on demand.
    {
        ManualClock clock;
        MailQueue queue(clock, data() + QStringLiteral("/Courriels"),
                        [] { return Result<SmtpRequest>(AppError(QStringLiteral("hors ligne"))); });
        QVERIFY(!queue.add("Subject: En attente\r\n\r\nCorps\r\n", QStringLiteral("de X")));
    }
    QVERIFY(vemira({notify, status}).err.startsWith(QStringLiteral("1 ")));
    QCOMPARE(vemira({notify, QStringLiteral("retry")}).status, 0);
    QCOMPARE(server.mail(2).value(QStringLiteral("subject")).toString(),
             QStringLiteral("En attente"));
    QCOMPARE(vemira({notify, status}).err, QString());

    QCOMPARE(vemira({notify, QStringLiteral("off")}).status, 0);
    QVERIFY(!QFile::exists(password));
    QCOMPARE(vemira({notify, status}).out, QStringLiteral("désactivé\n"));
}

void CliTest::mailRefusedUnreachableAndWrongUsage()
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
    const QStringList test{QStringLiteral("notify"), QStringLiteral("test")};
    QCOMPARE(vemira(set + QStringList{server.url()}, "le-mauvais\n").status, 0);
    Run run = vemira(test);
    QCOMPARE(run.status, 1);
    QVERIFY2(run.err.contains(QStringLiteral("« 535 5.7.8 Authentication credentials invalid »")),
             qPrintable(run.err));
    QVERIFY(!run.err.contains(QStringLiteral("le-mauvais")));

    const int port = test::freeLoopbackPort();
    QCOMPARE(
        vemira(set + QStringList{QStringLiteral("smtp://127.0.0.1:%1").arg(port)}, "x\n").status,
        0);
    run = vemira(test);
    QCOMPARE(run.status, 1);
    QVERIFY2(run.err.contains(QStringLiteral("127.0.0.1:%1").arg(port)), qPrintable(run.err));
    QCOMPARE(server.received(), 0);

    // Settings that cannot work are refused before anything is stored.
    QVERIFY(vemira({QStringLiteral("notify"), QStringLiteral("off")}).status == 0);
    const QStringList addresses{QStringLiteral("--from"), QStringLiteral("a@exemple.fr"),
                                QStringLiteral("--to"), QStringLiteral("b@exemple.fr")};
    run = vemira(QStringList{QStringLiteral("notify"), QStringLiteral("set"),
                             QStringLiteral("--smtp"), QStringLiteral("http://smtp.exemple.fr")} +
                 addresses);
    QCOMPARE(run.status, 1);
    QVERIFY(run.err.contains(QStringLiteral("« http://smtp.exemple.fr »")));
    run = vemira(QStringList{QStringLiteral("notify"), QStringLiteral("set"),
                             QStringLiteral("--smtp"), QStringLiteral("smtps://smtp.exemple.fr"),
                             QStringLiteral("--user"), QStringLiteral("moi")} +
                 addresses); // a user without a password on standard input
    QCOMPARE(run.status, 1);
    QCOMPARE(vemira({QStringLiteral("notify"), QStringLiteral("status")}).out,
             QStringLiteral("désactivé\n"));
    for (const QStringList& arguments :
         {QStringList{QStringLiteral("notify")},
          QStringList{QStringLiteral("notify"), QStringLiteral("set"), QStringLiteral("--to")},
          QStringList{QStringLiteral("notify"), QStringLiteral("envoyer")}})
        QCOMPARE(vemira(arguments).status, 2);
}

QTEST_GUILESS_MAIN(CliTest)
#include "tst_cli.moc"
