// The phone application's call streams moved onto the virtual devices and back, against a
// real PulseAudio daemon with real client streams (pacat), some of which must not move.
#include "PulseDaemon.h"
#include "audio/SoundDevice.h"
#include "platform/linux/audio/PulseStreamRouter.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTest>
#include <memory>

using namespace vemira;
using vemira::pulse::isCallStream;
using vemira::pulse::StreamFacts;

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
        for (const QJsonValue& s : list(capture ? "source-outputs" : "sink-inputs")) {
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
        for (const QJsonValue& d : list(capture ? "sources" : "sinks")) {
            if (d[QStringLiteral("index")].toInt() == device)
                return d[QStringLiteral("name")].toString();
        }
        return QString();
    }

    void waitPlaced(const ClientStream& stream, bool capture) const
    {
        QTRY_VERIFY_WITH_TIMEOUT(!placeOf(stream, capture).isEmpty(), 5000);
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
        QVERIFY(
            !m_daemon
                 .pactl({QStringLiteral("move-sink-input"),
                         QString::number(streamOf(late, false)[QStringLiteral("index")].toInt()),
                         BrelianDevices::voiceUID()})
                 .isNull());
        QTRY_COMPARE(placeOf(late, false), BrelianDevices::voiceUID());
        const int streams = m_daemon.streamCount();
        speaker.close();
        QTRY_COMPARE(m_daemon.streamCount(), streams - 1);

        router.release();
        QVERIFY(!router.routing());
        QCOMPARE(router.counts(), (PhoneRoutingCounts{3, 1, 1, 1}));
        QCOMPARE(placeOf(microphone, true), deskMonitor);
        QCOMPARE(placeOf(late, false), BrelianDevices::voiceUID());
        QCOMPARE(placeOf(music, false), desk);

        ClientStream after(false, phone, role);
        waitPlaced(after, false);
        QTest::qWait(300);
        QCOMPARE(placeOf(after, false), desk);
        router.release(); // twice is harmless
    }

    // The server remembers where an application's streams were last moved and puts its next
    // streams there. After the call the softphone's next ring must be heard where it was
    // before: on the default device when nothing was remembered, on the remembered one else.
    void theSoftphonesNextStreamsGoWhereTheyWentBeforeTheCall()
    {
        const QString remembering = m_daemon.pactl(
            {QStringLiteral("load-module"), QStringLiteral("module-stream-restore")});
        QVERIFY(!remembering.isNull());
        const int headset = m_daemon.loadNullSink(QStringLiteral("vemira.headset"),
                                                  QStringLiteral("Casque"), 48000, 2);
        QVERIFY(headset >= 0);
        const QString headsetMonitor = QStringLiteral("vemira.headset.monitor");
        const QString phone = QStringLiteral("softring");
        const QString microphoneApp = QStringLiteral("softmic");
        {
            // The user once sent the softphone's microphone to the headset.
            ClientStream earlier(true, microphoneApp, {});
            waitPlaced(earlier, true);
            m_daemon.pactl(
                {QStringLiteral("move-source-output"),
                 QString::number(streamOf(earlier, true)[QStringLiteral("index")].toInt()),
                 headsetMonitor});
            QTRY_COMPARE(placeOf(earlier, true), headsetMonitor);
        }
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
        // The softphone hangs up and closes its streams before Vemira gives them back.
        const int streams = m_daemon.streamCount();
        speaker.reset();
        microphone.reset();
        QTRY_COMPARE(m_daemon.streamCount(), streams - 2);
        router.release();
        QCOMPARE(router.counts().closed, 2);

        ClientStream nextRing(false, phone, QStringLiteral("phone"));
        ClientStream nextMicrophone(true, microphoneApp, {});
        waitPlaced(nextRing, false);
        waitPlaced(nextMicrophone, true);
        QCOMPARE(placeOf(nextRing, false), QStringLiteral("vemira.desk"));
        QCOMPARE(placeOf(nextMicrophone, true), headsetMonitor);

        nextMicrophone.close();
        QVERIFY(m_daemon.unloadModule(headset));
        QVERIFY(m_daemon.unloadModule(remembering.toInt()));
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
