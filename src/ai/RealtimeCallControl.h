#pragma once

#include <QJsonObject>
#include <QString>
#include <optional>

// Client events the call lifecycle sends on its own (a manager taking over the call) and how it
// reads the server's error events.
namespace vemira::realtime {

// Stops the response being generated.
QJsonObject responseCancel();
// A short system message added to the conversation (not spoken, read by the model).
QJsonObject systemNote(const QString& text);
// What the model is told when the manager hands the call back.
QString managerSpokeNote();

// Whether a server "error" event leaves the session unusable. The provider sends most errors
// about one client event (an invalid value, a cancel with no active response, a response
// already in progress, an empty commit, a rate limit on one response) and keeps the session
// open. Only these end it: the key is refused ("invalid_api_key"), the account cannot pay
// ("insufficient_quota"), or the session reached its maximum duration ("session_expired").
// A socket the server closes is reported separately, by the receive side.
bool serverErrorEndsSession(const std::optional<QString>& code);

} // namespace vemira::realtime
