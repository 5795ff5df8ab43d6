#include "core/PlatformWording.h"

#include <QtGlobal>

namespace vemira {

namespace {

PlatformWording macWording()
{
    PlatformWording w;
    w.platform = WordingPlatform::MacOS;
    w.phoneAudioMenu = true;
    w.microphoneSettings = true;
    w.makesVirtualDevices = false;

    w.keyOnce =
        QStringLiteral("Collez votre clé une fois. Elle restera sur ce Mac, sans trousseau.");
    w.keyStored = QStringLiteral("Une clé est enregistrée sur ce Mac.");
    w.keySavedEvent = QStringLiteral("Clé enregistrée sur ce Mac");

    w.conversationKept = QStringLiteral("La conversation est conservée sur ce Mac.");
    w.pausedAsleep = QStringLiteral("En pause · Mac en veille");
    w.computerConversation = QStringLiteral("Conversation sur le Mac");
    w.computerAudioSilent =
        QStringLiteral("Le micro ou la sortie du Mac ne transmet plus d’audio.");
    w.interventionInterrupted = QStringLiteral(
        "Le son a été interrompu pendant votre intervention. Reprenez l’appel dans Téléphone.");

    w.readDefaultFailure = QStringLiteral("Impossible de lire le réglage audio du Mac");
    w.writeDefaultFailure =
        QStringLiteral("Impossible de préparer le micro ou les haut-parleurs du Mac");
    w.builtInMissing = QStringLiteral(
        "Le micro et les haut-parleurs intégrés du Mac sont nécessaires pour ce test.");
    w.defaultsChanged = QStringLiteral(
        "Le périphérique audio du Mac a changé. Relancez la vérification audio du Mac.");
    w.formatChanged = QStringLiteral(
        "macOS a modifié le format audio. Relancez la vérification pour reconstruire le circuit.");
    w.devicesMissing = QStringLiteral(
        "Le module audio Vemira n’est pas chargé. Installez-le puis redémarrez le Mac.");
    w.devicesIssue = QStringLiteral("Installer le module audio");
    w.defaultDevicesMissing = QStringLiteral("Le micro ou la sortie audio par défaut sont "
                                             "introuvables. Vérifiez les réglages Son de macOS.");

    w.talkOnComputer = QStringLiteral("Parler à Vemira sur ce Mac");
    w.talkOnComputerBody =
        QStringLiteral("Parlez à Vemira avec le micro et les haut-parleurs de ce Mac, comme le "
                       "ferait un appelant. La conversation est gardée comme un essai.");
    w.outgoingBody = QStringLiteral("Appelez un autre téléphone depuis la ligne de l’iPhone, "
                                    "décrochez-le, puis branchez l’IA sur l’appel.");
    w.openPhone = QStringLiteral("Ouvrir &Téléphone");
    w.dialStarted = QStringLiteral("Confirmez l’appel dans Téléphone si macOS le demande. Quand la "
                                   "personne décroche, cliquez sur Brancher l’IA.");
    w.dialRefused = QStringLiteral("Impossible d’ouvrir le numéro. Composez-le dans Téléphone.");
    w.noActiveCall =
        QStringLiteral("Aucun appel actif détecté. Lancez ou décrochez un appel dans Téléphone.");

    w.setupSteps = {QStringLiteral("Installer le son"), QStringLiteral("Autoriser le Mac"),
                    QStringLiteral("Connecter l’IA"), QStringLiteral("Audio du téléphone")};
    w.testComputerMicrophone = QStringLiteral("Tester le microphone du Mac");
    w.openAccessibility = QStringLiteral("Ouvrir les réglages &Accessibilité");
    w.soundIntro = QStringLiteral(
        "Vemira entend l’appelant et lui répond par deux périphériques audio virtuels, « Brelian "
        "— Appel vers IA » et « Brelian — IA vers appel », fournis par le module audio Brelian "
        "Audio.");
    w.devicesPresent = QStringLiteral("Module audio Brelian Audio détecté");
    w.devicesAbsent = QStringLiteral("Module audio absent : installez Brelian Audio, redémarrez le "
                                     "Mac, puis cliquez sur Vérifier à nouveau.");
    w.phoneStepIntro =
        QStringLiteral("Téléphone doit utiliser les périphériques Vemira comme micro et sortie. "
                       "Un vrai appel de test valide ensuite toute la chaîne.");
    w.phoneStepHowTo = QStringLiteral(
        "1. Cliquez sur « Attendre un appel », puis appelez votre numéro depuis un autre "
        "téléphone : Vemira vérifie que l’appel arrive sur ce Mac.\n2. Activez ensuite « Répondre "
        "aux appels » et rappelez : l’étape est validée quand Vemira a décroché et entendu "
        "l’appelant.");
    w.phoneAudioTitle = QStringLiteral("Audio de Téléphone");
    w.phoneAudioStateName = QStringLiteral("État de l’audio de Téléphone");
    w.phoneAudioUnset = QStringLiteral("Son de Téléphone non configuré");
    w.relayDetectedEvent = QStringLiteral("Appel de test détecté dans Téléphone");
    w.relayTimeout = QStringLiteral("Aucun appel détecté. Vérifiez que les appels de l’iPhone sont "
                                    "autorisés sur ce Mac, puis réessayez.");

    w.guidePrepareTitle = QStringLiteral("1. Préparer le Mac une fois");
    w.guidePrepareBody = QStringLiteral(
        "Ouvrez la configuration guidée : elle vérifie le module audio, les autorisations, la clé "
        "OpenAI et le son de Téléphone, dans cet ordre. Chaque étape dit ce qui manque et propose "
        "le bouton qui le règle.");
    w.guideTryMiddle = QStringLiteral(
        " » vous fait parler à Vemira avec le micro et les haut-parleurs du Mac. « ");
    w.guideArmBody = QStringLiteral(
        "Basculez « Répondre aux appels » en haut de la fenêtre ou dans l’icône de la barre des "
        "menus. Vemira décroche après 3 secondes de sonnerie, lorsque l’IA est prête, et prend un "
        "message. Un seul appel à la fois.");
    w.guideRecordsBody = QStringLiteral(
        "La page Conversations liste chaque appel avec sa transcription. Cherchez un nom, un "
        "numéro ou une phrase, classez l’appel dans un dossier, notez la suite à donner et "
        "changez son état. Tout reste sur ce Mac.");
    w.deletionTail = QStringLiteral(") ? Sa fiche, sa transcription et son enregistrement seront "
                                    "effacés de ce Mac. Cette action est définitive.");
    return w;
}

PlatformWording linuxWording()
{
    PlatformWording w;
    w.platform = WordingPlatform::Linux;
    w.phoneAudioMenu = false;
    w.microphoneSettings = false;
    w.makesVirtualDevices = true;

    w.keyOnce = QStringLiteral(
        "Collez votre clé une fois. Elle restera sur cet ordinateur, sans trousseau.");
    w.keyStored = QStringLiteral("Une clé est enregistrée sur cet ordinateur.");
    w.keySavedEvent = QStringLiteral("Clé enregistrée sur cet ordinateur");

    w.conversationKept = QStringLiteral("La conversation est conservée sur cet ordinateur.");
    w.pausedAsleep = QStringLiteral("En pause · ordinateur en veille");
    w.computerConversation = QStringLiteral("Conversation sur l’ordinateur");
    w.computerAudioSilent =
        QStringLiteral("Le micro ou la sortie de l’ordinateur ne transmet plus d’audio.");
    w.interventionInterrupted =
        QStringLiteral("Le son a été interrompu pendant votre intervention. Reprenez l’appel dans "
                       "votre logiciel de téléphonie.");

    w.readDefaultFailure = QStringLiteral("Impossible de lire le réglage audio de l’ordinateur");
    w.writeDefaultFailure =
        QStringLiteral("Impossible de préparer le micro ou les haut-parleurs de l’ordinateur");
    w.builtInMissing = QStringLiteral(
        "Le micro et les haut-parleurs intégrés de l’ordinateur sont nécessaires pour ce test.");
    w.defaultsChanged =
        QStringLiteral("Le périphérique audio de l’ordinateur a changé. Relancez la vérification "
                       "audio de l’ordinateur.");
    w.formatChanged = QStringLiteral("Le serveur de son a modifié le format audio. Relancez la "
                                     "vérification pour reconstruire le circuit.");
    w.devicesMissing = QStringLiteral(
        "Les périphériques audio Vemira sont absents. Créez-les à l’étape « Installer le son » de "
        "la configuration guidée.");
    w.devicesIssue = QStringLiteral("Créer les périphériques audio");
    w.defaultDevicesMissing =
        QStringLiteral("Le micro ou la sortie audio par défaut sont introuvables. Vérifiez les "
                       "réglages de son de l’ordinateur.");

    w.talkOnComputer = QStringLiteral("Parler à Vemira sur cet ordinateur");
    w.talkOnComputerBody =
        QStringLiteral("Parlez à Vemira avec le micro et les haut-parleurs de cet ordinateur, "
                       "comme le ferait un appelant. La conversation est gardée comme un essai.");
    w.outgoingBody =
        QStringLiteral("Appelez un autre téléphone depuis votre logiciel de téléphonie (Twinkle, "
                       "GNOME Calls…), décrochez-le, puis branchez l’IA sur l’appel.");
    w.openPhone = QStringLiteral("Ouvrir le &logiciel de téléphonie");
    w.dialStarted = QStringLiteral("Confirmez l’appel dans votre logiciel de téléphonie s’il le "
                                   "demande. Quand la personne décroche, cliquez sur Brancher "
                                   "l’IA.");
    w.dialRefused = QStringLiteral(
        "Impossible d’ouvrir le numéro. Composez-le dans votre logiciel de téléphonie.");
    w.noActiveCall = QStringLiteral("Aucun appel actif détecté. Lancez ou décrochez un appel dans "
                                    "votre logiciel de téléphonie.");

    w.setupSteps = {QStringLiteral("Installer le son"), QStringLiteral("Accessibilité et micro"),
                    QStringLiteral("Connecter l’IA"), QStringLiteral("Audio du téléphone")};
    w.testComputerMicrophone = QStringLiteral("Tester le microphone de l’ordinateur");
    w.openAccessibility = QStringLiteral("Activer l’&accessibilité");
    w.soundIntro = QStringLiteral(
        "Vemira entend l’appelant et lui répond par deux périphériques audio virtuels, « Brelian "
        "— Appel vers IA » et « Brelian — IA vers appel », que Vemira crée sur le serveur de son "
        "(PulseAudio ou PipeWire).");
    w.devicesPresent = QStringLiteral("Périphériques audio virtuels présents");
    w.devicesAbsent = QStringLiteral(
        "Périphériques audio virtuels absents : cliquez sur Créer les périphériques audio.");
    w.phoneStepIntro = QStringLiteral(
        "Pendant chaque appel, Vemira branche le son de votre logiciel de téléphonie (Twinkle, "
        "GNOME Calls…) sur les deux périphériques virtuels, puis le remet où il était. Un vrai "
        "appel de test valide ensuite toute la chaîne.");
    w.phoneStepHowTo = QStringLiteral(
        "1. Cliquez sur « Attendre un appel », puis appelez votre numéro SIP depuis un autre "
        "téléphone : Vemira vérifie que l’appel arrive dans votre logiciel de téléphonie.\n2. "
        "Activez ensuite « Répondre aux appels » et rappelez : l’étape est validée quand Vemira a "
        "décroché et entendu l’appelant.");
    w.phoneAudioTitle = QStringLiteral("Audio du logiciel de téléphonie");
    w.phoneAudioStateName = QStringLiteral("État de l’audio du logiciel de téléphonie");
    w.phoneAudioUnset = QStringLiteral("Son du logiciel de téléphonie pas encore vérifié");
    w.relayDetectedEvent = QStringLiteral("Appel de test détecté dans le logiciel de téléphonie");
    w.relayTimeout = QStringLiteral(
        "Aucun appel détecté. Vérifiez que votre logiciel de téléphonie est ouvert et relié à "
        "votre ligne SIP, puis réessayez.");

    w.guidePrepareTitle = QStringLiteral("1. Préparer l’ordinateur une fois");
    w.guidePrepareBody = QStringLiteral(
        "Ouvrez la configuration guidée : elle crée les périphériques audio virtuels, vérifie "
        "l’accessibilité, la clé OpenAI et le son de votre logiciel de téléphonie, dans cet "
        "ordre. Chaque étape dit ce qui manque et propose le bouton qui le règle.");
    w.guideTryMiddle = QStringLiteral(
        " » vous fait parler à Vemira avec le micro et les haut-parleurs de l’ordinateur. « ");
    w.guideArmBody = QStringLiteral(
        "Basculez « Répondre aux appels » en haut de la fenêtre ou dans l’icône de la zone de "
        "notification. Vemira décroche après 3 secondes de sonnerie, lorsque l’IA est prête, et "
        "prend un message. Un seul appel à la fois.");
    w.guideRecordsBody = QStringLiteral(
        "La page Conversations liste chaque appel avec sa transcription. Cherchez un nom, un "
        "numéro ou une phrase, classez l’appel dans un dossier, notez la suite à donner et "
        "changez son état. Tout reste sur cet ordinateur.");
    w.deletionTail = QStringLiteral(") ? Sa fiche, sa transcription et son enregistrement seront "
                                    "effacés de cet ordinateur. Cette action est définitive.");
    return w;
}

WordingPlatform& selected()
{
    static WordingPlatform platform = PlatformWording::native();
    return platform;
}

} // namespace

WordingPlatform PlatformWording::native()
{
#if defined(Q_OS_MACOS)
    return WordingPlatform::MacOS;
#else
    return WordingPlatform::Linux;
#endif
}

QStringList PlatformWording::allTexts() const
{
    QStringList texts = {keyOnce,
                         keyStored,
                         keySavedEvent,
                         conversationKept,
                         pausedAsleep,
                         computerConversation,
                         computerAudioSilent,
                         interventionInterrupted,
                         readDefaultFailure,
                         writeDefaultFailure,
                         builtInMissing,
                         defaultsChanged,
                         formatChanged,
                         devicesMissing,
                         devicesIssue,
                         defaultDevicesMissing,
                         talkOnComputer,
                         talkOnComputerBody,
                         outgoingBody,
                         openPhone,
                         dialStarted,
                         dialRefused,
                         noActiveCall};
    texts << setupSteps;
    texts << QStringList{testComputerMicrophone, openAccessibility,  soundIntro,
                         devicesPresent,         devicesAbsent,      phoneStepIntro,
                         phoneStepHowTo,         phoneAudioTitle,    phoneAudioStateName,
                         phoneAudioUnset,        relayDetectedEvent, relayTimeout,
                         guidePrepareTitle,      guidePrepareBody,   guideTryMiddle,
                         guideArmBody,           guideRecordsBody,   deletionTail};
    return texts;
}

const PlatformWording& PlatformWording::of(WordingPlatform platform)
{
    static const PlatformWording mac = macWording();
    static const PlatformWording linuxTexts = linuxWording();
    return platform == WordingPlatform::MacOS ? mac : linuxTexts;
}

const PlatformWording& PlatformWording::current()
{
    return of(selected());
}

void PlatformWording::select(WordingPlatform platform)
{
    selected() = platform;
}

} // namespace vemira
