#include "ui/MainWindow.h"

#include "app/AppModel.h"
#include "ui/AgentPage.h"
#include "ui/AppIcon.h"
#include "ui/Bind.h"
#include "ui/ConnectionsPage.h"
#include "ui/DashboardPage.h"
#include "ui/DossiersPage.h"
#include "ui/GuidePage.h"
#include "ui/LoginStart.h"
#include "ui/RecordingWindow.h"
#include "ui/SetupAssistant.h"
#include "ui/TestWindow.h"
#include "ui/Theme.h"
#include "ui/VoiceWindow.h"
#include "ui/Widgets.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QMenuBar>
#include <QMessageBox>
#include <QStackedWidget>
#include <QSystemTrayIcon>
#include <QVBoxLayout>

namespace vemira::ui {

MainWindow::MainWindow(AppModel* model, Clock& clock, GuidedSetup* setup, QWidget* parent)
    : QMainWindow(parent), m_model(model), m_clock(clock), m_setup(setup)
{
    setWindowTitle(QStringLiteral("Vemira"));
    setWindowIcon(AppIcon::application());
    setAccessibleName(QStringLiteral("Vemira"));
    resize(1100, 760);

    auto* central = new QWidget(this);
    auto* layout = new QVBoxLayout(central);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);

    // Header: who answers, the state, the standby switch.
    auto* header = new QFrame(central);
    header->setFrameShape(QFrame::StyledPanel);
    auto* headerLayout = new QHBoxLayout(header);
    headerLayout->setContentsMargins(16, 10, 16, 10);
    auto* logo = new QLabel(header);
    logo->setPixmap(AppIcon::pixmap(40));
    logo->setAccessibleName(QStringLiteral("Vemira"));
    headerLayout->addWidget(logo);
    auto* titles = new QVBoxLayout;
    auto* title = new QLabel(QStringLiteral("Vemira"), header);
    Theme::styleHeadline(title);
    titles->addWidget(title);
    m_company = makeLabel(QString(), header);
    Theme::styleSecondary(m_company);
    m_company->setAccessibleName(QStringLiteral("Entreprise"));
    titles->addWidget(m_company);
    headerLayout->addLayout(titles, 1);
    m_badge = new QLabel(header);
    m_badge->setAccessibleName(QStringLiteral("État"));
    headerLayout->addWidget(m_badge);
    headerLayout->addSpacing(16);
    m_standby = new ToggleSwitch(QStringLiteral("Répondre aux appels"), header);
    m_standby->setAccessibleDescription(
        QStringLiteral("Active ou met en pause le standard (Ctrl+R)"));
    headerLayout->addWidget(m_standby);
    layout->addWidget(header);

    // Navigation and pages.
    auto* body = new QHBoxLayout;
    body->setSpacing(0);
    m_nav = new QListWidget(central);
    m_nav->setAccessibleName(QStringLiteral("Pages"));
    m_nav->setFixedWidth(190);
    m_nav->setFrameShape(QFrame::NoFrame);
    m_nav->setSpacing(2);
    QFont navFont = m_nav->font();
    navFont.setPointSizeF(navFont.pointSizeF() * 1.08);
    m_nav->setFont(navFont);
    const QStringList names = pages::all();
    const QStringList labels = {QStringLiteral("Accueil"), QStringLiteral("Agent"),
                                QStringLiteral("Conversations"), QStringLiteral("Connexions"),
                                QStringLiteral("Guide")};
    for (int i = 0; i < names.size(); ++i) {
        auto* item = new QListWidgetItem(labels[i], m_nav);
        item->setData(Qt::UserRole, names[i]);
        item->setToolTip(labels[i] + QStringLiteral(" (Ctrl+%1)").arg(i + 1));
        item->setSizeHint(QSize(0, 34));
    }
    body->addWidget(m_nav);
    m_stack = new QStackedWidget(central);
    m_dashboard = new DashboardPage(m_model, m_clock, m_stack);
    m_agent = new AgentPage(m_model, m_stack);
    m_dossiers = new DossiersPage(m_model, m_stack);
    m_connections = new ConnectionsPage(m_model, m_setup, m_stack);
    m_guide = new GuidePage(m_model, m_stack);
    for (QWidget* page : {static_cast<QWidget*>(m_dashboard), static_cast<QWidget*>(m_agent),
                          static_cast<QWidget*>(m_dossiers), static_cast<QWidget*>(m_connections),
                          static_cast<QWidget*>(m_guide)})
        m_stack->addWidget(page);
    body->addWidget(m_stack, 1);
    layout->addLayout(body, 1);
    setCentralWidget(central);
    buildMenus();

