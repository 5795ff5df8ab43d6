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

using namespace Qt::StringLiterals;
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

bool write(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(bytes) == bytes.size();
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
    void mailSettingsThatCannotWorkAndWrongUsage();

private:
    Run vemira(const QStringList& arguments, const QByteArray& input = {});
    QString data() const { return m_dir->filePath(u"data"_s); }
    QString history() const { return data() + u"/history.json"_s; }
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
    env.insert(u"VEMIRA_DATA_DIR"_s, data());
    env.insert(u"XDG_CONFIG_HOME"_s, m_dir->filePath(u"config"_s));
    env.insert(u"TZ"_s, u"Europe/Paris"_s);
    env.insert(u"LANG"_s, u"fr_FR.UTF-8"_s);
    env.remove(u"LC_ALL"_s);
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
    const Run added = vemira({u"add-demo"_s});
    QCOMPARE(added.status, 0);
    const QString ref = added.out.trimmed();
    QCOMPARE(ref.size(), 8);
    QCOMPARE(ref, ref.toUpper());
    QCOMPARE(vemira({u"add-demo"_s}).status, 0);

    // history: newest first, six tab-separated fields.
    Run history = vemira({u"history"_s});
    QCOMPARE(history.status, 0);
    QStringList lines = history.out.split(u'\n', Qt::SkipEmptyParts);
    QCOMPARE(lines.size(), 2);
    QVERIFY(lines.last().startsWith(ref + u'\t'));
    const QStringList fields = lines.last().split(u'\t');
    QCOMPARE(fields.size(), 6);
    QCOMPARE(fields.mid(2), (QStringList{u"Démonstration"_s, u"Élise Modèle · exemple fictif"_s,
                                         u"Non classé"_s, u"À traiter"_s}));

    // show: the document exactly as the transcript file the application keeps.
    const Run shown = vemira({u"show"_s, ref.toLower()});
    QCOMPARE(shown.status, 0);
    QVERIFY(shown.out.startsWith(u"TRANSCRIPTION D’APPEL — VEMIRA\nRéférence : "_s + ref));
    const QString fullId = shown.out.section(u'\n', 1, 1).mid(12);
    QCOMPARE(fullId.size(), 36);
    QCOMPARE(shown.out.toUtf8(),
             bytesOf(data() + u"/Transcriptions/Appel-"_s + fullId + u".txt"_s));
    QVERIFY(shown.out.contains(u"\nDate : "_s) && shown.out.contains(u" 20"_s));

    // export: same bytes in the chosen file.
    const QString exported = m_dir->filePath(u"appel.txt"_s);
    QCOMPARE(vemira({u"export"_s, fullId.toLower(), exported}).status, 0);
    QCOMPARE(bytesOf(exported), shown.out.toUtf8());

    // The three edits, saved as the application saves them.
    QCOMPARE(vemira({u"note"_s, ref, u"Rappeler à 17 h"_s}).status, 0);
    QCOMPARE(vemira({u"file"_s, ref, u"  SCI Lilas \n"_s}).status, 0);
    QCOMPARE(vemira({u"status"_s, ref, u"En cours"_s}).status, 0);
    QVERIFY(vemira({u"show"_s, ref}).out.endsWith(u"NOTE DU GESTIONNAIRE\nRappeler à 17 h"_s));
    QCOMPARE(vemira({u"dossiers"_s}).out, u"SCI Lilas\n"_s);
    const Run filed = vemira(
        {u"search"_s, u"--dossier"_s, u"SCI Lilas"_s, u"--status"_s, u"En cours"_s, u"EVIER"_s});
    QCOMPARE(filed.status, 0);
    QCOMPARE(filed.out.count(u'\n'), 1);
    QVERIFY(filed.out.startsWith(ref + u'\t'));
    QVERIFY(filed.out.contains(u"\tSCI Lilas\tEn cours\n"_s));
    QCOMPARE(vemira({u"search"_s, u"--unfiled"_s}).out.count(u'\n'), 1);
    QCOMPARE(vemira({u"search"_s, u"inondation"_s}).out, QString());

    // A blank name takes the call out of its dossier.
    QCOMPARE(vemira({u"file"_s, ref, u"  "_s}).status, 0);
    QCOMPARE(vemira({u"dossiers"_s}).out, QString());
    QCOMPARE(vemira({u"search"_s, u"--unfiled"_s}).out.count(u'\n'), 2);

    // What a record holds never drives the terminal nor makes false lines or fields.
    const QString hostile = u"a\x1b[2J\rb\u2028c\u2029d\x7f\u0085e\tf"_s;
    QCOMPARE(vemira({u"note"_s, ref, hostile}).status, 0);
    QCOMPARE(vemira({u"file"_s, ref, hostile}).status, 0);
    const auto printable = [](const QString& text, const QString& allowed) {
        return std::none_of(text.begin(), text.end(), [&](QChar c) {
            return !allowed.contains(c) && (c.category() == QChar::Other_Control ||
                                            c == QChar(0x2028) || c == QChar(0x2029));
        });
    };
    const QString listed = vemira({u"history"_s}).out;
    QVERIFY(printable(listed, u"\t\n"_s));
    QCOMPARE(listed.count(u'\n'), 2);
    QCOMPARE(listed.section(u'\n', 0, 0).count(u'\t'), 5);
    const QString document = vemira({u"show"_s, ref}).out;
    QVERIFY(printable(document, u"\n"_s));
    QVERIFY(document.endsWith(u"a [2J b c d  e f"_s));
}

