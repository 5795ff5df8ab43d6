// Device list, transport types and system defaults against a real PulseAudio daemon.
#include "audio/AudioSystem.h"
#include "audio/fakes/CapturedAudio.h"
#include "platform/linux/audio/PulseDeviceTable.h"
#include "support/PulseDaemon.h"

#include <QTest>

using namespace Qt::StringLiterals;
using namespace vemira;
using vemira::testing::byUID;

namespace {
const QString callSink = u"com.brelian.audio.call"_s;
const QString voiceSink = u"com.brelian.audio.voice"_s;
const QString deskSink = u"vemira.desk"_s;
} // namespace

class PulseDevicesTest : public QObject {
    Q_OBJECT

private:
    PulseDaemon m_daemon;
    std::unique_ptr<AudioSystem> m_system;

private Q_SLOTS:
    void initTestCase()
    {
        const QString failure = m_daemon.start();
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        m_system = createPlatformAudioSystem();
    }

    // The virtual devices are duplex, named as the phone application shows them, recognised
    // by uid; ids survive a reload of the device.
    void listsTheVirtualDevicesAsOneDuplexDeviceEach()
    {
        const QList<SoundDevice> devices = m_system->devices();
        QCOMPARE(devices.size(), 3); // desk, call, voice: monitors are folded into their sinks
        const std::optional<BrelianDevices::Pair> pair = BrelianDevices::pair(devices);
        QVERIFY(pair);
        QCOMPARE(pair->call.uid, BrelianDevices::callUID());
        QCOMPARE(pair->call.name, u"Brelian — Appel vers IA"_s);
        QCOMPARE(pair->voice.name, u"Brelian — IA vers appel"_s);
        QVERIFY(pair->call.input && pair->call.output && pair->voice.input && pair->voice.output);
        QVERIFY(pair->call.id != 0 && pair->call.id != pair->voice.id);
        QCOMPARE(m_system->transportType(pair->call.id), AudioTransport::virtualDevice);
        QCOMPARE(m_system->transportType(12345u), std::nullopt);

        // A device unloaded and loaded again keeps its id, and the list its order.
        const int module = m_daemon.loadNullSink(u"vemira.extra"_s, u"Casque USB"_s, 44100, 1);
        QVERIFY(module >= 0);
        const std::optional<SoundDevice> extra = byUID(m_system->devices(), u"vemira.extra"_s);
        QVERIFY(extra);
        QCOMPARE(extra->name, u"Casque USB"_s);
        QVERIFY(m_daemon.unloadModule(module));
        // pipewire-pulse lists another client's change a moment after acknowledging it.
        QTRY_VERIFY(!byUID(m_system->devices(), u"vemira.extra"_s));
        const int again = m_daemon.loadNullSink(u"vemira.extra"_s, u"Casque USB"_s, 44100, 1);
        QTRY_COMPARE(byUID(m_system->devices(), u"vemira.extra"_s), extra);
        QVERIFY(m_daemon.unloadModule(again));
        QTRY_COMPARE(m_system->devices(), devices);
    }

    // What the server flags as hardware is listed as it is: a loudspeaker's monitor is no
    // microphone, and only the machine's own card counts as built-in.
    void mapsServerEndpointsToDevices()
    {
        using namespace vemira::pulse;
        auto endpoint = [](std::uint32_t index, const char* name, bool hardware, const char* bus) {
            ServerEndpoint e;
            e.index = index;
            e.name = name;
            e.description = QString::fromLatin1(name).toUpper();
            e.hardware = hardware;
            e.bus = bus;
            e.sampleSpec = pa_sample_spec{PA_SAMPLE_S16LE, 48000, 2};
            pa_channel_map_init_stereo(&e.channelMap);
            return e;
        };
        ServerEndpoint speakers = endpoint(0, "alsa_output.pci", true, "pci");
        speakers.monitorName = "alsa_output.pci.monitor";
        ServerEndpoint cable = endpoint(1, "cable", false, "");
        cable.monitorName = "cable.monitor";
        ServerEndpoint headset = endpoint(2, "bluez_sink.headset", true, "bluetooth");
        headset.monitorName = "bluez_sink.headset.monitor";
        ServerEndpoint speakersMonitor = endpoint(10, "alsa_output.pci.monitor", false, "pci");
        speakersMonitor.monitorOf = 0;
        ServerEndpoint cableMonitor = endpoint(11, "cable.monitor", false, "");
        cableMonitor.monitorOf = 1;
        ServerEndpoint microphone = endpoint(12, "alsa_input.pci", true, "pci");
        ServerEndpoint webcam = endpoint(13, "alsa_input.usb", true, "usb");
        ServerEndpoint lineIn = endpoint(14, "alsa_input.hdmi", true, "");

        const DeviceTable table = DeviceTable::build(
            {speakers, cable, headset}, {speakersMonitor, cableMonitor, microphone, webcam, lineIn},
            "cable", "cable.monitor");
        const QList<SoundDevice> devices = table.devices();
        QStringList uids;
        for (const SoundDevice& device : devices)
            uids << device.uid;
        QCOMPARE(uids,
                 QStringList({u"alsa_output.pci"_s, u"cable"_s, u"bluez_sink.headset"_s,
                              u"alsa_input.pci"_s, u"alsa_input.usb"_s, u"alsa_input.hdmi"_s}));
        QVERIFY(devices[0].output && !devices[0].input); // speakers: output only
        QVERIFY(devices[1].output && devices[1].input);  // the cable: both ways
        QVERIFY(devices[3].input && !devices[3].output);
        QList<std::uint32_t> transports;
        for (const auto& entry : table.entries)
            transports << entry.transport;
        QCOMPARE(transports,
                 (QList<std::uint32_t>{AudioTransport::builtIn, AudioTransport::virtualDevice,
                                       AudioTransport::bluetooth, AudioTransport::builtIn,
                                       AudioTransport::usb, AudioTransport::unknown}));
        // The default source is the cable's monitor: that is the cable device.
        QCOMPARE(table.idForSource("cable.monitor"), devices[1].id);
        QCOMPARE(table.idForSink("cable"), devices[1].id);
        QCOMPARE(table.entries[1].capture->name, QByteArray("cable.monitor"));
    }

