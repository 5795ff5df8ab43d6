// The receptionist as a Linux user runs it next to a softphone: on the project's private audio
// server and desktop, with the test softphone and the realtime stand-in. `vemira standby` must
// arm itself, answer, print its session log, and on Ctrl-C in the middle of the call stop
// cleanly with what was said so far saved. Killed outright instead, the call is found at the
// next start as an interrupted call, with what was said until seconds before, and its
// recording. The desktop application, set up and switched on through its own buttons, must end
// the call the way Ctrl-C does when the system stops it.
#include "demo/MarksFile.h"
#include "platform/linux/phone/AtspiAccessibility.h"
#include "records/APIKeyStore.h"
#include "records/CallRecord.h"
#include "records/DataFolder.h"
#include "records/HistoryCodec.h"
#include "records/RecordsStore.h"
#include "support/PrivateDesktop.h"
#include "support/WaitFor.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <signal.h>

using namespace vemira;
using namespace vemira::e2e;
using vemira::testing::waitFor;

namespace {

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

// The private desktop with the stand-in and the softphone running, and the user's data folder
// holding a key; `env` is what a receptionist started there needs.
struct CallRig {
    QTemporaryDir dir;
    std::unique_ptr<PrivateDesktop> desktop;
    Child standin;
    Child softphone;
    QString standinMarks = dir.filePath(QStringLiteral("standin.json"));
    QString softphoneMarks = dir.filePath(QStringLiteral("softphone.json"));
    QString data = dir.filePath(QStringLiteral("Brelian"));
    QProcessEnvironment env;

    bool start(QString* error)
    {
        desktop = std::make_unique<PrivateDesktop>(QStringLiteral(VEMIRA_E2E_SCRIPTS),
                                                   dir.filePath(QStringLiteral("env")));
        if (!desktop->start(error))
            return false;
        env = desktop->environment();
        standin.process.setProcessEnvironment(env);
        standin.process.start(QStringLiteral(VEMIRA_E2E_STANDIN),
                              {QStringLiteral("--marks"), standinMarks});
        if (!waitFor([&] { return standin.process.canReadLine(); }, 10)) {
            *error = QStringLiteral("the stand-in did not start");
            return false;
        }
        const QString url =
            QString::fromUtf8(standin.process.readLine()).trimmed().section(u' ', 1);

        QProcessEnvironment phoneEnv = env;
        phoneEnv.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        softphone.process.setProcessEnvironment(phoneEnv);
        softphone.process.start(
            QStringLiteral(VEMIRA_E2E_SOFTPHONE),
            {QStringLiteral("--call-sink"), QStringLiteral("com.brelian.audio.call"),
             QStringLiteral("--voice-source"), QStringLiteral("com.brelian.audio.voice.monitor"),
             QStringLiteral("--marks"), softphoneMarks, QStringLiteral("--ring-on-stdin")});
        if (!softphone.process.waitForStarted()) {
            *error = QStringLiteral("the softphone did not start");
            return false;
        }
        if (LocalKeyStore(DataFolder(data).credentialsFolder()).save(QStringLiteral("sk-e2e"))) {
            *error = QStringLiteral("the key could not be saved");
            return false;
        }
        env.insert(QStringLiteral("VEMIRA_DATA_DIR"), data);
        env.insert(QStringLiteral("VEMIRA_REALTIME_URL"), url);
        env.insert(QStringLiteral("VEMIRA_PHONE_APPS"), QStringLiteral("Softphone de test"));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), dir.filePath(QStringLiteral("config")));
        return true;
    }

    QJsonArray sessions() const
    {
        return MarksFile::read(standinMarks)[QStringLiteral("sessions")].toArray();
    }

    // The assistant is answering the caller's first line: the greeting and that line have
    // been said, the rest of the conversation has not.
    bool midCall() const
    {
        for (const QJsonValue& s : sessions()) {
            if (s[QStringLiteral("responses")].toArray().size() >= 2)
                return true;
        }
        return false;
    }

    // Its window is made: a ring written now is read by its event loop.
    bool softphoneUp() const
    {
        return MarksFile::read(softphoneMarks).contains(QStringLiteral("pid"));
    }

    // The call's record keeps up with it on disk, seconds behind at most: the greeting and the
    // caller's first line are there.
    bool firstLinesOnDisk() const
    {
        const auto last = RecordsStore(DataFolder(data)).readCallInProgress();
        return last && last->transcript.size() >= 2;
    }

    QList<CallRecord> saved() const
    {
        QFile history(QDir(data).filePath(QStringLiteral("history.json")));
        if (!history.open(QIODevice::ReadOnly))
            return {};
        auto records = decodeHistory(history.readAll());
        return records.ok() ? records.value() : QList<CallRecord>();
    }

    // The one record saved, holding what was said before the interruption, speakers in order,
    // its recording and its transcript file; ended politely unless the process was killed.
    void checkSavedCall(const QString& output, CallProgress progress) const
    {
        const QList<CallRecord> records = saved();
        QCOMPARE(records.size(), 1);
        const CallRecord& record = records.first();
        QCOMPARE(record.progress, progress);
        QCOMPARE(record.caller, QStringLiteral("+33 6 12 34 56 78"));
        QVERIFY2(record.transcript.size() >= 2, qPrintable(output));
        QCOMPARE(record.transcript.at(0).speaker, QStringLiteral("Vemira"));
        QCOMPARE(record.transcript.at(1).speaker, QStringLiteral("Interlocuteur"));
        QVERIFY(record.transcript.at(1).text.startsWith(QStringLiteral("Bonjour, j’ai une fuite")));
        // The recording was finished before the process left.
        QVERIFY(record.recordingFile.has_value());
        const QString wav =
            QDir(DataFolder(data).recordingsFolder()).filePath(*record.recordingFile);
        QVERIFY2(QFileInfo(wav).size() > 48000, qPrintable(wav));
        QVERIFY(QFileInfo::exists(QDir(DataFolder(data).transcriptsFolder())
                                      .filePath(QStringLiteral("Appel-") + uuidText(record.id) +
                                                QStringLiteral(".txt"))));
        if (progress == CallProgress::Interrupted)
            return;

        // The session was closed politely.
        QJsonObject conversation;
        for (const QJsonValue& s : sessions()) {
            if (s.toObject().contains(QStringLiteral("greetRequested")))
                conversation = s.toObject();
        }
        QVERIFY(conversation.contains(QStringLiteral("closed")));
        QCOMPARE(conversation[QStringLiteral("closeCode")].toInt(), 1000);
    }
};

