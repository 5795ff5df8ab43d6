#include "FakeAccessibility.h"
#include "phone/CallPolicy.h"
#include "phone/LabelText.h"
#include "phone/PhoneAutomation.h"

#include <QtTest>

using namespace vemira;
using namespace vemira::testing;

namespace {

const QString kPhoneApp = QStringLiteral("com.apple.mobilephone");
const QString kNotifications = QStringLiteral("com.apple.notificationcenterui");

QString group()
{
    return axrole::group();
}
QString button()
{
    return axrole::button();
}
QString text()
{
    return axrole::staticText();
}

// A call notification as the phone shows it: a window with a banner holding the caller's
// texts and the two buttons; the window is three parents above the answer button.
struct CallBanner {
    FakeElementPtr banner;
    FakeElementPtr answerButton;
};

CallBanner addCallBanner(const FakeElementPtr& under, const QStringList& texts,
                         const QString& answerTitle = QStringLiteral("Décrocher"))
{
    CallBanner c;
    c.banner = under->add(axrole::window())->add(group());
    for (const QString& t : texts)
        c.banner->add(text(), t);
    FakeElementPtr buttons = c.banner->add(group());
    buttons->add(button(), QStringLiteral("Refuser"));
    c.answerButton = buttons->add(button(), answerTitle);
    return c;
}

} // namespace

class PhoneAutomationTest : public QObject {
    Q_OBJECT

private:
    ManualClock clock;
    FakeAccessibility platform;
    FakeElementPtr phone;

    PhoneAutomation automation()
    {
        return PhoneAutomation(platform, clock, {kPhoneApp, kNotifications});
    }

private Q_SLOTS:
    void init()
    {
        platform = FakeAccessibility();
        phone = FakeElement::make(axrole::application());
        platform.running = {{kPhoneApp, phone}};
    }

    void labelsFoldTheFrenchWayButKeepBothApostrophes()
    {
        QCOMPARE(normalizedLabel(QStringLiteral("  RÉPONDRE À L’APPEL \n")),
                 QStringLiteral("repondre a l’appel"));
        QCOMPARE(normalizedLabel(QStringLiteral("Décrocher\t")), QStringLiteral("decrocher"));
        QCOMPARE(normalizedLabel(QStringLiteral("\u00a0Téléphone")), QStringLiteral("telephone"));
        QVERIFY(normalizedLabel(QStringLiteral("l’appel")) !=
                normalizedLabel(QStringLiteral("l'appel")));
        QVERIFY(anyLabelIn({QStringLiteral("Terminer l’appel")}, phonelabels::hangUp()));
        QVERIFY(anyLabelIn({QStringLiteral("terminer l'appel")}, phonelabels::hangUp()));
        QVERIFY(anyLabelIn({QStringLiteral("Répondre à l'appel")}, phonelabels::answer()));
        // Equality, not containment.
        QVERIFY(!anyLabelIn({QStringLiteral("Répondre à l’appel entrant")}, phonelabels::answer()));
        QVERIFY(
            !anyLabelIn({QStringLiteral("Appel entrant de Marie")}, phonelabels::callContext()));
    }

    void anOfferNeedsAnAnswerButtonAndACallWordAround()
    {
        // Without context the same button is nothing.
        CallBanner bare = addCallBanner(phone, {QStringLiteral("Marie")});
        QVERIFY(!automation().incoming());

        bare.banner->add(text(), QStringLiteral("Téléphone"));
        std::optional<IncomingCall> call = automation().incoming();
        QVERIFY(call);
        QCOMPARE(call->button.get(), bare.answerButton.get());
        QCOMPARE(call->caller, QStringLiteral("Identité à confirmer"));

        // The answer label may sit in any of the four label attributes, any role but a
        // button is ignored.
        init();
        CallBanner described = addCallBanner(phone, {QStringLiteral("Appel entrant")}, {});
        described.answerButton->title.reset();
        described.answerButton->help = QStringLiteral("  accepter ");
        QVERIFY(automation().incoming());
        described.answerButton->roleName = text();
        QVERIFY(!automation().incoming());

        init();
        CallBanner longer = addCallBanner(phone, {QStringLiteral("Appel entrant")},
                                          QStringLiteral("Répondre à l’appel entrant"));
        QVERIFY(!automation().incoming());
        longer.answerButton->title = QStringLiteral("Répondre à l’appel");
        QVERIFY(automation().incoming());
    }

