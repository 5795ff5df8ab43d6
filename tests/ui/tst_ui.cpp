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
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QProcess>
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

QStringList appleWords(const QStringList& texts)
{
    QStringList found;
    for (const QString& text : texts) {
        if (text.contains(QStringLiteral("Mac")) || text.contains(QStringLiteral("iPhone")) ||
            text.contains(QStringLiteral("macOS")))
            found << text;
    }
    return found;
}

QList<QPushButton*> visibleButtons(QWidget* top, const QString& text)
{
    QList<QPushButton*> found;
    for (QPushButton* b : top->findChildren<QPushButton*>()) {
        if (b->isVisible() && (b->text() == text || b->accessibleName() == text))
            found << b;
    }
    return found;
}

QPushButton* button(QWidget* top, const QString& text)
{
    const QList<QPushButton*> found = visibleButtons(top, text);
    return found.isEmpty() ? nullptr : found.first();
}

// A button of the window, shown or on a step not shown yet.
QPushButton* anyButton(QWidget* top, const QString& name)
{
    for (QPushButton* b : top->findChildren<QPushButton*>()) {
        if (b->accessibleName() == name)
            return b;
    }
    return nullptr;
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

#if defined(Q_OS_LINUX)
// A playback stream of its own process, named and marked like a softphone's or a player's.
class PlaybackStream {
public:
    PlaybackStream(const QString& application, const QString& role)
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("PULSE_PROP"), QStringLiteral("media.role=") + role);
        m_process.setProcessEnvironment(env);
        m_process.setStandardInputFile(QStringLiteral("/dev/zero"));
        m_process.start(QStringLiteral("pacat"),
                        {QStringLiteral("--playback"), QStringLiteral("--raw"),
                         QStringLiteral("--client-name=") + application});
        m_process.waitForStarted();
    }
    ~PlaybackStream()
    {
        m_process.kill();
        m_process.waitForFinished();
    }
    qint64 pid() const { return m_process.processId(); }

private:
    QProcess m_process;
};
#endif

} // namespace

class UiTest : public QObject {
    Q_OBJECT

private:
#if defined(Q_OS_LINUX)
    PulseDaemon m_daemon;

    QStringList brelianSinks() const
    {
        QStringList found;
        const QString list = m_daemon.pactl(
            {QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("sinks")});
        for (const QString& line : list.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            const QStringList fields = line.split(QLatin1Char('\t'));
            if (fields.size() >= 4 &&
                (fields[1] == BrelianDevices::callUID() || fields[1] == BrelianDevices::voiceUID()))
                found << fields[1] + QLatin1Char(' ') + fields[3];
        }
        found.sort();
        return found;
    }

    // The sink a process's playback stream is on; empty while it has none.
    QString sinkOf(const PlaybackStream& stream) const
    {
        auto json = [this](const char* what) {
            return QJsonDocument::fromJson(m_daemon
                                               .pactl({QStringLiteral("-f"), QStringLiteral("json"),
                                                       QStringLiteral("list"), QLatin1String(what)})
                                               .toUtf8())
                .array();
        };
        for (const QJsonValue s : json("sink-inputs")) {
            const QJsonObject props = s[QStringLiteral("properties")].toObject();
            if (props[QStringLiteral("application.process.id")].toString().toLongLong() !=
                stream.pid())
                continue;
            for (const QJsonValue sink : json("sinks")) {
                if (sink[QStringLiteral("index")].toInt() == s[QStringLiteral("sink")].toInt())
                    return sink[QStringLiteral("name")].toString();
            }
        }
        return QString();
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
        QVERIFY(window->standbySwitch()->focusPolicy() & Qt::TabFocus);
    }

