#include "ui/AssignmentDialog.h"

#include "ui/Theme.h"
#include "ui/UiTexts.h"
#include "ui/Widgets.h"

#include <QDialogButtonBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QVBoxLayout>

namespace vemira::ui {

AssignmentDialog::AssignmentDialog(const CallRecord& record, const QStringList& existing,
                                   QWidget* parent)
    : QDialog(parent), m_assignment(record)
{
    setWindowTitle(QStringLiteral("Classer l’appel ") + record.reference());
    setAccessibleName(windowTitle());
    auto* layout = new QVBoxLayout(this);

    auto* label = new QLabel(QStringLiteral("&Nom du dossier :"), this);
    layout->addWidget(label);
    m_name = new QLineEdit(m_assignment.name, this);
    m_name->setPlaceholderText(DossierAssignment::prompt());
    m_name->setClearButtonEnabled(true);
    nameAfter(m_name, label);
    layout->addWidget(m_name);
    auto* explanation = makeLabel(DossierAssignment::explanation(), this);
    Theme::styleSecondary(explanation);
    layout->addWidget(explanation);

    auto* existingLabel = new QLabel(QStringLiteral("Dossiers &existants :"), this);
    layout->addWidget(existingLabel);
    m_existing = new QListWidget(this);
    m_existing->addItems(existing);
    m_existing->setMaximumHeight(140);
    nameAfter(m_existing, existingLabel);
    layout->addWidget(m_existing);
    existingLabel->setVisible(!existing.isEmpty());
    m_existing->setVisible(!existing.isEmpty());

    auto* buttons = new QDialogButtonBox(this);
    QPushButton* save = buttons->addButton(texts::save(), QDialogButtonBox::AcceptRole);
    save->setAccessibleName(texts::save());
    save->setDefault(true);
    QPushButton* cancel =
        buttons->addButton(QStringLiteral("Annuler"), QDialogButtonBox::RejectRole);
    cancel->setAccessibleName(QStringLiteral("Annuler"));
    layout->addWidget(buttons);

    connect(m_name, &QLineEdit::textChanged, this,
            [this](const QString& t) { m_assignment.name = t; });
    // Choosing an existing name fills the field; a double click also saves.
    connect(m_existing, &QListWidget::currentTextChanged, this, [this](const QString& t) {
        if (!t.isEmpty() && !m_closing) {
            m_assignment.choose(t);
            m_name->setText(t);
        }
    });
    connect(m_existing, &QListWidget::itemActivated, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    m_name->setFocus();
    resize(420, sizeHint().height());
}

void AssignmentDialog::done(int result)
{
    m_assignment.name = m_name->text();
    m_closing = true;
    QDialog::done(result);
}

} // namespace vemira::ui
