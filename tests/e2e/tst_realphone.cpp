// The softphone profiles against the real applications: Twinkle and GNOME Calls, in French
// and in English, on a private desktop, called over loopback by a headless baresip. Each
// must be seen idle without a call, ringing with the caller's number, answered, in a call,
// and hung up, all through the accessibility bus as the receptionist does it.
#include "demo/DemoSoftphone.h"
#include "demo/PrivateNetwork.h"
#include "phone/PhoneAutomation.h"
#include "platform/linux/phone/AtspiAccessibility.h"
#include "support/PrivateDesktop.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>
#include <cstdio>

using namespace vemira;
using namespace vemira::e2e;

class RealPhoneTest : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    std::unique_ptr<PrivateDesktop> m_desktop;
    std::unique_ptr<AtspiAccessibility> m_accessibility;
    QString m_voice;

    template <typename Condition> bool eventually(Condition condition, int ms = 15000)
    {
        QElapsedTimer waited;
        waited.start();
        while (waited.elapsed() < ms) {
            if (condition())
                return true;
            QTest::qWait(100);
        }
        return false;
    }

    // A loaded machine may let one 30 ms request expire; the standby tick would simply try
    // again on its next second, and so does this test, a few times at most.
    template <typename Operation> static Status retried(Operation operation)
    {
        Status status = operation();
        for (int attempt = 0; status && attempt < 3; ++attempt) {
            QTest::qWait(200);
            status = operation();
        }
        return status;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY2(inPrivateNetwork(), "runs in a network namespace of its own");
        m_desktop = std::make_unique<PrivateDesktop>(QStringLiteral(VEMIRA_SCRIPTS),
                                                     m_dir.filePath(QStringLiteral("desktop")));
        QString error;
        QVERIFY2(m_desktop->start(&error), qPrintable(error));
        const QProcessEnvironment env = m_desktop->environment();
        for (const QString& name : env.keys())
            qputenv(name.toUtf8().constData(), env.value(name).toUtf8());
        m_accessibility = std::make_unique<AtspiAccessibility>();
        QVERIFY(m_accessibility->isTrusted());
        // What the caller says: a steady tone is enough here, the call is not listened to.
        m_voice = m_dir.filePath(QStringLiteral("caller.wav"));
        QCOMPARE(QProcess::execute(
                     QStringLiteral("sox"),
                     {QStringLiteral("-n"), QStringLiteral("-r"), QStringLiteral("8000"),
                      QStringLiteral("-c"), QStringLiteral("1"), m_voice, QStringLiteral("synth"),
                      QStringLiteral("30"), QStringLiteral("sine"), QStringLiteral("440")}),
                 0);
    }

    void cleanupTestCase()
    {
        m_accessibility.reset();
        m_desktop.reset();
    }

    void aRealCallIsFoundAnsweredAndHungUp_data()
    {
        QTest::addColumn<QString>("phoneId");
        QTest::addColumn<QString>("language");
        QTest::addColumn<QString>("callerName");
        const QString twinkle = QStringLiteral("twinkle");
        const QString calls = QStringLiteral("gnome-calls");
        QTest::newRow("Twinkle, French") << twinkle << "fr"
                                         << "Jean Test";
        QTest::newRow("Twinkle, English") << twinkle << "en"
                                          << "Jean Test";
        // GNOME Calls shows the caller's number and address, not the display name.
        QTest::newRow("GNOME Calls, French") << calls << "fr"
                                             << "";
        QTest::newRow("GNOME Calls, English") << calls << "en"
                                              << "";
    }

    void aRealCallIsFoundAnsweredAndHungUp()
    {
        QFETCH(QString, phoneId);
        QFETCH(QString, language);
        QFETCH(QString, callerName);
        DemoSoftphone phone(phoneId,
                            m_dir.filePath(QString::fromUtf8(QTest::currentDataTag())
                                               .replace(QLatin1Char(' '), QLatin1Char('_'))
                                               .remove(QLatin1Char(','))),
                            m_desktop->environment(), language,
                            QStringLiteral(VEMIRA_SCRIPTS "/softphone.sh"));
        Status started = phone.start();
        QVERIFY2(!started, started ? qPrintable(started->message()) : "");
        started = phone.startCaller(m_voice, QStringLiteral("vemira.desk"));
        QVERIFY2(!started, started ? qPrintable(started->message()) : "");

        // Every known softphone is searched, as by default.
        PhoneAutomation automation(*m_accessibility, SystemClock::instance(), softphones::known());
        QVERIFY2(eventually([&] { return automation.anyApplicationVisible(); }),
                 "the softphone registers on the accessibility bus");
        // Idle: its call buttons are there but disabled, and mean nothing.
        QVERIFY(!automation.incoming());
        QVERIFY(!automation.hasActiveCall());

        const Status dialled = phone.dial();
        QVERIFY2(!dialled, dialled ? qPrintable(dialled->message()) : "");
        std::optional<IncomingCall> call;
        QVERIFY2(eventually([&] { return (call = automation.incoming()).has_value(); }),
                 "the ringing call is found");
        QCOMPARE(call->profileId, phone.id());
        QCOMPARE(call->caller, QStringLiteral("0612345678"));
        QCOMPARE(call->callerName, callerName);
        QVERIFY(!automation.hasActiveCall()); // decline is no hang-up

        const Status answered = retried([&] { return automation.answer(*call); });
        QVERIFY2(!answered, answered ? qPrintable(answered->message()) : "");
        QVERIFY2(eventually([&] { return phone.callerLogShows("Call established"); }),
                 "the caller is connected");
        QVERIFY(eventually([&] { return automation.hasActiveCall(); }));
        QVERIFY(!automation.incoming());
        const Status again = automation.answer(*call);
        QVERIFY(again);
        QCOMPARE(again->message(), QStringLiteral("L’appel n’est plus disponible."));

        // GNOME Calls animates into its call view; a call is hung up later than this in life.
        QTest::qWait(1500);
        const Status hungUp = retried([&] { return automation.hangup(); });
        QVERIFY2(!hungUp, hungUp ? qPrintable(hungUp->message()) : "");
        QVERIFY2(eventually([&] { return phone.callerLogShows("terminated"); }),
                 "the caller hears the call end");
        QVERIFY(eventually([&] { return !automation.hasActiveCall(); }));
        QVERIFY(!automation.incoming());
    }
};

int main(int argc, char** argv)
{
    // Before any thread: the SIP ports are fixed and GNOME Calls binds every address.
    QString error;
    if (!enterPrivateNetwork(&error)) {
        std::fprintf(stderr, "no private network namespace: %s\n", qPrintable(error));
        return 1;
    }
    QCoreApplication app(argc, argv);
    RealPhoneTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_realphone.moc"
