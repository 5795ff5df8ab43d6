// The phone application's call streams moved onto the virtual devices and back, against a
// real PulseAudio daemon with real client streams (pacat), some of which must not move.
#include "audio/SoundDevice.h"
#include "platform/linux/audio/PulseStreamRouter.h"
#include "support/PulseDaemon.h"

#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <memory>

using namespace Qt::StringLiterals;
using namespace vemira;
using vemira::pulse::isCallStream;

class PulseRoutingTest : public QObject {
    Q_OBJECT

private:
    PulseDaemon m_daemon;

    bool hasClient(const QString& name) const
    {
        for (const QJsonValue c : m_daemon.list(u"clients"_s)) {
            if (c[u"properties"_s][u"application.name"_s].toString() == name)
                return true;
        }
        return false;
    }

    void waitPlaced(const ClientStream& stream) const
    {
        QTRY_VERIFY_WITH_TIMEOUT(!m_daemon.placeOf(stream).isEmpty(), 5000);
    }

    // The user moves a stream. pactl leaves at once, which can lose the move on pipewire-pulse:
    // asked again until it shows.
    bool userMoves(const ClientStream& stream, const QString& to) const
    {
        if (m_daemon.placeOf(stream) == to)
            return true;
        m_daemon.pactl({stream.capture() ? u"move-source-output"_s : u"move-sink-input"_s,
                        QString::number(m_daemon.streamOf(stream)[u"index"_s].toInt()), to});
        return m_daemon.placeOf(stream) == to;
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString failure = m_daemon.start();
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
    }

    // Process id first, then names; a stream with another role stays out of the call.
    void recognisesTheCallStreams()
    {
        const PhoneStreamOwner twinkle{4242, {u"twinkle"_s}};
        QVERIFY(isCallStream({4242, u"ALSA plug-in [twinkle]"_s, {}, {}}, twinkle));
        QVERIFY(isCallStream({1, {}, u"Twinkle"_s, u"phone"_s}, twinkle));
        QVERIFY(!isCallStream({4242, {}, {}, u"event"_s}, twinkle));
        QVERIFY(!isCallStream({1, u"Firefox"_s, u"firefox"_s, {}}, twinkle));
        const PhoneStreamOwner unnamed{0, {QString()}};
        QVERIFY(!isCallStream({0, {}, {}, {}}, unnamed));
    }

    // The whole call: the softphone's speaker and microphone streams move, one opened after
    // the answer too; the user's music and the softphone's event sound stay; at the end each
    // goes back, except the one the user moved meanwhile; nothing moves after the call.
    void routesOnlyTheSoftphoneForTheCall()
    {
        const QString phone = u"softtest"_s;
        const QString role = u"phone"_s;
        ClientStream speaker(false, phone, role);
        ClientStream music(false, u"Lecteur"_s, u"music"_s);
        ClientStream chime(false, phone, u"event"_s);
        ClientStream recorder(true, u"Dictaphone"_s, {});
        for (const ClientStream* s : {&speaker, &music, &chime})
            waitPlaced(*s);
        waitPlaced(recorder);

        const QString desk = u"vemira.desk"_s;
        const QString deskMonitor = u"vemira.desk.monitor"_s;
        const QString call = BrelianDevices::callUID();
        const QString voiceMonitor = BrelianDevices::voiceUID() + u".monitor"_s;

        pulse::PulseStreamRouter router;
        QVERIFY(!router.route({speaker.pid(), {u"SOFTTEST"_s}}, call, BrelianDevices::voiceUID()));
        QVERIFY(router.routing());
        QVERIFY(hasClient(u"Vemira"_s));
        QCOMPARE(m_daemon.placeOf(speaker), call);
        QCOMPARE(m_daemon.placeOf(music), desk);
        QCOMPARE(m_daemon.placeOf(chime), desk);
        QCOMPARE(m_daemon.placeOf(recorder), deskMonitor);

        // Opened at answer time, after routing began.
        ClientStream microphone(true, phone, role);
        QTRY_COMPARE_WITH_TIMEOUT(m_daemon.placeOf(microphone), voiceMonitor, 5000);
        ClientStream late(false, phone, {});
        QTRY_COMPARE_WITH_TIMEOUT(m_daemon.placeOf(late), call, 5000);
        // A second route() while routing changes nothing.
        QVERIFY(!router.route({1, {}}, call, BrelianDevices::voiceUID()));
        QCOMPARE(router.counts().moved, 3);

        // The user sends one stream elsewhere; the softphone closes another.
        QTRY_VERIFY(userMoves(late, BrelianDevices::voiceUID()));
        const int streams = m_daemon.streamCount();
        speaker.close();
        QTRY_COMPARE(m_daemon.streamCount(), streams - 1);

        router.release();
        QVERIFY(!router.routing());
        QCOMPARE(router.counts(), (PhoneRoutingCounts{3, 1, 1, 1}));
        QCOMPARE(m_daemon.placeOf(microphone), deskMonitor);
        QCOMPARE(m_daemon.placeOf(late), BrelianDevices::voiceUID());
        QCOMPARE(m_daemon.placeOf(music), desk);

        // Nothing moves after the call: the router has left the server before a new stream.
        QTRY_VERIFY(!hasClient(u"Vemira"_s));
        ClientStream after(false, phone, role);
        waitPlaced(after);
        QCOMPARE(m_daemon.placeOf(after), desk);
        router.release(); // twice is harmless
    }

