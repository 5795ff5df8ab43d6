// The windows on the real model (fake devices and phone window, the real realtime client
// against the scripted loopback server, a fake clipboard and save dialog): what only a window
// can get wrong. The rules behind the buttons are tested where they live (records, app).

#include "SmtpTestServer.h"
#include "UiRig.h"
#include "app/SystemServices.h"
#include "audio/AudioSystem.h"
#include "audio/MacAudioRoute.h"
#include "audio/probes/AudioRouteProbe.h"
#include "core/PlatformWording.h"
#include "notify/AfterCallNotices.h"
#include "records/Settings.h"
#include "ui/AgentPage.h"
#include "ui/AnsweringRulesCard.h"
#include "ui/AssignmentDialog.h"
#include "ui/ConnectionsPage.h"
#include "ui/DashboardPage.h"
#include "ui/DossiersPage.h"
#include "ui/LoginStart.h"
#include "ui/MailSettingsCard.h"
#include "ui/MessageEditor.h"
#include "ui/PendingCallsCard.h"
#include "ui/RecordTableModel.h"
#include "ui/RecordingWindow.h"
#include "ui/SetupAssistant.h"
#include "ui/StatusIcon.h"
#include "ui/TestWindow.h"
#include "ui/UsagePanel.h"
#include "ui/VoiceWindow.h"
#include "ui/Widgets.h"

#include <QAbstractButton>
#include <QAccessible>
#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QFileInfo>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSlider>
#include <QSpinBox>
#include <QTableView>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>
#include <QToolButton>
#include <QtEndian>

#if defined(Q_OS_LINUX)
#include "platform/linux/audio/PulseStreamRouter.h"
#include "platform/linux/audio/PulseVirtualDevices.h"
#include "support/PulseDaemon.h"
#endif

using namespace Qt::StringLiterals;
using namespace vemira;
using namespace vemira::testing;
using test::SmtpTestServer;

