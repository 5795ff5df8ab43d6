#pragma once

#include "ui/Widgets.h"

#include <QUuid>

class QLabel;
class QListWidget;

namespace vemira {
class AppModel;
}

namespace vemira::ui {

// The calls still "À traiter", the most urgent first, each with its summary, caller and time;
// one click opens the call.
class PendingCallsCard : public Card {
    Q_OBJECT

public:
    explicit PendingCallsCard(AppModel* model, QWidget* parent = nullptr);

    QListWidget* list() const { return m_list; }
    QLabel* emptyLabel() const { return m_empty; }

Q_SIGNALS:
    void openRequested(const QUuid& id);

private:
    void refresh();

    AppModel* m_model;
    QListWidget* m_list;
    QLabel* m_empty;
};

} // namespace vemira::ui