    // Defaults are read and written by id; a write touches only its own selector, a failure
    // carries the exact sentence and the server's status.
    void readsAndWritesTheSystemDefaults()
    {
        const QList<SoundDevice> devices = m_system->devices();
        const std::optional<BrelianDevices::Pair> pair = BrelianDevices::pair(devices);
        const SoundDevice desk = *byUID(devices, deskSink);
        QVERIFY(pair);
        QCOMPARE(m_system->readDefault(AudioSelector::defaultOutput).value(), desk.id);
        QCOMPARE(m_system->readDefault(AudioSelector::defaultInput).value(), desk.id);

        QVERIFY(!m_system->writeDefault(AudioSelector::defaultOutput, pair->voice.id));
        QCOMPARE(m_daemon.defaultSink(), voiceSink);
        QCOMPARE(m_daemon.defaultSource(), deskSink + u".monitor"_s);
        QVERIFY(!m_system->writeDefault(AudioSelector::defaultInput, pair->call.id));
        QCOMPARE(m_daemon.defaultSource(), callSink + u".monitor"_s);
        QCOMPARE(m_daemon.defaultSink(), voiceSink);
        QCOMPARE(m_system->readDefault(AudioSelector::defaultInput).value(), pair->call.id);

        // Someone else changes the default: we read theirs (pipewire-pulse shows another
        // client's default a moment after acknowledging it).
        m_daemon.pactl({u"set-default-sink"_s, deskSink});
        QTRY_COMPARE(m_system->readDefault(AudioSelector::defaultOutput).value(), desk.id);

        const Status unknown = m_system->writeDefault(AudioSelector::defaultOutput, 42u);
        QVERIFY(unknown);
        QCOMPARE(unknown->message(),
                 u"Impossible de préparer le micro ou les haut-parleurs de l’ordinateur (-5)."_s);
        QCOMPARE(m_daemon.defaultSink(), deskSink);

        m_daemon.pactl({u"set-default-source"_s, deskSink + u".monitor"_s});
        QTRY_COMPARE(m_system->readDefault(AudioSelector::defaultInput).value(), desk.id);
    }

    // Without a server, reads and writes fail with their sentences, and the list is empty.
    void failsWithTheSentencesWhenTheServerIsGone()
    {
        const QByteArray saved = qgetenv("PULSE_SERVER");
        qputenv("PULSE_SERVER", "unix:" + QByteArray(m_daemon.folder().toLocal8Bit()) + "/none");
        std::unique_ptr<AudioSystem> orphan = createPlatformAudioSystem();
        QVERIFY(orphan->devices().isEmpty());
        const Result<std::uint32_t> read = orphan->readDefault(AudioSelector::defaultInput);
        QVERIFY(!read);
        QCOMPARE(read.error().message(),
                 u"Impossible de lire le réglage audio de l’ordinateur (-6)."_s);
        const Status write = orphan->writeDefault(AudioSelector::defaultOutput, 1u);
        QVERIFY(write);
        QCOMPARE(write->message(),
                 u"Impossible de préparer le micro ou les haut-parleurs de l’ordinateur (-6)."_s);
        qputenv("PULSE_SERVER", saved);

        // And a system that lost its server picks up the new one by itself.
        QVERIFY(!m_system->devices().isEmpty());
        m_daemon.stop();
        QVERIFY(m_system->devices().isEmpty());
        QVERIFY(m_daemon.start().isEmpty());
        QCOMPARE(m_system->devices().size(), 3);
    }
};

QTEST_GUILESS_MAIN(PulseDevicesTest)
#include "tst_pulse_devices.moc"
