#include "ScriptedRealtimeServer.h"
#include "ai/RealtimeClient.h"
#include "support/Pcm.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSet>
#include <QTest>
#include <memory>

using namespace vemira;
using vemira::testing::pcmChunk;
using vemira::testing::ScriptedRealtimeServer;

namespace {

const QString key = QStringLiteral("sk-test-123");
const QString receiveFailed = QStringLiteral(
    "Connexion à l’IA interrompue. Vérifiez la clé, le modèle et votre accès Internet.");
const QString sendFailed =
    QStringLiteral("Envoi audio interrompu. Vérifiez la connexion Internet.");
const QString tooSlow =
    QStringLiteral("Connexion trop lente pour maintenir la conversation audio.");

QString usageText(const ConversationUsage& usage)
{
    return QStringLiteral("usage %1/%2 pending %3 %4")
        .arg(usage.inputTokens)
        .arg(usage.outputTokens)
        .arg(usage.pendingResponses)
        .arg(usage.model);
}

// Everything the client reports, in order, as readable lines.
struct Recorder {
    QStringList log;
    QStringList errors;
    QList<ConversationUsage> usages;
    QList<QByteArray> audio;
    int ready = 0;

    void attach(RealtimeClient& client)
    {
        client.onReady = [this] {
            ++ready;
            log << QStringLiteral("ready");
        };
        client.onAudio = [this](const QByteArray& pcm) {
            audio << pcm;
            log << QStringLiteral("audio %1").arg(pcm.size());
        };
        client.onTranscript = [this](const QString& speaker, const QString& text) {
            log << speaker + QStringLiteral(" : ") + text;
        };
        client.onInterruption = [this] { log << QStringLiteral("interruption"); };
        client.onError = [this](const QString& message) {
            errors << message;
            log << QStringLiteral("error ") + message;
        };
        client.onUsage = [this](const ConversationUsage& usage) {
            usages << usage;
            log << usageText(usage);
        };
        client.onInstructionsApplied = [this] { log << QStringLiteral("applied"); };
        client.onNotice = [this](const QString& line) { log << QStringLiteral("notice ") + line; };
        client.onAILineCut = [this] { log << QStringLiteral("cut"); };
    }
};

QSet<QByteArray> lowerNames(const ScriptedRealtimeServer::Handshake& handshake)
{
    QSet<QByteArray> names;
    for (const auto& header : handshake.headers)
        names.insert(header.first.toLower());
    return names;
}

} // namespace

class TestRealtimeClient : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<ScriptedRealtimeServer> server;
    ManualClock clock;

    // Connects and waits until the server's confirmation made the client ready.
    void openReady(RealtimeClient& client, Recorder& recorder,
                   const QString& model = QStringLiteral("gpt-realtime"))
    {
        client.connect(key, model, QStringLiteral("marin"), QStringLiteral("Consignes"));
        const int before = recorder.ready;
        QVERIFY(QTest::qWaitFor([&] { return recorder.ready > before; }, 5000));
    }

