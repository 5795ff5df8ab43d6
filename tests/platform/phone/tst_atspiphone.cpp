// The call search against a real window: the demonstration's test softphone under Xvfb, with
// a private sound server for its call, read through AT-SPI.
#include "phone/PhoneAutomation.h"
#include "platform/linux/phone/AtspiAccessibility.h"
#include "support/PulseDaemon.h"
#include "support/WaitFor.h"

#include <QProcess>
#include <QtTest>

using namespace vemira;
using vemira::testing::waitFor;

namespace {
const QString kPhoneName = QStringLiteral("Softphone de test");
}

class AtspiPhoneTest : public QObject {
    Q_OBJECT

private:
    PulseDaemon m_audio;
    QString m_sessionDir;
    QProcess m_phone;
    std::unique_ptr<AtspiAccessibility> m_accessibility;

private Q_SLOTS:
    void initTestCase()
    {
        const QString audio = m_audio.start();
        QVERIFY2(audio.isEmpty(), qPrintable(audio));
        QProcess session;
        session.start(QStringLiteral(VEMIRA_DESKTOP_SESSION), {QStringLiteral("start")});
        QVERIFY(session.waitForFinished(30000));
        const QString out = QString::fromUtf8(session.readAllStandardOutput());
        QVERIFY2(session.exitCode() == 0, session.readAllStandardError().constData());
        for (const QString& line : out.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            const QString assignment = line.section(QLatin1Char(' '), 1);
            const QString name = assignment.section(QLatin1Char('='), 0, 0);
            const QString value = assignment.section(QLatin1Char('='), 1);
            qputenv(name.toUtf8().constData(), value.toUtf8());
            if (name == QStringLiteral("VEMIRA_DESKTOP_DIR"))
                m_sessionDir = value;
        }
        QVERIFY(!m_sessionDir.isEmpty());
        m_accessibility = std::make_unique<AtspiAccessibility>();
        QVERIFY(m_accessibility->isTrusted());
    }

    void cleanupTestCase()
    {
        m_accessibility.reset();
        if (m_phone.state() != QProcess::NotRunning) {
            m_phone.kill();
            m_phone.waitForFinished(5000);
        }
        if (!m_sessionDir.isEmpty())
            QProcess::execute(QStringLiteral(VEMIRA_DESKTOP_SESSION),
                              {QStringLiteral("stop"), m_sessionDir});
    }

    void aRingingWindowIsFoundAnsweredAndHungUp()
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        m_phone.setProcessEnvironment(env);
        m_phone.start(QStringLiteral(VEMIRA_TEST_SOFTPHONE),
                      {QStringLiteral("--ring-after"), QStringLiteral("0")});
        QVERIFY(m_phone.waitForStarted());

        // The searched names come from the default list plus VEMIRA_PHONE_APPS.
        const QStringList searched = linuxPhoneApplications("Mon Softphone");
        QVERIFY(searched.contains(QStringLiteral("Linphone")));
        QVERIFY(searched.contains(QStringLiteral("Mon Softphone")));
        QVERIFY(searched.contains(kPhoneName));
        PhoneAutomation phone(*m_accessibility, SystemClock::instance(), searched);
        PhoneAutomation elsewhere(*m_accessibility, SystemClock::instance(),
                                  {QStringLiteral("Mon Softphone")});

        // The application registers with the desktop a little after its window shows.
        std::optional<IncomingCall> call;
        QVERIFY(waitFor([&] { return (call = phone.incoming()).has_value(); }, 10));
        QCOMPARE(call->caller, QStringLiteral("+33 6 12 34 56 78"));
        QVERIFY(call->button->role() == axrole::button());
        QCOMPARE(call->button->label(LabelAttribute::Title), QStringLiteral("Répondre"));
        QVERIFY(!phone.hasActiveCall());
        QVERIFY(!elsewhere.incoming()); // not one of the searched applications

        // The window's changes are reported, so the call search knows when to look again.
        const AccessibilityElementPtr root = m_accessibility->applicationRoots({kPhoneName}).at(0);
        const std::optional<quint64> unchanged = m_accessibility->structureChanges(root.get());
        QVERIFY(unchanged);

        // A loaded machine may let one 30 ms request expire; the standby tick would simply
        // try again, and so does this test, a few times at most.
        Status answered = phone.answer(*call);
        for (int attempt = 0; answered && attempt < 3; ++attempt)
            answered = phone.answer(*call);
        QCOMPARE(answered, Status());
        QVERIFY(waitFor([&] { return m_accessibility->structureChanges(root.get()) != unchanged; },
                        10));
        QVERIFY(waitFor([&] { return phone.hasActiveCall(); }, 10));
        QVERIFY(!phone.incoming());
        // The offer's button is gone: answering it again presses nothing.
        const Status again = phone.answer(*call);
        QVERIFY(again);
        QCOMPARE(again->message(), QStringLiteral("L’appel n’est plus disponible."));

        Status hungUp = phone.hangup();
        for (int attempt = 0; hungUp && attempt < 3; ++attempt)
            hungUp = phone.hangup();
        QCOMPARE(hungUp, Status());
        QVERIFY(waitFor([&] { return !phone.hasActiveCall(); }, 10));
        const Status none = phone.hangup();
        QVERIFY(none);
        QCOMPARE(none->message(),
                 QStringLiteral("Bouton Raccrocher introuvable : terminez l’appel dans %1.")
                     .arg(kPhoneName));
    }
};

QTEST_GUILESS_MAIN(AtspiPhoneTest)
#include "tst_atspiphone.moc"
