#include "RecordsTestSupport.h"
#include "records/HistoryCodec.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>
#include <QTimeZone>

using namespace vemira;

class HistoryCodecTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void writesTheFileFormat();
    void readsAnyCaseAndNullAsAbsent();
    void roundTripKeepsEveryValue();
    void rejectsAnyBadRecordWhole_data();
    void rejectsAnyBadRecordWhole();
    void encodesTextJsonReadersAgreeWith();
};

void HistoryCodecTest::writesTheFileFormat()
{
    CallRecord record =
        test::fixedRecord(QStringLiteral("0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0"), 0);
    record.transcript.resize(1);
    const QByteArray bytes = encodeHistory({record}).value();
    QCOMPARE(
        bytes,
        QByteArray(R"([{"id":"0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0","date":0,)"
                   R"("caller":"+33 6 12 34 56 78","kind":"Appel entrant","transcript":)"
                   R"([{"id":"11111111-2222-3333-4444-555555555555","speaker":"Vemira",)"
                   R"("text":"Bonjour, que puis-je pour vous ?"}],"note":"Rappeler demain"}])"));

    // One day after 2001-01-01 UTC is 86400; a Unix-epoch or ISO date would be a bug.
    record.date =
        Timestamp::fromDateTime(QDateTime(QDate(2001, 1, 2), QTime(0, 0), QTimeZone::utc()));
    QCOMPARE(record.date.secondsSinceReference, 86400.0);
    const QJsonObject object =
        QJsonDocument::fromJson(encodeHistory({record}).value()).array().first().toObject();
    QCOMPARE(object.value(QStringLiteral("date")).toDouble(), 86400.0);
    // Absent optionals are left out, never written as null.
    for (const char* key :
         {"dossier", "recordingFile", "recordingError", "usage", "followUpStatus", "message"})
        QVERIFY2(!object.contains(QLatin1String(key)), key);

    // Accented text is written as UTF-8, not as \u escapes; and compactly.
    record.caller = QStringLiteral("Élise");
    const QByteArray accented = encodeHistory({record}).value();
    QVERIFY(accented.contains("\"caller\":\"\xC3\x89lise\""));
    QVERIFY(!accented.contains('\n'));
    QVERIFY(!accented.contains("\": "));
    QCOMPARE(encodeHistory({}).value(), QByteArray("[]"));

    // An absurd date from a hand-edited file still reads and shows without overflow.
    const auto absurd = decodeHistory(QByteArray(
        R"([{"id":"0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0","date":1e300,"caller":"c","kind":"k","transcript":[],"note":""}])"));
    QVERIFY(absurd.ok());
    QVERIFY(absurd.value().first().date.toDateTime().isValid());
}

void HistoryCodecTest::readsAnyCaseAndNullAsAbsent()
{
    const QByteArray file =
        R"([{"id":"0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0","date":12.5,"caller":"x","kind":"k",)"
        R"("transcript":[{"id":"aaaaaaaa-bbbb-cccc-dddd-eeeeeeeeeeee","speaker":"Vemira","text":"t"}],)"
        R"("note":"","dossier":null,"recordingFile":null,"recordingError":null,"usage":null,)"
        R"("followUpStatus":null,"unknownKey":[1,2]}])";
    const auto decoded = decodeHistory(file);
    QVERIFY2(decoded.ok(), qPrintable(decoded.ok() ? QString() : decoded.error().message()));
    const CallRecord& r = decoded.value().first();
    QCOMPARE(uuidText(r.id), QStringLiteral("0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0"));
    QCOMPARE(uuidText(r.transcript.first().id),
             QStringLiteral("AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE"));
    QCOMPARE(r.note, QString()); // an empty note stays a note
    QVERIFY(!r.dossier && !r.recordingFile && !r.recordingError && !r.usage && !r.followUpStatus);
    QCOMPARE(r.progress, CallProgress::Ended); // files from before calls were saved under way

    QVERIFY(!r.message);

    // A message with keys missing reads them as empty; unknown keys inside are ignored.
    QByteArray partial = file;
    partial.replace(
        R"("followUpStatus":null)",
        R"("followUpStatus":null,"message":{"identity":"Élise","later":1,"since":null})");
    const auto withMessage = decodeHistory(partial);
    QVERIFY(withMessage.ok());
    QCOMPARE(
        withMessage.value().first().message,
        std::optional<CallMessage>(CallMessage{QStringLiteral("Élise"), {}, {}, {}, {}, {}, {}}));

    // Written back: upper-case ids, no null keys.
    const QByteArray again = encodeHistory(decoded.value()).value();
    QVERIFY(!again.contains("null"));
    QVERIFY(again.contains("\"id\":\"0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0\""));
}

