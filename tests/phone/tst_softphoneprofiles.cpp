// The softphone profiles over fake trees shaped like the real applications' (the shapes
// were read from Twinkle 1.10 and GNOME Calls 44): disabled call buttons in view between
// calls, unnamed buttons known by their place, the caller's SIP address.
#include "FakeAccessibility.h"
#include "phone/CallPolicy.h"
#include "phone/LabelText.h"
#include "phone/PhoneAutomation.h"
#include "phone/SoftphoneProfile.h"

#include <QtTest>

using namespace vemira;
using namespace vemira::testing;

namespace {

FakeElementPtr button(const FakeElementPtr& under, const QString& name, bool enabled,
                      QRect frame = {}, bool showing = true)
{
    FakeElementPtr b = under->add(axrole::button(), name);
    b->stateValue = ElementState{enabled, showing};
    if (!frame.isNull())
        b->frameValue = frame;
    b->actions = {QStringLiteral("click")};
    return b;
}

// Twinkle's main window: a toolbar whose call buttons stay in place, disabled between calls,
// and the line's status with its "from" and "to" fields, all named "Line status".
struct TwinkleWindow {
    FakeElementPtr app, answer, bye, status, from, to;

    explicit TwinkleWindow(bool french)
    {
        app = FakeElement::make(axrole::application(), QStringLiteral("twinkle"));
        FakeElementPtr frame = app->add(axrole::window(), QStringLiteral("Twinkle"));
        const QString line =
            french ? QStringLiteral("Statut de la ligne") : QStringLiteral("Line status");
        FakeElementPtr panel = frame->add(axrole::group())->add(axrole::group(), line);
        status = panel->add(axrole::staticText(),
                            french ? QStringLiteral("libre") : QStringLiteral("idle"));
        from = panel->add(axrole::staticText(), line);
        from->frameValue = QRect(525, 465, 183, 25);
        to = panel->add(axrole::staticText(), line);
        to->frameValue = QRect(525, 496, 183, 25);
        FakeElementPtr toolbar = frame->add(axrole::group());
        answer =
            button(toolbar, french ? QStringLiteral("Répondre") : QStringLiteral("Answer"), false);
        bye = button(toolbar, french ? QStringLiteral("Fin") : QStringLiteral("Bye"), false);
        if (french)
            bye->description = QStringLiteral("Raccrocher");
        button(toolbar, french ? QStringLiteral("Refuser") : QStringLiteral("Reject"), false);
    }

    void ring(bool french, const QString& callee)
    {
        status->title = french ? QStringLiteral("appel entrant") : QStringLiteral("incoming call");
        from->value = QStringLiteral("Jean Test <sip:0612345678@127.0.0.1>");
        to->value = callee;
        answer->stateValue = ElementState{true, true};
    }

    void talk()
    {
        answer->stateValue = ElementState{false, true};
        bye->stateValue = ElementState{true, true};
    }
};

// GNOME Calls' call window: round buttons without names. Ringing: decline and accept side
// by side at the bottom; in a call: one hang-up button alone at the bottom, and the call's
// other controls above it. Hidden views keep their buttons, not showing.
struct CallsWindow {
    FakeElementPtr app, view, decline, accept, hangUp, header;

    CallsWindow()
    {
        app = FakeElement::make(axrole::application(), QStringLiteral("org.gnome.Calls"));
        app->add(axrole::window(), QStringLiteral("Appels"))
            ->add(axrole::group())
            ->add(axrole::button(), QStringLiteral("Appel"));
        FakeElementPtr window = app->add(axrole::window(), QStringLiteral("Appels"));
        header = button(window, {}, false, QRect(15, 3, 36, 46));
        view = window->add(axrole::group());
    }

