#pragma once

// The application rig (real model on fake devices, fake phone window, real realtime client
// against a scripted loopback server) with a fake clipboard/save dialog and the real main
// window on top of it.

#include "AppRig.h"
#include "records/DesktopServices.h"
#include "ui/GuidedSetup.h"
#include "ui/MainWindow.h"

#include <memory>
#include <optional>

namespace vemira::testing {

// What the desktop would do with the clipboard and the save dialog, recorded.
class FakeDesktop final : public DesktopServices {
public:
    bool copyPlainText(const QString& text) override
    {
        if (!clipboardWorks)
            return false;
        clipboard = text;
        return true;
    }
    std::optional<QString> chooseSaveLocation(const QString& proposedName, FileType type) override
    {
        proposedNames << proposedName;
        types << type;
        return saveTo;
    }
    void revealInFileBrowser(const QString& path) override { revealed << path; }

    bool clipboardWorks = true;
    QString clipboard;
    std::optional<QString> saveTo; // nullopt = the user cancels
    QStringList proposedNames;
    QList<FileType> types;
    QStringList revealed;
};

// The windows built on the model; the calls are prepared by the test when it needs them.
struct UiRig : ModelRig {
    FakeDesktop* desktop = nullptr;
    std::unique_ptr<ui::GuidedSetup> setup;
    std::unique_ptr<ui::MainWindow> mainWindow;

    // `adjust` may put real parts in place of the fakes before the model starts.
    explicit UiRig(const std::function<void(RecordsStore&)>& seed = {}, bool withKey = true,
                   ui::SetupProbes probes = {},
                   const std::function<void(AppDependencies&)>& adjust = {})
        : ModelRig(withKey, seed)
    {
        AppDependencies deps = fakeDependencies();
        auto fakeDesktop = std::make_unique<FakeDesktop>();
        desktop = fakeDesktop.get();
        deps.desktop = std::move(fakeDesktop);
        if (adjust) {
            adjust(deps);
            if (deps.audioSystem.get() != system)
                system = nullptr;
        }
        model = std::make_unique<AppModel>(std::move(deps));
        setup = std::make_unique<ui::GuidedSetup>(*model, clock, std::move(probes));
        mainWindow = std::make_unique<ui::MainWindow>(model.get(), clock, setup.get());
        mainWindow->show();
    }

    ~UiRig()
    {
        mainWindow.reset();
        setup.reset();
    }
};

// A record as an earlier run would have saved it.
inline CallRecord seededRecord(const QString& caller, int daysAgo, std::optional<QString> dossier,
                               std::optional<QString> status, const QString& said)
{
    CallRecord r = CallRecord::create(QDateTime(QDate(2026, 3, 14), QTime(9, 30)).addDays(-daysAgo),
                                      caller, QStringLiteral("Appel"));
    r.dossier = std::move(dossier);
    r.followUpStatus = std::move(status);
    r.transcript << TranscriptLine::create(Speaker::caller(), said);
    return r;
}

} // namespace vemira::testing