    void aMessageReplyIsNeverTakenButTheSearchGoesOn()
    {
        // Visited first (last sibling): a message notification with its own Répondre.
        CallBanner call = addCallBanner(
            phone, {QStringLiteral("Appel entrant"), QStringLiteral("+33 6 12 34 56 78")});
        FakeElementPtr message =
            phone->add(axrole::window())->add(group())->add(group())->add(group());
        message->add(text(), QStringLiteral("Messages"));
        message->add(text(), QStringLiteral("Tu rappelles au 06 11 22 33 44 ?"));
        FakeElementPtr reply = message->add(button(), QStringLiteral("Répondre"));

        std::optional<IncomingCall> found = automation().incoming();
        QVERIFY(found);
        QCOMPARE(found->button.get(), call.answerButton.get());
        QCOMPARE(found->caller, QStringLiteral("+33 6 12 34 56 78"));
        QCOMPARE(reply->pressCount, 0);
    }

    void theContainerIsAtMostThreeParentsUp()
    {
        // context word 3 levels above the button: seen.
        FakeElementPtr top = phone->add(group());
        top->add(text(), QStringLiteral("FaceTime"));
        FakeElementPtr mid = top->add(group())->add(group());
        FakeElementPtr answer = mid->add(button(), QStringLiteral("Accept"));
        QVERIFY(automation().incoming());

        // One more level between them: out of reach.
        init();
        FakeElementPtr far = phone->add(group());
        far->add(text(), QStringLiteral("FaceTime"));
        far->add(group())->add(group())->add(group())->add(button(), QStringLiteral("Accept"));
        QVERIFY(!automation().incoming());

        // A parent attribute that is not an element ends the climb where it is.
        init();
        FakeElementPtr outer = phone->add(group());
        outer->add(text(), QStringLiteral("Incoming call"));
        FakeElementPtr inner = outer->add(group());
        inner->parentIsNotElement = true;
        inner->add(button(), QStringLiteral("Answer"));
        QVERIFY(!automation().incoming());
        inner->parentIsNotElement = false;
        QVERIFY(automation().incoming());
    }

    void rootsAreTheSearchedApplicationsInTheirOrder()
    {
        FakeElementPtr notes = FakeElement::make(axrole::application(), QStringLiteral("Notes"));
        addCallBanner(notes, {QStringLiteral("Téléphone")});
        FakeElementPtr banner = FakeElement::make(axrole::application());
        CallBanner fromBanner = addCallBanner(banner, {QStringLiteral("Appel entrant")});
        CallBanner fromPhone = addCallBanner(phone, {QStringLiteral("Téléphone")});
        platform.running = {{QStringLiteral("com.apple.Notes"), notes},
                            {kNotifications, banner},
                            {kPhoneApp, phone}};
        QCOMPARE(automation().incoming()->button.get(), fromBanner.answerButton.get());
        // Each root is bounded to 0.15 s a request, each element read to 0.03 s.
        QCOMPARE(phone->timeout, 0.15);
        QCOMPARE(banner->timeouts.front(), 0.15);
        QCOMPARE(banner->timeouts.back(), 0.03);
        QCOMPARE(fromBanner.answerButton->timeout, 0.03);
        QCOMPARE(notes->log->reads, 0);

        // Siblings are visited from last to first.
        init();
        CallBanner first = addCallBanner(phone, {QStringLiteral("Téléphone")});
        CallBanner second = addCallBanner(phone, {QStringLiteral("Téléphone")});
        QCOMPARE(automation().incoming()->button.get(), second.answerButton.get());
        Q_UNUSED(first)
    }

    void withoutPermissionNothingIsReadOrPressed()
    {
        CallBanner call = addCallBanner(phone, {QStringLiteral("Téléphone")});
        phone->add(button(), QStringLiteral("Raccrocher"));
        const IncomingCall offer = *automation().incoming();
        platform.trusted = false;
        const int readsBefore = phone->log->reads;
        QVERIFY(!automation().incoming());
        QVERIFY(!automation().hasActiveCall());
        PhoneAutomation a = automation();
        const Status answered = a.answer(offer);
        QVERIFY(answered);
        QCOMPARE(answered->message(), QStringLiteral("L’appel n’est plus disponible."));
        QCOMPARE(phone->log->reads, readsBefore);
        QCOMPARE(call.answerButton->pressCount, 0);
    }

    void answerRechecksTheButtonBeforePressing()
    {
        CallBanner call = addCallBanner(phone, {QStringLiteral("Appel entrant")});
        PhoneAutomation a = automation();
        const IncomingCall offer = *a.incoming();
        QVERIFY(!a.answer(offer));
        QCOMPARE(call.answerButton->pressCount, 1);

        // The offer went away and the same element now reads differently.
        call.answerButton->title = QStringLiteral("Raccrocher");
        const Status gone = a.answer(offer);
        QVERIFY(gone);
        QCOMPARE(gone->message(), QStringLiteral("L’appel n’est plus disponible."));
        QCOMPARE(call.answerButton->pressCount, 1);

        call.answerButton->title = QStringLiteral("Décrocher");
        call.answerButton->pressSucceeds = false;
        const Status refused = a.answer(offer);
        QVERIFY(refused);
        QCOMPARE(refused->message(),
                 QStringLiteral("Le bouton Décrocher n’a pas répondu. Décrochez dans Téléphone."));
    }

