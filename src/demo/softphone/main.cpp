// A stand-in softphone for the end-to-end scenario and the demonstration: not part of Vemira.
#include "SoftphoneWindow.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QTextStream>

using vemira::e2e::ConversationScript;
using vemira::e2e::SoftphoneWindow;

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Softphone de test"));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Softphone de test pour la démonstration de Vemira"));
    parser.addHelpOption();
    const QCommandLineOption callSink(
        QStringLiteral("call-sink"),
        QStringLiteral("Sortie PulseAudio où jouer la voix de l’appelant."),
        QStringLiteral("sink"));
    const QCommandLineOption voiceSource(QStringLiteral("voice-source"),
                                         QStringLiteral("Source PulseAudio où écouter la réponse."),
                                         QStringLiteral("source"));
    const QCommandLineOption conversation(
        QStringLiteral("conversation"), QStringLiteral("Dossier de la conversation scénarisée."),
        QStringLiteral("dir"), ConversationScript::defaultFolder());
    const QCommandLineOption marks(QStringLiteral("marks"),
                                   QStringLiteral("Fichier JSON des repères de temps."),
                                   QStringLiteral("file"));
    const QCommandLineOption recording(QStringLiteral("recording"),
                                       QStringLiteral("Fichier PCM de ce qui a été entendu."),
                                       QStringLiteral("file"));
    const QCommandLineOption ringAfter(QStringLiteral("ring-after"),
                                       QStringLiteral("Secondes avant la sonnerie."),
                                       QStringLiteral("s"), QStringLiteral("1"));
    const QCommandLineOption quitAfter(
        QStringLiteral("quit-after-call"),
        QStringLiteral("Secondes avant de quitter après l’appel (par défaut : rester ouvert)."),
        QStringLiteral("s"), QStringLiteral("-1"));
    const QCommandLineOption ringOnStdin(
        QStringLiteral("ring-on-stdin"),
        QStringLiteral("Sonner à la lecture de « ring » sur l’entrée standard."));
    parser.addOptions(
        {callSink, voiceSource, conversation, marks, recording, ringAfter, quitAfter, ringOnStdin});
    parser.process(app);

    auto script = ConversationScript::load(parser.value(conversation));
    if (!script) {
        QTextStream(stderr) << script.error().message() << '\n';
        return 2;
    }
    SoftphoneWindow::Options options;
    options.script = script.value();
    options.callSink = parser.value(callSink);
    options.voiceSource = parser.value(voiceSource);
    options.marksPath = parser.value(marks);
    options.recordingPath = parser.value(recording);
    options.ringAfterSeconds = parser.value(ringAfter).toDouble();
    options.quitAfterCallSeconds = parser.value(quitAfter).toDouble();
    options.ringOnStdin = parser.isSet(ringOnStdin);
    SoftphoneWindow window(options);
    window.show();
    return app.exec();
}