    connect(m_nav, &QListWidget::currentRowChanged, this, [this](int row) {
        if (row < 0)
            return;
        const QString name = m_nav->item(row)->data(Qt::UserRole).toString();
        if (m_model->page() != name)
            m_model->setPage(name);
        m_stack->setCurrentIndex(row);
    });
    bind(m_model, &AppModel::pageChanged, this, [this] {
        const int row = int(pages::all().indexOf(m_model->page()));
        if (row >= 0 && m_nav->currentRow() != row)
            m_nav->setCurrentRow(row);
        if (row < 0 && m_nav->currentRow() < 0)
            m_nav->setCurrentRow(0);
    });
    connect(m_standby, &ToggleSwitch::clicked, this, [this] {
        m_model->toggleArmed();
        refreshState();
    });
    bind(m_model, &AppModel::armedChanged, this, &MainWindow::refreshState);
    connect(m_model, &AppModel::busyChanged, this, &MainWindow::refreshState);
    connect(m_model, &AppModel::checkingAIChanged, this, &MainWindow::refreshState);
    bind(m_model, &AppModel::companyChanged, this,
         [this] { setTextIfChanged(m_company, m_model->company()); });

    connect(m_dashboard, &DashboardPage::setupRequested, this, &MainWindow::openSetupAssistant);
    connect(m_dashboard, &DashboardPage::recordRequested, this, &MainWindow::showRecord);
    connect(m_guide, &GuidePage::setupRequested, this, &MainWindow::openSetupAssistant);
    connect(m_guide, &GuidePage::testRequested, this, &MainWindow::openTestWindow);
    connect(m_agent, &AgentPage::voiceWindowRequested, this, &MainWindow::openVoiceWindow);
    connect(m_agent, &AgentPage::testWindowRequested, this, &MainWindow::openTestWindow);
    connect(m_dossiers, &DossiersPage::listenRequested, this, &MainWindow::openRecording);

    // Panels the model asks for.
    connect(m_model, &AppModel::showSetupAssistantChanged, this, [this] {
        if (m_model->showSetupAssistant())
            openSetupAssistant();
    });
    connect(m_model, &AppModel::macAssistantOpenChanged, this, [this] {
        if (m_model->macAssistantOpen())
            openSetupAssistant()->showStep(1);
    });
    connect(m_model, &AppModel::showMacTestChanged, this, [this] {
        if (m_model->showMacTest())
            openTestWindow();
    });
    connect(m_model, &AppModel::showOutgoingTestChanged, this, [this] {
        if (m_model->showOutgoingTest())
            openTestWindow();
    });
    connect(m_model, &AppModel::showAgentSetupChanged, this, [this] {
        if (m_model->showAgentSetup())
            showPage(pages::agent());
    });
}

MainWindow::~MainWindow() = default;

void MainWindow::buildMenus()
{
    QMenu* file = menuBar()->addMenu(QStringLiteral("&Fichier"));
    QAction* standby = file->addAction(QStringLiteral("Répondre aux appels"));
    standby->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_R));
    connect(standby, &QAction::triggered, m_standby, &ToggleSwitch::click);
    file->addSeparator();
    QAction* quit = file->addAction(QStringLiteral("&Quitter Vemira"));
    quit->setShortcut(QKeySequence::Quit);
    quit->setMenuRole(QAction::QuitRole);
    connect(quit, &QAction::triggered, qApp, &QApplication::quit);

    QMenu* view = menuBar()->addMenu(QStringLiteral("&Affichage"));
    const QStringList names = pages::all();
    for (int i = 0; i < names.size(); ++i) {
        QAction* a = view->addAction(names[i]);
        a->setShortcut(QKeySequence(Qt::CTRL | Qt::Key(Qt::Key_1 + i)));
        connect(a, &QAction::triggered, this, [this, name = names[i]] { showPage(name); });
        addAction(a);
    }

    QMenu* windows = menuBar()->addMenu(QStringLiteral("Fe&nêtres"));
    QAction* setup = windows->addAction(QStringLiteral("Configuration guidée…"));
    setup->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_G));
    connect(setup, &QAction::triggered, this, &MainWindow::openSetupAssistant);
    QAction* voice = windows->addAction(QStringLiteral("Voix et style…"));
    voice->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_V));
    connect(voice, &QAction::triggered, this, &MainWindow::openVoiceWindow);
    QAction* test = windows->addAction(QStringLiteral("Essayer Vemira…"));
    test->setShortcut(QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_T));
    connect(test, &QAction::triggered, this, &MainWindow::openTestWindow);
}

