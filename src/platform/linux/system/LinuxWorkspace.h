#pragma once

#include "app/SystemServices.h"

#include <QStringList>
#include <functional>

namespace vemira {

// The desktop through freedesktop conventions: addresses go to xdg-open, a file is shown
// through the file manager's D-Bus interface (or its folder opened when there is none).
// Linux has no capture permission: the microphone is always allowed.
class LinuxWorkspace final : public Workspace {
public:
    // Starts `program` detached; true when it could be started. Replaceable for tests.
    using Launcher = std::function<bool(const QString& program, const QStringList& arguments)>;

    explicit LinuxWorkspace(Launcher launcher = {});

    bool openUrl(const QUrl& url) override;
    void revealFile(const QString& path) override;
    bool microphoneAuthorized() const override { return true; }

private:
    Launcher m_launch;
};

} // namespace vemira