    void ring()
    {
        FakeElementPtr texts = view->add(axrole::group());
        texts->add(axrole::staticText(), QStringLiteral("Appel téléphonique entrant"));
        texts->add(axrole::staticText(), QStringLiteral("0612345678"));
        texts->add(axrole::staticText(), QStringLiteral("sip:0612345678@127.0.0.1"));
        FakeElementPtr buttons = view->add(axrole::group());
        button(buttons, {}, true, QRect(0, 0, 1, 1), false); // the dial pad's, hidden
        decline = button(buttons, {}, true, QRect(48, 444, 112, 72));
        accept = button(buttons, {}, true, QRect(198, 444, 112, 72));
    }

    void talk()
    {
        view->removeChildren();
        FakeElementPtr texts = view->add(axrole::group());
        texts->add(axrole::staticText(), QStringLiteral("0612345678"));
        texts->add(axrole::staticText(), QStringLiteral("00:02"));
        FakeElementPtr controls = view->add(axrole::group());
        controls->add(axrole::staticText(), QStringLiteral("Muet"));
        button(controls, {}, false, QRect(243, 299, 72, 72)); // add a call: unavailable
        hangUp = button(view->add(axrole::group()), {}, true, QRect(123, 537, 112, 72));
    }
};

} // namespace

class SoftphoneProfilesTest : public QObject {
    Q_OBJECT

private:
    ManualClock clock;
    FakeAccessibility platform;

    PhoneAutomation everyKnownSoftphone()
    {
        return PhoneAutomation(platform, clock, softphones::known());
    }

private Q_SLOTS:
    void init() { platform = FakeAccessibility(); }

    void aChoiceNamesOneProfileOrAnApplication()
    {
        QCOMPARE(softphones::chosen(QStringLiteral("twinkle")).front().id,
                 QStringLiteral("twinkle"));
        QCOMPARE(softphones::chosen(QStringLiteral("GNOME Calls")).front().id,
                 QStringLiteral("gnome-calls"));
        QCOMPARE(softphones::chosen(QStringLiteral("org.gnome.Calls")).front().id,
                 QStringLiteral("gnome-calls"));
        const std::vector<SoftphoneProfile> other = softphones::chosen(QStringLiteral(" Jami "));
        QCOMPARE(other.size(), size_t(1));
        QCOMPARE(other.front().applications, QStringList{QStringLiteral("Jami")});
        QCOMPARE(other.front().answerLabels, phonelabels::answer()); // the standard rules
        QCOMPARE(softphones::chosen({}).size(), softphones::known().size());

        // Identifiers no profile knows share the standard rules, searched in one listing.
        const std::vector<SoftphoneProfile> mac = softphones::forApplications(
            {QStringLiteral("com.apple.mobilephone"), QStringLiteral("com.apple.FaceTime")});
        QCOMPARE(mac.size(), size_t(1));
        QCOMPARE(mac.front().name, QStringLiteral("Téléphone"));
        QCOMPARE(mac.front().applications.size(), 2);
        const std::vector<SoftphoneProfile> mixed = softphones::forApplications(
            {QStringLiteral("Calls"), QStringLiteral("Jami"), QStringLiteral("twinkle"),
             QStringLiteral("gnome-calls"), QStringLiteral("Zoiper")});
        QCOMPARE(mixed.size(), size_t(3));
        QCOMPARE(mixed[0].id, QStringLiteral("gnome-calls"));
        QCOMPARE(mixed[1].applications,
                 (QStringList{QStringLiteral("Jami"), QStringLiteral("Zoiper")}));
        QCOMPARE(mixed[2].id, QStringLiteral("twinkle"));
    }

