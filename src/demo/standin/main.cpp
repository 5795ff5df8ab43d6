// A stand-in for the provider's realtime service on loopback, for the end-to-end scenario
// and the demonstration: not part of Vemira. Prints "LISTENING <url>" once it accepts.
#include "StandinSession.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>
#include <QWebSocket>
#include <QWebSocketServer>

using namespace vemira::e2e;

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vemira-realtime-standin"));

    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Service temps réel simulé pour la démonstration de Vemira"));
    parser.addHelpOption();
    const QCommandLineOption port(QStringLiteral("port"),
                                  QStringLiteral("Port d’écoute (0 : au choix)."),
                                  QStringLiteral("n"), QStringLiteral("0"));
    const QCommandLineOption conversation(
        QStringLiteral("conversation"), QStringLiteral("Dossier de la conversation scénarisée."),
        QStringLiteral("dir"), ConversationScript::defaultFolder());
    const QCommandLineOption marks(QStringLiteral("marks"),
                                   QStringLiteral("Fichier JSON des repères de temps."),
                                   QStringLiteral("file"));
    parser.addOptions({port, conversation, marks});
    parser.process(app);

    const auto script = ConversationScript::load(parser.value(conversation));
    if (!script) {
        QTextStream(stderr) << script.error().message() << '\n';
        return 2;
    }
    MarksFile marksFile(parser.value(marks));
    QWebSocketServer server(QStringLiteral("vemira-realtime-standin"),
                            QWebSocketServer::NonSecureMode);
    if (!server.listen(QHostAddress::LocalHost, quint16(parser.value(port).toUInt()))) {
        QTextStream(stderr) << QStringLiteral("Écoute impossible : ") << server.errorString()
                            << '\n';
        return 2;
    }
    int sessions = 0;
    QObject::connect(&server, &QWebSocketServer::newConnection, &app, [&] {
        while (QWebSocket* socket = server.nextPendingConnection()) {
            socket->setParent(&app);
            auto* session =
                new StandinSession(socket, script.value(), sessions++, marksFile, socket);
            QObject::connect(session, &StandinSession::finished, socket, &QObject::deleteLater);
        }
    });
    QTextStream(stdout) << QStringLiteral("LISTENING ws://127.0.0.1:%1").arg(server.serverPort())
                        << Qt::endl;
    return app.exec();
}
