// The guided setup's audio steps on Linux, clicked in the real assistant against a real
// PulseAudio daemon: the two virtual devices removed and made again, their start-up file
// written only when the user ticks the box, and the step "Audio du téléphone" moving a
// softphone's open stream onto the call device and straight back, leaving other audio alone.

#include "PulseDaemon.h"
#include "UiRig.h"
#include "core/PlatformWording.h"
#include "platform/linux/audio/PulseStreamRouter.h"
#include "platform/linux/audio/PulseVirtualDevices.h"
#include "ui/SetupAssistant.h"

#include <QCheckBox>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QProcess>
#include <QPushButton>
#include <QTemporaryDir>
#include <QTest>

using namespace vemira;
using namespace vemira::testing;

namespace {

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

QPushButton* button(QWidget* top, const QString& text)
{
    for (QPushButton* b : top->findChildren<QPushButton*>()) {
        if (b->text() == text && b->isVisible())
            return b;
    }
    return nullptr;
}

} // namespace

class LinuxSoundSetupTest : public QObject {
    Q_OBJECT

private:
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
        for (const QJsonValue& s : json("sink-inputs")) {
            const QJsonObject props = s[QStringLiteral("properties")].toObject();
            if (props[QStringLiteral("application.process.id")].toString().toLongLong() !=
                stream.pid())
                continue;
            for (const QJsonValue& sink : json("sinks")) {
                if (sink[QStringLiteral("index")].toInt() == s[QStringLiteral("sink")].toInt())
                    return sink[QStringLiteral("name")].toString();
            }
        }
        return QString();
    }

    struct Rig {
        QTemporaryDir config;
        std::unique_ptr<UiRig> ui;
        ui::SetupAssistant* assistant = nullptr;
    };

    // The application as a Linux user runs it: the real sound server's device list and
    // Vemira's own device maker and routing, on a private configuration folder.
    std::unique_ptr<Rig> openAssistant()
    {
        auto rig = std::make_unique<Rig>();
        ui::SetupProbes probes;
        probes.virtualDevices = std::make_shared<pulse::PulseVirtualDevices>(rig->config.path());
        probes.phoneRouting = std::make_shared<pulse::PulseStreamRouter>();
        rig->ui = std::make_unique<UiRig>(
            std::function<void(RecordsStore&)>{}, true, std::move(probes),
            [](AppDependencies& deps) { deps.audioSystem = createPlatformAudioSystem(); });
        rig->assistant = rig->ui->mainWindow->openSetupAssistant();
        return rig;
    }