    void theCallerComesFromASipAddressToo()
    {
        std::optional<SipCaller> sip =
            CallPolicy::sipCaller({QStringLiteral("Jean Test <sip:0612345678@127.0.0.1>")});
        QVERIFY(sip);
        QCOMPARE(sip->name, QStringLiteral("Jean Test"));
        QCOMPARE(sip->number, QStringLiteral("0612345678"));
        sip = CallPolicy::sipCaller(
            {QStringLiteral("sans numéro"),
             QStringLiteral("\"Dupont, Marie\" <sips:+33612345678;user=phone@sip.example.fr>")});
        QCOMPARE(sip->name, QStringLiteral("Dupont, Marie"));
        QCOMPARE(sip->number, QStringLiteral("+33612345678"));
        // A user part that is no telephone number gives the name alone, or nothing.
        sip = CallPolicy::sipCaller({QStringLiteral("Accueil <sip:accueil@example.fr>")});
        QCOMPARE(sip->name, QStringLiteral("Accueil"));
        QVERIFY(!sip->number);
        QVERIFY(!CallPolicy::sipCaller({QStringLiteral("sip:callee@127.0.0.1:5060")}));
        QVERIFY(!CallPolicy::sipCaller({QStringLiteral("sip:123456@pbx")})); // 6 digits
        QVERIFY(!CallPolicy::sipCaller({QStringLiteral("gossip:0612345678@x")}));
    }

    void twinkleIsFoundByItsEnabledButtons_data()
    {
        QTest::addColumn<bool>("french");
        QTest::newRow("français") << true;
        QTest::newRow("English") << false;
    }

    void twinkleIsFoundByItsEnabledButtons()
    {
        QFETCH(bool, french);
        TwinkleWindow twinkle(french);
        platform.running = {{QStringLiteral("twinkle"), twinkle.app}};
        PhoneAutomation phone = everyKnownSoftphone();
        // Idle: "Fin", described "Raccrocher", is there but disabled.
        QVERIFY(phone.anyApplicationVisible());
        QVERIFY(!phone.incoming());
        QVERIFY(!phone.hasActiveCall());
        QCOMPARE(phone.hangup()->message(),
                 QStringLiteral("Bouton Raccrocher introuvable : terminez l’appel dans Twinkle."));

        // The caller is the topmost "line status" field, not the callee's own address.
        twinkle.ring(french, QStringLiteral("Standard <sip:0140506070@127.0.0.1>"));
        std::optional<IncomingCall> call = phone.incoming();
        QVERIFY(call);
        QCOMPARE(call->button.get(), twinkle.answer.get());
        QCOMPARE(call->caller, QStringLiteral("0612345678"));
        QCOMPARE(call->callerName, QStringLiteral("Jean Test"));
        QCOMPARE(call->profileId, QStringLiteral("twinkle"));
        QVERIFY(!phone.hasActiveCall());

        QCOMPARE(phone.answer(*call), Status());
        QCOMPARE(twinkle.answer->pressCount, 1);
        twinkle.talk();
        QVERIFY(!phone.incoming());
        QCOMPARE(phone.answer(*call)->message(), QStringLiteral("L’appel n’est plus disponible."));
        QCOMPARE(twinkle.answer->pressCount, 1);
        QVERIFY(phone.hasActiveCall());
        twinkle.bye->pressSucceeds = false;
        QCOMPARE(phone.hangup()->message(), QStringLiteral("Raccrochez dans Twinkle."));
        twinkle.bye->pressSucceeds = true;
        QCOMPARE(phone.hangup(), Status());
        QCOMPARE(twinkle.bye->pressCount, 2);
    }

