#include "ui/Widgets.h"

#include "ui/Theme.h"

#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QScrollArea>
#include <QStyleOptionFocusRect>
#include <QVBoxLayout>

namespace vemira::ui {

QVBoxLayout* makeScrollingPage(QWidget* page)
{
    auto* outer = new QVBoxLayout(page);
    outer->setContentsMargins(0, 0, 0, 0);
    auto* scroll = new QScrollArea(page);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    scroll->setAccessibleName(page->accessibleName());
    outer->addWidget(scroll);
    auto* content = new QWidget(scroll);
    scroll->setWidget(content);
    auto* layout = new QVBoxLayout(content);
    layout->setContentsMargins(16, 16, 16, 16);
    layout->setSpacing(12);
    return layout;
}

ToggleSwitch::ToggleSwitch(const QString& text, QWidget* parent) : QAbstractButton(parent)
{
    setCheckable(true);
    setText(text);
    setAccessibleName(text);
    setFocusPolicy(Qt::StrongFocus);
    setCursor(Qt::PointingHandCursor);
    setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Fixed);
}

QSize ToggleSwitch::sizeHint() const
{
    QFont bold = font();
    bold.setBold(true);
    const QFontMetrics fm(bold);
    return {56 + 12 + fm.horizontalAdvance(text()) + 12, qMax(32, fm.height() + 8)};
}

void ToggleSwitch::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QPalette& pal = palette();
    const QRectF track(2, (height() - 28) / 2.0, 52, 28);
    const QColor on = Theme::toneColor(Tone::Good, pal);
    const QColor off = pal.color(QPalette::Mid);
    p.setPen(Qt::NoPen);
    p.setBrush(isEnabled() ? (isChecked() ? on : off)
                           : pal.color(QPalette::Disabled, QPalette::Mid));
    p.drawRoundedRect(track, 14, 14);
    const double knobX = isChecked() ? track.right() - 25 : track.left() + 3;
    p.setBrush(Qt::white);
    p.drawEllipse(QRectF(knobX, track.top() + 3, 22, 22));
    if (hasFocus()) {
        QPen focus(pal.color(QPalette::Highlight), 2);
        p.setPen(focus);
        p.setBrush(Qt::NoBrush);
        p.drawRoundedRect(track.adjusted(-2, -2, 2, 2), 16, 16);
    }
    p.setPen(pal.color(isEnabled() ? QPalette::Active : QPalette::Disabled, QPalette::WindowText));
    QFont f = font();
    f.setBold(true);
    p.setFont(f);
    p.drawText(QRectF(track.right() + 12, 0, width() - track.right() - 12, height()),
               Qt::AlignVCenter | Qt::AlignLeft, text());
}

LevelMeter::LevelMeter(const QString& accessibleName, QWidget* parent) : QWidget(parent)
{
    setAccessibleName(accessibleName);
    setMinimumHeight(10);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

void LevelMeter::setLevel(double level)
{
    const double clamped = qBound(0.0, level, 1.0);
    if (qFuzzyCompare(clamped + 1, m_level + 1))
        return;
    m_level = clamped;
    setAccessibleDescription(QString::number(qRound(m_level * 100)) + QStringLiteral(" %"));
    update();
}

void LevelMeter::paintEvent(QPaintEvent*)
{
    QPainter p(this);
    p.setRenderHint(QPainter::Antialiasing);
    const QRectF r = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
    p.setPen(palette().color(QPalette::Mid));
    p.setBrush(palette().color(QPalette::Base));
    p.drawRoundedRect(r, 4, 4);
    if (m_level <= 0)
        return;
    const Tone tone = m_level > 0.9 ? Tone::Bad : (m_level > 0.6 ? Tone::Warning : Tone::Good);
    p.setPen(Qt::NoPen);
    p.setBrush(Theme::toneColor(tone, palette()));
    p.drawRoundedRect(QRectF(r.left(), r.top(), r.width() * m_level, r.height()), 4, 4);
}

Card::Card(const QString& title, QWidget* parent) : QFrame(parent)
{
    setFrameShape(QFrame::StyledPanel);
    setObjectName(QStringLiteral("card"));
    auto* outer = new QVBoxLayout(this);
    outer->setContentsMargins(14, 12, 14, 14);
    outer->setSpacing(8);
    m_title = makeHeading(title, this);
    m_title->setVisible(!title.isEmpty());
    outer->addWidget(m_title);
    m_body = new QVBoxLayout;
    m_body->setSpacing(8);
    outer->addLayout(m_body);
}

QPushButton* makeButton(const QString& text, QWidget* parent)
{
    auto* b = new QPushButton(text, parent);
    QString plain = text;
    b->setAccessibleName(plain.remove(QLatin1Char('&')));
    b->setAutoDefault(false);
    return b;
}

QLabel* makeLabel(const QString& text, QWidget* parent)
{
    auto* l = new QLabel(text, parent);
    l->setWordWrap(true);
    l->setTextInteractionFlags(Qt::TextSelectableByMouse);
    return l;
}

QLabel* makeHeading(const QString& text, QWidget* parent)
{
    auto* l = new QLabel(text, parent);
    QFont f = l->font();
    f.setBold(true);
    f.setPointSizeF(f.pointSizeF() * 1.12);
    l->setFont(f);
    l->setWordWrap(true);
    l->setAccessibleName(text);
    return l;
}

void setTextIfChanged(QLabel* label, const QString& text)
{
    if (label->text() != text)
        label->setText(text);
}

void nameAfter(QWidget* control, QLabel* label)
{
    QString name = label->text();
    name.remove(QLatin1Char('&'));
    if (name.endsWith(QStringLiteral(" :")))
        name.chop(2);
    control->setAccessibleName(name);
    label->setBuddy(control);
}

} // namespace vemira::ui
