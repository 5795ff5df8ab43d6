#include "RecordsTestSupport.h"
#include "records/APIKeyStore.h"
#include "records/DataFolder.h"
#include "records/Settings.h"

#include <QDir>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

using namespace vemira;
using test::mode;

class SettingsAndKeyTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void defaultsWhenNothingIsStored();
    void valuesSurviveTheStore();
    void recordingEnabledOnlyOffWhenReallyFalse();
    void keyFileIsPrivateAndExact();
    void keyReadAndDeleteFailures();
    void standardLocations();
};

void SettingsAndKeyTest::defaultsWhenNothingIsStored()
{
    QTemporaryDir dir;
    const Settings settings(dir.filePath(QStringLiteral("prefs.ini")));
    const Settings::Group group = settings.group();
    QCOMPARE(group.voice, QStringLiteral("marin"));
    QCOMPARE(group.model, QStringLiteral("gpt-realtime"));
    QCOMPARE(group.company, QStringLiteral("SCI des Brumaires"));
    QCOMPARE(group.instructions,
             QStringLiteral(
                 "Accueille les locataires et prends un message précis pour le gestionnaire."));
    QVERIFY(group.inputUID.isEmpty() && group.outputUID.isEmpty());
    QVERIFY(settings.voiceStyle().startsWith(QStringLiteral("Parle avec une voix douce")));
    QVERIFY(settings.recordingEnabled());
    QVERIFY(!settings.keySaved());
    QVERIFY(!settings.voiceEQ() && !settings.interventionMicUID() &&
            !settings.interventionOutputUID() && !settings.phonePreviousInput() &&
            !settings.phonePreviousOutput());
}

void SettingsAndKeyTest::valuesSurviveTheStore()
{
    QTemporaryDir dir;
    const QString file = dir.filePath(QStringLiteral("prefs.ini"));
    Settings::Group group{
        QStringLiteral("uid:in"),
        QStringLiteral("uid:out"),
        QStringLiteral("cedar"),
        QStringLiteral("gpt-realtime-2025-08-28"),
        QStringLiteral("SCI Lilas, Paris"),
        QStringLiteral("Ton : Calme et rassurant.\nRéponds aux « locataires », ; = [x] \\ fin")};
    {
        Settings settings(file);
        settings.saveGroup(group);
        settings.setVoiceStyle(QString());
        settings.setVoiceEQ(QByteArray(R"({"enabled":true,"gains":[0,1,2,3,4,5,6,7,8]})"));
        settings.setKeySaved(true);
        settings.setInterventionMicUID(QStringLiteral("mic"));
        settings.setPhonePreviousOutput(QStringLiteral("haut-parleurs"));
        settings.setPhonePreviousOutput(std::nullopt); // cleared again
    }
    // The exact key names, as another reader of the store sees them.
    QSettings raw(file, QSettings::IniFormat);
    for (const char* key : {"inputUID", "outputUID", "voice", "model", "company", "instructions",
                            "voiceStyle", "voiceEQ", "keySaved", "interventionMicUID"})
        QVERIFY2(raw.contains(QLatin1String(key)), key);
    QVERIFY(!raw.contains(QStringLiteral("phonePreviousOutput")));

    const Settings reread(file);
    const Settings::Group back = reread.group();
    QCOMPARE(back.inputUID, group.inputUID);
    QCOMPARE(back.outputUID, group.outputUID);
    QCOMPARE(back.voice, group.voice);
    QCOMPARE(back.model, group.model);
    QCOMPARE(back.company, group.company);           // a comma must not turn it into a list
    QCOMPARE(back.instructions, group.instructions); // line breaks and punctuation kept
    QCOMPARE(reread.voiceStyle(), QString());        // an empty style is a style, not the default
    QCOMPARE(reread.voiceEQ(),
             std::optional(QByteArray(R"({"enabled":true,"gains":[0,1,2,3,4,5,6,7,8]})")));
    QVERIFY(reread.keySaved());
    QCOMPARE(reread.interventionMicUID(), std::optional(QStringLiteral("mic")));
    QCOMPARE(reread.phonePreviousOutput(), std::nullopt);
}

