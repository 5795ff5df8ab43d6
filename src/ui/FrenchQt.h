#pragma once

class QCoreApplication;

namespace vemira::ui {

// Qt's own texts (context menus, standard dialogs and buttons, `--help`) in French, and numbers
// written the French way (decimal comma) whatever the session's language. The translation
// comes from Qt's installation (qt6-translations-l10n on Debian) or, in the macOS bundle,
// from its Resources/translations. False when none was found: Qt's texts stay English.
bool useFrenchQt(QCoreApplication& app);

} // namespace vemira::ui
