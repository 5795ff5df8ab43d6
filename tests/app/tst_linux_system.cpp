#include "platform/linux/system/LinuxWorkspace.h"
#include "platform/linux/system/LogindSleepNotifier.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusUnixFileDescriptor>
#include <QHash>
#include <QProcess>
#include <QTest>
#include <fcntl.h>
#include <unistd.h>

using namespace vemira;

// Plays logind on a private bus: hands out the write end of a pipe as each inhibitor lock,
// so the test can see when every copy of it has been closed (the read end reaches EOF).
class FakeLogind : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")

public:
    int locksGiven = 0;
    // The requests, by what they inhibit ("sleep", "shutdown").
    QHash<QString, QStringList> requests;
    QHash<QString, int> readEnds;

    ~FakeLogind() override
    {
        for (int fd : std::as_const(readEnds))
            ::close(fd);
    }

    bool lockReleased(const QString& what = QStringLiteral("sleep")) const
    {
        char byte;
        return ::read(readEnds.value(what, -1), &byte, 1) == 0;
    }

public Q_SLOTS:
    Q_SCRIPTABLE QDBusUnixFileDescriptor Inhibit(const QString& what, const QString& who,
                                                 const QString& why, const QString& mode)
    {
        int fds[2];
        if (::pipe(fds) != 0)
            return {};
        if (readEnds.contains(what))
            ::close(readEnds.value(what));
        readEnds.insert(what, fds[0]);
        ::fcntl(fds[0], F_SETFL, O_NONBLOCK);
        QDBusUnixFileDescriptor lock(fds[1]); // duplicates
        ::close(fds[1]);
        ++locksGiven;
        requests.insert(what, {what, who, why, mode});
        return lock;
    }
};

class LinuxSystemTest : public QObject {
    Q_OBJECT

    QProcess m_daemon;
    QString m_address;

private Q_SLOTS:
    void initTestCase()
    {
        m_daemon.start(QStringLiteral("dbus-daemon"),
                       {QStringLiteral("--session"), QStringLiteral("--nofork"),
                        QStringLiteral("--print-address=1")});
        if (!m_daemon.waitForStarted(5000))
            QFAIL("dbus-daemon is needed (apt package dbus)");
        QTRY_VERIFY_WITH_TIMEOUT(m_daemon.canReadLine(), 5000);
        m_address = QString::fromUtf8(m_daemon.readLine()).trimmed();
    }

    void cleanupTestCase()
    {
        m_daemon.terminate();
        m_daemon.waitForFinished(3000);
    }

    void sleepIsReportedAndTheLockReleasedAfterwards()
    {
        QDBusConnection service =
            QDBusConnection::connectToBus(m_address, QStringLiteral("logind"));
        QVERIFY(service.isConnected());
        QVERIFY(service.registerService(QStringLiteral("org.freedesktop.login1")));
        FakeLogind logind;
        QVERIFY(service.registerObject(QStringLiteral("/org/freedesktop/login1"), &logind,
                                       QDBusConnection::ExportScriptableSlots));

        LogindSleepNotifier notifier(
            QDBusConnection::connectToBus(m_address, QStringLiteral("vemira")));
        QVERIFY(notifier.listening());
        QTRY_VERIFY(notifier.holdsLock() && notifier.holdsShutdownLock());
        QCOMPARE(logind.requests.value(QStringLiteral("sleep")).value(3), QStringLiteral("delay"));
        QCOMPARE(logind.requests.value(QStringLiteral("shutdown")).value(3),
                 QStringLiteral("delay"));
        QVERIFY(!logind.lockReleased());

        // The lock must still be held while the callback saves, and released right after.
        int calls = 0;
        int wakes = 0;
        notifier.onWoke = [&] { ++wakes; };
        bool heldDuringCallback = false;
        notifier.onWillSleep = [&] {
            ++calls;
            heldDuringCallback = !logind.lockReleased();
        };
        auto emitPrepare = [&](const QString& what, bool start) {
            QDBusMessage signal =
                QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/login1"),
                                           QStringLiteral("org.freedesktop.login1.Manager"),
                                           QStringLiteral("PrepareFor") + what);
            signal << start;
            QVERIFY(service.send(signal));
        };
        auto emitSleep = [&](bool start) { emitPrepare(QStringLiteral("Sleep"), start); };
        emitSleep(true);
        QTRY_COMPARE(calls, 1);
        QVERIFY(heldDuringCallback);
        QVERIFY(!notifier.holdsLock());
        QVERIFY(logind.lockReleased());

        // Waking up takes a new lock for the next sleep and is told once; it is not a sleep.
        QCOMPARE(wakes, 0);
        emitSleep(false);
        QTRY_COMPARE(logind.locksGiven, 3);
        QVERIFY(notifier.holdsLock());
        QCOMPARE(calls, 1);
        QCOMPARE(wakes, 1);

        // A shutdown is held back the same way, and is not a sleep.
        int powerOffs = 0;
        bool shutdownHeld = false;
        notifier.onWillPowerOff = [&] {
            ++powerOffs;
            shutdownHeld = !logind.lockReleased(QStringLiteral("shutdown"));
        };
        emitPrepare(QStringLiteral("Shutdown"), true);
        QTRY_COMPARE(powerOffs, 1);
        QVERIFY(shutdownHeld);
        QVERIFY(logind.lockReleased(QStringLiteral("shutdown")));
        QCOMPARE(calls, 1);

        service.unregisterObject(QStringLiteral("/org/freedesktop/login1"));
        service.unregisterService(QStringLiteral("org.freedesktop.login1"));
        QDBusConnection::disconnectFromBus(QStringLiteral("logind"));
        QDBusConnection::disconnectFromBus(QStringLiteral("vemira"));
    }

    void withoutLogindNothingIsHeld()
    {
        LogindSleepNotifier notifier(
            QDBusConnection::connectToBus(m_address, QStringLiteral("lonely")));
        QVERIFY(!notifier.holdsLock());
        QDBusConnection::disconnectFromBus(QStringLiteral("lonely"));
    }

    void addressesGoToXdgOpen()
    {
        QStringList launched;
        bool accept = true;
        LinuxWorkspace workspace([&](const QString& program, const QStringList& args) {
            launched = QStringList{program} + args;
            return accept;
        });
        QVERIFY(workspace.openUrl(QUrl(QStringLiteral("tel:+330612345678"))));
        QCOMPARE(launched,
                 (QStringList{QStringLiteral("xdg-open"), QStringLiteral("tel:+330612345678")}));
        accept = false;
        QVERIFY(!workspace.openUrl(QUrl(QStringLiteral("tel:0612345678"))));
        launched.clear();
        QVERIFY(!workspace.openUrl(QUrl()));
        QVERIFY(launched.isEmpty());
        QVERIFY(workspace.microphoneAuthorized());
    }
};

QTEST_GUILESS_MAIN(LinuxSystemTest)
#include "tst_linux_system.moc"
