#include "phone/SoftphoneProfile.h"

#include "phone/LabelText.h"

namespace vemira::softphones {

namespace {

QStringList list(std::initializer_list<const char16_t*> entries)
{
    QStringList result;
    for (const char16_t* entry : entries)
        result.append(QString::fromUtf16(entry));
    return result;
}

SoftphoneProfile twinkle()
{
    SoftphoneProfile p;
    p.id = QStringLiteral("twinkle");
    p.name = QStringLiteral("Twinkle");
    p.applications = {QStringLiteral("twinkle")};
    // Toolbar buttons, named in the user's language; "Fin" is described "Raccrocher".
    p.answerLabels = list({u"answer", u"repondre"});
    p.hangUpLabels = list({u"bye", u"release call", u"fin", u"raccrocher"});
    // The line's state reads "incoming call" while it rings.
    p.callContext = list({u"incoming call", u"appel entrant"});
    // The line's "from" field holds the caller's SIP address.
    p.callerTextNames = list({u"line status", u"statut de la ligne"});
    p.enabledButtonsOnly = true;
    return p;
}

SoftphoneProfile gnomeCalls()
{
    SoftphoneProfile p;
    p.id = QStringLiteral("gnome-calls");
    p.name = QStringLiteral("GNOME Calls");
    p.applications = {QStringLiteral("org.gnome.Calls"), QStringLiteral("GNOME Calls"),
                      QStringLiteral("Calls"), QStringLiteral("gnome-calls")};
    // Its round call buttons carry no name (version 44); named ones are taken too, should a
    // later version name them.
    p.answerLabels = list({u"accept", u"answer", u"accepter", u"repondre", u"decrocher"});
    p.hangUpLabels = list(
        {u"hang up", u"end call", u"raccrocher", u"terminer l\u2019appel", u"terminer l'appel"});
    p.callContext = list({u"incoming phone call", u"appel telephonique entrant", u"incoming call",
                          u"appel entrant"});
    p.enabledButtonsOnly = true;
    // Ringing: decline and accept side by side at the bottom, accept on the right. In a
    // call: the hang-up button alone at the bottom.
    p.unnamedAnswer =
        UnnamedButtonRule{QStringLiteral("click"), UnnamedButtonRule::Position::RightOfLowestRow};
    p.unnamedHangUp =
        UnnamedButtonRule{QStringLiteral("click"), UnnamedButtonRule::Position::AloneInLowestRow};
    return p;
}

SoftphoneProfile testSoftphone()
{
    SoftphoneProfile p;
    p.id = QStringLiteral("test");
    p.name = QStringLiteral("Softphone de test");
    p.applications = {QStringLiteral("Softphone de test")};
    p.answerLabels = list({u"repondre"});
    p.hangUpLabels = list({u"raccrocher"});
    p.callContext = list({u"appel entrant"});
    return p;
}

SoftphoneProfile linphone()
{
    SoftphoneProfile p = standard({QStringLiteral("Linphone")});
    p.id = QStringLiteral("linphone");
    p.name = QStringLiteral("Linphone");
    return p;
}

bool namesProfile(const SoftphoneProfile& profile, const QString& name)
{
    return profile.id.compare(name, Qt::CaseInsensitive) == 0 ||
           profile.name.compare(name, Qt::CaseInsensitive) == 0 ||
           profile.applications.contains(name, Qt::CaseInsensitive);
}

} // namespace

SoftphoneProfile standard(const QStringList& applications)
{
    SoftphoneProfile p;
    p.id = QStringLiteral("standard");
    p.name = QStringLiteral("Téléphone");
    p.applications = applications;
    p.answerLabels = phonelabels::answer();
    p.hangUpLabels = phonelabels::hangUp();
    p.callContext = phonelabels::callContext();
    return p;
}

const std::vector<SoftphoneProfile>& known()
{
    static const std::vector<SoftphoneProfile> profiles{twinkle(), gnomeCalls(), testSoftphone(),
                                                        linphone()};
    return profiles;
}

std::optional<SoftphoneProfile> find(const QString& name)
{
    const QString trimmed = name.trimmed();
    for (const SoftphoneProfile& profile : known()) {
        if (namesProfile(profile, trimmed))
            return profile;
    }
    return std::nullopt;
}

std::vector<SoftphoneProfile> forApplications(const QStringList& applications)
{
    std::vector<SoftphoneProfile> profiles;
    // Identifiers no profile knows share one standard profile, listed where the first of
    // them stands, so they are searched in the platform's order as before.
    int standardAt = -1;
    for (const QString& application : applications) {
        const auto it = std::find_if(known().begin(), known().end(), [&](const auto& profile) {
            return profile.applications.contains(application, Qt::CaseInsensitive);
        });
        if (it != known().end()) {
            const bool listed = std::any_of(profiles.begin(), profiles.end(),
                                            [&](const auto& p) { return p.id == it->id; });
            if (!listed)
                profiles.push_back(*it);
        } else if (standardAt < 0) {
            standardAt = int(profiles.size());
            profiles.push_back(standard({application}));
        } else if (!profiles[size_t(standardAt)].applications.contains(application)) {
            profiles[size_t(standardAt)].applications.append(application);
        }
    }
    return profiles;
}

std::vector<SoftphoneProfile> chosen(const QString& choice)
{
    if (choice.trimmed().isEmpty())
        return known();
    if (std::optional<SoftphoneProfile> profile = find(choice))
        return {*profile};
    return {standard({choice.trimmed()})};
}

QStringList applicationsOf(const std::vector<SoftphoneProfile>& profiles)
{
    QStringList applications;
    for (const SoftphoneProfile& profile : profiles) {
        for (const QString& application : profile.applications) {
            if (!applications.contains(application, Qt::CaseInsensitive))
                applications.append(application);
        }
    }
    return applications;
}

} // namespace vemira::softphones