void CliTest::failuresAreFrenchOnStandardError()
{
    const Run none = vemira({u"show"_s, u"ABCDEF12"_s});
    QCOMPARE(none.status, 1);
    QCOMPARE(none.out, QString());
    QVERIFY(none.err.contains(u"« ABCDEF12 »"_s));

    const QString ref = vemira({u"add-demo"_s}).out.trimmed();
    const Run badStatus = vemira({u"status"_s, ref, u"Fini"_s});
    QCOMPARE(badStatus.status, 2);
    QVERIFY(badStatus.err.contains(u"« Fini »"_s));
    QVERIFY(vemira({u"history"_s}).out.contains(u"\tÀ traiter\n"_s));

    QCOMPARE(vemira({u"note"_s, ref}).status, 2);
    const Run unknown = vemira({u"effacer"_s});
    QCOMPARE(unknown.status, 2);
    QVERIFY(unknown.err.contains(u"« effacer »"_s));

    // The transcript folder is blocked by a file: the history is saved, the tool says what
    // failed and exits with 1.
    QVERIFY(QDir(data() + u"/Transcriptions"_s).removeRecursively());
    QVERIFY(write(data() + u"/Transcriptions"_s, {}));
    const Run partly = vemira({u"note"_s, ref, u"gardée"_s});
    QCOMPARE(partly.status, 1);
    QVERIFY(partly.err.startsWith(
        u"Historique enregistré, mais un fichier de transcription n’a pas pu être mis à jour : "_s));
    QVERIFY(vemira({u"show"_s, ref}).out.endsWith(u"\ngardée"_s));
}

