#include "platform/linux/system/LinuxWorkspace.h"
#include "platform/linux/system/LogindSleepNotifier.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusUnixFileDescriptor>
#include <QProcess>
#include <QTest>
#include <fcntl.h>
#include <unistd.h>

using namespace vemira;

// Plays logind on a private bus: hands out the write end of a pipe as the inhibitor lock,
// so the test can see when every copy of it has been closed (the read end reaches EOF).
class FakeLogind : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")

public:
    int locksGiven = 0;
    QStringList lastRequest;
    int readEnd = -1;

    ~FakeLogind() override
    {
        if (readEnd >= 0)
            ::close(readEnd);
    }

    bool lockReleased() const
    {
        char byte;
        return ::read(readEnd, &byte, 1) == 0;
    }

public Q_SLOTS:
    Q_SCRIPTABLE QDBusUnixFileDescriptor Inhibit(const QString& what, const QString& who,
                                                 const QString& why, const QString& mode)
    {
        int fds[2];
        if (::pipe(fds) != 0)
            return {};
        if (readEnd >= 0)
            ::close(readEnd);
        readEnd = fds[0];
        ::fcntl(readEnd, F_SETFL, O_NONBLOCK);
        QDBusUnixFileDescriptor lock(fds[1]); // duplicates
        ::close(fds[1]);
        ++locksGiven;
        lastRequest = {what, who, why, mode};
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
            QSKIP("dbus-daemon is not available");
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
        QTRY_VERIFY(notifier.holdsLock());
        QCOMPARE(logind.lastRequest.value(0), QStringLiteral("sleep"));
        QCOMPARE(logind.lastRequest.value(3), QStringLiteral("delay"));
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
        auto emitSleep = [&](bool start) {
            QDBusMessage signal =
                QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/login1"),
                                           QStringLiteral("org.freedesktop.login1.Manager"),
                                           QStringLiteral("PrepareForSleep"));
            signal << start;
            QVERIFY(service.send(signal));
        };
        emitSleep(true);
        QTRY_COMPARE(calls, 1);
        QVERIFY(heldDuringCallback);
        QVERIFY(!notifier.holdsLock());
        QVERIFY(logind.lockReleased());

        // Waking up takes a new lock for the next sleep and is told once; it is not a sleep.
        QCOMPARE(wakes, 0);
        emitSleep(false);
        QTRY_COMPARE(logind.locksGiven, 2);
        QVERIFY(notifier.holdsLock());
        QCOMPARE(calls, 1);
        QCOMPARE(wakes, 1);

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
