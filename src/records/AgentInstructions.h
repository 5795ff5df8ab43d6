#pragma once

#include <QString>
#include <QStringList>
#include <functional>

namespace vemira {

class Settings;

// What the composed instructions are made of (the stored settings).
struct InstructionInputs {
    QString company;
    QString customInstructions;
    QString voiceStyle;
    bool recordingEnabled = true;
};

// The whole instructions text sent to the speech model at the start of a conversation.
QString composeInstructions(const InstructionInputs& inputs);
InstructionInputs instructionInputs(const Settings& settings);

QString defaultVoiceStyle();
QStringList voices();        // "marin", "cedar", "coral"
QStringList tones();         // the three tones of the agent sheet
QStringList templateNames(); // "Personnalisé" first
// The template's text; empty for "Personnalisé" and unknown names.
QString templateText(const QString& name);

// A style as stored: trimmed, at most 4000 characters (user-perceived characters).
QString limitVoiceStyle(const QString& text);

// Stores the limited style in `inputs` and in the preferences, then offers the newly
// composed instructions to `sendIfConnected` (true = sent to a live conversation).
// Returns the status line to show under the style editor.
QString applyVoiceStyle(const QString& text, InstructionInputs& inputs, Settings& settings,
                        const std::function<bool(const QString& instructions)>& sendIfConnected);
QString voiceStyleReceivedStatus(); // shown when the model confirms the new text

// The editable copy behind the agent setup sheet.
class AgentDraft {
public:
    QString company;
    QString instructions;
    QString voice = QStringLiteral("marin");
    bool showTest = false;
    QString templateName = QStringLiteral("Personnalisé");
    QString tone = QStringLiteral("Chaleureux et naturel");

    static QStringList templates() { return templateNames(); }
    // "Utiliser cet exemple": the chosen template's text replaces the instructions.
    void applyTemplate();
    // The mission text saved from the sheet: "Ton : <tone>.\n<instructions>".
    QString missionToSave() const;
};

} // namespace vemira
