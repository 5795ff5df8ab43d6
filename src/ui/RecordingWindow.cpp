#include "ui/RecordingWindow.h"

#include "app/AppModel.h"
#include "ui/Bind.h"
#include "ui/Theme.h"
#include "ui/Widgets.h"

#include <QDesktopServices>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
#include <QPushButton>
#include <QUrl>
#include <QVBoxLayout>
#include <QtEndian>

namespace vemira::ui {

double RecordingWindow::wavSeconds(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray head = file.read(12);
    if (head.size() < 12 || !head.startsWith("RIFF") || head.mid(8, 4) != "WAVE")
        return -1;
    quint32 rate = 0;
    quint16 blockAlign = 0;
    // Walk the chunks: "fmt " gives the frame size and rate, "data" the length.
    while (!file.atEnd()) {
        const QByteArray chunk = file.read(8);
        if (chunk.size() < 8)
            return -1;
        const quint32 size = qFromLittleEndian<quint32>(chunk.constData() + 4);
        if (chunk.startsWith("fmt ")) {
            const QByteArray fmt = file.read(size);
            if (fmt.size() < 16)
                return -1;
            rate = qFromLittleEndian<quint32>(fmt.constData() + 4);
            blockAlign = qFromLittleEndian<quint16>(fmt.constData() + 12);
            if (size % 2)
                file.read(1);
        } else if (chunk.startsWith("data")) {
            if (rate == 0 || blockAlign == 0)
                return -1;
            return double(size / blockAlign) / rate;
        } else if (!file.seek(file.pos() + size + (size % 2))) {
            return -1;
        }
    }
    return -1;
}

RecordingWindow::RecordingWindow(AppModel* model, QWidget* parent) : QDialog(parent), m_model(model)
{
    setWindowTitle(QStringLiteral("Enregistrement de l’appel"));
    setAccessibleName(windowTitle());
    auto* layout = new QVBoxLayout(this);
    m_title = makeHeading(QString(), this);
    layout->addWidget(m_title);
    m_summary = makeLabel(QString(), this);
    m_summary->setAccessibleName(QStringLiteral("Enregistrement"));
    layout->addWidget(m_summary);
    auto* hint = makeLabel(QStringLiteral("Les deux voix sont mélangées dans un seul fichier WAVE. "
                                          "L’écoute s’ouvre dans le lecteur audio du système."),
                           this);
    Theme::styleSecondary(hint);
    layout->addWidget(hint);
    auto* row = new QHBoxLayout;
    m_play = makeButton(QStringLiteral("&Écouter"), this);
    m_export = makeButton(QStringLiteral("E&xporter l’audio…"), this);
    auto* close = makeButton(QStringLiteral("Fermer"), this);
    row->addWidget(m_play);
    row->addWidget(m_export);
    row->addStretch(1);
    row->addWidget(close);
    layout->addLayout(row);
    m_message = makeLabel(QString(), this);
    m_message->setAccessibleName(QStringLiteral("Message"));
    layout->addWidget(m_message);

    connect(m_play, &QPushButton::clicked, this, [this] {
        for (const CallRecord& r : m_model->records()) {
            if (r.id == m_id && r.recordingFile) {
                const QString path = QDir(m_model->recordingsFolder()).filePath(*r.recordingFile);
                if (!QFileInfo::exists(path) ||
                    !QDesktopServices::openUrl(QUrl::fromLocalFile(path)))
                    m_message->setText(QStringLiteral("L’enregistrement audio est introuvable."));
            }
        }
    });
    connect(m_export, &QPushButton::clicked, this, [this] {
        if (!m_id.isNull())
            m_model->exportRecording(m_id);
    });
    connect(close, &QPushButton::clicked, this, &QDialog::accept);
    connect(m_model, &AppModel::recordsChanged, this, &RecordingWindow::refresh);
    connect(m_model, &AppModel::finalizingRecordingsChanged, this, &RecordingWindow::refresh);
    connect(m_model, &AppModel::transcriptCopyStatusChanged, this,
            [this] { setTextIfChanged(m_message, m_model->transcriptCopyStatus()); });
    resize(480, sizeHint().height());
}

void RecordingWindow::setRecord(const QUuid& id)
{
    m_id = id;
    m_message->clear();
    refresh();
}

void RecordingWindow::refresh()
{
    const CallRecord* record = nullptr;
    for (const CallRecord& r : m_model->records()) {
        if (r.id == m_id) {
            record = &r;
            break;
        }
    }
    if (record == nullptr) {
        m_title->clear();
        m_summary->setText(QStringLiteral("Aucun appel sélectionné."));
        m_play->setEnabled(false);
        m_export->setEnabled(false);
        return;
    }
    setTextIfChanged(m_title, record->caller + QStringLiteral(" · ") + record->reference());
    QString summary;
    bool playable = false;
    if (m_model->finalizingRecordings().contains(record->id)) {
        summary = QStringLiteral("Enregistrement en cours de finalisation…");
    } else if (record->recordingFile) {
        const QString path = QDir(m_model->recordingsFolder()).filePath(*record->recordingFile);
        const double seconds = wavSeconds(path);
        if (seconds >= 0) {
            const int total = int(seconds + 0.5);
            summary = *record->recordingFile + QStringLiteral(" · ") +
                      QStringLiteral("%1 min %2 s")
                          .arg(total / 60)
                          .arg(total % 60, 2, 10, QLatin1Char('0')) +
                      QStringLiteral(" · ") + QLocale().formattedDataSize(QFileInfo(path).size());
            playable = true;
        } else {
            summary = QStringLiteral("L’enregistrement audio est introuvable.");
        }
    } else if (record->recordingError) {
        summary = *record->recordingError;
    } else {
        summary = QStringLiteral("Cet appel n’a pas été enregistré.");
    }
    setTextIfChanged(m_summary, summary);
    m_play->setEnabled(playable);
    m_export->setEnabled(playable);
}

} // namespace vemira::ui
