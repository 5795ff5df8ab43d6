#pragma once

#include <QDialog>

class QCheckBox;
class QComboBox;
class QLabel;
class QPlainTextEdit;
class QPushButton;
class QSlider;

namespace vemira {
class AppModel;
}

namespace vemira::ui {

// The AI voice: which voice, how it speaks (style text), and its nine-band equaliser,
// applied live while a call runs.
class VoiceWindow : public QDialog {
    Q_OBJECT

public:
    explicit VoiceWindow(AppModel* model, QWidget* parent = nullptr);

    QComboBox* voicePicker() const { return m_voice; }
    QPlainTextEdit* styleEditor() const { return m_style; }
    QPushButton* gentleButton() const { return m_gentle; }
    QPushButton* applyStyleButton() const { return m_applyStyle; }
    QCheckBox* equalizerSwitch() const { return m_eqEnabled; }
    QSlider* band(int index) const { return m_bands.value(index); }

    // Band labels, low to high.
    static QStringList bandNames();

private:
    void pushEqualizer();
    void loadEqualizer();

    AppModel* m_model;
    QComboBox* m_voice;
    QPlainTextEdit* m_style;
    QPushButton* m_gentle;
    QPushButton* m_applyStyle;
    QLabel* m_styleStatus;
    QCheckBox* m_eqEnabled;
    QList<QSlider*> m_bands;
    QList<QLabel*> m_bandValues;
    bool m_loading = false;
};

} // namespace vemira::ui
