#include "ai/RealtimeProtocol.h"
#include "ai/WireBase64.h"

#include <QJsonDocument>
#include <QRandomGenerator>
#include <QTest>
#include <QUrlQuery>

using namespace vemira;

class TestRealtimeProtocol : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void endpointKeepsTheKeyOffTheOpenNetwork()
    {
        const auto standard = realtime::endpoint(QStringLiteral("gpt-realtime"), QString());
        QVERIFY(standard);
        QCOMPARE(standard.value().toString(),
                 QStringLiteral("wss://api.openai.com/v1/realtime?model=gpt-realtime"));

        const QList<std::pair<const char*, const char*>> accepted{
            {"ws://127.0.0.1:8765", "ws://127.0.0.1:8765/v1/realtime?model=m"},
            {"ws://localhost:9000/", "ws://localhost:9000/v1/realtime?model=m"},
            {"ws://[::1]:8765", "ws://[::1]:8765/v1/realtime?model=m"},
            {"WSS://relay.example.com", "wss://relay.example.com/v1/realtime?model=m"},
            {"wss://relay.example.com:4443", "wss://relay.example.com:4443/v1/realtime?model=m"},
        };
        for (const auto& [given, expected] : accepted) {
            const auto url = realtime::endpoint(QStringLiteral("m"), QString::fromLatin1(given));
            QVERIFY2(url, given);
            QCOMPARE(url.value().toString(), QString::fromLatin1(expected));
        }

        for (const char* given :
             {"ws://192.168.1.20:8765", "ws://api.openai.com", "ws://10.0.0.1",
              "http://127.0.0.1:8765", "https://api.openai.com", "ws://127.0.0.1:8765/other/path",
              "wss://user:pw@example.com", "ws://127.0.0.1?model=x", "not a url", "ws://"}) {
            QVERIFY2(!realtime::endpoint(QStringLiteral("m"), QString::fromLatin1(given)), given);
        }

        // The model name is one query item, whatever it contains.
        const auto odd = realtime::endpoint(QStringLiteral("a&b=c d"), QString());
        QCOMPARE(QUrlQuery(odd.value()).queryItemValue(QStringLiteral("model"), QUrl::FullyDecoded),
                 QStringLiteral("a&b=c d"));
        QCOMPARE(QUrlQuery(odd.value()).queryItems().size(), 1);
    }

    void audioFramesRoundTripThroughStrictBase64()
    {
        QByteArray pcm(4096, Qt::Uninitialized);
        for (int i = 0; i < pcm.size(); ++i)
            pcm[i] = char((i * 37) ^ (i >> 3));
        const QString frame = realtime::audioAppendFrame(pcm);
        QJsonParseError error{};
        const QJsonObject event = QJsonDocument::fromJson(frame.toUtf8(), &error).object();
        QCOMPARE(error.error, QJsonParseError::NoError);
        QCOMPARE(event.keys().size(), 2);
        QCOMPARE(event.value(QLatin1String("type")).toString(),
                 QStringLiteral("input_audio_buffer.append"));
        const QString audio = event.value(QLatin1String("audio")).toString();
        QVERIFY(!audio.contains(QLatin1Char('\n')));
        QCOMPARE(realtime::decodeBase64(audio), std::optional<QByteArray>(pcm));
        QCOMPARE(realtime::decodeBase64(QString()), std::optional<QByteArray>(QByteArray()));

        for (const char* bad :
             {"AAE", "AAE=\n", "AA E", "QQ==QQ==", "A===", "AAE*", "====", "AAAA\r\nAAAA"})
            QVERIFY2(!realtime::decodeBase64(QString::fromLatin1(bad)), bad);
        QVERIFY(!realtime::decodeBase64(QStringLiteral("AAé=")));
    }

    void base64AgreesWithQtOnEveryInput()
    {
        QRandomGenerator random(1234);
        const QByteArray alphabet(
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/= \n-_*");
        for (int round = 0; round < 20'000; ++round) {
            QByteArray bytes(random.bounded(0, 200), Qt::Uninitialized);
            for (char& b : bytes)
                b = char(random.bounded(256));
            // Every length and tail: our encoding is Qt's.
            QString encoded(realtime::base64Size(bytes.size()), Qt::Uninitialized);
            realtime::encodeBase64(bytes, reinterpret_cast<char16_t*>(encoded.data()));
            QCOMPARE(encoded.toLatin1(), bytes.toBase64());
            QCOMPARE(realtime::decodeBase64(encoded), std::optional<QByteArray>(bytes));

            // Mutated text: accepted exactly when Qt's strict decoder accepts it.
            QByteArray text = bytes.toBase64();
            for (int m = random.bounded(0, 3); m > 0 && !text.isEmpty(); --m)
                text[random.bounded(text.size())] = alphabet[random.bounded(alphabet.size())];
            auto qt = QByteArray::fromBase64Encoding(text, QByteArray::AbortOnBase64DecodingErrors);
            const bool qtAccepts = qt && text.size() % 4 == 0;
            const auto ours = realtime::decodeBase64(QString::fromLatin1(text));
            QVERIFY2(bool(ours) == qtAccepts, text.constData());
            if (ours)
                QCOMPARE(*ours, qt.decoded);
        }
    }

    void audioDeltaShortcutMatchesTheJsonReading()
    {
        const QByteArray pcm("\x01\x02\x03\xff\x00\x10", 6);
        const QString b64 = QString::fromLatin1(pcm.toBase64());
        using Scan = realtime::AudioDeltaScan;
        struct Case {
            QString frame;
            Scan::Kind kind;
        };
        const QList<Case> cases{
            {QStringLiteral(R"({"type":"response.output_audio.delta","delta":")") + b64 +
                 QStringLiteral(R"("})"),
             Scan::Audio},
            {QStringLiteral(R"( { "event_id" : "e1", "output_index":0,"content_index":-12,)"
                            R"( "delta":")") +
                 b64 + QStringLiteral(R"(", "type":"response.output_audio.delta" }  )"),
             Scan::Audio},
            {QStringLiteral(R"({"type":"response.output_audio.delta","delta":"AAE"})"),
             Scan::NotRecognised},
            // Left to the JSON reading: escapes, duplicates, nesting, other types, bad JSON.
            {QStringLiteral(R"({"type":"response.output_audio.delta","delta":"QUJD\/"})"),
             Scan::NotRecognised},
            {QStringLiteral(
                 R"({"type":"response.output_audio.delta","type":"error","delta":"AAAA"})"),
             Scan::NotRecognised},
            {QStringLiteral(R"({"type":"response.output_audio.delta","delta":"AAAA","x":{}})"),
             Scan::NotRecognised},
            {QStringLiteral(R"({"type":"response.output_audio.delta","delta":"AAAA","n":1.5})"),
             Scan::NotRecognised},
            {QStringLiteral(R"({"type":"response.output_audio.delta","delta":"AAAA","n":01})"),
             Scan::NotRecognised},
            {QStringLiteral(R"({"type":"response.output_audio.delta","delta":"AAAA"} x)"),
             Scan::NotRecognised},
            {QStringLiteral(R"({"type":"response.output_audio.delta","delta":"AAAA",})"),
             Scan::NotRecognised},
            {QStringLiteral(R"({"type":"response.output_audio.delta","note":"é","delta":"AAAA"})"),
             Scan::NotRecognised},
            {QStringLiteral(R"({"type":"response.done","delta":"AAAA"})"), Scan::NotRecognised},
            {QStringLiteral(R"({"type":"response.output_audio.delta","delta":"AA\"AA"})"),
             Scan::NotRecognised},
            {QStringLiteral(R"({"delta":"AAAA\","type":"response.output_audio.delta"})"),
             Scan::NotRecognised},
            {QStringLiteral(R"({"type":"response.output_audio.delta"})"), Scan::NotRecognised},
        };
        for (const Case& c : cases) {
            const auto scan = realtime::scanAudioDelta(c.frame);
            QVERIFY2(scan.kind == c.kind, qPrintable(c.frame));
            if (c.kind == Scan::Audio)
                QCOMPARE(scan.pcm, pcm);
            if (c.kind == Scan::NotRecognised)
                continue;
            // What the shortcut decides is what the JSON reading would have found.
            const QJsonObject event = QJsonDocument::fromJson(c.frame.toUtf8()).object();
            QCOMPARE(event.value(QLatin1String("type")).toString(),
                     QStringLiteral("response.output_audio.delta"));
            const auto decoded =
                realtime::decodeBase64(event.value(QLatin1String("delta")).toString());
            QCOMPARE(decoded.has_value(), c.kind == Scan::Audio);
        }
    }
};

QTEST_GUILESS_MAIN(TestRealtimeProtocol)
#include "tst_realtime_protocol.moc"
