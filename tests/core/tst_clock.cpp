#include "core/AppError.h"
#include "core/Clock.h"

#include <QObject>
#include <QTest>
#include <memory>

using namespace vemira;

class TestClock : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void manualClockRunsTasksAtTheirDueTimeInOrder()
    {
        ManualClock clock;
        QList<QString> ran;
        QList<double> at;
        auto late = clock.schedule(15.0, nullptr, [&] {
            ran << QStringLiteral("late");
            at << clock.uptime();
        });
        auto tick = clock.repeat(1.0, nullptr, [&] {
            ran << QStringLiteral("tick");
            at << clock.uptime();
        });
        auto cancelled = clock.schedule(2.0, nullptr, [&] { ran << QStringLiteral("never"); });
        cancelled->cancel();

        clock.advance(2.5);
        QCOMPARE(ran, (QList<QString>{QStringLiteral("tick"), QStringLiteral("tick")}));
        QCOMPARE(at, (QList<double>{1.0, 2.0}));
        QCOMPARE(clock.uptime(), 2.5);

        tick.reset(); // releasing a handle cancels, like a QTimer going out of scope
        clock.advance(20);
        QCOMPARE(ran.last(), QStringLiteral("late"));
        QCOMPARE(at.last(), 15.0);
        QCOMPARE(clock.pendingTasks(), 0);
        QCOMPARE(clock.now(),
                 QDateTime(QDate(2026, 3, 14), QTime(9, 30)).addSecs(22).addMSecs(500));
    }

    void tasksOfADestroyedContextNeverRun()
    {
        ManualClock clock;
        bool ran = false;
        auto context = std::make_unique<QObject>();
        auto handle = clock.schedule(1.0, context.get(), [&] { ran = true; });
        context.reset();
        clock.advance(2);
        QVERIFY(!ran);
    }

    void aTaskMaySchedulAnotherThatFallsDueInTheSameAdvance()
    {
        ManualClock clock;
        TaskHandlePtr second;
        double secondAt = -1;
        auto first = clock.schedule(1.0, nullptr, [&] {
            second = clock.schedule(0.5, nullptr, [&] { secondAt = clock.uptime(); });
        });
        clock.advance(3);
        QCOMPARE(secondAt, 1.5);
    }

    void systemClockFiresOnTheEventLoop()
    {
        bool fired = false;
        auto handle = SystemClock::instance().schedule(0.01, nullptr, [&] { fired = true; });
        QTRY_VERIFY_WITH_TIMEOUT(fired, 2000);
        QVERIFY(SystemClock::instance().uptime() > 0);
    }

    void statusCodesAreAppendedAsSignedDecimals()
    {
        const auto e =
            AppError::withStatus(QStringLiteral("Impossible de lire le réglage audio du Mac"), -50);
        QCOMPARE(e.message(), QStringLiteral("Impossible de lire le réglage audio du Mac (-50)."));
        Result<int> r = AppError(QStringLiteral("Non."));
        QVERIFY(!r.ok());
        QCOMPARE(r.error().message(), QStringLiteral("Non."));
    }
};

QTEST_GUILESS_MAIN(TestClock)
#include "tst_clock.moc"