    void gnomeCallsButtonsAreKnownByTheirPlace()
    {
        CallsWindow calls;
        platform.running = {{QStringLiteral("org.gnome.Calls"), calls.app}};
        PhoneAutomation phone = everyKnownSoftphone();
        QVERIFY(!phone.incoming());
        QVERIFY(!phone.hasActiveCall());

        calls.ring();
        std::optional<IncomingCall> call = phone.incoming();
        QVERIFY(call);
        QCOMPARE(call->button.get(), calls.accept.get()); // right of the bottom pair
        QVERIFY(call->unnamedButton);
        QCOMPARE(call->caller, QStringLiteral("0612345678"));
        QVERIFY(call->callerName.isEmpty());
        QVERIFY(!phone.hasActiveCall()); // the bottom row holds two buttons: no hang-up

        // The accept button that stopped showing is an offer gone.
        calls.accept->stateValue = ElementState{true, false};
        QCOMPARE(phone.answer(*call)->message(), QStringLiteral("L’appel n’est plus disponible."));
        calls.accept->stateValue = ElementState{true, true};
        QCOMPARE(phone.answer(*call), Status());
        QCOMPARE(calls.accept->pressCount, 1);
        QCOMPARE(calls.decline->pressCount, 0);

        calls.talk();
        QVERIFY(!phone.incoming());
        QVERIFY(phone.hasActiveCall());
        QCOMPARE(phone.hangup(), Status());
        QCOMPARE(calls.hangUp->pressCount, 1);
        // Ended: the view stays a moment with its hang-up button disabled.
        calls.hangUp->stateValue = ElementState{false, true};
        QVERIFY(!phone.hasActiveCall());

        // A button without the expected action is not taken by its place.
        calls.hangUp->stateValue = ElementState{true, true};
        calls.hangUp->actions = {QStringLiteral("activate")};
        QVERIFY(!phone.hasActiveCall());
    }

    void aMessageReplyIsNeverACall()
    {
        // A messaging notification under each kind of rule: named "Répondre", and a pair of
        // unnamed buttons like GNOME Calls' own, with no call word around either.
        FakeElementPtr twinkle = FakeElement::make(axrole::application());
        FakeElementPtr note = twinkle->add(axrole::window())->add(axrole::group());
        note->add(axrole::staticText(), QStringLiteral("Nouveau message de Marie"));
        button(note, QStringLiteral("Répondre"), true);

        FakeElementPtr calls = FakeElement::make(axrole::application());
        FakeElementPtr popup = calls->add(axrole::window())->add(axrole::group());
        popup->add(axrole::staticText(), QStringLiteral("Message vocal de 0612345678"));
        button(popup, {}, true, QRect(48, 444, 112, 72));
        button(popup, {}, true, QRect(198, 444, 112, 72));

        FakeElementPtr other = FakeElement::make(axrole::application());
        FakeElementPtr banner = other->add(axrole::window())->add(axrole::group());
        banner->add(axrole::staticText(), QStringLiteral("Marie : tu rappelles ?"));
        banner->add(axrole::button(), QStringLiteral("Répondre"));

        platform.running = {{QStringLiteral("twinkle"), twinkle},
                            {QStringLiteral("org.gnome.Calls"), calls},
                            {QStringLiteral("Softphone de test"), other},
                            {QStringLiteral("Linphone"), other}};
        PhoneAutomation phone = everyKnownSoftphone();
        QVERIFY(!phone.incoming());
        for (const FakeElementPtr& root : {twinkle, calls, other}) {
            for (const AccessibilityElementPtr& child : root->children())
                QCOMPARE(std::static_pointer_cast<FakeElement>(child)->pressCount, 0);
        }
    }

    void theBudgetAlsoBoundsTheBackendsOwnRequests()
    {
        // The search hands its deadline to the backend, which asks it between requests.
        struct Recording : FakeAccessibility {
            std::function<bool()> timeRemains;
            int cleared = 0;
            void setDeadline(std::function<bool()> remains) override
            {
                if (!remains)
                    ++cleared;
                timeRemains = std::move(remains);
            }
        } recording;
        recording.running = {{QStringLiteral("twinkle"), TwinkleWindow(true).app}};
        {
            PhoneAutomation phone(recording, clock, softphones::known());
            phone.hasActiveCall();
            QVERIFY(recording.timeRemains && recording.timeRemains());
            clock.advance(1.0);
            QVERIFY(!recording.timeRemains());
        }
        QCOMPARE(recording.cleared, 1); // not left pointing at a destroyed search
    }
};

QTEST_GUILESS_MAIN(SoftphoneProfilesTest)
#include "tst_softphoneprofiles.moc"
