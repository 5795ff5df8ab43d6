#include "records/CallMessage.h"

#include "phone/CallPolicy.h"
#include "records/JsonRead.h"

#include <QJsonDocument>
#include <QJsonParseError>
#include <algorithm>
#include <array>

namespace vemira {

namespace {

struct Field {
    const char16_t* key;
    QString CallMessage::*member;
};

constexpr std::array<Field, 7> fields{{
    {u"identity", &CallMessage::identity},
    {u"address", &CallMessage::address},
    {u"problem", &CallMessage::problem},
    {u"since", &CallMessage::since},
    {u"urgency", &CallMessage::urgency},
    {u"callback", &CallMessage::callback},
    {u"summary", &CallMessage::summary},
}};

QString keyText(const Field& field)
{
    return QString::fromUtf16(field.key);
}

// One line of text: the model sometimes answers with line breaks or runs of spaces, and a
// hand edit may carry them; the message is shown and mailed as single lines.
QString oneLine(const QString& text)
{
    QString line = text.simplified();
    if (line.size() > CallMessage::maxFieldLength) {
        line.truncate(CallMessage::maxFieldLength);
        if (line.back().isHighSurrogate())
            line.chop(1);
    }
    return line;
}

} // namespace

QStringList CallMessage::urgencies()
{
    return {QStringLiteral("Urgent"), QStringLiteral("Rapide"), QStringLiteral("Normal")};
}

int CallMessage::urgencyRank() const
{
    const qsizetype index = urgencies().indexOf(urgency);
    return index < 0 ? 3 : int(index);
}

bool CallMessage::isEmpty() const
{
    for (const Field& field : fields) {
        if (!(this->*field.member).isEmpty())
            return false;
    }
    return true;
}

QJsonObject CallMessage::toJson() const
{
    QJsonObject object;
    for (const Field& field : fields)
        object.insert(keyText(field), this->*field.member);
    return object;
}

Result<CallMessage> CallMessage::fromJson(const QJsonObject& object)
{
    JsonReader in(object, QStringLiteral("message"));
    CallMessage message;
    for (const Field& field : fields)
        message.*field.member = in.optionalString(keyText(field)).value_or(QString());
    if (in.failed())
        return in.error();
    return message;
}

Result<CallMessage> CallMessage::fromAnswer(const QByteArray& json)
{
    QJsonParseError parseError{};
    const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
        return AppError(QStringLiteral("La réponse du modèle n’est pas un message lisible."));
    const QJsonObject object = document.object();
    CallMessage message;
    for (const Field& field : fields) {
        const QJsonValue value = object.value(keyText(field));
        if (value.isString())
            message.*field.member = value.toString();
    }
    return message.cleaned();
}

CallMessage CallMessage::cleaned() const
{
    CallMessage message;
    for (const Field& field : fields)
        message.*field.member = oneLine(this->*field.member);
    const QStringList known = urgencies();
    const auto found = std::find_if(known.begin(), known.end(), [&](const QString& value) {
        return value.compare(message.urgency, Qt::CaseInsensitive) == 0;
    });
    message.urgency = found == known.end() ? QString() : *found;
    // Only a whole number under the rule is kept: a callback of "demain matin" or of a
    // number with words around it is not a number the owner can dial.
    const auto number = CallPolicy::phoneNumber(QStringList{message.callback});
    if (!number || *number != message.callback)
        message.callback.clear();
    return message;
}

} // namespace vemira
