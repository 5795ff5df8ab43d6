#include "records/Settings.h"

#include "records/AgentInstructions.h"
#include "records/ModelCatalogue.h"

#include <QSettings>

namespace vemira {

namespace {
QString key(const char* name)
{
    return QString::fromLatin1(name);
}
} // namespace

Settings::Settings()
    : m_store(std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                          QStringLiteral("Brelian"), QStringLiteral("Vemira")))
{}

Settings::Settings(const QString& iniFile)
    : m_store(std::make_unique<QSettings>(iniFile, QSettings::IniFormat))
{}

Settings::~Settings() = default;
Settings::Settings(Settings&&) noexcept = default;
Settings& Settings::operator=(Settings&&) noexcept = default;

QString Settings::defaultVoice()
{
    return QStringLiteral("marin");
}

QString Settings::defaultModel()
{
    return ModelCatalogue::defaultModel();
}

QString Settings::defaultCompany()
{
    return QStringLiteral("SCI des Brumaires");
}

QString Settings::defaultInstructions()
{
    return QStringLiteral(
        "Accueille les locataires et prends un message précis pour le gestionnaire.");
}

std::optional<QString> Settings::string(const QString& name) const
{
    const QVariant value = m_store->value(name);
    if (!value.isValid() || value.typeId() == QMetaType::QStringList)
        return std::nullopt;
    if (!value.canConvert<QString>())
        return std::nullopt;
    return value.toString();
}

void Settings::setString(const QString& name, const std::optional<QString>& value)
{
    if (value)
        m_store->setValue(name, *value);
    else
        m_store->remove(name);
}

std::optional<bool> Settings::boolean(const QString& name) const
{
    const QVariant value = m_store->value(name);
    if (value.typeId() == QMetaType::Bool)
        return value.toBool();
    // Text stores (INI, registry) keep booleans as the words Qt wrote.
    if (value.typeId() == QMetaType::QString) {
        const QString text = value.toString();
        if (text == QLatin1String("true"))
            return true;
        if (text == QLatin1String("false"))
            return false;
    }
    return std::nullopt;
}

Settings::Group Settings::group() const
{
    Group g;
    g.inputUID = string(key("inputUID")).value_or(QString());
    g.outputUID = string(key("outputUID")).value_or(QString());
    g.voice = string(key("voice")).value_or(defaultVoice());
    g.model = string(key("model")).value_or(defaultModel());
    g.company = string(key("company")).value_or(defaultCompany());
    g.instructions = string(key("instructions")).value_or(defaultInstructions());
    return g;
}

void Settings::saveGroup(const Group& values)
{
    m_store->setValue(key("inputUID"), values.inputUID);
    m_store->setValue(key("outputUID"), values.outputUID);
    m_store->setValue(key("voice"), values.voice);
    m_store->setValue(key("model"), values.model);
    m_store->setValue(key("company"), values.company);
    m_store->setValue(key("instructions"), values.instructions);
    m_store->sync();
}

QString Settings::voiceStyle() const
{
    return string(key("voiceStyle")).value_or(defaultVoiceStyle());
}

void Settings::setVoiceStyle(const QString& style)
{
    m_store->setValue(key("voiceStyle"), style);
    m_store->sync();
}

std::optional<QByteArray> Settings::voiceEQ() const
{
    const QVariant value = m_store->value(key("voiceEQ"));
    if (!value.isValid())
        return std::nullopt;
    return value.toByteArray();
}

void Settings::setVoiceEQ(const QByteArray& json)
{
    m_store->setValue(key("voiceEQ"), json);
    m_store->sync();
}

bool Settings::recordingEnabled() const
{
    return boolean(key("recordingEnabled")).value_or(true);
}

bool Settings::rearmOnWake() const
{
    return boolean(key("rearmOnWake")).value_or(true);
}

void Settings::setRearmOnWake(bool enabled)
{
    m_store->setValue(key("rearmOnWake"), enabled);
}

bool Settings::armedAtExit() const
{
    return boolean(key("armedAtExit")).value_or(false);
}

void Settings::setArmedAtExit(bool armed)
{
    m_store->setValue(key("armedAtExit"), armed);
}

std::optional<bool> Settings::rearmAtLogin() const
{
    return boolean(key("rearmAtLogin"));
}

void Settings::setRearmAtLogin(bool rearm)
{
    m_store->setValue(key("rearmAtLogin"), rearm);
}

QString Settings::phoneApp() const
{
    const QVariant value = m_store->value(key("phoneApp"));
    return value.typeId() == QMetaType::QString ? value.toString().trimmed() : QString();
}

