#include "RecordsTestSupport.h"
#include "records/RecordsStore.h"
#include "records/TranscriptDocument.h"

#include <QDir>
#include <QFileInfo>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace vemira;
using test::fileBytes;
using test::mode;
using test::writeBytes;

namespace {
const QString unreadableMessage =
    QStringLiteral("Historique illisible. Le fichier existant n’a pas été modifié.");
const QString refusedMessage =
    QStringLiteral("L’historique existant est illisible. Exportez les nouvelles conversations "
                   "avant de quitter ; le fichier existant est conservé.");
} // namespace

class RecordsStoreTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void firstRunCreatesPrivateFiles();
    void unreadableHistoryIsNeverOverwritten_data();
    void unreadableHistoryIsNeverOverwritten();
    void editsChangeOneRecordInPlace();
    void demoRecord();
    void transcriptFilesFollowChangesOnly();
    void failuresKeepTheRecords();
    void desktopActions();

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    QString dataPath() const { return m_dir->path() + QStringLiteral("/Support/Brelian"); }
};

void RecordsStoreTest::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

void RecordsStoreTest::firstRunCreatesPrivateFiles()
{
    RecordsStore store{DataFolder(dataPath())};
    QSignalSpy changed(&store, &RecordsStore::recordsChanged);
    QCOMPARE(store.load(), Status());
    QVERIFY(store.records().isEmpty());
    QVERIFY(!store.historyReadFailed());

    const auto added = store.addDemo(QDateTime::currentDateTime());
    QCOMPARE(added.saved, Status());
    QVERIFY(changed.count() >= 2);
    // Missing parents are created owner-only too.
    QCOMPARE(mode(m_dir->path() + QStringLiteral("/Support")), 0700);
    QCOMPARE(mode(dataPath()), 0700);
    QCOMPARE(mode(dataPath() + QStringLiteral("/history.json")), 0600);
    QCOMPARE(mode(dataPath() + QStringLiteral("/Transcriptions")), 0700);

    // A wider mode set by someone else is narrowed again at the next save.
    QFile::setPermissions(dataPath() + QStringLiteral("/history.json"),
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup |
                              QFile::ReadOther);
    QCOMPARE(store.saveHistory(), Status());
    QCOMPARE(mode(dataPath() + QStringLiteral("/history.json")), 0600);

    // A second store (the next start) reads the same list back.
    RecordsStore next{DataFolder(dataPath())};
    QCOMPARE(next.load(), Status());
    QVERIFY(next.records() == store.records());
}

void RecordsStoreTest::unreadableHistoryIsNeverOverwritten_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("asFolder");
    QTest::newRow("truncated") << QByteArray(R"([{"id":"0F1E2D3C-4B5A-6978)") << false;
    QTest::newRow("wrong type") << QByteArray(R"({"records":[]})") << false;
    QTest::newRow("record lacking note")
        << QByteArray(
               R"([{"id":"0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0","date":1,"caller":"c","kind":"k","transcript":[]}])")
        << false;
    QTest::newRow("invalid UTF-8") << QByteArray("[\"\xFF\xFE\"]") << false;
    QTest::newRow("a folder") << QByteArray() << true;
}

void RecordsStoreTest::unreadableHistoryIsNeverOverwritten()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, asFolder);
    const QString file = dataPath() + QStringLiteral("/history.json");
    QVERIFY(QDir().mkpath(dataPath()));
    if (asFolder)
        QVERIFY(QDir().mkpath(file));
    else
        writeBytes(file, content);

    RecordsStore store{DataFolder(dataPath())};
    const Status loaded = store.load();
    QVERIFY(loaded);
    QCOMPARE(loaded->message(), unreadableMessage);
    QVERIFY(store.historyReadFailed());
    QVERIFY(store.records().isEmpty());

    // The history of this run stays in memory; every save is refused with its message, but
    // each call's transcript file is still written beside it.
    const auto demo = store.addDemo(QDateTime::currentDateTime());
    QVERIFY(demo.saved);
    QCOMPARE(demo.saved->message(), refusedMessage);
    QCOMPARE(store.records().size(), 1);
    const Status note = store.updateNote(demo.id, QStringLiteral("à exporter"));
    QVERIFY(note);
    QCOMPARE(note->message(), refusedMessage);
    QCOMPARE(store.records().first().note, QStringLiteral("à exporter"));
    QCOMPARE(store.saveHistory()->message(), refusedMessage);

    if (asFolder) {
        QVERIFY(QFileInfo(file).isDir());
        QVERIFY(QDir(file).isEmpty());
    } else {
        QCOMPARE(fileBytes(file), content);
    }
    QVERIFY(fileBytes(dataPath() + QStringLiteral("/Transcriptions/Appel-") + uuidText(demo.id) +
                      QStringLiteral(".txt"))
                .endsWith("à exporter"));
}