void CliTest::unreadableHistoryIsLeftAlone()
{
    QVERIFY(QDir().mkpath(data()));
    const QByteArray broken = R"([{"id":"0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0","date":1)";
    QVERIFY(write(history(), broken));
    for (const QStringList& arguments :
         {QStringList{u"add-demo"_s}, QStringList{u"history"_s},
          QStringList{u"note"_s, u"0F1E2D3C"_s, u"x"_s}, QStringList{u"delete"_s, u"0F1E2D3C"_s}}) {
        const Run run = vemira(arguments);
        QCOMPARE(run.status, 1);
        QCOMPARE(run.err, u"Historique illisible. Le fichier existant n’a pas été "
                          u"modifié.\nCause : JSON invalide à l’octet 54.\n"_s);
    }
    QCOMPARE(bytesOf(history()), broken);

    // A good file, then a second record without its note: check names the record and the key
    // and says the backup (the file before the last save) is readable.
    QVERIFY(QFile::remove(history()));
    QCOMPARE(vemira({u"add-demo"_s}).status, 0);
    const Run second = vemira({u"add-demo"_s});
    const QByteArray good = bytesOf(history());
    QByteArray unreadable = good;
    unreadable.replace(unreadable.lastIndexOf("\"note\""), 6, "\"nota\"");
    QVERIFY(write(history(), unreadable));
    const Run check = vemira({u"check"_s});
    QCOMPARE(check.status, 1);
    QCOMPARE(check.out, u"Historique (history.json) : illisible (enregistrement 2 : "
                        u"clé « note » manquante).\n"
                        u"Copie de sauvegarde (history.json.bak) : lisible, 1 "
                        u"appel(s).\n"_s);
    const Run deleted = vemira({u"delete"_s, second.out.trimmed()});
    QCOMPARE(deleted.status, 1);
    QVERIFY(deleted.err.endsWith(u"Cause : enregistrement 2 : clé « note » manquante.\n"_s));
    QCOMPARE(bytesOf(history()), unreadable);

    QVERIFY(write(history(), good));
    QCOMPARE(vemira({u"check"_s}).out,
             u"Historique (history.json) : lisible, 2 appel(s).\n"
             u"Copie de sauvegarde (history.json.bak) : lisible, 1 appel(s).\n"_s);
}

void CliTest::deleteAndSecondReceptionist()
{
    const QString ref = vemira({u"add-demo"_s}).out.trimmed();
    const QString kept = vemira({u"add-demo"_s}).out.trimmed();
    const Run deleted = vemira({u"delete"_s, ref.toLower()});
    QCOMPARE(deleted.status, 0);
    QVERIFY(deleted.err.contains(ref));
    QVERIFY(!vemira({u"history"_s}).out.contains(ref));
    QCOMPARE(QDir(data() + u"/Transcriptions"_s).entryList(QDir::Files).size(), 1);
    QCOMPARE(vemira({u"delete"_s, ref}).status, 1);

    // A hand-edited record naming a file of the user's: refused at reading, never deleted.
    const QByteArray before = bytesOf(history());
    const QString pdf = m_dir->filePath(u"bail.pdf"_s);
    QVERIFY(write(pdf, {}));
    QByteArray edited = before;
    edited.replace(R"("note":)", R"("recordingFile":")" + pdf.toUtf8() + R"(","note":)");
    QVERIFY(write(history(), edited));
    const Run refused = vemira({u"delete"_s, kept});
    QCOMPARE(refused.status, 1);
    QVERIFY2(refused.err.contains(u"enregistrement 1 : « recordingFile »"_s),
             qPrintable(refused.err));
    QVERIFY(QFileInfo::exists(pdf));
    QVERIFY(write(history(), before));
    // A plain apostrophe finds the demonstration's typographic one.
    QVERIFY(vemira({u"search"_s, u"l'eau coule"_s}).out.startsWith(kept));

    // While the application runs on this folder, `vemira standby` refuses, naming it.
    auto app = InstanceLock::acquire(DataFolder(data()), u"vemira-app"_s);
    QVERIFY(app);
    const Run standby = vemira({u"standby"_s});
    QCOMPARE(standby.status, 1);
    QVERIFY2(standby.err.contains(u"« vemira-app » (processus %1, machine %2)"_s
                                      .arg(QCoreApplication::applicationPid())
                                      .arg(QSysInfo::machineHostName())),
             qPrintable(standby.err));
    // Edits from the command line are not refused.
    QCOMPARE(vemira({u"note"_s, kept, u"vu"_s}).status, 0);
}

