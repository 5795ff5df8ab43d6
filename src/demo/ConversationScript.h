#pragma once

#include "core/AppError.h"

#include <QByteArray>
#include <QList>
#include <QString>

namespace vemira::e2e {

// One scripted line: who says it, what it says, and its synthesised voice (wire PCM).
struct ScriptLine {
    enum class Role { Assistant, Caller };
    Role role = Role::Assistant;
    QString id;
    QString text;
    QByteArray pcm;      // signed 16-bit little-endian, 24 kHz, mono
    int onsetSample = 0; // first sample loud enough to count as speech

    double seconds() const { return double(pcm.size()) / 48000.0; }
};

// The short message-taking conversation both ends of the scenario follow: the stand-in speaks
// the assistant's lines, the softphone speaks the caller's.
struct ConversationScript {
    QString callerNumber;
    // The business the assistant's lines name (the demonstration's company setting).
    QString company;
    QList<ScriptLine> lines;
    // The message the caller's lines leave, as the model would fill it in (JSON text).
    QByteArray message;

    QList<ScriptLine> linesOf(ScriptLine::Role role) const;

    // Reads conversation.json and the <id>.raw voices generated next to it at build time.
    static Result<ConversationScript> load(const QString& folder);
    // The folder the build generated, for tools started without arguments.
    static QString defaultFolder();
};

} // namespace vemira::e2e
