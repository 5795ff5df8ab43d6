#include "ai/RealtimeProtocol.h"

#include <QJsonDocument>
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
};

QTEST_GUILESS_MAIN(TestRealtimeProtocol)
#include "tst_realtime_protocol.moc"
