#include "FakeAccessibility.h"
#include "phone/NativeAudioSetup.h"

#include <QtTest>
#include <memory>

using namespace vemira;
using namespace vemira::testing;
using StateKind = FakePhoneMenu::StateKind;

namespace {

const QString kPhoneApp = QStringLiteral("com.apple.mobilephone");
const QString kIA = QStringLiteral("Brelian — IA vers appel");
const QString kAppel = QStringLiteral("Brelian — Appel vers IA");
const QString kMacMic = QStringLiteral("Microphone MacBook Pro");
const QString kMacSpeakers = QStringLiteral("Haut-parleurs MacBook Pro");

// The usual menu: a microphone section then an output section, each with the system
// entry, the Mac's own device and ours; the Mac's devices are checked.
struct UsualMenu {
    FakePhoneMenu m;
    FakeElementPtr micSystem, macMic, ia, outSystem, macSpeakers, appel;
};

UsualMenu usualMenu(StateKind state = StateKind::MarkCharacter)
{
    UsualMenu u{FakePhoneMenu::make(state), {}, {}, {}, {}, {}, {}};
    u.m.item(QStringLiteral("Appareil photo"));
    u.m.item(QStringLiteral("Caméra FaceTime HD"));
    u.m.item(QStringLiteral("Micro"));
    u.micSystem = u.m.item(QStringLiteral("Utiliser le réglage système"));
    u.macMic = u.m.item(kMacMic);
    u.ia = u.m.item(kIA);
    u.m.item(QStringLiteral("Sortie"));
    u.outSystem = u.m.item(QStringLiteral("Utiliser le réglage système"));
    u.macSpeakers = u.m.item(kMacSpeakers);
    u.appel = u.m.item(kAppel);
    u.m.check(u.macMic);
    u.m.check(u.macSpeakers);
    return u;
}

} // namespace

class NativeAudioSetupTest : public QObject {
    Q_OBJECT

private:
    ManualClock clock;
    FakeAccessibility platform;
    std::unique_ptr<NativeAudioSetup> setup;
    QStringList stored;

    void install(const FakePhoneMenu& menu) { platform.running = {{kPhoneApp, menu.application}}; }

    // Runs an asynchronous operation to its end, letting time pass for its waits.
    template <typename Start> std::optional<Status> run(Start start)
    {
        std::optional<Status> outcome;
        start([&outcome](Status s) { outcome = std::move(s); });
        for (int i = 0; i < 100 && !outcome; ++i)
            clock.advance(0.05);
        return outcome;
    }

    Status prepare()
    {
        const std::optional<Status> outcome = run([this](auto done) { setup->prepare(done); });
        return outcome.value_or(AppError(QStringLiteral("never finished")));
    }

    QString failure(const std::optional<Status>& outcome)
    {
        if (!outcome)
            return QStringLiteral("<no answer>");
        return *outcome ? (*outcome)->message() : QString();
    }

private Q_SLOTS:
    void init()
    {
        platform = FakeAccessibility();
        platform.knownApplications = {kPhoneApp};
        setup = std::make_unique<NativeAudioSetup>(platform, clock, kPhoneApp);
        stored.clear();
        setup->storePreviousInput = [this](const QString& t) {
            stored << QStringLiteral("in:") + t;
        };
        setup->storePreviousOutput = [this](const QString& t) {
            stored << QStringLiteral("out:") + t;
        };
    }

