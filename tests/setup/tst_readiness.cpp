#include "core/PlatformWording.h"
#include "setup/Readiness.h"

#include <QTest>

using namespace vemira;

namespace {

const SoundDevice kCall{71, QStringLiteral("Brelian — Appel vers IA"), BrelianDevices::callUID(),
                        true, true};
const SoundDevice kVoice{73, QStringLiteral("Brelian — IA vers appel"), BrelianDevices::voiceUID(),
                         true, true};
const SoundDevice kBuiltInMic{10, QStringLiteral("Micro intégré"), QStringLiteral("BuiltInMic"),
                              true, false};
const SoundDevice kBuiltInSpeakers{11, QStringLiteral("Haut-parleurs"),
                                   QStringLiteral("BuiltInSpeakers"), false, true};

// Everything ready for a phone conversation.
ReadinessState readyState()
{
    ReadinessState s;
    s.devices = {kBuiltInMic, kBuiltInSpeakers, kCall, kVoice};
    s.inputUID = kCall.uid;
    s.outputUID = kVoice.uid;
    s.micAllowed = true;
    s.accessibility = true;
    s.routingConfirmed = true;
    s.keyPresent = true;
    s.aiVerified = true;
    s.model = QStringLiteral("gpt-realtime");
    return s;
}

ValidationSources sources(std::optional<QString> key = QStringLiteral("sk-test"))
{
    ValidationSources src;
    src.defaultInputID = [] { return std::optional<quint32>(10); };
    src.defaultOutputID = [] { return std::optional<quint32>(11); };
    src.readKey = [key]() -> Result<std::optional<QString>> { return key; };
    return src;
}

QString failure(const ReadinessState& s, bool phoneMode, const ValidationSources& src)
{
    const auto result = setup::validate(s, phoneMode, src);
    return result ? QString() : result.error().message();
}

} // namespace

class ReadinessTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    // The texts quoted here are the macOS ones, word for word: selecting them on every
    // platform keeps these cases a guard against their drift.
    void initTestCase() { PlatformWording::select(WordingPlatform::MacOS); }
    void issuesAreListedInDisplayOrder()
    {
        QCOMPARE(setup::readinessIssues(readyState()), QStringList());

        ReadinessState nothing;
        QCOMPARE(setup::readinessIssues(nothing),
                 (QStringList{QStringLiteral("Installer le module audio"),
                              QStringLiteral("Autoriser le décrochage dans Accessibilité"),
                              QStringLiteral("Autoriser l’accès audio"),
                              QStringLiteral("Configurer et tester le son"),
                              QStringLiteral("Enregistrer la clé IA")}));

        // A stored but unverified key asks for the check, never for the key again.
        ReadinessState unverified = readyState();
        unverified.aiVerified = false;
        QCOMPARE(setup::readinessIssues(unverified),
                 QStringList{QStringLiteral("Vérifier la connexion IA")});

        // A call device that lacks a direction does not count as the driver's device.
        ReadinessState halfDriver = readyState();
        halfDriver.devices[2].output = false;
        QCOMPARE(setup::readinessIssues(halfDriver).value(0),
                 QStringLiteral("Installer le module audio"));

        // A softphone out of sight is said after the permission, and only once it is given:
        // without accessibility no application can be seen anyway.
        ReadinessState noSoftphone = readyState();
        noSoftphone.phoneApplicationVisible = false;
        noSoftphone.aiVerified = false;
        QCOMPARE(setup::readinessIssues(noSoftphone),
                 (QStringList{
                     QStringLiteral("Ouvrir l’application de téléphonie (Twinkle, GNOME Calls…)"),
                     QStringLiteral("Vérifier la connexion IA")}));
        noSoftphone.accessibility = false;
        QCOMPARE(setup::readinessIssues(noSoftphone).value(0),
                 QStringLiteral("Autoriser le décrochage dans Accessibilité"));
        QCOMPARE(setup::readinessIssues(noSoftphone).size(), 2);
    }

    void phoneValidationRunsItsChecksInOrder()
    {
        const auto ok = setup::validate(readyState(), true, sources(QStringLiteral(" sk-x \n")));
        QVERIFY(ok);
        QCOMPARE(ok.value().input, kCall);
        QCOMPARE(ok.value().output, kVoice);
        QCOMPARE(ok.value().key, QStringLiteral(" sk-x \n")); // returned as stored

        // The microphone permission hides every other problem.
        ReadinessState s;
        s.model = QStringLiteral("   ");
        QCOMPARE(failure(s, true, sources(std::nullopt)),
                 QStringLiteral("Autorisez le microphone dans Réglages système → "
                                "Confidentialité et sécurité."));

        s = readyState();
        s.inputUID = QStringLiteral("gone");
        QCOMPARE(failure(s, true, sources()),
                 QStringLiteral("Choisissez une entrée et une sortie audio dans Connexions."));

        // The input must have input: an output-only twin with the same uid is skipped.
        s = readyState();
        s.devices.prepend(SoundDevice{5, QStringLiteral("twin"), kCall.uid, false, true});
        QCOMPARE(setup::validate(s, true, sources()).value().input.id, kCall.id);

        // Audio setup at work comes before the permission and routing checks.
        s = readyState();
        s.accessibility = false;
        s.observingRelay = true;
        QCOMPARE(failure(s, true, sources()),
                 QStringLiteral("Patientez pendant la configuration audio."));
        s.observingRelay = false;
        QCOMPARE(failure(s, true, sources()),
                 QStringLiteral("Autorisez Vemira dans Accessibilité pour détecter et décrocher "
                                "les appels."));

        // One duplex device chosen for both directions fails even with routing confirmed.
        const QString routing = QStringLiteral(
            "Cliquez sur Configurer et tester le son dans Connexions avant d’activer le standard.");
        s = readyState();
        s.outputUID = kCall.uid;
        QCOMPARE(failure(s, true, sources()), routing);
        s = readyState();
        s.routingConfirmed = false;
        QCOMPARE(failure(s, true, sources()), routing);

        const QString noKey =
            QStringLiteral("Aucune clé n’est enregistrée. Saisissez votre clé existante dans "
                           "Connexions.");
        QCOMPARE(failure(readyState(), true, sources(std::nullopt)), noKey);
        QCOMPARE(failure(readyState(), true, sources(QString())), noKey);
        ValidationSources unreadable = sources();
        unreadable.readKey = []() -> Result<std::optional<QString>> {
            return AppError(QStringLiteral("Lecture impossible."));
        };
        QCOMPARE(failure(readyState(), true, unreadable), QStringLiteral("Lecture impossible."));

        // Blanks around the model are spaces and tabs; a key does not rescue an empty model.
        s = readyState();
        s.model = QStringLiteral(" \t ");
        QCOMPARE(failure(s, true, sources()), QStringLiteral("Le modèle IA doit être renseigné."));
    }

    void macValidationUsesTheSystemDefaults()
    {
        ReadinessState s = readyState();
        s.accessibility = false;
        s.routingConfirmed = false;
        const auto ok = setup::validate(s, false, sources());
        QVERIFY(ok);
        QCOMPARE(ok.value().input, kBuiltInMic);
        QCOMPARE(ok.value().output, kBuiltInSpeakers);

        const QString missing = QStringLiteral(
            "Le micro ou la sortie audio par défaut sont introuvables. Vérifiez les réglages Son "
            "de macOS.");
        ValidationSources src = sources();
        src.defaultOutputID = [] { return std::optional<quint32>(10); }; // a microphone only
        QCOMPARE(failure(s, false, src), missing);
        src.defaultOutputID = [] { return std::optional<quint32>(); };
        QCOMPARE(failure(s, false, src), missing);
    }

    void setupPercentTruncates()
    {
        const bool threeOfFour[] = {true, true, false, true};
        QCOMPARE(setup::setupPercent(threeOfFour, 4), 75);
        const bool none[] = {false, false, false, false};
        QCOMPARE(setup::setupPercent(none, 4), 0);
        const bool oneOfThree[] = {true, false, false};
        QCOMPARE(setup::setupPercent(oneOfThree, 3), 33);

        ReadinessState s = readyState();
        QCOMPARE(setup::setupPercent(s), 75); // no validated test call yet
        s.testCallValidated = true;
        QCOMPARE(setup::setupPercent(s), 100);
    }
};

QTEST_GUILESS_MAIN(ReadinessTest)
#include "tst_readiness.moc"
