#include "ui/ConnectionsPage.h"

#include "app/AppModel.h"
#include "phone/SoftphoneProfile.h"
#include "records/RecordingRetention.h"
#include "ui/Bind.h"
#include "ui/GuidedSetup.h"
#include "ui/MailSettingsCard.h"
#include "ui/Theme.h"
#include "ui/UiTexts.h"
#include "ui/Widgets.h"

#include <QAbstractListModel>
#include <QComboBox>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QVBoxLayout>

namespace vemira::ui {

namespace {

// The model picker's list: each current model with a word on its cost; choosing one writes its
// bare name in the field (an editable combo box shows the edit role there).
class CurrentModels final : public QAbstractListModel {
public:
    using QAbstractListModel::QAbstractListModel;
    int rowCount(const QModelIndex& parent) const override
    {
        return parent.isValid() ? 0 : int(m_models.size());
    }
    QVariant data(const QModelIndex& index, int role) const override
    {
        if (!index.isValid() || index.row() >= m_models.size())
            return {};
        const RealtimeModelInfo& info = m_models.at(index.row());
        if (role == Qt::EditRole)
            return info.name;
        if (role == Qt::DisplayRole || role == Qt::AccessibleTextRole)
            return info.name + QStringLiteral(" — ") + info.cost;
        return {};
    }

private:
    QList<RealtimeModelInfo> m_models = ModelCatalogue::current();
};

} // namespace

namespace {

// Fills a device picker: a first "not chosen" entry, then the devices that fit; a stored
// uid that is not connected right now stays visible so the choice is not lost silently.
void fillDevices(QComboBox* combo, const QList<SoundDevice>& devices, bool wantInput,
                 const QString& chosen)
{
    const QSignalBlocker block(combo);
    combo->clear();
    combo->addItem(QStringLiteral("Choisir…"), QString());
    for (const SoundDevice& d : devices) {
        if ((wantInput && d.input) || (!wantInput && d.output))
            combo->addItem(d.name.isEmpty() ? d.uid : d.name, d.uid);
    }
    int index = combo->findData(chosen);
    if (index < 0 && !chosen.isEmpty()) {
        combo->addItem(QStringLiteral("Non branché (") + chosen + QStringLiteral(")"), chosen);
        index = combo->count() - 1;
    }
    combo->setCurrentIndex(qMax(0, index));
}

QLabel* rowLabel(const QString& text, QWidget* control, QWidget* parent)
{
    auto* label = new QLabel(text, parent);
    nameAfter(control, label);
    return label;
}

} // namespace

ConnectionsPage::ConnectionsPage(AppModel* model, GuidedSetup* setup, QWidget* parent)
    : QWidget(parent), m_model(model), m_setup(setup)
{
    setAccessibleName(QStringLiteral("Connexions"));
    auto* layout = makeScrollingPage(this);
    auto* content = layout->parentWidget();

    // The AI: key and check.
    auto* ai = new Card(QStringLiteral("Connexion à l’IA (OpenAI)"), content);
    ai->body()->addWidget(makeLabel(texts::keyOnce(), ai));
    auto* keyRow = new QHBoxLayout;
    m_key = new QLineEdit(ai);
    m_key->setEchoMode(QLineEdit::Password);
    m_key->setPlaceholderText(QStringLiteral("sk-…"));
    m_key->setAccessibleName(QStringLiteral("Clé API OpenAI"));
    keyRow->addWidget(m_key, 1);
    m_saveKey = makeButton(QStringLiteral("Enregistrer la &clé"), ai);
    keyRow->addWidget(m_saveKey);
    m_deleteKey = makeButton(QStringLiteral("Supprimer la clé"), ai);
    keyRow->addWidget(m_deleteKey);
    ai->body()->addLayout(keyRow);
    auto* storage = makeLabel(texts::keyStorage(), ai);
    Theme::styleSecondary(storage);
    ai->body()->addWidget(storage);
    m_keyState = makeLabel(QString(), ai);
    m_keyState->setAccessibleName(QStringLiteral("État de la clé"));
    ai->body()->addWidget(m_keyState);
    auto* form = new QFormLayout;
    // The provider's current models, and any other name typed in.
    m_modelName = new QComboBox(ai);
    m_modelName->setEditable(true);
    m_modelName->setInsertPolicy(QComboBox::NoInsert);
    m_modelName->setModel(new CurrentModels(m_modelName));
    m_modelCost = makeLabel(QString(), ai);
    Theme::styleSecondary(m_modelCost);
    auto* modelColumn = new QVBoxLayout;
    modelColumn->addWidget(m_modelName);
    modelColumn->addWidget(m_modelCost);
    form->addRow(rowLabel(QStringLiteral("&Modèle IA :"), m_modelName, ai), modelColumn);
    ai->body()->addLayout(form);
    auto* verifyRow = new QHBoxLayout;
    m_verify = makeButton(QStringLiteral("&Vérifier la connexion IA"), ai);
    verifyRow->addWidget(m_verify);
    m_aiStatus = makeLabel(QString(), ai);
    m_aiStatus->setAccessibleName(QStringLiteral("État de la connexion IA"));
    verifyRow->addWidget(m_aiStatus, 1);
    ai->body()->addLayout(verifyRow);
    layout->addWidget(ai);

    // The call's two devices.
    auto* call = new Card(QStringLiteral("Son des appels"), content);
    auto* callForm = new QFormLayout;
    m_input = new QComboBox(call);
    callForm->addRow(rowLabel(QStringLiteral("&Entrée (voix de l’appelant) :"), m_input, call),
                     m_input);
    m_output = new QComboBox(call);
    callForm->addRow(rowLabel(QStringLiteral("&Sortie (voix de Vemira) :"), m_output, call),
                     m_output);
    call->body()->addLayout(callForm);
    auto* callRow = new QHBoxLayout;
    auto* configure = makeButton(texts::configureAndTest(), call);
    auto* refresh = makeButton(QStringLiteral("Actualiser la liste"), call);
    auto* saveSettings = makeButton(texts::saveSettings(), call);
    callRow->addWidget(configure);
    callRow->addWidget(refresh);
    callRow->addStretch(1);
    callRow->addWidget(saveSettings);
    call->body()->addLayout(callRow);
    m_routing = makeLabel(QString(), call);
    m_routing->setAccessibleName(QStringLiteral("État du son"));
    call->body()->addWidget(m_routing);
    layout->addWidget(call);

    // The e-mail to the owner after each call.
    m_mail = new MailSettingsCard(m_model->afterCallNotices(), content);
    layout->addWidget(m_mail);

    // The manager's own devices.
    auto* manager = new Card(texts::interventionSection(), content);
    auto* explain = makeLabel(QStringLiteral("Pour reprendre un appel vous-même : votre micro et "
                                             "votre casque ou haut-parleur, différents de ceux de "
                                             "l’appel."),
                              manager);
    Theme::styleSecondary(explain);
    manager->body()->addWidget(explain);
    auto* managerForm = new QFormLayout;
    m_micPicker = new QComboBox(manager);
    managerForm->addRow(rowLabel(QStringLiteral("Votre mi&cro :"), m_micPicker, manager),
                        m_micPicker);
    m_listenPicker = new QComboBox(manager);
    managerForm->addRow(
        rowLabel(QStringLiteral("Votre cas&que ou haut-parleur :"), m_listenPicker, manager),
        m_listenPicker);
    manager->body()->addLayout(managerForm);
    layout->addWidget(manager);

    // The phone application's audio: its own menu on macOS; on Linux Vemira routes the
    // softphone's streams at each call, so there is nothing to press, only a state to read.
    const PlatformWording& wording = PlatformWording::current();
    auto* phone = new Card(wording.phoneAudioTitle, content);
    auto* phoneRow = new QHBoxLayout;
    auto* prepare = makeButton(texts::prepareLink(), phone);
    auto* back = makeButton(texts::phoneBackToSystem(), phone);
    prepare->setVisible(wording.phoneAudioMenu);
    back->setVisible(wording.phoneAudioMenu);
    if (m_setup->makesDevices()) {
        auto* check =
            makeButton(QStringLiteral("Vérifier le son du logiciel de téléphonie"), phone);
        phoneRow->addWidget(check);
        connect(check, &QPushButton::clicked, this, [this] { m_setup->checkPhoneAudio(); });
    }
    phoneRow->addWidget(prepare);
    phoneRow->addWidget(back);
    phoneRow->addStretch(1);
    phone->body()->addLayout(phoneRow);
    m_phoneStatus = makeLabel(QString(), phone);
    m_phoneStatus->setAccessibleName(wording.phoneAudioStateName);
    phone->body()->addWidget(m_phoneStatus);
    // Which softphone is watched; macOS has only its Phone application.
    auto* phoneAppRow = new QWidget(phone);
    auto* phoneAppLayout = new QHBoxLayout(phoneAppRow);
    phoneAppLayout->setContentsMargins(0, 0, 0, 0);
    auto* phoneAppLabel = makeLabel(QStringLiteral("Application de téléphonie :"), phoneAppRow);
    m_phoneApp = new QComboBox(phoneAppRow);
    nameAfter(m_phoneApp, phoneAppLabel);
    m_phoneApp->addItem(QStringLiteral("Toutes les applications connues"), QString());
    for (const SoftphoneProfile& profile : softphones::known()) {
        if (profile.id != QLatin1String("test"))
            m_phoneApp->addItem(profile.name, profile.id);
    }
    phoneAppLayout->addWidget(phoneAppLabel);
    phoneAppLayout->addWidget(m_phoneApp);
    phoneAppLayout->addStretch(1);
    phoneAppRow->setVisible(wording.platform == WordingPlatform::Linux);
    phone->body()->addWidget(phoneAppRow);
    layout->addWidget(phone);

    auto* recording = new Card(QStringLiteral("Enregistrement et autorisations"), content);
    m_recording = new ToggleSwitch(QStringLiteral("Enregistrer l’audio des appels"), recording);
    recording->body()->addWidget(m_recording);
    auto* retentionRow = new QHBoxLayout;
    retentionRow->addWidget(makeLabel(RecordingRetention::title(), recording));
    m_retention = new QComboBox(recording);
    m_retention->setAccessibleName(RecordingRetention::title());
    for (int days : RecordingRetention::choices())
        m_retention->addItem(RecordingRetention::label(days), days);
    retentionRow->addWidget(m_retention);
    retentionRow->addStretch(1);
    recording->body()->addLayout(retentionRow);
    m_rearmOnWake = new ToggleSwitch(QStringLiteral("Réactiver le standard au réveil"), recording);
    recording->body()->addWidget(m_rearmOnWake);
    m_optionsBody = recording->body();
    m_permissions = makeLabel(QString(), recording);
    m_permissions->setAccessibleName(QStringLiteral("Autorisations"));
    recording->body()->addWidget(m_permissions);
    layout->addWidget(recording);
    layout->addStretch(1);

    connect(m_saveKey, &QPushButton::clicked, this, [this] {
        m_model->saveKey(m_key->text());
        // The key never stays on screen once it is stored.
        if (m_model->keyPresent() && m_model->error().isEmpty())
            m_key->clear();
    });
    connect(m_key, &QLineEdit::returnPressed, m_saveKey, &QPushButton::click);
    connect(m_deleteKey, &QPushButton::clicked, m_model, &AppModel::deleteKey);
    connect(m_verify, &QPushButton::clicked, this, [this] { m_model->verifyAI(false); });
    const auto takeModel = [this] {
        if (m_modelName->currentText() != m_model->model())
            m_model->setModel(m_modelName->currentText());
    };
    connect(m_modelName->lineEdit(), &QLineEdit::editingFinished, this, takeModel);
    connect(m_modelName, &QComboBox::activated, this, takeModel);
    connect(m_input, &QComboBox::currentIndexChanged, this,
            [this] { m_model->setInputUID(m_input->currentData().toString()); });
    connect(m_output, &QComboBox::currentIndexChanged, this,
            [this] { m_model->setOutputUID(m_output->currentData().toString()); });
    connect(m_micPicker, &QComboBox::currentIndexChanged, this,
            [this] { m_model->setInterventionMicUID(m_micPicker->currentData().toString()); });
    connect(m_listenPicker, &QComboBox::currentIndexChanged, this, [this] {
        m_model->setInterventionOutputUID(m_listenPicker->currentData().toString());
    });
    connect(configure, &QPushButton::clicked, this, [this] { m_setup->configureSound(); });
    connect(refresh, &QPushButton::clicked, m_model, &AppModel::refresh);
    connect(saveSettings, &QPushButton::clicked, m_model, &AppModel::saveSettings);
    connect(prepare, &QPushButton::clicked, this, [this] { m_setup->prepareLink(); });
    connect(back, &QPushButton::clicked, this, [this] { m_setup->phoneBackToSystem(); });
    connect(m_retention, &QComboBox::currentIndexChanged, this, [this] {
        const int days = m_retention->currentData().toInt();
        if (days != m_model->recordingRetentionDays())
            m_model->setRecordingRetentionDays(days);
    });
    connect(m_recording, &ToggleSwitch::toggled, this, [this](bool on) {
        if (on != m_model->recordingEnabled())
            m_model->setRecordingEnabled(on);
    });
    connect(m_rearmOnWake, &ToggleSwitch::toggled, m_model, &AppModel::setRearmOnWake);

    bind(m_model, &AppModel::keyPresentChanged, this, [this] {
        m_keyState->setText(m_model->keyPresent() ? PlatformWording::current().keyStored
                                                  : QStringLiteral("Aucune clé enregistrée."));
        m_deleteKey->setEnabled(m_model->keyPresent());
    });
    bind(m_model, &AppModel::aiStatusChanged, this,
         [this] { setTextIfChanged(m_aiStatus, m_model->aiStatus()); });
    bind(m_model, &AppModel::checkingAIChanged, this,
         [this] { m_verify->setEnabled(!m_model->checkingAI()); });
    bind(m_model, &AppModel::modelChanged, this, [this] {
        if (m_modelName->currentText() != m_model->model())
            m_modelName->setCurrentText(m_model->model());
        const RealtimeModelInfo* info = ModelCatalogue::find(m_model->model().trimmed());
        m_modelCost->setText(
            !info ? QStringLiteral("Hors de la liste d’OpenAI connue de Vemira : "
                                   "coût non estimé.")
            : info->shutdown
                ? QStringLiteral("Arrêt annoncé le ") + frenchDate(*info->shutdown) +
                      QStringLiteral(" : choisissez ") + info->successor + QLatin1Char('.')
                : QStringLiteral("Coût : ") + info->cost + QLatin1Char('.'));
    });
    bind(m_model, &AppModel::devicesChanged, this, &ConnectionsPage::refreshDevices);
    connect(m_model, &AppModel::inputUIDChanged, this, &ConnectionsPage::refreshDevices);
    connect(m_model, &AppModel::outputUIDChanged, this, &ConnectionsPage::refreshDevices);
    connect(m_model, &AppModel::interventionMicUIDChanged, this, &ConnectionsPage::refreshDevices);
    connect(m_model, &AppModel::interventionOutputUIDChanged, this,
            &ConnectionsPage::refreshDevices);
    auto routing = [this] {
        QString text = m_model->routingConfirmed() ? QStringLiteral("✓ Son des appels vérifié")
                                                   : QStringLiteral("Son des appels non vérifié");
        if (!m_model->configurationStatus().isEmpty())
            text += QStringLiteral(" — ") + m_model->configurationStatus();
        setTextIfChanged(m_routing, text);
    };
    bind(m_model, &AppModel::routingConfirmedChanged, this, routing);
    connect(m_model, &AppModel::configurationStatusChanged, this, routing);
    bind(m_model, &AppModel::nativeAudioStatusChanged, this,
         [this] { setTextIfChanged(m_phoneStatus, m_model->nativeAudioStatus()); });
    bind(m_model, &AppModel::recordingRetentionDaysChanged, this, [this] {
        const QSignalBlocker block(m_retention);
        m_retention->setCurrentIndex(
            qMax(0, m_retention->findData(m_model->recordingRetentionDays())));
    });
    connect(m_phoneApp, &QComboBox::currentIndexChanged, this,
            [this] { m_model->setPhoneApp(m_phoneApp->currentData().toString()); });
    bind(m_model, &AppModel::phoneAppChanged, this, [this] {
        const QSignalBlocker block(m_phoneApp);
        const QString choice = m_model->phoneApp();
        // A name given elsewhere (the settings file, an older version) stays shown as is.
        if (m_phoneApp->findData(choice) < 0)
            m_phoneApp->addItem(choice, choice);
        m_phoneApp->setCurrentIndex(m_phoneApp->findData(choice));
    });
    bind(m_model, &AppModel::rearmOnWakeChanged, this, [this] {
        const QSignalBlocker block(m_rearmOnWake);
        m_rearmOnWake->setChecked(m_model->rearmOnWake());
    });
    bind(m_model, &AppModel::recordingEnabledChanged, this, [this] {
        const QSignalBlocker block(m_recording);
        m_recording->setChecked(m_model->recordingEnabled());
    });
    auto permissions = [this] {
        QStringList lines;
        lines << (m_model->accessibility() ? QStringLiteral("✓ Accessibilité autorisée")
                                           : QStringLiteral("✗ Accessibilité à autoriser"));
        lines << (m_model->micAllowed() ? QStringLiteral("✓ Accès audio autorisé")
                                        : QStringLiteral("✗ Accès audio à autoriser"));
        if (!m_model->permissionReport().isEmpty())
            lines << m_model->permissionReport();
        setTextIfChanged(m_permissions, lines.join(QLatin1Char('\n')));
    };
    bind(m_model, &AppModel::accessibilityChanged, this, permissions);
    connect(m_model, &AppModel::micAllowedChanged, this, permissions);
    connect(m_model, &AppModel::permissionReportChanged, this, permissions);
}

void ConnectionsPage::addLoginStartSwitch(QWidget* toggle)
{
    m_optionsBody->insertWidget(m_optionsBody->indexOf(m_rearmOnWake) + 1, toggle);
}

void ConnectionsPage::refreshDevices()
{
    const QList<SoundDevice>& devices = m_model->devices();
    fillDevices(m_input, devices, true, m_model->inputUID());
    fillDevices(m_output, devices, false, m_model->outputUID());
    fillDevices(m_micPicker, devices, true, m_model->interventionMicUID());
    fillDevices(m_listenPicker, devices, false, m_model->interventionOutputUID());
}

} // namespace vemira::ui