void RecordsStoreTest::editsChangeOneRecordInPlace()
{
    RecordsStore store{DataFolder(dataPath())};
    QVERIFY(!store.load());
    const QUuid older = store.addDemo(QDateTime::currentDateTime()).id;
    const QUuid newer = store.addDemo(QDateTime::currentDateTime()).id;
    QCOMPARE(store.records().first().id, newer);

    QCOMPARE(store.updateNote(older, QString()), Status());
    QCOMPARE(store.records()[1].note, QString());
    QCOMPARE(store.updateNote(older, QStringLiteral("  garder les espaces \n")), Status());
    QCOMPARE(store.records()[1].note, QStringLiteral("  garder les espaces \n"));

    QCOMPARE(store.updateDossier(older, QStringLiteral("  SCI Lilas \n")), Status());
    QCOMPARE(store.records()[1].dossier, std::optional(QStringLiteral("SCI Lilas")));
    QCOMPARE(store.updateDossier(older, QStringLiteral("   \n ")), Status());
    QVERIFY(!store.records()[1].dossier.has_value());

    QCOMPARE(store.updateFollowUpStatus(older, QStringLiteral("Terminé")), Status());
    QCOMPARE(store.records()[1].followUpStatus, std::optional(QStringLiteral("Terminé")));
    QCOMPARE(store.records()[1].id, older); // position kept

    // Every edit was saved: a fresh store sees it.
    RecordsStore reread{DataFolder(dataPath())};
    QVERIFY(!reread.load());
    QVERIFY(reread.records() == store.records());

    // An unknown id changes nothing and writes nothing.
    const QString file = dataPath() + QStringLiteral("/history.json");
    QVERIFY(QFile::remove(file));
    QSignalSpy changed(&store, &RecordsStore::recordsChanged);
    QCOMPARE(store.updateNote(QUuid::createUuid(), QStringLiteral("x")), Status());
    QCOMPARE(store.updateDossier(QUuid::createUuid(), QStringLiteral("x")), Status());
    QCOMPARE(store.updateFollowUpStatus(QUuid::createUuid(), QStringLiteral("x")), Status());
    QVERIFY(!QFileInfo::exists(file));
    QCOMPARE(changed.count(), 0);
}

void RecordsStoreTest::demoRecord()
{
    RecordsStore store{DataFolder(dataPath())};
    QVERIFY(!store.load());
    const QDateTime now(QDate(2026, 3, 14), QTime(9, 30, 5));
    const auto first = store.addDemo(now);
    const auto second = store.addDemo(now);
    QVERIFY(first.id != second.id);
    QCOMPARE(store.records().first().id, second.id);

    const CallRecord& demo = store.records().first();
    QCOMPARE(demo.caller, QStringLiteral("Élise Modèle · exemple fictif"));
    QCOMPARE(demo.kind, QStringLiteral("Démonstration"));
    QCOMPARE(demo.date.toDateTime(), now);
    QVERIFY(!demo.dossier && !demo.recordingFile && !demo.recordingError && !demo.usage &&
            !demo.followUpStatus);
    const QStringList expected = {
        QStringLiteral("Vemira|Bonjour, vous êtes bien au service de gestion locative. Comment "
                       "puis-je vous aider ?"),
        QStringLiteral("Interlocuteur|Il y a une fuite sous mon évier depuis ce matin, au 12 rue "
                       "des Lilas, appartement 4."),
        QStringLiteral("Vemira|Est-ce que l’eau coule encore et pouvez-vous fermer le robinet "
                       "d’arrêt sans risque ?"),
        QStringLiteral(
            "Interlocuteur|J’ai fermé le robinet. Ça ne coule plus. J’ai pris des photos."),
        QStringLiteral("Vemira|Je note la fuite et le robinet fermé. Le gestionnaire prendra "
                       "connaissance de votre message pour organiser la suite."),
    };
    QStringList lines;
    QSet<QUuid> ids;
    for (const TranscriptLine& line : demo.transcript) {
        lines.append(line.speaker + u'|' + line.text);
        ids.insert(line.id);
    }
    QCOMPARE(lines, expected);
    QCOMPARE(ids.size(), 5);
    QCOMPARE(demo.note,
             QStringLiteral("Exemple : fuite sous évier, robinet fermé. Logement et identité à "
                            "confirmer. Photos disponibles, non reçues. Rappel et intervention à "
                            "organiser par le gestionnaire."));
}

