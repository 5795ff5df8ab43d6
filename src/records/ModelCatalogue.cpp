#include "records/ModelCatalogue.h"

#include "records/RealtimeModelsTable.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

namespace vemira {

namespace {

std::optional<double> number(const QJsonValue& value)
{
    return value.isDouble() ? std::optional<double>(value.toDouble()) : std::nullopt;
}

std::optional<qint64> count(const QJsonValue& value)
{
    return value.isDouble() ? std::optional<qint64>(qint64(value.toDouble())) : std::nullopt;
}

TokenPrices prices(const QJsonValue& value)
{
    const QJsonObject object = value.toObject();
    return {number(object.value(QLatin1String("input"))),
            number(object.value(QLatin1String("cachedInput"))),
            number(object.value(QLatin1String("output")))};
}

std::optional<QDate> date(const QJsonValue& value)
{
    const QDate parsed = QDate::fromString(value.toString(), Qt::ISODate);
    return parsed.isValid() ? std::optional<QDate>(parsed) : std::nullopt;
}

struct Table {
    QList<RealtimeModelInfo> models;
    QString defaultModel;
    QString transcriptionModel;
    double provisionPerMinute = 0;
};

const Table& table()
{
    static const Table loaded = [] {
        QJsonParseError error{};
        const QJsonObject root =
            QJsonDocument::fromJson(QByteArray(realtimeModelsJson), &error).object();
        if (error.error != QJsonParseError::NoError)
            qFatal("realtime-models.json: %s", qPrintable(error.errorString()));
        Table result;
        result.defaultModel = root.value(QLatin1String("defaultModel")).toString();
        const QJsonObject transcription = root.value(QLatin1String("transcription")).toObject();
        result.transcriptionModel = transcription.value(QLatin1String("model")).toString();
        result.provisionPerMinute =
            transcription.value(QLatin1String("provisionPerMinute")).toDouble();
        const QJsonArray models = root.value(QLatin1String("models")).toArray();
        for (const auto& value : models) {
            const QJsonObject object = value.toObject();
            RealtimeModelInfo model;
            model.name = object.value(QLatin1String("name")).toString();
            model.cost = object.value(QLatin1String("cost")).toString();
            model.audio = prices(object.value(QLatin1String("audio")));
            model.text = prices(object.value(QLatin1String("text")));
            model.context = count(object.value(QLatin1String("context")));
            model.maxOutput = count(object.value(QLatin1String("maxOutput")));
            model.shutdown = date(object.value(QLatin1String("shutdown")));
            model.successor = object.value(QLatin1String("successor")).toString();
            model.source = object.value(QLatin1String("source")).toString();
            model.checked = date(object.value(QLatin1String("checked"))).value_or(QDate());
            result.models.append(model);
        }
        return result;
    }();
    return loaded;
}

} // namespace

const QList<RealtimeModelInfo>& ModelCatalogue::models()
{
    return table().models;
}

const RealtimeModelInfo* ModelCatalogue::find(const QString& name)
{
    for (const RealtimeModelInfo& model : table().models) {
        if (model.name == name)
            return &model;
    }
    return nullptr;
}

QList<RealtimeModelInfo> ModelCatalogue::current()
{
    QList<RealtimeModelInfo> result;
    for (const RealtimeModelInfo& model : table().models) {
        if (!model.shutdown)
            result.append(model);
    }
    return result;
}

QString ModelCatalogue::defaultModel()
{
    return table().defaultModel;
}

QString ModelCatalogue::transcriptionModel()
{
    return table().transcriptionModel;
}

double ModelCatalogue::transcriptionProvisionPerMinute()
{
    return table().provisionPerMinute;
}

std::optional<ModelRetirement> ModelCatalogue::retirement(const QString& name, const QDate& today)
{
    const RealtimeModelInfo* model = find(name);
    if (!model || !model->shutdown)
        return std::nullopt;
    const qint64 daysLeft = today.daysTo(*model->shutdown);
    return ModelRetirement{*model->shutdown, model->successor, daysLeft <= 0,
                           daysLeft <= kWarningDays};
}

QString frenchDate(const QDate& date)
{
    static const QStringList months{
        QStringLiteral("janvier"), QStringLiteral("février"),  QStringLiteral("mars"),
        QStringLiteral("avril"),   QStringLiteral("mai"),      QStringLiteral("juin"),
        QStringLiteral("juillet"), QStringLiteral("août"),     QStringLiteral("septembre"),
        QStringLiteral("octobre"), QStringLiteral("novembre"), QStringLiteral("décembre")};
    if (!date.isValid())
        return QString();
    const QString day = date.day() == 1 ? QStringLiteral("1er") : QString::number(date.day());
    return day + QLatin1Char(' ') + months.at(date.month() - 1) + QLatin1Char(' ') +
           QString::number(date.year());
}

} // namespace vemira
