#include "ui/AnsweringRulesCard.h"

#include "app/AppModel.h"
#include "ui/Theme.h"

#include <QCheckBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSpinBox>

namespace vemira::ui {

namespace {
QSpinBox* ringBox(const QString& accessibleName, QWidget* parent)
{
    auto* box = new QSpinBox(parent);
    box->setRange(AnsweringRules::kShortestRing, AnsweringRules::kLongestRing);
    box->setSuffix(QStringLiteral(" s"));
    box->setAccessibleName(accessibleName);
    return box;
}
} // namespace

AnsweringRulesCard::AnsweringRulesCard(AppModel* model, QWidget* parent)
    : Card(QStringLiteral("Quand répondre"), parent), m_model(model)
{
    auto* explain = makeLabel(
        QStringLiteral("Vous décrochez vous-même le premier : Vemira ne prend l’appel qu’après "
                       "l’avoir laissé sonner, et jamais ceux des numéros ci-dessous. Les "
                       "horaires sont ceux de cet ordinateur ; sans horaires, Vemira compte "
                       "chaque heure comme fermée."),
        this);
    Theme::styleSecondary(explain);
    body()->addWidget(explain);

    auto* form = new QFormLayout;
    m_ringOpen = ringBox(QStringLiteral("Laisser sonner, ouvert"), this);
    form->addRow(QStringLiteral("Laisser sonner, ouvert :"), m_ringOpen);
    m_ringClosed = ringBox(QStringLiteral("Laisser sonner, fermé"), this);
    form->addRow(QStringLiteral("Laisser sonner, fermé :"), m_ringClosed);
    m_hours = new QLineEdit(this);
    m_hours->setAccessibleName(QStringLiteral("Horaires d’ouverture"));
    m_hours->setPlaceholderText(QStringLiteral("lun-ven 09:00-12:00,14:00-18:00; sam 09:00-12:00"));
    form->addRow(QStringLiteral("Horaires d’ouverture :"), m_hours);
    m_closedDays = new QLineEdit(this);
    m_closedDays->setAccessibleName(QStringLiteral("Jours de fermeture"));
    m_closedDays->setPlaceholderText(QStringLiteral("2026-12-25, 2027-01-01"));
    form->addRow(QStringLiteral("Jours de fermeture :"), m_closedDays);
    m_never = new QPlainTextEdit(this);
    m_never->setAccessibleName(QStringLiteral("Numéros jamais pris"));
    m_never->setPlaceholderText(QStringLiteral("un numéro par ligne"));
    m_never->setTabChangesFocus(true);
    m_never->setMaximumHeight(90);
    form->addRow(QStringLiteral("Numéros jamais pris :"), m_never);
    body()->addLayout(form);
    m_answerHidden = new QCheckBox(QStringLiteral("Répondre aux appels sans numéro"), this);
    body()->addWidget(m_answerHidden);

    auto* row = new QHBoxLayout;
    m_state = makeLabel(QString(), this);
    m_state->setAccessibleName(QStringLiteral("État des règles"));
    row->addWidget(m_state, 1);
    m_save = makeButton(QStringLiteral("Enregistrer les règles"), this);
    row->addWidget(m_save);
    body()->addLayout(row);

    connect(m_save, &QPushButton::clicked, this, &AnsweringRulesCard::save);
    // Changed from the command line: shown once the model read them again.
    connect(m_model, &AppModel::answeringRulesChanged, this, &AnsweringRulesCard::load);
    load();
}

void AnsweringRulesCard::load()
{
    const AnsweringRules::Texts texts = m_model->answeringRules().texts();
    m_ringOpen->setValue(texts.ringOpen.toInt());
    m_ringClosed->setValue(texts.ringClosed.toInt());
    m_hours->setText(texts.hours);
    m_closedDays->setText(texts.closedDays);
    m_never->setPlainText(texts.neverAnswer.join(QLatin1Char('\n')));
    m_answerHidden->setChecked(texts.answerHidden);
}

bool AnsweringRulesCard::save()
{
    AnsweringRules::Texts texts;
    texts.ringOpen = QString::number(m_ringOpen->value());
    texts.ringClosed = QString::number(m_ringClosed->value());
    texts.hours = m_hours->text();
    texts.closedDays = m_closedDays->text();
    texts.neverAnswer = m_never->toPlainText().split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    texts.answerHidden = m_answerHidden->isChecked();
    if (Status refused = m_model->setAnsweringRules(texts)) {
        Theme::styleError(m_state);
        m_state->setText(refused->message());
        return false;
    }
    Theme::styleSecondary(m_state);
    m_state->setText(QStringLiteral("Règles enregistrées · ") + m_model->answeringRule());
    return true;
}

} // namespace vemira::ui