namespace {

// Controls the keyboard can reach whose accessible name is empty.
QStringList unnamedControls(QWidget* top)
{
    QStringList unnamed;
    const QList<QWidget*> widgets = top->findChildren<QWidget*>();
    for (QWidget* w : widgets) {
        if (!(w->focusPolicy() & Qt::TabFocus) || w->objectName().startsWith(u"qt_"_s))
            continue;
        // Internals of composite controls: the combo's popup, scroll areas' viewports.
        bool internal = false;
        for (QWidget* p = w->parentWidget(); p != nullptr && p != top; p = p->parentWidget())
            internal |= qobject_cast<QComboBox*>(p) != nullptr;
        if (internal)
            continue;
        QAccessibleInterface* a = QAccessible::queryAccessibleInterface(w);
        if (a == nullptr || a->text(QAccessible::Name).trimmed().isEmpty())
            unnamed << QString::fromLatin1(w->metaObject()->className()) + u" "_s + w->objectName();
    }
    return unnamed;
}

// Every text a user can read on a window: labels, buttons, list and combo entries,
// placeholders, tooltips, accessible names and descriptions, menu actions; with
// `visibleOnly`, only on the part of the window that is shown.
QStringList textsOf(QWidget* top, bool visibleOnly = true)
{
    QStringList texts{top->windowTitle()};
    QList<QWidget*> widgets = top->findChildren<QWidget*>();
    widgets.prepend(top);
    for (QWidget* w : widgets) {
        if (visibleOnly && !w->isVisible())
            continue;
        texts << w->toolTip() << w->accessibleName() << w->accessibleDescription();
        if (auto* label = qobject_cast<QLabel*>(w))
            texts << label->text();
        if (auto* button = qobject_cast<QAbstractButton*>(w))
            texts << button->text();
        if (auto* edit = qobject_cast<QLineEdit*>(w))
            texts << edit->placeholderText() << edit->text();
        if (auto* edit = qobject_cast<QPlainTextEdit*>(w))
            texts << edit->placeholderText() << edit->toPlainText();
        if (auto* list = qobject_cast<QListWidget*>(w)) {
            for (int i = 0; i < list->count(); ++i)
                texts << list->item(i)->text() << list->item(i)->toolTip();
        }
        if (auto* combo = qobject_cast<QComboBox*>(w)) {
            for (int i = 0; i < combo->count(); ++i)
                texts << combo->itemText(i);
        }
    }
    for (QAction* action : top->findChildren<QAction*>())
        texts << action->text() << action->toolTip();
    texts.removeAll(QString());
    return texts;
}

// The texts of the five pages, each shown in turn; the home page's hidden parts (call card,
// budget explanation) too when `homeHiddenToo`, since they show during a call.
QStringList pageTexts(ui::MainWindow* window, bool homeHiddenToo)
{
    QStringList texts;
    for (const QString& page :
         {u"Accueil"_s, u"Agent"_s, u"Conversations"_s, u"Connexions"_s, u"Guide"_s}) {
        window->showPage(page);
        texts << textsOf(window, !homeHiddenToo || page != u"Accueil"_s);
    }
    return texts;
}

QStringList appleWords(const QStringList& texts)
{
    QStringList found;
    for (const QString& text : texts) {
        if (text.contains(u"Mac"_s) || text.contains(u"iPhone"_s) || text.contains(u"macOS"_s))
            found << text;
    }
    return found;
}

// The buttons of the window showing or named `text`; with `shownOnly` false, also those of a
// step not shown yet.
QList<QPushButton*> buttons(QWidget* top, const QString& text, bool shownOnly = true)
{
    QList<QPushButton*> found;
    for (QPushButton* b : top->findChildren<QPushButton*>()) {
        if ((b->isVisible() || !shownOnly) && (b->text() == text || b->accessibleName() == text))
            found << b;
    }
    return found;
}

QPushButton* button(QWidget* top, const QString& text, bool shownOnly = true)
{
    return buttons(top, text, shownOnly).value(0);
}

bool hasLabel(QWidget* top, const QString& text)
{
    const QList<QLabel*> labels = top->findChildren<QLabel*>();
    return std::any_of(labels.begin(), labels.end(), [&](QLabel* l) { return l->text() == text; });
}

void clickRow(ui::DossiersPage* page, int row)
{
    QTableView* table = page->table();
    const QRect cell = table->visualRect(table->model()->index(row, ui::RecordTableModel::Caller));
    QTest::mouseClick(table->viewport(), Qt::LeftButton, {}, cell.center());
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

class UiTest : public QObject {
    Q_OBJECT

private:
#if defined(Q_OS_LINUX)
    PulseDaemon m_daemon;

    // Our two devices as "name format channels rate", sorted.
    QStringList brelianSinks() const
    {
        QStringList found;
        for (const QJsonValue sink : m_daemon.list(u"sinks"_s)) {
            const QString name = sink[u"name"_s].toString();
            if (name == BrelianDevices::callUID() || name == BrelianDevices::voiceUID())
                found << name + u' ' + sink[u"sample_specification"_s].toString();
        }
        found.sort();
        return found;
    }
#endif

private Q_SLOTS:
    // The texts quoted here are the macOS ones, word for word: selecting them on every
    // platform keeps these cases a guard against their drift.
    void init()
    {
        PlatformWording::select(WordingPlatform::MacOS);
        QLocale::setDefault(QLocale(QLocale::French, QLocale::France));
    }
    void cleanupTestCase()
    {
        PlatformWording::select(PlatformWording::native());
    }

    void everyControlIsNamedAndPagesAreOneKeyAway()
    {
        UiRig rig;
        rig.model->addDemo();
        ui::MainWindow* window = rig.mainWindow.get();
        window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(window));
        const QStringList pages = {u"Accueil"_s, u"Agent"_s, u"Conversations"_s, u"Connexions"_s,
                                   u"Guide"_s};
        window->navigation()->setFocus();
        for (int i = pages.size() - 1; i >= 0; --i) {
            QTest::keyClick(QApplication::focusWidget(), Qt::Key(Qt::Key_1 + i),
                            Qt::ControlModifier);
            QCOMPARE(rig.model->page(), pages[i]);
            QCOMPARE(window->currentPage(), pages[i]);
        }
        QList<QWidget*> tops{window, window->openSetupAssistant(), window->openVoiceWindow(),
                             window->openTestWindow(),
                             window->openRecording(rig.model->selectedRecord())};
        ui::AssignmentDialog sheet(rig.model->records().first(), {u"SCI Lilas"_s});
        tops << &sheet;
        for (QWidget* top : tops)
            QVERIFY2(
                unnamedControls(top).isEmpty(),
                qPrintable(top->windowTitle() + u" : "_s + unnamedControls(top).join(u", "_s)));
        for (QWidget* top : tops.mid(1))
            top->close();
        QVERIFY(window->standbySwitch()->focusPolicy() & Qt::TabFocus);
    }

    // Every quoted text of the screens, shown on the window where the owner reads it (the home
    // page's call card and budget explanation are read hidden: they show during a call).
    void quotedTextsAreOnTheirWindows()
    {
        UiRig rig({}, /*withKey=*/false);
        rig.model->addDemo();
        ui::MainWindow* window = rig.mainWindow.get();
        const QStringList pages = pageTexts(window, true);
        ui::SetupAssistant* assistant = window->openSetupAssistant();
        QStringList setup;
        for (int i = 0; i < assistant->stepList()->count(); ++i) {
            assistant->showStep(i);
            setup << textsOf(assistant);
        }
        assistant->close();
        const QStringList test = textsOf(window->openTestWindow());
        const QStringList voice = textsOf(window->openVoiceWindow());
        ui::AssignmentDialog sheet(rig.model->records().first(), {});
        const QStringList assignment = textsOf(&sheet, false);

        const QList<std::pair<const QStringList*, QStringList>> expected = {
            {&pages,
             {u"Le standard ne peut pas encore répondre"_s,
              u"• Enregistrer la clé IA"_s,
              u"Intervenir au micro"_s,
              u"Comment le budget est estimé"_s,
              u"Estimation indicative et volontairement majorée, destinée à vous "
              u"donner un ordre de grandeur. Le montant affiché peut différer de la "
              u"facturation réelle de votre fournisseur d’IA."_s,
              u"Consulter la consommation OpenAI"_s,
              u"Utiliser cet exemple"_s,
              u"Accueille les locataires et prends un message précis pour le gestionnaire."_s,
              u"Rechercher un numéro, un nom, un dossier ou une phrase"_s,
              u"Tous les dossiers"_s,
              u"Appels non classés"_s,
              u"Tous les états"_s,
              u"1 appel(s). Cliquez sur une colonne pour trier, puis sur un appel "
              u"pour l’ouvrir."_s,
              u"Collez votre clé une fois. Elle restera sur ce Mac, sans trousseau."_s,
              u"Stockage local privé, sans chiffrement supplémentaire. L’utilisation "
              u"de l’API est facturée par OpenAI."_s,
              u"Enregistrer les réglages"_s,
              u"Configurer et tester le son"_s,
              u"Préparer la liaison"_s,
              u"Remettre Téléphone sur le son système"_s,
              u"Brelian — Appel vers IA"_s,
              u"Brelian — IA vers appel"_s}},
            {&setup,
             {u"Installer le son"_s, u"Autoriser le Mac"_s, u"Connecter l’IA"_s,
              u"Audio du téléphone"_s, u"Configurer et tester le son"_s,
              u"Tester le microphone du Mac"_s, u"Vérifier la connexion IA"_s,
              u"Préparer la liaison"_s}},
            {&test,
             {u"Parler à Vemira sur ce Mac"_s, u"Tester avec un appel sortant"_s,
              u"2. Brancher l’IA sur l’appel"_s}},
            {&voice, {u"Douce et bienveillante"_s}},
            {&assignment,
             {u"Ex. SCI Lilas · logement 4 · fuite"_s,
              u"Un nom vide retire l’appel du dossier sans le supprimer."_s, u"Enregistrer"_s}},
        };
        for (const auto& [seen, texts] : expected) {
            const QStringList lines = seen->join(u'\n').split(u'\n');
            for (const QString& text : texts)
                QVERIFY2(lines.contains(text), qPrintable(text));
        }
        QVERIFY(setup.join(u'\n').contains(u"Brelian Audio"_s));
        // The system's own messages shown in those windows.
        QCOMPARE(AudioSystem::readFailure(-50).message(),
                 u"Impossible de lire le réglage audio du Mac (-50)."_s);
        QCOMPARE(MacAudioRoute::builtInMissingMessage(),
                 u"Le micro et les haut-parleurs intégrés du Mac sont nécessaires pour ce test."_s);
        QCOMPARE(
            AudioRouteProbe::moduleMissingMessage(),
            u"Le module audio Vemira n’est pas chargé. Installez-le puis redémarrez le Mac."_s);
    }

    void standbySwitchArmsOnlyWhenReadyAndTheStatusIconFollows()
    {
        {
            UiRig rig({}, /*withKey=*/false);
            rig.prepareForCalls();
            ui::StatusIcon icon(rig.model.get());
            ui::DashboardPage* dashboard = rig.mainWindow->dashboardPage();
            QVERIFY(dashboard->readinessCard()->isVisibleTo(dashboard));
            QTest::keyClick(rig.mainWindow->standbySwitch(), Qt::Key_Space);
            QVERIFY(!rig.model->armed());
            QVERIFY(!rig.mainWindow->standbySwitch()->isChecked());
            QCOMPARE(dashboard->errorLabel()->text(),
                     u"Aucune clé n’est enregistrée. Saisissez votre clé existante dans "
                     u"Connexions."_s);
            QVERIFY(dashboard->errorLabel()->isVisibleTo(dashboard));
            QCOMPARE(icon.state(), ui::StandbyState::Paused);
        }
        UiRig rig;
        rig.prepareForCalls();
        ui::StatusIcon icon(rig.model.get());
        QTest::keyClick(rig.mainWindow->standbySwitch(), Qt::Key_Space);
        QTRY_VERIFY(rig.model->armed());
        QVERIFY(rig.mainWindow->standbySwitch()->isChecked());
        QCOMPARE(rig.mainWindow->dashboardPage()->statusLabel()->text(),
                 u"À l’écoute des appels"_s);
        QCOMPARE(icon.state(), ui::StandbyState::Listening);
        QVERIFY(icon.standbyAction()->isChecked());
        const QString listening = rig.mainWindow->stateBadge()->text();
        // No tray here: closing the window while armed asks first, and "Oui" keeps answering.
        bool asked = false;
        QTimer::singleShot(0, [&asked] {
            if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
                asked = true;
                box->button(QMessageBox::Yes)->click();
            }
        });
        QVERIFY(!rig.mainWindow->close());
        QVERIFY(asked);
        QVERIFY(!rig.mainWindow->isVisible());
        QVERIFY(rig.model->armed());
        // Pausing from the status icon's menu moves the window's switch too.
        icon.standbyAction()->trigger();
        QVERIFY(!rig.model->armed());
        QVERIFY(!rig.mainWindow->standbySwitch()->isChecked());
        QCOMPARE(icon.state(), ui::StandbyState::Paused);
        QVERIFY(rig.mainWindow->stateBadge()->text() != listening);
    }

