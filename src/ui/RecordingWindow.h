#pragma once

#include <QDialog>
#include <QUuid>

class QLabel;
class QPushButton;

namespace vemira {
class AppModel;
}

namespace vemira::ui {

// One call's two-voice recording: what it is, listening to it, keeping a copy.
class RecordingWindow : public QDialog {
    Q_OBJECT

public:
    explicit RecordingWindow(AppModel* model, QWidget* parent = nullptr);
    void setRecord(const QUuid& id);
    QUuid record() const { return m_id; }

    QLabel* summaryLabel() const { return m_summary; }
    QPushButton* playButton() const { return m_play; }
    QPushButton* exportButton() const { return m_export; }

    // Seconds of audio in a WAVE file, from its header; negative when unreadable.
    static double wavSeconds(const QString& path);

private:
    void refresh();

    AppModel* m_model;
    QUuid m_id;
    QLabel* m_title;
    QLabel* m_summary;
    QPushButton* m_play;
    QPushButton* m_export;
    QLabel* m_message;
};

} // namespace vemira::ui
