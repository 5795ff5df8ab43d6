#pragma once

#include "core/AppError.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QSslError>
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
// The server's certificate was refused (the first error says why).
QString certificateRefusedMessage(const QList<QSslError>& errors);
// A response the provider could not produce: the session log line, with the provider's reason.
QString failedResponseNotice(const QString& reason);
// The provider will produce no response at all for this account (credit, billing).
QString creditExhaustedMessage();
// Codes or types of a failed response that mean no response can be produced until the owner
// acts on the account; any other failure (rate limit, server error) may pass.
bool meansNoCredit(const QString& codeOrType);

// Codes the provider gives for a model it does not serve (retired, misspelt, or not open to
// this account): the key is not at fault.
bool meansUnknownModel(const QString& code);
// Names the model refused and the one to choose instead (its successor in the model table, or
// the default model).
QString unknownModelMessage(const QString& model);

// Text standing for a caller turn the provider could not transcribe.
QString inaudibleText(); // "[inaudible]"
// Added to an AI line the caller did not hear to its end.
QString cutMark(); // "…"

// The provider's endpoint, or the scheme/host/port of `overrideAddress` when it is non-empty
// (VEMIRA_REALTIME_URL). Always ends in /v1/realtime?model=<model>. Plain ws:// is accepted
// only for a loopback host, so a key never crosses the network in clear.
Result<QUrl> endpoint(const QString& model, const QString& overrideAddress);
QString defaultHost(); // "api.openai.com"

// Client events.
QJsonObject sessionConfiguration(const QString& model, const QString& voice,
                                 const QString& instructions);
// The first spoken turn and the goodbye at the time limit: the session's instructions, then
// what this turn is for.
QString greetingText();
QJsonObject greetingRequest(const QString& sessionInstructions);
QString goodbyeText();
QJsonObject goodbyeRequest(const QString& sessionInstructions);
// Whether the end of a caller's turn makes the model answer (off while the manager speaks, so
// nothing is generated, and billed, that nobody would hear).
QJsonObject turnTakingUpdate(bool createResponses);
QJsonObject instructionsUpdate(const QString& instructions);
// The smallest response that still proves the account can be billed: text only, out of the
// conversation, one output token.
QJsonObject probeResponseRequest();
// The text of one input_audio_buffer.append event, built without a JSON tree: base64 needs no
// escaping, and this runs a dozen times a second for the whole call.
QString audioAppendFrame(const QByteArray& pcm);

} // namespace vemira::realtime
