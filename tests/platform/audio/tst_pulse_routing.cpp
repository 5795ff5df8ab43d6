// The phone application's call streams moved onto the virtual devices and back, against a
// real PulseAudio daemon with real client streams (pacat), some of which must not move.
#include "audio/SoundDevice.h"
#include "platform/linux/audio/PulseStreamRouter.h"
#include "support/PulseDaemon.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <memory>

using namespace vemira;
using vemira::pulse::isCallStream;

namespace {

// One client stream of its own process, with the properties a softphone or a music player sets.
class ClientStream {
public:
    ClientStream(bool capture, const QString& application, const QString& role)
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        if (!role.isEmpty())
            env.insert(QStringLiteral("PULSE_PROP"), QStringLiteral("media.role=") + role);
        m_process.setProcessEnvironment(env);
        const QStringList common{QStringLiteral("--raw"),
                                 QStringLiteral("--client-name=") + application};
        if (capture) {
            m_process.setStandardOutputFile(QProcess::nullDevice());
            m_process.start(QStringLiteral("pacat"),
                            QStringList{QStringLiteral("--record")} + common);
        } else {
            m_process.setStandardInputFile(QStringLiteral("/dev/zero"));
            m_process.start(QStringLiteral("pacat"),
                            QStringList{QStringLiteral("--playback")} + common);
        }
        m_process.waitForStarted();
    }
    ~ClientStream() { close(); }
    void close()
    {
        m_process.kill();
        m_process.waitForFinished();
    }
    qint64 pid() const { return m_process.processId(); }

private:
    QProcess m_process;
};

} // namespace

class PulseRoutingTest : public QObject {
    Q_OBJECT

private:
    PulseDaemon m_daemon;

    QJsonArray list(const char* what) const
    {
        return QJsonDocument::fromJson(m_daemon
                                           .pactl({QStringLiteral("-f"), QStringLiteral("json"),
                                                   QStringLiteral("list"), QLatin1String(what)})
                                           .toUtf8())
            .array();
    }

    // The server's description of the stream of this process; empty while it has none.
    QJsonObject streamOf(const ClientStream& stream, bool capture) const
    {
        for (const QJsonValue s : list(capture ? "source-outputs" : "sink-inputs")) {
            const QJsonObject props = s[QStringLiteral("properties")].toObject();
            if (props[QStringLiteral("application.process.id")].toString().toLongLong() ==
                stream.pid())
                return s.toObject();
        }
        return {};
    }

    // Name of the sink (or source) the stream is on; empty while it has none.
    QString placeOf(const ClientStream& stream, bool capture) const
    {
        const QJsonObject found = streamOf(stream, capture);
        if (found.isEmpty())
            return QString();
        const int device = found[QLatin1String(capture ? "source" : "sink")].toInt();
        for (const QJsonValue d : list(capture ? "sources" : "sinks")) {
            if (d[QStringLiteral("index")].toInt() == device)
                return d[QStringLiteral("name")].toString();
        }
        return QString();
    }

    bool hasClient(const QString& name) const
    {
        for (const QJsonValue c : list("clients")) {
            if (c[QStringLiteral("properties")][QStringLiteral("application.name")].toString() ==
                name)
                return true;
        }
        return false;
    }

    void waitPlaced(const ClientStream& stream, bool capture) const
    {
        QTRY_VERIFY_WITH_TIMEOUT(!placeOf(stream, capture).isEmpty(), 5000);
    }

    // The user moves a stream. pactl leaves at once, which can lose the move on pipewire-pulse:
    // asked again until it shows.
    bool userMoves(const ClientStream& stream, bool capture, const QString& to) const
    {
        if (placeOf(stream, capture) == to)
            return true;
        m_daemon.pactl({QLatin1String(capture ? "move-source-output" : "move-sink-input"),
                        QString::number(streamOf(stream, capture)[QStringLiteral("index")].toInt()),
                        to});
        return placeOf(stream, capture) == to;
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString failure = m_daemon.start();
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
    }

    void cleanupTestCase() { m_daemon.stop(); }

