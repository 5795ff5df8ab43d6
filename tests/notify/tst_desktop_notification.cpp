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

using namespace Qt::StringLiterals;
using namespace vemira;

namespace {

const QString kService = u"org.freedesktop.Notifications"_s;
const QString kPath = u"/org/freedesktop/Notifications"_s;

CallRecord urgentCall()
{
    CallRecord record = CallRecord::create(QDateTime::currentDateTime(), u"06 12 34 56 78"_s,
                                           u"Appel téléphonique"_s);
    CallMessage message;
    message.identity = u"Jeanne d’Arc-Lévêque"_s;
    message.urgency = u"Urgent"_s;
    message.summary =
        u"Fuite d’eau sous l’évier <cuisine> depuis ce matin, robinet & compteur fermés."_s;
    record.message = message;
    return record;
}

// dunst's own control interface: what is shown, and a click on it.
QDBusInterface dunst()
{
    return QDBusInterface(kService, kPath, u"org.dunstproject.cmd0"_s,
                          QDBusConnection::sessionBus());
}

} // namespace

class DesktopNotificationTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(qEnvironmentVariableIsSet("DISPLAY"), "run through desktop-session.sh");
        m_daemon.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_daemon.start(u"dunst"_s, {});
        QVERIFY(m_daemon.waitForStarted());
        QTRY_VERIFY_WITH_TIMEOUT(
            QDBusConnection::sessionBus().interface()->isServiceRegistered(kService).value(),
            15000);
    }

    void cleanupTestCase()
    {
        m_daemon.terminate();
        if (!m_daemon.waitForFinished(5000))
            m_daemon.kill();
    }

    void showsTheCallAndOpensItOnClick();

private:
    QProcess m_daemon;
};

void DesktopNotificationTest::showsTheCallAndOpensItOnClick()
{
    FreedesktopNotifier notifier;
    QList<QUuid> opened;
    QStringList errors;
    notifier.onActivated = [&opened](const QUuid& id) { opened.append(id); };
    notifier.onError = [&errors](const QString& message) { errors.append(message); };

    const CallRecord record = urgentCall();
    const CallNotice notice = callNotice(record);
    QCOMPARE(notice.title, u"Vemira · Urgent · Jeanne d’Arc-Lévêque"_s);
    QCOMPARE(notice.body, record.message->summary);
    notifier.show(notice);
    QTRY_COMPARE_WITH_TIMEOUT(notifier.open(), 1, 10000);
    QVERIFY(errors.isEmpty());
    QTRY_COMPARE_WITH_TIMEOUT(dunst().property("displayedLength").toUInt(), 1u, 10000);

    // Another application's notification clicked first must not open a call.
    QDBusInterface notifications(kService, kPath, kService, QDBusConnection::sessionBus());
    notifications.call(u"Notify"_s, u"Autre"_s, uint(0), QString(), u"Autre"_s, QString(),
                       QStringList{u"default"_s, u"Ouvrir"_s}, QVariantMap(), int(-1));
    QTRY_COMPARE_WITH_TIMEOUT(dunst().property("displayedLength").toUInt(), 2u, 10000);
    QVERIFY(dunst().call(u"NotificationAction"_s, uint(0)).errorName().isEmpty());
    // The urgent one is shown first (critical before normal): the click opened it.
    QTRY_COMPARE_WITH_TIMEOUT(opened.size(), 1, 10000);
    QCOMPARE(opened.first(), record.id);

    // What the daemon showed, from its history.
    dunst().call(u"NotificationCloseAll"_s);
    qDBusRegisterMetaType<QList<QVariantMap>>();
    const QDBusReply<QList<QVariantMap>> history = dunst().call(u"NotificationListHistory"_s);
    QVERIFY2(history.isValid(), qPrintable(history.error().message()));
    bool found = false;
    for (const QVariantMap& entry : history.value()) {
        auto text = [&entry](const char* key) {
            return entry.value(QString::fromLatin1(key)).toString();
        };
        if (text("appname") != "Vemira"_L1)
            continue;
        found = true;
        QCOMPARE(text("summary"), notice.title);
        // dunst reads bodies as markup: the caller's words arrive as text, not as tags.
        QCOMPARE(text("body"), u"Fuite d’eau sous l’évier &lt;cuisine&gt; depuis ce "
                               u"matin, robinet &amp; compteur fermés."_s);
        QCOMPARE(text("category"), u"im.received"_s);
        // Critical urgency: the daemon keeps it on screen until the owner acts on it.
        QCOMPARE(entry.value(u"timeout"_s).toLongLong(), 0);
    }
    QVERIFY(found);
    QTRY_COMPARE_WITH_TIMEOUT(notifier.open(), 0, 10000); // closed notifications are forgotten
    // dunst sends its signals in order: a second opening would have come before the closings.
    QCOMPARE(opened.size(), 1);
}

QTEST_GUILESS_MAIN(DesktopNotificationTest)
#include "tst_desktop_notification.moc"
