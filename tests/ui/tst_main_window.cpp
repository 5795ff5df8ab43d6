// The main window and its secondary windows on the real model: the standby switch and the
// status icon, the live call as the owner watches it, the agent and voice settings, the
// guided setup with scripted probes, the test window, and the names a screen reader reads.

#include "UiRig.h"
#include "audio/VoiceEQSettings.h"
#include "core/PlatformWording.h"
#include "records/AgentInstructions.h"
#include "records/Settings.h"
#include "ui/AgentPage.h"
#include "ui/AnsweringRulesCard.h"
#include "ui/AssignmentDialog.h"
#include "ui/DashboardPage.h"
#include "ui/DossiersPage.h"
#include "ui/RecordingWindow.h"
#include "ui/SetupAssistant.h"
#include "ui/StatusIcon.h"
#include "ui/TestWindow.h"
#include "ui/UsagePanel.h"
#include "ui/VoiceWindow.h"
#include "ui/Widgets.h"

#include <QAccessible>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSlider>
#include <QSpinBox>
#include <QTest>
#include <QTimer>
#include <QToolButton>

using namespace vemira;
using namespace vemira::testing;

namespace {

// Controls the keyboard can reach whose accessible name is empty.
QStringList unnamedControls(QWidget* top)
{
    QStringList unnamed;
    const QList<QWidget*> widgets = top->findChildren<QWidget*>();
    for (QWidget* w : widgets) {
        if (!(w->focusPolicy() & Qt::TabFocus) || w->objectName().startsWith(QStringLiteral("qt_")))
            continue;
        // Internals of composite controls: the combo's popup, scroll areas' viewports.
        bool internal = false;
        for (QWidget* p = w->parentWidget(); p != nullptr && p != top; p = p->parentWidget())
            internal |= qobject_cast<QComboBox*>(p) != nullptr;
        if (internal)
            continue;
        QAccessibleInterface* a = QAccessible::queryAccessibleInterface(w);
        if (a == nullptr || a->text(QAccessible::Name).trimmed().isEmpty())
            unnamed << QString::fromLatin1(w->metaObject()->className()) + QStringLiteral(" ") +
                           w->objectName();
    }
    return unnamed;
}

QPushButton* buttonNamed(QWidget* top, const QString& text)
{
    for (QPushButton* b : top->findChildren<QPushButton*>()) {
        if (b->accessibleName() == text)
            return b;
    }
    return nullptr;
}

bool hasLabel(QWidget* top, const QString& text)
{
    const QList<QLabel*> labels = top->findChildren<QLabel*>();
    return std::any_of(labels.begin(), labels.end(), [&](QLabel* l) { return l->text() == text; });
}

} // namespace

class MainWindowTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // The texts quoted here are the macOS ones, word for word: selecting them on every
    // platform keeps these cases a guard against their drift.
    void initTestCase() { PlatformWording::select(WordingPlatform::MacOS); }
    void init() { QLocale::setDefault(QLocale(QLocale::French, QLocale::France)); }

    void everyControlIsNamedAndPagesAreOneKeyAway()
    {
        UiRig rig;
        rig.model->addDemo();
        ui::MainWindow* window = rig.mainWindow.get();
        // Ctrl+1 … Ctrl+5 go to the five pages, and the model knows where the user is.
        window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(window));
        const QStringList pages = {QStringLiteral("Accueil"), QStringLiteral("Agent"),
                                   QStringLiteral("Conversations"), QStringLiteral("Connexions"),
                                   QStringLiteral("Guide")};
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
        ui::AssignmentDialog sheet(rig.model->records().first(), {QStringLiteral("SCI Lilas")});
        tops << &sheet;
        for (QWidget* top : tops)
            QVERIFY2(unnamedControls(top).isEmpty(),
                     qPrintable(top->windowTitle() + QStringLiteral(" : ") +
                                unnamedControls(top).join(QStringLiteral(", "))));
        for (QWidget* top : tops.mid(1))
            top->close();

        // The standby switch works from the keyboard like any check button.
        QCOMPARE(
            QAccessible::queryAccessibleInterface(window->standbySwitch())->text(QAccessible::Name),
            QStringLiteral("Répondre aux appels"));
        QVERIFY(window->standbySwitch()->focusPolicy() & Qt::TabFocus);
    }

    void standbySwitchArmsOnlyWhenReadyAndTheStatusIconFollows()
    {
        {
            UiRig rig({}, /*withKey=*/false);
            rig.prepareForCalls();
            ui::StatusIcon icon(rig.model.get());
            ui::DashboardPage* dashboard = rig.mainWindow->dashboardPage();
            QVERIFY(dashboard->readinessCard()->isVisibleTo(dashboard));
            QCOMPARE(dashboard->readinessCard()->titleLabel()->text(),
                     QStringLiteral("Le standard ne peut pas encore répondre"));
            QVERIFY(hasLabel(dashboard, QStringLiteral("• Enregistrer la clé IA")));
            QTest::keyClick(rig.mainWindow->standbySwitch(), Qt::Key_Space);
            QVERIFY(!rig.model->armed());
            QVERIFY(!rig.mainWindow->standbySwitch()->isChecked());
            QCOMPARE(
                dashboard->errorLabel()->text(),
                QStringLiteral("Aucune clé n’est enregistrée. Saisissez votre clé existante dans "
                               "Connexions."));
            QVERIFY(dashboard->errorLabel()->isVisibleTo(dashboard));
            QCOMPARE(icon.state(), ui::StandbyState::Paused);
        }
        UiRig rig;
        rig.prepareForCalls();
        ui::StatusIcon icon(rig.model.get());
        QTest::keyClick(rig.mainWindow->standbySwitch(), Qt::Key_Space);
        QVERIFY(waitFor([&] { return rig.model->armed(); }));
        QVERIFY(rig.mainWindow->standbySwitch()->isChecked());
        QCOMPARE(rig.mainWindow->stateBadge()->text(), QStringLiteral("À l’écoute"));
        QCOMPARE(rig.mainWindow->dashboardPage()->statusLabel()->text(),
                 QStringLiteral("À l’écoute des appels"));
        QCOMPARE(icon.state(), ui::StandbyState::Listening);
        QVERIFY(icon.standbyAction()->isChecked());
        // No tray here: closing the window while armed asks first, and "Oui" keeps answering.
        rig.mainWindow->show();
        QString asked;
        QTimer::singleShot(0, [&asked] {
            if (auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget())) {
                asked = box->text();
                box->button(QMessageBox::Yes)->click();
            }
        });
        QVERIFY(!rig.mainWindow->close());
        QVERIFY2(
            asked.startsWith(QStringLiteral("Continuer à répondre aux appels en arrière-plan")),
            qPrintable(asked));
        QVERIFY(!rig.mainWindow->isVisible());
        QVERIFY(rig.model->armed());
        // Pausing from the status icon's menu moves the window's switch too.
        icon.standbyAction()->trigger();
        QVERIFY(!rig.model->armed());
        QVERIFY(!rig.mainWindow->standbySwitch()->isChecked());
        QCOMPARE(rig.mainWindow->stateBadge()->text(), QStringLiteral("En pause"));
        QCOMPARE(icon.toolTip(), QStringLiteral("Vemira · en pause"));
    }

    void liveCallIsReadableAndEndsInANotification()
    {
        UiRig rig;
        rig.prepareForCalls();
        ui::StatusIcon icon(rig.model.get());
        ui::DashboardPage* dashboard = rig.mainWindow->dashboardPage();
        QVERIFY(!dashboard->callCard()->isVisibleTo(dashboard));
        rig.model->toggleArmed();
        QVERIFY(waitFor([&] { return rig.model->armed(); }));
        rig.ring(QStringLiteral("06 11 22 33 44"));
        rig.tick(4);
        QVERIFY(waitFor([&] { return rig.model->connected(); }));
        rig.showActiveCall();
        rig.tick();
        QVERIFY(dashboard->callCard()->isVisibleTo(dashboard));
        QCOMPARE(icon.state(), ui::StandbyState::InCall);
        QCOMPARE(rig.mainWindow->stateBadge()->text(), QStringLiteral("En appel"));

        // The transcript grows line by line, with the speakers' names.
        rig.server.sendEvent(
            ScriptedRealtimeServer::callerTranscript(QStringLiteral("J’ai une fuite.")));
        rig.server.sendEvent(ScriptedRealtimeServer::responseCreated(QStringLiteral("r1")));
        rig.server.sendEvent(
            ScriptedRealtimeServer::aiTranscript(QStringLiteral("Depuis quand ?")));
        rig.server.sendEvent(ScriptedRealtimeServer::responseDone(QStringLiteral("r1"), 1200, 300));
        QVERIFY(waitFor([&] { return rig.model->conversationUsage().outputTokens == 300; }));
        QCOMPARE(dashboard->transcriptView()->toPlainText(),
                 QStringLiteral("Interlocuteur : J’ai une fuite.\nVemira : Depuis quand ?"));
        QCOMPARE(dashboard->usagePanel()->usageLabel(), rig.model->conversationUsage().label());
        QVERIFY(dashboard->usagePanel()->usageLabel().startsWith(
            QStringLiteral("1500 tokens reçus d’OpenAI")));
        QVERIFY(!dashboard->usagePanel()->explanationVisible());
        dashboard->usagePanel()->explanationButton()->click();
        QVERIFY(dashboard->usagePanel()->explanationVisible());
        QVERIFY(hasLabel(
            dashboard->usagePanel(),
            QStringLiteral("Estimation indicative et volontairement majorée, destinée à vous "
                           "donner un ordre de grandeur. Le montant affiché peut différer "
                           "de la facturation réelle de votre fournisseur d’IA.")));
        const QString before = dashboard->elapsedLabel()->text();
        rig.tick(2);
        QTest::qWait(1100);
        QVERIFY(dashboard->elapsedLabel()->text() != before);

        // Taking over with the headset, then giving the call back.
        QCOMPARE(dashboard->interventionLabel()->text(),
                 QStringLiteral("Votre micro est fermé · l’IA répond seule"));
        QCOMPARE(dashboard->interventionButton()->text(), QStringLiteral("Intervenir au micro"));
        dashboard->interventionButton()->click();
        QVERIFY(rig.model->intervening());
        QCOMPARE(dashboard->interventionLabel()->text(),
                 QStringLiteral("Votre micro est ouvert vers l’appelant · IA silencieuse"));
        QCOMPARE(dashboard->interventionButton()->text(),
                 QStringLiteral("Rendre la parole à l’IA"));
        dashboard->interventionButton()->click();
        QVERIFY(!rig.model->intervening());

        // The caller hangs up: the call is saved, the owner is told, and the notice opens it.
        rig.server.behaviour().messageArguments = QStringLiteral("{}");
        rig.window->removeChildren();
        rig.tick(5);
        QVERIFY(waitFor([&] { return !rig.model->busy(); }));
        QVERIFY(!dashboard->callCard()->isVisibleTo(dashboard));
        QVERIFY(icon.lastNotice().has_value());
        const CallRecord saved = rig.model->records().first();
        QCOMPARE(icon.lastNotice()->title, QStringLiteral("Appel pris en charge"));
        QCOMPARE(icon.lastNotice()->body,
                 saved.caller + QStringLiteral(" · référence ") + saved.reference());
        rig.mainWindow->showRecord(icon.lastNotice()->record);
        QCOMPARE(rig.mainWindow->currentPage(), QStringLiteral("Conversations"));
        QVERIFY(rig.mainWindow->dossiersPage()->documentView()->toPlainText().contains(
            QStringLiteral("Interlocuteur : J’ai une fuite.")));
    }

    void agentPageAppliesTemplatesAndSavesTheToneFirst()
    {
        UiRig rig;
        rig.mainWindow->showPage(QStringLiteral("Agent"));
        ui::AgentPage* agent = rig.mainWindow->agentPage();
        QCOMPARE(agent->missionEditor()->toPlainText(),
                 QStringLiteral(
                     "Accueille les locataires et prends un message précis pour le gestionnaire."));
        QCOMPARE(agent->useExampleButton()->text(), QStringLiteral("Utiliser cet exemple"));

        agent->missionEditor()->setPlainText(QStringLiteral("Ma consigne"));
        agent->templatePicker()->setCurrentText(QStringLiteral("Personnalisé"));
        agent->useExampleButton()->click();
        QCOMPARE(agent->missionEditor()->toPlainText(), QStringLiteral("Ma consigne"));
        agent->templatePicker()->setCurrentText(QStringLiteral("Commercial"));
        agent->useExampleButton()->click();
        const QString commercial = templateText(QStringLiteral("Commercial"));
        QVERIFY(commercial.startsWith(QStringLiteral("Comprends le besoin du prospect")));
        QCOMPARE(agent->missionEditor()->toPlainText(), commercial);

        agent->tonePicker()->setCurrentText(QStringLiteral("Calme et rassurant"));
        agent->voicePicker()->setCurrentText(QStringLiteral("coral"));
        agent->companyField()->selectAll();
        QTest::keyClicks(agent->companyField(), QStringLiteral("Cabinet Durand"));
        agent->saveButton()->click();

        const QString mission = QStringLiteral("Ton : Calme et rassurant.\n") + commercial;
        QCOMPARE(rig.model->customInstructions(), mission);
        QCOMPARE(rig.model->company(), QStringLiteral("Cabinet Durand"));
        const Settings stored(rig.settingsFile());
        QCOMPARE(stored.group().instructions, mission);
        QCOMPARE(stored.group().company, QStringLiteral("Cabinet Durand"));
        QCOMPARE(stored.group().voice, QStringLiteral("coral"));
        // The saved text is shown as it stands, tone line included.
        QCOMPARE(agent->missionEditor()->toPlainText(), mission);
        QVERIFY(rig.model->instructions().contains(mission));

        // "Quand répondre": a refusal names its field and keeps what was typed; the saved rules
        // are the preferences the command line edits, and the home page shows the one in force.
        ui::AnsweringRulesCard* rules = agent->rulesCard();
        rules->ringOpenBox()->setValue(20);
        rules->hoursField()->setText(QStringLiteral("lun-sam 18:00-09:00"));
        QVERIFY(!rules->save());
        QCOMPARE(rules->stateLabel()->text(),
                 QStringLiteral("Horaires d’ouverture : la fin "
                                "précède le début dans « 18:00-09:00 »."));
        QCOMPARE(rules->hoursField()->text(), QStringLiteral("lun-sam 18:00-09:00"));
        rules->hoursField()->setText(QStringLiteral("lun-sam 09:00-18:00"));
        rules->saveButton()->click();
        QCOMPARE(Settings(rig.settingsFile()).answeringRules().ringOpen, 20);
        QCOMPARE(rig.mainWindow->dashboardPage()->ruleLabel()->text(),
                 QStringLiteral("Ouvert : Vemira répond après 20 s"));
    }

    void voiceWindowStyleAndEqualiserApplyAtOnce()
    {
        UiRig rig;
        ui::VoiceWindow* voice = rig.mainWindow->openVoiceWindow();
        QCOMPARE(ui::VoiceWindow::bandNames(),
                 (QStringList{
                     QStringLiteral("63 Hz"), QStringLiteral("125 Hz"), QStringLiteral("250 Hz"),
                     QStringLiteral("500 Hz"), QStringLiteral("1 kHz"), QStringLiteral("2 kHz"),
                     QStringLiteral("4 kHz"), QStringLiteral("8 kHz"), QStringLiteral("10 kHz")}));
        QCOMPARE(voice->gentleButton()->text(), QStringLiteral("Douce et bienveillante"));

        voice->styleEditor()->setPlainText(QStringLiteral("Parle vite."));
        voice->gentleButton()->click();
        QCOMPARE(voice->styleEditor()->toPlainText(), defaultVoiceStyle());
        voice->styleEditor()->setPlainText(QStringLiteral("  Parle lentement.  \n"));
        voice->applyStyleButton()->click();
        QCOMPARE(rig.model->voiceStyle(), QStringLiteral("Parle lentement."));
        QVERIFY(
            hasLabel(voice, QStringLiteral("Style enregistré pour la prochaine conversation.")));
        QCOMPARE(Settings(rig.settingsFile()).voiceStyle(), QStringLiteral("Parle lentement."));

        // Bands are off until the equaliser is on; a move is stored and applied at once.
        QVERIFY(!voice->band(1)->isEnabled());
        voice->equalizerSwitch()->setChecked(true);
        QVERIFY(voice->band(1)->isEnabled());
        voice->band(1)->setValue(60);
        voice->band(8)->setValue(-120);
        QCOMPARE(rig.model->voiceEQ().enabled, true);
        QCOMPARE(rig.model->voiceEQ().safeGains()[1], 6.0f);
        QCOMPARE(rig.model->voiceEQ().safeGains()[8], -12.0f);
        const auto stored = Settings(rig.settingsFile()).voiceEQ();
        QVERIFY(stored.has_value());
        QCOMPARE(VoiceEQSettings::load(*stored), rig.model->voiceEQ());
        QCOMPARE(voice->band(1)->accessibleDescription(), QStringLiteral("6,0 dB"));
        voice->equalizerSwitch()->setChecked(false);
        QCOMPARE(rig.model->voiceEQ().enabled, false);
        QCOMPARE(rig.model->voiceEQ().safeGains()[1], 6.0f); // kept, only bypassed
    }

    void guidedSetupRunsTheProbesAndCountsTheSteps()
    {
        Status routeOutcome = AppError(QStringLiteral(
            "Le signal de test ne traverse pas « Brelian — Appel vers IA ». Le pilote est visible "
            "mais son transport audio doit être corrigé. Le standard reste désactivé."));
        bool heard = false;
        int routeRuns = 0;
        ui::SetupProbes probes;
        probes.route = [&](const QList<SoundDevice>&, std::function<void(Status)> done) {
            ++routeRuns;
            done(routeOutcome);
        };
        probes.microphone = [&](quint32, std::function<void(double)> level,
                                std::function<void(Result<bool>)> done) {
            level(heard ? 0.4 : 0.001);
            done(heard);
        };
        UiRig rig({}, true, probes);
        ui::SetupAssistant* assistant = rig.mainWindow->openSetupAssistant();
        // Driver present, permissions given: the first open step is the sound test's
        // neighbour, the AI (the key is stored, not yet verified).
        QCOMPARE(assistant->stepList()->count(), 4);
        QCOMPARE(assistant->stepList()->item(0)->text(), QStringLiteral("✓  Installer le son"));
        QCOMPARE(assistant->firstOpenStep(), 2);
        QCOMPARE(assistant->currentStep(), 2);
        QCOMPARE(assistant->progress()->value(), rig.model->setupPercent());

        buttonNamed(assistant, QStringLiteral("Configurer et tester le son"))->click();
        QCOMPARE(routeRuns, 1);
        QVERIFY(!rig.model->routingConfirmed());
        QVERIFY(hasLabel(assistant, routeOutcome->message()));
        routeOutcome = std::nullopt;
        buttonNamed(assistant, QStringLiteral("Configurer et tester le son"))->click();
        QVERIFY(rig.model->routingConfirmed());
        QCOMPARE(rig.model->inputUID(), BrelianDevices::callUID());
        QCOMPARE(rig.model->outputUID(), BrelianDevices::voiceUID());
        QVERIFY(hasLabel(
            assistant,
            QStringLiteral("Son configuré · les deux circuits transmettent le signal de test")));

        buttonNamed(assistant, QStringLiteral("Tester le microphone du Mac"))->click();
        QVERIFY(hasLabel(
            assistant,
            QStringLiteral("Aucun son détecté : parlez plus près et vérifiez le microphone")));
        QVERIFY(!rig.model->macAudioVerified());
        heard = true;
        buttonNamed(assistant, QStringLiteral("Tester le microphone du Mac"))->click();
        QVERIFY(hasLabel(assistant, QStringLiteral("Le microphone capte du son")));
        QVERIFY(rig.model->macAudioVerified());

        buttonNamed(assistant, QStringLiteral("Vérifier la connexion IA"))->click();
        QVERIFY(waitFor([&] { return rig.model->aiVerified(); }));
        QCOMPARE(assistant->stepList()->item(2)->text(), QStringLiteral("✓  Connecter l’IA"));
        QCOMPARE(assistant->progress()->value(), 75);

        // The last step: a call seen in the phone application, then a real call taken.
        buttonNamed(assistant, QStringLiteral("Attendre un appel"))->click();
        QVERIFY(rig.model->observingRelay());
        rig.ring(QStringLiteral("06 11 22 33 44"));
        rig.tick();
        QVERIFY(!rig.model->observingRelay());
        QVERIFY(rig.model->relayStatus().startsWith(QStringLiteral("Appel détecté à ")));
        rig.window->removeChildren();
        QCOMPARE(assistant->progress()->value(), 75);
        rig.model->toggleArmed();
        QVERIFY(waitFor([&] { return rig.model->armed(); }));
        rig.ring(QStringLiteral("06 11 22 33 44"));
        rig.tick(4);
        QVERIFY(waitFor([&] { return rig.model->connected(); }));
        rig.showActiveCall();
        rig.tick();
        rig.server.sendEvent(ScriptedRealtimeServer::callerTranscript(QStringLiteral("Allô ?")));
        QVERIFY(waitFor([&] { return rig.model->current()->transcript.size() == 1; }));
        rig.server.behaviour().messageArguments = QStringLiteral("{}");
        rig.window->removeChildren();
        rig.tick(6);
        QVERIFY(waitFor([&] { return !rig.model->busy(); }));
        rig.tick(); // the setup looks at the saved call on its next round
        QCOMPARE(rig.model->validatedCallID(), rig.model->records().first().id);
        QCOMPARE(assistant->progress()->value(), 100);
        QCOMPARE(assistant->stepList()->item(3)->text(), QStringLiteral("✓  Audio du téléphone"));
        QVERIFY(
            !rig.mainWindow->dashboardPage()->readinessCard()->isVisibleTo(rig.mainWindow.get()));
    }

    void testWindowDialsAndJoinsTheCall()
    {
        UiRig rig;
        rig.prepareForCalls();
        ui::TestWindow* test = rig.mainWindow->openTestWindow();
        QCOMPARE(test->talkButton()->text(), QStringLiteral("Parler à Vemira sur ce Mac"));
        QCOMPARE(test->connectButton()->text(), QStringLiteral("2. Brancher l’IA sur l’appel"));

        test->numberField()->setText(QStringLiteral("0612 345"));
        test->dialButton()->click();
        QCOMPARE(test->outgoingStatusLabel()->text(),
                 QStringLiteral("Saisissez un numéro complet, avec l’indicatif si nécessaire."));
        test->numberField()->clear();
        QTest::keyClicks(test->numberField(), QStringLiteral("+33 (0)6 12-34.56.78"));
        QTest::keyClick(test->numberField(), Qt::Key_Return);
        QCOMPARE(rig.model->outgoingNumber(), QStringLiteral("+33 (0)6 12-34.56.78"));
        QCOMPARE(test->outgoingStatusLabel()->text(),
                 QStringLiteral("Confirmez l’appel dans Téléphone si macOS le demande. Quand la "
                                "personne décroche, cliquez sur Brancher l’IA."));

        test->connectButton()->click();
        QCOMPARE(test->outgoingStatusLabel()->text(),
                 QStringLiteral(
                     "Aucun appel actif détecté. Lancez ou décrochez un appel dans Téléphone."));
        rig.showActiveCall();
        test->connectButton()->click();
        QVERIFY(rig.model->busy());
        QVERIFY(!test->dialButton()->isEnabled());
        QVERIFY(!test->talkButton()->isEnabled());
        rig.model->finish();
        QVERIFY(test->dialButton()->isEnabled());

        // On standby, neither test can start, and the window says why.
        rig.model->toggleArmed();
        QVERIFY(waitFor([&] { return rig.model->armed(); }));
        QVERIFY(!test->talkButton()->isEnabled());
        QVERIFY(hasLabel(test, QStringLiteral("Mettez le standard en pause pour faire un essai.")));
    }
};

QTEST_MAIN(MainWindowTest)
#include "tst_main_window.moc"
