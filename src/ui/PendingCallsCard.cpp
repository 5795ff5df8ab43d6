#include "ui/PendingCallsCard.h"

#include "app/AppModel.h"
#include "records/PendingCalls.h"
#include "ui/Bind.h"
#include "ui/Theme.h"

#include <QLabel>
#include <QListWidget>
#include <QVBoxLayout>

namespace vemira::ui {

namespace {
constexpr int kIdRole = Qt::UserRole;
}

PendingCallsCard::PendingCallsCard(AppModel* model, QWidget* parent)
    : Card(QStringLiteral("À traiter"), parent), m_model(model)
{
    m_empty = makeLabel(QStringLiteral("Aucun appel à traiter."), this);
    Theme::styleSecondary(m_empty);
    body()->addWidget(m_empty);
    m_list = new QListWidget(this);
    m_list->setAccessibleName(QStringLiteral("Appels à traiter"));
    m_list->setWordWrap(true);
    m_list->setMaximumHeight(220);
    body()->addWidget(m_list);
    // One click, or Entrée on the focused line, opens the call.
    const auto open = [this](QListWidgetItem* item) {
        if (item)
            Q_EMIT openRequested(item->data(kIdRole).toUuid());
    };
    connect(m_list, &QListWidget::itemClicked, this, open);
    connect(m_list, &QListWidget::itemActivated, this, open);
    bind(m_model, &AppModel::recordsChanged, this, &PendingCallsCard::refresh);
}

void PendingCallsCard::refresh()
{
    const QList<const CallRecord*> pending = pendingCalls(m_model->records());
    m_list->clear();
    for (const CallRecord* record : pending) {
        auto* item = new QListWidgetItem(pendingLine(*record), m_list);
        item->setData(kIdRole, record->id);
        item->setToolTip(QStringLiteral("Ouvrir l’appel ") + record->reference());
    }
    m_empty->setVisible(pending.isEmpty());
    m_list->setVisible(!pending.isEmpty());
}

} // namespace vemira::ui