    void numbersGroupedWithNoBreakSpacesAreRead()
    {
        const QString nbsp = QString(QChar(0x00A0));
        const QString narrow = QString(QChar(0x202F));
        const QString french = QStringLiteral("06") + narrow + QStringLiteral("12") + narrow +
                               QStringLiteral("34") + narrow + QStringLiteral("56") + narrow +
                               QStringLiteral("78");
        const QString international = QStringLiteral("+33") + nbsp + QStringLiteral("6") + nbsp +
                                      QStringLiteral("12") + nbsp + QStringLiteral("34") + nbsp +
                                      QStringLiteral("56") + nbsp + QStringLiteral("78");
        // Kept as written, like any other separator.
        QCOMPARE(CallPolicy::phoneNumber({QStringLiteral("Appel de ") + french}),
                 std::optional(french));
        QCOMPARE(CallPolicy::phoneNumber({international}), std::optional(international));
        // The digit count still rules: six digits are no number, whatever the spaces.
        QCOMPARE(CallPolicy::phoneNumber({QStringLiteral("12") + nbsp + QStringLiteral("34") +
                                          narrow + QStringLiteral("56")}),
                 std::nullopt);
    }

    void hangUpButtonsInBothApostrophesEndTheCall()
    {
        PhoneAutomation a = automation();
        QVERIFY(!a.hasActiveCall());
        const Status missing = a.hangup();
        QVERIFY(missing);
        QCOMPARE(
            missing->message(),
            QStringLiteral("Bouton Raccrocher introuvable : terminez l’appel dans Téléphone."));

        FakeElementPtr typographic = phone->add(group())->add(button());
        typographic->description = QStringLiteral("Terminer l’appel");
        QVERIFY(a.hasActiveCall());
        QVERIFY(!a.hangup());
        QCOMPARE(typographic->pressCount, 1);

        typographic->description = QStringLiteral("terminer l'appel");
        QVERIFY(a.hasActiveCall());

        typographic->pressSucceeds = false;
        const Status refused = a.hangup();
        QVERIFY(refused);
        QCOMPARE(refused->message(), QStringLiteral("Raccrochez dans Téléphone."));

        // A label "Raccrocher" that is not a button is not a call.
        typographic->roleName = text();
        QVERIFY(!a.hasActiveCall());

        // No phone application running: no call either.
        platform.running.clear();
        QVERIFY(!a.hasActiveCall());
        QVERIFY(!a.incoming());
    }

    // Where the platform reads from any thread, trees are walked away from the main thread:
    // the first look waits for its walk, a remembered button that no longer reads as one makes
    // the look wait for a new walk, and a reported change is walked while the main thread
    // reads the remembered buttons again, its walk taken at a later look.
    void aTreeIsWalkedAwayFromTheMainThread()
    {
        platform.anyThread = true;
        platform.changes = 0;
        const QString incoming = QStringLiteral("Appel entrant");
        CallBanner ring = addCallBanner(phone, {incoming, QStringLiteral("06 12 34 56 78")});
        PhoneAutomation a = automation();
        QCOMPARE(a.incoming()->caller, QStringLiteral("06 12 34 56 78"));
        ring.answerButton->title.reset();
        addCallBanner(phone, {incoming, QStringLiteral("07 00 00 00 01")});
        QCOMPARE(a.incoming()->caller, QStringLiteral("07 00 00 00 01"));
        phone->kids.pop_back();
        platform.changes = 1;
        QVERIFY(a.incoming());
        QTRY_VERIFY(!a.incoming());
    }

