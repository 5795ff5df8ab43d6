#include "ui/AgentPage.h"

#include "app/AppModel.h"
#include "ui/AnsweringRulesCard.h"
#include "ui/Bind.h"
#include "ui/Theme.h"
#include "ui/UiTexts.h"
#include "ui/Widgets.h"

#include <QComboBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QToolButton>
#include <QVBoxLayout>

namespace vemira::ui {

AgentPage::AgentPage(AppModel* model, QWidget* parent) : QWidget(parent), m_model(model)
{
    setAccessibleName(QStringLiteral("Agent"));
    auto* layout = makeScrollingPage(this);
    auto* content = layout->parentWidget();

    // The saved model's shutdown is near: its replacement in one click.
    m_retiring = new QWidget(content);
    auto* retiringRow = new QHBoxLayout(m_retiring);
    retiringRow->setContentsMargins(0, 0, 0, 0);
    m_retiringText = makeLabel(QString(), m_retiring);
    m_adoptSuccessor = makeButton(QString(), m_retiring);
    m_adoptSuccessor->setAccessibleName(QStringLiteral("Passer au modèle de remplacement"));
    retiringRow->addWidget(m_retiringText, 1);
    retiringRow->addWidget(m_adoptSuccessor);
    layout->addWidget(m_retiring);
    connect(m_adoptSuccessor, &QPushButton::clicked, m_model, &AppModel::adoptSuccessorModel);
    bind(m_model, &AppModel::modelChanged, this, [this] {
        const auto retirement = m_model->modelRetirement();
        const bool shown = retirement && retirement->soon && !retirement->retired;
        m_retiring->setVisible(shown);
        if (!shown)
            return;
        m_retiringText->setText(QStringLiteral("OpenAI arrête le modèle ") + m_model->model() +
                                QStringLiteral(" le ") + frenchDate(retirement->shutdown) +
                                QStringLiteral(" : Vemira ne pourra plus répondre avec lui."));
        m_adoptSuccessor->setText(QStringLiteral("Passer à ") + retirement->successor);
    });

    auto* who = new Card(QStringLiteral("Votre entreprise"), content);
    auto* form = new QFormLayout;
    m_company = new QLineEdit(who);
    auto* companyLabel = new QLabel(QStringLiteral("&Nom de l’entreprise :"), who);
    nameAfter(m_company, companyLabel);
    form->addRow(companyLabel, m_company);
    m_voice = new QComboBox(who);
    m_voice->addItems(voices());
    auto* voiceLabel = new QLabel(QStringLiteral("&Voix :"), who);
    nameAfter(m_voice, voiceLabel);
    auto* voiceRow = new QHBoxLayout;
    voiceRow->addWidget(m_voice);
    auto* voiceSettings = makeButton(QStringLiteral("Réglages de la v&oix…"), who);
    voiceRow->addWidget(voiceSettings);
    voiceRow->addStretch(1);
    form->addRow(voiceLabel, voiceRow);
    who->body()->addLayout(form);
    layout->addWidget(who);

    auto* mission = new Card(QStringLiteral("Mission de Vemira"), content);
    auto* exampleRow = new QHBoxLayout;
    auto* templateLabel = new QLabel(QStringLiteral("E&xemple :"), mission);
    m_template = new QComboBox(mission);
    m_template->addItems(AgentDraft::templates());
    nameAfter(m_template, templateLabel);
    m_useExample = makeButton(texts::useExample(), mission);
    exampleRow->addWidget(templateLabel);
    exampleRow->addWidget(m_template);
    exampleRow->addWidget(m_useExample);
    exampleRow->addStretch(1);
    mission->body()->addLayout(exampleRow);
    auto* toneRow = new QHBoxLayout;
    auto* toneLabel = new QLabel(QStringLiteral("&Ton :"), mission);
    m_tone = new QComboBox(mission);
    m_tone->addItems(tones());
    nameAfter(m_tone, toneLabel);
    toneRow->addWidget(toneLabel);
    toneRow->addWidget(m_tone);
    toneRow->addStretch(1);
    mission->body()->addLayout(toneRow);
    auto* missionLabel = new QLabel(QStringLiteral("&Consignes pour Vemira :"), mission);
    mission->body()->addWidget(missionLabel);
    m_mission = new QPlainTextEdit(mission);
    m_mission->setTabChangesFocus(true);
    m_mission->setMinimumHeight(120);
    nameAfter(m_mission, missionLabel);
    mission->body()->addWidget(m_mission);
    auto* hint =
        makeLabel(QStringLiteral("Le ton choisi est ajouté en première ligne des consignes "
                                 "à l’enregistrement."),
                  mission);
    Theme::styleSecondary(hint);
    mission->body()->addWidget(hint);
    layout->addWidget(mission);

    auto* actions = new QHBoxLayout;
    m_saved = makeLabel(QString(), content);
    actions->addWidget(m_saved, 1);
    auto* test = makeButton(QStringLiteral("&Essayer Vemira…"), content);
    actions->addWidget(test);
    m_save = makeButton(texts::saveSettings(), content);
    m_save->setDefault(true);
    actions->addWidget(m_save);
    layout->addLayout(actions);

    m_rules = new AnsweringRulesCard(m_model, content);
    layout->addWidget(m_rules);

    auto* composedToggle = new QToolButton(content);
    composedToggle->setText(QStringLiteral("Voir les consignes complètes envoyées à l’IA"));
    composedToggle->setAccessibleName(composedToggle->text());
    composedToggle->setCheckable(true);
    composedToggle->setAutoRaise(true);
    composedToggle->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    composedToggle->setArrowType(Qt::RightArrow);
    layout->addWidget(composedToggle);
    m_composed = new QPlainTextEdit(content);
    m_composed->setReadOnly(true);
    m_composed->setTabChangesFocus(true);
    m_composed->setAccessibleName(QStringLiteral("Consignes complètes envoyées à l’IA"));
    m_composed->setVisible(false);
    m_composed->setMinimumHeight(200);
    layout->addWidget(m_composed);
    layout->addStretch(1);
    connect(composedToggle, &QToolButton::toggled, this, [this, composedToggle](bool open) {
        m_composed->setVisible(open);
        composedToggle->setArrowType(open ? Qt::DownArrow : Qt::RightArrow);
    });

    // The draft follows the fields.
    connect(m_company, &QLineEdit::textEdited, this,
            [this](const QString& t) { m_draft.company = t; });
    connect(m_voice, &QComboBox::currentTextChanged, this, [this](const QString& t) {
        if (!m_loading)
            m_draft.voice = t;
    });
    connect(m_template, &QComboBox::currentTextChanged, this,
            [this](const QString& t) { m_draft.templateName = t; });
    connect(m_tone, &QComboBox::currentTextChanged, this, [this](const QString& t) {
        if (!m_loading)
            m_draft.tone = t;
    });
    connect(m_mission, &QPlainTextEdit::textChanged, this, [this] {
        if (!m_loading)
            m_draft.instructions = m_mission->toPlainText();
    });
    connect(m_useExample, &QPushButton::clicked, this, [this] {
        m_draft.applyTemplate();
        if (m_mission->toPlainText() != m_draft.instructions)
            m_mission->setPlainText(m_draft.instructions);
    });
    connect(m_save, &QPushButton::clicked, this, &AgentPage::save);
    connect(voiceSettings, &QPushButton::clicked, this, &AgentPage::voiceWindowRequested);
    connect(test, &QPushButton::clicked, this, &AgentPage::testWindowRequested);

    reload();
    bind(m_model, &AppModel::instructionsChanged, this,
         [this] { m_composed->setPlainText(m_model->instructions()); });
}

void AgentPage::reload()
{
    m_loading = true;
    m_draft = AgentDraft();
    m_draft.company = m_model->company();
    m_draft.instructions = m_model->customInstructions();
    m_draft.voice = m_model->voice();
    m_company->setText(m_draft.company);
    m_mission->setPlainText(m_draft.instructions);
    const int voice = m_voice->findText(m_draft.voice);
    if (voice < 0)
        m_voice->addItem(m_draft.voice);
    m_voice->setCurrentText(m_draft.voice);
    m_tone->setCurrentText(m_draft.tone);
    m_template->setCurrentText(m_draft.templateName);
    m_loading = false;
}

void AgentPage::save()
{
    m_model->setCompany(m_draft.company);
    m_model->setVoice(m_draft.voice);
    m_model->setCustomInstructions(m_draft.missionToSave());
    m_model->saveSettings();
    // The saved mission now starts with its tone line; show it as it stands.
    reload();
    m_saved->setText(QStringLiteral("Réglages enregistrés"));
}

} // namespace vemira::ui
