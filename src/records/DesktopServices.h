#pragma once

#include <QString>
#include <optional>

namespace vemira {

// The three desktop facilities the record actions need, behind an interface so the
// records store is testable without a display. Main thread only.
class DesktopServices {
public:
    enum class FileType { PlainText, WaveAudio };

    virtual ~DesktopServices() = default;
    // Replaces the clipboard with plain text; false when the system refused it.
    virtual bool copyPlainText(const QString& text) = 0;
    // Modal save dialog; the chosen absolute path, or nothing when cancelled.
    virtual std::optional<QString> chooseSaveLocation(const QString& proposedName,
                                                      FileType type) = 0;
    // Shows the file selected in the platform's file browser.
    virtual void revealInFileBrowser(const QString& path) = 0;
};

} // namespace vemira