    void sectionsFollowTheirFoldedHeaders()
    {
        FakePhoneMenu m = FakePhoneMenu::make();
        m.item(QStringLiteral("Caméra"));
        m.item(QStringLiteral("  MICROPHONE "));
        FakeElementPtr ia = m.item(kIA);
        FakeElementPtr second = m.item(kMacMic);
        m.item(QStringLiteral("Haut-Parleurs\n"));
        FakeElementPtr appel = m.item(kAppel);

        const auto inputs = NativeAudioSetup::section(*m.menu, true);
        const auto outputs = NativeAudioSetup::section(*m.menu, false);
        QCOMPARE(inputs.size(), 2u);
        QCOMPARE(inputs[0].get(), ia.get());
        QCOMPARE(inputs[1].get(), second.get());
        QCOMPARE(outputs.size(), 1u);
        QCOMPARE(outputs[0].get(), appel.get());

        FakeElementPtr plain = FakeElement::make(axrole::menuItem());
        QVERIFY(!NativeAudioSetup::selected(*plain));
        plain->markChar = QString();
        plain->selectedValue = true;
        QVERIFY(NativeAudioSetup::selected(*plain));
        plain->markChar = QStringLiteral("✓");
        plain->selectedValue = false;
        QVERIFY(NativeAudioSetup::selected(*plain));
    }

    void theMenuOpensOnlyAfterItsWaits()
    {
        UsualMenu u = usualMenu();
        install(u.m);
        std::function<void()> launched;
        platform.deferLaunch = [&launched](std::function<void()> done) { launched = done; };
        std::optional<Result<AccessibilityElementPtr>> menu;
        setup->audioMenu([&menu](Result<AccessibilityElementPtr> r) { menu = std::move(r); });
        QCOMPARE(platform.opened, QStringList{kPhoneApp});
        clock.advance(1.0);
        QCOMPARE(u.m.videoItem->pressCount, 0); // nothing before the launch completes
        launched();
        clock.advance(0.19);
        QCOMPARE(u.m.videoItem->pressCount, 0);
        clock.advance(0.02);
        QCOMPARE(u.m.videoItem->pressCount, 1);
        QCOMPARE(u.m.application->timeout, 0.5);
        clock.advance(0.10); // pressed at 0.20, the menu is read at 0.32
        QVERIFY(!menu);
        clock.advance(0.02);
        QVERIFY(menu && menu->ok());
        QCOMPARE(menu->value().get(), u.m.menu.get());

        // Gone while waiting: the step never runs.
        platform.deferLaunch = nullptr;
        bool answered = false;
        setup->audioMenu([&answered](Result<AccessibilityElementPtr>) { answered = true; });
        setup.reset();
        clock.advance(1.0);
        QVERIFY(!answered);
    }

    void eachWayTheMenuCanBeMissing()
    {
        auto menuFailure = [this] {
            std::optional<QString> message;
            setup->audioMenu([&message](Result<AccessibilityElementPtr> r) {
                message = r.ok() ? QString() : r.error().message();
            });
            for (int i = 0; i < 20 && !message; ++i)
                clock.advance(0.05);
            return message.value_or(QStringLiteral("<no answer>"));
        };

        UsualMenu u = usualMenu();
        install(u.m);
        platform.trusted = false;
        QCOMPARE(
            menuFailure(),
            QStringLiteral("Autorisez Accessibilité, puis recliquez sur Préparer la liaison."));
        platform.trusted = true;
        platform.knownApplications.clear();
        QCOMPARE(menuFailure(),
                 QStringLiteral("L’application Téléphone de macOS 26 est nécessaire."));
        platform.knownApplications = {kPhoneApp};

        platform.running.clear(); // known but not running after the launch
        QCOMPARE(menuFailure(), QStringLiteral("Menu de Téléphone inaccessible."));
        install(u.m);
        u.m.application->menuBarElement = nullptr;
        QCOMPARE(menuFailure(), QStringLiteral("Menu de Téléphone inaccessible."));
        u.m.application->menuBarElement = u.m.menuBar;

        // "Video" without the identifier is accepted; the identifier wins over an
        // earlier title match.
        u.m.videoItem->identifierValue.reset();
        u.m.videoItem->title = QStringLiteral("Video");
        QCOMPARE(menuFailure(), QString());
        FakeElementPtr decoy = FakeElement::make(axrole::menuBarItem(), QStringLiteral("Vidéo"));
        u.m.menuBar->kids.insert(u.m.menuBar->kids.begin(), decoy);
        u.m.videoItem->identifierValue = QStringLiteral("com.apple.facetime.menu.video");
        u.m.videoItem->title = QStringLiteral("Caméra");
        QCOMPARE(menuFailure(), QString());
        QCOMPARE(decoy->pressCount, 0);
        u.m.menuBar->kids.erase(u.m.menuBar->kids.begin());

        u.m.videoItem->identifierValue.reset();
        QCOMPARE(menuFailure(),
                 QStringLiteral("Menu audio de Téléphone introuvable sur cette version de macOS."));
        u.m.videoItem->title = QStringLiteral("Vidéo");

        u.m.videoItem->pressSucceeds = false;
        QCOMPARE(menuFailure(),
                 QStringLiteral("Impossible d’ouvrir les réglages audio de Téléphone."));
        u.m.videoItem->pressSucceeds = true;
        u.m.videoItem->onPress = nullptr;
        u.m.videoItem->removeChildren();
        QCOMPARE(menuFailure(), QStringLiteral("Le menu audio n’a pas répondu."));
    }