void HistoryCodecTest::roundTripKeepsEveryValue()
{
    CallRecord record = test::fixedRecord(QStringLiteral("0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0"),
                                          795181800.123456789);
    record.dossier = QStringLiteral("SCI Lilas · logement 4");
    record.recordingFile = QStringLiteral("Appel-0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0.wav");
    record.recordingError = QStringLiteral("Aucun son n’a été reçu pour cet enregistrement.");
    record.usage = ConversationUsage{1200, 300, 0.1, 0, QStringLiteral("gpt-realtime")};
    record.followUpStatus = QStringLiteral("En cours");
    record.message = CallMessage{QStringLiteral("Élise Modèle"),
                                 QStringLiteral("12 rue des Lilas, apt 4"),
                                 QStringLiteral("Fuite \"sous\" l’évier"),
                                 QStringLiteral("ce matin"),
                                 QStringLiteral("Rapide"),
                                 QStringLiteral("06 12 34 56 78"),
                                 QStringLiteral("Fuite sous l’évier, robinet fermé.")};
    CallRecord second = record;
    second.message = CallMessage{}; // present but empty: stays present
    second.id = QUuid::createUuid();
    second.usage =
        ConversationUsage{9007199254740993LL, 0, std::nullopt, 2, QStringLiteral("autre")};
    second.transcript.clear();
    second.dossier.reset();
    second.progress = CallProgress::Interrupted;

    const QByteArray bytes = encodeHistory({record, second}).value();
    const auto decoded = decodeHistory(bytes);
    QVERIFY(decoded.ok());
    QCOMPARE(decoded.value().size(), 2);
    QVERIFY(decoded.value()[0] == record); // order and every field, date to the last bit
    QVERIFY(decoded.value()[1] == second); // 64-bit counts beyond double precision survive
    QCOMPARE(encodeHistory(decoded.value()).value(), bytes);
    // Record by record, joined: the very same bytes.
    QCOMPARE(joinHistory({encodeRecord(record).value(), encodeRecord(second).value()}), bytes);
    QCOMPARE(joinHistory({}), QByteArray("[]"));
}

