#include "records/CallMessage.h"
#include "records/PendingCalls.h"

#include <QTest>

using namespace vemira;

class CallMessageTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void readsAWellFormedAnswer();
    void cleansWhatTheModelGotWrong();
    void refusesWhatIsNoMessage();
    void pendingCallsMostUrgentFirst();
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
    QCOMPARE(m.problem.size(), 1000);
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
    edited.summary = QString(999, u'a') + QStringLiteral("😀");
    edited.urgency = QStringLiteral("rapide");
    const CallMessage cleaned = edited.cleaned();
    QCOMPARE(cleaned.summary.size(), 999);
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

void CallMessageTest::pendingCallsMostUrgentFirst()
{
    const QDateTime nine(QDate(2026, 3, 14), QTime(9, 0));
    auto call = [&](int minutes, const QString& urgency, const QString& caller) {
        CallRecord record =
            CallRecord::create(nine.addSecs(minutes * 60), caller, QStringLiteral("Appel"));
        if (!urgency.isNull())
            record.message = CallMessage{QStringLiteral("Nom ") + caller,   {}, {}, {}, urgency, {},
                                         QStringLiteral("Résumé ") + caller};
        return record;
    };
    QList<CallRecord> records{call(50, QStringLiteral("Normal"), QStringLiteral("a")),
                              call(40, QString(), QStringLiteral("b")), // no message
                              call(30, QStringLiteral("Urgent"), QStringLiteral("c")),
                              call(20, QStringLiteral("Rapide"), QStringLiteral("d")),
                              call(10, QStringLiteral("Urgent"), QStringLiteral("e")),
                              call(5, QStringLiteral("Urgent"), QStringLiteral("f"))};
    records[5].followUpStatus = QStringLiteral("Terminé"); // dealt with: not listed
    records[3].followUpStatus = QStringLiteral("À traiter");
    QStringList order;
    for (const CallRecord* r : pendingCalls(records))
        order << r->caller;
    QCOMPARE(order, (QStringList{QStringLiteral("c"), QStringLiteral("e"), QStringLiteral("d"),
                                 QStringLiteral("a"), QStringLiteral("b")}));

    const QLocale french(QLocale::French, QLocale::France);
    QCOMPARE(pendingLine(records[2], french),
             QStringLiteral("Urgent · 14/03/2026 09:30 · Nom c — Résumé c"));
    QCOMPARE(pendingLine(records[1], french), QStringLiteral("14/03/2026 09:40 · b — Sans résumé"));
}

QTEST_GUILESS_MAIN(CallMessageTest)
#include "tst_call_message.moc"