    // A call taken while the owner types a note: the call shows on the home page, the note
    // stays on its record, unsaved, and the end of the call is a notice that opens it.
    void aNoteBeingTypedSurvivesACall()
    {
        UiRig rig;
        rig.prepareForCalls();
        rig.model->addDemo();
        ui::StatusIcon icon(rig.model.get());
        ui::DossiersPage* page = rig.mainWindow->dossiersPage();
        ui::DashboardPage* dashboard = rig.mainWindow->dashboardPage();
        const QUuid demo = rig.model->selectedRecord();
        page->noteEditor()->clear();
        QTest::keyClicks(page->noteEditor(), u"Rappeler Mme Modele mardi"_s);
        QVERIFY(page->saveNoteButton()->isEnabled());

        QVERIFY(rig.arm());
        QVERIFY(rig.takeCall());
        rig.showActiveCall();
        rig.tick();
        QVERIFY(dashboard->callCard()->isVisibleTo(dashboard));
        QCOMPARE(icon.state(), ui::StandbyState::InCall);
        QVERIFY(rig.callerSays(u"J’ai une fuite."_s));
        QTRY_COMPARE(dashboard->transcriptView()->toPlainText(),
                     u"Interlocuteur : J’ai une fuite."_s);
        const QString before = dashboard->elapsedLabel()->text();
        rig.tick(2);
        QTRY_VERIFY(dashboard->elapsedLabel()->text() != before);
        QCOMPARE(dashboard->usagePanel()->usageLabel(), rig.model->conversationUsage().label());
        dashboard->usagePanel()->explanationButton()->click();
        QVERIFY(dashboard->usagePanel()->explanationVisible());

        // Taking over with the headset, then giving the call back.
        dashboard->interventionButton()->click();
        QVERIFY(rig.model->intervening());
        QCOMPARE(dashboard->interventionLabel()->text(),
                 u"Votre micro est ouvert vers l’appelant · IA silencieuse"_s);
        QCOMPARE(dashboard->interventionButton()->text(), u"Rendre la parole à l’IA"_s);
        dashboard->interventionButton()->click();
        QVERIFY(!rig.model->intervening());
        QCOMPARE(dashboard->interventionLabel()->text(),
                 u"Votre micro est fermé · l’IA répond seule"_s);

        rig.server.behaviour().messageArguments = u"{}"_s;
        rig.phoneIdle();
        rig.tick(5);
        QTRY_VERIFY(!rig.model->busy());
        QVERIFY(!dashboard->callCard()->isVisibleTo(dashboard));
        QCOMPARE(rig.model->records().size(), 2);

        // Same record though a row came above it and the table is sorted again, same unsaved
        // text, nothing written yet.
        QHeaderView* header = page->table()->horizontalHeader();
        for (int click = 0; click < 2; ++click)
            QTest::mouseClick(
                header->viewport(), Qt::LeftButton, {},
                QPoint(header->sectionViewportPosition(ui::RecordTableModel::Caller) + 5,
                       header->height() / 2));
        QCOMPARE(page->table()->model()->index(0, 0).data(ui::RecordTableModel::IdRole).toUuid(),
                 demo);
        QCOMPARE(page->table()->selectionModel()->currentIndex().row(), 0);
        QCOMPARE(rig.model->selectedRecord(), demo);
        QCOMPARE(page->noteEditor()->toPlainText(), u"Rappeler Mme Modele mardi"_s);
        QVERIFY(onDisk(rig, demo)->note != page->noteEditor()->toPlainText());
        page->saveNoteButton()->click();
        QCOMPARE(onDisk(rig, demo)->note, u"Rappeler Mme Modele mardi"_s);
        QVERIFY(!page->saveNoteButton()->isEnabled());

        // Moving to another call without pressing the button keeps the edit too, on the
        // record it was typed for, and an emptied note stays an empty note.
        QTest::keyClicks(page->noteEditor(), u" a 10 h"_s);
        clickRow(page, 1);
        QVERIFY(rig.model->selectedRecord() != demo);
        QCOMPARE(onDisk(rig, demo)->note, u"Rappeler Mme Modele mardi a 10 h"_s);
        page->noteEditor()->selectAll();
        QTest::keyClick(page->noteEditor(), Qt::Key_Delete);
        rig.mainWindow->showPage(u"Accueil"_s); // leaving the page saves
        QCOMPARE(onDisk(rig, rig.model->records()[0].id)->note, QString());

        // The notice of the call opens it.
        QVERIFY(icon.lastNotice().has_value());
        rig.mainWindow->showRecord(icon.lastNotice()->record);
        QCOMPARE(rig.mainWindow->currentPage(), u"Conversations"_s);
        QVERIFY(page->documentView()->toPlainText().contains(u"Interlocuteur : J’ai une fuite."_s));
    }

