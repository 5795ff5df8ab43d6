#include "ConversationScript.h"

#include "SpeechDetector.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace vemira::e2e {

QList<ScriptLine> ConversationScript::linesOf(ScriptLine::Role role) const
{
    QList<ScriptLine> result;
    for (const ScriptLine& line : lines) {
        if (line.role == role)
            result.append(line);
    }
    return result;
}

QString ConversationScript::defaultFolder()
{
    QString built = QStringLiteral(VEMIRA_DEMO_VOICES_DIR);
    if (QFileInfo::exists(built))
        return built;
    // /usr/libexec/vemira/<program> → /usr/share/vemira/voices
    return QDir(QCoreApplication::applicationDirPath())
        .filePath(QStringLiteral("../../share/vemira/voices"));
}

Result<ConversationScript> ConversationScript::load(const QString& folder)
{
    const QDir dir(folder);
    QFile file(dir.filePath(QStringLiteral("conversation.json")));
    if (!file.open(QIODevice::ReadOnly))
        return AppError(
            QStringLiteral("Conversation de test introuvable : %1").arg(file.fileName()));
    QJsonParseError parseError{};
    const QJsonDocument doc = QJsonDocument::fromJson(file.readAll(), &parseError);
    if (!doc.isObject())
        return AppError(
            QStringLiteral("Conversation de test illisible : %1").arg(parseError.errorString()));

    ConversationScript script;
    script.callerNumber = doc[QStringLiteral("callerNumber")].toString();
    script.company = doc[QStringLiteral("company")].toString();
    script.message =
        QJsonDocument(doc[QStringLiteral("message")].toObject()).toJson(QJsonDocument::Compact);
    for (const QJsonValue value : doc[QStringLiteral("turns")].toArray()) {
        const QJsonObject turn = value.toObject();
        ScriptLine line;
        line.id = turn[QStringLiteral("id")].toString();
        line.text = turn[QStringLiteral("text")].toString();
        line.role = turn[QStringLiteral("role")].toString() == QLatin1String("caller")
                        ? ScriptLine::Role::Caller
                        : ScriptLine::Role::Assistant;
        QFile voice(dir.filePath(line.id + QStringLiteral(".raw")));
        if (!voice.open(QIODevice::ReadOnly))
            return AppError(QStringLiteral("Voix de test introuvable : %1").arg(voice.fileName()));
        line.pcm = voice.readAll();
        if (line.pcm.size() < 4800)
            return AppError(QStringLiteral("Voix de test trop courte : %1").arg(voice.fileName()));
        line.onsetSample = int(firstLoudSample(line.pcm));
        script.lines.append(line);
    }
    if (script.lines.isEmpty())
        return AppError(QStringLiteral("La conversation de test est vide."));
    return script;
}

} // namespace vemira::e2e
