#pragma once

#include "records/Dossiers.h"

#include <QWidget>
#include <functional>

class QMessageBox;

class QComboBox;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;
class QTableView;

namespace vemira {
class AppModel;
}

namespace vemira::ui {

class MessageEditor;
class RecordTableModel;

// All call records in a sortable table, filtered by dossier, status and free text, with
// the selected call's document, note, status and dossier on the right.
class DossiersPage : public QWidget {
    Q_OBJECT

public:
    explicit DossiersPage(AppModel* model, QWidget* parent = nullptr);

    const DossiersDraft& draft() const { return m_draft; }
    // Saves a note still being typed (called before the selection moves or the window hides).
    void commitNote();
    // Asks for confirmation, then deletes the selected call with its files.
    void confirmDeletion();

    QLineEdit* searchField() const { return m_search; }
    QComboBox* folderPicker() const { return m_folder; }
    QComboBox* statusPicker() const { return m_status; }
    QTableView* table() const { return m_table; }
    QLabel* countLabel() const { return m_count; }
    QPlainTextEdit* documentView() const { return m_document; }
    QPlainTextEdit* noteEditor() const { return m_note; }
    QPushButton* saveNoteButton() const { return m_saveNote; }
    QComboBox* recordStatusPicker() const { return m_recordStatus; }
    QPushButton* assignButton() const { return m_assign; }
    QPushButton* copyButton() const { return m_copy; }
    QPushButton* exportButton() const { return m_export; }
    QPushButton* revealButton() const { return m_reveal; }
    QPushButton* audioExportButton() const { return m_audioExport; }
    QPushButton* listenButton() const { return m_listen; }
    QPushButton* deleteButton() const { return m_delete; }
    // Answers the confirmation instead of a person (tests); unset, the box is modal.
    std::function<void(QMessageBox&)> confirmDeletionForTests;
    QLabel* messageLabel() const { return m_message; }
    MessageEditor* messageEditor() const { return m_messageEditor; }

    // Opens the dossier sheet for the selected call; returns once it is closed.
    void openAssignment();

Q_SIGNALS:
    void listenRequested(const QUuid& id);

protected:
    void hideEvent(QHideEvent* event) override;

private:
    void refreshPickers();
    void refreshTable();
    void showSelected();
    void selectFromTable();
    void sortBy(int column);

    AppModel* m_model;
    DossiersDraft m_draft;
    RecordTableModel* m_rows;
    // The note as last loaded into the editor, to tell the user's typing from the stored note.
    QString m_loadedNote;
    QUuid m_noteFor;
    bool m_updating = false;

    QLineEdit* m_search;
    QComboBox* m_folder;
    QComboBox* m_status;
    QTableView* m_table;
    QLabel* m_count;
    QWidget* m_detail;
    QLabel* m_detailTitle;
    QLabel* m_empty;
    MessageEditor* m_messageEditor;
    QPlainTextEdit* m_document;
    QPlainTextEdit* m_note;
    QPushButton* m_saveNote;
    QComboBox* m_recordStatus;
    QLabel* m_dossierLabel;
    QPushButton* m_assign;
    QPushButton* m_copy;
    QPushButton* m_export;
    QPushButton* m_reveal;
    QPushButton* m_audioExport;
    QPushButton* m_listen;
    QPushButton* m_delete;
    QLabel* m_message;
};

} // namespace vemira::ui
