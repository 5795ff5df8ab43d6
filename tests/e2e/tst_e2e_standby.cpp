// `vemira standby` as a Linux user runs it next to a softphone: on the project's private audio
// server and desktop, with the test softphone and the realtime stand-in. The receptionist
// must arm itself, answer, print its session log, and on Ctrl-C in the middle of the call
// stop cleanly with what was said so far saved. Killed outright instead, the call is found at
// the next start as an interrupted call, with what was said until seconds before, and its
// recording.
#include "common/MarksFile.h"
#include "common/PrivateDesktop.h"
#include "records/APIKeyStore.h"
#include "records/CallRecord.h"
#include "records/DataFolder.h"
#include "records/HistoryCodec.h"
#include "records/RecordsStore.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <signal.h>

using namespace vemira;
using namespace vemira::e2e;

namespace {

// Lets the event loop run (process output, timers) until `done` or the time is up.
bool waitFor(const std::function<bool()>& done, int ms)
{
    const QDeadlineTimer deadline(ms);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QTest::qWait(50);
    }
    return true;
}

// A child process ended on scope exit, whatever happened to the test.
struct Child {
    QProcess process;
    ~Child()
    {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished(3000);
        }
    }
};

} // namespace

class TestStandby : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void interruptDuringACallKeepsWhatWasSaid_data();
    void interruptDuringACallKeepsWhatWasSaid();
};

void TestStandby::interruptDuringACallKeepsWhatWasSaid_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("Ctrl-C") << SIGINT;
    QTest::newRow("killed") << SIGKILL;
}

