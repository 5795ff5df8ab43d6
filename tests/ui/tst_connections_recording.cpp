// The connections page (key, devices, recording switch) and the recording window on the
// real model, with the preferences file and the data folder checked as a restart reads them.

#include "UiRig.h"
#include "app/SystemServices.h"
#include "core/PlatformWording.h"
#include "records/APIKeyStore.h"
#include "records/Settings.h"
#include "ui/ConnectionsPage.h"
#include "ui/DashboardPage.h"
#include "ui/DossiersPage.h"
#include "ui/LoginStart.h"
#include "ui/RecordingWindow.h"
#include "ui/SetupAssistant.h"
#include "ui/Widgets.h"

#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

using namespace vemira;
using namespace vemira::testing;

namespace {

// A 32-bit float mono WAVE file as the recorder writes it, with an extra chunk before the
// samples as other tools add them.
void writeWave(const QString& path, int frames, quint32 rate)
{
    QByteArray fmt(16, '\0');
    qToLittleEndian<quint16>(3, fmt.data());     // IEEE float
    qToLittleEndian<quint16>(1, fmt.data() + 2); // mono
    qToLittleEndian<quint32>(rate, fmt.data() + 4);
    qToLittleEndian<quint32>(rate * 4, fmt.data() + 8);
    qToLittleEndian<quint16>(4, fmt.data() + 12); // block align
    qToLittleEndian<quint16>(32, fmt.data() + 14);
    const QByteArray list = QByteArrayLiteral("INFOISFT\x06\0\0\0Vemira");
    const QByteArray data(frames * 4, '\0');
    auto chunk = [](const char* id, const QByteArray& body) {
        QByteArray c(id, 4);
        QByteArray size(4, '\0');
        qToLittleEndian<quint32>(quint32(body.size()), size.data());
        return c + size + body + (body.size() % 2 ? QByteArray(1, '\0') : QByteArray());
    };
    const QByteArray body =
        QByteArrayLiteral("WAVE") + chunk("fmt ", fmt) + chunk("LIST", list) + chunk("data", data);
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(chunk("RIFF", body));
}

QStringList comboTexts(const QComboBox* combo)
{
    QStringList items;
    for (int i = 0; i < combo->count(); ++i)
        items << combo->itemText(i);
    return items;
}

bool hasLabel(QWidget* top, const QString& text)
{
    const QList<QLabel*> labels = top->findChildren<QLabel*>();
    return std::any_of(labels.begin(), labels.end(), [&](QLabel* l) { return l->text() == text; });
}

} // namespace

class ConnectionsRecordingTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // The texts quoted here are the macOS ones, word for word: selecting them on every
    // platform keeps these cases a guard against their drift.
    void initTestCase() { PlatformWording::select(WordingPlatform::MacOS); }
    void init() { QLocale::setDefault(QLocale(QLocale::French, QLocale::France)); }

    void keyIsSavedTrimmedNeverShownAndCanBeRemoved()
    {
        UiRig rig({}, /*withKey=*/false);
        rig.mainWindow->showPage(QStringLiteral("Connexions"));
        ui::ConnectionsPage* page = rig.mainWindow->connectionsPage();
        QVERIFY(hasLabel(
            page,
            QStringLiteral("Collez votre clé une fois. Elle restera sur ce Mac, sans trousseau.")));
        QVERIFY(
            hasLabel(page, QStringLiteral("Stockage local privé, sans chiffrement supplémentaire. "
                                          "L’utilisation de l’API est facturée par OpenAI.")));
        QCOMPARE(page->keyField()->echoMode(), QLineEdit::Password);
        QVERIFY(!page->deleteKeyButton()->isEnabled());

        // Only blanks: nothing stored, the model says what to do.
        QTest::keyClicks(page->keyField(), QStringLiteral("   "));
        page->saveKeyButton()->click();
        QVERIFY(!rig.model->keyPresent());
        QCOMPARE(rig.model->error(), QStringLiteral("Saisissez votre clé dans ce champ sécurisé."));
        QCOMPARE(rig.mainWindow->dashboardPage()->errorLabel()->text(), rig.model->error());

        // A pasted key with blanks around it: stored trimmed, and the field is emptied.
        rig.model->setError(QString());
        page->keyField()->clear();
        QTest::keyClicks(page->keyField(), QStringLiteral("  sk-proj-123  "));
        QTest::keyClick(page->keyField(), Qt::Key_Return);
        QVERIFY(rig.model->keyPresent());
        QCOMPARE(LocalKeyStore(DataFolder(rig.dir.path()).credentialsFolder()).read().value(),
                 std::optional(QStringLiteral("sk-proj-123")));
        QVERIFY(page->keyField()->text().isEmpty());
        QVERIFY(hasLabel(page, QStringLiteral("Clé enregistrée · connexion à vérifier")));
        QVERIFY(page->deleteKeyButton()->isEnabled());

        // The check runs against the (scripted) provider and reports on the page.
        page->verifyButton()->click();
        QVERIFY(waitFor([&] { return rig.model->aiVerified(); }));
        QVERIFY(hasLabel(page, QStringLiteral("Connexion IA vérifiée")));

        // The model picker: current models with a word on their cost; choosing one writes its
        // bare name, and any other name can still be typed.
        QComboBox* models = page->modelPicker();
        QCOMPARE(models->itemData(0, Qt::DisplayRole).toString(),
                 QStringLiteral("gpt-realtime-2.1 — recommandé"));
        const int mini = models->findData(QStringLiteral("gpt-realtime-2.1-mini"), Qt::EditRole);
        QVERIFY(mini > 0);
        models->setCurrentIndex(mini);
        Q_EMIT models->activated(mini);
        QCOMPARE(rig.model->model(), QStringLiteral("gpt-realtime-2.1-mini"));
        QVERIFY(hasLabel(page, QStringLiteral("Coût : économique.")));
        models->lineEdit()->setText(QStringLiteral("gpt-realtime-9"));
        Q_EMIT models->lineEdit()->editingFinished();
        QCOMPARE(rig.model->model(), QStringLiteral("gpt-realtime-9"));

        page->deleteKeyButton()->click();
        QVERIFY(!rig.model->keyPresent());
        QVERIFY(!QFile::exists(DataFolder(rig.dir.path()).credentialsFolder() +
                               QStringLiteral("/openai.key")));
        QVERIFY(!page->deleteKeyButton()->isEnabled());
    }

    void devicePickersAndRecordingSwitchAreKept()
    {
        UiRig rig;
        ui::ConnectionsPage* page = rig.mainWindow->connectionsPage();
        // Inputs offer every device that has input, outputs every one that has output.
        QCOMPARE(comboTexts(page->inputPicker()),
                 (QStringList{QStringLiteral("Choisir…"), QStringLiteral("Micro intégré"),
                              QStringLiteral("Micro du casque"),
                              QStringLiteral("Brelian — Appel vers IA"),
                              QStringLiteral("Brelian — IA vers appel")}));
        QCOMPARE(comboTexts(page->interventionOutputPicker()),
                 (QStringList{QStringLiteral("Choisir…"), QStringLiteral("Haut-parleurs intégrés"),
                              QStringLiteral("Casque"), QStringLiteral("Brelian — Appel vers IA"),
                              QStringLiteral("Brelian — IA vers appel")}));

        page->inputPicker()->setCurrentText(QStringLiteral("Brelian — Appel vers IA"));
        page->outputPicker()->setCurrentText(QStringLiteral("Brelian — IA vers appel"));
        QCOMPARE(rig.model->inputUID(), BrelianDevices::callUID());
        QCOMPARE(rig.model->outputUID(), BrelianDevices::voiceUID());
        // The manager's devices are kept at once, without "Enregistrer les réglages".
        page->interventionMicPicker()->setCurrentText(QStringLiteral("Micro du casque"));
        page->interventionOutputPicker()->setCurrentText(QStringLiteral("Casque"));
        QCOMPARE(Settings(rig.settingsFile()).interventionMicUID(),
                 std::optional(QStringLiteral("headset-mic")));
        QCOMPARE(Settings(rig.settingsFile()).interventionOutputUID(),
                 std::optional(QStringLiteral("headset-out")));

        // A chosen device that is unplugged stays visible rather than silently replaced.
        rig.model->setInterventionMicUID(QStringLiteral("usb-mic-gone"));
        QCOMPARE(page->interventionMicPicker()->currentText(),
                 QStringLiteral("Non branché (usb-mic-gone)"));
        QCOMPARE(rig.model->interventionMicUID(), QStringLiteral("usb-mic-gone"));

        QVERIFY(page->recordingSwitch()->isChecked());
        QTest::keyClick(page->recordingSwitch(), Qt::Key_Space);
        QVERIFY(!rig.model->recordingEnabled());
        QCOMPARE(Settings(rig.settingsFile()).recordingEnabled(), false);
        QVERIFY(rig.model->instructions().endsWith(
            QStringLiteral("L’enregistrement audio est désactivé.")));
    }

    // On Linux the owner chooses the softphone to watch; the choice is kept and shown again.
    void theWatchedSoftphoneIsChosenOnLinuxOnly()
    {
        {
            UiRig rig;
            QVERIFY(!rig.mainWindow->connectionsPage()->phoneAppPicker()->isVisibleTo(
                rig.mainWindow->connectionsPage()));
        }
        PlatformWording::select(WordingPlatform::Linux);
        {
            UiRig rig;
            ui::ConnectionsPage* page = rig.mainWindow->connectionsPage();
            QComboBox* picker = page->phoneAppPicker();
            QVERIFY(picker->isVisibleTo(page));
            QCOMPARE(comboTexts(picker),
                     (QStringList{QStringLiteral("Toutes les applications connues"),
                                  QStringLiteral("Twinkle"), QStringLiteral("GNOME Calls"),
                                  QStringLiteral("Linphone")}));
            picker->setCurrentText(QStringLiteral("GNOME Calls"));
            QCOMPARE(rig.model->phoneApp(), QStringLiteral("gnome-calls"));
            QCOMPARE(Settings(rig.settingsFile()).phoneApp(), QStringLiteral("gnome-calls"));
            rig.model->setPhoneApp(QStringLiteral("baresip-gtk"));
            QCOMPARE(picker->currentText(), QStringLiteral("baresip-gtk"));
            rig.model->setPhoneApp(QString());
            QCOMPARE(picker->currentIndex(), 0);
        }
        PlatformWording::select(WordingPlatform::MacOS);
    }

    void recordingWindowReadsTheFileAndExportsIt()
    {
        QTemporaryDir elsewhere;
        QUuid withAudio;
        QUuid missing;
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
            writeWave(QDir(store.folder().recordingsFolder()).filePath(*kept.recordingFile),
                      24000 * 75 + 12000, 24000);
        });
        const QString wave =
            QDir(rig.model->recordingsFolder())
                .filePath(QStringLiteral("Appel-") + uuidText(withAudio) + QStringLiteral(".wav"));
        QCOMPARE(ui::RecordingWindow::wavSeconds(wave), 75.5);
        QCOMPARE(ui::RecordingWindow::wavSeconds(rig.dir.filePath(QStringLiteral("settings.ini"))),
                 -1.0);

        // From the conversations page, "Écouter…" opens the window on that call.
        rig.mainWindow->showPage(QStringLiteral("Conversations"));
        rig.model->setSelectedRecord(withAudio);
        ui::DossiersPage* page = rig.mainWindow->dossiersPage();
        QVERIFY(page->listenButton()->isEnabled());
        page->listenButton()->click();
        auto* window = rig.mainWindow->findChild<ui::RecordingWindow*>();
        QVERIFY(window != nullptr && window->isVisible());
        QCOMPARE(window->record(), withAudio);
        QVERIFY(window->summaryLabel()->text().contains(QStringLiteral("1 min 16 s")));
        QVERIFY(window->playButton()->isEnabled());

        const QString target = elsewhere.filePath(QStringLiteral("copie.wav"));
        rig.desktop->saveTo = target;
        window->exportButton()->click();
        QCOMPARE(rig.desktop->types.last(), DesktopServices::FileType::WaveAudio);
        QFile original(wave);
        QFile copy(target);
        QVERIFY(original.open(QIODevice::ReadOnly) && copy.open(QIODevice::ReadOnly));
        QCOMPARE(copy.readAll(), original.readAll());

        // A record whose file has gone says so and offers nothing to play.
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
        UiRig rig;
        Settings settings(config.filePath(QStringLiteral("prefs.ini")));
        settings.setRearmAtLogin(false); // asked once already: no question box here
        ui::LoginStart start(*rig.model, std::move(settings), createPlatformLoginItem());
        rig.mainWindow->setLoginStart(&start);
        const auto toggleIn = [](QWidget* top) {
            const QList<ui::ToggleSwitch*> toggles = top->findChildren<ui::ToggleSwitch*>();
            for (ui::ToggleSwitch* toggle : toggles) {
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
        qunsetenv("XDG_CONFIG_HOME");
#else
        QSKIP("The autostart entry is a Linux file; macOS asks the system.");
#endif
    }
};

QTEST_MAIN(ConnectionsRecordingTest)
#include "tst_connections_recording.moc"
