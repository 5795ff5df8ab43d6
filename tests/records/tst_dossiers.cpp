#include "RecordsTestSupport.h"
#include "records/Dossiers.h"
#include "records/RecordsStore.h"

#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

using namespace vemira;

namespace {

CallRecord record(const QString& caller, std::optional<QString> dossier,
                  std::optional<QString> status, double date = 0)
{
    CallRecord r =
        CallRecord::create(QDateTime::currentDateTime(), caller, QStringLiteral("Appel"));
    r.date.secondsSinceReference = date;
    r.dossier = std::move(dossier);
    r.followUpStatus = std::move(status);
    return r;
}

QStringList callers(const QList<CallRecord>& records)
{
    QStringList out;
    for (const CallRecord& r : records)
        out.append(r.caller);
    return out;
}

} // namespace

class DossiersTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void fixedTexts()
    {
        DossiersDraft draft;
        QCOMPARE(draft.folder, QStringLiteral("Tous les dossiers"));
        QCOMPARE(draft.status, QStringLiteral("Tous les états"));
        QVERIFY(draft.search.isEmpty() && !draft.selected);
        QCOMPARE(Dossiers::unfiled(), QStringLiteral("Appels non classés"));
        QCOMPARE(Dossiers::statusFilterChoices(),
                 (QStringList{QStringLiteral("Tous les états"), QStringLiteral("À traiter"),
                              QStringLiteral("En cours"), QStringLiteral("Terminé")}));
        QCOMPARE(Dossiers::countLine(3), QStringLiteral("3 appel(s). Cliquez sur une colonne pour "
                                                        "trier, puis sur un appel pour l’ouvrir."));
        QCOMPARE(Dossiers::searchPrompt(),
                 QStringLiteral("Rechercher un numéro, un nom, un dossier ou une phrase"));
        QCOMPARE(DossierAssignment::prompt(), QStringLiteral("Ex. SCI Lilas · logement 4 · fuite"));
        QCOMPARE(DossierAssignment::explanation(),
                 QStringLiteral("Un nom vide retire l’appel du dossier sans le supprimer."));
    }

    void filtersCombine()
    {
        const QList<CallRecord> records = {
            record(QStringLiteral("sans dossier ni état"), std::nullopt, std::nullopt),
            record(QStringLiteral("sans dossier, terminé"), std::nullopt,
                   QStringLiteral("Terminé")),
            record(QStringLiteral("Lilas à traiter"), QStringLiteral("Lilas"),
                   QStringLiteral("À traiter")),
            record(QStringLiteral("lilas minuscule"), QStringLiteral("lilas"), std::nullopt),
        };
        DossiersDraft draft;
        draft.folder = Dossiers::unfiled();
        draft.status = QStringLiteral("À traiter");
        QCOMPARE(callers(draft.visible(records)),
                 QStringList{QStringLiteral("sans dossier ni état")});

        draft.folder = QStringLiteral("Lilas"); // exact: case matters for dossiers
        QCOMPARE(callers(draft.visible(records)), QStringList{QStringLiteral("Lilas à traiter")});
        draft.status = Dossiers::allStatuses();
        draft.folder = QStringLiteral("lilas");
        QCOMPARE(callers(draft.visible(records)), QStringList{QStringLiteral("lilas minuscule")});
        draft.folder = Dossiers::allFolders();
        draft.status = QStringLiteral("Terminé");
        QCOMPARE(callers(draft.visible(records)),
                 QStringList{QStringLiteral("sans dossier, terminé")});
    }

    void searchFoldsCaseAndAccents()
    {
        const CallRecord demo = makeDemoRecord(QDateTime::currentDateTime());
        auto finds = [&](const QString& text) {
            DossiersDraft draft;
            draft.search = text;
            return draft.matches(demo);
        };
        QVERIFY(finds(QStringLiteral("fuite")));          // in the note
        QVERIFY(finds(QStringLiteral("EVIER")));          // "évier" in the transcript
        QVERIFY(finds(QStringLiteral("élise modele")));   // caller, accents either way
        QVERIFY(finds(QStringLiteral("Non classé")));     // the dossier label of an unfiled call
        QVERIFY(finds(QStringLiteral("non communique"))); // the displayed-number label
        QVERIFY(finds(demo.reference().toLower()));
        QVERIFY(finds(QStringLiteral(" ")));              // not trimmed: a space matches
        QVERIFY(!finds(QStringLiteral("Interlocuteur"))); // speaker labels are not searched
        QVERIFY(!finds(QStringLiteral("  fuite")));       // …and the spaces count
        QVERIFY(!finds(QStringLiteral("inondation")));
        // Apostrophes: typed plain, stored typographic, and the other way round.
        QVERIFY(finds(QStringLiteral("l'eau coule")));
        QVERIFY(finds(QStringLiteral("J'AI FERME")));
        QVERIFY(!finds(QStringLiteral("l eau")));
        CallRecord plain = demo;
        plain.note = QStringLiteral("Fuite d'eau");
        DossiersDraft typographic;
        typographic.search = QStringLiteral("d’eau");
        QVERIFY(typographic.matches(plain));
        CallRecord numbered = demo;
        numbered.caller = QStringLiteral("06 12 34 56 78");
        DossiersDraft draft;
        draft.search = QStringLiteral("34 56");
        QVERIFY(draft.matches(numbered));
    }

    void foldersAndAssignment()
    {
        QTemporaryDir dir;
        RecordsStore store{DataFolder(dir.path())};
        QVERIFY(!store.load());
        const QUuid a = store.addDemo(QDateTime::currentDateTime()).id;
        const QUuid b = store.addDemo(QDateTime::currentDateTime()).id;
        const QUuid c = store.addDemo(QDateTime::currentDateTime()).id;
        QVERIFY(Dossiers::folders(store.records()).isEmpty());

        QVERIFY(!store.updateDossier(a, QStringLiteral("lilas")));
        QVERIFY(!store.updateDossier(b, QStringLiteral("Lilas")));
        QVERIFY(!store.updateDossier(c, QStringLiteral("Brumaires")));
        // Plain character order: upper case before lower case; case makes two dossiers.
        QCOMPARE(Dossiers::folders(store.records()),
                 (QStringList{QStringLiteral("Brumaires"), QStringLiteral("Lilas"),
                              QStringLiteral("lilas")}));

        // The sheet starts from the current name, offers the existing ones, saves trimmed.
        DossierAssignment sheet(*store.find(c));
        QCOMPARE(sheet.name, QStringLiteral("Brumaires"));
        QCOMPARE(DossierAssignment::existing(store.records()), Dossiers::folders(store.records()));
        sheet.name = QStringLiteral("   \n");
        QVERIFY(!store.updateDossier(sheet.recordId, sheet.nameToSave()));
        // The dossier disappears with its last call, and the call is now unfiled, not deleted.
        QCOMPARE(Dossiers::folders(store.records()),
                 (QStringList{QStringLiteral("Lilas"), QStringLiteral("lilas")}));
        DossiersDraft unfiled;
        unfiled.folder = Dossiers::unfiled();
        QCOMPARE(unfiled.visible(store.records()).size(), 1);
        QCOMPARE(unfiled.visible(store.records()).first().id, c);
        QCOMPARE(store.records().size(), 3);

        DossiersDraft selection;
        selection.selected = b;
        QCOMPARE(selection.selectedRecord(store.records())->id, b);
        selection.selected = QUuid::createUuid();
        QCOMPARE(selection.selectedRecord(store.records()), nullptr);
    }

    void indexAgreesWithTheDraft()
    {
        // The index is what every search runs; matches() is the rule for one record. Over a
        // varied history and many queries the index shows exactly the records matches() lets
        // through, newest first, also after records change under it.
        const QStringList words = {QStringLiteral("fuite"),     QStringLiteral("Évier"),
                                   QStringLiteral("chaudière"), QStringLiteral("Lilas"),
                                   QStringLiteral("06 12"),     QStringLiteral("ÉLISE"),
                                   QStringLiteral("œuvre"),     QStringLiteral("garçon")};
        QRandomGenerator random(42);
        QList<CallRecord> records;
        for (int i = 0; i < 300; ++i) {
            CallRecord r = record(
                words[random.bounded(int(words.size()))] + QStringLiteral(" appel"),
                random.bounded(3) == 0 ? std::nullopt : std::optional(words[random.bounded(3)]),
                random.bounded(2) ? std::nullopt
                                  : std::optional(Dossiers::followUpStatuses()[random.bounded(3)]),
                random.bounded(1000));
            for (int l = 0; l < 3; ++l)
                r.transcript.append(TranscriptLine::create(
                    Speaker::caller(), words[random.bounded(int(words.size()))]));
            records.append(r);
        }
        DossierSearchIndex index;
        const auto expected = [&](const DossiersDraft& draft) {
            QList<CallRecord> shown;
            for (const CallRecord& r : std::as_const(records))
                if (draft.matches(r))
                    shown.append(r);
            std::stable_sort(
                shown.begin(), shown.end(),
                [](const CallRecord& a, const CallRecord& b) { return a.date > b.date; });
            return shown;
        };
        const QStringList queries = {QString(),
                                     QStringLiteral("fuite"),
                                     QStringLiteral("EVIER"),
                                     QStringLiteral("chaudiere"),
                                     QStringLiteral("lilas appel"),
                                     QStringLiteral("12"),
                                     QStringLiteral("elise"),
                                     QStringLiteral("Non classé"),
                                     QStringLiteral("absent"),
                                     QStringLiteral(" "),
                                     QStringLiteral("GARCON")};
        for (int round = 0; round < 2; ++round) {
            for (const QString& query : queries) {
                for (const QString& folder :
                     {Dossiers::allFolders(), Dossiers::unfiled(), QStringLiteral("Lilas")}) {
                    DossiersDraft draft;
                    draft.search = query;
                    draft.folder = folder;
                    QList<CallRecord> viaIndex;
                    for (qsizetype i : index.visible(draft, records))
                        viaIndex.append(records[i]);
                    QVERIFY2(viaIndex == expected(draft), qPrintable(query + u'/' + folder));
                    QVERIFY(draft.visible(records) == viaIndex);
                }
            }
            // Edits, a deletion and a new call: the index follows the list it is given.
            records[3].note = QStringLiteral("chaudière");
            records[10].dossier = QStringLiteral("Lilas");
            records.removeAt(20);
            records.prepend(
                record(QStringLiteral("garçon nouveau"), std::nullopt, std::nullopt, 5000));
        }
    }

    void sortOrder()
    {
        const QList<CallRecord> records = {
            record(QStringLiteral("B"), std::nullopt, std::nullopt, 10),
            record(QStringLiteral("A"), std::nullopt, std::nullopt, 30),
            record(QStringLiteral("C"), std::nullopt, std::nullopt, 20),
        };
        DossiersDraft draft; // newest first by default
        QCOMPARE(callers(draft.visible(records)),
                 (QStringList{QStringLiteral("A"), QStringLiteral("C"), QStringLiteral("B")}));
        draft.sortOrder = {RecordComparator{RecordComparator::Column::Caller, false}};
        QCOMPARE(callers(draft.visible(records)),
                 (QStringList{QStringLiteral("A"), QStringLiteral("B"), QStringLiteral("C")}));
        draft.sortOrder = {RecordComparator{RecordComparator::Column::Date, false}};
        QCOMPARE(callers(draft.visible(records)),
                 (QStringList{QStringLiteral("B"), QStringLiteral("C"), QStringLiteral("A")}));
    }
};

QTEST_GUILESS_MAIN(DossiersTest)
#include "tst_dossiers.moc"
