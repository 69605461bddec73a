// The desktop's trash (freedesktop), from which the user can restore a file.
#pragma once

#include <QString>
#include <optional>

namespace Trash {

// Moves a file or folder to the user's trash; returns its absolute path inside
// the trash, or nothing when it was not moved there.
std::optional<QString> moveToTrash(const QString& path);

} // namespace Trash
