#include "records/CallMessage.h"

#include <QTest>

using namespace vemira;

class CallMessageTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void readsAWellFormedAnswer();
    void cleansWhatTheModelGotWrong();
    void refusesWhatIsNoMessage();
    void urgencyRankSortsUrgentFirst();
};

void CallMessageTest::readsAWellFormedAnswer()
{
    const auto message = CallMessage::fromAnswer(
        R"({"identity":"Élise Modèle","address":"12 rue des Lilas, appartement 4",)"
        R"("problem":"Fuite sous l’évier","since":"ce matin","urgency":"Rapide",)"
        R"("callback":"+33 6 12 34 56 78","summary":"Fuite sous l’évier, robinet fermé."})");
    QVERIFY(message.ok());
    QCOMPARE(message.value(),
             (CallMessage{QStringLiteral("Élise Modèle"),
                          QStringLiteral("12 rue des Lilas, appartement 4"),
                          QStringLiteral("Fuite sous l’évier"), QStringLiteral("ce matin"),
                          QStringLiteral("Rapide"), QStringLiteral("+33 6 12 34 56 78"),
                          QStringLiteral("Fuite sous l’évier, robinet fermé.")}));
    // Fields the caller did not give stay empty.
    const auto sparse = CallMessage::fromAnswer(R"({"problem":"Panne de chauffage"})");
    QVERIFY(sparse.ok());
    QCOMPARE(sparse.value().problem, QStringLiteral("Panne de chauffage"));
    QVERIFY(sparse.value().identity.isEmpty() && sparse.value().callback.isEmpty());
    QVERIFY(!sparse.value().isEmpty());
    QVERIFY(CallMessage::fromAnswer("{}").value().isEmpty());
}

void CallMessageTest::cleansWhatTheModelGotWrong()
{
    const QByteArray huge(1024 * 1024, 'x');
    const auto message = CallMessage::fromAnswer(
        QByteArray(R"({"identity":42,"address":["a"],"problem":")") + huge +
        R"(","since":"  depuis\n hier  ","urgency":"urgent","callback":"demain matin",)"
        R"("summary":{"text":"s"},"extra":"ignored","confidence":0.9})");
    QVERIFY(message.ok());
    const CallMessage& m = message.value();
    QVERIFY(m.identity.isEmpty()); // a number is not a name
    QVERIFY(m.address.isEmpty());
    QCOMPARE(m.problem.size(), CallMessage::maxFieldLength);
    QCOMPARE(m.since, QStringLiteral("depuis hier"));
    QCOMPARE(m.urgency, QStringLiteral("Urgent"));
    QVERIFY(m.callback.isEmpty());
    QVERIFY(m.summary.isEmpty());

    // Urgency only from the three values; call-back only a whole number of 8 to 15 digits.
    auto with = [](const char* urgency, const char* callback) {
        return CallMessage::fromAnswer(QByteArray(R"({"urgency":")") + urgency +
                                       R"(","callback":")" + callback + "\"}")
            .value();
    };
    QCOMPARE(with("Très urgent", "0612345678").urgency, QString());
    QCOMPARE(with("Normal", "0612345678").callback, QStringLiteral("0612345678"));
    QCOMPARE(with("Normal", "1234567").callback, QString());          // 7 digits
    QCOMPARE(with("Normal", "1234567890123456").callback, QString()); // 16 digits
    QCOMPARE(with("Normal", "au 06 12 34 56 78").callback, QString());

    // A hand edit goes through the same cleaning; a cut never splits a surrogate pair.
    CallMessage edited;
    edited.summary = QString(CallMessage::maxFieldLength - 1, u'a') + QStringLiteral("😀");
    edited.urgency = QStringLiteral("rapide");
    const CallMessage cleaned = edited.cleaned();
    QCOMPARE(cleaned.summary.size(), CallMessage::maxFieldLength - 1);
    QCOMPARE(cleaned.urgency, QStringLiteral("Rapide"));
}

void CallMessageTest::refusesWhatIsNoMessage()
{
    for (const QByteArray& answer :
         {QByteArray(), QByteArray("[]"), QByteArray("\"Urgent\""), QByteArray("{\"identity\":"),
          QByteArray("Voici le message : Élise")})
        QVERIFY2(!CallMessage::fromAnswer(answer).ok(), answer.constData());
    QCOMPARE(CallMessage::fromAnswer("nope").error().message(),
             QStringLiteral("La réponse du modèle n’est pas un message lisible."));
}

void CallMessageTest::urgencyRankSortsUrgentFirst()
{
    QCOMPARE(CallMessage::urgencies(),
             (QStringList{QStringLiteral("Urgent"), QStringLiteral("Rapide"),
                          QStringLiteral("Normal")}));
    CallMessage m;
    QCOMPARE(m.urgencyRank(), 3);
    m.urgency = QStringLiteral("Urgent");
    QCOMPARE(m.urgencyRank(), 0);
    m.urgency = QStringLiteral("Normal");
    QCOMPARE(m.urgencyRank(), 2);
}

QTEST_GUILESS_MAIN(CallMessageTest)
#include "tst_call_message.moc"
