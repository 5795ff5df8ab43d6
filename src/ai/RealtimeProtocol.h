#pragma once

#include "core/AppError.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QUrl>
#include <optional>

// What travels on the realtime WebSocket: endpoint, client events, and the texts the user sees
// when the conversation with the speech model goes wrong.
namespace vemira::realtime {

// Wire audio: s16le mono 24 kHz; one second of it.
inline constexpr qint64 bytesPerSecond = 48'000;
inline constexpr int sampleRate = 24'000;

// Speaker labels of transcript lines.
QString aiSpeaker();     // "Vemira"
QString callerSpeaker(); // "Interlocuteur"

// User-facing failure texts.
QString receiveFailedMessage(); // the receive side ended (rejected key, closed socket, bad JSON)
QString sendFailedMessage();    // a frame could not be handed to the socket
QString queueFullMessage();     // one outgoing frame dropped because 300 are waiting
QString serverErrorMessage(const QString& code);

// The provider's endpoint, or the scheme/host/port of `overrideAddress` when it is non-empty
// (VEMIRA_REALTIME_URL). Always ends in /v1/realtime?model=<model>. Plain ws:// is accepted
// only for a loopback host, so a key never crosses the network in clear.
Result<QUrl> endpoint(const QString& model, const QString& overrideAddress);
QString defaultHost(); // "api.openai.com"

// Client events.
QJsonObject sessionConfiguration(const QString& model, const QString& voice,
                                 const QString& instructions);
QJsonObject greetingRequest();
QJsonObject instructionsUpdate(const QString& instructions);
// The text of one input_audio_buffer.append event, built without a JSON tree: base64 needs no
// escaping, and this runs a dozen times a second for the whole call.
QString audioAppendFrame(const QByteArray& pcm);

} // namespace vemira::realtime
