#include "ui/SetupAssistant.h"

#include "app/AppModel.h"
#include "ui/AppIcon.h"
#include "ui/Bind.h"
#include "ui/GuidedSetup.h"
#include "ui/SetupProgress.h"
#include "ui/Theme.h"
#include "ui/UiTexts.h"
#include "ui/Widgets.h"

#include <QCheckBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QProgressBar>
#include <QPushButton>
#include <QStackedWidget>
#include <QVBoxLayout>

namespace vemira::ui {

namespace {

QWidget* stepPage(const QString& title, const QString& intro, QVBoxLayout** body, QWidget* parent)
{
    auto* page = new QWidget(parent);
    auto* layout = new QVBoxLayout(page);
    layout->setContentsMargins(16, 8, 8, 8);
    auto* heading = new QLabel(title, page);
    Theme::styleHeadline(heading);
    layout->addWidget(heading);
    layout->addWidget(makeLabel(intro, page));
    *body = layout;
    return page;
}

void markState(QLabel* label, bool ok, const QString& yes, const QString& no)
{
    setTextIfChanged(label, (ok ? QStringLiteral("✓ ") + yes : QStringLiteral("✗ ") + no));
    QPalette p = label->palette();
    p.setColor(QPalette::WindowText, Theme::toneColor(ok ? Tone::Good : Tone::Warning, p));
    label->setPalette(p);
}

} // namespace

SetupAssistant::SetupAssistant(AppModel* model, GuidedSetup* setup, QWidget* parent)
    : QDialog(parent), m_model(model), m_setup(setup)
{
    setWindowTitle(QStringLiteral("Configuration guidée de Vemira"));
    setAccessibleName(windowTitle());
    setWindowIcon(AppIcon::application());
    auto* layout = new QVBoxLayout(this);
    auto* body = new QHBoxLayout;
    m_steps = new QListWidget(this);
    m_steps->setAccessibleName(QStringLiteral("Étapes"));
    m_steps->setFixedWidth(210);
    for (const QString& step : texts::setupSteps())
        m_steps->addItem(step);
    body->addWidget(m_steps);
    m_pages = new QStackedWidget(this);
    m_pages->addWidget(buildSoundStep());
    m_pages->addWidget(buildPermissionsStep());
    m_pages->addWidget(buildAIStep());
    m_pages->addWidget(buildPhoneStep());
    body->addWidget(m_pages, 1);
    layout->addLayout(body, 1);

    auto* bottom = new QHBoxLayout;
    m_progress = new QProgressBar(this);
    m_progress->setRange(0, 100);
    m_progress->setFormat(QStringLiteral("Configuration : %p %"));
    m_progress->setAccessibleName(QStringLiteral("Progression de la configuration"));
    bottom->addWidget(m_progress, 1);
    m_previous = makeButton(QStringLiteral("&Précédent"), this);
    m_next = makeButton(QStringLiteral("&Suivant"), this);
    auto* close = makeButton(QStringLiteral("Fermer"), this);
    bottom->addWidget(m_previous);
    bottom->addWidget(m_next);
    bottom->addWidget(close);
    layout->addLayout(bottom);

    connect(m_steps, &QListWidget::currentRowChanged, m_pages, &QStackedWidget::setCurrentIndex);
    connect(m_steps, &QListWidget::currentRowChanged, this, [this](int row) {
        m_previous->setEnabled(row > 0);
        m_next->setEnabled(row < m_steps->count() - 1);
    });
    connect(m_previous, &QPushButton::clicked, this, [this] { showStep(currentStep() - 1); });
    connect(m_next, &QPushButton::clicked, this, [this] { showStep(currentStep() + 1); });
    connect(close, &QPushButton::clicked, this, &QDialog::accept);

    using Signal = void (AppModel::*)();
    for (Signal signal : std::initializer_list<Signal>{&AppModel::devicesChanged,
                                                       &AppModel::accessibilityChanged,
                                                       &AppModel::micAllowedChanged,
                                                       &AppModel::keyPresentChanged,
                                                       &AppModel::aiVerifiedChanged,
                                                       &AppModel::routingConfirmedChanged,
                                                       &AppModel::validatedCallIDChanged,
                                                       &AppModel::setupPercentChanged,
                                                       &AppModel::configurationStatusChanged,
                                                       &AppModel::preparingAudioChanged,
                                                       &AppModel::testingMicrophoneChanged,
                                                       &AppModel::microphoneStatusChanged,
                                                       &AppModel::aiStatusChanged,
                                                       &AppModel::checkingAIChanged,
                                                       &AppModel::nativeAudioStatusChanged,
                                                       &AppModel::relayStatusChanged,
                                                       &AppModel::observingRelayChanged,
                                                       &AppModel::configuringAllChanged,
                                                       &AppModel::armedChanged,
                                                       &AppModel::busyChanged})
        connect(m_model, signal, this, &SetupAssistant::refresh);
    bind(m_model, &AppModel::probeLevelsChanged, this, [this] {
        m_probeRaw->setLevel(m_model->probeLevels().first);
        m_probeConverted->setLevel(m_model->probeLevels().second);
    });
    bind(m_model, &AppModel::microphoneLevelChanged, this,
         [this] { m_micLevel->setLevel(m_model->microphoneLevel()); });
    refresh();
    showStep(firstOpenStep());
    resize(820, 520);
}

QWidget* SetupAssistant::buildSoundStep()
{
    QVBoxLayout* body = nullptr;
    QWidget* page =
        stepPage(texts::setupSteps()[0], PlatformWording::current().soundIntro, &body, this);
    m_driver = makeLabel(QString(), page);
    m_driver->setAccessibleName(QStringLiteral("Module audio"));
    body->addWidget(m_driver);
    auto* row = new QHBoxLayout;
    auto* recheck = makeButton(QStringLiteral("&Vérifier à nouveau"), page);
    m_configure = makeButton(texts::configureAndTest(), page);
    row->addWidget(recheck);
    row->addWidget(m_configure);
    row->addStretch(1);
    body->addLayout(row);
    if (m_setup->makesDevices())
        addDeviceControls(page, body);
    auto* explain = makeLabel(QStringLiteral("Le test fait passer un son dans chaque circuit et "
                                             "vérifie qu’il en ressort (environ 15 secondes)."),
                              page);
    Theme::styleSecondary(explain);
    body->addWidget(explain);
    auto* meters = new QGridLayout;
    meters->addWidget(new QLabel(QStringLiteral("Signal reçu"), page), 0, 0);
    m_probeRaw = new LevelMeter(QStringLiteral("Niveau du signal reçu"), page);
    meters->addWidget(m_probeRaw, 0, 1);
    meters->addWidget(new QLabel(QStringLiteral("Signal converti"), page), 1, 0);
    m_probeConverted = new LevelMeter(QStringLiteral("Niveau du signal converti"), page);
    meters->addWidget(m_probeConverted, 1, 1);
    meters->setColumnStretch(1, 1);
    body->addLayout(meters);
    m_configuration = makeLabel(QString(), page);
    m_configuration->setAccessibleName(QStringLiteral("Résultat du test du son"));
    body->addWidget(m_configuration);
    body->addStretch(1);
    connect(recheck, &QPushButton::clicked, this, [this] {
        if (m_setup->makesDevices())
            m_setup->checkDevices(); // their format too, not only their presence
        else
            m_model->refresh();
    });
    connect(m_configure, &QPushButton::clicked, this, [this] { m_setup->configureSound(); });
    return page;
}

// Where Vemira makes the devices: create and remove them, and the user's explicit choice to
// have them back at each start of the sound server.
void SetupAssistant::addDeviceControls(QWidget* page, QVBoxLayout* body)
{
    auto* row = new QHBoxLayout;
    m_createDevices = makeButton(QStringLiteral("C&réer les périphériques audio"), page);
    m_removeDevices = makeButton(QStringLiteral("Supprimer les périphériques audio"), page);
    row->addWidget(m_createDevices);
    row->addWidget(m_removeDevices);
    row->addStretch(1);
    body->addLayout(row);
    m_persistDevices =
        new QCheckBox(QStringLiteral("Les recréer à chaque démarrage du serveur de son"), page);
    m_persistDevices->setAccessibleName(m_persistDevices->text());
    m_persistDevices->setChecked(m_setup->devicesPersistent());
    body->addWidget(m_persistDevices);
    auto* consent =
        makeLabel(QStringLiteral("Cochée, cette case fait écrire à Vemira un fichier de "
                                 "démarrage pour PulseAudio ou PipeWire dans votre "
                                 "dossier de configuration ; rien n’est écrit sans "
                                 "elle."),
                  page);
    Theme::styleSecondary(consent);
    body->addWidget(consent);
    connect(m_createDevices, &QPushButton::clicked, this, [this] { m_setup->createDevices(); });
    connect(m_removeDevices, &QPushButton::clicked, this, [this] { m_setup->removeDevices(); });
    // `clicked`, not `toggled`: only the user's own click writes or removes the file.
    connect(m_persistDevices, &QCheckBox::clicked, this, [this](bool keep) {
        m_setup->setDevicesPersistent(keep);
        const QSignalBlocker block(m_persistDevices);
        m_persistDevices->setChecked(m_setup->devicesPersistent());
    });
}

QWidget* SetupAssistant::buildPermissionsStep()
{
    QVBoxLayout* body = nullptr;
    QWidget* page = stepPage(
        texts::setupSteps()[1],
        QStringLiteral("Deux autorisations : Accessibilité, pour voir l’appel qui sonne et "
                       "décrocher, et l’accès audio, pour le son des appels et votre micro."),
        &body, this);
    m_accessibility = makeLabel(QString(), page);
    m_accessibility->setAccessibleName(QStringLiteral("Accessibilité"));
    body->addWidget(m_accessibility);
    const PlatformWording& wording = PlatformWording::current();
    auto* openAx = makeButton(wording.openAccessibility, page);
    auto* axRow = new QHBoxLayout;
    axRow->addWidget(openAx);
    axRow->addStretch(1);
    body->addLayout(axRow);
    m_microphone = makeLabel(QString(), page);
    m_microphone->setAccessibleName(QStringLiteral("Accès audio"));
    body->addWidget(m_microphone);
    auto* micRow = new QHBoxLayout;
    auto* openMic = makeButton(QStringLiteral("Ouvrir les réglages du &micro"), page);
    // Where capturing sound needs no permission there is no settings pane to open.
    openMic->setVisible(wording.microphoneSettings);
    m_testMic = makeButton(texts::testComputerMicrophone(), page);
    micRow->addWidget(openMic);
    micRow->addWidget(m_testMic);
    micRow->addStretch(1);
    body->addLayout(micRow);
    m_micLevel = new LevelMeter(QStringLiteral("Niveau du microphone"), page);
    body->addWidget(m_micLevel);
    m_micStatus = makeLabel(QString(), page);
    m_micStatus->setAccessibleName(QStringLiteral("Résultat du test du microphone"));
    body->addWidget(m_micStatus);
    body->addStretch(1);
    connect(openAx, &QPushButton::clicked, this, [this] { m_setup->openAccessibilitySettings(); });
    connect(openMic, &QPushButton::clicked, this, [this] { m_setup->openMicrophoneSettings(); });
    connect(m_testMic, &QPushButton::clicked, this, [this] { m_setup->testMicrophone(); });
    return page;
}

QWidget* SetupAssistant::buildAIStep()
{
    QVBoxLayout* body = nullptr;
    QWidget* page = stepPage(texts::setupSteps()[2], texts::keyOnce(), &body, this);
    auto* row = new QHBoxLayout;
    m_key = new QLineEdit(page);
    m_key->setEchoMode(QLineEdit::Password);
    m_key->setPlaceholderText(QStringLiteral("sk-…"));
    m_key->setAccessibleName(QStringLiteral("Clé API OpenAI"));
    row->addWidget(m_key, 1);
    auto* save = makeButton(QStringLiteral("Enregistrer la &clé"), page);
    row->addWidget(save);
    body->addLayout(row);
    auto* storage = makeLabel(texts::keyStorage(), page);
    Theme::styleSecondary(storage);
    body->addWidget(storage);
    m_keyState = makeLabel(QString(), page);
    m_keyState->setAccessibleName(QStringLiteral("État de la clé"));
    body->addWidget(m_keyState);
    auto* verifyRow = new QHBoxLayout;
    m_verify = makeButton(QStringLiteral("&Vérifier la connexion IA"), page);
    verifyRow->addWidget(m_verify);
    verifyRow->addStretch(1);
    body->addLayout(verifyRow);
    m_aiStatus = makeLabel(QString(), page);
    m_aiStatus->setAccessibleName(QStringLiteral("État de la connexion IA"));
    body->addWidget(m_aiStatus);
    body->addStretch(1);
    connect(save, &QPushButton::clicked, this, [this] {
        m_model->saveKey(m_key->text());
        if (m_model->keyPresent() && m_model->error().isEmpty()) {
            m_key->clear();
            m_model->verifyAI(false);
        }
    });
    connect(m_key, &QLineEdit::returnPressed, save, &QPushButton::click);
    connect(m_verify, &QPushButton::clicked, this, [this] { m_model->verifyAI(false); });
    return page;
}

QWidget* SetupAssistant::buildPhoneStep()
{
    QVBoxLayout* body = nullptr;
    const PlatformWording& wording = PlatformWording::current();
    QWidget* page = stepPage(texts::setupSteps()[3], wording.phoneStepIntro, &body, this);
    auto* row = new QHBoxLayout;
    auto* prepare = makeButton(texts::prepareLink(), page);
    auto* back = makeButton(texts::phoneBackToSystem(), page);
    prepare->setVisible(wording.phoneAudioMenu);
    back->setVisible(wording.phoneAudioMenu);
    row->addWidget(prepare);
    row->addWidget(back);
    row->addStretch(1);
    body->addLayout(row);
    m_phoneStatus = makeLabel(QString(), page);
    m_phoneStatus->setAccessibleName(wording.phoneAudioStateName);
    body->addWidget(m_phoneStatus);
    body->addWidget(makeLabel(wording.phoneStepHowTo, page));
    auto* observeRow = new QHBoxLayout;
    m_observe = makeButton(QStringLiteral("&Attendre un appel"), page);
    observeRow->addWidget(m_observe);
    observeRow->addStretch(1);
    body->addLayout(observeRow);
    m_relayStatus = makeLabel(QString(), page);
    m_relayStatus->setAccessibleName(QStringLiteral("Appel de test"));
    body->addWidget(m_relayStatus);
    m_validated = makeLabel(QString(), page);
    m_validated->setAccessibleName(QStringLiteral("Validation"));
    body->addWidget(m_validated);
    body->addStretch(1);
    m_lastStepBody = body;
    if (m_setup->makesDevices()) {
        auto* check =
            makeButton(QStringLiteral("Vérifier le &son du logiciel de téléphonie"), page);
        row->insertWidget(0, check);
        connect(check, &QPushButton::clicked, this, [this] { m_setup->checkPhoneAudio(); });
    }
    connect(prepare, &QPushButton::clicked, this, [this] { m_setup->prepareLink(); });
    connect(back, &QPushButton::clicked, this, [this] { m_setup->phoneBackToSystem(); });
    connect(m_observe, &QPushButton::clicked, this, [this] {
        if (m_model->observingRelay())
            m_setup->stopObserving();
        else
            m_setup->observeTestCall();
    });
    return page;
}

void SetupAssistant::addToLastStep(QWidget* widget)
{
    m_lastStepBody->insertWidget(m_lastStepBody->count() - 1, widget);
}

void SetupAssistant::showStep(int index)
{
    m_steps->setCurrentRow(qBound(0, index, m_steps->count() - 1));
}

int SetupAssistant::currentStep() const
{
    return m_steps->currentRow();
}

int SetupAssistant::firstOpenStep() const
{
    const auto done = setupStepsOf(*m_model);
    for (int i = 0; i < int(done.size()); ++i) {
        if (!done[size_t(i)])
            return i;
    }
    return int(done.size()) - 1;
}

void SetupAssistant::refresh()
{
    const auto done = setupStepsOf(*m_model);
    const QStringList names = texts::setupSteps();
    for (int i = 0; i < m_steps->count(); ++i) {
        QListWidgetItem* item = m_steps->item(i);
        const QString text =
            (done[size_t(i)] ? QStringLiteral("✓  ") : QStringLiteral("%1.  ").arg(i + 1)) +
            names[i];
        if (item->text() != text)
            item->setText(text);
        item->setData(Qt::AccessibleDescriptionRole,
                      done[size_t(i)] ? QStringLiteral("terminée") : QStringLiteral("à faire"));
    }
    m_progress->setValue(m_model->setupPercent());

    const PlatformWording& wording = PlatformWording::current();
    markState(m_driver, done[0], wording.devicesPresent, wording.devicesAbsent);
    QString configuration = m_model->configurationStatus();
    if (configuration.isEmpty() && m_model->routingConfirmed())
        configuration = QStringLiteral("✓ Son des appels vérifié");
    setTextIfChanged(m_configuration, configuration);
    m_configure->setEnabled(!m_model->preparingAudio() && !m_model->busy());
    if (m_createDevices) {
        // Both stay offered whatever is found: one device may be missing, or at a wrong format.
        m_createDevices->setEnabled(!m_model->busy());
        m_removeDevices->setEnabled(!m_model->busy() && !m_model->armed());
    }

    markState(m_accessibility, m_model->accessibility(), QStringLiteral("Accessibilité autorisée"),
              QStringLiteral("Accessibilité à autoriser pour Vemira"));
    markState(m_microphone, m_model->micAllowed(), QStringLiteral("Accès audio autorisé"),
              QStringLiteral("Accès audio à autoriser pour Vemira"));
    setTextIfChanged(m_micStatus, m_model->microphoneStatus());
    m_testMic->setEnabled(!m_model->testingMicrophone() && !m_model->busy());

    setTextIfChanged(m_keyState, m_model->keyPresent() ? wording.keyStored
                                                       : QStringLiteral("Aucune clé enregistrée."));
    setTextIfChanged(m_aiStatus, m_model->aiStatus());
    m_verify->setEnabled(m_model->keyPresent() && !m_model->checkingAI());

    setTextIfChanged(m_phoneStatus, m_model->nativeAudioStatus());
    setTextIfChanged(m_relayStatus, m_model->relayStatus());
    m_observe->setText(m_model->observingRelay() ? QStringLiteral("Arrêter d’attendre")
                                                 : QStringLiteral("&Attendre un appel"));
    m_observe->setAccessibleName(m_model->observingRelay() ? QStringLiteral("Arrêter d’attendre")
                                                           : QStringLiteral("Attendre un appel"));
    markState(m_validated, done[3], QStringLiteral("Appel de test validé : le standard est prêt."),
              QStringLiteral("Appel de test pas encore validé"));
}

} // namespace vemira::ui