    // Where the platform reports changes, a tree is walked once, then only what matters in it
    // is read again (its texts included) until a change is reported or the look is old; a
    // remembered button that no longer reads as one is never taken.
    void aTreeIsWalkedAgainOnlyWhenItMayHaveChanged()
    {
        platform.changes = 0;
        FakeElementPtr contacts = phone->add(axrole::window());
        contacts->log = std::make_shared<FakeReadLog>();
        for (int i = 0; i < 50; ++i)
            contacts->add(text(), QStringLiteral("Contact %1").arg(i));
        PhoneAutomation a = automation();
        QVERIFY(!a.incoming());
        int reads = contacts->log->reads;
        QVERIFY(reads > 0);
        QVERIFY(!a.incoming());
        QCOMPARE(contacts->log->reads, reads);

        CallBanner ring = addCallBanner(phone, {QStringLiteral("Appel entrant")});
        FakeElementPtr number = ring.banner->add(text(), QStringLiteral("06 12 34 56 78"));
        QVERIFY(!a.incoming());
        clock.advance(10.0);
        QCOMPARE(a.incoming()->caller, QStringLiteral("06 12 34 56 78"));
        // A tree caught changing may answer in part: it is walked once more at the next look.
        FakeElementPtr window = phone->kids.back();
        phone->kids.pop_back();
        platform.changes = 1;
        QVERIFY(!a.incoming());
        phone->add(window);
        QVERIFY(a.incoming());
        reads = contacts->log->reads;
        number->title = QStringLiteral("07 00 00 00 01");
        QCOMPARE(a.incoming()->caller, QStringLiteral("07 00 00 00 01"));
        QCOMPARE(contacts->log->reads, reads);

        // Renamed unreported: never taken, and the tree is looked at again at once.
        const IncomingCall call = *a.incoming();
        ring.answerButton->title = QStringLiteral("Rappeler");
        CallBanner other = addCallBanner(phone, {QStringLiteral("Appel entrant")});
        QCOMPARE(a.incoming()->button.get(), other.answerButton.get());
        phone->kids.pop_back();
        other.answerButton->title.reset();
        ring.answerButton->title = QStringLiteral("Décrocher");
        QCOMPARE(a.incoming()->button.get(), ring.answerButton.get());
        // Gone from the tree, unreported: the element reads as nothing.
        phone->kids.pop_back();
        ring.answerButton->title.reset();
        QVERIFY(!a.incoming());
        QVERIFY(a.answer(call));
        QCOMPARE(ring.answerButton->pressCount, 0);
    }

    void sixHundredElementsPerRootAtMost()
    {
        // The root counts, then 598 fillers, then the button visited last: 600 listed.
        FakeElementPtr hangUp = phone->add(button(), QStringLiteral("Raccrocher"));
        for (int i = 0; i < 598; ++i)
            phone->add(group());
        QVERIFY(automation().hasActiveCall());
        phone->add(group());
        QVERIFY(!automation().hasActiveCall());

        // The limit is per root: the same button in a second application is found.
        FakeElementPtr other = FakeElement::make(axrole::application());
        other->add(button(), QStringLiteral("End call"));
        platform.running.push_back({kNotifications, other});
        QVERIFY(automation().hasActiveCall());
        Q_UNUSED(hangUp)
    }

    void depthTwelveIsListedButNotOpened()
    {
        FakeElementPtr level = phone;
        for (int depth = 1; depth < 12; ++depth)
            level = level->add(group());
        FakeElementPtr atTwelve = level->add(button(), QStringLiteral("Hang up"));
        QVERIFY(automation().hasActiveCall());

        atTwelve->title = QStringLiteral("Panneau");
        atTwelve->roleName = group();
        FakeElementPtr atThirteen = atTwelve->add(button(), QStringLiteral("Hang up"));
        const int childReadsBefore = phone->log->childListReads;
        QVERIFY(!automation().hasActiveCall());
        // Twelve levels opened (0..11), the element at depth 12 never asked for children.
        QCOMPARE(phone->log->childListReads - childReadsBefore, 12);
        Q_UNUSED(atThirteen)
    }

    void slowElementsCannotHoldTheSearchPastItsBudget()
    {
        // Each request costs 4 ms; the hang-up button is behind 400 slow elements.
        phone->add(button(), QStringLiteral("Raccrocher"));
        for (int i = 0; i < 400; ++i)
            phone->add(group(), QStringLiteral("Contact %1").arg(i));
        phone->log->onRead = [this] { clock.advance(0.004); };

        PhoneAutomation a = automation();
        const double start = clock.uptime();
        QVERIFY(!a.hasActiveCall());
        QCOMPARE(a.deadline(), start + 1.0);
        // Nothing is read once the deadline is reached; one request may straddle it.
        QVERIFY(clock.uptime() <= a.deadline() + 0.004 + 1e-9);
        QVERIFY(clock.uptime() >= a.deadline());

        const double beforeIncoming = clock.uptime();
        QVERIFY(!a.incoming());
        QVERIFY(clock.uptime() - beforeIncoming <= 1.0 + 0.004 + 1e-9);

        // Fast enough, the same tree gives its answer.
        phone->log->onRead = [this] { clock.advance(0.0005); };
        QVERIFY(a.hasActiveCall());
    }
};

QTEST_GUILESS_MAIN(PhoneAutomationTest)
#include "tst_phoneautomation.moc"
