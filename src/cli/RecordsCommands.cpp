// vemira history | show | export | note | file | status | search | dossiers | add-demo |
// delete | check
#include "cli/Command.h"
#include "records/DataFolder.h"
#include "records/Dossiers.h"
#include "records/RecordsStore.h"

#include <QDateTime>
#include <QFileInfo>
#include <QTextStream>

namespace vemira::cli {

namespace {

// The history of the standard data folder, or the message that stops the command.
struct LoadedHistory {
    RecordsStore store{DataFolder::standard()};
    Status status = store.load();
};

// The load's message, followed by the decoder's reason when the file is unreadable.
int failToLoad(const LoadedHistory& history)
{
    QString message = history.status->message();
    if (history.store.readFailure())
        message += QStringLiteral("\nCause : ") + history.store.readFailure()->message() + u'.';
    return fail(message);
}

// A transcript holds what a speech model heard: a control character in it must not drive the
// terminal (escape sequences) nor break the output into false lines. Each becomes a space;
// line feeds stay only where the output is meant to have lines.
QString printable(QString text, bool keepLineFeeds)
{
    for (QChar& c : text) {
        const char16_t u = c.unicode();
        const bool control = u < 0x20 || (u >= 0x7F && u <= 0x9F);
        if ((control && !(keepLineFeeds && u == u'\n')) || u == 0x2028 || u == 0x2029)
            c = u' ';
    }
    return text;
}

// Fields of a history line are tab-separated: tabs and line breaks inside become spaces.
QString field(const QString& text)
{
    return printable(text, false);
}

QString historyLine(const CallRecord& record)
{
    return QStringList{record.reference(),
                       record.date.toDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss")),
                       field(record.kindLabel()),
                       field(record.caller),
                       field(record.folderLabel()),
                       field(record.statusLabel())}
        .join(u'\t');
}

void printLines(const QList<CallRecord>& records)
{
    for (const CallRecord& record : records)
        out() << historyLine(record) << '\n';
}

// REF: the 8-character reference or the full id, any case.
Result<const CallRecord*> findRecord(const RecordsStore& store, const QString& ref)
{
    const QString wanted = ref.trimmed().toUpper();
    if (const auto id = parseUuid(wanted)) {
        if (const CallRecord* record = store.find(*id))
            return record;
    } else if (wanted.size() == 8) {
        const CallRecord* found = nullptr;
        for (const CallRecord& record : store.records()) {
            if (record.reference() == wanted) {
                if (found) {
                    return AppError(QStringLiteral("La référence « ") + ref +
                                    QStringLiteral(" » désigne plusieurs appels : donnez "
                                                   "l’identifiant complet."));
                }
                found = &record;
            }
        }
        if (found)
            return found;
    }
    return AppError(QStringLiteral("Aucun appel ne porte la référence « ") + ref +
                    QStringLiteral(" »."));
}

// Runs `body` on the record named by arguments[0], after loading the history.
int withRecord(const QStringList& arguments,
               const std::function<int(RecordsStore&, const CallRecord&)>& body)
{
    LoadedHistory history;
    if (history.status)
        return failToLoad(history);
    auto record = findRecord(history.store, arguments.first());
    if (!record)
        return fail(record.error().message());
    return body(history.store, *record.value());
}

int saved(const Status& status)
{
    return status ? fail(status->message()) : Success;
}

int runHistory(const QStringList& arguments)
{
    if (!arguments.isEmpty())
        return UsageError;
    LoadedHistory history;
    if (history.status)
        return failToLoad(history);
    printLines(DossiersDraft().visible(history.store.records()));
    return Success;
}

int runSearch(const QStringList& arguments)
{
    DossiersDraft draft;
    QStringList words;
    bool folderGiven = false;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments[i];
        if (argument == QLatin1String("--dossier") && i + 1 < arguments.size() && !folderGiven) {
            draft.folder = arguments[++i];
            folderGiven = true;
        } else if (argument == QLatin1String("--unfiled") && !folderGiven) {
            draft.folder = Dossiers::unfiled();
            folderGiven = true;
        } else if (argument == QLatin1String("--status") && i + 1 < arguments.size()) {
            draft.status = arguments[++i];
            if (!Dossiers::followUpStatuses().contains(draft.status)) {
                return fail(QStringLiteral("État inconnu : « ") + draft.status +
                                QStringLiteral(" ». Choisissez « À traiter », « En cours » ou "
                                               "« Terminé »."),
                            UsageError);
            }
        } else if (argument == QLatin1String("--")) {
            words += arguments.mid(i + 1);
            break;
        } else if (argument.startsWith(QLatin1String("--"))) {
            return fail(QStringLiteral("Option inconnue ou incomplète : « ") + argument +
                            QStringLiteral(" »."),
                        UsageError);
        } else {
            words.append(argument);
        }
    }
    draft.search = words.join(u' ');
    LoadedHistory history;
    if (history.status)
        return failToLoad(history);
    printLines(draft.visible(history.store.records()));
    return Success;
}

int runShow(const QStringList& arguments)
{
    if (arguments.size() != 1)
        return UsageError;
    return withRecord(arguments, [](RecordsStore& store, const CallRecord& record) {
        out() << printable(store.transcriptDocument(record), true);
        return int(Success);
    });
}

int runExport(const QStringList& arguments)
{
    if (arguments.size() != 2)
        return UsageError;
    return withRecord(arguments, [&](RecordsStore& store, const CallRecord& record) {
        return saved(store.writeDocument(record, arguments[1]));
    });
}

int runNote(const QStringList& arguments)
{
    if (arguments.size() != 2)
        return UsageError;
    return withRecord(arguments, [&](RecordsStore& store, const CallRecord& record) {
        return saved(store.updateNote(record.id, arguments[1]));
    });
}

int runFile(const QStringList& arguments)
{
    if (arguments.size() != 2)
        return UsageError;
    return withRecord(arguments, [&](RecordsStore& store, const CallRecord& record) {
        return saved(store.updateDossier(record.id, arguments[1]));
    });
}

int runStatus(const QStringList& arguments)
{
    if (arguments.size() != 2)
        return UsageError;
    if (!Dossiers::followUpStatuses().contains(arguments[1])) {
        return fail(QStringLiteral("État inconnu : « ") + arguments[1] +
                        QStringLiteral(" ». Choisissez « À traiter », « En cours » ou "
                                       "« Terminé »."),
                    UsageError);
    }
    return withRecord(arguments, [&](RecordsStore& store, const CallRecord& record) {
        return saved(store.updateFollowUpStatus(record.id, arguments[1]));
    });
}

int runDossiers(const QStringList& arguments)
{
    if (!arguments.isEmpty())
        return UsageError;
    LoadedHistory history;
    if (history.status)
        return failToLoad(history);
    for (const QString& name : Dossiers::folders(history.store.records()))
        out() << field(name) << '\n';
    return Success;
}

int runDelete(const QStringList& arguments)
{
    if (arguments.size() != 1)
        return UsageError;
    return withRecord(arguments, [&](RecordsStore& store, const CallRecord& record) {
        const QString reference = record.reference();
        if (Status failed = store.deleteRecord(record.id))
            return fail(failed->message());
        err() << QStringLiteral("Appel ") << reference
              << QStringLiteral(" supprimé, avec sa transcription et son enregistrement.\n");
        return int(Success);
    });
}

// Says whether a history file can be read; the reason when it cannot.
QString fileState(const QString& label, const QString& path, bool* readable)
{
    if (!QFileInfo::exists(path)) {
        *readable = true;
        return label + QStringLiteral(" : absent.");
    }
    auto records = RecordsStore::readFile(path);
    *readable = bool(records);
    if (!records)
        return label + QStringLiteral(" : illisible (") + records.error().message() +
               QStringLiteral(").");
    return label + QStringLiteral(" : lisible, %1 appel(s).").arg(records.value().size());
}

int runCheck(const QStringList& arguments)
{
    if (!arguments.isEmpty())
        return UsageError;
    const DataFolder folder = DataFolder::standard();
    bool historyReadable = false;
    bool backupReadable = false;
    out() << fileState(QStringLiteral("Historique (history.json)"), folder.historyFile(),
                       &historyReadable)
          << '\n'
          << fileState(QStringLiteral("Copie de sauvegarde (history.json.bak)"),
                       folder.historyFile() + QStringLiteral(".bak"), &backupReadable)
          << '\n';
    return historyReadable ? Success : Failure;
}

int runAddDemo(const QStringList& arguments)
{
    if (!arguments.isEmpty())
        return UsageError;
    LoadedHistory history;
    if (history.status)
        return failToLoad(history);
    const auto added = history.store.addDemo(QDateTime::currentDateTime());
    if (added.saved)
        return fail(added.saved->message());
    out() << history.store.find(added.id)->reference() << '\n';
    return Success;
}

// Wraps a runner so that a wrong argument count prints the usage line.
std::function<int(const QStringList&)>
checked(const QString& name, int (*runner)(const QStringList&), const CommandTable& table)
{
    return [name, runner, &table](const QStringList& arguments) {
        const int status = runner(arguments);
        if (status == UsageError && table.find(name))
            return usage(*table.find(name));
        return status;
    };
}

} // namespace

