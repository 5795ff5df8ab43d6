#include "ui/DossiersPage.h"

#include "app/AppModel.h"
#include "core/PlatformWording.h"
#include "records/TranscriptDocument.h"
#include "ui/AssignmentDialog.h"
#include "ui/Bind.h"
#include "ui/MessageEditor.h"
#include "ui/RecordTableModel.h"
#include "ui/Theme.h"
#include "ui/UiTexts.h"
#include "ui/Widgets.h"

#include <QComboBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSplitter>
#include <QTableView>
#include <QVBoxLayout>

namespace vemira::ui {

namespace {

void setComboItems(QComboBox* combo, const QStringList& items, const QString& current)
{
    const QSignalBlocker block(combo);
    QStringList existing;
    for (int i = 0; i < combo->count(); ++i)
        existing << combo->itemText(i);
    if (existing != items) {
        combo->clear();
        combo->addItems(items);
    }
    combo->setCurrentIndex(qMax(0, int(items.indexOf(current))));
}

} // namespace

DossiersPage::DossiersPage(AppModel* model, QWidget* parent) : QWidget(parent), m_model(model)
{
    setAccessibleName(QStringLiteral("Conversations"));
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(16, 16, 16, 16);

    // Filters: search, dossier, status.
    auto* filters = new QHBoxLayout;
    m_search = new QLineEdit(this);
    m_search->setPlaceholderText(Dossiers::searchPrompt());
    m_search->setAccessibleName(QStringLiteral("Rechercher"));
    m_search->setAccessibleDescription(Dossiers::searchPrompt());
    m_search->setClearButtonEnabled(true);
    filters->addWidget(m_search, 3);
    m_folder = new QComboBox(this);
    m_folder->setAccessibleName(QStringLiteral("Filtrer par dossier"));
    m_folder->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    filters->addWidget(m_folder, 1);
    m_status = new QComboBox(this);
    m_status->setAccessibleName(QStringLiteral("Filtrer par état"));
    m_status->addItems(Dossiers::statusFilterChoices());
    filters->addWidget(m_status, 1);
    layout->addLayout(filters);

    auto* splitter = new QSplitter(Qt::Horizontal, this);
    splitter->setChildrenCollapsible(false);
    layout->addWidget(splitter, 1);

    // Table and its count line.
    auto* left = new QWidget(splitter);
    auto* leftLayout = new QVBoxLayout(left);
    leftLayout->setContentsMargins(0, 0, 0, 0);
    m_rows = new RecordTableModel(this);
    m_table = new QTableView(left);
    m_table->setModel(m_rows);
    m_table->setAccessibleName(QStringLiteral("Liste des appels"));
    m_table->setSelectionBehavior(QAbstractItemView::SelectRows);
    m_table->setSelectionMode(QAbstractItemView::SingleSelection);
    m_table->setEditTriggers(QAbstractItemView::NoEditTriggers);
    m_table->setAlternatingRowColors(true);
    m_table->setTabKeyNavigation(false);
    m_table->verticalHeader()->hide();
    m_table->horizontalHeader()->setSectionsClickable(true);
    m_table->horizontalHeader()->setSortIndicatorShown(true);
    m_table->horizontalHeader()->setSortIndicator(RecordTableModel::Date, Qt::DescendingOrder);
    m_table->horizontalHeader()->setStretchLastSection(true);
    m_table->horizontalHeader()->setSectionResizeMode(RecordTableModel::Caller,
                                                      QHeaderView::Stretch);
    leftLayout->addWidget(m_table, 1);
    m_count = makeLabel(QString(), left);
    Theme::styleSecondary(m_count);
    m_count->setAccessibleName(QStringLiteral("Nombre d’appels affichés"));
    leftLayout->addWidget(m_count);

    // Detail pane of the selected call.
    auto* right = new QWidget(splitter);
    auto* rightLayout = new QVBoxLayout(right);
    rightLayout->setContentsMargins(8, 0, 0, 0);
    m_empty = makeLabel(QStringLiteral("Sélectionnez un appel pour lire sa transcription."), right);
    Theme::styleSecondary(m_empty);
    rightLayout->addWidget(m_empty);
    m_detail = new QWidget(right);
    auto* detail = new QVBoxLayout(m_detail);
    detail->setContentsMargins(0, 0, 0, 0);
    m_detailTitle = makeHeading(QString(), m_detail);
    detail->addWidget(m_detailTitle);

    auto* form = new QFormLayout;
    m_recordStatus = new QComboBox(m_detail);
    m_recordStatus->addItems(Dossiers::followUpStatuses());
    auto* statusLabel = new QLabel(QStringLiteral("É&tat :"), m_detail);
    nameAfter(m_recordStatus, statusLabel);
    form->addRow(statusLabel, m_recordStatus);
    auto* dossierRow = new QHBoxLayout;
    m_dossierLabel = makeLabel(QString(), m_detail);
    m_dossierLabel->setAccessibleName(QStringLiteral("Dossier de l’appel"));
    dossierRow->addWidget(m_dossierLabel, 1);
    m_assign = makeButton(QStringLiteral("&Classer…"), m_detail);
    m_assign->setAccessibleDescription(QStringLiteral("Classer l’appel dans un dossier"));
    dossierRow->addWidget(m_assign);
    form->addRow(new QLabel(QStringLiteral("Dossier :"), m_detail), dossierRow);
    detail->addLayout(form);

    m_messageEditor = new MessageEditor(m_detail);
    detail->addWidget(m_messageEditor);

    m_document = new QPlainTextEdit(m_detail);
    m_document->setReadOnly(true);
    m_document->setAccessibleName(QStringLiteral("Transcription de l’appel"));
    m_document->setTabChangesFocus(true);
    m_document->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
    detail->addWidget(m_document, 3);

    auto* noteLabel = new QLabel(QStringLiteral("&Note du gestionnaire :"), m_detail);
    detail->addWidget(noteLabel);
    m_note = new QPlainTextEdit(m_detail);
    m_note->setTabChangesFocus(true);
    m_note->setMaximumHeight(110);
    nameAfter(m_note, noteLabel);
    detail->addWidget(m_note, 1);
    m_saveNote = makeButton(QStringLiteral("Enregistrer la &note"), m_detail);
    m_saveNote->setEnabled(false);
    auto* noteRow = new QHBoxLayout;
    noteRow->addStretch(1);
    noteRow->addWidget(m_saveNote);
    detail->addLayout(noteRow);

    auto* actions = new QHBoxLayout;
    m_copy = makeButton(QStringLiteral("Co&pier"), m_detail);
    m_copy->setAccessibleDescription(QStringLiteral("Copier la transcription"));
    m_export = makeButton(QStringLiteral("E&xporter…"), m_detail);
    m_export->setAccessibleDescription(QStringLiteral("Exporter la transcription en texte"));
    m_reveal = makeButton(QStringLiteral("Afficher le &fichier"), m_detail);
    m_listen = makeButton(QStringLiteral("É&couter…"), m_detail);
    m_listen->setAccessibleDescription(QStringLiteral("Ouvrir l’enregistrement de l’appel"));
    m_audioExport = makeButton(QStringLiteral("Exporter l’&audio…"), m_detail);
    m_delete = makeButton(QStringLiteral("Supprimer…"), m_detail);
    m_delete->setAccessibleDescription(
        QStringLiteral("Supprimer l’appel, sa transcription et son enregistrement"));
    for (QPushButton* b : {m_copy, m_export, m_reveal, m_listen, m_audioExport})
        actions->addWidget(b);
    actions->addStretch(1);
    actions->addWidget(m_delete);
    detail->addLayout(actions);
    m_message = makeLabel(QString(), m_detail);
    m_message->setAccessibleName(QStringLiteral("Message"));
    detail->addWidget(m_message);
    rightLayout->addWidget(m_detail, 1);
    splitter->addWidget(left);
    splitter->addWidget(right);
    splitter->setStretchFactor(0, 3);
    splitter->setStretchFactor(1, 2);
    // The table wants its columns readable; the document wraps.
    splitter->setSizes({560, 420});

    // Filters change the draft, then the table.
    connect(m_search, &QLineEdit::textChanged, this, [this](const QString& text) {
        m_draft.search = text;
        refreshTable();
    });
    connect(m_folder, &QComboBox::currentTextChanged, this, [this](const QString& text) {
        if (m_updating || text.isEmpty())
            return;
        m_draft.folder = text;
        refreshTable();
    });
    connect(m_status, &QComboBox::currentTextChanged, this, [this](const QString& text) {
        m_draft.status = text;
        refreshTable();
    });
    connect(m_table->horizontalHeader(), &QHeaderView::sectionClicked, this, &DossiersPage::sortBy);
    connect(m_table->selectionModel(), &QItemSelectionModel::currentRowChanged, this,
            [this] { selectFromTable(); });

    // Record edits go straight to the model, which saves the history at once.
    connect(m_note, &QPlainTextEdit::textChanged, this, [this] {
        if (!m_updating)
            m_saveNote->setEnabled(m_note->toPlainText() != m_loadedNote);
    });
    connect(m_saveNote, &QPushButton::clicked, this, &DossiersPage::commitNote);
    connect(m_messageEditor, &MessageEditor::saveRequested, this,
            [this](const QUuid& id, const CallMessage& message) {
                m_model->updateMessage(id, message);
            });
    connect(m_recordStatus, &QComboBox::currentTextChanged, this, [this](const QString& status) {
        if (!m_updating && m_draft.selected)
            m_model->updateFollowUpStatus(*m_draft.selected, status);
    });
    connect(m_assign, &QPushButton::clicked, this, &DossiersPage::openAssignment);
    connect(m_copy, &QPushButton::clicked, this, [this] {
        if (m_draft.selected)
            m_model->copyTranscript(*m_draft.selected);
    });
    connect(m_export, &QPushButton::clicked, this, [this] {
        if (m_draft.selected)
            m_model->exportTranscript(*m_draft.selected);
    });
    connect(m_reveal, &QPushButton::clicked, this, [this] {
        if (m_draft.selected)
            m_model->revealTranscript(*m_draft.selected);
    });
    connect(m_audioExport, &QPushButton::clicked, this, [this] {
        if (m_draft.selected)
            m_model->exportRecording(*m_draft.selected);
    });
    connect(m_delete, &QPushButton::clicked, this, &DossiersPage::confirmDeletion);
    connect(m_listen, &QPushButton::clicked, this, [this] {
        if (m_draft.selected)
            Q_EMIT listenRequested(*m_draft.selected);
    });

    bind(m_model, &AppModel::recordsChanged, this, [this] {
        refreshPickers();
        refreshTable();
    });
    bind(m_model, &AppModel::selectedRecordChanged, this, [this] {
        const QUuid wanted = m_model->selectedRecord();
        if (wanted.isNull() || (m_draft.selected && *m_draft.selected == wanted))
            return;
        commitNote();
        m_draft.selected = wanted;
        // A record asked for from elsewhere (demonstration, notification) must be visible.
        if (m_rows->rowOf(wanted) < 0) {
            m_search->clear();
            m_draft.folder = Dossiers::allFolders();
            m_status->setCurrentIndex(0);
            refreshPickers();
        }
        refreshTable();
    });
    bind(m_model, &AppModel::transcriptCopyStatusChanged, this,
         [this] { setTextIfChanged(m_message, m_model->transcriptCopyStatus()); });
}

void DossiersPage::refreshPickers()
{
    const QStringList folders = Dossiers::folders(m_model->records());
    // A dossier that no record carries any more falls back to all dossiers.
    if (m_draft.folder != Dossiers::allFolders() && m_draft.folder != Dossiers::unfiled() &&
        !folders.contains(m_draft.folder))
        m_draft.folder = Dossiers::allFolders();
    m_updating = true;
    setComboItems(m_folder, QStringList{Dossiers::allFolders(), Dossiers::unfiled()} + folders,
                  m_draft.folder);
    m_updating = false;
}

void DossiersPage::refreshTable()
{
    m_rows->refresh(m_model->records(), m_draft);
    setTextIfChanged(m_count, Dossiers::countLine(m_rows->visible().size()));
    const int row = m_draft.selected ? m_rows->rowOf(*m_draft.selected) : -1;
    {
        const QSignalBlocker block(m_table->selectionModel());
        if (row >= 0) {
            m_table->selectionModel()->setCurrentIndex(m_rows->index(row, 0),
                                                       QItemSelectionModel::ClearAndSelect |
                                                           QItemSelectionModel::Rows);
        } else {
            m_table->selectionModel()->clearSelection();
        }
    }
    showSelected();
}

void DossiersPage::selectFromTable()
{
    const QModelIndex current = m_table->selectionModel()->currentIndex();
    if (!current.isValid())
        return;
    const QUuid id = current.data(RecordTableModel::IdRole).toUuid();
    if (m_draft.selected && *m_draft.selected == id)
        return;
    commitNote();
    m_draft.selected = id;
    m_model->setSelectedRecord(id);
    showSelected();
}

void DossiersPage::showSelected()
{
    const CallRecord* record = m_draft.selectedRecord(m_model->records());
    // A filtered-out record stays selected in the draft but is not shown.
    if (record != nullptr && m_rows->rowOf(record->id) < 0)
        record = nullptr;
    m_empty->setVisible(record == nullptr);
    m_detail->setVisible(record != nullptr);
    if (record == nullptr)
        return;
    m_updating = true;
    setTextIfChanged(m_detailTitle, record->caller + QStringLiteral(" · ") + record->reference());
    const QString document = transcriptDocument(*record);
    if (m_document->toPlainText() != document)
        m_document->setPlainText(document);
    m_recordStatus->setCurrentIndex(
        qMax(0, int(Dossiers::followUpStatuses().indexOf(record->statusLabel()))));
    setTextIfChanged(m_dossierLabel, record->folderLabel());
    // Keep what the user is typing: reload the note only for another record, or when the
    // editor still shows the stored note unchanged.
    const bool typing = m_noteFor == record->id && m_note->toPlainText() != m_loadedNote;
    if (!typing) {
        if (m_note->toPlainText() != record->note)
            m_note->setPlainText(record->note);
        m_loadedNote = record->note;
        m_noteFor = record->id;
    }
    m_saveNote->setEnabled(m_note->toPlainText() != m_loadedNote);
    m_messageEditor->show(record->id, record->message);
    const bool hasRecording = record->recordingFile.has_value();
    m_listen->setEnabled(hasRecording);
    m_audioExport->setEnabled(hasRecording);
    m_updating = false;
}

void DossiersPage::confirmDeletion()
{
    if (!m_draft.selected)
        return;
    const CallRecord* record = m_draft.selectedRecord(m_model->records());
    if (!record)
        return;
    const QUuid id = record->id;
    QMessageBox box(QMessageBox::Warning, QStringLiteral("Supprimer l’appel"),
                    QStringLiteral("Supprimer l’appel ") + record->reference() +
                        QStringLiteral(" (") + record->caller +
                        PlatformWording::current().deletionTail,
                    QMessageBox::NoButton, this);
    QPushButton* confirm = box.addButton(QStringLiteral("Supprimer"), QMessageBox::DestructiveRole);
    box.addButton(QStringLiteral("Annuler"), QMessageBox::RejectRole);
    box.setDefaultButton(qobject_cast<QPushButton*>(box.buttons().last()));
    if (confirmDeletionForTests)
        confirmDeletionForTests(box);
    else
        box.exec();
    if (box.clickedButton() == confirm)
        m_model->deleteRecord(id);
}

void DossiersPage::commitNote()
{
    if (m_noteFor.isNull())
        return;
    const QString text = m_note->toPlainText();
    if (text == m_loadedNote)
        return;
    const QUuid id = m_noteFor;
    m_loadedNote = text;
    m_saveNote->setEnabled(false);
    m_model->updateNote(id, text);
}

void DossiersPage::sortBy(int column)
{
    const auto wanted = RecordTableModel::sortColumn(column);
    QHeaderView* header = m_table->horizontalHeader();
    if (!wanted) {
        // Not sortable: put the indicator back on the column that orders the table.
        const RecordComparator& now = m_draft.sortOrder.first();
        for (int c = 0; c < RecordTableModel::ColumnCount; ++c) {
            if (RecordTableModel::sortColumn(c) == now.column)
                header->setSortIndicator(c,
                                         now.descending ? Qt::DescendingOrder : Qt::AscendingOrder);
        }
        return;
    }
    RecordComparator comparator{*wanted, false};
    if (!m_draft.sortOrder.isEmpty() && m_draft.sortOrder.first().column == *wanted)
        comparator.descending = !m_draft.sortOrder.first().descending;
    m_draft.sortOrder = {comparator};
    header->setSortIndicator(column,
                             comparator.descending ? Qt::DescendingOrder : Qt::AscendingOrder);
    refreshTable();
}

void DossiersPage::openAssignment()
{
    const CallRecord* record = m_draft.selectedRecord(m_model->records());
    if (record == nullptr)
        return;
    commitNote();
    AssignmentDialog dialog(*record, DossierAssignment::existing(m_model->records()), this);
    const QUuid id = record->id;
    if (dialog.exec() == QDialog::Accepted)
        m_model->updateDossier(id, dialog.assignment().nameToSave());
}

void DossiersPage::hideEvent(QHideEvent* event)
{
    commitNote();
    QWidget::hideEvent(event);
}

} // namespace vemira::ui
