#pragma once

#include "app/AppModel.h"

#include <QObject>

namespace vemira::ui {

// Runs `update` now and whenever the model emits `signal`, for as long as `context` lives.
template <typename F>
void bind(AppModel* model, void (AppModel::*signal)(), QObject* context, F update)
{
    QObject::connect(model, signal, context, update);
    update();
}

template <typename C>
void bind(AppModel* model, void (AppModel::*signal)(), C* context, void (C::*method)())
{
    QObject::connect(model, signal, context, method);
    (context->*method)();
}

// The page names the model's `page` takes (the demonstration opens "Conversations").
namespace pages {
inline QString home()
{
    return QStringLiteral("Accueil");
}
inline QString agent()
{
    return QStringLiteral("Agent");
}
inline QString conversations()
{
    return QStringLiteral("Conversations");
}
inline QString connections()
{
    return QStringLiteral("Connexions");
}
inline QString guide()
{
    return QStringLiteral("Guide");
}
inline QStringList all()
{
    return {home(), agent(), conversations(), connections(), guide()};
}
} // namespace pages

} // namespace vemira::ui
