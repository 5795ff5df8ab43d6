// Several writers of one data folder: three-way merge of the history, the write lock, the
// backup, the watch of the file, deletion, and the one-receptionist lock (with a real child
// process killed while holding it).
#include "RecordsTestSupport.h"
#include "records/DataFolder.h"
#include "records/HistoryCodec.h"
#include "records/HistoryMerge.h"
#include "records/InstanceLock.h"
#include "records/RecordsStore.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace vemira;
using namespace vemira::test;

namespace {

const QString kA = QStringLiteral("{AAAAAAAA-0000-4000-8000-000000000001}");
const QString kB = QStringLiteral("{BBBBBBBB-0000-4000-8000-000000000002}");
const QString kC = QStringLiteral("{CCCCCCCC-0000-4000-8000-000000000003}");

QUuid uuid(const QString& text)
{
    return QUuid::fromString(text);
}

const CallRecord* findIn(const QList<CallRecord>& records, const QString& id)
{
    for (const CallRecord& record : records) {
        if (record.id == uuid(id))
            return &record;
    }
    return nullptr;
}

QList<CallRecord> onDisk(const DataFolder& folder)
{
    auto records = RecordsStore::readFile(folder.historyFile());
    return records ? records.value() : QList<CallRecord>();
}

} // namespace

class HistorySharingTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void mergeTakesEachSidesChanges()
    {
        const CallRecord a = fixedRecord(kA, 100);
        const CallRecord b = fixedRecord(kB, 200);
        const QHash<QUuid, CallRecord> base = indexById({b, a});

        CallRecord mineA = a;
        mineA.note = QStringLiteral("note d’ici");
        mineA.recordingFile = QStringLiteral("Appel.wav");
        CallRecord theirsA = a;
        theirsA.note = QStringLiteral("note de la ligne de commande"); // conflict: ours wins
        theirsA.dossier = QStringLiteral("SCI Lilas");                 // theirs only: taken
        theirsA.followUpStatus = QStringLiteral("En cours");
        const CallRecord newHere = fixedRecord(kC, 300);
        CallRecord newThere =
            fixedRecord(QStringLiteral("{DDDDDDDD-0000-4000-8000-000000000004}"), 250);

        // Here: a new call in front, b untouched. There: b deleted, a new record.
        QList<QUuid> kept;
        const QList<CallRecord> merged =
            mergeHistory(base, {newHere, b, mineA}, {newThere, theirsA}, {b.id}, &kept);
        QVERIFY(kept.isEmpty());
        QCOMPARE(merged.size(), 3);
        QCOMPARE(merged[0].id, newHere.id);
        QCOMPARE(merged[1].id, newThere.id);
        QCOMPARE(merged[2].note, QStringLiteral("note d’ici"));
        QCOMPARE(merged[2].dossier, std::optional<QString>(QStringLiteral("SCI Lilas")));
        QCOMPARE(merged[2].followUpStatus, std::optional<QString>(QStringLiteral("En cours")));
        QCOMPARE(merged[2].recordingFile, std::optional<QString>(QStringLiteral("Appel.wav")));
        // The same file with b gone but no writer of ours having deleted it (a backup put
        // back): b stays, in its place by date, and the caller hears of it.
        const QList<CallRecord> restored =
            mergeHistory(base, {newHere, b, mineA}, {newThere, theirsA}, {}, &kept);
        QCOMPARE(kept, QList<QUuid>{b.id});
        QCOMPARE(restored.size(), 4);
        QCOMPARE(restored[2].id, b.id);

        // Deleted here, edited there: stays deleted. Field cleared there: cleared.
        CallRecord filed = a;
        filed.dossier = QStringLiteral("X");
        CallRecord unfiled = filed;
        unfiled.dossier.reset();
        const QList<CallRecord> again =
            mergeHistory(indexById({b, filed}), {filed}, {b, unfiled}, {});
        QCOMPARE(again.size(), 1);
        QCOMPARE(again[0].id, a.id);
        QVERIFY(!again[0].dossier);
    }

    void twoStoresOnOneFolderLoseNothing()
    {
        QTemporaryDir dir;
        const DataFolder folder(dir.path());
        RecordsStore app(folder);
        QVERIFY(!app.load());
        app.insertFront(fixedRecord(kA, 100));
        app.insertFront(fixedRecord(kB, 200));
        QVERIFY(!app.saveHistory());
        const QByteArray firstBytes = fileBytes(folder.historyFile());

        RecordsStore tool(folder);
        QVERIFY(!tool.load());
        QVERIFY(!tool.updateNote(uuid(kA), QStringLiteral("vue en ligne de commande")));
        // The backup is the file this save replaced, owner-only.
        const QString backup = folder.historyFile() + QStringLiteral(".bak");
        QCOMPARE(fileBytes(backup), firstBytes);
        QCOMPARE(mode(backup), 0600);
        QVERIFY(!tool.updateFollowUpStatus(uuid(kB), QStringLiteral("Terminé")));

        // The application, unaware, files a call and takes a new one.
        QVERIFY(!app.updateDossier(uuid(kA), QStringLiteral("SCI Lilas")));
        app.insertFront(fixedRecord(kC, 300));
        QVERIFY(!app.saveHistory());
        for (const QList<CallRecord>& records : {app.records(), onDisk(folder)}) {
            QCOMPARE(records.size(), 3);
            QCOMPARE(records[0].id, uuid(kC));
            QCOMPARE(findIn(records, kA)->note, QStringLiteral("vue en ligne de commande"));
            QCOMPARE(findIn(records, kA)->dossier,
                     std::optional<QString>(QStringLiteral("SCI Lilas")));
            QCOMPARE(findIn(records, kB)->followUpStatus,
                     std::optional<QString>(QStringLiteral("Terminé")));
        }

        // A deletion by the tool reaches the application's next save, files included, and no
        // other call's: the tool names the record it found in the list, whose slot the next
        // record takes once it is removed.
        const QString transcript = folder.transcriptsFolder() + QStringLiteral("/Appel-") +
                                   uuidText(uuid(kB)) + QStringLiteral(".txt");
        const auto recording = [&](const QString& id) {
            return folder.recordingsFolder() + QStringLiteral("/Appel-") + uuidText(uuid(id)) +
                   QStringLiteral(".wav");
        };
        QVERIFY(QDir().mkpath(folder.recordingsFolder()));
        writeBytes(recording(kB), "RIFF");
        writeBytes(recording(kA), "RIFF");
        QVERIFY(QFileInfo::exists(transcript));
        RecordsStore deleter(folder);
        QVERIFY(!deleter.load());
        QVERIFY(!deleter.deleteRecord(deleter.find(uuid(kB))->id));
        QVERIFY(!QFileInfo::exists(transcript));
        QVERIFY(!QFileInfo::exists(recording(kB)));
        QVERIFY(QFileInfo::exists(recording(kA)));
        QVERIFY(!app.updateNote(uuid(kC), QStringLiteral("rappeler")));
        QVERIFY(!findIn(onDisk(folder), kB));
        QVERIFY(!app.find(uuid(kB)));
        QCOMPARE(findIn(onDisk(folder), kC)->note, QStringLiteral("rappeler"));
    }

    void watchedFileRefreshesTheList()
    {
        QTemporaryDir dir;
        const DataFolder folder(dir.path());
        RecordsStore app(folder);
        QVERIFY(!app.load());
        app.watchFile();
        app.insertFront(fixedRecord(kA, 100));
        QVERIFY(!app.saveHistory());
        QSignalSpy changed(&app, &RecordsStore::recordsChanged);

        RecordsStore tool(folder);
        QVERIFY(!tool.load());
        QVERIFY(!tool.updateNote(uuid(kA), QStringLiteral("changée ailleurs")));
        QTRY_COMPARE(app.find(uuid(kA))->note, QStringLiteral("changée ailleurs"));
        QVERIFY(changed.count() >= 1);
        tool.insertFront(fixedRecord(kB, 200));
        QVERIFY(!tool.saveHistory());
        QTRY_VERIFY(app.find(uuid(kB)) != nullptr);

        // The backup, older than b, is put back by hand: b is not lost, the log says so, and
        // the file holds it again at once.
        QSignalSpy notices(&app, &RecordsStore::notice);
        QVERIFY(QFile::remove(folder.historyFile()));
        QVERIFY(QFile::copy(folder.historyFile() + QStringLiteral(".bak"), folder.historyFile()));
        QTRY_COMPARE(notices.count(), 1);
        QVERIFY(notices.first().first().toString().contains(uuidText(uuid(kB)).left(8)));
        QTRY_VERIFY(findIn(onDisk(folder), kB));
        QVERIFY(app.find(uuid(kB)));
    }

    void fileBrokenAfterStartIsNeverReplaced()
    {
        QTemporaryDir dir;
        const DataFolder folder(dir.path());
        RecordsStore app(folder);
        QVERIFY(!app.load());
        app.insertFront(fixedRecord(kA, 100));
        QVERIFY(!app.saveHistory());

        // Someone writes a file whose second record lacks its note.
        auto good = encodeRecord(fixedRecord(kB, 200));
        QByteArray second = encodeRecord(fixedRecord(kC, 300)).value();
        second.replace("\"note\":\"Rappeler demain\"", "\"notes\":\"x\"");
        const QByteArray broken = joinHistory({good.value(), second});
        writeBytes(folder.historyFile() + QStringLiteral(".new"), broken);
        QVERIFY(
            QFile::rename(folder.historyFile() + QStringLiteral(".new"), folder.historyFile()) ||
            (QFile::remove(folder.historyFile()) &&
             QFile::rename(folder.historyFile() + QStringLiteral(".new"), folder.historyFile())));
        // What the watcher does on a change: the look finds it unreadable and keeps the list.
        QVERIFY(app.refreshFromFile());
        QCOMPARE(app.records().size(), 1);

        const Status saved = app.updateNote(uuid(kA), QStringLiteral("x"));
        QVERIFY(saved);
        QVERIFY2(
            saved->message().contains(QStringLiteral("enregistrement 2 : clé « note » manquante")),
            qPrintable(saved->message()));
        QVERIFY(app.deleteRecord(uuid(kA)));
        QVERIFY(app.find(uuid(kA)) != nullptr); // still in the file: not half-deleted
        QCOMPARE(fileBytes(folder.historyFile()), broken);
    }

    void oneReceptionistPerFolder()
    {
        QTemporaryDir dir;
        const DataFolder folder(dir.path());
        {
            auto first = InstanceLock::acquire(folder, QStringLiteral("vemira-app"));
            QVERIFY(first);
            auto second = InstanceLock::acquire(folder, QStringLiteral("vemira standby"));
            QVERIFY(!second);
            QVERIFY2(second.error().message().startsWith(
                         QStringLiteral(
                             "Vemira fonctionne déjà sur ce dossier de données : « vemira-app » "
                             "(processus %1")
                             .arg(QCoreApplication::applicationPid())),
                     qPrintable(second.error().message()));
        }
        QVERIFY(InstanceLock::acquire(folder, QStringLiteral("vemira standby")));

        // A real process holds it, then is killed outright: its lock is taken over.
        QProcess holder;
        holder.start(QStringLiteral(VEMIRA_LOCK_HOLDER),
                     {folder.path(), QStringLiteral("vemira standby")});
        QVERIFY(holder.waitForReadyRead(10000));
        QCOMPARE(holder.readAllStandardOutput().trimmed(), QByteArray("verrou pris"));
        auto refused = InstanceLock::acquire(folder, QStringLiteral("vemira-app"));
        QVERIFY(!refused);
        QVERIFY(refused.error().message().contains(
            QStringLiteral("« vemira standby » (processus %1").arg(holder.processId())));
        holder.kill(); // SIGKILL: no clean-up of any kind
        QVERIFY(holder.waitForFinished(10000));
        QVERIFY(QFileInfo::exists(folder.path() + u'/' + InstanceLock::fileName()));
        QVERIFY(InstanceLock::acquire(folder, QStringLiteral("vemira-app")));
    }
};

QTEST_GUILESS_MAIN(HistorySharingTest)
#include "tst_history_sharing.moc"
