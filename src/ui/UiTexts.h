#pragma once

#include "core/PlatformWording.h"
#include "records/ModelCatalogue.h"

#include <QString>
#include <QStringList>

// Texts that belong to the screens themselves (the model publishes its own). They are
// quoted to users in the guide and in support answers, so keep every character as is. Those
// that name the computer or its phone application come from PlatformWording.
namespace vemira::ui::texts {

// Dashboard
inline QString notReadyHeading()
{
    return QStringLiteral("Le standard ne peut pas encore répondre");
}
inline QString budgetHeading()
{
    return QStringLiteral("Comment le budget est estimé");
}
// For the model of the conversation, with the day its prices were checked.
inline QString budgetBody(const QString& model)
{
    const RealtimeModelInfo* info = ModelCatalogue::find(model);
    if (!info || !info->priced())
        return QStringLiteral("Tokens de conversation confirmés à chaque fin de réponse. Aucun "
                              "tarif n’est configuré pour ") +
               model + QStringLiteral(" : aucun montant n’est estimé.");
    return QStringLiteral("Tokens de conversation confirmés à chaque fin de réponse. Pour ") +
           model +
           QStringLiteral(
               " : tarifs audio sans remise de cache, marge de 25 %, arrondi au centime "
               "supérieur et provision transcription. Une réponse en cours réserve jusqu’à un "
               "contexte complet et une réponse maximale : ce montant peut baisser à réception "
               "du bilan. Estimation en dollars US hors taxes, limitée à cette conversation, pas "
               "votre facture ni votre solde. Tarifs vérifiés le ") +
           frenchDate(info->checked) + QLatin1Char('.');
}
inline QString budgetCaution()
{
    return QStringLiteral(
        "Estimation indicative et volontairement majorée, destinée à vous donner un ordre de "
        "grandeur. Le montant affiché peut différer de la facturation réelle de votre "
        "fournisseur d’IA.");
}
inline QString usageLinkLabel()
{
    return QStringLiteral("Consulter la consommation OpenAI");
}
inline QString usageLinkAddress()
{
    return QStringLiteral("https://platform.openai.com/usage");
}

// Manager intervention
inline QString interventionNeedsSound()
{
    return QStringLiteral("Le son de l’appel doit fonctionner avant d’intervenir.");
}
inline QString micOpen()
{
    return QStringLiteral("Votre micro est ouvert vers l’appelant · IA silencieuse");
}
inline QString giveBack()
{
    return QStringLiteral("Rendre la parole à l’IA");
}
inline QString micClosed()
{
    return QStringLiteral("Votre micro est fermé · l’IA répond seule");
}
inline QString intervene()
{
    return QStringLiteral("Intervenir au micro");
}
inline QString interventionSection()
{
    return QStringLiteral("Intervention humaine");
}

// Dossiers (the filter and sheet texts come from records/Dossiers.h)
inline QString save()
{
    return QStringLiteral("Enregistrer");
}

// Connections
inline QString keyOnce()
{
    return PlatformWording::current().keyOnce;
}
inline QString keyStorage()
{
    return QStringLiteral("Stockage local privé, sans chiffrement supplémentaire. L’utilisation "
                          "de l’API est facturée par OpenAI.");
}
inline QString saveSettings()
{
    return QStringLiteral("Enregistrer les réglages");
}
inline QString phoneBackToSystem()
{
    return QStringLiteral("Remettre Téléphone sur le son système");
}
inline QString prepareLink()
{
    return QStringLiteral("Préparer la liaison");
}
inline QString configureAndTest()
{
    return QStringLiteral("Configurer et tester le son");
}
inline QString testComputerMicrophone()
{
    return PlatformWording::current().testComputerMicrophone;
}

// Agent and voice
inline QString useExample()
{
    return QStringLiteral("Utiliser cet exemple");
}
inline QString gentleStyle()
{
    return QStringLiteral("Douce et bienveillante");
}

// Guided setup steps, in order
inline QStringList setupSteps()
{
    return PlatformWording::current().setupSteps;
}

// Test conversations
inline QString talkOnComputer()
{
    return PlatformWording::current().talkOnComputer;
}
inline QString outgoingTest()
{
    return QStringLiteral("Tester avec un appel sortant");
}
inline QString connectAI()
{
    return QStringLiteral("2. Brancher l’IA sur l’appel");
}

} // namespace vemira::ui::texts
