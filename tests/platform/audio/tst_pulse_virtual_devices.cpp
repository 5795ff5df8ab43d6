// The virtual call devices made, checked and removed by the application on a real PulseAudio
// daemon, and the start-up file that makes them again, proved by starting a daemon with it.
#include "audio/AudioSystem.h"
#include "audio/SoundDevice.h"
#include "platform/linux/audio/PulseVirtualDevices.h"
#include "support/PulseDaemon.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace vemira;
using vemira::pulse::PulseVirtualDevices;

class PulseVirtualDevicesTest : public QObject {
    Q_OBJECT

private:
    PulseDaemon m_daemon;
    QTemporaryDir m_config;

    // Sink name → "description channels rate" of the server this process talks to (the
    // description as the application lists it; pactl's JSON output mangles non-ASCII text).
    // The sample format is the server's own choice: s16le on PulseAudio, float32le on PipeWire.
    static QMap<QString, QString> sinksOf(const QString& shortList)
    {
        QMap<QString, QString> names;
        for (const SoundDevice& device : createPlatformAudioSystem()->devices())
            names.insert(device.uid, device.name);
        QMap<QString, QString> sinks;
        for (const QString& line : shortList.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            const QStringList fields = line.split(QLatin1Char('\t'));
            if (fields.size() >= 4)
                sinks.insert(fields.at(1), names.value(fields.at(1)) + QLatin1Char(' ') +
                                               fields.at(3).section(QLatin1Char(' '), 1));
        }
        return sinks;
    }

    QMap<QString, QString> sinks() const
    {
        return sinksOf(m_daemon.pactl({u"list"_s, u"short"_s, u"sinks"_s}));
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString failure = m_daemon.start();
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        QVERIFY(m_config.isValid());
    }

    // Removed and made again without touching the user's own virtual cable or defaults, at the
    // driver's format and names; a device of another format is reported.
    void makesChecksAndRemovesOnlyItsDevices()
    {
        PulseVirtualDevices devices(m_config.path());
        QVERIFY(!devices.check());
        const int cable = m_daemon.loadNullSink(u"user.cable"_s, u"Câble virtuel"_s, 44100, 1);
        QVERIFY(cable >= 0);
        QVERIFY(!m_daemon.pactl({u"set-default-sink"_s, u"user.cable"_s}).isNull());
        // pipewire-pulse shows a default set by another client a moment after acknowledging it.
        QTRY_COMPARE(m_daemon.defaultSink(), u"user.cable"_s);

        QVERIFY(!devices.remove());
        QCOMPARE(sinks().keys(), (QStringList{u"user.cable"_s, u"vemira.desk"_s}));
        QCOMPARE(devices.check()->message(),
                 u"L’appareil audio virtuel « Brelian — Appel vers IA » n’existe "
                 u"pas encore."_s);
        QVERIFY(!devices.remove()); // nothing left to remove is no failure

        QVERIFY(!devices.create());
        QVERIFY(!devices.create()); // made once only
        QMap<QString, QString> made;
        QTRY_COMPARE((made = sinks()).size(), 4);
        QCOMPARE(made.value(BrelianDevices::callUID()), u"Brelian — Appel vers IA 2ch 48000Hz"_s);
        QCOMPARE(made.value(BrelianDevices::voiceUID()), u"Brelian — IA vers appel 2ch 48000Hz"_s);
        QVERIFY(!devices.check());
        QCOMPARE(m_daemon.defaultSink(), u"user.cable"_s);
        QCOMPARE(m_daemon.defaultSource(), u"vemira.desk.monitor"_s);

        // A device left at another rate makes a softphone send silence: say so.
        QVERIFY(!devices.remove());
        const int odd = m_daemon.loadNullSink(BrelianDevices::callUID(), u"Ancien"_s, 44100, 2);
        QVERIFY(odd >= 0);
        QVERIFY(!devices.create());
        QCOMPARE(devices.check()->message(),
                 u"L’appareil audio virtuel « Brelian — Appel vers IA » n’est pas "
                 u"en 48 kHz stéréo : supprimez-le puis créez-le à nouveau."_s);
        QVERIFY(!devices.remove());
        QVERIFY(!devices.create());
        QVERIFY(!devices.check());
        QVERIFY(m_daemon.unloadModule(cable));
    }

