#pragma once

#include <QString>
#include <QStringList>

namespace vemira::ui {

class MainWindow;
class StatusIcon;

// Saves a picture of every page and window into `folder` (PNG, named by page), so a person
// can check the screens without clicking through them. Returns the files written.
QStringList saveScreenshots(MainWindow& window, const QString& folder, const QString& suffix);

} // namespace vemira::ui