// Presses the first button of `application` whose label reads `label`, as the owner would.
bool pressButton(Accessibility& accessibility, const QString& application, const QString& label)
{
    for (const AccessibilityElementPtr& root : accessibility.applicationRoots({application})) {
        std::vector<AccessibilityElementPtr> stack{root};
        while (!stack.empty()) {
            AccessibilityElementPtr element = stack.back();
            stack.pop_back();
            // A push button or a switch: whatever reads `label` and can be pressed.
            for (LabelAttribute attribute : kLabelAttributes) {
                if (element->label(attribute) == label) {
                    qInfo() << "pressing" << label << element->role().value_or(QString());
                    if (element->press())
                        return true;
                }
            }
            for (AccessibilityElementPtr& child : element->children())
                stack.push_back(std::move(child));
        }
    }
    return false;
}

} // namespace

class TestStandby : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void interruptDuringACallKeepsWhatWasSaid_data();
    void interruptDuringACallKeepsWhatWasSaid();
    void theApplicationStoppedMidCallHangsUpSavesAndLeaves();
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
    CallRig rig;
    QString error;
    QVERIFY2(rig.start(&error), qPrintable(error));

    Child standby;
    standby.process.setProcessEnvironment(rig.env);
    standby.process.setProcessChannelMode(QProcess::MergedChannels);
    QString output;
    connect(&standby.process, &QProcess::readyRead, this,
            [&] { output += QString::fromUtf8(standby.process.readAll()); });
    standby.process.start(QStringLiteral(VEMIRA_E2E_CLI), {QStringLiteral("standby")});
    QVERIFY2(waitFor([&] { return output.contains(QStringLiteral("À l’écoute des appels")); }, 20),
             qPrintable(output));

    QVERIFY(waitFor([&] { return rig.softphoneUp(); }, 10));
    rig.softphone.process.write("ring\n");
    QVERIFY2(waitFor([&] { return rig.midCall(); }, 40), qPrintable(output));
    QVERIFY2(waitFor([&] { return rig.firstLinesOnDisk(); }, 6), qPrintable(output));
    ::kill(pid_t(standby.process.processId()), signal);
    QVERIFY2(waitFor([&] { return standby.process.state() == QProcess::NotRunning; }, 15),
             qPrintable(output));
    output += QString::fromUtf8(standby.process.readAll());
    qInfo().noquote() << output;
    // The session log went to the terminal as it happened.
    QVERIFY2(output.contains(QStringLiteral(" · Décrochage demandé")), qPrintable(output));
    if (signal == SIGKILL) {
        // The next receptionist on the folder finds the call and says so.
        Child again;
        again.process.setProcessEnvironment(rig.env);
        again.process.setProcessChannelMode(QProcess::MergedChannels);
        QString restarted;
        connect(&again.process, &QProcess::readyRead, this,
                [&] { restarted += QString::fromUtf8(again.process.readAll()); });
        again.process.start(QStringLiteral(VEMIRA_E2E_CLI), {QStringLiteral("standby")});
        QVERIFY2(
            waitFor([&] { return restarted.contains(QStringLiteral("Appel interrompu")); }, 20),
            qPrintable(restarted));
        ::kill(pid_t(again.process.processId()), SIGINT);
        QVERIFY2(waitFor([&] { return again.process.state() == QProcess::NotRunning; }, 15),
                 qPrintable(restarted));
    } else {
        QCOMPARE(standby.process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(standby.process.exitCode(), 0);
        QVERIFY2(output.contains(QStringLiteral("Arrêt demandé")), qPrintable(output));
        QVERIFY2(output.contains(QStringLiteral("Fiche enregistrée : ")), qPrintable(output));
    }
    rig.checkSavedCall(output, signal == SIGKILL ? CallProgress::Interrupted : CallProgress::Ended);
}