void TestStandby::interruptDuringACallKeepsWhatWasSaid()
{
    QFETCH(int, signal);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    PrivateDesktop desktop(QStringLiteral(VEMIRA_E2E_SCRIPTS), dir.filePath(QStringLiteral("env")));
    QString error;
    QVERIFY2(desktop.start(&error), qPrintable(error));
    QProcessEnvironment env = desktop.environment();

    Child standin;
    const QString standinMarks = dir.filePath(QStringLiteral("standin.json"));
    standin.process.setProcessEnvironment(env);
    standin.process.start(QStringLiteral(VEMIRA_E2E_STANDIN),
                          {QStringLiteral("--marks"), standinMarks});
    QVERIFY(waitFor([&] { return standin.process.canReadLine(); }, 10000));
    const QString url = QString::fromUtf8(standin.process.readLine()).trimmed().section(u' ', 1);
    QVERIFY(url.startsWith(QStringLiteral("ws://127.0.0.1:")));

    Child softphone;
    const QString softphoneMarks = dir.filePath(QStringLiteral("softphone.json"));
    QProcessEnvironment phoneEnv = env;
    phoneEnv.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    softphone.process.setProcessEnvironment(phoneEnv);
    softphone.process.start(
        QStringLiteral(VEMIRA_E2E_SOFTPHONE),
        {QStringLiteral("--call-sink"), QStringLiteral("com.brelian.audio.call"),
         QStringLiteral("--voice-source"), QStringLiteral("com.brelian.audio.voice.monitor"),
         QStringLiteral("--marks"), softphoneMarks, QStringLiteral("--ring-on-stdin")});
    QVERIFY(softphone.process.waitForStarted());

    // The user's data and key, where the standby looks for them.
    const QString data = dir.filePath(QStringLiteral("Brelian"));
    QVERIFY(!LocalKeyStore(DataFolder(data).credentialsFolder())
                 .save(QStringLiteral("sk-standby"))
                 .has_value());
    env.insert(QStringLiteral("VEMIRA_DATA_DIR"), data);
    env.insert(QStringLiteral("VEMIRA_REALTIME_URL"), url);
    env.insert(QStringLiteral("VEMIRA_PHONE_APPS"), QStringLiteral("Softphone de test"));
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), dir.filePath(QStringLiteral("config")));

    Child standby;
    standby.process.setProcessEnvironment(env);
    standby.process.setProcessChannelMode(QProcess::MergedChannels);
    QString output;
    connect(&standby.process, &QProcess::readyRead, this,
            [&] { output += QString::fromUtf8(standby.process.readAll()); });
    standby.process.start(QStringLiteral(VEMIRA_E2E_CLI), {QStringLiteral("standby")});
    QVERIFY2(
        waitFor([&] { return output.contains(QStringLiteral("À l’écoute des appels")); }, 20000),
        qPrintable(output));

    QTest::qWait(1000); // the softphone's window reaches the accessibility bus
    softphone.process.write("ring\n");
    // Interrupt while the assistant answers the caller's first line: the greeting and that
    // line have been said, the rest of the conversation has not.
    QVERIFY2(waitFor(
                 [&] {
                     for (const QJsonValue& s :
                          MarksFile::read(standinMarks)[QStringLiteral("sessions")].toArray()) {
                         if (s[QStringLiteral("responses")].toArray().size() >= 2)
                             return true;
                     }
                     return false;
                 },
                 40000),
             qPrintable(output));
    const auto saved = [&] {
        QFile history(QDir(data).filePath(QStringLiteral("history.json")));
        if (!history.open(QIODevice::ReadOnly))
            return QList<CallRecord>();
        auto records = decodeHistory(history.readAll());
        return records.ok() ? records.value() : QList<CallRecord>();
    };
    if (signal == SIGKILL) {
        // The call's record keeps up with it on disk, seconds behind at most.
        QVERIFY2(waitFor(
                     [&] {
                         const auto last = RecordsStore(DataFolder(data)).readCallInProgress();
                         return last && last->transcript.size() >= 2;
                     },
                     6000),
                 qPrintable(output));
    } else {
        QTest::qWait(500); // the caller's transcript, sent just before, reaches the record
    }
    ::kill(pid_t(standby.process.processId()), signal);
    QVERIFY2(waitFor([&] { return standby.process.state() == QProcess::NotRunning; }, 15000),
             qPrintable(output));
    output += QString::fromUtf8(standby.process.readAll());
    qInfo().noquote() << output;
    // The session log went to the terminal as it happened.
    QVERIFY2(output.contains(QStringLiteral(" · Décrochage demandé")), qPrintable(output));
    if (signal == SIGKILL) {
        // The next receptionist on the folder finds the call and says so.
        Child again;
        again.process.setProcessEnvironment(env);
        again.process.setProcessChannelMode(QProcess::MergedChannels);
        QString restarted;
        connect(&again.process, &QProcess::readyRead, this,
                [&] { restarted += QString::fromUtf8(again.process.readAll()); });
        again.process.start(QStringLiteral(VEMIRA_E2E_CLI), {QStringLiteral("standby")});
        QVERIFY2(
            waitFor([&] { return restarted.contains(QStringLiteral("Appel interrompu")); }, 20000),
            qPrintable(restarted));
        ::kill(pid_t(again.process.processId()), SIGINT);
        QVERIFY2(waitFor([&] { return again.process.state() == QProcess::NotRunning; }, 15000),
                 qPrintable(restarted));
    } else {
        QCOMPARE(standby.process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(standby.process.exitCode(), 0);
        QVERIFY2(output.contains(QStringLiteral("Arrêt demandé")), qPrintable(output));
        QVERIFY2(output.contains(QStringLiteral("Fiche enregistrée : ")), qPrintable(output));
    }

    // The record holds what was said before the interruption, speakers in order.
    const QList<CallRecord> records = saved();
    QCOMPARE(records.size(), 1);
    const CallRecord& record = records.first();
    QCOMPARE(record.progress, signal == SIGKILL ? CallProgress::Interrupted : CallProgress::Ended);
    QCOMPARE(record.caller, QStringLiteral("+33 6 12 34 56 78"));
    QVERIFY2(record.transcript.size() >= 2, qPrintable(output));
    QCOMPARE(record.transcript.at(0).speaker, QStringLiteral("Vemira"));
    QCOMPARE(record.transcript.at(1).speaker, QStringLiteral("Interlocuteur"));
    QVERIFY(record.transcript.at(1).text.startsWith(QStringLiteral("Bonjour, j’ai une fuite")));
    // The recording was finished before the process left.
    QVERIFY(record.recordingFile.has_value());
    const QString wav = QDir(DataFolder(data).recordingsFolder()).filePath(*record.recordingFile);
    QVERIFY2(QFileInfo(wav).size() > 48000, qPrintable(wav));
    QVERIFY(QFileInfo::exists(
        QDir(DataFolder(data).transcriptsFolder())
            .filePath(QStringLiteral("Appel-") + uuidText(record.id) + QStringLiteral(".txt"))));

    if (signal == SIGKILL)
        return;
    // The session was closed politely.
    QJsonObject conversation;
    for (const QJsonValue& s :
         MarksFile::read(standinMarks)[QStringLiteral("sessions")].toArray()) {
        if (s.toObject().contains(QStringLiteral("greetRequested")))
            conversation = s.toObject();
    }
    QVERIFY(conversation.contains(QStringLiteral("closed")));
    QCOMPARE(conversation[QStringLiteral("closeCode")].toInt(), 1000);
}

QTEST_GUILESS_MAIN(TestStandby)
#include "tst_e2e_standby.moc"
