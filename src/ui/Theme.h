#pragma once

#include <QColor>
#include <QPalette>
#include <QString>

class QApplication;
class QLabel;
class QWidget;

namespace vemira::ui {

// Colours are derived from the current palette so every screen stays readable in the
// light and the dark appearance; only the three state colours are our own, picked per
// appearance for contrast against the window background.
enum class Tone { Neutral, Good, Warning, Bad };

class Theme {
public:
    static bool isDark(const QPalette& palette);
    static QColor toneColor(Tone tone, const QPalette& palette);
    // A small rounded badge ("En pause", "À l’écoute") in the tone's colour.
    static void styleBadge(QLabel* label, Tone tone);
    static void styleHeadline(QLabel* label);
    static void styleSecondary(QLabel* label);
    static void styleError(QLabel* label);
    // Forces a dark Fusion palette (for checking the dark appearance on Linux).
    static void applyDarkPalette(QApplication& app);
    static void applyLightPalette(QApplication& app);
};

} // namespace vemira::ui