    // One action per control that only forwards to the model: the model gets it.
    void controlsReachTheModel()
    {
        UiRig rig;
        rig.model->addDemo();
        ui::MainWindow* window = rig.mainWindow.get();

        ui::AgentPage* agent = window->agentPage();
        agent->templatePicker()->setCurrentText(u"Commercial"_s);
        agent->useExampleButton()->click();
        agent->tonePicker()->setCurrentText(u"Calme et rassurant"_s);
        agent->saveButton()->click();
        QVERIFY(rig.model->customInstructions().startsWith(
            u"Ton : Calme et rassurant.\nComprends le besoin du prospect"_s));
        ui::AnsweringRulesCard* rules = agent->rulesCard();
        rules->ringOpenBox()->setValue(20);
        rules->hoursField()->setText(u"lun-sam 18:00-09:00"_s);
        QVERIFY(!rules->save());
        QVERIFY(!rules->stateLabel()->text().isEmpty());
        QCOMPARE(rules->hoursField()->text(), u"lun-sam 18:00-09:00"_s);
        rules->hoursField()->setText(u"lun-sam 09:00-18:00"_s);
        rules->saveButton()->click();
        QCOMPARE(Settings(rig.settingsFile()).answeringRules().ringOpen, 20);

        ui::VoiceWindow* voice = window->openVoiceWindow();
        voice->gentleButton()->click();
        QCOMPARE(voice->styleEditor()->toPlainText(), defaultVoiceStyle());
        voice->styleEditor()->setPlainText(u"  Parle lentement.  \n"_s);
        voice->applyStyleButton()->click();
        QCOMPARE(rig.model->voiceStyle(), u"Parle lentement."_s);
        QVERIFY(!voice->band(1)->isEnabled());
        voice->equalizerSwitch()->setChecked(true);
        voice->band(1)->setValue(60);
        QCOMPARE(rig.model->voiceEQ().safeGains()[1], 6.0f);
        voice->close();

        // Conversations: the search field, the dossier sheet, the status, the message editor,
        // the pending calls, the transcript's buttons.
        ui::DossiersPage* page = window->dossiersPage();
        const QUuid demo = rig.model->selectedRecord();
        QTest::keyClicks(page->searchField(), u"inondation"_s);
        QCOMPARE(page->table()->model()->rowCount(), 0);
        QVERIFY(!page->documentView()->isVisibleTo(page));
        page->searchField()->clear();
        QVERIFY(page->documentView()->isVisibleTo(page));
        for (const QString& choice : {u"Enregistrer"_s, u"Annuler"_s}) {
            QTimer::singleShot(0, [choice] {
                auto* sheet =
                    qobject_cast<ui::AssignmentDialog*>(QApplication::activeModalWidget());
                QVERIFY(sheet);
                sheet->nameField()->setText(choice);
                button(sheet, choice, false)->click();
            });
            page->assignButton()->click();
        }
        QCOMPARE(onDisk(rig, demo)->dossier, std::optional(u"Enregistrer"_s));
        page->recordStatusPicker()->setCurrentText(u"Terminé"_s);
        QCOMPARE(onDisk(rig, demo)->followUpStatus, std::optional(u"Terminé"_s));
        rig.model->updateMessage(demo, CallMessage{u"Jean Dupuis"_s,
                                                   {},
                                                   u"Fuite"_s,
                                                   {},
                                                   u"Urgent"_s,
                                                   {},
                                                   u"Fuite chez Jean Dupuis."_s});
        ui::MessageEditor* editor = page->messageEditor();
        QTest::keyClicks(editor->field(u"address"_s), u"8 av. Foch"_s);
        QTest::keyClicks(editor->field(u"callback"_s), u"demain"_s);
        editor->saveButton()->click();
        QVERIFY(!editor->problemLabel()->text().isEmpty()); // not a number: nothing lost
        QCOMPARE(editor->field(u"address"_s)->text(), u"8 av. Foch"_s);
        QVERIFY(onDisk(rig, demo)->message->address.isEmpty());
        editor->field(u"callback"_s)->setText(u"06 12 34 56 78"_s);
        editor->saveButton()->click();
        QCOMPARE(onDisk(rig, demo)->message->address, u"8 av. Foch"_s);
        QTest::keyClicks(page->searchField(), u"AV. FOCH"_s); // found by its message
        QCOMPARE(page->table()->model()->rowCount(), 1);
        page->searchField()->clear();
        page->copyButton()->click();
        QCOMPARE(rig.desktop->clipboard, page->documentView()->toPlainText());
        rig.desktop->saveTo = rig.dir.filePath(u"export.txt"_s);
        page->exportButton()->click();
        QVERIFY(QFile::exists(*rig.desktop->saveTo));
        page->revealButton()->click();
        QTRY_COMPARE(rig.desktop->revealed.size(), 1);
        QVERIFY(!page->listenButton()->isEnabled()); // no recording
        window->showPage(u"Accueil"_s);
        page->recordStatusPicker()->setCurrentText(u"À traiter"_s);
        rig.model->setSelectedRecord(QUuid());
        QListWidget* pending = window->dashboardPage()->pendingCalls()->list();
        QCOMPARE(pending->count(), 1);
        QTest::mouseClick(pending->viewport(), Qt::LeftButton, {},
                          pending->visualItemRect(pending->item(0)).center());
        QCOMPARE(window->currentPage(), u"Conversations"_s);
        QCOMPARE(rig.model->selectedRecord(), demo);

        // Connexions: the key field, the devices, the recording switch.
        ui::ConnectionsPage* connections = window->connectionsPage();
        QCOMPARE(connections->keyField()->echoMode(), QLineEdit::Password);
        QTest::keyClicks(connections->keyField(), u"  sk-proj-123  "_s);
        QTest::keyClick(connections->keyField(), Qt::Key_Return);
        QVERIFY(connections->keyField()->text().isEmpty());
        QCOMPARE(LocalKeyStore(DataFolder(rig.dir.path()).credentialsFolder()).read().value(),
                 std::optional(u"sk-proj-123"_s));
        connections->verifyButton()->click();
        QTRY_VERIFY(rig.model->aiVerified());
        QComboBox* models = connections->modelPicker();
        const int mini = models->findData(u"gpt-realtime-2.1-mini"_s, Qt::EditRole);
        QVERIFY(mini > 0);
        models->setCurrentIndex(mini);
        Q_EMIT models->activated(mini);
        QCOMPARE(rig.model->model(), u"gpt-realtime-2.1-mini"_s);
        models->lineEdit()->setText(u"gpt-realtime-9"_s);
        Q_EMIT models->lineEdit()->editingFinished();
        QCOMPARE(rig.model->model(), u"gpt-realtime-9"_s);
        QVERIFY(!connections->phoneAppPicker()->isVisibleTo(connections)); // Linux only
        connections->inputPicker()->setCurrentText(u"Brelian — Appel vers IA"_s);
        QCOMPARE(rig.model->inputUID(), BrelianDevices::callUID());
        QCOMPARE(connections->outputPicker()->findText(u"Micro intégré"_s), -1);
        connections->interventionMicPicker()->setCurrentText(u"Micro du casque"_s);
        QCOMPARE(Settings(rig.settingsFile()).interventionMicUID(),
                 std::optional(u"headset-mic"_s));
        rig.model->setInterventionMicUID(u"usb-mic-gone"_s);
        QVERIFY(connections->interventionMicPicker()->currentText().contains(
            u"usb-mic-gone"_s)); // an unplugged choice stays visible
        QTest::keyClick(connections->recordingSwitch(), Qt::Key_Space);
        QCOMPARE(Settings(rig.settingsFile()).recordingEnabled(), false);
        connections->deleteKeyButton()->click();
        QVERIFY(!rig.model->keyPresent());
        QVERIFY(!connections->deleteKeyButton()->isEnabled());
        rig.model->saveKey(u"sk-test"_s);

        // The test window: a number that cannot be dialled is refused before the system.
        ui::TestWindow* test = window->openTestWindow();
        test->numberField()->setText(u"0612 345"_s);
        test->dialButton()->click();
        QCOMPARE(test->outgoingStatusLabel()->text(),
                 u"Saisissez un numéro complet, avec l’indicatif si nécessaire."_s);
        rig.prepareForCalls();
        rig.showActiveCall();
        test->connectButton()->click();
        QVERIFY(rig.model->busy());
        QVERIFY(!test->dialButton()->isEnabled() && !test->talkButton()->isEnabled());
        rig.model->finish();
        QVERIFY(test->dialButton()->isEnabled());
        QVERIFY(rig.arm());
        QVERIFY(!test->talkButton()->isEnabled()); // no test while on standby
    }

