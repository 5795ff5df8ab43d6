#include "ai/RealtimeCallControl.h"

#include <QJsonArray>
#include <QStringList>

namespace vemira::realtime {

QJsonObject responseCancel()
{
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("response.cancel")}};
}

QJsonObject systemNote(const QString& text)
{
    const QJsonObject content{{QStringLiteral("type"), QStringLiteral("input_text")},
                              {QStringLiteral("text"), text}};
    const QJsonObject item{{QStringLiteral("type"), QStringLiteral("message")},
                           {QStringLiteral("role"), QStringLiteral("system")},
                           {QStringLiteral("content"), QJsonArray{content}}};
    return QJsonObject{{QStringLiteral("type"), QStringLiteral("conversation.item.create")},
                       {QStringLiteral("item"), item}};
}

QString managerSpokeNote()
{
    return QStringLiteral("Le gestionnaire vient de parler lui-même avec l’interlocuteur ; tu "
                          "n’as pas entendu cet échange. Reprends la conversation avec naturel, "
                          "sans répéter ce qui a déjà été dit.");
}

bool serverErrorEndsSession(const std::optional<QString>& code)
{
    static const QStringList ending{QStringLiteral("invalid_api_key"),
                                    QStringLiteral("insufficient_quota"),
                                    QStringLiteral("session_expired")};
    return code && ending.contains(*code);
}

} // namespace vemira::realtime