    // The server remembers where a role's or an application's streams were last moved and puts
    // its next streams there (PulseAudio's stream-restore, loaded here as desktops do;
    // WirePlumber's state on PipeWire). After the call the softphone's next ring must be heard
    // where it was before: on the default device when nothing was remembered, on the
    // remembered one else; also when the softphone closed its streams before the end, and when
    // an earlier call's memory had already put its stream on the call device.
    void theSoftphonesNextStreamsGoWhereTheyWentBeforeTheCall()
    {
        const QString remembering = m_daemon.pactl({u"load-module"_s, u"module-stream-restore"_s});
        const int headset = m_daemon.loadNullSink(u"vemira.headset"_s, u"Casque"_s, 48000, 2);
        QVERIFY(headset >= 0);
        const QString headsetMonitor = u"vemira.headset.monitor"_s;
        const QString desk = u"vemira.desk"_s;
        const QString phone = u"softring"_s;
        const QString microphoneApp = u"softmic"_s;
        {
            // The user once sent the softphone's microphone to the headset; an earlier call
            // left its ring on the call device.
            ClientStream earlier(true, microphoneApp, {});
            waitPlaced(earlier);
            QTRY_VERIFY(userMoves(earlier, headsetMonitor));
            ClientStream ring(false, phone, u"phone"_s);
            waitPlaced(ring);
            QTRY_VERIFY(userMoves(ring, BrelianDevices::callUID()));
        }
        for (const bool closesFirst : {true, false}) {
            auto speaker = std::make_unique<ClientStream>(false, phone, u"phone"_s);
            auto microphone = std::make_unique<ClientStream>(true, microphoneApp, QString());
            waitPlaced(*speaker);
            QTRY_COMPARE(m_daemon.placeOf(*microphone), headsetMonitor);

            pulse::PulseStreamRouter router;
            QVERIFY(!router.route({0, {phone, microphoneApp}}, BrelianDevices::callUID(),
                                  BrelianDevices::voiceUID()));
            QCOMPARE(m_daemon.placeOf(*speaker), BrelianDevices::callUID());
            QCOMPARE(m_daemon.placeOf(*microphone), BrelianDevices::voiceUID() + u".monitor"_s);
            if (closesFirst) {
                // The softphone hangs up and closes its streams before Vemira gives them back.
                const int streams = m_daemon.streamCount();
                speaker.reset();
                microphone.reset();
                QTRY_COMPARE(m_daemon.streamCount(), streams - 2);
            }
            router.release();
            QCOMPARE(router.counts(),
                     (PhoneRoutingCounts{2, closesFirst ? 0 : 2, closesFirst ? 2 : 0, 0}));
            if (!closesFirst) {
                // The router saw them there; pipewire-pulse shows it to another client a moment
                // later.
                QTRY_COMPARE(m_daemon.placeOf(*speaker), desk);
                QTRY_COMPARE(m_daemon.placeOf(*microphone), headsetMonitor);
            }
            speaker.reset();
            microphone.reset();

            ClientStream nextRing(false, phone, u"phone"_s);
            ClientStream nextMicrophone(true, microphoneApp, {});
            waitPlaced(nextRing);
            waitPlaced(nextMicrophone);
            QCOMPARE(m_daemon.placeOf(nextRing), desk);
            QCOMPARE(m_daemon.placeOf(nextMicrophone), headsetMonitor);
        }

        QVERIFY(m_daemon.unloadModule(headset));
        if (!remembering.isNull())
            QVERIFY(m_daemon.unloadModule(remembering.toInt()));
    }

    // PipeWire's own programs put their process id on the client, not on the stream.
    void findsNativePipeWireStreamsByTheirClient()
    {
        if (!m_daemon.isPipeWire())
            QSKIP("PipeWire only");
        QVERIFY2(!QStandardPaths::findExecutable(u"pw-play"_s).isEmpty(),
                 "pw-play is needed (apt package pipewire-bin)");
        QProcess native;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(u"PIPEWIRE_REMOTE"_s, m_daemon.folder() + u"/pipewire-0"_s);
        native.setProcessEnvironment(env);
        // Ten seconds of silence from a file: a pipe left unfed while the router works would
        // starve the player, and the stream with it.
        const QByteArray header("RIFF\xff\xff\xff\x7fWAVEfmt \x10\0\0\0\x01\0\x02\0\x80\xbb\0\0"
                                "\0\xee\x02\0\x04\0\x10\0data\xff\xff\xff\x7f",
                                44);
        QTemporaryDir folder;
        QFile silence(folder.filePath(u"silence.wav"_s));
        QVERIFY(silence.open(QIODevice::WriteOnly));
        silence.write(header + QByteArray(10 * 48000 * 4, '\0'));
        silence.close();
        native.start(u"pw-play"_s, {u"--media-role=Communication"_s, silence.fileName()});
        QVERIFY(native.waitForStarted());
        pulse::PulseStreamRouter router;
        QVERIFY(!router.route({native.processId(), {}}, BrelianDevices::callUID(),
                              BrelianDevices::voiceUID()));
        QTRY_COMPARE(router.counts().moved, 1);
        router.release();
        QCOMPARE(router.counts().returned, 1);
        native.kill();
        native.waitForFinished();
    }

    // Without the virtual devices there is nothing to route to, and the user is told so.
    void failsWithoutTheVirtualDevices()
    {
        pulse::PulseStreamRouter router;
        const Status failure =
            router.route({1, {}}, u"com.brelian.missing"_s, BrelianDevices::voiceUID());
        QVERIFY(failure);
        QCOMPARE(failure->message(),
                 u"Les appareils audio virtuels « Brelian » sont introuvables : "
                 u"créez-les dans l’assistant de configuration."_s);
        QVERIFY(!router.routing());
    }
};

QTEST_GUILESS_MAIN(PulseRoutingTest)
#include "tst_pulse_routing.moc"
