#pragma once

#include <QAbstractButton>
#include <QFrame>
#include <QString>
#include <QWidget>

class QLabel;
class QPushButton;
class QVBoxLayout;

namespace vemira::ui {

// Gives `page` a frameless scroll area (named like the page, for screen readers) and returns
// the padded vertical layout of its content widget, where the page puts its cards.
QVBoxLayout* makeScrollingPage(QWidget* page);

// The standby switch: a large on/off control that reads as a switch, reachable with Tab
// and toggled with Space like any checkable button (screen readers see a check button).
class ToggleSwitch : public QAbstractButton {
    Q_OBJECT

public:
    explicit ToggleSwitch(const QString& text, QWidget* parent = nullptr);
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
};

// A horizontal level bar for 0..1 amplitudes (microphone and probe levels).
class LevelMeter : public QWidget {
    Q_OBJECT

public:
    explicit LevelMeter(const QString& accessibleName, QWidget* parent = nullptr);
    void setLevel(double level);
    double level() const { return m_level; }
    QSize sizeHint() const override { return {160, 12}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    double m_level = 0;
};

// A framed group with a bold title; content goes into body().
class Card : public QFrame {
    Q_OBJECT

public:
    explicit Card(const QString& title, QWidget* parent = nullptr);
    QVBoxLayout* body() const { return m_body; }
    QLabel* titleLabel() const { return m_title; }

private:
    QLabel* m_title;
    QVBoxLayout* m_body;
};

// Buttons and labels with their accessible name set from their visible text, so no
// control reaches a screen reader unnamed.
QPushButton* makeButton(const QString& text, QWidget* parent = nullptr);
QLabel* makeLabel(const QString& text, QWidget* parent = nullptr);
QLabel* makeHeading(const QString& text, QWidget* parent = nullptr);
void setTextIfChanged(QLabel* label, const QString& text);
// Names a control after the label that introduces it and links the two (buddy).
void nameAfter(QWidget* control, QLabel* label);

} // namespace vemira::ui
