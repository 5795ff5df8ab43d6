#pragma once

#include <QByteArray>
#include <QString>
#include <QStringView>
#include <optional>

// Base64 for the audio that crosses the realtime socket a dozen times a second each way, and
// the recognition of the one server event that carries it. Kept apart from the general JSON
// path because it is the only hot path of the session.
namespace vemira::realtime {

// Standard alphabet with '=' padding, no line breaks: 4 × ceil(n / 3) characters at `out`.
qsizetype base64Size(qsizetype bytes);
void encodeBase64(const QByteArray& bytes, char16_t* out);

// Strict decoding: length a multiple of 4, standard alphabet, padding only at the very end.
std::optional<QByteArray> decodeBase64(QStringView text);

// A text frame recognised as a flat {"type":"response.output_audio.delta", …, "delta":"…"}
// object with valid audio, without going through a JSON tree. Anything else (escapes,
// non-ASCII, nesting, repeated keys, other types, audio that does not decode) is
// `NotRecognised` and must take the general path. `responseId` is the plain "response_id"
// string when the frame has one (empty otherwise).
struct AudioDeltaScan {
    enum Kind { NotRecognised, Audio } kind = NotRecognised;
    QByteArray pcm;
    QString responseId;
};
AudioDeltaScan scanAudioDelta(QStringView frame);

} // namespace vemira::realtime