    // The recording window reads the file the recorder wrote (other tools add chunks before
    // the samples) and exports it as it is.
    void recordingWindowReadsAndExportsTheFile()
    {
        QTemporaryDir elsewhere;
        QUuid withAudio;
        QUuid missing;
        QString wave;
        UiRig rig([&](RecordsStore& store) {
            CallRecord gone =
                seededRecord(u"Bernard"_s, 2, std::nullopt, std::nullopt, u"Bonjour"_s);
            gone.recordingFile = u"Appel-"_s + uuidText(gone.id) + u".wav"_s;
            missing = gone.id;
            store.insertFront(gone);
            CallRecord kept = seededRecord(u"Amélie"_s, 1, std::nullopt, std::nullopt, u"Allô"_s);
            kept.recordingFile = u"Appel-"_s + uuidText(kept.id) + u".wav"_s;
            withAudio = kept.id;
            store.insertFront(kept);
            QVERIFY(!store.saveHistory());
            QDir().mkpath(store.folder().recordingsFolder());
            // 75.5 s of 24 kHz float mono, with a LIST chunk before the samples.
            const auto le32 = [](quint32 v) {
                QByteArray bytes(4, '\0');
                qToLittleEndian(v, bytes.data());
                return bytes;
            };
            const QByteArray fmt = QByteArray::fromHex("03000100") + le32(24000) + le32(96000) +
                                   QByteArray::fromHex("04002000");
            const QByteArray list = QByteArrayLiteral("INFOISFT") + le32(6) + "Vemira";
            const int samples = 24000 * 75 + 12000;
            const QByteArray body = "WAVEfmt " + le32(16) + fmt + "LIST" + le32(list.size()) +
                                    list + "data" + le32(samples * 4) +
                                    QByteArray(samples * 4, '\0');
            wave = QDir(store.folder().recordingsFolder()).filePath(*kept.recordingFile);
            QFile file(wave);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write("RIFF" + le32(body.size()) + body);
        });
        rig.mainWindow->showPage(u"Conversations"_s);
        rig.model->setSelectedRecord(withAudio);
        rig.mainWindow->dossiersPage()->listenButton()->click();
        auto* window = rig.mainWindow->findChild<ui::RecordingWindow*>();
        QVERIFY(window != nullptr && window->isVisible());
        QVERIFY(window->summaryLabel()->text().contains(u"1 min 16 s"_s));
        QVERIFY(window->playButton()->isEnabled());
        rig.desktop->saveTo = elsewhere.filePath(u"copie.wav"_s);
        window->exportButton()->click();
        QFile original(wave);
        QFile copy(*rig.desktop->saveTo);
        QVERIFY(original.open(QIODevice::ReadOnly) && copy.open(QIODevice::ReadOnly));
        QCOMPARE(copy.readAll(), original.readAll());
        QCOMPARE(ui::RecordingWindow::wavSeconds(rig.settingsFile()), -1.0);
        // A record whose file has gone offers nothing to play.
        window->setRecord(missing);
        QCOMPARE(window->summaryLabel()->text(), u"L’enregistrement audio est introuvable."_s);
        QVERIFY(!window->playButton()->isEnabled());
        QVERIFY(!window->exportButton()->isEnabled());
    }