void MainWindow::refreshState()
{
    {
        const QSignalBlocker block(m_standby);
        m_standby->setChecked(m_model->armed());
    }
    if (m_model->busy()) {
        m_badge->setText(QStringLiteral("En appel"));
        Theme::styleBadge(m_badge, Tone::Warning);
    } else if (m_model->armed()) {
        m_badge->setText(QStringLiteral("À l’écoute"));
        Theme::styleBadge(m_badge, Tone::Good);
    } else if (m_model->checkingAI()) {
        m_badge->setText(QStringLiteral("Vérification…"));
        Theme::styleBadge(m_badge, Tone::Neutral);
    } else {
        m_badge->setText(QStringLiteral("En pause"));
        Theme::styleBadge(m_badge, Tone::Neutral);
    }
    m_badge->setAccessibleDescription(m_badge->text());
}

void MainWindow::showPage(const QString& name)
{
    m_model->setPage(name);
}

QString MainWindow::currentPage() const
{
    const int row = m_nav->currentRow();
    return row < 0 ? QString() : m_nav->item(row)->data(Qt::UserRole).toString();
}

void MainWindow::setLoginStart(LoginStart* start)
{
    m_loginStart = start;
    m_connections->addLoginStartSwitch(start->makeSwitch(m_connections));
}

SetupAssistant* MainWindow::openSetupAssistant()
{
    if (!m_setupWindow) {
        m_setupWindow = new SetupAssistant(m_model, m_setup, this);
        if (m_loginStart)
            m_setupWindow->addToLastStep(m_loginStart->makeSwitch(m_setupWindow));
        connect(m_setupWindow, &QDialog::finished, this, [this] {
            m_model->setShowSetupAssistant(false);
            m_model->setMacAssistantOpen(false);
        });
    }
    m_setupWindow->show();
    m_setupWindow->raise();
    m_setupWindow->activateWindow();
    return m_setupWindow;
}

VoiceWindow* MainWindow::openVoiceWindow()
{
    if (!m_voiceWindow)
        m_voiceWindow = new VoiceWindow(m_model, this);
    m_voiceWindow->show();
    m_voiceWindow->raise();
    m_voiceWindow->activateWindow();
    return m_voiceWindow;
}

TestWindow* MainWindow::openTestWindow()
{
    if (!m_testWindow) {
        m_testWindow = new TestWindow(m_model, this);
        connect(m_testWindow, &QDialog::finished, this, [this] {
            m_model->setShowMacTest(false);
            m_model->setShowOutgoingTest(false);
        });
    }
    m_testWindow->show();
    m_testWindow->raise();
    m_testWindow->activateWindow();
    return m_testWindow;
}

RecordingWindow* MainWindow::openRecording(const QUuid& id)
{
    if (!m_recordingWindow)
        m_recordingWindow = new RecordingWindow(m_model, this);
    m_recordingWindow->setRecord(id);
    m_recordingWindow->show();
    m_recordingWindow->raise();
    m_recordingWindow->activateWindow();
    return m_recordingWindow;
}

void MainWindow::showRecord(const QUuid& id)
{
    m_model->setSelectedRecord(id);
    // A null id comes from an alert about the receptionist, told on the home page.
    showPage(id.isNull() ? pages::home() : pages::conversations());
    showNormal();
    raise();
    activateWindow();
}

void MainWindow::presentStartupAssistant()
{
    if (m_model->startupAssistantPresented() || m_model->readinessIssues().isEmpty())
        return;
    m_model->setStartupAssistantPresented(true);
    openSetupAssistant();
}

void MainWindow::closeEvent(QCloseEvent* event)
{
    m_dossiers->commitNote();
    // With a status icon the switchboard keeps listening when the window is closed.
    if (QSystemTrayIcon::isSystemTrayAvailable() && !QApplication::closingDown() &&
        qApp->property("vemiraTrayVisible").toBool()) {
        hide();
        event->ignore();
        return;
    }
    // Without a tray the window is the only way back; closing it would stop answering. Opening
    // Vemira again from the menu brings a hidden window forward.
    if (!QApplication::closingDown() && m_model->armed()) {
        const auto answer = QMessageBox::question(
            this, QStringLiteral("Vemira"),
            QStringLiteral("Continuer à répondre aux appels en arrière-plan ?\n\nOui : la fenêtre "
                           "se ferme et le standard reste en veille ; rouvrez Vemira depuis le "
                           "menu des applications pour la retrouver.\nNon : Vemira s’arrête et "
                           "ne répond plus."),
            QMessageBox::Yes | QMessageBox::No | QMessageBox::Cancel, QMessageBox::Yes);
        if (answer != QMessageBox::No) {
            if (answer == QMessageBox::Yes)
                hide();
            event->ignore();
            return;
        }
    }
    QMainWindow::closeEvent(event);
}

} // namespace vemira::ui