void RecordsStoreTest::transcriptFilesFollowChangesOnly()
{
    RecordsStore store{DataFolder(dataPath())};
    store.setLocale(QLocale(QStringLiteral("fr_FR")));
    QVERIFY(!store.load());
    const QUuid a = store.addDemo(QDateTime::currentDateTime()).id;
    const QUuid b = store.addDemo(QDateTime::currentDateTime()).id;
    const QString folder = dataPath() + QStringLiteral("/Transcriptions/");
    const QString fileA = folder + QStringLiteral("Appel-") + uuidText(a) + QStringLiteral(".txt");
    const QString fileB = folder + QStringLiteral("Appel-") + uuidText(b) + QStringLiteral(".txt");
    QCOMPARE(fileBytes(fileA),
             transcriptDocument(*store.find(a), QLocale(QStringLiteral("fr_FR"))).toUtf8());
    QCOMPARE(mode(fileA), 0600);

    // Mark both files as old: an unchanged record must not be rewritten.
    const QDateTime old = QDateTime::currentDateTime().addDays(-3);
    for (const QString& f : {fileA, fileB}) {
        QFile file(f);
        QVERIFY(file.open(QIODevice::ReadWrite));
        QVERIFY(file.setFileTime(old, QFileDevice::FileModificationTime));
    }
    auto modified = [](const QString& f) { return QFileInfo(f).lastModified(); };
    QCOMPARE(store.saveHistory(), Status());
    QCOMPARE(modified(fileA), modified(fileB));
    QVERIFY(modified(fileA) < QDateTime::currentDateTime().addDays(-2));

    // A restarted store has no memory of what it wrote: it compares bytes, still no rewrite.
    RecordsStore restarted{DataFolder(dataPath())};
    restarted.setLocale(QLocale(QStringLiteral("fr_FR")));
    QVERIFY(!restarted.load());
    QCOMPARE(restarted.saveHistory(), Status());
    QVERIFY(modified(fileA) < QDateTime::currentDateTime().addDays(-2));

    // A note changes exactly one file, to the new document.
    QCOMPARE(restarted.updateNote(a, QStringLiteral("Rappeler Mme Modèle")), Status());
    QVERIFY(modified(fileA) > QDateTime::currentDateTime().addDays(-1));
    QVERIFY(modified(fileB) < QDateTime::currentDateTime().addDays(-2));
    QVERIFY(fileBytes(fileA).endsWith("NOTE DU GESTIONNAIRE\nRappeler Mme Modèle"));

    // A file deleted behind the store's back comes back at the next save.
    QVERIFY(QFile::remove(fileB));
    QCOMPARE(restarted.saveHistory(), Status());
    QVERIFY(QFileInfo::exists(fileB));

    // A file edited behind the store's back is repaired when the store (re)checks it.
    writeBytes(fileA, "abîmé");
    const auto path = restarted.writeTranscriptFile(*restarted.find(a));
    QVERIFY(path.ok());
    QCOMPARE(path.value(), fileA);
    QVERIFY(fileBytes(fileA).startsWith("TRANSCRIPTION D’APPEL — VEMIRA\n"));
}

void RecordsStoreTest::failuresKeepTheRecords()
{
    // The data folder cannot be created: a file sits where it should be.
    QVERIFY(QDir().mkpath(m_dir->path() + QStringLiteral("/Support")));
    writeBytes(dataPath(), "not a folder");
    RecordsStore blocked{DataFolder(dataPath())};
    QVERIFY(!blocked.load());
    const auto demo = blocked.addDemo(QDateTime::currentDateTime());
    QVERIFY(demo.saved);
    QVERIFY(demo.saved->message().startsWith(
        QStringLiteral("Impossible de sauvegarder l’historique : ")));
    QVERIFY(demo.saved->message().size() > 45);
    QCOMPARE(blocked.records().size(), 1);
    QCOMPARE(fileBytes(dataPath()), QByteArray("not a folder"));

    // The history is written but the transcripts folder is blocked by a file.
    QVERIFY(QFile::remove(dataPath()));
    QVERIFY(QDir().mkpath(dataPath()));
    writeBytes(dataPath() + QStringLiteral("/Transcriptions"), "blocked");
    RecordsStore store{DataFolder(dataPath())};
    QVERIFY(!store.load());
    const auto added = store.addDemo(QDateTime::currentDateTime());
    QVERIFY(added.saved);
    QVERIFY(added.saved->message().startsWith(QStringLiteral(
        "Historique enregistré, mais un fichier de transcription n’a pas pu être mis "
        "à jour : ")));
    RecordsStore reread{DataFolder(dataPath())};
    QVERIFY(!reread.load());
    QCOMPARE(reread.records().size(), 1);
}