void registerRecordsCommands(CommandTable& table)
{
    const QString statuses =
        QStringLiteral("STATUS est « À traiter », « En cours » ou « Terminé ».");
    table.add({QStringLiteral("history"), QString(),
               QStringLiteral("Liste les appels, du plus récent au plus ancien."),
               QStringLiteral("Une ligne par appel, champs séparés par des tabulations :\n"
                              "référence, date, type, interlocuteur, dossier, état."),
               checked(QStringLiteral("history"), runHistory, table)});
    table.add({QStringLiteral("show"), QStringLiteral("REF"),
               QStringLiteral("Affiche la transcription d’un appel, telle qu’elle est copiée."),
               QString(), checked(QStringLiteral("show"), runShow, table)});
    table.add({QStringLiteral("export"), QStringLiteral("REF FICHIER"),
               QStringLiteral("Enregistre la transcription d’un appel dans un fichier texte."),
               QStringLiteral("Le fichier est écrit en UTF-8, en une seule fois."),
               checked(QStringLiteral("export"), runExport, table)});
    table.add({QStringLiteral("note"), QStringLiteral("REF TEXTE"),
               QStringLiteral("Remplace la note du gestionnaire."), QString(),
               checked(QStringLiteral("note"), runNote, table)});
    table.add({QStringLiteral("file"), QStringLiteral("REF NOM"),
               QStringLiteral("Classe un appel dans un dossier."),
               QStringLiteral("Un nom vide retire l’appel du dossier sans le supprimer."),
               checked(QStringLiteral("file"), runFile, table)});
    table.add({QStringLiteral("status"), QStringLiteral("REF STATUS"),
               QStringLiteral("Change l’état de suivi d’un appel."), statuses,
               checked(QStringLiteral("status"), runStatus, table)});
    table.add({QStringLiteral("search"),
               QStringLiteral("[--dossier NOM | --unfiled] [--status STATUS] [TEXTE]"),
               QStringLiteral("Cherche parmi les appels, au format de « history »."),
               QStringLiteral("La recherche ignore majuscules et accents. --unfiled ne garde que "
                              "les appels non classés.\n") +
                   statuses,
               checked(QStringLiteral("search"), runSearch, table)});
    table.add({QStringLiteral("dossiers"), QString(),
               QStringLiteral("Liste les noms de dossiers, un par ligne."), QString(),
               checked(QStringLiteral("dossiers"), runDossiers, table)});
    table.add({QStringLiteral("add-demo"), QString(),
               QStringLiteral("Ajoute l’appel de démonstration et affiche sa référence."),
               QString(), checked(QStringLiteral("add-demo"), runAddDemo, table)});
    table.add({QStringLiteral("delete"), QStringLiteral("REF"),
               QStringLiteral("Supprime un appel : sa fiche, sa transcription et son "
                              "enregistrement."),
               QStringLiteral("La suppression est définitive."),
               checked(QStringLiteral("delete"), runDelete, table)});
    table.add({QStringLiteral("check"), QString(),
               QStringLiteral("Vérifie que l’historique et sa copie de sauvegarde sont lisibles."),
               QStringLiteral("Donne la cause exacte (appel et clé) d’un historique illisible.\n"
                              "Statut de sortie : 1 si l’historique est illisible."),
               checked(QStringLiteral("check"), runCheck, table)});
}

} // namespace vemira::cli
