#include "ui/AppIcon.h"

#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>

namespace vemira::ui {

namespace {

// The handset and its two waves on a 256-unit canvas (see packaging/fr.brelian.Vemira.svg).
void drawHandset(QPainter& p, const QColor& color)
{
    QPainterPath handset;
    handset.moveTo(86, 66);
    handset.cubicTo(94, 62, 103, 65, 107, 73);
    handset.lineTo(119, 99);
    handset.cubicTo(122, 106, 120, 114, 114, 119);
    handset.lineTo(103, 128);
    handset.cubicTo(110, 145, 123, 159, 140, 167);
    handset.lineTo(149, 156);
    handset.cubicTo(154, 150, 162, 148, 169, 151);
    handset.lineTo(195, 163);
    handset.cubicTo(203, 167, 206, 176, 202, 184);
    handset.lineTo(195, 198);
    handset.cubicTo(190, 208, 179, 213, 168, 211);
    handset.cubicTo(110, 200, 65, 155, 54, 97);
    handset.cubicTo(52, 86, 57, 75, 67, 70);
    handset.closeSubpath();
    p.setPen(Qt::NoPen);
    p.setBrush(color);
    p.drawPath(handset);
    QPen wave(color, 12, Qt::SolidLine, Qt::RoundCap);
    p.setBrush(Qt::NoBrush);
    p.setPen(wave);
    p.drawArc(QRectF(116, 70, 88, 88), 0 * 16, 90 * 16);
    QColor faint = color;
    faint.setAlphaF(0.6f);
    wave.setColor(faint);
    p.setPen(wave);
    p.drawArc(QRectF(84, 40, 148, 148), 0 * 16, 90 * 16);
}

QPixmap drawTray(int size, StandbyState state)
{
    QPixmap pm(size, size);
    pm.fill(Qt::transparent);
    QPainter p(&pm);
    p.setRenderHint(QPainter::Antialiasing);
    p.scale(size / 256.0, size / 256.0);
    const QColor body =
        state == StandbyState::Paused ? QColor(0x8a, 0x8f, 0x98) : QColor(0x2f, 0x6f, 0xde);
    p.setPen(Qt::NoPen);
    p.setBrush(body);
    p.drawRoundedRect(QRectF(12, 12, 232, 232), 52, 52);
    drawHandset(p, Qt::white);
    if (state != StandbyState::Paused) {
        const QColor dot =
            state == StandbyState::InCall ? QColor(0xe5, 0x4b, 0x3c) : QColor(0x2e, 0xb8, 0x5c);
        p.setBrush(dot);
        p.setPen(QPen(Qt::white, 14));
        p.drawEllipse(QRectF(160, 160, 88, 88));
    }
    return pm;
}

} // namespace

QPixmap AppIcon::pixmap(int size)
{
    QPixmap pm(size, size);
    pm.fill(Qt::transparent);
    QPainter p(&pm);
    p.setRenderHint(QPainter::Antialiasing);
    p.scale(size / 256.0, size / 256.0);
    QLinearGradient bg(0, 12, 0, 244);
    bg.setColorAt(0, QColor(0x2f, 0x6f, 0xde));
    bg.setColorAt(1, QColor(0x1d, 0x4f, 0xa8));
    p.setPen(Qt::NoPen);
    p.setBrush(bg);
    p.drawRoundedRect(QRectF(12, 12, 232, 232), 52, 52);
    drawHandset(p, Qt::white);
    return pm;
}

QIcon AppIcon::application()
{
    QIcon icon;
    for (int size : {16, 32, 64, 128, 256})
        icon.addPixmap(pixmap(size));
    return icon;
}

QIcon AppIcon::tray(StandbyState state)
{
    QIcon icon;
    for (int size : {16, 22, 32, 64})
        icon.addPixmap(drawTray(size, state));
    return icon;
}

} // namespace vemira::ui