    void prepareSelectsConfirmsAndRemembers()
    {
        for (const StateKind state : {StateKind::MarkCharacter, StateKind::SelectedFlag}) {
            init();
            UsualMenu u = usualMenu(state);
            install(u.m);
            QCOMPARE(prepare(), Status());
            QCOMPARE(u.m.checkedTitles(), (QStringList{kIA, kAppel}));
            QCOMPARE(stored, (QStringList{QStringLiteral("in:") + kMacMic,
                                          QStringLiteral("out:") + kMacSpeakers}));
            // Opened four times (read, two choices, confirmation), closed four times.
            QCOMPARE(u.m.videoItem->pressCount, 4);
            QCOMPARE(u.m.menu->cancelCount, 4);

            // Run again: the previous titles are stored as they are, ours included.
            stored.clear();
            QCOMPARE(prepare(), Status());
            QCOMPARE(stored,
                     (QStringList{QStringLiteral("in:") + kIA, QStringLiteral("out:") + kAppel}));
        }
    }

    void prepareStopsBeforeChoosingWhenADeviceIsMissing()
    {
        const QString missing = QStringLiteral(
            "Les deux périphériques Vemira ne sont pas visibles dans Téléphone. Installez le "
            "module audio puis redémarrez le Mac.");
        UsualMenu u = usualMenu();
        u.appel->title = QStringLiteral("Brelian — appel vers IA"); // letter case differs
        install(u.m);
        const Status outcome = prepare();
        QVERIFY(outcome);
        QCOMPARE(outcome->message(), missing);
        QVERIFY(stored.isEmpty());
        QCOMPARE(u.ia->pressCount + u.appel->pressCount, 0);
        QCOMPARE(u.m.menu->cancelCount, 1);

        // Our output device listed under the microphone only is still missing.
        init();
        UsualMenu v = usualMenu();
        v.appel->title = QStringLiteral("Sans titre");
        v.m.menu->kids.insert(v.m.menu->kids.begin() + 4,
                              FakeElement::make(axrole::menuItem(), kAppel));
        install(v.m);
        QCOMPARE(prepare()->message(), missing);
    }

