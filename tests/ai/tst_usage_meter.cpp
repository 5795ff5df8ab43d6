#include "ai/ConversationUsageMeter.h"
#include "records/ModelCatalogue.h"

#include <QLocale>
#include <QTest>
#include <algorithm>
#include <tuple>

using namespace vemira;

namespace {

QJsonObject usage(QJsonValue input, QJsonValue output)
{
    return QJsonObject{{QStringLiteral("input_tokens"), input},
                       {QStringLiteral("output_tokens"), output}};
}

const QString gptRealtime = QStringLiteral("gpt-realtime");

// The worked example scaled by each priced model's audio prices (per million tokens), and one
// pending response reserving a full context plus a maximal answer:
// 32/64 $: (0.0384 + 0.0192 + 0.015) × 1.25 = 0.09075 → 0.10;
// 10/20 $: (0.012 + 0.006 + 0.015) × 1.25 = 0.04125 → 0.05;
// 128,000 + 32,000 tokens at 32/64 $: 6.144 × 1.25 = 7.68; at 10/20 $: 1.92 × 1.25 = 2.40;
// 32,000 + 4,096 tokens at 32/64 $: 1.286144 × 1.25 = 1.60768 → 1.61.
const std::tuple<const char*, const char*, const char*> kWorkedExamples[]{
    {"gpt-realtime-2.1", "0.10", "7.68"}, {"gpt-realtime-2.1-mini", "0.05", "2.40"},
    {"gpt-realtime-2", "0.10", "7.68"},   {"gpt-realtime-1.5", "0.10", "1.61"},
    {"gpt-realtime", "0.10", "1.61"},     {"gpt-realtime-2025-08-28", "0.10", "1.61"},
};

} // namespace

class TestUsageMeter : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        // The amount must keep its decimal point whatever the user's language.
        QLocale::setDefault(QLocale(QLocale::French, QLocale::France));
    }

    void eachResponseIsCountedOnceAndReservedUntilThen()
    {
        ConversationUsageMeter meter(gptRealtime);
        meter.responseCreated(QStringLiteral("r1"));
        QCOMPARE(meter.snapshot().pendingResponses, 1);

        meter.completed(QStringLiteral("r1"), usage(1000, 200));
        meter.completed(QStringLiteral("r1"), usage(1000, 200)); // repeated "response.done"
        auto snapshot = meter.snapshot();
        QCOMPARE(snapshot.pendingResponses, 0);
        QCOMPARE(snapshot.inputTokens, 1000);
        QCOMPARE(snapshot.outputTokens, 200);

        // Announced after it was counted (events crossing): stays out of the reservation.
        meter.responseCreated(QStringLiteral("r1"));
        QCOMPARE(meter.snapshot().pendingResponses, 0);

        // Never announced: counted with usage, reserved without.
        meter.completed(QStringLiteral("r2"), usage(10, 5));
        meter.completed(QStringLiteral("r3"), std::nullopt);
        snapshot = meter.snapshot();
        QCOMPARE(snapshot.inputTokens, 1010);
        QCOMPARE(snapshot.outputTokens, 205);
        QCOMPARE(snapshot.pendingResponses, 1);

        // A reserved response whose usage finally arrives is released.
        meter.completed(QStringLiteral("r3"), usage(1, 1));
        QCOMPARE(meter.snapshot().pendingResponses, 0);
        QCOMPARE(meter.snapshot().model, gptRealtime);
    }

    void implausibleUsageKeepsTheReservation()
    {
        ConversationUsageMeter meter(gptRealtime);
        meter.completed(QStringLiteral("limit"), usage(1'000'000, 1'000'000));
        QCOMPARE(meter.snapshot().inputTokens, 1'000'000);
        QCOMPARE(meter.snapshot().pendingResponses, 0);

        const QList<std::pair<const char*, QJsonObject>> rejected{
            {"input above the bound", usage(1'000'001, 3)},
            {"output above the bound", usage(3, 1'000'001)},
            {"negative", usage(-5, 3)},
            {"fractional", usage(12.5, 3)},
            {"text", usage(QStringLiteral("12"), 3)},
            {"boolean", usage(true, 3)},
            {"null", usage(QJsonValue::Null, 3)},
            {"missing output", QJsonObject{{QStringLiteral("input_tokens"), 3}}},
            {"empty", QJsonObject()},
        };
        for (const auto& [why, object] : rejected)
            meter.completed(QString::fromLatin1(why), object);
        const auto snapshot = meter.snapshot();
        QCOMPARE(snapshot.inputTokens, 1'000'000);
        QCOMPARE(snapshot.outputTokens, 1'000'000);
        QCOMPARE(snapshot.pendingResponses, rejected.size());

        // Integral numbers written with a decimal point are still counts.
        ConversationUsageMeter other(gptRealtime);
        other.completed(QStringLiteral("r"), usage(12.0, 7.0));
        QCOMPARE(other.snapshot().inputTokens, 12);
        QCOMPARE(other.snapshot().pendingResponses, 0);
    }

    void estimateIsCautiousAndRoundedUpToTheCent_data()
    {
        QTest::addColumn<QString>("example"); // 1,200 in + 300 out + 90 s of caller audio
        QTest::addColumn<QString>("pending"); // one response in progress, nothing else
        for (const auto& [model, example, pending] : kWorkedExamples)
            QTest::newRow(model) << QString::fromLatin1(example) << QString::fromLatin1(pending);
    }

    void estimateIsCautiousAndRoundedUpToTheCent()
    {
        QFETCH(QString, example);
        QFETCH(QString, pending);
        const QString model = QString::fromLatin1(QTest::currentDataTag());
        ConversationUsageMeter meter(model);
        QCOMPARE(meter.snapshot().label(),
                 QStringLiteral("0 tokens reçus d’OpenAI · budget prudent : 0.00 $ US"));
        meter.completed(QStringLiteral("r"), usage(1200, 300));
        meter.addInputSeconds(90);
        QCOMPARE(meter.snapshot().label(),
                 QStringLiteral("1500 tokens reçus d’OpenAI · budget prudent : ") + example +
                     QStringLiteral(" $ US"));

        ConversationUsageMeter reserved(model);
        reserved.responseCreated(QStringLiteral("r"));
        QCOMPARE(reserved.snapshot().label(),
                 QStringLiteral("0 tokens reçus d’OpenAI · budget prudent : ") + pending +
                     QStringLiteral(" $ US · provision en cours incluse"));

        // A model added to the table without its row here would be priced untested.
        for (const RealtimeModelInfo& info : ModelCatalogue::models()) {
            const bool listed = std::any_of(
                std::begin(kWorkedExamples), std::end(kWorkedExamples),
                [&](const auto& row) { return info.name == QLatin1String(std::get<0>(row)); });
            QVERIFY2(!info.priced() || listed, qPrintable(info.name));
        }
    }

    void onlyKnownModelsArePriced()
    {
        for (const char* model : {"gpt-realtime-2025-12-01", "GPT-Realtime", "gpt-realtime-mini",
                                  "gpt-4o-realtime-preview", ""}) {
            ConversationUsageMeter meter(QString::fromLatin1(model));
            meter.completed(QStringLiteral("r"), usage(40, 2));
            meter.responseCreated(QStringLiteral("pending"));
            const auto snapshot = meter.snapshot();
            QVERIFY2(!snapshot.estimatedUSD, model);
            QCOMPARE(
                snapshot.label(),
                QStringLiteral("42 tokens reçus d’OpenAI · tarif non configuré pour ce modèle"));
        }
    }
};

QTEST_GUILESS_MAIN(TestUsageMeter)
#include "tst_usage_meter.moc"
