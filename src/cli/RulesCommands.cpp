// vemira rules show | set: when Vemira answers, the same rules as the Agent page's.
#include "cli/Command.h"
#include "records/AnsweringRules.h"
#include "records/Settings.h"

#include <QDateTime>
#include <QTextStream>

namespace vemira::cli {

namespace {

QString yesNo(bool value)
{
    return value ? QStringLiteral("oui") : QStringLiteral("non");
}

int runShow()
{
    const AnsweringRules rules = Settings().answeringRules();
    const AnsweringRules::Texts texts = rules.texts();
    out() << "ring-open\t" << texts.ringOpen << '\n'
          << "ring-closed\t" << texts.ringClosed << '\n'
          << "hours\t" << texts.hours << '\n'
          << "closed-days\t" << texts.closedDays << '\n';
    for (const QString& number : texts.neverAnswer)
        out() << "never\t" << number << '\n';
    out() << "answer-hidden\t" << yesNo(texts.answerHidden) << '\n'
          << "now\t" << rules.inForce(QDateTime::currentDateTime()) << '\n';
    return Success;
}

int runSet(const QStringList& arguments)
{
    Settings settings;
    AnsweringRules::Texts texts = settings.answeringRules().texts();
    QStringList never;
    bool neverGiven = false;
    for (qsizetype i = 0; i < arguments.size(); i += 2) {
        if (i + 1 >= arguments.size())
            return UsageError;
        const QString& option = arguments.at(i);
        const QString& value = arguments.at(i + 1);
        if (option == QLatin1String("--ring-open")) {
            texts.ringOpen = value;
        } else if (option == QLatin1String("--ring-closed")) {
            texts.ringClosed = value;
        } else if (option == QLatin1String("--hours")) {
            texts.hours = value;
        } else if (option == QLatin1String("--closed-days")) {
            texts.closedDays = value;
        } else if (option == QLatin1String("--never")) {
            neverGiven = true;
            never.append(value);
        } else if (option == QLatin1String("--answer-hidden")) {
            if (value != QLatin1String("oui") && value != QLatin1String("non"))
                return fail(QStringLiteral("Appels sans numéro : répondez « oui » ou « non »."));
            texts.answerHidden = value == QLatin1String("oui");
        } else {
            return UsageError;
        }
    }
    if (arguments.isEmpty())
        return UsageError;
    if (neverGiven)
        texts.neverAnswer = never;
    const Result<AnsweringRules> rules = AnsweringRules::parse(texts);
    if (!rules)
        return fail(rules.error().message());
    settings.setAnsweringRules(rules.value());
    err() << "Règles de réponse enregistrées · "
          << rules.value().inForce(QDateTime::currentDateTime()) << '\n';
    return Success;
}

void registerRulesCommands(CommandTable& table)
{
    table.add(
        {QStringLiteral("rules"),
         QStringLiteral("show | set [--ring-open S] [--ring-closed S] [--hours HORAIRES] "
                        "[--closed-days DATES] [--never NUMÉRO]… [--answer-hidden oui|non]"),
         QStringLiteral("Affiche ou règle quand Vemira répond."),
         QStringLiteral(
             "show affiche une règle par ligne, nom et valeur séparés par une tabulation : "
             "ring-open, ring-closed, hours, closed-days, une ligne never par numéro, "
             "answer-hidden et now (la règle en vigueur à cet instant).\n"
             "set change les règles données, les autres restent :\n"
             "  --ring-open S      secondes de sonnerie avant de répondre pendant les heures\n"
             "                     d’ouverture (3 à 60)\n"
             "  --ring-closed S    de même en dehors (3 à 60)\n"
             "  --hours HORAIRES   par exemple « lun-ven 09:00-12:00,14:00-18:00; sam "
             "09:00-12:00 »,\n"
             "                     en heure locale ; vide : jamais ouvert\n"
             "  --closed-days D    jours de fermeture AAAA-MM-JJ séparés par des virgules ; "
             "Vemira\n"
             "                     laisse alors sonner\n"
             "  --never NUMÉRO     numéro jamais pris (répétable ; remplace la liste, « » la "
             "vide)\n"
             "  --answer-hidden    oui ou non : répondre aux appels sans numéro\n"
             "Vemira lit les règles au début de chaque appel : rien à redémarrer."),
         [&table](const QStringList& arguments) {
             int status = UsageError;
             if (arguments.value(0) == QLatin1String("show") && arguments.size() == 1)
                 status = runShow();
             else if (arguments.value(0) == QLatin1String("set"))
                 status = runSet(arguments.mid(1));
             return status == UsageError ? usage(*table.find(QStringLiteral("rules"))) : status;
         }});
}

const CommandRegistrar registrar(&registerRulesCommands);

} // namespace

} // namespace vemira::cli
