#include "ui/UsagePanel.h"

#include "ui/Theme.h"
#include "ui/UiTexts.h"
#include "ui/Widgets.h"

#include <QLabel>
#include <QToolButton>
#include <QVBoxLayout>

namespace vemira::ui {

UsagePanel::UsagePanel(QWidget* parent) : QWidget(parent)
{
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    m_usage = makeLabel(QString(), this);
    m_usage->setAccessibleName(QStringLiteral("Consommation de la conversation"));
    layout->addWidget(m_usage);

    m_toggle = new QToolButton(this);
    m_toggle->setText(texts::budgetHeading());
    m_toggle->setAccessibleName(texts::budgetHeading());
    m_toggle->setCheckable(true);
    m_toggle->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    m_toggle->setArrowType(Qt::RightArrow);
    m_toggle->setAutoRaise(true);
    m_toggle->setFocusPolicy(Qt::StrongFocus);
    layout->addWidget(m_toggle);

    m_explanation = new QWidget(this);
    auto* ex = new QVBoxLayout(m_explanation);
    ex->setContentsMargins(18, 0, 0, 0);
    m_body = makeLabel(QString(), m_explanation);
    ex->addWidget(m_body);
    setModelName(ModelCatalogue::defaultModel());
    auto* caution = makeLabel(texts::budgetCaution(), m_explanation);
    Theme::styleSecondary(caution);
    ex->addWidget(caution);
    auto* link = new QLabel(QStringLiteral("<a href=\"%1\">%2</a>")
                                .arg(texts::usageLinkAddress(), texts::usageLinkLabel()),
                            m_explanation);
    link->setOpenExternalLinks(true);
    link->setTextInteractionFlags(Qt::TextBrowserInteraction);
    link->setAccessibleName(texts::usageLinkLabel());
    ex->addWidget(link);
    m_explanation->setVisible(false);
    layout->addWidget(m_explanation);
    // Spare height goes below the text, never between the lines.
    layout->addStretch(1);

    connect(m_toggle, &QToolButton::toggled, this, [this](bool open) {
        m_explanation->setVisible(open);
        m_toggle->setArrowType(open ? Qt::DownArrow : Qt::RightArrow);
    });
}

void UsagePanel::setUsageLabel(const QString& label)
{
    setTextIfChanged(m_usage, label);
}

void UsagePanel::setModelName(const QString& model)
{
    if (model == m_modelName)
        return;
    m_modelName = model;
    m_body->setText(texts::budgetBody(model));
}

QString UsagePanel::usageLabel() const
{
    return m_usage->text();
}

bool UsagePanel::explanationVisible() const
{
    return !m_explanation->isHidden();
}

} // namespace vemira::ui