void SettingsAndKeyTest::recordingEnabledOnlyOffWhenReallyFalse()
{
    QTemporaryDir dir;
    const QString file = dir.filePath(QStringLiteral("prefs.ini"));
    {
        Settings settings(file);
        settings.setRecordingEnabled(false);
    }
    QVERIFY(!Settings(file).recordingEnabled());
    for (const QVariant& odd :
         {QVariant(QStringLiteral("non")), QVariant(0), QVariant(QStringLiteral("0")),
          QVariant(QStringList{QStringLiteral("false")})}) {
        {
            QSettings raw(file, QSettings::IniFormat);
            raw.setValue(QStringLiteral("recordingEnabled"), odd);
        }
        QVERIFY2(Settings(file).recordingEnabled(), qPrintable(odd.toString()));
    }
}

void SettingsAndKeyTest::keyFileIsPrivateAndExact()
{
    QTemporaryDir dir;
    const QString folder = dir.filePath(QStringLiteral("Brelian/Credentials"));
    const LocalKeyStore store(folder);
    QCOMPARE(store.read().value(), std::nullopt);
    QVERIFY(!store.exists());

    const auto typed = keyFromUserText(QStringLiteral("  sk-proj-abc123\n"));
    QVERIFY(typed.ok());
    QCOMPARE(store.save(typed.value()), Status());
    QCOMPARE(test::fileBytes(store.keyFile()), QByteArray("sk-proj-abc123")); // no newline added
    QCOMPARE(mode(folder), 0700);
    QCOMPARE(mode(store.keyFile()), 0600);
    QCOMPARE(store.read().value(), std::optional(QStringLiteral("sk-proj-abc123")));

    // Wider modes left by someone else are narrowed at the next save.
    QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                      QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther |
                                      QFile::ExeOther);
    QFile::setPermissions(store.keyFile(), QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther);
    QCOMPARE(store.save(QStringLiteral("sk-2")), Status());
    QCOMPARE(mode(folder), 0700);
    QCOMPARE(mode(store.keyFile()), 0600);

    const auto blank = keyFromUserText(QStringLiteral("   \n\t"));
    QVERIFY(!blank.ok());
    QCOMPARE(blank.error().message(),
             QStringLiteral("Saisissez votre clé dans ce champ sécurisé."));

    QCOMPARE(store.remove(), Status());
    QVERIFY(!store.exists());
    QCOMPARE(store.remove(), Status()); // nothing to delete is fine
}

void SettingsAndKeyTest::keyReadAndDeleteFailures()
{
    QTemporaryDir dir;
    const LocalKeyStore store(dir.path());
    test::writeBytes(store.keyFile(), "sk-\xC3\x28");
    QVERIFY(!store.read().ok()); // not UTF-8: an error, never "no key"

    // A folder where the credentials folder should be created fails with a message.
    test::writeBytes(dir.filePath(QStringLiteral("blocked")), "x");
    const LocalKeyStore blocked(dir.filePath(QStringLiteral("blocked/Credentials")));
    const Status failed = blocked.save(QStringLiteral("sk"));
    QVERIFY(failed && !failed->message().isEmpty());
}

void SettingsAndKeyTest::standardLocations()
{
    QTemporaryDir dir;
    qputenv("XDG_DATA_HOME", dir.path().toUtf8());
    qunsetenv("VEMIRA_DATA_DIR");
    QCOMPARE(DataFolder::standard().path(), dir.path() + QStringLiteral("/Brelian"));
    QCOMPARE(DataFolder::standard().historyFile(),
             dir.path() + QStringLiteral("/Brelian/history.json"));
    QCOMPARE(APIKeyStore::standard().keyFile(),
             dir.path() + QStringLiteral("/Brelian/Credentials/openai.key"));
    QCOMPARE(APIKeyStore::save(QStringLiteral("sk-x")), Status());
    QVERIFY(APIKeyStore::exists());
    qputenv("VEMIRA_DATA_DIR", dir.filePath(QStringLiteral("other")).toUtf8());
    QCOMPARE(DataFolder::standard().path(), dir.filePath(QStringLiteral("other")));
    QVERIFY(!APIKeyStore::exists());
    qunsetenv("VEMIRA_DATA_DIR");
}

QTEST_GUILESS_MAIN(SettingsAndKeyTest)
#include "tst_settings_and_key.moc"