    // Every quoted text of the screens, shown on the window where the owner reads it (the home
    // page's call card and budget explanation are read hidden: they show during a call).
    void quotedTextsAreOnTheirWindows()
    {
        UiRig rig({}, /*withKey=*/false);
        rig.model->addDemo();
        ui::MainWindow* window = rig.mainWindow.get();
        QStringList pages;
        for (const QString& page :
             {QStringLiteral("Accueil"), QStringLiteral("Agent"), QStringLiteral("Conversations"),
              QStringLiteral("Connexions"), QStringLiteral("Guide")}) {
            window->showPage(page);
            pages << textsOf(window, page != QStringLiteral("Accueil"));
        }
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
             {QStringLiteral("Le standard ne peut pas encore répondre"),
              QStringLiteral("• Enregistrer la clé IA"),
              QStringLiteral("Intervenir au micro"),
              QStringLiteral("Comment le budget est estimé"),
              QStringLiteral("Estimation indicative et volontairement majorée, destinée à vous "
                             "donner un ordre de grandeur. Le montant affiché peut différer de la "
                             "facturation réelle de votre fournisseur d’IA."),
              QStringLiteral("Consulter la consommation OpenAI"),
              QStringLiteral("Utiliser cet exemple"),
              QStringLiteral(
                  "Accueille les locataires et prends un message précis pour le gestionnaire."),
              QStringLiteral("Rechercher un numéro, un nom, un dossier ou une phrase"),
              QStringLiteral("Tous les dossiers"),
              QStringLiteral("Appels non classés"),
              QStringLiteral("Tous les états"),
              QStringLiteral("1 appel(s). Cliquez sur une colonne pour trier, puis sur un appel "
                             "pour l’ouvrir."),
              QStringLiteral("Collez votre clé une fois. Elle restera sur ce Mac, sans trousseau."),
              QStringLiteral("Stockage local privé, sans chiffrement supplémentaire. L’utilisation "
                             "de l’API est facturée par OpenAI."),
              QStringLiteral("Enregistrer les réglages"),
              QStringLiteral("Configurer et tester le son"),
              QStringLiteral("Préparer la liaison"),
              QStringLiteral("Remettre Téléphone sur le son système"),
              QStringLiteral("Brelian — Appel vers IA"),
              QStringLiteral("Brelian — IA vers appel")}},
            {&setup,
             {QStringLiteral("Installer le son"), QStringLiteral("Autoriser le Mac"),
              QStringLiteral("Connecter l’IA"), QStringLiteral("Audio du téléphone"),
              QStringLiteral("Configurer et tester le son"),
              QStringLiteral("Tester le microphone du Mac"),
              QStringLiteral("Vérifier la connexion IA"), QStringLiteral("Préparer la liaison")}},
            {&test,
             {QStringLiteral("Parler à Vemira sur ce Mac"),
              QStringLiteral("Tester avec un appel sortant"),
              QStringLiteral("2. Brancher l’IA sur l’appel")}},
            {&voice, {QStringLiteral("Douce et bienveillante")}},
            {&assignment,
             {QStringLiteral("Ex. SCI Lilas · logement 4 · fuite"),
              QStringLiteral("Un nom vide retire l’appel du dossier sans le supprimer."),
              QStringLiteral("Enregistrer")}},
        };
        for (const auto& [seen, texts] : expected) {
            const QStringList lines = seen->join(u'\n').split(u'\n');
            for (const QString& text : texts)
                QVERIFY2(lines.contains(text), qPrintable(text));
        }
        QVERIFY(setup.join(u'\n').contains(QStringLiteral("Brelian Audio")));
        // The system's own messages shown in those windows.
        QCOMPARE(AudioSystem::readFailure(-50).message(),
                 QStringLiteral("Impossible de lire le réglage audio du Mac (-50)."));
        QCOMPARE(
            MacAudioRoute::builtInMissingMessage(),
            QStringLiteral(
                "Le micro et les haut-parleurs intégrés du Mac sont nécessaires pour ce test."));
        QCOMPARE(
            AudioRouteProbe::moduleMissingMessage(),
            QStringLiteral(
                "Le module audio Vemira n’est pas chargé. Installez-le puis redémarrez le Mac."));
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
        QTRY_VERIFY(rig.model->armed());
        QVERIFY(rig.mainWindow->standbySwitch()->isChecked());
        QCOMPARE(rig.mainWindow->dashboardPage()->statusLabel()->text(),
                 QStringLiteral("À l’écoute des appels"));
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
        QTest::keyClicks(page->noteEditor(), QStringLiteral("Rappeler Mme Modele mardi"));
        QVERIFY(page->saveNoteButton()->isEnabled());

        QVERIFY(rig.arm());
        QVERIFY(rig.takeCall());
        rig.showActiveCall();
        rig.tick();
        QVERIFY(dashboard->callCard()->isVisibleTo(dashboard));
        QCOMPARE(icon.state(), ui::StandbyState::InCall);
        QVERIFY(rig.callerSays(QStringLiteral("J’ai une fuite.")));
        QTRY_COMPARE(dashboard->transcriptView()->toPlainText(),
                     QStringLiteral("Interlocuteur : J’ai une fuite."));
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
                 QStringLiteral("Votre micro est ouvert vers l’appelant · IA silencieuse"));
        QCOMPARE(dashboard->interventionButton()->text(),
                 QStringLiteral("Rendre la parole à l’IA"));
        dashboard->interventionButton()->click();
        QVERIFY(!rig.model->intervening());
        QCOMPARE(dashboard->interventionLabel()->text(),
                 QStringLiteral("Votre micro est fermé · l’IA répond seule"));

        rig.server.behaviour().messageArguments = QStringLiteral("{}");
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
        QCOMPARE(page->noteEditor()->toPlainText(), QStringLiteral("Rappeler Mme Modele mardi"));
        QVERIFY(onDisk(rig, demo)->note != page->noteEditor()->toPlainText());
        page->saveNoteButton()->click();
        QCOMPARE(onDisk(rig, demo)->note, QStringLiteral("Rappeler Mme Modele mardi"));
        QVERIFY(!page->saveNoteButton()->isEnabled());

        // Moving to another call without pressing the button keeps the edit too, on the
        // record it was typed for, and an emptied note stays an empty note.
        QTest::keyClicks(page->noteEditor(), QStringLiteral(" a 10 h"));
        clickRow(page, 1);
        QVERIFY(rig.model->selectedRecord() != demo);
        QCOMPARE(onDisk(rig, demo)->note, QStringLiteral("Rappeler Mme Modele mardi a 10 h"));
        page->noteEditor()->selectAll();
        QTest::keyClick(page->noteEditor(), Qt::Key_Delete);
        rig.mainWindow->showPage(QStringLiteral("Accueil")); // leaving the page saves
        QCOMPARE(onDisk(rig, rig.model->records()[0].id)->note, QString());

        // The notice of the call opens it.
        QVERIFY(icon.lastNotice().has_value());
        rig.mainWindow->showRecord(icon.lastNotice()->record);
        QCOMPARE(rig.mainWindow->currentPage(), QStringLiteral("Conversations"));
        QVERIFY(page->documentView()->toPlainText().contains(
            QStringLiteral("Interlocuteur : J’ai une fuite.")));
    }

    // One action per control that only forwards to the model: the model gets it.
    void controlsReachTheModel()
    {
        UiRig rig;
        rig.model->addDemo();
        ui::MainWindow* window = rig.mainWindow.get();

        ui::AgentPage* agent = window->agentPage();
        agent->templatePicker()->setCurrentText(QStringLiteral("Commercial"));
        agent->useExampleButton()->click();
        agent->tonePicker()->setCurrentText(QStringLiteral("Calme et rassurant"));
        agent->saveButton()->click();
        QVERIFY(rig.model->customInstructions().startsWith(
            QStringLiteral("Ton : Calme et rassurant.\nComprends le besoin du prospect")));
        ui::AnsweringRulesCard* rules = agent->rulesCard();
        rules->ringOpenBox()->setValue(20);
        rules->hoursField()->setText(QStringLiteral("lun-sam 18:00-09:00"));
        QVERIFY(!rules->save());
        QVERIFY(!rules->stateLabel()->text().isEmpty());
        QCOMPARE(rules->hoursField()->text(), QStringLiteral("lun-sam 18:00-09:00"));
        rules->hoursField()->setText(QStringLiteral("lun-sam 09:00-18:00"));
        rules->saveButton()->click();
        QCOMPARE(Settings(rig.settingsFile()).answeringRules().ringOpen, 20);

        ui::VoiceWindow* voice = window->openVoiceWindow();
        voice->gentleButton()->click();
        QCOMPARE(voice->styleEditor()->toPlainText(), defaultVoiceStyle());
        voice->styleEditor()->setPlainText(QStringLiteral("  Parle lentement.  \n"));
        voice->applyStyleButton()->click();
        QCOMPARE(rig.model->voiceStyle(), QStringLiteral("Parle lentement."));
        QVERIFY(!voice->band(1)->isEnabled());
        voice->equalizerSwitch()->setChecked(true);
        voice->band(1)->setValue(60);
        QCOMPARE(rig.model->voiceEQ().safeGains()[1], 6.0f);
        voice->close();

        // Conversations: the search field, the dossier sheet, the status, the message editor,
        // the pending calls, the transcript's buttons.
        ui::DossiersPage* page = window->dossiersPage();
        const QUuid demo = rig.model->selectedRecord();
        QTest::keyClicks(page->searchField(), QStringLiteral("inondation"));
        QCOMPARE(page->table()->model()->rowCount(), 0);
        QVERIFY(!page->documentView()->isVisibleTo(page));
        page->searchField()->clear();
        QVERIFY(page->documentView()->isVisibleTo(page));
        for (const QString& choice : {QStringLiteral("Enregistrer"), QStringLiteral("Annuler")}) {
            QTimer::singleShot(0, [choice] {
                auto* sheet =
                    qobject_cast<ui::AssignmentDialog*>(QApplication::activeModalWidget());
                QVERIFY(sheet);
                sheet->nameField()->setText(choice);
                anyButton(sheet, choice)->click();
            });
            page->assignButton()->click();
        }
        QCOMPARE(onDisk(rig, demo)->dossier, std::optional(QStringLiteral("Enregistrer")));
        page->recordStatusPicker()->setCurrentText(QStringLiteral("Terminé"));
        QCOMPARE(onDisk(rig, demo)->followUpStatus, std::optional(QStringLiteral("Terminé")));
        rig.model->updateMessage(demo, CallMessage{QStringLiteral("Jean Dupuis"),
                                                   {},
                                                   QStringLiteral("Fuite"),
                                                   {},
                                                   QStringLiteral("Urgent"),
                                                   {},
                                                   QStringLiteral("Fuite chez Jean Dupuis.")});
        ui::MessageEditor* editor = page->messageEditor();
        QTest::keyClicks(editor->field(QStringLiteral("address")), QStringLiteral("8 av. Foch"));
        QTest::keyClicks(editor->field(QStringLiteral("callback")), QStringLiteral("demain"));
        editor->saveButton()->click();
        QVERIFY(!editor->problemLabel()->text().isEmpty()); // not a number: nothing lost
        QCOMPARE(editor->field(QStringLiteral("address"))->text(), QStringLiteral("8 av. Foch"));
        QVERIFY(onDisk(rig, demo)->message->address.isEmpty());
        editor->field(QStringLiteral("callback"))->setText(QStringLiteral("06 12 34 56 78"));
        editor->saveButton()->click();
        QCOMPARE(onDisk(rig, demo)->message->address, QStringLiteral("8 av. Foch"));
        QTest::keyClicks(page->searchField(), QStringLiteral("AV. FOCH")); // found by its message
        QCOMPARE(page->table()->model()->rowCount(), 1);
        page->searchField()->clear();
        page->copyButton()->click();
        QCOMPARE(rig.desktop->clipboard, page->documentView()->toPlainText());
        rig.desktop->saveTo = rig.dir.filePath(QStringLiteral("export.txt"));
        page->exportButton()->click();
        QVERIFY(QFile::exists(*rig.desktop->saveTo));
        page->revealButton()->click();
        QTRY_COMPARE(rig.desktop->revealed.size(), 1);
        QVERIFY(!page->listenButton()->isEnabled()); // no recording
        window->showPage(QStringLiteral("Accueil"));
        page->recordStatusPicker()->setCurrentText(QStringLiteral("À traiter"));
        rig.model->setSelectedRecord(QUuid());
        QListWidget* pending = window->dashboardPage()->pendingCalls()->list();
        QCOMPARE(pending->count(), 1);
        QTest::mouseClick(pending->viewport(), Qt::LeftButton, {},
                          pending->visualItemRect(pending->item(0)).center());
        QCOMPARE(window->currentPage(), QStringLiteral("Conversations"));
        QCOMPARE(rig.model->selectedRecord(), demo);

        // Connexions: the key field, the devices, the recording switch.
        ui::ConnectionsPage* connections = window->connectionsPage();
        QCOMPARE(connections->keyField()->echoMode(), QLineEdit::Password);
        QTest::keyClicks(connections->keyField(), QStringLiteral("  sk-proj-123  "));
        QTest::keyClick(connections->keyField(), Qt::Key_Return);
        QVERIFY(connections->keyField()->text().isEmpty());
        QCOMPARE(LocalKeyStore(DataFolder(rig.dir.path()).credentialsFolder()).read().value(),
                 std::optional(QStringLiteral("sk-proj-123")));
        connections->verifyButton()->click();
        QTRY_VERIFY(rig.model->aiVerified());
        QComboBox* models = connections->modelPicker();
        const int mini = models->findData(QStringLiteral("gpt-realtime-2.1-mini"), Qt::EditRole);
        QVERIFY(mini > 0);
        models->setCurrentIndex(mini);
        Q_EMIT models->activated(mini);
        QCOMPARE(rig.model->model(), QStringLiteral("gpt-realtime-2.1-mini"));
        models->lineEdit()->setText(QStringLiteral("gpt-realtime-9"));
        Q_EMIT models->lineEdit()->editingFinished();
        QCOMPARE(rig.model->model(), QStringLiteral("gpt-realtime-9"));
        QVERIFY(!connections->phoneAppPicker()->isVisibleTo(connections)); // Linux only
        connections->inputPicker()->setCurrentText(QStringLiteral("Brelian — Appel vers IA"));
        QCOMPARE(rig.model->inputUID(), BrelianDevices::callUID());
        QCOMPARE(connections->outputPicker()->findText(QStringLiteral("Micro intégré")), -1);
        connections->interventionMicPicker()->setCurrentText(QStringLiteral("Micro du casque"));
        QCOMPARE(Settings(rig.settingsFile()).interventionMicUID(),
                 std::optional(QStringLiteral("headset-mic")));
        rig.model->setInterventionMicUID(QStringLiteral("usb-mic-gone"));
        QVERIFY(connections->interventionMicPicker()->currentText().contains(
            QStringLiteral("usb-mic-gone"))); // an unplugged choice stays visible
        QTest::keyClick(connections->recordingSwitch(), Qt::Key_Space);
        QCOMPARE(Settings(rig.settingsFile()).recordingEnabled(), false);
        connections->deleteKeyButton()->click();
        QVERIFY(!rig.model->keyPresent());
        QVERIFY(!connections->deleteKeyButton()->isEnabled());
        rig.model->saveKey(QStringLiteral("sk-test"));

        // The test window: a number that cannot be dialled is refused before the system.
        ui::TestWindow* test = window->openTestWindow();
        test->numberField()->setText(QStringLiteral("0612 345"));
        test->dialButton()->click();
        QCOMPARE(test->outgoingStatusLabel()->text(),
                 QStringLiteral("Saisissez un numéro complet, avec l’indicatif si nécessaire."));
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
            CallRecord gone = seededRecord(QStringLiteral("Bernard"), 2, std::nullopt, std::nullopt,
                                           QStringLiteral("Bonjour"));
            gone.recordingFile =
                QStringLiteral("Appel-") + uuidText(gone.id) + QStringLiteral(".wav");
            missing = gone.id;
            store.insertFront(gone);
            CallRecord kept = seededRecord(QStringLiteral("Amélie"), 1, std::nullopt, std::nullopt,
                                           QStringLiteral("Allô"));
            kept.recordingFile =
                QStringLiteral("Appel-") + uuidText(kept.id) + QStringLiteral(".wav");
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
        rig.mainWindow->showPage(QStringLiteral("Conversations"));
        rig.model->setSelectedRecord(withAudio);
        rig.mainWindow->dossiersPage()->listenButton()->click();
        auto* window = rig.mainWindow->findChild<ui::RecordingWindow*>();
        QVERIFY(window != nullptr && window->isVisible());
        QVERIFY(window->summaryLabel()->text().contains(QStringLiteral("1 min 16 s")));
        QVERIFY(window->playButton()->isEnabled());
        rig.desktop->saveTo = elsewhere.filePath(QStringLiteral("copie.wav"));
        window->exportButton()->click();
        QFile original(wave);
        QFile copy(*rig.desktop->saveTo);
        QVERIFY(original.open(QIODevice::ReadOnly) && copy.open(QIODevice::ReadOnly));
        QCOMPARE(copy.readAll(), original.readAll());
        QCOMPARE(ui::RecordingWindow::wavSeconds(rig.settingsFile()), -1.0);
        // A record whose file has gone offers nothing to play.
        window->setRecord(missing);
        QCOMPARE(window->summaryLabel()->text(),
                 QStringLiteral("L’enregistrement audio est introuvable."));
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
        Settings settings(config.filePath(QStringLiteral("prefs.ini")));
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
        const QString entry =
            config.filePath(QStringLiteral("autostart/fr.brelian.Vemira.desktop"));
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
        Status routeOutcome = AppError(QStringLiteral("le signal ne passe pas"));
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
        QCOMPARE(assistant->stepList()->item(0)->text(), QStringLiteral("✓  Installer le son"));
        QCOMPARE(assistant->firstOpenStep(), 2);
        QCOMPARE(assistant->currentStep(), 2);
        QCOMPARE(assistant->progress()->value(), rig.model->setupPercent());

        anyButton(assistant, QStringLiteral("Configurer et tester le son"))->click();
        QCOMPARE(routeRuns, 1);
        QVERIFY(!rig.model->routingConfirmed());
        QVERIFY(hasLabel(assistant, routeOutcome->message()));
        routeOutcome = std::nullopt;
        anyButton(assistant, QStringLiteral("Configurer et tester le son"))->click();
        QVERIFY(rig.model->routingConfirmed());
        QCOMPARE(rig.model->inputUID(), BrelianDevices::callUID());
        QCOMPARE(rig.model->outputUID(), BrelianDevices::voiceUID());
        QVERIFY(hasLabel(
            assistant,
            QStringLiteral("Son configuré · les deux circuits transmettent le signal de test")));

        anyButton(assistant, QStringLiteral("Tester le microphone du Mac"))->click();
        QVERIFY(hasLabel(
            assistant,
            QStringLiteral("Aucun son détecté : parlez plus près et vérifiez le microphone")));
        QVERIFY(!rig.model->macAudioVerified());
        heard = true;
        anyButton(assistant, QStringLiteral("Tester le microphone du Mac"))->click();
        QVERIFY(hasLabel(assistant, QStringLiteral("Le microphone capte du son")));
        QVERIFY(rig.model->macAudioVerified());

        anyButton(assistant, QStringLiteral("Vérifier la connexion IA"))->click();
        QTRY_VERIFY(rig.model->aiVerified());
        QCOMPARE(assistant->stepList()->item(2)->text(), QStringLiteral("✓  Connecter l’IA"));
        QCOMPARE(assistant->progress()->value(), 75);

        // The last step: a call seen in the phone application, then a real call taken.
        anyButton(assistant, QStringLiteral("Attendre un appel"))->click();
        QVERIFY(rig.model->observingRelay());
        rig.ring(QStringLiteral("06 11 22 33 44"));
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
            QVERIFY(!heard || rig.callerSays(QStringLiteral("Allô ?")));
            rig.server.behaviour().messageArguments = QStringLiteral("{}");
            rig.phoneIdle();
            rig.tick(6);
            QTRY_VERIFY(!rig.model->busy());
            rig.tick(); // the setup looks at the saved call on its next round
            QCOMPARE(assistant->progress()->value(), heard ? 100 : 75);
            rig.tick(8); // the pause after a call
        }
        QCOMPARE(rig.model->records().size(), 2);
        QCOMPARE(rig.model->validatedCallID(), rig.model->records().first().id);
        QCOMPARE(assistant->stepList()->item(3)->text(), QStringLiteral("✓  Audio du téléphone"));
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
        const QStringList madeSinks{
            BrelianDevices::callUID() + QStringLiteral(" s16le 2ch 48000Hz"),
            BrelianDevices::voiceUID() + QStringLiteral(" s16le 2ch 48000Hz")};
        QTemporaryDir config;
        ui::SetupProbes probes;
        probes.virtualDevices = std::make_shared<pulse::PulseVirtualDevices>(config.path());
        probes.phoneRouting = std::make_shared<pulse::PulseStreamRouter>();
        UiRig rig({}, true, std::move(probes),
                  [](AppDependencies& deps) { deps.audioSystem = createPlatformAudioSystem(); });
        AppModel& model = *rig.model;
        ui::SetupAssistant* assistant = rig.mainWindow->openSetupAssistant();
        assistant->showStep(0);
        QPushButton* create = button(assistant, QStringLiteral("C&réer les périphériques audio"));
        QPushButton* remove =
            button(assistant, QStringLiteral("Supprimer les périphériques audio"));
        QVERIFY(create && remove);

        QLabel* state = nullptr;
        for (QLabel* label : assistant->findChildren<QLabel*>()) {
            if (label->accessibleName() == QStringLiteral("Module audio"))
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
        QVERIFY(model.readinessIssues().contains(QStringLiteral("Créer les périphériques audio")));
        create->click();
        QCOMPARE(brelianSinks(), madeSinks);
        QVERIFY(!model.readinessIssues().contains(QStringLiteral("Créer les périphériques audio")));
        QCOMPARE(state->text(), present);

        // A device of ours left at another rate would make the softphone send silence: the
        // check says so although a device of that name is there, and creating makes it again.
        QVERIFY(!pulse::PulseVirtualDevices(config.path()).remove());
        QVERIFY(m_daemon.loadNullSink(BrelianDevices::callUID(), QStringLiteral("Ancien"), 44100,
                                      2) >= 0);
        QVERIFY(m_daemon.loadNullSink(BrelianDevices::voiceUID(), QStringLiteral("Ancien"), 48000,
                                      2) >= 0);
        button(assistant, QStringLiteral("&Vérifier à nouveau"))->click();
        QVERIFY2(model.configurationStatus().contains(QStringLiteral("48 kHz")),
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
        QVERIFY(!button(assistant, QStringLiteral("Préparer la liaison")));
        QPushButton* check =
            button(assistant, QStringLiteral("Vérifier le &son du logiciel de téléphonie"));
        QVERIFY(check);
        {
            // Twinkle's call stream is moved and put back; the user's music never moves.
            PlaybackStream phone(QStringLiteral("twinkle"), QStringLiteral("phone"));
            PlaybackStream music(QStringLiteral("Lecteur"), QStringLiteral("music"));
            QTRY_COMPARE_WITH_TIMEOUT(sinkOf(phone), QStringLiteral("vemira.desk"), 5000);
            QTRY_COMPARE_WITH_TIMEOUT(sinkOf(music), QStringLiteral("vemira.desk"), 5000);
            check->click();
            QVERIFY2(model.nativeAudioStatus().contains(QStringLiteral(" 1 flux ")),
                     qPrintable(model.nativeAudioStatus()));
            QCOMPARE(sinkOf(phone), QStringLiteral("vemira.desk"));
            QCOMPARE(sinkOf(music), QStringLiteral("vemira.desk"));
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
                 qPrintable(appleWords(wording.allTexts()).join(QStringLiteral(" | "))));

        UiRig rig;
        rig.model->addDemo();
        ui::MainWindow* window = rig.mainWindow.get();
        QStringList seen;
        for (const QString& page :
             {QStringLiteral("Accueil"), QStringLiteral("Agent"), QStringLiteral("Conversations"),
              QStringLiteral("Connexions"), QStringLiteral("Guide")}) {
            window->showPage(page);
            seen << textsOf(window);
        }
        // The Connections page keeps the softphone's audio state and offers the softphone to
        // watch, without the Phone menu's buttons.
        window->showPage(QStringLiteral("Connexions"));
        ui::ConnectionsPage* connections = window->connectionsPage();
        QVERIFY(connections->phoneAppPicker()->isVisible());
        connections->phoneAppPicker()->setCurrentText(QStringLiteral("GNOME Calls"));
        QCOMPARE(Settings(rig.settingsFile()).phoneApp(), QStringLiteral("gnome-calls"));
        rig.model->setPhoneApp(QStringLiteral("baresip-gtk")); // a name typed elsewhere shows
        QCOMPARE(connections->phoneAppPicker()->currentText(), QStringLiteral("baresip-gtk"));
        QVERIFY(visibleButtons(window, QStringLiteral("Préparer la liaison")).isEmpty());
        QVERIFY(visibleButtons(window, QStringLiteral("Remettre Téléphone sur le son système"))
                    .isEmpty());

        // Each step of the guided setup, with a relayed call waited for in vain.
        ui::SetupAssistant* assistant = window->openSetupAssistant();
        QVERIFY(QTest::qWaitForWindowExposed(assistant));
        rig.setup->observeTestCall();
        rig.clock.advance(ui::GuidedSetup::kRelayWaitSeconds + 1);
        rig.setup->observeRelay();
        for (int i = 0; i < assistant->stepList()->count(); ++i) {
            assistant->showStep(i);
            seen << textsOf(assistant);
            QVERIFY(visibleButtons(assistant, QStringLiteral("Préparer la liaison")).isEmpty());
            QVERIFY(visibleButtons(assistant, QStringLiteral("Ouvrir les réglages du &micro"))
                        .isEmpty());
        }
        QVERIFY(assistant->stepList()
                    ->item(assistant->stepList()->count() - 1)
                    ->text()
                    .endsWith(QStringLiteral("Audio du téléphone")));
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
        window->showPage(QStringLiteral("Conversations"));
        QString question;
        window->dossiersPage()->confirmDeletionForTests = [&question](QMessageBox& box) {
            question = box.text();
        };
        window->dossiersPage()->confirmDeletion();
        QVERIFY(!question.isEmpty());
        seen << question << rig.model->log();

        const QStringList found = appleWords(seen);
        QVERIFY2(found.isEmpty(), qPrintable(found.join(QStringLiteral(" | "))));
    }

    // The Connexions page's e-mail card, against a real mail server on loopback.
    void mailCardSavesTestsAndTurnsOff()
    {
        const auto options =
            SmtpTestServer::Options::withLogin(QStringLiteral("gerant"), QStringLiteral("le-bon"));
        SmtpTestServer server(options);
        QVERIFY(server.started());
        QTemporaryDir dir;
        ManualClock clock;
        Settings settings(dir.filePath(QStringLiteral("prefs.ini")));
        const DataFolder folder(dir.filePath(QStringLiteral("Brelian")));
        AfterCallNotices notices(clock, settings, folder, nullptr);
        ui::MailSettingsCard card(notices);
        QVERIFY(!card.testButton()->isEnabled());

        // A wrong address is refused and nothing typed is lost.
        card.serverField()->setText(QStringLiteral("smtp.exemple.fr"));
        card.fromField()->setText(QStringLiteral("standard@exemple.fr"));
        card.toField()->setText(QStringLiteral("gerant@exemple.fr"));
        card.userField()->setText(options.user);
        card.passwordField()->setText(QStringLiteral("le-mauvais"));
        QTest::mouseClick(card.saveButton(), Qt::LeftButton);
        QVERIFY(card.stateLabel()->text().contains(QStringLiteral("« smtp.exemple.fr »")));
        QCOMPARE(card.passwordField()->text(), QStringLiteral("le-mauvais"));
        QVERIFY(!settings.mail());

        // The test button saves what is typed, then the server's verdict is shown as it is.
        card.serverField()->setText(server.url());
        QTest::mouseClick(card.saveButton(), Qt::LeftButton);
        QVERIFY(settings.mail());
        Settings::Mail mail = *settings.mail();
        mail.caFile = server.certificate(); // the company's own authority, set once
        settings.setMail(mail);
        card.passwordField()->setText(QStringLiteral("le-mauvais"));
        QTest::mouseClick(card.testButton(), Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(card.stateLabel()->text().contains(QStringLiteral("535 5.7.8")),
                                 20000);
        card.passwordField()->setText(options.password);
        QTest::mouseClick(card.testButton(), Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(server.received(), 1, 20000);
        // The password is kept privately and never shown back.
        const QString passwordFile = folder.credentialsFolder() + QStringLiteral("/smtp.password");
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
