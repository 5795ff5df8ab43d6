// The texts that name the computer and its phone application, per platform: a Linux user never
// reads of the Mac, the iPhone or macOS on any page or window, and never sees a button that only
// drives the macOS Phone application; with the macOS wording every quoted text is still there,
// character for character.

#include "UiRig.h"
#include "audio/AudioSystem.h"
#include "audio/MacAudioRoute.h"
#include "audio/probes/AudioRouteProbe.h"
#include "core/PlatformWording.h"
#include "ui/DossiersPage.h"
#include "ui/RecordingWindow.h"
#include "ui/SetupAssistant.h"
#include "ui/TestWindow.h"
#include "ui/VoiceWindow.h"

#include <QAbstractButton>
#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>

using namespace vemira;
using namespace vemira::testing;

namespace {

// Every text a user can read on the visible part of a window: labels, buttons, list and combo
// entries, placeholders, tooltips, accessible names and descriptions, menu actions.
QStringList visibleTexts(QWidget* top)
{
    QStringList texts{top->windowTitle()};
    QList<QWidget*> widgets = top->findChildren<QWidget*>();
    widgets.prepend(top);
    for (QWidget* w : widgets) {
        if (!w->isVisible())
            continue;
        texts << w->toolTip() << w->accessibleName() << w->accessibleDescription();
        if (auto* label = qobject_cast<QLabel*>(w))
            texts << label->text();
        if (auto* button = qobject_cast<QAbstractButton*>(w))
            texts << button->text();
        if (auto* edit = qobject_cast<QLineEdit*>(w))
            texts << edit->placeholderText() << edit->text();
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
        if (b->isVisible() && b->text() == text)
            found << b;
    }
    return found;
}

} // namespace

class PlatformWordingTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { QLocale::setDefault(QLocale(QLocale::French, QLocale::France)); }
    void cleanup() { PlatformWording::select(PlatformWording::native()); }

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
        const QStringList pages = {QStringLiteral("Accueil"), QStringLiteral("Agent"),
                                   QStringLiteral("Conversations"), QStringLiteral("Connexions"),
                                   QStringLiteral("Guide")};
        for (const QString& page : pages) {
            window->showPage(page);
            seen << visibleTexts(window);
        }
        // The Connections page keeps the softphone's audio state, without the Phone menu's
        // buttons.
        window->showPage(QStringLiteral("Connexions"));
        QVERIFY(seen.contains(QStringLiteral("Audio du logiciel de téléphonie")));
        QVERIFY(visibleButtons(window, QStringLiteral("Préparer la liaison")).isEmpty());
        QVERIFY(visibleButtons(window, QStringLiteral("Remettre Téléphone sur le son système"))
                    .isEmpty());

        // Each step of the guided setup, with a relayed call waited for in vain.
        ui::SetupAssistant* assistant = window->openSetupAssistant();
        QVERIFY(QTest::qWaitForWindowExposed(assistant));
        rig.setup->observeTestCall();
        rig.clock.advance(ui::GuidedSetup::kRelayWaitSeconds + 1);
        rig.setup->observeRelay();
        QStringList steps;
        for (int i = 0; i < assistant->stepList()->count(); ++i) {
            assistant->showStep(i);
            seen << visibleTexts(assistant);
            QVERIFY(visibleButtons(assistant, QStringLiteral("Préparer la liaison")).isEmpty());
            QVERIFY(visibleButtons(assistant, QStringLiteral("Ouvrir les réglages du &micro"))
                        .isEmpty());
            steps << assistant->stepList()->item(i)->text();
        }
        QVERIFY2(steps.last().endsWith(QStringLiteral("Audio du téléphone")),
                 qPrintable(steps.last()));
        QVERIFY(seen.contains(wording.relayTimeout));
        assistant->close();

        ui::TestWindow* test = window->openTestWindow();
        seen << visibleTexts(test);
        QVERIFY(seen.contains(QStringLiteral("Parler à Vemira sur cet ordinateur")));
        test->close();
        QWidget* voice = window->openVoiceWindow();
        seen << visibleTexts(voice);
        voice->close();
        QWidget* recording = window->openRecording(rig.model->selectedRecord());
        seen << visibleTexts(recording);
        recording->close();

        // The question before a record is deleted.
        window->showPage(QStringLiteral("Conversations"));
        ui::DossiersPage* dossiers = window->dossiersPage();
        QString question;
        dossiers->confirmDeletionForTests = [&question](QMessageBox& box) {
            question = box.text();
        };
        rig.model->setSelectedRecord(rig.model->records().first().id);
        dossiers->confirmDeletion();
        QVERIFY(question.endsWith(
            QStringLiteral("seront effacés de cet ordinateur. Cette action est définitive.")));
        seen << question << rig.model->log();

        const QStringList found = appleWords(seen);
        QVERIFY2(found.isEmpty(), qPrintable(found.join(QStringLiteral(" | "))));
    }

    void macWordingKeepsItsQuotedTexts()
    {
        PlatformWording::select(WordingPlatform::MacOS);
        const PlatformWording& mac = PlatformWording::current();
        QCOMPARE(
            mac.setupSteps,
            (QStringList{QStringLiteral("Installer le son"), QStringLiteral("Autoriser le Mac"),
                         QStringLiteral("Connecter l’IA"), QStringLiteral("Audio du téléphone")}));
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

        UiRig rig;
        ui::MainWindow* window = rig.mainWindow.get();
        window->showPage(QStringLiteral("Connexions"));
        const QStringList connections = visibleTexts(window);
        QVERIFY(connections.contains(
            QStringLiteral("Collez votre clé une fois. Elle restera sur ce Mac, sans trousseau.")));
        QVERIFY(connections.contains(QStringLiteral("Une clé est enregistrée sur ce Mac.")));
        QCOMPARE(visibleButtons(window, QStringLiteral("Préparer la liaison")).size(), 1);
        QCOMPARE(
            visibleButtons(window, QStringLiteral("Remettre Téléphone sur le son système")).size(),
            1);

        ui::SetupAssistant* assistant = window->openSetupAssistant();
        QVERIFY(QTest::qWaitForWindowExposed(assistant));
        assistant->showStep(0);
        QVERIFY(visibleTexts(assistant).contains(
            QStringLiteral("Vemira entend l’appelant et lui répond par deux périphériques audio "
                           "virtuels, « Brelian — Appel vers IA » et « Brelian — IA vers appel », "
                           "fournis par le module audio Brelian Audio.")));
        assistant->showStep(1);
        QCOMPARE(visibleButtons(assistant, QStringLiteral("Tester le microphone du Mac")).size(),
                 1);
        QCOMPARE(visibleButtons(assistant, QStringLiteral("Ouvrir les réglages du &micro")).size(),
                 1);
        assistant->showStep(3);
        QCOMPARE(visibleButtons(assistant, QStringLiteral("Préparer la liaison")).size(), 1);
        QVERIFY(visibleTexts(assistant).contains(QStringLiteral(
            "Téléphone doit utiliser les périphériques Vemira comme micro et sortie. "
            "Un vrai appel de test valide ensuite toute la chaîne.")));
        assistant->close();

        ui::TestWindow* test = window->openTestWindow();
        const QStringList testTexts = visibleTexts(test);
        QVERIFY(testTexts.contains(QStringLiteral("Parler à Vemira sur ce Mac")));
        QVERIFY(testTexts.contains(
            QStringLiteral("Appelez un autre téléphone depuis la ligne de l’iPhone, décrochez-le, "
                           "puis branchez l’IA sur l’appel.")));
        QVERIFY(testTexts.contains(QStringLiteral("Ouvrir &Téléphone")));
        test->close();

        window->showPage(QStringLiteral("Guide"));
        const QStringList guide = visibleTexts(window);
        QVERIFY(guide.contains(QStringLiteral("1. Préparer le Mac une fois")));
        QVERIFY(guide.contains(QStringLiteral(
            "Dans la fenêtre d’essai, « Parler à Vemira sur ce Mac » vous fait parler à Vemira "
            "avec "
            "le micro et les haut-parleurs du Mac. « Tester avec un appel sortant » appelle un "
            "autre téléphone puis branche l’IA sur cet appel.")));
    }
};

QTEST_MAIN(PlatformWordingTest)
#include "tst_platform_wording.moc"