void CliTest::answeringRules()
{
    const QString rules = u"rules"_s;
    const QString set = u"set"_s;
    QCOMPARE(vemira({rules, set, u"--ring-open"_s, u"20"_s, u"--hours"_s,
                     u"lun-ven 9h-12h,14h-18h; sam 9h-12h"_s, u"--never"_s, u"06 12 34 56 78"_s,
                     u"--never"_s, u"+33 7 00 00 00 00"_s, u"--answer-hidden"_s, u"non"_s})
                 .status,
             0);
    const QString shown = u"ring-open\t20\nring-closed\t3\n"
                          u"hours\tlun-ven 09:00-12:00,14:00-18:00; sam 09:00-12:00\n"
                          u"closed-days\t\nnever\t06 12 34 56 78\n"
                          u"never\t+33 7 00 00 00 00\nanswer-hidden\tnon\nnow\t"_s;
    QVERIFY(vemira({rules, u"show"_s}).out.startsWith(shown));

    // A refused change names its field and leaves the rules as they were.
    const Run backwards =
        vemira({rules, set, u"--ring-closed"_s, u"5"_s, u"--hours"_s, u"lun 18:00-09:00"_s});
    QCOMPARE(backwards.status, 1);
    QVERIFY(backwards.err.contains(u"« 18:00-09:00 »"_s));
    QVERIFY(vemira({rules, u"show"_s}).out.startsWith(shown));
    QCOMPARE(vemira({rules, set, u"--answer-hidden"_s, u"peut-être"_s}).status, 1);
    QCOMPARE(vemira({rules, set, u"--never"_s}).status, 2);
}

void CliTest::keyAndInstructions()
{
    QCOMPARE(vemira({u"key"_s, u"status"_s}).out, u"absente\n"_s);
    const Run blank = vemira({u"key"_s, u"set"_s}, "  \n");
    QCOMPARE(blank.status, 1);
    QCOMPARE(blank.err, u"Saisissez votre clé dans ce champ sécurisé.\n"_s);

    QCOMPARE(vemira({u"key"_s, u"set"_s}, "  sk-test-123 \n").status, 0);
    QCOMPARE(bytesOf(data() + u"/Credentials/openai.key"_s), QByteArray("sk-test-123"));
    QCOMPARE(vemira({u"key"_s, u"status"_s}).out, u"présente\n"_s);
    const QString conf = m_dir->filePath(u"config/Brelian/Vemira.conf"_s);
    QCOMPARE(QSettings(conf, QSettings::IniFormat).value(u"keySaved"_s).toBool(), true);
    QCOMPARE(vemira({u"key"_s, u"delete"_s}).status, 0);
    QCOMPARE(vemira({u"key"_s, u"status"_s}).out, u"absente\n"_s);
    QCOMPARE(QSettings(conf, QSettings::IniFormat).value(u"keySaved"_s).toBool(), false);

    // The instructions follow the stored settings.
    const Run defaults = vemira({u"instructions"_s});
    QCOMPARE(defaults.status, 0);
    QVERIFY(defaults.out.startsWith(
        u"Tu es Vemira, assistante vocale virtuelle pour SCI des Brumaires. Tu parles"_s));
    QVERIFY(defaults.out.endsWith(u"dans l’accueil."_s));
    {
        QSettings settings(conf, QSettings::IniFormat);
        settings.setValue(u"company"_s, u"Agence Lilas"_s);
        settings.setValue(u"recordingEnabled"_s, false);
    }
    const Run changed = vemira({u"instructions"_s});
    QVERIFY(
        changed.out.startsWith(u"Tu es Vemira, assistante vocale virtuelle pour Agence Lilas. "_s));
    QVERIFY(changed.out.endsWith(u"\nL’enregistrement audio est désactivé."_s));
}

void CliTest::help()
{
    const Run overview = vemira({u"--help"_s});
    QCOMPARE(overview.status, 0);
    for (const char* name : {"history", "show", "export", "note", "file", "status", "search",
                             "dossiers", "add-demo", "key", "instructions"})
        QVERIFY2(overview.out.contains(u"\n  "_s + QLatin1String(name) + u' '), name);
    const Run one = vemira({u"search"_s, u"--help"_s});
    QCOMPARE(one.status, 0);
    QVERIFY(one.out.contains(u"--unfiled"_s));
}