void RecordsStoreTest::desktopActions()
{
    RecordsStore store{DataFolder(dataPath())};
    QVERIFY(!store.load());
    const QUuid id = store.addDemo(QDateTime::currentDateTime()).id;
    const CallRecord record = *store.find(id);
    const QString reference = uuidText(id).left(8);
    test::FakeDesktop desktop;

    QCOMPARE(store.copyTranscript(record, desktop),
             std::optional(QStringLiteral("Transcription de l’appel ") + reference +
                           QStringLiteral(" copiée.")));
    QCOMPARE(desktop.clipboard, store.transcriptDocument(record));
    desktop.clipboardAccepts = false;
    QCOMPARE(store.copyTranscript(record, desktop),
             std::optional(QStringLiteral("La copie n’a pas abouti. Réessayez.")));

    // Export: proposed name uses the 8-character reference; cancel writes nothing.
    QCOMPARE(store.exportTranscript(record, desktop), std::nullopt);
    QCOMPARE(desktop.proposedNames.last(),
             QStringLiteral("Conversation-") + reference + QStringLiteral(".txt"));
    QCOMPARE(desktop.proposedTypes.last(), DesktopServices::FileType::PlainText);
    const QString exported = m_dir->path() + QStringLiteral("/export.txt");
    desktop.saveAnswer = exported;
    QCOMPARE(store.exportTranscript(record, desktop), std::nullopt);
    QCOMPARE(fileBytes(exported), store.transcriptDocument(record).toUtf8());
    desktop.saveAnswer = m_dir->path() + QStringLiteral("/missing/folder/export.txt");
    const auto exportFailure = store.exportTranscript(record, desktop);
    QVERIFY(exportFailure && !exportFailure->isEmpty());
    QVERIFY(!exportFailure->startsWith(QStringLiteral("Impossible"))); // the description alone

    // Reveal writes the file first, then shows it.
    QCOMPARE(store.revealTranscript(record, desktop), std::nullopt);
    QCOMPARE(desktop.revealed, QStringList{dataPath() + QStringLiteral("/Transcriptions/Appel-") +
                                           uuidText(id) + QStringLiteral(".txt")});
    RecordsStore blocked{DataFolder(m_dir->path() + QStringLiteral("/blocked"))};
    writeBytes(m_dir->path() + QStringLiteral("/blocked"), "file");
    const auto revealFailure = blocked.revealTranscript(record, desktop);
    QVERIFY(revealFailure && revealFailure->startsWith(
                                 QStringLiteral("Impossible de préparer la transcription : ")));
    QCOMPARE(desktop.revealed.size(), 1);

    // Recording: absent field, then a missing file, then a real copy.
    const QString missing = QStringLiteral("L’enregistrement audio est introuvable.");
    QCOMPARE(store.exportRecording(record, desktop), std::optional(missing));
    CallRecord withRecording = record;
    withRecording.recordingFile = QStringLiteral("Appel-") + uuidText(id) + QStringLiteral(".wav");
    QCOMPARE(store.exportRecording(withRecording, desktop), std::optional(missing));
    QVERIFY(QDir().mkpath(dataPath() + QStringLiteral("/Enregistrements")));
    const QByteArray wave("RIFF\x24\0\0\0WAVEfmt ", 16);
    writeBytes(dataPath() + QStringLiteral("/Enregistrements/") + *withRecording.recordingFile,
               wave);
    const QString copied = m_dir->path() + QStringLiteral("/copie.wav");
    desktop.saveAnswer = copied;
    QCOMPARE(store.exportRecording(withRecording, desktop), std::nullopt);
    QCOMPARE(desktop.proposedNames.last(), *withRecording.recordingFile);
    QCOMPARE(desktop.proposedTypes.last(), DesktopServices::FileType::WaveAudio);
    QCOMPARE(fileBytes(copied), wave);
    desktop.saveAnswer = m_dir->path() + QStringLiteral("/nope/copie.wav");
    const auto copyFailure = store.exportRecording(withRecording, desktop);
    QVERIFY(copyFailure && copyFailure->startsWith(QStringLiteral("Export audio impossible : ")));
}

QTEST_GUILESS_MAIN(RecordsStoreTest)
#include "tst_records_store.moc"
