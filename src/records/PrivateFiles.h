#pragma once

#include "core/AppError.h"

#include <QByteArray>
#include <QString>

namespace vemira {

// Owner-only files and folders. Errors carry a French description of what failed, meant to
// follow a sentence such as "Impossible de sauvegarder l’historique : ".
namespace PrivateFiles {

// Creates the folder and any missing parents with mode 0700. With `enforceMode`, an
// existing folder is set back to 0700 as well.
Status ensureFolder(const QString& path, bool enforceMode = false);
// Replaces the file atomically with these bytes, then sets its mode to 0600.
Status write(const QString& path, const QByteArray& bytes);
// Replaces the file atomically, leaving its mode to the system (files the user exports).
Status writeAtomically(const QString& path, const QByteArray& bytes);
// Sets the mode to 0600 (for files written by other means).
Status restrict(const QString& path);
Result<QByteArray> read(const QString& path);

} // namespace PrivateFiles

} // namespace vemira