private Q_SLOTS:
    void init()
    {
        server = std::make_unique<ScriptedRealtimeServer>();
        server->useAsEndpoint();
    }

    void cleanup()
    {
        QVERIFY2(server->violations().isEmpty(), qPrintable(server->violations().join(u'\n')));
        server.reset();
    }

    void upgradeRequestAndSessionConfiguration()
    {
        RealtimeClient client(clock);
        Recorder recorder;
        recorder.attach(client);
        const QString instructions =
            QStringLiteral("Tu es « Vemira », l’assistante.\nRéponds en français — brièvement.");
        client.connect(key, QStringLiteral("gpt-realtime"), QStringLiteral("cedar"), instructions);
        // A fresh counter is shown before anything else happens.
        QCOMPARE(recorder.log, QStringList{QStringLiteral("usage 0/0 pending 0 gpt-realtime")});
        QVERIFY(QTest::qWaitFor([&] { return recorder.ready == 1; }, 5000));

        QCOMPARE(server->connectionCount(), 1);
        const auto& handshake = server->handshakes().first();
        QCOMPARE(handshake.method, QByteArray("GET"));
        QCOMPARE(handshake.target, QByteArray("/v1/realtime?model=gpt-realtime"));
        QCOMPARE(handshake.header("Authorization"), QByteArray("Bearer sk-test-123"));
        // Only what the WebSocket upgrade itself needs, plus the key.
        const QSet<QByteArray> expected{
            "host",         "upgrade", "connection", "sec-websocket-key", "sec-websocket-version",
            "authorization"};
        QCOMPARE(lowerNames(handshake), expected);

        QCOMPARE(server->events().size(), 1);
        const QJsonObject session =
            server->events().first().value(QLatin1String("session")).toObject();
        QCOMPARE(session.value(QLatin1String("instructions")).toString(), instructions);
        QCOMPARE(session.value(QLatin1String("model")).toString(), QStringLiteral("gpt-realtime"));
        QCOMPARE(session[QLatin1String("audio")][QLatin1String("output")][QLatin1String("voice")]
                     .toString(),
                 QStringLiteral("cedar"));
        QVERIFY(client.isReady());
        QVERIFY(recorder.errors.isEmpty());
    }

    void audioFlowsOnlyOnceReadyAndPushesUsageEverySecond()
    {
        server->behaviour().confirmSessions = false;
        RealtimeClient client(clock);
        Recorder recorder;
        recorder.attach(client);
        client.connect(key, QStringLiteral("gpt-realtime"), QStringLiteral("marin"),
                       QStringLiteral("Consignes"));
        QVERIFY(server->waitForEvents(1));

        // Before the session is confirmed, caller audio is thrown away and not billed.
        client.append(pcmChunk(4800, 1));
        QCOMPARE(client.usageMeter().inputSeconds(), 0.0);
        QCOMPARE(client.waitingFrames(), 0);

        server->sendEvent(ScriptedRealtimeServer::sessionUpdated());
        server->sendEvent(ScriptedRealtimeServer::sessionUpdated());
        server->sendEvent(ScriptedRealtimeServer::aiTranscript(QStringLiteral("sync")));
        QVERIFY(QTest::qWaitFor([&] { return recorder.log.size() >= 3; }, 5000));
        QCOMPARE(recorder.ready, 1);

        const qsizetype usagesBefore = recorder.usages.size();
        const QByteArray a = pcmChunk(47'999, 2);
        const QByteArray b = pcmChunk(1, 3);
        const QByteArray c = pcmChunk(48'000, 4);
        const QByteArray d = pcmChunk(4'096, 5);
        client.append(a);
        QCOMPARE(recorder.usages.size(), usagesBefore); // 47,999 bytes: not yet a second
        client.append(b);
        QCOMPARE(recorder.usages.size(), usagesBefore + 1);
        client.append(c);
        QCOMPARE(recorder.usages.size(), usagesBefore + 2);
        client.append(d);
        QCOMPARE(recorder.usages.size(), usagesBefore + 2);
        QCOMPARE(client.usageMeter().inputSeconds(), (47'999 + 1 + 48'000 + 4'096) / 48'000.0);

        QVERIFY(server->waitForEvents(5));
        QCOMPARE(server->receivedAudio(), a + b + c + d);
        QVERIFY(QTest::qWaitFor([&] { return client.waitingFrames() == 0; }, 5000));
        QVERIFY(recorder.errors.isEmpty());
    }

    void serverEventsBecomeCallbacks()
    {
        RealtimeClient client(clock);
        Recorder recorder;
        recorder.attach(client);
        openReady(client, recorder);
        recorder.log.clear();

        const QByteArray voice = pcmChunk(960, 9);
        auto event = [](const char* json) { return QString::fromUtf8(json); };
        server->sendEvent(ScriptedRealtimeServer::audioDelta(voice));
        server->sendText(event(R"({"type":"response.output_audio.delta","delta":"@@@@"})"));
        server->sendText(event(R"({"type":"response.output_audio.delta","delta":"AAE"})"));
        server->sendText(event(R"({"type":"response.output_audio.delta","delta":1234})"));
        server->sendText(event(R"({"type":"response.output_audio.delta"})"));
        server->sendEvent(ScriptedRealtimeServer::aiTranscript(QStringLiteral("Bonjour !")));
        server->sendEvent(
            ScriptedRealtimeServer::callerTranscript(QStringLiteral("J’ai une fuite")));
        // A caller turn the provider could not transcribe still makes its line.
        server->sendEvent(ScriptedRealtimeServer::callerTranscriptFailed(QStringLiteral("i2")));
        server->sendText(
            event(R"({"type":"response.output_audio_transcript.done","transcript":7})"));
        server->sendText(event(
            R"({"type":"conversation.item.input_audio_transcription.completed","transcript":null})"));
        server->sendEvent(ScriptedRealtimeServer::speechStarted());
        server->sendEvent(ScriptedRealtimeServer::responseCreated(QStringLiteral("r1")));
        server->sendText(event(R"({"type":"response.created","response":{"id":42}})"));
        server->sendText(event(R"({"type":"response.created"})"));
        server->sendEvent(ScriptedRealtimeServer::responseDone(QStringLiteral("r1"), 1200, 300));
        server->sendText(event(R"({"type":"response.done","response":{"id":"r2","usage":"n/a"}})"));
        server->sendEvent(ScriptedRealtimeServer::error(QStringLiteral("session_expired")));
        server->sendText(event(R"({"type":"error"})"));
        server->sendText(event(R"({"type":"error","error":{"code":null,"message":"x"}})"));
        server->sendText(event(R"({"type":"error","error":"quota"})"));
        server->sendText(event(R"({"type":"rate_limits.updated","rate_limits":[]})"));
        server->sendText(event(R"({"no_type":true})"));
        server->sendText(event(R"({"type":17})"));
        server->sendText(event(R"([{"type":"input_audio_buffer.speech_started"}])"));
        server->sendBinary(
            QJsonDocument(ScriptedRealtimeServer::aiTranscript(QStringLiteral("En binaire")))
                .toJson());
        server->sendEvent(ScriptedRealtimeServer::aiTranscript(QStringLiteral("fin")));
        QVERIFY(QTest::qWaitFor(
            [&] { return recorder.log.contains(QStringLiteral("Vemira : fin")); }, 5000));

        const QStringList expected{
            QStringLiteral("audio 960"),
            QStringLiteral("Vemira : Bonjour !"),
            QStringLiteral("Interlocuteur : J’ai une fuite"),
            QStringLiteral("Interlocuteur : [inaudible]"),
            QStringLiteral("interruption"),
            QStringLiteral("usage 0/0 pending 1 gpt-realtime"),
            QStringLiteral("usage 1200/300 pending 0 gpt-realtime"),
            QStringLiteral("usage 1200/300 pending 1 gpt-realtime"),
            QStringLiteral("error L’IA signale une erreur (session_expired). Vérifiez votre "
                           "configuration."),
            QStringLiteral("error L’IA signale une erreur (erreur). Vérifiez votre configuration."),
            QStringLiteral("error L’IA signale une erreur (erreur). Vérifiez votre configuration."),
            QStringLiteral("error L’IA signale une erreur (erreur). Vérifiez votre configuration."),
            QStringLiteral("Vemira : En binaire"),
            QStringLiteral("Vemira : fin"),
        };
        QCOMPARE(recorder.log, expected);
        QCOMPARE(recorder.audio.first(), voice);

        // A frame that is not JSON ends the receiving side: reported once, nothing after it.
        recorder.log.clear();
        server->sendText(QStringLiteral("{\"type\":\"session.updated\""));
        server->sendEvent(ScriptedRealtimeServer::aiTranscript(QStringLiteral("après")));
        server->sendText(QStringLiteral("encore du bruit"));
        QVERIFY(QTest::qWaitFor([&] { return !recorder.log.isEmpty(); }, 5000));
        QTest::qWait(100);
        QCOMPARE(recorder.log, QStringList{QStringLiteral("error ") + receiveFailed});
        QVERIFY(client.isReady()); // the owner decides to close
    }

    void failedResponsesAreLoggedAndAnEmptyAccountEndsTheCall()
    {
        RealtimeClient client(clock);
        Recorder recorder;
        recorder.attach(client);
        openReady(client, recorder);
        recorder.log.clear();

        // A passing failure: said in the log with the provider's reason; the call goes on.
        server->sendEvent(ScriptedRealtimeServer::responseCreated(QStringLiteral("r1")));
        server->sendEvent(ScriptedRealtimeServer::responseFailed(
            QStringLiteral("r1"), QStringLiteral("rate_limit_exceeded"),
            QStringLiteral("rate_limit_error"), QStringLiteral("Rate limit reached")));
        // No code: the type is the reason.
        server->sendText(QStringLiteral(
            R"({"type":"response.done","response":{"id":"r2","status":"failed",)"
            R"("status_details":{"type":"failed","error":{"type":"server_error"}}}})"));
        // No response can be produced any more: the owner is told like any fatal error.
        server->sendEvent(ScriptedRealtimeServer::responseFailed(
            QStringLiteral("r3"), QStringLiteral("insufficient_quota"),
            QStringLiteral("insufficient_quota"), QStringLiteral("You exceeded your quota")));
        server->sendEvent(ScriptedRealtimeServer::aiTranscript(QStringLiteral("fin")));
        QVERIFY(QTest::qWaitFor(
            [&] { return recorder.log.contains(QStringLiteral("Vemira : fin")); }, 5000));
        recorder.log.removeIf([](const QString& line) { return line.startsWith(u"usage"); });
        QCOMPARE(recorder.log,
                 (QStringList{
                     QStringLiteral("notice Réponse de l’IA en échec (rate_limit_exceeded — Rate "
                                    "limit reached) : l’IA n’a rien dit pour ce tour."),
                     QStringLiteral("notice Réponse de l’IA en échec (server_error) : l’IA n’a "
                                    "rien dit pour ce tour."),
                     QStringLiteral("notice Réponse de l’IA en échec (insufficient_quota — You "
                                    "exceeded your quota) : l’IA n’a rien dit pour ce tour."),
                     QStringLiteral("error Crédit OpenAI épuisé : l’IA ne peut plus répondre. "
                                    "Ajoutez du crédit ou vérifiez la facturation de votre "
                                    "compte OpenAI."),
                     QStringLiteral("Vemira : fin")}));
    }

    void bargeInSilencesTheInterruptedResponseAndMarksItsLine()
    {
        RealtimeClient client(clock);
        Recorder recorder;
        recorder.attach(client);
        openReady(client, recorder);
        recorder.log.clear();
        const QByteArray second = pcmChunk(48'000, 1); // one second of voice
        auto sendAll = [&](const QList<QJsonObject>& events, const QString& last) {
            for (const QJsonObject& event : events)
                server->sendEvent(event);
            QVERIFY(QTest::qWaitFor([&] { return recorder.log.contains(last); }, 5000));
        };

        // Interrupted while generating: its later audio is dropped, its line marked as cut;
        // the next response plays normally.
        sendAll(
            {ScriptedRealtimeServer::responseCreated(QStringLiteral("r1")),
             ScriptedRealtimeServer::audioDelta(second, QStringLiteral("r1")),
             ScriptedRealtimeServer::speechStarted(),
             ScriptedRealtimeServer::audioDelta(pcmChunk(4800, 2), QStringLiteral("r1")),
             ScriptedRealtimeServer::audioDelta(pcmChunk(4800, 3), QStringLiteral("r1")),
             ScriptedRealtimeServer::aiTranscript(QStringLiteral("Bonjour, je vous écoute"),
                                                  QStringLiteral("r1")),
             ScriptedRealtimeServer::responseDoneWithoutUsage(QStringLiteral("r1")),
             ScriptedRealtimeServer::responseCreated(QStringLiteral("r2")),
             ScriptedRealtimeServer::audioDelta(pcmChunk(960, 4), QStringLiteral("r2")),
             ScriptedRealtimeServer::aiTranscript(QStringLiteral("Oui ?"), QStringLiteral("r2")),
             ScriptedRealtimeServer::responseDone(QStringLiteral("r2"), 10, 10)},
            QStringLiteral("Vemira : Oui ?"));
        // A response already complete but still playing when the caller speaks: the line
        // already given is marked; a response heard to its end is not.
        clock.advance(5);
        sendAll({ScriptedRealtimeServer::speechStarted(),
                 ScriptedRealtimeServer::responseCreated(QStringLiteral("r3")),
                 ScriptedRealtimeServer::audioDelta(second, QStringLiteral("r3")),
                 ScriptedRealtimeServer::aiTranscript(QStringLiteral("Votre adresse ?"),
                                                      QStringLiteral("r3")),
                 ScriptedRealtimeServer::responseDone(QStringLiteral("r3"), 10, 10)},
                QStringLiteral("Vemira : Votre adresse ?"));
        clock.advance(0.5);
        sendAll({ScriptedRealtimeServer::speechStarted(),
                 ScriptedRealtimeServer::aiTranscript(QStringLiteral("fin"))},
                QStringLiteral("Vemira : fin"));

        recorder.log.removeIf([](const QString& line) { return line.startsWith(u"usage"); });
        QCOMPARE(recorder.log,
                 (QStringList{QStringLiteral("audio 48000"), QStringLiteral("interruption"),
                              QStringLiteral("Vemira : Bonjour, je vous écoute…"),
                              QStringLiteral("audio 960"), QStringLiteral("Vemira : Oui ?"),
                              QStringLiteral("interruption"), QStringLiteral("audio 48000"),
                              QStringLiteral("Vemira : Votre adresse ?"), QStringLiteral("cut"),
                              QStringLiteral("interruption"), QStringLiteral("Vemira : fin")}));
        QVERIFY(recorder.errors.isEmpty());
    }

    void endOfCallWaitsBrieflyForTheLastResponse()
    {
        RealtimeClient client(clock);
        Recorder recorder;
        recorder.attach(client);
        openReady(client, recorder);
        QList<bool> settled;
        auto await = [&] { client.awaitResponses(3, [&](bool done) { settled << done; }); };

        // Nothing under way: settled at once.
        await();
        QCOMPARE(settled, QList<bool>{true});

        // The last response's bilan comes in time: its reservation gives way to its tokens.
        server->sendEvent(ScriptedRealtimeServer::responseCreated(QStringLiteral("r1")));
        QVERIFY(QTest::qWaitFor([&] { return client.responseInProgress(); }, 5000));
        await();
        clock.advance(2.9);
        QCOMPARE(settled.size(), 1);
        server->sendEvent(ScriptedRealtimeServer::responseDone(QStringLiteral("r1"), 1200, 300));
        QVERIFY(QTest::qWaitFor([&] { return settled.size() == 2; }, 5000));
        QCOMPARE(settled, (QList<bool>{true, true}));
        QCOMPARE(recorder.usages.last().pendingResponses, 0);

        // It does not come: given up after the bound, the provision stays and says so.
        server->sendEvent(ScriptedRealtimeServer::responseCreated(QStringLiteral("r2")));
        QVERIFY(QTest::qWaitFor([&] { return client.responseInProgress(); }, 5000));
        await();
        clock.advance(3);
        QCOMPARE(settled, (QList<bool>{true, true, false}));
        client.close();
        QVERIFY(recorder.usages.last().label().endsWith(u" · provision en cours incluse"));

        // The server is gone: nothing more can come, so no waiting.
        openReady(client, recorder);
        server->sendEvent(ScriptedRealtimeServer::responseCreated(QStringLiteral("r3")));
        QVERIFY(QTest::qWaitFor([&] { return client.responseInProgress(); }, 5000));
        await();
        server->dropSession();
        QVERIFY(QTest::qWaitFor([&] { return settled.size() == 4; }, 5000));
        QCOMPARE(settled.last(), false);

        // A close drops a wait without calling it.
        openReady(client, recorder);
        server->sendEvent(ScriptedRealtimeServer::responseCreated(QStringLiteral("r4")));
        QVERIFY(QTest::qWaitFor([&] { return client.responseInProgress(); }, 5000));
        await();
        client.close();
        clock.advance(10);
        QCOMPARE(settled.size(), 4);
    }

    void instructionChangeIsConfirmedByItsEcho()
    {
        server->behaviour().confirmSessions = false;
        RealtimeClient client(clock);
        Recorder recorder;
        recorder.attach(client);
        client.connect(key, QStringLiteral("gpt-realtime"), QStringLiteral("marin"),
                       QStringLiteral("Initiales"));
        QVERIFY(server->waitForEvents(1));
        QVERIFY(!client.updateInstructions(QStringLiteral("Trop tôt")));
        QVERIFY(!client.pendingInstructions());

        server->sendEvent(ScriptedRealtimeServer::sessionUpdated());
        QVERIFY(QTest::qWaitFor([&] { return recorder.ready == 1; }, 5000));
        QVERIFY(client.updateInstructions(QStringLiteral("Style posé")));
        client.greet();
        QVERIFY(server->waitForEvents(3));
        QCOMPARE(server->events().size(), 3); // nothing from the early attempt
        const QJsonObject update = server->events().at(1);
        QCOMPARE(update.value(QLatin1String("session")).toObject(),
                 (QJsonObject{{QStringLiteral("type"), QStringLiteral("realtime")},
                              {QStringLiteral("instructions"), QStringLiteral("Style posé")}}));
        QCOMPARE(server->events()
                     .at(2)[QLatin1String("response")][QLatin1String("instructions")]
                     .toString(),
                 // The provider reads a response's instructions instead of the session's:
                 // the greeting carries them all, as they stand now.
                 QStringLiteral("Style posé\nCommence par une courte salutation en français. "
                                "Accueille au nom de l’entreprise indiquée dans tes consignes puis "
                                "demande comment tu peux aider. N’ajoute pas d’annonce sur ta "
                                "nature ou sur l’enregistrement."));

        // An echo of another configuration does not confirm the change; the exact text does,
        // once.
        auto echo = [&](const QString& instructions) {
            server->sendEvent(ScriptedRealtimeServer::sessionUpdated(
                QJsonObject{{QStringLiteral("instructions"), instructions}}));
        };
        echo(QStringLiteral("Initiales"));
        echo(QStringLiteral("Style posé "));
        echo(QStringLiteral("Style posé"));
        echo(QStringLiteral("Style posé"));
        server->sendEvent(ScriptedRealtimeServer::aiTranscript(QStringLiteral("fin")));
        QVERIFY(QTest::qWaitFor(
            [&] { return recorder.log.contains(QStringLiteral("Vemira : fin")); }, 5000));
        QCOMPARE(recorder.log.count(QStringLiteral("applied")), 1);
        QVERIFY(!client.pendingInstructions());
        QCOMPARE(recorder.ready, 1);
    }

    void closeIsQuietAndReconnectStartsAFreshMeter()
    {
        RealtimeClient client(clock);
        Recorder recorder;
        recorder.attach(client);
        openReady(client, recorder);
        server->sendEvent(ScriptedRealtimeServer::responseCreated(QStringLiteral("r1")));
        server->sendEvent(ScriptedRealtimeServer::responseDone(QStringLiteral("r1"), 100, 50));
        QVERIFY(QTest::qWaitFor([&] { return recorder.usages.last().inputTokens == 100; }, 5000));

        // Reconnecting closes the old session: its final usage, then a zeroed one.
        recorder.log.clear();
        client.connect(key, QStringLiteral("gpt-realtime-2025-08-28"), QStringLiteral("marin"),
                       QStringLiteral("Consignes"));
        QCOMPARE(recorder.log,
                 (QStringList{QStringLiteral("usage 100/50 pending 0 gpt-realtime"),
                              QStringLiteral("usage 0/0 pending 0 gpt-realtime-2025-08-28")}));
        QVERIFY(!client.isReady());
        QVERIFY(server->waitForClientClose(1));
        QCOMPARE(server->clientCloseCodes(), QList<int>{1000});
        QVERIFY(QTest::qWaitFor([&] { return recorder.ready == 2; }, 5000));
        QCOMPARE(server->connectionCount(), 2);

        recorder.log.clear();
        client.close();
        client.close();
        QCOMPARE(recorder.log,
                 QStringList{QStringLiteral("usage 0/0 pending 0 gpt-realtime-2025-08-28")});
        QVERIFY(!client.isOpen());
        QVERIFY(server->waitForClientClose(2));
        QCOMPARE(server->clientCloseCodes(), (QList<int>{1000, 1000}));

        // A closed client sends nothing and hears nothing.
        const qsizetype events = server->events().size();
        client.append(pcmChunk(4096, 1));
        client.greet();
        QVERIFY(!client.updateInstructions(QStringLiteral("x")));
        QTest::qWait(100);
        QCOMPARE(server->events().size(), events);
        QVERIFY(recorder.errors.isEmpty());
    }

    // Every way a session fails to open or is lost reports each failure once; a refused
    // address or key never reaches the network.
    void failedConnectionsAreReportedOnce_data()
    {
        QTest::addColumn<QString>("failure");
        QTest::addColumn<QStringList>("errors");
        QTest::newRow("upgrade refused") << QStringLiteral("401") << QStringList{receiveFailed};
        QTest::newRow("key rejected by an event and a close")
            << QStringLiteral("3000")
            << QStringList{QStringLiteral("L’IA signale une erreur (invalid_api_key). Vérifiez "
                                          "votre configuration."),
                           receiveFailed};
        QTest::newRow("connection cut")
            << QStringLiteral("cut") << QStringList{receiveFailed, sendFailed};
        QTest::newRow("upgrade unanswered for 60 s")
            << QStringLiteral("silent") << QStringList{receiveFailed};
        QTest::newRow("address off the loopback")
            << QStringLiteral("address") << QStringList{receiveFailed};
        QTest::newRow("key splitting the request")
            << QStringLiteral("header") << QStringList{receiveFailed};
    }
    void failedConnectionsAreReportedOnce()
    {
        QFETCH(QString, failure);
        QFETCH(QStringList, errors);
        RealtimeClient client(clock);
        Recorder recorder;
        recorder.attach(client);
        QString usedKey = key;
        if (failure == u"401") {
            server->setUpgrade(ScriptedRealtimeServer::Upgrade::Refuse401);
        } else if (failure == u"3000") {
            server->behaviour().confirmSessions = false;
            server->onEvent = [&](const QJsonObject&) {
                server->sendEvent(ScriptedRealtimeServer::error(
                    QStringLiteral("invalid_api_key"), QStringLiteral("Incorrect API key")));
                server->closeSession(QWebSocketProtocol::CloseCode(3000),
                                     QStringLiteral("invalid_api_key"));
            };
        } else if (failure == u"silent") {
            server->setUpgrade(ScriptedRealtimeServer::Upgrade::NeverAnswer);
        } else if (failure == u"address") {
            qputenv("VEMIRA_REALTIME_URL", "ws://10.1.2.3:8765");
        } else if (failure == u"header") {
            usedKey = QStringLiteral("sk-1\r\nX-Injected: 1");
        }
        client.connect(usedKey, QStringLiteral("gpt-realtime"), QStringLiteral("marin"),
                       QStringLiteral("Consignes"));
        server->useAsEndpoint();
        QVERIFY(recorder.errors.isEmpty()); // reported after connect() returned
        if (failure == u"cut") {
            QVERIFY(QTest::qWaitFor([&] { return recorder.ready == 1; }));
            server->dropSession();
            QVERIFY(QTest::qWaitFor([&] { return !recorder.errors.isEmpty(); }));
            // The next frames find the socket gone: said once.
            client.append(pcmChunk(4096, 1));
            client.append(pcmChunk(4096, 2));
            client.greet();
        } else if (failure == u"silent") {
            QVERIFY(server->waitForConnections(1));
            clock.advance(59.9);
            QVERIFY(recorder.errors.isEmpty());
            clock.advance(0.1);
        }
        QVERIFY(QTest::qWaitFor([&] { return recorder.errors.size() >= errors.size(); }));
        // Whatever could still come has come once the connection is over.
        if (server->connectionCount() > 0)
            QVERIFY(server->waitForEndedConnections(1));
        QCoreApplication::processEvents();
        QCOMPARE(recorder.errors, errors);
        QCOMPARE(recorder.ready, failure == u"cut" ? 1 : 0);
        if (failure == u"address" || failure == u"header")
            QCOMPARE(server->connectionCount(), 0);
        client.close();
        clock.advance(120);
        QCOMPARE(recorder.errors, errors);
        server->onEvent = nullptr;
    }

    void stalledServerKeepsMemoryBounded()
    {
        RealtimeClient client(clock);
        Recorder recorder;
        recorder.attach(client);
        openReady(client, recorder);
        server->stopReading();

        // The capture keeps its cadence whatever the network does; each 4,096-byte chunk is
        // numbered so the server's copy tells which ones survived.
        QByteArray expected;
        int sent = 0;
        int dropped = 0;
        int maxWaiting = 0;
        for (int i = 0; i < 20'000 && dropped < 40; ++i) {
            const QByteArray chunk = pcmChunk(4096, i);
            const qsizetype errorsBefore = recorder.errors.size();
            client.append(chunk);
            ++sent;
            if (recorder.errors.size() > errorsBefore)
                ++dropped;
            else
                expected += chunk;
            maxWaiting = std::max(maxWaiting, client.waitingFrames());
            QCoreApplication::processEvents();
        }
        QCOMPARE(dropped, 40);
        QCOMPARE(maxWaiting, 300);
        QCOMPARE(recorder.errors, QStringList(40, tooSlow));

        // Once the server reads again, every kept frame arrives, in order, and the queue drains.
        server->resumeReading();
        QVERIFY2(QTest::qWaitFor([&] { return server->receivedAudio().size() >= expected.size(); },
                                 30'000),
                 qPrintable(QStringLiteral("%1 of %2 bytes")
                                .arg(server->receivedAudio().size())
                                .arg(expected.size())));
        QVERIFY(server->receivedAudio() == expected);
        QVERIFY(QTest::qWaitFor([&] { return client.waitingFrames() == 0; }, 5000));
        client.append(pcmChunk(4096, 0));
        QCOMPARE(recorder.errors.size(), 40);
        qInfo("%d chunks offered, %d dropped", sent, dropped);
    }

    void callbacksMayBeMissingOrDestroyTheClient()
    {
        {
            // An owner that listens to nothing (the connection probe ignores usage).
            RealtimeClient silent(clock);
            silent.connect(key, QStringLiteral("gpt-realtime"), QStringLiteral("marin"),
                           QStringLiteral("Consignes"));
            QVERIFY(QTest::qWaitFor([&] { return silent.isReady(); }, 5000));
            QVERIFY(silent.updateInstructions(QStringLiteral("Autre")));
            silent.append(pcmChunk(48'000, 1));
            for (const QJsonObject& event :
                 {ScriptedRealtimeServer::audioDelta(pcmChunk(96, 1)),
                  ScriptedRealtimeServer::aiTranscript(QStringLiteral("a")),
                  ScriptedRealtimeServer::callerTranscript(QStringLiteral("b")),
                  ScriptedRealtimeServer::speechStarted(),
                  ScriptedRealtimeServer::responseCreated(QStringLiteral("r")),
                  ScriptedRealtimeServer::responseDone(QStringLiteral("r"), 1, 1),
                  ScriptedRealtimeServer::sessionUpdated(
                      QJsonObject{{QStringLiteral("instructions"), QStringLiteral("Autre")}}),
                  ScriptedRealtimeServer::error(QStringLiteral("x"))})
                server->sendEvent(event);
            server->sendText(QStringLiteral("pas du JSON"));
            QVERIFY(QTest::qWaitFor([&] { return !silent.pendingInstructions(); }, 5000));
            QTest::qWait(50);
            silent.close();
        }

        auto client = std::make_unique<RealtimeClient>(clock);
        client->onReady = [&] { client.reset(); };
        client->connect(key, QStringLiteral("gpt-realtime"), QStringLiteral("marin"),
                        QStringLiteral("Consignes"));
        QVERIFY(QTest::qWaitFor([&] { return !client; }, 5000));

        server->behaviour().confirmSessions = false;
        server->onEvent = [&](const QJsonObject&) {
            server->closeSession(QWebSocketProtocol::CloseCode(3000));
        };
        client = std::make_unique<RealtimeClient>(clock);
        client->onError = [&](const QString&) { client.reset(); };
        client->connect(key, QStringLiteral("gpt-realtime"), QStringLiteral("marin"),
                        QStringLiteral("Consignes"));
        QVERIFY(QTest::qWaitFor([&] { return !client; }, 5000));
        server->onEvent = nullptr;
        // The retired sockets are deleted by the event loop.
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
};

QTEST_GUILESS_MAIN(TestRealtimeClient)
#include "tst_realtime_client.moc"
