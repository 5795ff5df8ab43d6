#include "ui/Screenshots.h"

#include "ui/AppIcon.h"
#include "ui/AssignmentDialog.h"
#include "ui/Bind.h"
#include "ui/DossiersPage.h"
#include "ui/MainWindow.h"
#include "ui/RecordingWindow.h"
#include "ui/SetupAssistant.h"
#include "ui/TestWindow.h"
#include "ui/UsagePanel.h"
#include "ui/VoiceWindow.h"

#include <QApplication>
#include <QDir>
#include <QLineEdit>
#include <QPixmap>
#include <QTableView>
#include <QThread>
#include <QToolButton>

namespace vemira::ui {

namespace {

void settle()
{
    for (int i = 0; i < 5; ++i) {
        QApplication::processEvents();
        QThread::msleep(20);
    }
}

QString save(QWidget* widget, const QString& folder, const QString& name, const QString& suffix)
{
    settle();
    const QString path = QDir(folder).filePath(name + suffix + QStringLiteral(".png"));
    widget->grab().save(path);
    return path;
}

} // namespace

QStringList saveScreenshots(MainWindow& window, const QString& folder, const QString& suffix)
{
    QDir().mkpath(folder);
    QStringList files;
    window.show();
    const QStringList names = pages::all();
    const QStringList fileNames = {QStringLiteral("1-accueil"), QStringLiteral("2-agent"),
                                   QStringLiteral("3-conversations"),
                                   QStringLiteral("4-connexions"), QStringLiteral("5-guide")};
    for (int i = 0; i < names.size(); ++i) {
        window.showPage(names[i]);
        files << save(&window, folder, fileNames[i], suffix);
    }

    // The dossier page with a search under way, and the assignment sheet.
    window.showPage(pages::conversations());
    DossiersPage* dossiers = window.dossiersPage();
    dossiers->searchField()->setText(QStringLiteral("EVIER"));
    files << save(&window, folder, QStringLiteral("3b-conversations-recherche"), suffix);
    dossiers->searchField()->clear();
    window.showPage(pages::home());

    SetupAssistant* setup = window.openSetupAssistant();
    for (int step = 0; step < 4; ++step) {
        setup->showStep(step);
        files << save(setup, folder, QStringLiteral("6-configuration-etape-%1").arg(step + 1),
                      suffix);
    }
    setup->close();

    VoiceWindow* voice = window.openVoiceWindow();
    files << save(voice, folder, QStringLiteral("7-voix"), suffix);
    voice->close();

    TestWindow* test = window.openTestWindow();
    files << save(test, folder, QStringLiteral("8-essai"), suffix);
    test->close();

    const QList<QUuid> ids = [&] {
        QList<QUuid> list;
        for (int row = 0; row < dossiers->table()->model()->rowCount(); ++row)
            list << dossiers->table()->model()->index(row, 0).data(Qt::UserRole + 1).toUuid();
        return list;
    }();
    if (!ids.isEmpty()) {
        RecordingWindow* recording = window.openRecording(ids.first());
        files << save(recording, folder, QStringLiteral("9-enregistrement"), suffix);
        recording->close();
    }

    // The usage explanation as it unfolds during a call.
    UsagePanel usage;
    usage.setUsageLabel(QStringLiteral("1500 tokens reçus d’OpenAI · budget prudent : 0.10 $ US"));
    usage.explanationButton()->setChecked(true);
    usage.setFixedWidth(640);
    usage.show();
    settle();
    usage.adjustSize();
    files << save(&usage, folder, QStringLiteral("10-budget"), suffix);

    for (auto [state, name] : {std::pair{StandbyState::Paused, QStringLiteral("pause")},
                               std::pair{StandbyState::Listening, QStringLiteral("ecoute")},
                               std::pair{StandbyState::InCall, QStringLiteral("appel")}}) {
        const QString path =
            QDir(folder).filePath(QStringLiteral("icone-") + name + QStringLiteral(".png"));
        AppIcon::tray(state).pixmap(64).save(path);
        files << path;
    }
    const QString appIcon = QDir(folder).filePath(QStringLiteral("icone-application.png"));
    AppIcon::pixmap(256).save(appIcon);
    files << appIcon;
    return files;
}

} // namespace vemira::ui
