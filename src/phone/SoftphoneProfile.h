#pragma once

#include <QString>
#include <QStringList>
#include <optional>
#include <vector>

namespace vemira {

// How to recognise a call button that has no name: among the enabled, showing, unnamed
// buttons of one window that offer `action`, the one at `position`.
struct UnnamedButtonRule {
    enum class Position {
        RightOfLowestRow, // the right-hand button of the bottom row (accept beside decline)
        AloneInLowestRow, // the bottom row holds this button only (a centred hang-up)
    };
    QString action;
    Position position = Position::RightOfLowestRow;
};

// What differs between phone applications, as data: where calls are looked for and how
// their buttons and texts read. All label lists are stored normalised (normalizedLabel).
struct SoftphoneProfile {
    QString id;               // short name for --phone-app and the settings ("twinkle")
    QString name;             // as the user knows it ("Twinkle")
    QStringList applications; // identifiers on the accessibility bus
    QStringList answerLabels; // a button with one of these labels answers an offer
    QStringList hangUpLabels; // a button with one of these labels ends the call
    QStringList callContext;  // one of these around the answer button makes it a call offer
    // Names of the elements whose text is the caller's address (a SIP address, say). Empty:
    // the caller's number is looked for in every text around the offer.
    QStringList callerTextNames;
    // Softphones that keep their call buttons in view between calls, disabled.
    bool enabledButtonsOnly = false;
    std::optional<UnnamedButtonRule> unnamedAnswer;
    std::optional<UnnamedButtonRule> unnamedHangUp;
};

namespace softphones {

// The rules of the platform's Phone application (and of any application named by the
// user), applied to `applications`.
SoftphoneProfile standard(const QStringList& applications);
// The phone applications known by name: Twinkle, GNOME Calls, the test softphone and
// Linphone, in that order.
const std::vector<SoftphoneProfile>& known();
// The known profile whose id, name or one of whose applications is `name` (any case).
std::optional<SoftphoneProfile> find(const QString& name);
// The profiles to search for `applications`: each identifier under the known profile that
// lists it, the others under the standard rules, in the order given.
std::vector<SoftphoneProfile> forApplications(const QStringList& applications);
// The profile chosen by the user (--phone-app, settings): a known one by id or name, else
// the standard rules for an application of that name. Empty `choice`: every known one.
std::vector<SoftphoneProfile> chosen(const QString& choice);
// Every application identifier of `profiles`, without duplicates.
QStringList applicationsOf(const std::vector<SoftphoneProfile>& profiles);

} // namespace softphones
} // namespace vemira
