#pragma once

#include <QWidget>

class QLabel;
class QToolButton;

namespace vemira::ui {

// The live cost line of a conversation, with the fold-out explaining how the budget is
// estimated (the owner sees dollars move during a call and deserves the why).
class UsagePanel : public QWidget {
    Q_OBJECT

public:
    explicit UsagePanel(QWidget* parent = nullptr);
    void setUsageLabel(const QString& label);
    QString usageLabel() const;
    bool explanationVisible() const;
    QToolButton* explanationButton() const { return m_toggle; }

private:
    QLabel* m_usage;
    QToolButton* m_toggle;
    QWidget* m_explanation;
};

} // namespace vemira::ui
