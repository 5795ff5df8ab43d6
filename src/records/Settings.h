#pragma once

#include "records/AnsweringRules.h"

#include <QByteArray>
#include <QString>
#include <memory>
#include <optional>

class QSettings;

namespace vemira {

// The user's preferences, with their literal defaults. Reading never fails.
// Main thread only.
class Settings {
public:
    // The user's standard store (organisation "Brelian", application "Vemira").
    Settings();
    // A private INI file (tests, scripted runs).
    explicit Settings(const QString& iniFile);
    ~Settings();
    Settings(Settings&&) noexcept;
    Settings& operator=(Settings&&) noexcept;

    // The group written together by "Enregistrer les réglages" (saveSettings).
    struct Group {
        QString inputUID;  // empty when never chosen
        QString outputUID; // empty when never chosen
        QString voice;
        QString model;
        QString company;
        QString instructions; // the manager's mission text
    };
    Group group() const;
    // Writes "inputUID", "outputUID", "voice", "model", "company", "instructions" in order.
    void saveGroup(const Group& values);

    static QString defaultVoice();        // "marin"
    static QString defaultModel();        // the model table's default
    static QString defaultCompany();      // "SCI des Brumaires"
    static QString defaultInstructions(); // the default mission text

    // Written at once by their setters.
    QString voiceStyle() const; // default: the gentle style text of the instructions
    void setVoiceStyle(const QString& style);
    std::optional<QByteArray> voiceEQ() const; // JSON of the equaliser settings
    void setVoiceEQ(const QByteArray& json);
    bool recordingEnabled() const; // true unless a boolean false is stored
    void setRecordingEnabled(bool enabled);
    int recordingRetentionDays() const; // 0 (kept for ever) unless 30, 90 or 365 is stored
    void setRecordingRetentionDays(int days);
    bool rearmOnWake() const; // true unless a boolean false is stored
    void setRearmOnWake(bool enabled);
    // Whether standby was armed when the application last stopped, and the owner's answer
    // (asked once) to arming it again when the session opens; absent until asked.
    bool armedAtExit() const;
    void setArmedAtExit(bool armed);
    std::optional<bool> rearmAtLogin() const;
    void setRearmAtLogin(bool rearm);
    // The phone application watched for calls, by profile id ("twinkle") or application
    // name; empty (the default) watches every known one.
    QString phoneApp() const;
    void setPhoneApp(const QString& choice);
    std::optional<QString> interventionMicUID() const;
    void setInterventionMicUID(const std::optional<QString>& uid);
    std::optional<QString> interventionOutputUID() const;
    void setInterventionOutputUID(const std::optional<QString>& uid);
    bool keySaved() const;
    void setKeySaved(bool saved);
    std::optional<QString> phonePreviousOutput() const;
    void setPhonePreviousOutput(const std::optional<QString>& uid);
    std::optional<QString> phonePreviousInput() const;
    void setPhonePreviousInput(const std::optional<QString>& uid);

    // The e-mail sent to the owner after each call ("mailServer", "mailFrom", "mailTo",
    // "mailUser", "mailCaFile", "mailAttachRecording"); no server stored = no e-mail. The
    // password is not a preference: it lives in its own private file.
    struct Mail {
        QString server; // smtps://host:port or smtp://host:port
        QString from;
        QString to;
        QString user;   // empty = the server takes mail without logging in
        QString caFile; // an extra certificate authority for the server, empty = the system's
        bool attachRecording = false;
        bool operator==(const Mail&) const = default;
    };
    std::optional<Mail> mail() const;
    void setMail(const std::optional<Mail>& mail); // absent removes every mail key

    // When to answer ("ringOpen", "ringClosed", "openingHours", "closedDays", "neverAnswer",
    // "answerHidden", in the owner's text forms), written together at once. Rules that no
    // longer read (edited by hand) give the defaults.
    AnsweringRules answeringRules() const;
    void setAnsweringRules(const AnsweringRules& rules);

    void sync();

private:
    std::optional<QString> string(const QString& key) const;
    void setString(const QString& key, const std::optional<QString>& value);
    std::optional<bool> boolean(const QString& key) const;
    std::unique_ptr<QSettings> m_store;
};

} // namespace vemira
