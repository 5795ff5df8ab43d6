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
    // The explanation names the model priced and the day its prices were checked.
    void setModelName(const QString& model);
    QString usageLabel() const;
    bool explanationVisible() const;
    QToolButton* explanationButton() const { return m_toggle; }

private:
    QLabel* m_usage;
    QToolButton* m_toggle;
    QLabel* m_body;
    QString m_modelName;
    QWidget* m_explanation;
};

} // namespace vemira::ui
