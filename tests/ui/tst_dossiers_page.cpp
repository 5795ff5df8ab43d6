// The conversations page as the owner uses it: searching, filtering, sorting, filing a call
// into a dossier, writing a note, changing the follow-up status and copying or exporting
// the transcript, all on the real model, its history file and a fake clipboard.

#include "UiRig.h"
#include "records/TranscriptDocument.h"
#include "ui/AssignmentDialog.h"
#include "ui/DashboardPage.h"
#include "ui/DossiersPage.h"
#include "ui/MessageEditor.h"
#include "ui/PendingCallsCard.h"
#include "ui/RecordTableModel.h"

#include <QApplication>
#include <QComboBox>
#include <QFile>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTableView>
#include <QTest>
#include <QTimer>

using namespace vemira;
using namespace vemira::testing;

namespace {

const QString kCountTail = QStringLiteral(
    " appel(s). Cliquez sur une colonne pour trier, puis sur un appel pour l’ouvrir.");

QStringList comboItems(const QComboBox* combo)
{
    QStringList items;
    for (int i = 0; i < combo->count(); ++i)
        items << combo->itemText(i);
    return items;
}

QStringList shownCallers(ui::DossiersPage* page)
{
    QStringList callers;
    QAbstractItemModel* rows = page->table()->model();
    for (int r = 0; r < rows->rowCount(); ++r)
        callers << rows->index(r, ui::RecordTableModel::Caller).data().toString();
    return callers;
}

void clickRow(ui::DossiersPage* page, int row)
{
    QTableView* table = page->table();
    const QRect cell = table->visualRect(table->model()->index(row, ui::RecordTableModel::Caller));
    QTest::mouseClick(table->viewport(), Qt::LeftButton, {}, cell.center());
}

void search(ui::DossiersPage* page, const QString& text)
{
    page->searchField()->clear();
    QTest::keyClicks(page->searchField(), text);
}

// Runs `fill` on the assignment sheet once it is up, then presses its button `button`.
void answerAssignment(const std::function<void(ui::AssignmentDialog*)>& fill, const QString& button)
{
    QTimer::singleShot(0, [fill, button] {
        auto* dialog = qobject_cast<ui::AssignmentDialog*>(QApplication::activeModalWidget());
        QVERIFY2(dialog != nullptr, "the dossier sheet did not open");
        fill(dialog);
        for (QPushButton* b : dialog->findChildren<QPushButton*>()) {
            if (b->text() == button) {
                b->click();
                return;
            }
        }
        QFAIL("button not found on the dossier sheet");
    });
}

std::optional<CallRecord> onDisk(const UiRig& rig, const QUuid& id)
{
    for (const CallRecord& r : rig.historyOnDisk()) {
        if (r.id == id)
            return r;
    }
    return std::nullopt;
}

} // namespace

class DossiersPageTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { QLocale::setDefault(QLocale(QLocale::French, QLocale::France)); }

    void demonstrationOpensAndIsFoundByWhatWasSaid()
    {
        UiRig rig;
        ui::DossiersPage* page = rig.mainWindow->dossiersPage();
        QCOMPARE(page->countLabel()->text(), QStringLiteral("0") + kCountTail);
        QCOMPARE(page->searchField()->placeholderText(),
                 QStringLiteral("Rechercher un numéro, un nom, un dossier ou une phrase"));
        QCOMPARE(comboItems(page->folderPicker()),
                 (QStringList{QStringLiteral("Tous les dossiers"),
                              QStringLiteral("Appels non classés")}));
        QCOMPARE(comboItems(page->statusPicker()),
                 (QStringList{QStringLiteral("Tous les états"), QStringLiteral("À traiter"),
                              QStringLiteral("En cours"), QStringLiteral("Terminé")}));

        // The guide's example button: the record opens on the conversations page.
        rig.model->addDemo();
        QCOMPARE(rig.mainWindow->currentPage(), QStringLiteral("Conversations"));
        QCOMPARE(page->countLabel()->text(), QStringLiteral("1") + kCountTail);
        const CallRecord demo = rig.model->records().first();
        QCOMPARE(page->documentView()->toPlainText(), transcriptDocument(demo));
        QVERIFY(page->documentView()->toPlainText().startsWith(
            QStringLiteral("TRANSCRIPTION D’APPEL — VEMIRA\nRéférence : ") + uuidText(demo.id)));
        QCOMPARE(page->noteEditor()->toPlainText(), demo.note);

        // Found through its note, through its transcript without case or accent, and by
        // reference; a speaker label alone is not searched.
        search(page, QStringLiteral("fuite"));
        QCOMPARE(page->countLabel()->text(), QStringLiteral("1") + kCountTail);
        search(page, QStringLiteral("EVIER"));
        QCOMPARE(shownCallers(page), QStringList{QStringLiteral("Élise Modèle · exemple fictif")});
        search(page, demo.reference().toLower());
        QCOMPARE(page->countLabel()->text(), QStringLiteral("1") + kCountTail);
        search(page, QStringLiteral("Interlocuteur"));
        QCOMPARE(page->countLabel()->text(), QStringLiteral("0") + kCountTail);
        QVERIFY(!page->documentView()->isVisibleTo(page)); // the filtered-out call is not shown
        page->searchField()->clear();
        QCOMPARE(page->countLabel()->text(), QStringLiteral("1") + kCountTail);
        QVERIFY(page->documentView()->isVisibleTo(page));
    }

    void pickersCombineAndColumnsSort()
    {
        UiRig rig([](RecordsStore& store) {
            store.insertFront(seededRecord(QStringLiteral("Bernard"), 3,
                                           QStringLiteral("SCI Lilas"), QStringLiteral("Terminé"),
                                           QStringLiteral("Le portail grince.")));
            store.insertFront(seededRecord(QStringLiteral("Amélie"), 2, std::nullopt, std::nullopt,
                                           QStringLiteral("Fuite au plafond.")));
            store.insertFront(seededRecord(QStringLiteral("Chloé"), 1, QStringLiteral("sci lilas"),
                                           QStringLiteral("En cours"),
                                           QStringLiteral("Clé perdue.")));
            store.insertFront(seededRecord(QStringLiteral("David"), 4, std::nullopt,
                                           QStringLiteral("Terminé"), QStringLiteral("Facture.")));
            QVERIFY(!store.saveHistory());
        });
        rig.mainWindow->showPage(QStringLiteral("Conversations"));
        ui::DossiersPage* page = rig.mainWindow->dossiersPage();

        // Newest first by default; dossiers differing only in case are two entries.
        QCOMPARE(shownCallers(page),
                 (QStringList{QStringLiteral("Chloé"), QStringLiteral("Amélie"),
                              QStringLiteral("Bernard"), QStringLiteral("David")}));
        QCOMPARE(
            comboItems(page->folderPicker()),
            (QStringList{QStringLiteral("Tous les dossiers"), QStringLiteral("Appels non classés"),
                         QStringLiteral("SCI Lilas"), QStringLiteral("sci lilas")}));

        page->folderPicker()->setCurrentText(QStringLiteral("SCI Lilas"));
        QCOMPARE(shownCallers(page), QStringList{QStringLiteral("Bernard")});
        page->folderPicker()->setCurrentText(QStringLiteral("Appels non classés"));
        QCOMPARE(shownCallers(page),
                 (QStringList{QStringLiteral("Amélie"), QStringLiteral("David")}));
        // A call without status counts as "À traiter".
        page->statusPicker()->setCurrentText(QStringLiteral("À traiter"));
        QCOMPARE(shownCallers(page), QStringList{QStringLiteral("Amélie")});
        page->statusPicker()->setCurrentText(QStringLiteral("Terminé"));
        QCOMPARE(shownCallers(page), QStringList{QStringLiteral("David")});
        QCOMPARE(page->countLabel()->text(), QStringLiteral("1") + kCountTail);
        page->folderPicker()->setCurrentText(QStringLiteral("Tous les dossiers"));
        page->statusPicker()->setCurrentText(QStringLiteral("Tous les états"));

        // Clicking a header sorts by it; a second click reverses; the date column comes back.
        QHeaderView* header = page->table()->horizontalHeader();
        const auto clickHeader = [&](int column) {
            QTest::mouseClick(
                header->viewport(), Qt::LeftButton, {},
                QPoint(header->sectionViewportPosition(column) + 5, header->height() / 2));
        };
        clickHeader(ui::RecordTableModel::Caller);
        QCOMPARE(shownCallers(page),
                 (QStringList{QStringLiteral("Amélie"), QStringLiteral("Bernard"),
                              QStringLiteral("Chloé"), QStringLiteral("David")}));
        clickHeader(ui::RecordTableModel::Caller);
        QCOMPARE(shownCallers(page).first(), QStringLiteral("David"));
        clickHeader(ui::RecordTableModel::Date);
        QCOMPARE(shownCallers(page),
                 (QStringList{QStringLiteral("David"), QStringLiteral("Bernard"),
                              QStringLiteral("Amélie"), QStringLiteral("Chloé")}));

        // The selection follows the record, not the row, through a re-sort.
        clickRow(page, 1);
        QCOMPARE(page->documentView()->toPlainText().contains(QStringLiteral("Le portail grince.")),
                 true);
        clickHeader(ui::RecordTableModel::Caller);
        const QModelIndex current = page->table()->selectionModel()->currentIndex();
        QCOMPARE(current.siblingAtColumn(ui::RecordTableModel::Caller).data().toString(),
                 QStringLiteral("Bernard"));
        QCOMPARE(rig.model->selectedRecord(), rig.model->records()[3].id);
        QCOMPARE(rig.model->records()[3].caller, QStringLiteral("Bernard"));
    }

    void assignmentSheetFilesAndUnfilesTheCall()
    {
        UiRig rig;
        rig.model->addDemo();
        rig.model->addDemo();
        ui::DossiersPage* page = rig.mainWindow->dossiersPage();
        const QUuid filed = rig.model->records()[0].id;
        const QUuid other = rig.model->records()[1].id;
        QCOMPARE(rig.model->selectedRecord(), filed);

        // The sheet's texts, and a name typed with blanks around it.
        answerAssignment(
            [](ui::AssignmentDialog* dialog) {
                QCOMPARE(dialog->nameField()->placeholderText(),
                         QStringLiteral("Ex. SCI Lilas · logement 4 · fuite"));
                QVERIFY(!dialog->findChildren<QLabel*>().isEmpty());
                bool explained = false;
                for (QLabel* l : dialog->findChildren<QLabel*>())
                    explained |=
                        l->text() ==
                        QStringLiteral("Un nom vide retire l’appel du dossier sans le supprimer.");
                QVERIFY(explained);
                // Pasted, as names usually are, blanks included.
                dialog->nameField()->insert(QStringLiteral("  SCI Lilas · logement 4\t"));
            },
            QStringLiteral("Enregistrer"));
        page->assignButton()->click();
        QCOMPARE(rig.model->records()[0].dossier,
                 std::optional(QStringLiteral("SCI Lilas · logement 4")));
        QCOMPARE(onDisk(rig, filed)->dossier,
                 std::optional(QStringLiteral("SCI Lilas · logement 4")));
        QVERIFY(
            comboItems(page->folderPicker()).contains(QStringLiteral("SCI Lilas · logement 4")));

        page->folderPicker()->setCurrentText(QStringLiteral("SCI Lilas · logement 4"));
        QCOMPARE(page->countLabel()->text(), QStringLiteral("1") + kCountTail);
        page->folderPicker()->setCurrentText(QStringLiteral("Appels non classés"));
        QCOMPARE(page->table()->model()->index(0, 0).data(ui::RecordTableModel::IdRole).toUuid(),
                 other);

        // The second call: the existing name is offered and one click fills the field.
        clickRow(page, 0);
        answerAssignment(
            [](ui::AssignmentDialog* dialog) {
                QCOMPARE(dialog->existingList()->count(), 1);
                dialog->existingList()->setCurrentRow(0);
                QCOMPARE(dialog->nameField()->text(), QStringLiteral("SCI Lilas · logement 4"));
            },
            QStringLiteral("Enregistrer"));
        page->assignButton()->click();
        QCOMPARE(onDisk(rig, other)->dossier,
                 std::optional(QStringLiteral("SCI Lilas · logement 4")));
        QCOMPARE(page->countLabel()->text(), QStringLiteral("0") + kCountTail);

        // Cancelling changes nothing; an empty name takes both calls out of the dossier,
        // which then leaves the picker, and the filter falls back to every dossier.
        page->folderPicker()->setCurrentText(QStringLiteral("SCI Lilas · logement 4"));
        clickRow(page, 0);
        answerAssignment(
            [](ui::AssignmentDialog* d) { d->nameField()->setText(QStringLiteral("Autre")); },
            QStringLiteral("Annuler"));
        page->assignButton()->click();
        QCOMPARE(onDisk(rig, rig.model->selectedRecord())->dossier,
                 std::optional(QStringLiteral("SCI Lilas · logement 4")));
        for (int i = 0; i < 2; ++i) {
            clickRow(page, 0);
            answerAssignment(
                [](ui::AssignmentDialog* d) { d->nameField()->setText(QStringLiteral("  \n")); },
                QStringLiteral("Enregistrer"));
            page->assignButton()->click();
        }
        QCOMPARE(onDisk(rig, filed)->dossier, std::nullopt);
        QCOMPARE(onDisk(rig, other)->dossier, std::nullopt);
        QVERIFY(
            !comboItems(page->folderPicker()).contains(QStringLiteral("SCI Lilas · logement 4")));
        QCOMPARE(page->folderPicker()->currentText(), QStringLiteral("Tous les dossiers"));
        QCOMPARE(page->countLabel()->text(), QStringLiteral("2") + kCountTail);
    }

    void noteBeingTypedSurvivesACallAndIsSaved()
    {
        UiRig rig;
        rig.prepareForCalls();
        rig.model->addDemo();
        ui::DossiersPage* page = rig.mainWindow->dossiersPage();
        const QUuid demo = rig.model->selectedRecord();
        page->noteEditor()->clear();
        QTest::keyClicks(page->noteEditor(), QStringLiteral("Rappeler Mme Modele mardi"));
        QVERIFY(page->saveNoteButton()->isEnabled());

        // A call comes in, is taken and ends while the owner is still typing.
        rig.model->toggleArmed();
        QVERIFY(waitFor([&] { return rig.model->armed(); }));
        rig.ring(QStringLiteral("06 11 22 33 44"));
        rig.tick(4);
        QVERIFY(waitFor([&] { return rig.model->connected(); }));
        rig.showActiveCall();
        rig.tick();
        rig.model->finish();
        QCOMPARE(rig.model->records().size(), 2);
        QCOMPARE(page->countLabel()->text(), QStringLiteral("2") + kCountTail);

        // Same record, same unsaved text; nothing was written for it yet.
        QCOMPARE(rig.model->selectedRecord(), demo);
        QCOMPARE(page->noteEditor()->toPlainText(), QStringLiteral("Rappeler Mme Modele mardi"));
        QVERIFY(onDisk(rig, demo)->note.startsWith(QStringLiteral("Exemple : fuite")));
        page->saveNoteButton()->click();
        QCOMPARE(onDisk(rig, demo)->note, QStringLiteral("Rappeler Mme Modele mardi"));
        QVERIFY(!page->saveNoteButton()->isEnabled());

        // Moving to another call without pressing the button keeps the edit too, on the
        // record it was typed for, and an emptied note stays an empty note.
        QTest::keyClicks(page->noteEditor(), QStringLiteral(" a 10 h"));
        clickRow(page, 0);
        QVERIFY(rig.model->selectedRecord() != demo);
        QCOMPARE(onDisk(rig, demo)->note, QStringLiteral("Rappeler Mme Modele mardi a 10 h"));
        QCOMPARE(page->noteEditor()->toPlainText(), rig.model->records()[0].note);
        page->noteEditor()->selectAll();
        QTest::keyClick(page->noteEditor(), Qt::Key_Delete);
        rig.mainWindow->showPage(QStringLiteral("Accueil")); // leaving the page saves
        QCOMPARE(onDisk(rig, rig.model->records()[0].id)->note, QString());
    }

    void messageIsListedOpenedCorrectedAndFound()
    {
        UiRig rig;
        rig.model->addDemo();
        rig.model->addDemo();
        const QUuid older = rig.model->records()[1].id;
        const QUuid newer = rig.model->records()[0].id;
        rig.model->updateMessage(older, CallMessage{QStringLiteral("Jean Dupuis"),
                                                    {},
                                                    QStringLiteral("Fuite"),
                                                    {},
                                                    QStringLiteral("Urgent"),
                                                    {},
                                                    QStringLiteral("Fuite chez Jean Dupuis.")});

        // Accueil: the urgent call first, though older; one click opens it.
        ui::PendingCallsCard* pending = rig.mainWindow->dashboardPage()->pendingCalls();
        QCOMPARE(pending->list()->count(), 2);
        QVERIFY(pending->list()->item(0)->text().startsWith(QStringLiteral("Urgent · ")));
        QVERIFY(pending->list()->item(0)->text().endsWith(
            QStringLiteral(" · Jean Dupuis — Fuite chez Jean Dupuis.")));
        QVERIFY(pending->list()->item(1)->text().endsWith(QStringLiteral(" — Sans résumé")));
        rig.mainWindow->showPage(QStringLiteral("Accueil"));
        const QRect first = pending->list()->visualItemRect(pending->list()->item(0));
        QTest::mouseClick(pending->list()->viewport(), Qt::LeftButton, {}, first.center());
        QCOMPARE(rig.mainWindow->currentPage(), QStringLiteral("Conversations"));
        QCOMPARE(rig.model->selectedRecord(), older);

        // Conversations: the message above the transcript, corrected field by field.
        ui::DossiersPage* page = rig.mainWindow->dossiersPage();
        ui::MessageEditor* editor = page->messageEditor();
        QVERIFY(editor->isVisibleTo(page));
        QCOMPARE(editor->field(QStringLiteral("identity"))->text(), QStringLiteral("Jean Dupuis"));
        QCOMPARE(editor->field(QStringLiteral("address"))->placeholderText(),
                 QStringLiteral("Non précisé"));
        QVERIFY(!editor->saveButton()->isEnabled());
        QTest::keyClicks(editor->field(QStringLiteral("address")),
                         QStringLiteral("8 avenue Foch"));
        QTest::keyClicks(editor->field(QStringLiteral("callback")), QStringLiteral("demain"));
        editor->saveButton()->click();
        // Not a number: refused with a French sentence, nothing lost, nothing saved.
        QCOMPARE(editor->problemLabel()->text(),
                 QStringLiteral(
                     "Numéro de rappel non reconnu : indiquez un numéro de 8 à 15 chiffres."));
        QCOMPARE(editor->field(QStringLiteral("address"))->text(),
                 QStringLiteral("8 avenue Foch"));
        QVERIFY(onDisk(rig, older)->message->address.isEmpty());
        editor->field(QStringLiteral("callback"))->setText(QStringLiteral("06 12 34 56 78"));
        editor->saveButton()->click();
        QVERIFY(editor->problemLabel()->text().isEmpty());
        const CallMessage saved = *onDisk(rig, older)->message;
        QCOMPARE(saved.address, QStringLiteral("8 avenue Foch"));
        QCOMPARE(saved.callback, QStringLiteral("06 12 34 56 78"));
        QCOMPARE(saved.urgency, QStringLiteral("Urgent"));
        QVERIFY(page->documentView()->toPlainText().contains(
            QStringLiteral("\nAdresse : 8 avenue Foch\n")));

        // Found by what the message holds, not only by what was said.
        search(page, QStringLiteral("AVENUE FOCH"));
        QCOMPARE(page->countLabel()->text(), QStringLiteral("1") + kCountTail);
        page->searchField()->clear();

        // Dealt with: it leaves the list.
        rig.model->updateFollowUpStatus(older, QStringLiteral("Terminé"));
        QCOMPARE(pending->list()->count(), 1);
        QCOMPARE(pending->list()->item(0)->data(Qt::UserRole).toUuid(), newer);
    }

    void statusCopyExportAndReveal()
    {
        UiRig rig;
        rig.model->addDemo();
        ui::DossiersPage* page = rig.mainWindow->dossiersPage();
        const CallRecord demo = rig.model->records().first();

        page->recordStatusPicker()->setCurrentText(QStringLiteral("Terminé"));
        QCOMPARE(onDisk(rig, demo.id)->followUpStatus, std::optional(QStringLiteral("Terminé")));
        page->statusPicker()->setCurrentText(QStringLiteral("À traiter"));
        QCOMPARE(page->countLabel()->text(), QStringLiteral("0") + kCountTail);
        page->statusPicker()->setCurrentText(QStringLiteral("Terminé"));
        QCOMPARE(page->countLabel()->text(), QStringLiteral("1") + kCountTail);
        QVERIFY(page->documentView()->toPlainText().contains(QStringLiteral("\nÉtat : Terminé\n")));

        // Copy puts the very document shown on the clipboard.
        page->copyButton()->click();
        QCOMPARE(rig.desktop->clipboard, page->documentView()->toPlainText());
        QCOMPARE(page->messageLabel()->text(), QStringLiteral("Transcription de l’appel ") +
                                                   demo.reference() + QStringLiteral(" copiée."));
        rig.desktop->clipboardWorks = false;
        page->copyButton()->click();
        QCOMPARE(page->messageLabel()->text(),
                 QStringLiteral("La copie n’a pas abouti. Réessayez."));

        // Export: cancelled writes nothing; confirmed writes the document.
        const QString target = rig.dir.filePath(QStringLiteral("export.txt"));
        page->exportButton()->click();
        QCOMPARE(rig.desktop->proposedNames.last(),
                 QStringLiteral("Conversation-") + demo.reference() + QStringLiteral(".txt"));
        QVERIFY(!QFile::exists(target));
        rig.desktop->saveTo = target;
        page->exportButton()->click();
        QFile exported(target);
        QVERIFY(exported.open(QIODevice::ReadOnly));
        QCOMPARE(QString::fromUtf8(exported.readAll()), page->documentView()->toPlainText());

        // Reveal shows the transcript file of this record; no recording, no audio actions.
        page->revealButton()->click();
        QVERIFY(waitFor([&] { return !rig.desktop->revealed.isEmpty(); }));
        QVERIFY(rig.desktop->revealed.last().endsWith(QStringLiteral("Appel-") + uuidText(demo.id) +
                                                      QStringLiteral(".txt")));
        QVERIFY(!page->audioExportButton()->isEnabled());
        QVERIFY(!page->listenButton()->isEnabled());
    }
};

QTEST_MAIN(DossiersPageTest)
#include "tst_dossiers_page.moc"