void CliTest::mailSetTestRetryAndOff()
{
    const auto options = SmtpTestServer::Options::withLogin(u"gerant"_s, u" espace autour "_s);
    SmtpTestServer server(options);
    QVERIFY(server.started());
    const QString notify = u"notify"_s;
    const QString status = u"status"_s;
    const QString password = data() + u"/Credentials/smtp.password"_s;
    QCOMPARE(vemira({notify, status}).out, u"désactivé\n"_s);
    QCOMPARE(vemira({notify, u"test"_s}).status, 1); // nothing to test yet

    const QStringList set{notify,      u"set"_s,
                          u"--smtp"_s, server.url(),
                          u"--from"_s, u"standard@exemple.fr"_s,
                          u"--to"_s,   u"gerant@exemple.fr"_s,
                          u"--user"_s, options.user,
                          u"--ca"_s,   server.certificate()};
    // A refused password: the server's answer, never the password.
    QCOMPARE(vemira(set, "le-mauvais\n").status, 0);
    Run run = vemira({notify, u"test"_s});
    QCOMPARE(run.status, 1);
    QVERIFY2(run.err.contains(u"« 535 5.7.8 Authentication credentials invalid »"_s),
             qPrintable(run.err));
    QVERIFY(!run.err.contains(u"le-mauvais"_s));

    run = vemira(set, options.password.toUtf8() + '\n');
    QCOMPARE(run.status, 0);
    QVERIFY(!run.err.contains(options.password));
    QCOMPARE(QFileInfo(password).permissions() & 0x0077, QFileDevice::Permissions());
    QCOMPARE(bytesOf(password), options.password.toUtf8()); // spaces kept, line break not
    run = vemira({notify, status});
    QCOMPARE(run.out, u"activé\t%1\tstandard@exemple.fr\tgerant@exemple.fr\tgerant\t"
                      u"mot de passe enregistré\tenregistrement non joint\n"_s.arg(server.url()));

    QCOMPARE(vemira({notify, u"test"_s}).status, 0);
    QVERIFY(server.mail(1).value(u"tls"_s).toBool());
    QCOMPARE(server.mail(1).value(u"login"_s).toString(), options.user);

    // A call's mail left waiting by a run that could not send it: told, then sent on demand.
    {
        ManualClock clock;
        MailQueue queue(clock, data() + u"/Courriels"_s,
                        [] { return Result<SmtpRequest>(AppError(u"hors ligne"_s)); });
        QVERIFY(!queue.add("Subject: En attente\r\n\r\nCorps\r\n", u"de X"_s));
    }
    QVERIFY(vemira({notify, status}).err.startsWith(u"1 "_s));
    QCOMPARE(vemira({notify, u"retry"_s}).status, 0);
    QCOMPARE(server.mail(2).value(u"subject"_s).toString(), u"En attente"_s);
    QCOMPARE(vemira({notify, status}).err, QString());

    QCOMPARE(vemira({notify, u"off"_s}).status, 0);
    QVERIFY(!QFile::exists(password));
    QCOMPARE(vemira({notify, status}).out, u"désactivé\n"_s);
}

void CliTest::mailSettingsThatCannotWorkAndWrongUsage()
{
    // Settings that cannot work are refused before anything is stored.
    const QStringList addresses{u"--from"_s, u"a@exemple.fr"_s, u"--to"_s, u"b@exemple.fr"_s};
    Run run = vemira(QStringList{u"notify"_s, u"set"_s, u"--smtp"_s, u"http://smtp.exemple.fr"_s} +
                     addresses);
    QCOMPARE(run.status, 1);
    QVERIFY(run.err.contains(u"« http://smtp.exemple.fr »"_s));
    run = vemira(QStringList{u"notify"_s, u"set"_s, u"--smtp"_s, u"smtps://smtp.exemple.fr"_s,
                             u"--user"_s, u"moi"_s} +
                 addresses); // a user without a password on standard input
    QCOMPARE(run.status, 1);
    QCOMPARE(vemira({u"notify"_s, u"status"_s}).out, u"désactivé\n"_s);
    for (const QStringList& arguments :
         {QStringList{u"notify"_s}, QStringList{u"notify"_s, u"set"_s, u"--to"_s},
          QStringList{u"notify"_s, u"envoyer"_s}})
        QCOMPARE(vemira(arguments).status, 2);
}

QTEST_GUILESS_MAIN(CliTest)
#include "tst_cli.moc"