void HistoryCodecTest::rejectsAnyBadRecordWhole_data()
{
    QTest::addColumn<QByteArray>("file");
    const QByteArray good =
        R"({"id":"0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0","date":1,"caller":"c","kind":"k","transcript":[],"note":"n"})";
    auto with = [&](const char* replaceFrom, const char* replaceTo) {
        QByteArray bad = good;
        bad.replace(replaceFrom, replaceTo);
        return QByteArray("[") + good + "," + bad + "]";
    };
    QTest::newRow("missing note") << with(R"(,"note":"n")", "");
    QTest::newRow("note null") << with(R"("note":"n")", R"("note":null)");
    QTest::newRow("missing caller") << with(R"("caller":"c",)", "");
    QTest::newRow("date as ISO text") << with(R"("date":1)", R"("date":"2026-03-14T09:30:00Z")");
    QTest::newRow("caller as number") << with(R"("caller":"c")", R"("caller":5)");
    QTest::newRow("transcript as object") << with(R"("transcript":[])", R"("transcript":{})");
    QTest::newRow("line without text") << with(
        R"("transcript":[])",
        R"("transcript":[{"id":"AAAAAAAA-BBBB-CCCC-DDDD-EEEEEEEEEEEE","speaker":"Vemira"}])");
    QTest::newRow("line id not a uuid")
        << with(R"("transcript":[])", R"("transcript":[{"id":"12","speaker":"s","text":"t"}])");
    QTest::newRow("braced id") << with(R"("0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0")",
                                       R"("{0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0}")");
    QTest::newRow("dossier as number") << with(R"("note":"n")", R"("note":"n","dossier":3)");
    QTest::newRow("usage without model")
        << with(R"("note":"n")",
                R"("note":"n","usage":{"inputTokens":1,"outputTokens":2,"pendingResponses":0})");
    QTest::newRow("usage with fractional tokens") << with(
        R"("note":"n")",
        R"("note":"n","usage":{"inputTokens":1.5,"outputTokens":2,"pendingResponses":0,"model":"m"})");
    QTest::newRow("message as text") << with(R"("note":"n")", R"("note":"n","message":"m")");
    QTest::newRow("message field as number")
        << with(R"("note":"n")", R"("note":"n","message":{"identity":"a","urgency":3})");
    // A record must never lead Vemira to a file outside its recordings folder.
    for (const char* name :
         {"/home/u/Documents/bail.pdf", "../Appel-0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0.wav",
          "x/Appel-0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0.wav", "Appel-x.wav"}) {
        const QByteArray field = QByteArray(R"("note":"n","recordingFile":")") + name + '"';
        QTest::newRow((QByteArray("recordingFile ") + name).constData())
            << with(R"("note":"n")", field.constData());
    }
    QTest::newRow("progress unknown") << with(R"("note":"n")", R"("note":"n","progress":"paused")");
    QTest::newRow("record not an object") << QByteArray("[") + good + ",3]";
    QTest::newRow("top level object") << good;
    QTest::newRow("truncated") << QByteArray("[") + good.left(good.size() - 9);
    QTest::newRow("invalid UTF-8") << with(R"("caller":"c")", "\"caller\":\"\xC3\x28\"");
    QTest::newRow("empty file") << QByteArray();
}

void HistoryCodecTest::rejectsAnyBadRecordWhole()
{
    QFETCH(QByteArray, file);
    const auto decoded = decodeHistory(file);
    QVERIFY(!decoded.ok());
    if (QByteArray(QTest::currentDataTag()).startsWith("recordingFile")) {
        QVERIFY2(decoded.error().message().startsWith(
                     QStringLiteral("enregistrement 2 : « recordingFile »")),
                 qPrintable(decoded.error().message()));
    }
}

void HistoryCodecTest::encodesTextJsonReadersAgreeWith()
{
    // Quotes, backslashes, control characters, emoji and a lone surrogate: whatever the
    // encoder writes must parse as JSON and give the text back (the lone surrogate as U+FFFD).
    CallRecord record =
        test::fixedRecord(QStringLiteral("0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0"), -1.5);
    const QString tricky = QStringLiteral("a\"b\\c/d\ne\tf\r") + QChar(0x01) + QChar(0x1F) +
                           QStringLiteral("😀 é ’ «»") + QChar(0xD800) + QStringLiteral("z");
    record.note = tricky;
    record.transcript.first().text = tricky;
    const QByteArray bytes = encodeHistory({record}).value();
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &error);
    QCOMPARE(error.error, QJsonParseError::NoError);
    QString expected = tricky;
    expected.replace(QChar(0xD800), QChar(0xFFFD));
    const QJsonObject object = document.array().first().toObject();
    QCOMPARE(object.value(QStringLiteral("note")).toString(), expected);
    QCOMPARE(object.value(QStringLiteral("date")).toDouble(), -1.5);

    // Non-finite values cannot be written: the save must fail, not write a broken file.
    record.usage = ConversationUsage{0, 0, qInf(), 0, QStringLiteral("gpt-realtime")};
    QVERIFY(!encodeHistory({record}).ok());
}

QTEST_GUILESS_MAIN(HistoryCodecTest)
#include "tst_history_codec.moc"