void Settings::setPhoneApp(const QString& choice)
{
    if (choice.trimmed().isEmpty())
        m_store->remove(key("phoneApp"));
    else
        m_store->setValue(key("phoneApp"), choice.trimmed());
}

void Settings::setRecordingEnabled(bool enabled)
{
    m_store->setValue(key("recordingEnabled"), enabled);
    m_store->sync();
}

int Settings::recordingRetentionDays() const
{
    bool ok = false;
    const int days = m_store->value(key("recordingRetentionDays")).toInt(&ok);
    return ok && (days == 30 || days == 90 || days == 365) ? days : 0;
}

void Settings::setRecordingRetentionDays(int days)
{
    m_store->setValue(key("recordingRetentionDays"), days);
    m_store->sync();
}

std::optional<QString> Settings::interventionMicUID() const
{
    return string(key("interventionMicUID"));
}

void Settings::setInterventionMicUID(const std::optional<QString>& uid)
{
    setString(key("interventionMicUID"), uid);
    m_store->sync();
}

std::optional<QString> Settings::interventionOutputUID() const
{
    return string(key("interventionOutputUID"));
}

void Settings::setInterventionOutputUID(const std::optional<QString>& uid)
{
    setString(key("interventionOutputUID"), uid);
    m_store->sync();
}

bool Settings::keySaved() const
{
    return boolean(key("keySaved")).value_or(false);
}

void Settings::setKeySaved(bool saved)
{
    m_store->setValue(key("keySaved"), saved);
    m_store->sync();
}

std::optional<QString> Settings::phonePreviousOutput() const
{
    return string(key("phonePreviousOutput"));
}

void Settings::setPhonePreviousOutput(const std::optional<QString>& uid)
{
    setString(key("phonePreviousOutput"), uid);
    m_store->sync();
}

std::optional<QString> Settings::phonePreviousInput() const
{
    return string(key("phonePreviousInput"));
}

void Settings::setPhonePreviousInput(const std::optional<QString>& uid)
{
    setString(key("phonePreviousInput"), uid);
    m_store->sync();
}

std::optional<Settings::Mail> Settings::mail() const
{
    const std::optional<QString> server = string(key("mailServer"));
    if (!server || server->isEmpty())
        return std::nullopt;
    Mail mail;
    mail.server = *server;
    mail.from = string(key("mailFrom")).value_or(QString());
    mail.to = string(key("mailTo")).value_or(QString());
    mail.user = string(key("mailUser")).value_or(QString());
    mail.caFile = string(key("mailCaFile")).value_or(QString());
    mail.attachRecording = boolean(key("mailAttachRecording")).value_or(false);
    return mail;
}

void Settings::setMail(const std::optional<Mail>& mail)
{
    if (!mail) {
        for (const char* name :
             {"mailServer", "mailFrom", "mailTo", "mailUser", "mailCaFile", "mailAttachRecording"})
            m_store->remove(key(name));
    } else {
        m_store->setValue(key("mailServer"), mail->server);
        m_store->setValue(key("mailFrom"), mail->from);
        m_store->setValue(key("mailTo"), mail->to);
        m_store->setValue(key("mailUser"), mail->user);
        m_store->setValue(key("mailCaFile"), mail->caFile);
        m_store->setValue(key("mailAttachRecording"), mail->attachRecording);
    }
    m_store->sync();
}

AnsweringRules Settings::answeringRules() const
{
    AnsweringRules::Texts texts = AnsweringRules().texts();
    texts.ringOpen = string(key("ringOpen")).value_or(texts.ringOpen);
    texts.ringClosed = string(key("ringClosed")).value_or(texts.ringClosed);
    texts.hours = string(key("openingHours")).value_or(texts.hours);
    texts.closedDays = string(key("closedDays")).value_or(texts.closedDays);
    texts.neverAnswer = m_store->value(key("neverAnswer")).toStringList();
    texts.answerHidden = boolean(key("answerHidden")).value_or(true);
    Result<AnsweringRules> rules = AnsweringRules::parse(texts);
    return rules ? rules.value() : AnsweringRules();
}

void Settings::setAnsweringRules(const AnsweringRules& rules)
{
    const AnsweringRules::Texts texts = rules.texts();
    m_store->setValue(key("ringOpen"), texts.ringOpen);
    m_store->setValue(key("ringClosed"), texts.ringClosed);
    m_store->setValue(key("openingHours"), texts.hours);
    m_store->setValue(key("closedDays"), texts.closedDays);
    m_store->setValue(key("neverAnswer"), texts.neverAnswer);
    m_store->setValue(key("answerHidden"), texts.answerHidden);
    m_store->sync();
}

void Settings::sync()
{
    m_store->sync();
}

} // namespace vemira