    // The start-up file keeps the user's own script, is included once, and a server started
    // with it has both devices; forgetting it removes it. On PipeWire the file is a
    // pipewire-pulse drop-in, proved by a fresh PipeWire that reads it.
    void persistsForTheNextStartOnlyWhenAsked()
    {
        PulseVirtualDevices devices(m_config.path());
        QVERIFY(!devices.persistent());
        const bool pipewire = m_daemon.isPipeWire();
        const QString userScript = m_config.filePath(u"pulse/default.pa"_s);
        QVERIFY(QDir().mkpath(m_config.filePath(u"pulse"_s)));
        {
            QFile file(userScript);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(".include /etc/pulse/default.pa\nload-module module-echo-cancel");
        }
        const Result<QString> written = devices.persist();
        QVERIFY(written.ok());
        QCOMPARE(written.value(), pipewire ? devices.pipewireDropIn() : devices.pulseDropIn());
        QVERIFY(devices.persist().ok());
        QVERIFY(devices.persistent());

        QMap<QString, QString> started;
        const QByteArray ours = qgetenv("PULSE_SERVER");
        const auto readSinks = [&started](const QProcessEnvironment& env) {
            QProcess pactl;
            pactl.setProcessEnvironment(env);
            pactl.start(u"pactl"_s, {u"list"_s, u"short"_s, u"sinks"_s});
            pactl.waitForFinished();
            started = sinksOf(QString::fromUtf8(pactl.readAllStandardOutput()));
            return started.size() == 2;
        };
        if (pipewire) {
            PulseDaemon fresh;
            const QString failure = fresh.start(written.value());
            QVERIFY2(failure.isEmpty(), qPrintable(failure));
            QTRY_VERIFY_WITH_TIMEOUT(readSinks(QProcessEnvironment::systemEnvironment()), 10000);
            fresh.stop();
        } else {
            QFile script(userScript);
            QVERIFY(script.open(QIODevice::ReadOnly));
            const QByteArray text = script.readAll();
            QVERIFY(text.startsWith(
                ".include /etc/pulse/default.pa\nload-module module-echo-cancel\n"));
            const QByteArray folder = QFileInfo(devices.pulseDropIn()).absolutePath().toUtf8();
            QCOMPARE(text.count(".include " + folder), 1);

            // A fresh daemon that runs the drop-in.
            QTemporaryDir runtime(QDir::temp().filePath(u"vpp-XXXXXX"_s));
            const QString socket = runtime.filePath(u"native"_s);
            const QString start = runtime.filePath(u"start.pa"_s);
            {
                QFile file(start);
                QVERIFY(file.open(QIODevice::WriteOnly));
                file.write("load-module module-native-protocol-unix auth-anonymous=1 socket=" +
                           socket.toUtf8() + "\n.include " + devices.pulseDropIn().toUtf8() + "\n");
            }
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.insert(u"XDG_RUNTIME_DIR"_s, runtime.path());
            env.insert(u"PULSE_SERVER"_s, u"unix:"_s + socket);
            QProcess daemon;
            daemon.setProcessEnvironment(env);
            daemon.start(u"pulseaudio"_s, {u"-n"_s, u"-F"_s, start, u"--exit-idle-time=-1"_s,
                                           u"--daemonize=no"_s, u"--system=no"_s});
            QVERIFY(daemon.waitForStarted());
            qputenv("PULSE_SERVER", env.value(u"PULSE_SERVER"_s).toUtf8());
            QTRY_VERIFY_WITH_TIMEOUT(readSinks(env), 10000);
            daemon.terminate();
            daemon.waitForFinished();
        }
        qputenv("PULSE_SERVER", ours);
        QCOMPARE(started.value(BrelianDevices::callUID()),
                 u"Brelian — Appel vers IA 2ch 48000Hz"_s);
        QCOMPARE(started.value(BrelianDevices::voiceUID()),
                 u"Brelian — IA vers appel 2ch 48000Hz"_s);

        QVERIFY(!devices.forget());
        QVERIFY(!devices.persistent());
        QVERIFY(!QFile::exists(written.value()));
    }
};

QTEST_GUILESS_MAIN(PulseVirtualDevicesTest)
#include "tst_pulse_virtual_devices.moc"
