#include "RecordsTestSupport.h"
#include "phone/CallPolicy.h"
#include "records/TranscriptDocument.h"

#include <QTest>

using namespace vemira;

class TranscriptDocumentTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void fullDocumentByteForByte()
    {
        // Runs with TZ=Europe/Paris: 795181800 s after 2001-01-01 UTC is 14 March 2026, 12:50 in
        // Paris.
        CallRecord record =
            test::fixedRecord(QStringLiteral("0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0"), 795181800);
        record.dossier = QStringLiteral("SCI Lilas");
        record.followUpStatus = QStringLiteral("En cours");
        const QString expected = QStringLiteral("TRANSCRIPTION D’APPEL — VEMIRA\n"
                                                "Référence : 0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0\n"
                                                "Date : samedi 14 mars 2026 12:50:00\n"
                                                "Type : Appel entrant\n"
                                                "Interlocuteur : +33 6 12 34 56 78\n"
                                                "Numéro affiché : +33 6 12 34 56 78\n"
                                                "Dossier : SCI Lilas\n"
                                                "État : En cours\n"
                                                "\n"
                                                "TRANSCRIPTION\n"
                                                "Vemira : Bonjour, que puis-je pour vous ?\n"
                                                "\n"
                                                "Interlocuteur : Une fuite au 3e.\n"
                                                "\n"
                                                "NOTE DU GESTIONNAIRE\n"
                                                "Rappeler demain");
        QCOMPARE(transcriptDocument(record, QLocale(QStringLiteral("fr_FR"))), expected);

        // The date follows the user's locale; nothing else in the document does.
        const QString english = transcriptDocument(record, QLocale(QStringLiteral("en_US")));
        QVERIFY(english.contains(QStringLiteral("Date : Saturday, March 14, 2026 12:50:00 PM\n")));
        QVERIFY(english.startsWith(QStringLiteral("TRANSCRIPTION D’APPEL — VEMIRA\nRéférence : ")));
    }

    void messageSectionAfterTheNote()
    {
        CallRecord record =
            test::fixedRecord(QStringLiteral("0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0"), 795181800);
        const QLocale french(QStringLiteral("fr_FR"));
        const QString withoutMessage = transcriptDocument(record, french);
        record.message = CallMessage{QStringLiteral("Jean Dupuis"),
                                     QString(),
                                     QStringLiteral("Fuite d’eau sous l’évier"),
                                     QStringLiteral("ce matin"),
                                     QStringLiteral("Urgent"),
                                     QStringLiteral("06 12 34 56 78"),
                                     QStringLiteral("Résumé")};
        // The older document stays byte for byte the start; the section follows the note.
        QCOMPARE(transcriptDocument(record, french),
                 withoutMessage + QStringLiteral("\n\nMESSAGE\n"
                                                 "Nom : Jean Dupuis\n"
                                                 "Adresse : Non précisé\n"
                                                 "Problème : Fuite d’eau sous l’évier\n"
                                                 "Depuis : ce matin\n"
                                                 "Urgence : Urgent\n"
                                                 "Rappel : 06 12 34 56 78"));
        record.message = CallMessage{};
        QVERIFY(transcriptDocument(record, french)
                    .endsWith(QStringLiteral("Rappeler demain\n\nMESSAGE\nNom : Non précisé\n"
                                             "Adresse : Non précisé\nProblème : Non précisé\n"
                                             "Depuis : Non précisé\nUrgence : Non précisé\n"
                                             "Rappel : Non précisé")));
    }

    void emptyRecordUsesThePlaceholders()
    {
        CallRecord record =
            test::fixedRecord(QStringLiteral("0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0"), 0);
        record.transcript.clear();
        record.note.clear();
        record.caller = QStringLiteral("Mme Dupont");
        const QString document = transcriptDocument(record, QLocale(QStringLiteral("fr_FR")));
        QVERIFY(document.contains(QStringLiteral("\nNuméro affiché : Non communiqué\n")));
        QVERIFY(document.contains(QStringLiteral("\nDossier : Non classé\nÉtat : À traiter\n\n")));
        QVERIFY(document.endsWith(QStringLiteral(
            "\n\nTRANSCRIPTION\nAucune parole transcrite.\n\nNOTE DU GESTIONNAIRE\nAucune note.")));
        // Text goes in as stored: no trimming of a note made of spaces.
        record.note = QStringLiteral("  ");
        QVERIFY(transcriptDocument(record).endsWith(QStringLiteral("NOTE DU GESTIONNAIRE\n  ")));
    }

    void displayedNumber_data()
    {
        QTest::addColumn<QString>("caller");
        QTest::addColumn<QString>("expected");
        const QString none = QStringLiteral("Non communiqué");
        QTest::newRow("name only") << QStringLiteral("Mme Dupont") << none;
        QTest::newRow("spaced mobile")
            << QStringLiteral("+33 6 12 34 56 78") << QStringLiteral("+33 6 12 34 56 78");
        QTest::newRow("inside a sentence") << QStringLiteral("Appel de 06.12.34.56.78 (portable)")
                                           << QStringLiteral("06.12.34.56.78");
        QTest::newRow("00 prefix and brackets")
            << QStringLiteral("0033 (1) 42-68-53-00") << QStringLiteral("0033 (1) 42-68-53-00");
        QTest::newRow("7 digits") << QStringLiteral("Poste 1234567") << none;
        QTest::newRow("8 digits") << QStringLiteral("12345678") << QStringLiteral("12345678");
        QTest::newRow("15 digits")
            << QStringLiteral("123456789012345") << QStringLiteral("123456789012345");
        QTest::newRow("16 digits") << QStringLiteral("1234567890123456") << none;
        QTest::newRow("glued to a word") << QStringLiteral("ref0612345678") << none;
        QTest::newRow("first acceptable match wins")
            << QStringLiteral("123 4567, puis 01 23 45 67 89") << QStringLiteral("01 23 45 67 89");
    }

    void displayedNumber()
    {
        QFETCH(QString, caller);
        QFETCH(QString, expected);
        CallRecord record;
        record.caller = caller;
        QCOMPARE(record.phoneLabel(), expected);
    }

    void fileNames()
    {
        const CallRecord record =
            test::fixedRecord(QStringLiteral("0f1e2d3c-4b5a-6978-8796-a5b4c3d2e1f0"), 0);
        QCOMPARE(transcriptFileName(record),
                 QStringLiteral("Appel-0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0.txt"));
        QCOMPARE(exportFileName(record), QStringLiteral("Conversation-0F1E2D3C.txt"));
        // Texts gathered around a call: the first text holding a number is used.
        QCOMPARE(CallPolicy::phoneNumber({QStringLiteral("Appel entrant"),
                                          QStringLiteral("06 12 34 56 78"),
                                          QStringLiteral("07 00 00 00 00")}),
                 std::optional(QStringLiteral("06 12 34 56 78")));
        QCOMPARE(CallPolicy::phoneNumber({}), std::nullopt);
    }
};

QTEST_GUILESS_MAIN(TranscriptDocumentTest)
#include "tst_transcript_document.moc"