    // Process id first, then names; a stream with another role stays out of the call.
    void recognisesTheCallStreams()
    {
        const PhoneStreamOwner twinkle{4242, {QStringLiteral("twinkle")}};
        QVERIFY(isCallStream({4242, QStringLiteral("ALSA plug-in [twinkle]"), {}, {}}, twinkle));
        QVERIFY(isCallStream({1, {}, QStringLiteral("Twinkle"), QStringLiteral("phone")}, twinkle));
        QVERIFY(!isCallStream({4242, {}, {}, QStringLiteral("event")}, twinkle));
        QVERIFY(
            !isCallStream({1, QStringLiteral("Firefox"), QStringLiteral("firefox"), {}}, twinkle));
        const PhoneStreamOwner unnamed{0, {QString()}};
        QVERIFY(!isCallStream({0, {}, {}, {}}, unnamed));
    }

    // The whole call: the softphone's speaker and microphone streams move, one opened after
    // the answer too; the user's music and the softphone's event sound stay; at the end each
    // goes back, except the one the user moved meanwhile; nothing moves after the call.
    void routesOnlyTheSoftphoneForTheCall()
    {
        const QString phone = QStringLiteral("softtest");
        const QString role = QStringLiteral("phone");
        ClientStream speaker(false, phone, role);
        ClientStream music(false, QStringLiteral("Lecteur"), QStringLiteral("music"));
        ClientStream chime(false, phone, QStringLiteral("event"));
        ClientStream recorder(true, QStringLiteral("Dictaphone"), {});
        for (const ClientStream* s : {&speaker, &music, &chime})
            waitPlaced(*s, false);
        waitPlaced(recorder, true);

        const QString desk = QStringLiteral("vemira.desk");
        const QString deskMonitor = QStringLiteral("vemira.desk.monitor");
        const QString call = BrelianDevices::callUID();
        const QString voiceMonitor = BrelianDevices::voiceUID() + QStringLiteral(".monitor");

        pulse::PulseStreamRouter router;
        QVERIFY(!router.route({speaker.pid(), {QStringLiteral("SOFTTEST")}}, call,
                              BrelianDevices::voiceUID()));
        QVERIFY(router.routing());
        QVERIFY(hasClient(QStringLiteral("Vemira")));
        QCOMPARE(placeOf(speaker, false), call);
        QCOMPARE(placeOf(music, false), desk);
        QCOMPARE(placeOf(chime, false), desk);
        QCOMPARE(placeOf(recorder, true), deskMonitor);

        // Opened at answer time, after routing began.
        ClientStream microphone(true, phone, role);
        QTRY_COMPARE_WITH_TIMEOUT(placeOf(microphone, true), voiceMonitor, 5000);
        ClientStream late(false, phone, {});
        QTRY_COMPARE_WITH_TIMEOUT(placeOf(late, false), call, 5000);
        // A second route() while routing changes nothing.
        QVERIFY(!router.route({1, {}}, call, BrelianDevices::voiceUID()));
        QCOMPARE(router.counts().moved, 3);

        // The user sends one stream elsewhere; the softphone closes another.
        QTRY_VERIFY(userMoves(late, false, BrelianDevices::voiceUID()));
        const int streams = m_daemon.streamCount();
        speaker.close();
        QTRY_COMPARE(m_daemon.streamCount(), streams - 1);

        router.release();
        QVERIFY(!router.routing());
        QCOMPARE(router.counts(), (PhoneRoutingCounts{3, 1, 1, 1}));
        QCOMPARE(placeOf(microphone, true), deskMonitor);
        QCOMPARE(placeOf(late, false), BrelianDevices::voiceUID());
        QCOMPARE(placeOf(music, false), desk);

        // Nothing moves after the call: the router has left the server before a new stream.
        QTRY_VERIFY(!hasClient(QStringLiteral("Vemira")));
        ClientStream after(false, phone, role);
        waitPlaced(after, false);
        QCOMPARE(placeOf(after, false), desk);
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
        const QString remembering = m_daemon.pactl(
            {QStringLiteral("load-module"), QStringLiteral("module-stream-restore")});
        const int headset = m_daemon.loadNullSink(QStringLiteral("vemira.headset"),
                                                  QStringLiteral("Casque"), 48000, 2);
        QVERIFY(headset >= 0);
        const QString headsetMonitor = QStringLiteral("vemira.headset.monitor");
        const QString desk = QStringLiteral("vemira.desk");
        const QString phone = QStringLiteral("softring");
        const QString microphoneApp = QStringLiteral("softmic");
        {
            // The user once sent the softphone's microphone to the headset; an earlier call
            // left its ring on the call device.
            ClientStream earlier(true, microphoneApp, {});
            waitPlaced(earlier, true);
            QTRY_VERIFY(userMoves(earlier, true, headsetMonitor));
            ClientStream ring(false, phone, QStringLiteral("phone"));
            waitPlaced(ring, false);
            QTRY_VERIFY(userMoves(ring, false, BrelianDevices::callUID()));
        }
        for (const bool closesFirst : {true, false}) {
            auto speaker = std::make_unique<ClientStream>(false, phone, QStringLiteral("phone"));
            auto microphone = std::make_unique<ClientStream>(true, microphoneApp, QString());
            waitPlaced(*speaker, false);
            QTRY_COMPARE(placeOf(*microphone, true), headsetMonitor);

            pulse::PulseStreamRouter router;
            QVERIFY(!router.route({0, {phone, microphoneApp}}, BrelianDevices::callUID(),
                                  BrelianDevices::voiceUID()));
            QCOMPARE(placeOf(*speaker, false), BrelianDevices::callUID());
            QCOMPARE(placeOf(*microphone, true),
                     BrelianDevices::voiceUID() + QStringLiteral(".monitor"));
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
                QTRY_COMPARE(placeOf(*speaker, false), desk);
                QTRY_COMPARE(placeOf(*microphone, true), headsetMonitor);
            }
            speaker.reset();
            microphone.reset();

            ClientStream nextRing(false, phone, QStringLiteral("phone"));
            ClientStream nextMicrophone(true, microphoneApp, {});
            waitPlaced(nextRing, false);
            waitPlaced(nextMicrophone, true);
            QCOMPARE(placeOf(nextRing, false), desk);
            QCOMPARE(placeOf(nextMicrophone, true), headsetMonitor);
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
        QVERIFY2(!QStandardPaths::findExecutable(QStringLiteral("pw-play")).isEmpty(),
                 "pw-play is needed (apt package pipewire-bin)");
        QProcess native;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("PIPEWIRE_REMOTE"),
                   m_daemon.folder() + QStringLiteral("/pipewire-0"));
        native.setProcessEnvironment(env);
        // Ten seconds of silence from a file: a pipe left unfed while the router works would
        // starve the player, and the stream with it.
        const QByteArray header("RIFF\xff\xff\xff\x7fWAVEfmt \x10\0\0\0\x01\0\x02\0\x80\xbb\0\0"
                                "\0\xee\x02\0\x04\0\x10\0data\xff\xff\xff\x7f",
                                44);
        QTemporaryDir folder;
        QFile silence(folder.filePath(QStringLiteral("silence.wav")));
        QVERIFY(silence.open(QIODevice::WriteOnly));
        silence.write(header + QByteArray(10 * 48000 * 4, '\0'));
        silence.close();
        native.start(QStringLiteral("pw-play"),
                     {QStringLiteral("--media-role=Communication"), silence.fileName()});
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
        const Status failure = router.route({1, {}}, QStringLiteral("com.brelian.missing"),
                                            BrelianDevices::voiceUID());
        QVERIFY(failure);
        QCOMPARE(failure->message(),
                 QStringLiteral("Les appareils audio virtuels « Brelian » sont introuvables : "
                                "créez-les dans l’assistant de configuration."));
        QVERIFY(!router.routing());
    }
};

QTEST_GUILESS_MAIN(PulseRoutingTest)
#include "tst_pulse_routing.moc"
