#pragma once

#include "records/Dossiers.h"

#include <QDialog>

class QLineEdit;
class QListWidget;

namespace vemira::ui {

// The sheet that files one call under a dossier name. It edits a DossierAssignment; the
// caller passes nameToSave() to the model's updateDossier when the dialog is accepted.
class AssignmentDialog : public QDialog {
    Q_OBJECT

public:
    AssignmentDialog(const CallRecord& record, const QStringList& existing,
                     QWidget* parent = nullptr);
    const DossierAssignment& assignment() const { return m_assignment; }
    QLineEdit* nameField() const { return m_name; }
    QListWidget* existingList() const { return m_existing; }
    void done(int result) override;

private:
    DossierAssignment m_assignment;
    QLineEdit* m_name;
    QListWidget* m_existing;
    // Closing moves the focus, and the list would then pick its first name by itself.
    bool m_closing = false;
};

} // namespace vemira::ui
