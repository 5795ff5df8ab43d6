#pragma once

#include "records/DesktopServices.h"

class QWidget;

namespace vemira::ui {

// The real clipboard, save dialog and file browser of the desktop the application runs on.
class GuiDesktopServices final : public DesktopServices {
public:
    // Dialogs are parented to `dialogParent` when set, so they stay on top of the window.
    explicit GuiDesktopServices(QWidget* dialogParent = nullptr) : m_parent(dialogParent) {}
    void setDialogParent(QWidget* parent) { m_parent = parent; }

    bool copyPlainText(const QString& text) override;
    std::optional<QString> chooseSaveLocation(const QString& proposedName, FileType type) override;
    void revealInFileBrowser(const QString& path) override;

private:
    QWidget* m_parent;
};

} // namespace vemira::ui