private Q_SLOTS:
    void initTestCase()
    {
        PlatformWording::select(WordingPlatform::Linux);
        const QString failure = m_daemon.start();
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
    }

    void cleanupTestCase()
    {
        m_daemon.stop();
        PlatformWording::select(PlatformWording::native());
    }

    void devicesAreMadeRemovedAndKeptOnlyWhenAsked()
    {
        const QStringList madeSinks{
            BrelianDevices::callUID() + QStringLiteral(" s16le 2ch 48000Hz"),
            BrelianDevices::voiceUID() + QStringLiteral(" s16le 2ch 48000Hz")};
        auto rig = openAssistant();
        AppModel& model = *rig->ui->model;
        ui::SetupAssistant* assistant = rig->assistant;
        assistant->showStep(0);
        QLabel* state = nullptr;
        for (QLabel* label : assistant->findChildren<QLabel*>()) {
            if (label->accessibleName() == QStringLiteral("Module audio"))
                state = label;
        }
        QVERIFY(state);
        QCOMPARE(state->text(), QStringLiteral("✓ Périphériques audio virtuels présents"));
        button(assistant, QStringLiteral("&Vérifier à nouveau"))->click();
        QCOMPARE(model.configurationStatus(),
                 QStringLiteral("Les deux périphériques audio virtuels sont prêts."));
        QPushButton* create = button(assistant, QStringLiteral("C&réer les périphériques audio"));
        QPushButton* remove =
            button(assistant, QStringLiteral("Supprimer les périphériques audio"));
        QVERIFY(create && remove);

        // Removed: the step and the readiness list say so, and the proof of the sound is void.
        model.setRoutingConfirmed(true);
        remove->click();
        QCOMPARE(brelianSinks(), QStringList());
        QCOMPARE(model.configurationStatus(),
                 QStringLiteral("Périphériques audio virtuels supprimés. Vos autres "
                                "périphériques n’ont pas changé."));
        QVERIFY(!model.routingConfirmed());
        QCOMPARE(state->text(), QStringLiteral("✗ Périphériques audio virtuels absents : cliquez "
                                               "sur Créer les périphériques audio."));
        QVERIFY(model.readinessIssues().contains(QStringLiteral("Créer les périphériques audio")));

        create->click();
        QCOMPARE(brelianSinks(), madeSinks);
        QCOMPARE(model.configurationStatus(),
                 QStringLiteral("Périphériques audio virtuels créés : « Brelian — Appel vers "
                                "IA » et « Brelian — IA vers appel »."));
        QCOMPARE(state->text(), QStringLiteral("✓ Périphériques audio virtuels présents"));

        // A device of ours left at another rate would make the softphone send silence: the
        // check says so although a device of that name is there, and creating makes it again.
        QVERIFY(!pulse::PulseVirtualDevices(rig->config.path()).remove());
        QVERIFY(m_daemon.loadNullSink(BrelianDevices::callUID(), QStringLiteral("Ancien"), 44100,
                                      2) >= 0);
        QVERIFY(m_daemon.loadNullSink(BrelianDevices::voiceUID(), QStringLiteral("Ancien"), 48000,
                                      2) >= 0);
        button(assistant, QStringLiteral("&Vérifier à nouveau"))->click();
        QCOMPARE(model.configurationStatus(),
                 QStringLiteral("L’appareil audio virtuel « Brelian — Appel vers IA » n’est pas "
                                "en 48 kHz stéréo : supprimez-le puis créez-le à nouveau."));
        QVERIFY(create->isEnabled() && remove->isEnabled());
        create->click();
        QCOMPARE(brelianSinks(), madeSinks);
        QCOMPARE(model.configurationStatus(),
                 QStringLiteral("Périphériques audio virtuels créés : « Brelian — Appel vers "
                                "IA » et « Brelian — IA vers appel »."));

        // Nothing was written in the user's configuration until the box is ticked.
        QVERIFY(QDir(rig->config.path()).isEmpty());
        auto* keep = assistant->findChild<QCheckBox*>();
        QVERIFY(keep && !keep->isChecked());
        keep->click();
        QVERIFY(keep->isChecked());
        const QString dropIn = pulse::PulseVirtualDevices(rig->config.path()).pulseDropIn();
        QVERIFY(QFile::exists(dropIn));
        QCOMPARE(model.configurationStatus(),
                 QStringLiteral("Les périphériques audio virtuels seront recréés à chaque "
                                "démarrage du serveur de son (") +
                     dropIn + QStringLiteral(")."));
        keep->click();
        QVERIFY(!keep->isChecked());
        QVERIFY(!QFile::exists(dropIn));
    }

    void phoneStepRoutesTheSoftphoneForAMomentOnly()
    {
        auto rig = openAssistant();
        AppModel& model = *rig->ui->model;
        ui::SetupAssistant* assistant = rig->assistant;
        assistant->showStep(3);
        QVERIFY(!button(assistant, QStringLiteral("Préparer la liaison")));
        QPushButton* check =
            button(assistant, QStringLiteral("Vérifier le &son du logiciel de téléphonie"));
        QVERIFY(check);
        QCOMPARE(model.nativeAudioStatus(),
                 QStringLiteral("Son du logiciel de téléphonie pas encore vérifié"));

        {
            // Twinkle's call stream is moved and put back; the user's music never moves.
            PlaybackStream phone(QStringLiteral("twinkle"), QStringLiteral("phone"));
            PlaybackStream music(QStringLiteral("Lecteur"), QStringLiteral("music"));
            QTRY_COMPARE_WITH_TIMEOUT(sinkOf(phone), QStringLiteral("vemira.desk"), 5000);
            QTRY_COMPARE_WITH_TIMEOUT(sinkOf(music), QStringLiteral("vemira.desk"), 5000);
            check->click();
            QCOMPARE(model.nativeAudioStatus(),
                     QStringLiteral("Son du logiciel de téléphonie vérifié : 1 flux dirigé vers "
                                    "Vemira puis remis en place. Ce sera fait ainsi à chaque "
                                    "appel."));
            QCOMPARE(sinkOf(phone), QStringLiteral("vemira.desk"));
            QCOMPARE(sinkOf(music), QStringLiteral("vemira.desk"));
        }

        // No stream open yet (softphones open theirs at answer time): the step says what will
        // happen then.
        QTRY_COMPARE_WITH_TIMEOUT(m_daemon.streamCount(), 0, 5000);
        check->click();
        QVERIFY2(model.nativeAudioStatus().startsWith(
                     QStringLiteral("Les périphériques sont prêts. Votre logiciel de téléphonie "
                                    "n’a pas de son ouvert pour l’instant")),
                 qPrintable(model.nativeAudioStatus()));

        // Without the devices there is nothing to route to: the user is sent to the first step.
        rig->ui->setup->removeDevices();
        check->click();
        QCOMPARE(model.nativeAudioStatus(), PlatformWording::current().devicesMissing);
        rig->ui->setup->createDevices();
        QCOMPARE(brelianSinks().size(), 2);
    }
};

QTEST_MAIN(LinuxSoundSetupTest)
#include "tst_linux_sound_setup.moc"
