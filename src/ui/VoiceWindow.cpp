#include "ui/VoiceWindow.h"

#include "app/AppModel.h"
#include "audio/VoiceEQSettings.h"
#include "records/AgentInstructions.h"
#include "ui/Bind.h"
#include "ui/Theme.h"
#include "ui/UiTexts.h"
#include "ui/Widgets.h"

#include <QCheckBox>
#include <QComboBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLocale>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSlider>
#include <QVBoxLayout>

namespace vemira::ui {

namespace {
// Sliders move in tenths of a decibel.
constexpr int kSteps = 10;

// French whatever the session's language: "-2,5 dB".
QString gainText(double decibels)
{
    return QLocale(QLocale::French, QLocale::France).toString(decibels, 'f', 1) +
           QStringLiteral(" dB");
}
} // namespace

QStringList VoiceWindow::bandNames()
{
    return {QStringLiteral("63 Hz"),  QStringLiteral("125 Hz"), QStringLiteral("250 Hz"),
            QStringLiteral("500 Hz"), QStringLiteral("1 kHz"),  QStringLiteral("2 kHz"),
            QStringLiteral("4 kHz"),  QStringLiteral("8 kHz"),  QStringLiteral("10 kHz")};
}

VoiceWindow::VoiceWindow(AppModel* model, QWidget* parent) : QDialog(parent), m_model(model)
{
    setWindowTitle(QStringLiteral("Voix de Vemira"));
    setAccessibleName(windowTitle());
    auto* layout = new QVBoxLayout(this);

    auto* voiceCard = new Card(QStringLiteral("Voix"), this);
    auto* voiceRow = new QHBoxLayout;
    auto* voiceLabel = new QLabel(QStringLiteral("&Voix :"), voiceCard);
    m_voice = new QComboBox(voiceCard);
    m_voice->addItems(voices());
    nameAfter(m_voice, voiceLabel);
    voiceRow->addWidget(voiceLabel);
    voiceRow->addWidget(m_voice);
    voiceRow->addStretch(1);
    voiceCard->body()->addLayout(voiceRow);
    auto* voiceHint =
        makeLabel(QStringLiteral("La voix change à la prochaine conversation ; "
                                 "le style et l’égaliseur s’appliquent tout de suite."),
                  voiceCard);
    Theme::styleSecondary(voiceHint);
    voiceCard->body()->addWidget(voiceHint);
    layout->addWidget(voiceCard);

    auto* styleCard = new Card(QStringLiteral("Façon de parler"), this);
    m_style = new QPlainTextEdit(styleCard);
    m_style->setTabChangesFocus(true);
    m_style->setAccessibleName(QStringLiteral("Façon de parler"));
    m_style->setMinimumHeight(110);
    styleCard->body()->addWidget(m_style);
    auto* styleRow = new QHBoxLayout;
    m_gentle = makeButton(texts::gentleStyle(), styleCard);
    m_gentle->setAccessibleDescription(QStringLiteral("Remet le style par défaut dans l’éditeur"));
    m_applyStyle = makeButton(QStringLiteral("&Appliquer le style"), styleCard);
    styleRow->addWidget(m_gentle);
    styleRow->addStretch(1);
    styleRow->addWidget(m_applyStyle);
    styleCard->body()->addLayout(styleRow);
    m_styleStatus = makeLabel(QString(), styleCard);
    m_styleStatus->setAccessibleName(QStringLiteral("État du style"));
    Theme::styleSecondary(m_styleStatus);
    styleCard->body()->addWidget(m_styleStatus);
    layout->addWidget(styleCard);

    auto* eqCard = new Card(QStringLiteral("Égaliseur de la voix"), this);
    m_eqEnabled = new QCheckBox(QStringLiteral("Égaliseur &actif"), eqCard);
    m_eqEnabled->setAccessibleName(QStringLiteral("Égaliseur actif"));
    eqCard->body()->addWidget(m_eqEnabled);
    auto* grid = new QGridLayout;
    const QStringList names = bandNames();
    for (int i = 0; i < VoiceEQSettings::kBands; ++i) {
        auto* value = new QLabel(gainText(0), eqCard);
        value->setAlignment(Qt::AlignHCenter);
        auto* slider = new QSlider(Qt::Vertical, eqCard);
        slider->setRange(int(-VoiceEQSettings::kMaxGain) * kSteps,
                         int(VoiceEQSettings::kMaxGain) * kSteps);
        slider->setSingleStep(5);
        slider->setPageStep(30);
        slider->setTickPosition(QSlider::TicksBothSides);
        slider->setTickInterval(6 * kSteps);
        slider->setMinimumHeight(150);
        slider->setAccessibleName(QStringLiteral("Bande ") + names[i]);
        slider->setAccessibleDescription(value->text());
        auto* name = new QLabel(names[i], eqCard);
        name->setAlignment(Qt::AlignHCenter);
        grid->addWidget(value, 0, i);
        grid->addWidget(slider, 1, i, Qt::AlignHCenter);
        grid->addWidget(name, 2, i);
        m_bands << slider;
        m_bandValues << value;
        connect(slider, &QSlider::valueChanged, this, [this, i, value](int v) {
            value->setText(gainText(v / double(kSteps)));
            m_bands[i]->setAccessibleDescription(value->text());
            pushEqualizer();
        });
    }
    eqCard->body()->addLayout(grid);
    auto* eqRow = new QHBoxLayout;
    auto* flat = makeButton(QStringLiteral("Remettre à &plat"), eqCard);
    eqRow->addStretch(1);
    eqRow->addWidget(flat);
    eqCard->body()->addLayout(eqRow);
    layout->addWidget(eqCard);

    auto* close = makeButton(QStringLiteral("Fermer"), this);
    auto* closeRow = new QHBoxLayout;
    closeRow->addStretch(1);
    closeRow->addWidget(close);
    layout->addLayout(closeRow);

    connect(m_voice, &QComboBox::currentTextChanged, this, [this](const QString& voice) {
        if (!m_loading && voice != m_model->voice()) {
            m_model->setVoice(voice);
            m_model->saveSettings();
        }
    });
    connect(m_gentle, &QPushButton::clicked, this,
            [this] { m_style->setPlainText(defaultVoiceStyle()); });
    connect(m_applyStyle, &QPushButton::clicked, this,
            [this] { m_model->applyVoiceStyle(m_style->toPlainText()); });
    connect(m_eqEnabled, &QCheckBox::toggled, this, &VoiceWindow::pushEqualizer);
    connect(flat, &QPushButton::clicked, this, [this] {
        m_loading = true;
        for (QSlider* s : m_bands)
            s->setValue(0);
        m_loading = false;
        pushEqualizer();
    });
    connect(close, &QPushButton::clicked, this, &QDialog::accept);

    bind(m_model, &AppModel::voiceChanged, this, [this] {
        m_loading = true;
        if (m_voice->findText(m_model->voice()) < 0)
            m_voice->addItem(m_model->voice());
        m_voice->setCurrentText(m_model->voice());
        m_loading = false;
    });
    bind(m_model, &AppModel::voiceStyleChanged, this, [this] {
        if (m_style->toPlainText() != m_model->voiceStyle())
            m_style->setPlainText(m_model->voiceStyle());
    });
    bind(m_model, &AppModel::voiceStyleStatusChanged, this,
         [this] { setTextIfChanged(m_styleStatus, m_model->voiceStyleStatus()); });
    bind(m_model, &AppModel::voiceEQChanged, this, &VoiceWindow::loadEqualizer);
    resize(640, sizeHint().height());
}

void VoiceWindow::loadEqualizer()
{
    if (m_loading)
        return;
    m_loading = true;
    const VoiceEQSettings& eq = m_model->voiceEQ();
    const auto gains = eq.safeGains();
    m_eqEnabled->setChecked(eq.enabled);
    for (int i = 0; i < VoiceEQSettings::kBands; ++i)
        m_bands[i]->setValue(qRound(gains[size_t(i)] * kSteps));
    for (QSlider* s : m_bands)
        s->setEnabled(eq.enabled);
    m_loading = false;
}

// Every move is stored and applied at once, so the owner hears it during a call.
void VoiceWindow::pushEqualizer()
{
    for (QSlider* s : m_bands)
        s->setEnabled(m_eqEnabled->isChecked());
    if (m_loading)
        return;
    VoiceEQSettings eq;
    eq.enabled = m_eqEnabled->isChecked();
    for (int i = 0; i < VoiceEQSettings::kBands; ++i)
        eq.gains[i] = float(m_bands[i]->value()) / kSteps;
    m_loading = true;
    m_model->setVoiceEQ(eq);
    m_loading = false;
}

} // namespace vemira::ui