    // The switch on the Connexions page and the one on the guided setup's last step write and
    // remove the same autostart entry, and each shows what the other did.
    void startAtLoginSwitchesShareTheEntry()
    {
#if defined(Q_OS_LINUX)
        QTemporaryDir config;
        qputenv("XDG_CONFIG_HOME", config.path().toUtf8());
        const auto restore = qScopeGuard([] { qunsetenv("XDG_CONFIG_HOME"); });
        UiRig rig;
        Settings settings(config.filePath(u"prefs.ini"_s));
        settings.setRearmAtLogin(false); // asked once already: no question box here
        ui::LoginStart start(*rig.model, std::move(settings), createPlatformLoginItem());
        rig.mainWindow->setLoginStart(&start);
        const auto toggleIn = [](QWidget* top) {
            for (ui::ToggleSwitch* toggle : top->findChildren<ui::ToggleSwitch*>()) {
                if (toggle->accessibleName() == u"Lancer Vemira à l’ouverture de session")
                    return toggle;
            }
            return static_cast<ui::ToggleSwitch*>(nullptr);
        };
        ui::ToggleSwitch* onPage = toggleIn(rig.mainWindow->connectionsPage());
        QVERIFY(onPage && !onPage->isChecked());
        onPage->click();
        const QString entry = config.filePath(u"autostart/fr.brelian.Vemira.desktop"_s);
        QVERIFY(QFile::exists(entry));
        ui::ToggleSwitch* inSetup = toggleIn(rig.mainWindow->openSetupAssistant());
        QVERIFY(inSetup && inSetup->isChecked());
        inSetup->click();
        QVERIFY(!QFile::exists(entry));
        QVERIFY(!onPage->isChecked());
#else
        QSKIP("The autostart entry is a Linux file; macOS asks the system.");
#endif
    }

    void guidedSetupRunsTheProbesAndCountsTheSteps()
    {
        Status routeOutcome = AppError(u"le signal ne passe pas"_s);
        bool heard = false;
        int routeRuns = 0;
        ui::SetupProbes probes;
        probes.route = [&](const QList<SoundDevice>&, const std::function<void(Status)>& done) {
            ++routeRuns;
            done(routeOutcome);
        };
        probes.microphone = [&](quint32, const std::function<void(double)>& level,
                                const std::function<void(Result<bool>)>& done) {
            level(heard ? 0.4 : 0.001);
            done(heard);
        };
        UiRig rig({}, true, probes);
        ui::SetupAssistant* assistant = rig.mainWindow->openSetupAssistant();
        // Driver present, permissions given: the first open step is the AI (the key is stored,
        // not yet verified).
        QCOMPARE(assistant->stepList()->count(), 4);
        QCOMPARE(assistant->stepList()->item(0)->text(), u"✓  Installer le son"_s);
        QCOMPARE(assistant->firstOpenStep(), 2);
        QCOMPARE(assistant->currentStep(), 2);
        QCOMPARE(assistant->progress()->value(), rig.model->setupPercent());

        button(assistant, u"Configurer et tester le son"_s, false)->click();
        QCOMPARE(routeRuns, 1);
        QVERIFY(!rig.model->routingConfirmed());
        QVERIFY(hasLabel(assistant, routeOutcome->message()));
        routeOutcome = std::nullopt;
        button(assistant, u"Configurer et tester le son"_s, false)->click();
        QVERIFY(rig.model->routingConfirmed());
        QCOMPARE(rig.model->inputUID(), BrelianDevices::callUID());
        QCOMPARE(rig.model->outputUID(), BrelianDevices::voiceUID());
        QVERIFY(hasLabel(assistant,
                         u"Son configuré · les deux circuits transmettent le signal de test"_s));

        button(assistant, u"Tester le microphone du Mac"_s, false)->click();
        QVERIFY(hasLabel(assistant,
                         u"Aucun son détecté : parlez plus près et vérifiez le microphone"_s));
        QVERIFY(!rig.model->macAudioVerified());
        heard = true;
        button(assistant, u"Tester le microphone du Mac"_s, false)->click();
        QVERIFY(hasLabel(assistant, u"Le microphone capte du son"_s));
        QVERIFY(rig.model->macAudioVerified());

        button(assistant, u"Vérifier la connexion IA"_s, false)->click();
        QTRY_VERIFY(rig.model->aiVerified());
        QCOMPARE(assistant->stepList()->item(2)->text(), u"✓  Connecter l’IA"_s);
        QCOMPARE(assistant->progress()->value(), 75);

        // The last step: a call seen in the phone application, then a real call taken.
        button(assistant, u"Attendre un appel"_s, false)->click();
        QVERIFY(rig.model->observingRelay());
        rig.ring(u"06 11 22 33 44"_s);
        rig.tick();
        QVERIFY(!rig.model->observingRelay());
        rig.phoneIdle();
        QCOMPARE(assistant->progress()->value(), 75);
        QVERIFY(rig.arm());
        // A call in which the caller was never heard proves nothing.
        for (const bool heard : {false, true}) {
            QVERIFY(rig.takeCall());
            rig.showActiveCall();
            rig.tick();
            QVERIFY(!heard || rig.callerSays(u"Allô ?"_s));
            rig.server.behaviour().messageArguments = u"{}"_s;
            rig.phoneIdle();
            rig.tick(6);
            QTRY_VERIFY(!rig.model->busy());
            rig.tick(); // the setup looks at the saved call on its next round
            QCOMPARE(assistant->progress()->value(), heard ? 100 : 75);
            rig.tick(8); // the pause after a call
        }
        QCOMPARE(rig.model->records().size(), 2);
        QCOMPARE(rig.model->validatedCallID(), rig.model->records().first().id);
        QCOMPARE(assistant->stepList()->item(3)->text(), u"✓  Audio du téléphone"_s);
        QVERIFY(
            !rig.mainWindow->dashboardPage()->readinessCard()->isVisibleTo(rig.mainWindow.get()));
    }

