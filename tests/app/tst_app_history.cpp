// The application model and the `vemira` tool (the real executable) on one data folder, as a
// user runs them side by side: edits survive each other's saves, the lists follow the file,
// an unreadable file is never touched, and tracks left by a crash become a recording.

#include "AppRig.h"
#include "audio/AudioFiles.h"
#include "audio/CallAudioRecorder.h"
#include "records/HistoryCodec.h"

#include <QDir>
#include <QProcess>
#include <QTest>

using namespace vemira;
using namespace vemira::testing;

namespace {

QProcess* startTool(const QString& folder, const QStringList& arguments, QObject* parent)
{
    auto* process = new QProcess(parent);
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("VEMIRA_DATA_DIR"), folder);
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), folder + QStringLiteral("/config"));
    process->setProcessEnvironment(env);
    process->start(QStringLiteral(VEMIRA_CLI_PATH), arguments);
    return process;
}

// Runs the tool to its end while the model's events keep being handled.
int tool(const QString& folder, const QStringList& arguments)
{
    QObject owner;
    QProcess* process = startTool(folder, arguments, &owner);
    const bool ended =
        QTest::qWaitFor([&] { return process->state() == QProcess::NotRunning; }, 30000);
    return ended && process->exitStatus() == QProcess::NormalExit ? process->exitCode() : -1;
}

QList<CallRecord> onDisk(const QString& folder)
{
    auto records = RecordsStore::readFile(DataFolder(folder).historyFile());
    return records ? records.value() : QList<CallRecord>();
}

const CallRecord* byId(const QList<CallRecord>& records, const QUuid& id)
{
    for (const CallRecord& record : records)
        if (record.id == id)
            return &record;
    return nullptr;
}

QByteArray bytesOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Tracks as a recorder leaves them when its process dies mid-call: written, never mixed.
void leaveTracks(const QString& url, int frames)
{
    auto recorder = std::move(CallAudioRecorder::create(url, [] { return 0.0; })).value();
    QByteArray wire(frames * 2, '\0');
    for (int i = 0; i < frames; ++i)
        wire[2 * i + 1] = 0x10;
    recorder->append(wire, 0);
    recorder->append(wire, 1);
    recorder.reset(); // the worker writes what was queued and stops: no finish
}

} // namespace

class AppHistoryTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { QLocale::setDefault(QLocale(QLocale::French, QLocale::France)); }

    void applicationAndToolEditingTogether()
    {
        AppRig rig;
        for (int i = 0; i < 12; ++i)
            rig.model->addDemo();
        const QList<CallRecord> start = rig.model->records();
        QList<QProcess*> running;
        QObject owner;
        // The tool notes every call (three at a time) while the model files them, one by
        // one, and takes new ones.
        for (int i = 0; i < start.size(); ++i) {
            running.append(startTool(
                rig.dir.path(),
                {QStringLiteral("note"), start[i].reference(), QStringLiteral("outil %1").arg(i)},
                &owner));
            rig.model->updateDossier(start[i].id, QStringLiteral("dossier %1").arg(i));
            if (i % 4 == 0)
                rig.model->addDemo();
            QVERIFY(QTest::qWaitFor(
                [&] {
                    return std::count_if(running.begin(), running.end(), [](QProcess* p) {
                               return p->state() != QProcess::NotRunning;
                           }) < 3;
                },
                60000));
        }
        for (QProcess* process : std::as_const(running)) {
            QVERIFY(process->state() == QProcess::NotRunning || process->waitForFinished(30000));
            QCOMPARE(process->exitCode(), 0);
        }
        rig.model->addDemo(); // one more save of the application after the tool's last edit
        const QList<CallRecord> saved = onDisk(rig.dir.path());
        QCOMPARE(saved.size(), 12 + 3 + 1);
        for (int i = 0; i < start.size(); ++i) {
            const CallRecord* record = byId(saved, start[i].id);
            QVERIFY(record);
            QCOMPARE(record->note, QStringLiteral("outil %1").arg(i));
            QCOMPARE(record->dossier, std::optional<QString>(QStringLiteral("dossier %1").arg(i)));
        }
        // The application's list follows the file: a call deleted with the tool leaves it too,
        // and stays deleted through the application's next save.
        QCOMPARE(rig.model->records().size(), saved.size());
        QCOMPARE(tool(rig.dir.path(), {QStringLiteral("delete"), start[0].reference()}), 0);
        QTRY_VERIFY(!byId(rig.model->records(), start[0].id));
        rig.model->addDemo();
        QVERIFY(!byId(onDisk(rig.dir.path()), start[0].id));
        QCOMPARE(onDisk(rig.dir.path()).size(), saved.size());
    }

    // The guard itself is the records store's; here only that the model uses it and says why.
    void unreadableFileStaysByteIdentical()
    {
        QByteArray broken = encodeRecord(makeDemoRecord(QDateTime::currentDateTime())).value();
        broken = joinHistory({broken, QByteArray(broken).replace("\"note\":", "\"nota\":")});
        ModelRig rig(true, [&](RecordsStore& store) {
            QVERIFY(QDir().mkpath(store.folder().path()));
            QFile file(store.folder().historyFile());
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(broken);
        });
        rig.model = std::make_unique<AppModel>(rig.fakeDependencies());
        QVERIFY(rig.model->historyReadFailed());
        QVERIFY(rig.model->log().join(u'\n').contains(
            QStringLiteral("Cause : enregistrement 2 : clé « note » manquante")));
        rig.model->addDemo();
        QCOMPARE(bytesOf(DataFolder(rig.dir.path()).historyFile()), broken);
    }

    void tracksLeftByACrashBecomeTheRecording()
    {
        QUuid saved;
        const QUuid unknown = QUuid::createUuid();
        ModelRig rig(true, [&](RecordsStore& store) {
            QVERIFY(!store.load());
            saved = store.addDemo(QDateTime::currentDateTime()).id;
            // The call was under way when its receptionist died, its last lines in its own file.
            store.modify(saved, [](CallRecord& r) { r.progress = CallProgress::InProgress; });
            QVERIFY(!store.saveHistory());
            CallRecord last = *store.find(saved);
            last.transcript.append(
                TranscriptLine::create(Speaker::caller(), QStringLiteral("Au revoir.")));
            QVERIFY(!store.writeCallInProgress(last));
        });
        const QString recordings = DataFolder(rig.dir.path()).recordingsFolder();
        const auto wav = [&](const QUuid& id) {
            return recordings + QStringLiteral("/Appel-") + uuidText(id) + QStringLiteral(".wav");
        };
        leaveTracks(wav(saved), 24000);
        leaveTracks(wav(unknown), 12000);
        QVERIFY(QFileInfo::exists(wav(saved) + QStringLiteral(".input.caf")));

        rig.model = std::make_unique<AppModel>(rig.fakeDependencies());
        const CallRecord* record = byId(rig.model->records(), saved);
        QCOMPARE(record->recordingFile, std::optional<QString>(QFileInfo(wav(saved)).fileName()));
        QCOMPARE(AudioFiles::wavFrames(wav(saved)).value(), std::int64_t(24000));
        QCOMPARE(byId(onDisk(rig.dir.path()), saved)->recordingFile, record->recordingFile);
        QCOMPARE(byId(onDisk(rig.dir.path()), saved)->progress, CallProgress::Interrupted);
        QCOMPARE(byId(onDisk(rig.dir.path()), saved)->transcript.last().text,
                 QStringLiteral("Au revoir."));
        QVERIFY(!RecordsStore(DataFolder(rig.dir.path())).readCallInProgress());
        // No record for the other call: its audio is kept, playable, and the log says where.
        QCOMPARE(AudioFiles::wavFrames(wav(unknown)).value(), std::int64_t(12000));
        QVERIFY(rig.model->log().join(u'\n').contains(QFileInfo(wav(unknown)).fileName()));
        QCOMPARE(QDir(recordings).entryList({QStringLiteral("*.caf")}, QDir::Files).size(), 0);
    }

    void retentionDeletesOnlyOlderRecordings()
    {
        ModelRig rig;
        const DataFolder folder(rig.dir.path());
        QList<CallRecord> calls;
        {
            RecordsStore store(folder);
            QVERIFY(!store.load());
            QVERIFY(QDir().mkpath(folder.recordingsFolder()));
            for (int age : {40, 20, 5}) {
                CallRecord call = CallRecord::create(rig.clock.now().addDays(-age),
                                                     QStringLiteral("+33 6 12 34 56 78"),
                                                     QStringLiteral("Appel entrant"));
                call.recordingFile =
                    QStringLiteral("Appel-") + uuidText(call.id) + QStringLiteral(".wav");
                QFile file(folder.recordingsFolder() + u'/' + *call.recordingFile);
                QVERIFY(file.open(QIODevice::WriteOnly));
                file.write("RIFF");
                store.insertFront(call);
                calls.append(call);
            }
            QVERIFY(!store.saveHistory());
        }
        const auto exists = [&](const CallRecord& call) {
            return QFileInfo::exists(folder.recordingsFolder() + u'/' + *call.recordingFile);
        };
        rig.model = std::make_unique<AppModel>(rig.fakeDependencies());
        QCOMPARE(rig.model->recordingRetentionDays(), 0); // never deleted unless chosen
        QVERIFY(exists(calls[0]));

        rig.model->setRecordingRetentionDays(30);
        QVERIFY(!exists(calls[0]));
        QVERIFY(exists(calls[1]) && exists(calls[2]));
        QVERIFY(rig.model->log().first().contains(QFileInfo(*calls[0].recordingFile).fileName()));
        // The record and its transcript stay; the record says where its audio went.
        const QList<CallRecord> saved = onDisk(rig.dir.path());
        const CallRecord* old = byId(saved, calls[0].id);
        QVERIFY(old && !old->recordingFile);
        QVERIFY(old->recordingError->contains(QStringLiteral("30 jours")));
        QVERIFY(QFileInfo::exists(folder.transcriptsFolder() + QStringLiteral("/Appel-") +
                                  uuidText(calls[0].id) + QStringLiteral(".txt")));

        // Sixteen days later the daily pass takes the call that is now 36 days old.
        rig.clock.advance(16 * 86400.0);
        rig.model->tick();
        QVERIFY(!exists(calls[1]));
        QVERIFY(exists(calls[2]));
        // The choice is kept for the next start.
        rig.model = std::make_unique<AppModel>(rig.fakeDependencies());
        QCOMPARE(rig.model->recordingRetentionDays(), 30);
        QVERIFY(exists(calls[2]));
    }
};

QTEST_MAIN(AppHistoryTest)
#include "tst_app_history.moc"
