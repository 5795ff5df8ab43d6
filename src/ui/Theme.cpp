#include "ui/Theme.h"

#include <QApplication>
#include <QLabel>
#include <QStyle>
#include <QStyleFactory>

namespace vemira::ui {

bool Theme::isDark(const QPalette& palette)
{
    return palette.color(QPalette::Window).lightness() < 128;
}

QColor Theme::toneColor(Tone tone, const QPalette& palette)
{
    const bool dark = isDark(palette);
    switch (tone) {
    case Tone::Good:
        return dark ? QColor(0x5f, 0xd3, 0x8d) : QColor(0x1b, 0x7a, 0x3d);
    case Tone::Warning:
        return dark ? QColor(0xf5, 0xb8, 0x4a) : QColor(0x9a, 0x5b, 0x00);
    case Tone::Bad:
        return dark ? QColor(0xff, 0x7b, 0x72) : QColor(0xb4, 0x23, 0x18);
    case Tone::Neutral:
        break;
    }
    return palette.color(QPalette::PlaceholderText);
}

void Theme::styleBadge(QLabel* label, Tone tone)
{
    const QColor c = toneColor(tone, label->palette());
    label->setStyleSheet(QStringLiteral("QLabel { color: %1; border: 1px solid %1; border-radius: "
                                        "9px; padding: 2px 10px; font-weight: 600; }")
                             .arg(c.name()));
}

void Theme::styleHeadline(QLabel* label)
{
    QFont f = label->font();
    f.setPointSizeF(f.pointSizeF() * 1.45);
    f.setBold(true);
    label->setFont(f);
    label->setWordWrap(true);
}

void Theme::styleSecondary(QLabel* label)
{
    QPalette p = label->palette();
    // PlaceholderText is too faint for body text in the dark palette; blend instead.
    const QColor text = p.color(QPalette::WindowText);
    const QColor window = p.color(QPalette::Window);
    QColor mixed;
    mixed.setRgbF(text.redF() * 0.72f + window.redF() * 0.28f,
                  text.greenF() * 0.72f + window.greenF() * 0.28f,
                  text.blueF() * 0.72f + window.blueF() * 0.28f);
    p.setColor(QPalette::WindowText, mixed);
    label->setPalette(p);
    label->setWordWrap(true);
}

void Theme::styleError(QLabel* label)
{
    QPalette p = label->palette();
    p.setColor(QPalette::WindowText, toneColor(Tone::Bad, p));
    label->setPalette(p);
    label->setWordWrap(true);
    QFont f = label->font();
    f.setBold(true);
    label->setFont(f);
}

void Theme::applyDarkPalette(QApplication& app)
{
    app.setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    QPalette p;
    p.setColor(QPalette::Window, QColor(0x26, 0x28, 0x2b));
    p.setColor(QPalette::WindowText, QColor(0xee, 0xee, 0xee));
    p.setColor(QPalette::Base, QColor(0x1c, 0x1d, 0x1f));
    p.setColor(QPalette::AlternateBase, QColor(0x2e, 0x30, 0x33));
    p.setColor(QPalette::Text, QColor(0xee, 0xee, 0xee));
    p.setColor(QPalette::Button, QColor(0x33, 0x35, 0x39));
    p.setColor(QPalette::ButtonText, QColor(0xee, 0xee, 0xee));
    p.setColor(QPalette::Highlight, QColor(0x3d, 0x8b, 0xfd));
    p.setColor(QPalette::HighlightedText, Qt::white);
    p.setColor(QPalette::ToolTipBase, QColor(0x33, 0x35, 0x39));
    p.setColor(QPalette::ToolTipText, QColor(0xee, 0xee, 0xee));
    p.setColor(QPalette::PlaceholderText, QColor(0xa0, 0xa4, 0xab));
    p.setColor(QPalette::Link, QColor(0x7a, 0xb7, 0xff));
    p.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x80, 0x80, 0x80));
    p.setColor(QPalette::Disabled, QPalette::Text, QColor(0x80, 0x80, 0x80));
    p.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0x80, 0x80, 0x80));
    app.setPalette(p);
}

void Theme::applyLightPalette(QApplication& app)
{
    app.setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    app.setPalette(app.style()->standardPalette());
}

} // namespace vemira::ui