    // The Linux setup's audio steps, clicked in the real assistant against a real PulseAudio
    // daemon: the two virtual devices removed and made again, their start-up file written only
    // when the user ticks the box, and "Audio du téléphone" moving a softphone's open stream
    // onto the call device and straight back, leaving other audio alone.
    void linuxSoundStepsOnARealSoundServer()
    {
#if defined(Q_OS_LINUX)
        PlatformWording::select(WordingPlatform::Linux);
        const QString failure = m_daemon.start();
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        const auto stopDaemon = qScopeGuard([this] { m_daemon.stop(); });
        const QStringList madeSinks{BrelianDevices::callUID() + u" s16le 2ch 48000Hz"_s,
                                    BrelianDevices::voiceUID() + u" s16le 2ch 48000Hz"_s};
        QTemporaryDir config;
        ui::SetupProbes probes;
        probes.virtualDevices = std::make_shared<pulse::PulseVirtualDevices>(config.path());
        probes.phoneRouting = std::make_shared<pulse::PulseStreamRouter>();
        UiRig rig({}, true, std::move(probes),
                  [](AppDependencies& deps) { deps.audioSystem = createPlatformAudioSystem(); });
        AppModel& model = *rig.model;
        ui::SetupAssistant* assistant = rig.mainWindow->openSetupAssistant();
        assistant->showStep(0);
        QPushButton* create = button(assistant, u"C&réer les périphériques audio"_s);
        QPushButton* remove = button(assistant, u"Supprimer les périphériques audio"_s);
        QVERIFY(create && remove);

        QLabel* state = nullptr;
        for (QLabel* label : assistant->findChildren<QLabel*>()) {
            if (label->accessibleName() == u"Module audio"_s)
                state = label;
        }
        QVERIFY(state);
        const QString present = state->text();

        // Removed: the step and the readiness list say so, and the proof of the sound is void.
        model.setRoutingConfirmed(true);
        remove->click();
        QVERIFY(state->text() != present);
        QCOMPARE(brelianSinks(), QStringList());
        QVERIFY(!model.routingConfirmed());
        QVERIFY(model.readinessIssues().contains(u"Créer les périphériques audio"_s));
        create->click();
        QCOMPARE(brelianSinks(), madeSinks);
        QVERIFY(!model.readinessIssues().contains(u"Créer les périphériques audio"_s));
        QCOMPARE(state->text(), present);

        // A device of ours left at another rate would make the softphone send silence: the
        // check says so although a device of that name is there, and creating makes it again.
        QVERIFY(!pulse::PulseVirtualDevices(config.path()).remove());
        QVERIFY(m_daemon.loadNullSink(BrelianDevices::callUID(), u"Ancien"_s, 44100, 2) >= 0);
        QVERIFY(m_daemon.loadNullSink(BrelianDevices::voiceUID(), u"Ancien"_s, 48000, 2) >= 0);
        button(assistant, u"&Vérifier à nouveau"_s)->click();
        QVERIFY2(model.configurationStatus().contains(u"48 kHz"_s),
                 qPrintable(model.configurationStatus()));
        create->click();
        QCOMPARE(brelianSinks(), madeSinks);

        // Nothing was written in the user's configuration until the box is ticked.
        QVERIFY(QDir(config.path()).isEmpty());
        auto* keep = assistant->findChild<QCheckBox*>();
        QVERIFY(keep && !keep->isChecked());
        keep->click();
        const QString dropIn = pulse::PulseVirtualDevices(config.path()).pulseDropIn();
        QVERIFY(QFile::exists(dropIn));
        keep->click();
        QVERIFY(!QFile::exists(dropIn));

        assistant->showStep(3);
        QVERIFY(!button(assistant, u"Préparer la liaison"_s));
        QPushButton* check = button(assistant, u"Vérifier le &son du logiciel de téléphonie"_s);
        QVERIFY(check);
        {
            // Twinkle's call stream is moved and put back; the user's music never moves.
            ClientStream phone(false, u"twinkle"_s, u"phone"_s);
            ClientStream music(false, u"Lecteur"_s, u"music"_s);
            QTRY_COMPARE_WITH_TIMEOUT(m_daemon.placeOf(phone), u"vemira.desk"_s, 5000);
            QTRY_COMPARE_WITH_TIMEOUT(m_daemon.placeOf(music), u"vemira.desk"_s, 5000);
            check->click();
            QVERIFY2(model.nativeAudioStatus().contains(u" 1 flux "_s),
                     qPrintable(model.nativeAudioStatus()));
            QCOMPARE(m_daemon.placeOf(phone), u"vemira.desk"_s);
            QCOMPARE(m_daemon.placeOf(music), u"vemira.desk"_s);
        }
        // Without the devices there is nothing to route to: the user is sent to the first step.
        rig.setup->removeDevices();
        check->click();
        QCOMPARE(model.nativeAudioStatus(), PlatformWording::current().devicesMissing);
#else
        QSKIP("A PulseAudio sound server is a Linux one.");
#endif
    }

