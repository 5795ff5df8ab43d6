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
    void defaultsWhenNothingIsStored()
    {
        QTemporaryDir dir;
        const Settings settings(dir.filePath(QStringLiteral("prefs.ini")));
        const Settings::Group group = settings.group();
        QCOMPARE(group.voice, QStringLiteral("marin"));
        QCOMPARE(group.model, QStringLiteral("gpt-realtime-2.1"));
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

    void valuesSurviveTheStore()
    {
        QTemporaryDir dir;
        const QString file = dir.filePath(QStringLiteral("prefs.ini"));
        Settings::Group group{
            QStringLiteral("uid:in"),
            QStringLiteral("uid:out"),
            QStringLiteral("cedar"),
            QStringLiteral("gpt-realtime-2025-08-28"),
            QStringLiteral("SCI Lilas, Paris"),
            QStringLiteral(
                "Ton : Calme et rassurant.\nRéponds aux « locataires », ; = [x] \\ fin")};
        {
            Settings settings(file);
            settings.saveGroup(group);
            settings.setVoiceStyle(QString());
            settings.setVoiceEQ(QByteArray(R"({"enabled":true,"gains":[0,1,2,3,4,5,6,7,8]})"));
            settings.setKeySaved(true);
            settings.setInterventionMicUID(QStringLiteral("mic"));
            settings.setPhonePreviousOutput(QStringLiteral("haut-parleurs"));
            settings.setPhonePreviousOutput(std::nullopt); // cleared again
            AnsweringRules::Texts texts;
            texts.ringOpen = QStringLiteral("20");
            texts.ringClosed = QStringLiteral("3 s");
            texts.hours = QStringLiteral("sam 9h-12h ; lun-ven 09:00-12:00, 14:00-18:00");
            texts.closedDays = QStringLiteral("2026-12-25 2026-01-01");
            texts.neverAnswer = {QStringLiteral(" 06 12 34 56 78 "), QString()};
            texts.answerHidden = false;
            settings.setAnsweringRules(AnsweringRules::parse(texts).value());
        }
        // The exact key names, as another reader of the store sees them.
        QSettings raw(file, QSettings::IniFormat);
        for (const char* key :
             {"inputUID", "outputUID", "voice", "model", "company", "instructions", "voiceStyle",
              "voiceEQ", "keySaved", "interventionMicUID"})
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
        QCOMPARE(reread.voiceStyle(), QString()); // an empty style is a style, not the default
        QCOMPARE(reread.voiceEQ(),
                 std::optional(QByteArray(R"({"enabled":true,"gains":[0,1,2,3,4,5,6,7,8]})")));
        QVERIFY(reread.keySaved());
        QCOMPARE(reread.interventionMicUID(), std::optional(QStringLiteral("mic")));
        QCOMPARE(reread.phonePreviousOutput(), std::nullopt);
        // The rules come back in the owner's forms, tidied.
        const AnsweringRules::Texts rules = reread.answeringRules().texts();
        QCOMPARE(rules.ringClosed, QStringLiteral("3"));
        QCOMPARE(rules.hours, QStringLiteral("lun-ven 09:00-12:00,14:00-18:00; sam 09:00-12:00"));
        QCOMPARE(rules.closedDays, QStringLiteral("2026-01-01,2026-12-25"));
        QCOMPARE(rules.neverAnswer, QStringList{QStringLiteral("06 12 34 56 78")});
        QVERIFY(!rules.answerHidden);
        // Hand-edited into nonsense: the defaults, never a refusal to start.
        QSettings(file, QSettings::IniFormat).setValue(QStringLiteral("ringOpen"), 1);
        QCOMPARE(Settings(file).answeringRules(), AnsweringRules());
    }

    void answeringRulesRefuseWhatTheyCannotRead_data()
    {
        QTest::addColumn<QString>("field");
        QTest::addColumn<QString>("value");
        QTest::addColumn<QString>("message");
        QTest::newRow("too short a ring")
            << "ringOpen"
            << "2"
            << "Laisser sonner (ouvert) : « 2 » n’est pas une durée de 3 "
               "à 60 secondes.";
        QTest::newRow("too long a ring")
            << "ringClosed"
            << "61"
            << "Laisser sonner (fermé) : « 61 » n’est pas une durée de 3 "
               "à 60 secondes.";
        QTest::newRow("end before start")
            << "hours"
            << "lun 14:00-12:00"
            << "Horaires d’ouverture : la fin précède le début dans « "
               "14:00-12:00 ».";
        QTest::newRow("unknown day")
            << "hours"
            << "lum 09:00-12:00"
            << "Horaires d’ouverture : jour inconnu « lum » (lun, mar, mer, "
               "jeu, ven, sam, dim).";
        QTest::newRow("25 o’clock")
            << "hours"
            << "lun 09:00-25:00"
            << "Horaires d’ouverture : plage illisible « 09:00-25:00 » (par "
               "exemple 09:00-12:00).";
        QTest::newRow("a day without hours") << "hours"
                                             << "lun"
                                             << "Horaires d’ouverture : « lun » sans plage horaire "
                                                "(par exemple « lun-ven 09:00-18:00 »).";
        QTest::newRow("a French date") << "closedDays"
                                       << "2026-12-24, 25/12/2026"
                                       << "Jours de fermeture : date illisible « 25/12/2026 » "
                                          "(AAAA-MM-JJ).";
        QTest::newRow("seven digits") << "never"
                                      << "06 12 34 5"
                                      << "Numéros jamais pris : « 06 12 34 5 » n’est pas un numéro "
                                         "de téléphone (8 à 15 chiffres).";
        QTest::newRow("a name") << "never"
                                << "Maman 0612345678"
                                << "Numéros jamais pris : « Maman 0612345678 » n’est pas un numéro "
                                   "de téléphone (8 à 15 chiffres).";
    }

    void answeringRulesRefuseWhatTheyCannotRead()
    {
        QFETCH(QString, field);
        QFETCH(QString, value);
        QFETCH(QString, message);
        AnsweringRules::Texts texts = AnsweringRules().texts();
        (field == QLatin1String("ringOpen")     ? texts.ringOpen
         : field == QLatin1String("ringClosed") ? texts.ringClosed
         : field == QLatin1String("hours")      ? texts.hours
                                                : texts.closedDays) = value;
        if (field == QLatin1String("never")) {
            texts.closedDays.clear();
            texts.neverAnswer = {value};
        }
        const Result<AnsweringRules> rules = AnsweringRules::parse(texts);
        QVERIFY(!rules);
        QCOMPARE(rules.error().message(), message);
    }

    void answeringRulesDecide_data()
    {
        QTest::addColumn<QString>("caller");
        QTest::addColumn<QDateTime>("when");
        QTest::addColumn<QString>("verdict"); // the log line, or the ring time in seconds
        QTest::addColumn<QString>("inForce");
        const QDateTime tuesday(QDate(2026, 11, 24), QTime(10, 0));
        const QString open = QStringLiteral("Ouvert : Vemira répond après 20 s");
        const QString closed = QStringLiteral("Fermé : Vemira répond après 3 s");
        QTest::newRow("open") << "07 00 00 00 00" << tuesday << "20" << open;
        QTest::newRow("lunch break, last minute")
            << "07 00 00 00 00" << QDateTime(tuesday.date(), QTime(13, 59)) << "3" << closed;
        QTest::newRow("closing time")
            << "07 00 00 00 00" << QDateTime(tuesday.date(), QTime(18, 0)) << "3" << closed;
        QTest::newRow("Saturday morning")
            << "07 00 00 00 00" << QDateTime(QDate(2026, 11, 28), QTime(11, 59)) << "20" << open;
        QTest::newRow("Sunday") << "07 00 00 00 00" << QDateTime(QDate(2026, 11, 29), QTime(10, 0))
                                << "3" << closed;
        for (const char* spelling : {"0612345678", "+33 6 12 34 56 78", "0033 6 12 34 56 78"})
            QTest::newRow(spelling) << spelling << tuesday
                                    << QStringLiteral("Appel de %1 laissé sonner : numéro réservé")
                                           .arg(QLatin1String(spelling))
                                    << open;
        QTest::newRow("another country's 6 12 34 56 78")
            << "+32 6 12 34 56 78" << tuesday << "20" << open;
        QTest::newRow("no number")
            << "Identité à confirmer" << tuesday
            << "Appel de Identité à confirmer laissé sonner : numéro masqué" << open;
        QTest::newRow("Christmas")
            << "07 00 00 00 00" << QDateTime(QDate(2026, 12, 25), QTime(10, 0))
            << "Appel de 07 00 00 00 00 laissé sonner : fermé le 25 décembre"
            << "Fermé le 25 décembre : Vemira laisse sonner";
        QTest::newRow("New Year") << "07 00 00 00 00" << QDateTime(QDate(2027, 1, 1), QTime(3, 0))
                                  << "Appel de 07 00 00 00 00 laissé sonner : fermé le 1er janvier"
                                  << "Fermé le 1er janvier : Vemira laisse sonner";
    }

    void answeringRulesDecide()
    {
        QFETCH(QString, caller);
        QFETCH(QDateTime, when);
        QFETCH(QString, verdict);
        QFETCH(QString, inForce);
        AnsweringRules::Texts texts;
        texts.ringOpen = QStringLiteral("20");
        texts.ringClosed = QStringLiteral("3");
        texts.hours = QStringLiteral("lun-ven 09:00-12:00,14:00-18:00; sam 09:00-12:00");
        texts.closedDays = QStringLiteral("2026-12-25,2027-01-01");
        texts.neverAnswer = {QStringLiteral("06 12 34 56 78")};
        texts.answerHidden = false;
        const AnsweringRules rules = AnsweringRules::parse(texts).value();
        const AnsweringRules::Decision decision = rules.decide(caller, when);
        QCOMPARE(decision.answer ? QString::number(decision.ringSeconds)
                                 : AnsweringRules::leftRingingLine(caller, decision),
                 verdict);
        QCOMPARE(rules.inForce(when), inForce);
    }

    void recordingEnabledOnlyOffWhenReallyFalse()
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

    void keyFileIsPrivateAndExact()
    {
        QTemporaryDir dir;
        const QString folder = dir.filePath(QStringLiteral("Brelian/Credentials"));
        const LocalKeyStore store(folder);
        QCOMPARE(store.read().value(), std::nullopt);
        QVERIFY(!store.exists());

        const auto typed = keyFromUserText(QStringLiteral("  sk-proj-abc123\n"));
        QVERIFY(typed.ok());
        QCOMPARE(store.save(typed.value()), Status());
        QCOMPARE(test::fileBytes(store.keyFile()),
                 QByteArray("sk-proj-abc123")); // no newline added
        QCOMPARE(mode(folder), 0700);
        QCOMPARE(mode(store.keyFile()), 0600);
        QCOMPARE(store.read().value(), std::optional(QStringLiteral("sk-proj-abc123")));
        // A key file edited by hand is read without its blanks; blanks alone are no key.
        QCOMPARE(store.save(QStringLiteral(" sk-main\n")), Status());
        QCOMPARE(store.readKey().value(), std::optional(QStringLiteral("sk-main")));
        QCOMPARE(store.save(QStringLiteral(" \n")), Status());
        QCOMPARE(store.readKey().value(), std::nullopt);

        // Wider modes left by someone else are narrowed at the next save.
        QFile::setPermissions(folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                          QFile::ReadGroup | QFile::ExeGroup | QFile::ReadOther |
                                          QFile::ExeOther);
        QFile::setPermissions(store.keyFile(),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ReadOther);
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

    void keyReadAndDeleteFailures()
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

    void standardLocations()
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
};

QTEST_GUILESS_MAIN(SettingsAndKeyTest)
#include "tst_settings_and_key.moc"