    void anUnconfirmedChoiceIsPutBack()
    {
        const QString unconfirmed = QStringLiteral(
            "Les périphériques ont été sélectionnés, mais macOS n’expose pas leur état de "
            "confirmation. Vérifiez le menu Vidéo de Téléphone avant le premier appel.");
        // Our items accept the press but never show as checked.
        UsualMenu u = usualMenu();
        u.ia->onPress = nullptr;
        u.appel->onPress = nullptr;
        install(u.m);
        Status outcome = prepare();
        QVERIFY(outcome);
        QCOMPARE(outcome->message(), unconfirmed);
        QCOMPARE(u.ia->pressCount, 1);
        QCOMPARE(u.appel->pressCount, 1);
        QCOMPARE(u.macMic->pressCount, 1);
        QCOMPARE(u.macSpeakers->pressCount, 1);
        QCOMPARE(u.m.checkedTitles(), (QStringList{kMacMic, kMacSpeakers}));
        QCOMPARE(u.m.menu->cancelCount, u.m.videoItem->pressCount);

        // Nothing exposes a state: nothing to put back, the same failure.
        init();
        UsualMenu blind = usualMenu(StateKind::None);
        install(blind.m);
        outcome = prepare();
        QVERIFY(outcome);
        QCOMPARE(outcome->message(), unconfirmed);
        QVERIFY(stored.isEmpty());
        QCOMPARE(blind.macMic->pressCount + blind.macSpeakers->pressCount, 0);
    }

    void chooseNamesWhatItCannotFind()
    {
        UsualMenu u = usualMenu();
        install(u.m);
        auto choose = [this](const QString& name, bool input) {
            return failure(run([&](auto done) { setup->choose(name, input, done); }));
        };
        QCOMPARE(choose(kAppel, true),
                 QStringLiteral("Téléphone ne propose pas encore « Brelian — Appel vers IA ». "
                                "Redémarrez le Mac après installation du pilote."));
        QCOMPARE(u.appel->pressCount, 0);
        u.appel->pressSucceeds = false;
        QCOMPARE(choose(kAppel, false),
                 QStringLiteral("La sélection audio dans Téléphone a échoué."));
        QCOMPARE(u.m.menu->cancelCount, 2);

        // A failing choice ends prepare with its own message.
        stored.clear();
        QCOMPARE(failure(prepare()), QStringLiteral("La sélection audio dans Téléphone a échoué."));
        QCOMPARE(u.m.checkedTitles(), (QStringList{kIA, kMacSpeakers}));
    }

    void everyRequestOfTheMenuIsBounded()
    {
        // A hung phone application holds each request for its messaging timeout at most: the
        // bar, its items, the opened menu and each of its items, their presses and closings.
        UsualMenu u = usualMenu();
        install(u.m);
        QCOMPARE(prepare(), Status());
        QCOMPARE(failure(run([this](auto done) { setup->useSystemAudio(done); })), QString());
        for (const auto& log : {u.m.application->log, u.m.menu->log}) {
            QVERIFY(!log->requestTimeouts.empty());
            for (const double timeout : log->requestTimeouts)
                QCOMPARE(timeout, 0.5);
        }
    }

    void systemAudioInBothSections()
    {
        UsualMenu u = usualMenu();
        install(u.m);
        QCOMPARE(failure(run([this](auto done) { setup->useSystemAudio(done); })), QString());
        QCOMPARE(u.micSystem->pressCount, 1);
        QCOMPARE(u.outSystem->pressCount, 1);
        QCOMPARE(u.m.menu->cancelCount, 2);

        u.outSystem->title = QStringLiteral("USE SYSTEM SETTING ");
        u.micSystem->pressSucceeds = false;
        QCOMPARE(failure(run([this](auto done) { setup->useSystemAudio(done); })),
                 QStringLiteral("Le retour au son système n’a pas été confirmé."));
        QCOMPARE(u.outSystem->pressCount, 1); // the second pass never started
        u.micSystem->pressSucceeds = true;
        QCOMPARE(failure(run([this](auto done) { setup->useSystemAudio(done); })), QString());
        QCOMPARE(u.outSystem->pressCount, 2);

        u.outSystem->title = QStringLiteral("Réglage système");
        QCOMPARE(failure(run([this](auto done) { setup->useSystemAudio(done); })),
                 QStringLiteral("Choisissez Utiliser le réglage système dans le menu Vidéo de "
                                "Téléphone."));
        QCOMPARE(u.m.menu->cancelCount, u.m.videoItem->pressCount);
    }
};

QTEST_GUILESS_MAIN(NativeAudioSetupTest)
#include "tst_nativeaudiosetup.moc"