    // A Linux user never reads of the Mac, the iPhone or macOS on any page, window or setup
    // step, and never sees a button that only drives the macOS Phone application.
    void linuxScreensNeverSpeakOfTheMac()
    {
        PlatformWording::select(WordingPlatform::Linux);
        const PlatformWording& wording = PlatformWording::current();
        QVERIFY2(appleWords(wording.allTexts()).isEmpty(),
                 qPrintable(appleWords(wording.allTexts()).join(u" | "_s)));

        UiRig rig;
        rig.model->addDemo();
        ui::MainWindow* window = rig.mainWindow.get();
        QStringList seen = pageTexts(window, false);
        // The Connections page keeps the softphone's audio state and offers the softphone to
        // watch, without the Phone menu's buttons.
        window->showPage(u"Connexions"_s);
        ui::ConnectionsPage* connections = window->connectionsPage();
        QVERIFY(connections->phoneAppPicker()->isVisible());
        connections->phoneAppPicker()->setCurrentText(u"GNOME Calls"_s);
        QCOMPARE(Settings(rig.settingsFile()).phoneApp(), u"gnome-calls"_s);
        rig.model->setPhoneApp(u"baresip-gtk"_s); // a name typed elsewhere shows
        QCOMPARE(connections->phoneAppPicker()->currentText(), u"baresip-gtk"_s);
        QVERIFY(buttons(window, u"Préparer la liaison"_s).isEmpty());
        QVERIFY(buttons(window, u"Remettre Téléphone sur le son système"_s).isEmpty());

        // Each step of the guided setup, with a relayed call waited for in vain.
        ui::SetupAssistant* assistant = window->openSetupAssistant();
        QVERIFY(QTest::qWaitForWindowExposed(assistant));
        rig.setup->observeTestCall();
        rig.clock.advance(ui::GuidedSetup::kRelayWaitSeconds + 1);
        rig.setup->observeRelay();
        for (int i = 0; i < assistant->stepList()->count(); ++i) {
            assistant->showStep(i);
            seen << textsOf(assistant);
            QVERIFY(buttons(assistant, u"Préparer la liaison"_s).isEmpty());
            QVERIFY(buttons(assistant, u"Ouvrir les réglages du &micro"_s).isEmpty());
        }
        QVERIFY(assistant->stepList()
                    ->item(assistant->stepList()->count() - 1)
                    ->text()
                    .endsWith(u"Audio du téléphone"_s));
        QVERIFY(seen.contains(wording.relayTimeout));
        assistant->close();
        for (QWidget* other :
             {static_cast<QWidget*>(window->openTestWindow()),
              static_cast<QWidget*>(window->openVoiceWindow()),
              static_cast<QWidget*>(window->openRecording(rig.model->selectedRecord()))}) {
            seen << textsOf(other);
            other->close();
        }

        // The question before a record is deleted.
        window->showPage(u"Conversations"_s);
        QString question;
        window->dossiersPage()->confirmDeletionForTests = [&question](QMessageBox& box) {
            question = box.text();
        };
        window->dossiersPage()->confirmDeletion();
        QVERIFY(!question.isEmpty());
        seen << question << rig.model->log();

        const QStringList found = appleWords(seen);
        QVERIFY2(found.isEmpty(), qPrintable(found.join(u" | "_s)));
    }

    // The Connexions page's e-mail card, against a real mail server on loopback.
    void mailCardSavesTestsAndTurnsOff()
    {
        const auto options = SmtpTestServer::Options::withLogin(u"gerant"_s, u"le-bon"_s);
        SmtpTestServer server(options);
        QVERIFY(server.started());
        QTemporaryDir dir;
        ManualClock clock;
        Settings settings(dir.filePath(u"prefs.ini"_s));
        const DataFolder folder(dir.filePath(u"Brelian"_s));
        AfterCallNotices notices(clock, settings, folder, nullptr);
        ui::MailSettingsCard card(notices);
        QVERIFY(!card.testButton()->isEnabled());

        // A wrong address is refused and nothing typed is lost.
        card.serverField()->setText(u"smtp.exemple.fr"_s);
        card.fromField()->setText(u"standard@exemple.fr"_s);
        card.toField()->setText(u"gerant@exemple.fr"_s);
        card.userField()->setText(options.user);
        card.passwordField()->setText(u"le-mauvais"_s);
        QTest::mouseClick(card.saveButton(), Qt::LeftButton);
        QVERIFY(card.stateLabel()->text().contains(u"« smtp.exemple.fr »"_s));
        QCOMPARE(card.passwordField()->text(), u"le-mauvais"_s);
        QVERIFY(!settings.mail());

        // The test button saves what is typed, then the server's verdict is shown as it is.
        card.serverField()->setText(server.url());
        QTest::mouseClick(card.saveButton(), Qt::LeftButton);
        QVERIFY(settings.mail());
        Settings::Mail mail = *settings.mail();
        mail.caFile = server.certificate(); // the company's own authority, set once
        settings.setMail(mail);
        card.passwordField()->setText(u"le-mauvais"_s);
        QTest::mouseClick(card.testButton(), Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(card.stateLabel()->text().contains(u"535 5.7.8"_s), 20000);
        card.passwordField()->setText(options.password);
        QTest::mouseClick(card.testButton(), Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(server.received(), 1, 20000);
        // The password is kept privately and never shown back.
        const QString passwordFile = folder.credentialsFolder() + u"/smtp.password"_s;
        QCOMPARE(QFileInfo(passwordFile).permissions() & 0x0077, QFileDevice::Permissions());
        QVERIFY(card.passwordField()->text().isEmpty());
        QCOMPARE(settings.mail()->caFile, server.certificate());

        QTest::mouseClick(card.offButton(), Qt::LeftButton);
        QVERIFY(!settings.mail());
        QVERIFY(!QFileInfo::exists(passwordFile));
        QVERIFY(!card.testButton()->isEnabled());
    }
};

QTEST_MAIN(UiTest)
#include "tst_ui.moc"
