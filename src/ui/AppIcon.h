#pragma once

#include <QIcon>
#include <QPixmap>

namespace vemira::ui {

// What the status icon tells at a glance.
enum class StandbyState { Paused, Listening, InCall };

// Icons are drawn in code: the same handset as packaging/fr.brelian.Vemira.svg, so no image plugin
// is needed and the tray variants stay consistent with the application icon.
class AppIcon {
public:
    static QPixmap pixmap(int size);
    static QIcon application();
    static QIcon tray(StandbyState state);
};

} // namespace vemira::ui