// A logout, a shutdown or `kill` stop the desktop application with SIGTERM: the call under way
// is hung up in the softphone, saved whole, and the process is gone within 10 seconds.
void TestStandby::theApplicationStoppedMidCallHangsUpSavesAndLeaves()
{
    CallRig rig;
    QString error;
    QVERIFY2(rig.start(&error), qPrintable(error));

    Child app;
    QProcessEnvironment appEnv = rig.env;
    appEnv.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
    appEnv.insert(QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"), QStringLiteral("1"));
    app.process.setProcessEnvironment(appEnv);
    app.process.setProcessChannelMode(QProcess::MergedChannels);
    QString output;
    connect(&app.process, &QProcess::readyRead, this,
            [&] { output += QString::fromUtf8(app.process.readAll()); });
    app.process.start(QStringLiteral(VEMIRA_E2E_APP),
                      {QStringLiteral("--settings"), rig.dir.filePath(QStringLiteral("app.ini"))});
    QVERIFY(app.process.waitForStarted());

    // The owner's clicks, through the desktop's accessibility bus: test the sound, then switch
    // the receptionist on once that test has passed (until then the switch is refused, and
    // the AI check, the stand-in's first session, does not start).
    const QProcessEnvironment env = rig.env;
    for (const QString& name : env.keys())
        qputenv(name.toUtf8().constData(), env.value(name).toUtf8());
    AtspiAccessibility accessibility;
    QVERIFY(accessibility.isTrusted());
    const QString vemira = QStringLiteral("Vemira");
    QVERIFY2(waitFor(
                 [&] {
                     return pressButton(accessibility, vemira,
                                        QStringLiteral("Configurer et tester le son"));
                 },
                 20),
             qPrintable(output));
    QVERIFY2(waitFor(
                 [&] {
                     if (!rig.sessions().isEmpty())
                         return true;
                     if (!pressButton(accessibility, vemira, QStringLiteral("Répondre aux appels")))
                         return false;
                     return waitFor([&] { return !rig.sessions().isEmpty(); }, 3);
                 },
                 60),
             qPrintable(output));

    rig.softphone.process.write("ring\n");
    QVERIFY2(waitFor([&] { return rig.midCall(); }, 60), qPrintable(output));
    QVERIFY2(waitFor([&] { return rig.firstLinesOnDisk(); }, 6), qPrintable(output));
    QElapsedTimer stopping;
    stopping.start();
    ::kill(pid_t(app.process.processId()), SIGTERM);
    QVERIFY2(waitFor([&] { return app.process.state() == QProcess::NotRunning; }, 15),
             qPrintable(output));
    const qint64 took = stopping.elapsed();
    qInfo() << "vemira-app left" << took << "ms after SIGTERM";
    QVERIFY2(took < 10000, qPrintable(output));
    QCOMPARE(app.process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(app.process.exitCode(), 0);

    // Hung up by the receptionist, not by the caller leaving.
    const QJsonObject phone = MarksFile::read(rig.softphoneMarks);
    QVERIFY2(phone.contains(QStringLiteral("hungUp")), qPrintable(output));
    QCOMPARE(phone[QStringLiteral("hangupBy")].toString(), QStringLiteral("callee"));
    rig.checkSavedCall(output, CallProgress::Ended);
}

QTEST_GUILESS_MAIN(TestStandby)
#include "tst_e2e_standby.moc"
