// The after-call notification on a real notification daemon (dunst) on a private session
// bus and Xvfb display (scripts/env/desktop-session.sh runs this test inside them).
#include "notify/DesktopNotifier.h"
#include "platform/linux/system/FreedesktopNotifier.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusMetaType>
#include <QDBusReply>
#include <QProcess>
#include <QTest>

using namespace vemira;

namespace {

const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");

CallRecord urgentCall()
{
    CallRecord record =
        CallRecord::create(QDateTime::currentDateTime(), QStringLiteral("06 12 34 56 78"),
                           QStringLiteral("Appel téléphonique"));
    CallMessage message;
    message.identity = QStringLiteral("Jeanne d’Arc-Lévêque");
    message.urgency = QStringLiteral("Urgent");
    message.summary = QStringLiteral(
        "Fuite d’eau sous l’évier <cuisine> depuis ce matin, robinet & compteur fermés.");
    record.message = message;
    return record;
}

// dunst's own control interface: what is shown, and a click on it.
QDBusInterface dunst()
{
    return QDBusInterface(kService, kPath, QStringLiteral("org.dunstproject.cmd0"),
                          QDBusConnection::sessionBus());
}

} // namespace

class DesktopNotificationTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void showsTheCallAndOpensItOnClick();

private:
    QProcess m_daemon;
};

void DesktopNotificationTest::initTestCase()
{
    QVERIFY2(qEnvironmentVariableIsSet("DISPLAY"), "run through desktop-session.sh");
    m_daemon.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_daemon.start(QStringLiteral("dunst"), {});
    QVERIFY(m_daemon.waitForStarted());
    QTRY_VERIFY_WITH_TIMEOUT(
        QDBusConnection::sessionBus().interface()->isServiceRegistered(kService).value(), 15000);
}

void DesktopNotificationTest::cleanupTestCase()
{
    m_daemon.terminate();
    if (!m_daemon.waitForFinished(5000))
        m_daemon.kill();
}

void DesktopNotificationTest::showsTheCallAndOpensItOnClick()
{
    FreedesktopNotifier notifier;
    QList<QUuid> opened;
    QStringList errors;
    notifier.onActivated = [&opened](const QUuid& id) { opened.append(id); };
    notifier.onError = [&errors](const QString& message) { errors.append(message); };

    const CallRecord record = urgentCall();
    const CallNotice notice = callNotice(record);
    QCOMPARE(notice.title, QStringLiteral("Vemira · Urgent · Jeanne d’Arc-Lévêque"));
    QCOMPARE(notice.body, record.message->summary);
    notifier.show(notice);
    QTRY_COMPARE_WITH_TIMEOUT(notifier.open(), 1, 10000);
    QVERIFY(errors.isEmpty());
    QTRY_COMPARE_WITH_TIMEOUT(dunst().property("displayedLength").toUInt(), 1u, 10000);

    // Another application's notification clicked first must not open a call.
    QDBusInterface notifications(kService, kPath, kService, QDBusConnection::sessionBus());
    notifications.call(QStringLiteral("Notify"), QStringLiteral("Autre"), uint(0), QString(),
                       QStringLiteral("Autre"), QString(),
                       QStringList{QStringLiteral("default"), QStringLiteral("Ouvrir")},
                       QVariantMap(), int(-1));
    QTRY_COMPARE_WITH_TIMEOUT(dunst().property("displayedLength").toUInt(), 2u, 10000);
    QVERIFY(dunst().call(QStringLiteral("NotificationAction"), uint(0)).errorName().isEmpty());
    // The urgent one is shown first (critical before normal): the click opened it.
    QTRY_COMPARE_WITH_TIMEOUT(opened.size(), 1, 10000);
    QCOMPARE(opened.first(), record.id);

    // What the daemon showed, from its history.
    dunst().call(QStringLiteral("NotificationCloseAll"));
    qDBusRegisterMetaType<QList<QVariantMap>>();
    const QDBusReply<QList<QVariantMap>> history =
        dunst().call(QStringLiteral("NotificationListHistory"));
    QVERIFY2(history.isValid(), qPrintable(history.error().message()));
    bool found = false;
    for (const QVariantMap& entry : history.value()) {
        auto text = [&entry](const char* key) {
            return entry.value(QString::fromLatin1(key)).toString();
        };
        if (text("appname") != QLatin1String("Vemira"))
            continue;
        found = true;
        QCOMPARE(text("summary"), notice.title);
        // dunst reads bodies as markup: the caller's words arrive as text, not as tags.
        QCOMPARE(text("body"), QStringLiteral("Fuite d’eau sous l’évier &lt;cuisine&gt; depuis ce "
                                              "matin, robinet &amp; compteur fermés."));
        QCOMPARE(text("category"), QStringLiteral("im.received"));
        // Critical urgency: the daemon keeps it on screen until the owner acts on it.
        QCOMPARE(entry.value(QStringLiteral("timeout")).toLongLong(), 0);
    }
    QVERIFY(found);
    QTRY_COMPARE_WITH_TIMEOUT(notifier.open(), 0, 10000); // closed notifications are forgotten
    // dunst sends its signals in order: a second opening would have come before the closings.
    QCOMPARE(opened.size(), 1);
}

QTEST_GUILESS_MAIN(DesktopNotificationTest)
#include "tst_desktop_notification.moc"
