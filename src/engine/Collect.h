// Expanding dropped files and folders into the ordered list of tracks.
#pragma once

#include <QString>
#include <QStringList>

namespace Engine {

// Whether the name is a track's: an MP3 or WAV name, not an output's ("(Tagged)") nor a
// sidecar's ("._NAME").
bool isTrack(const QString& path);
// The tracks among `paths`, a folder giving its own in code-point name order.
QStringList collect(const QStringList& paths);
// Whether collect would find any track; stops at the first (a drag asks on every move).
bool hasTracks(const QStringList& paths);

} // namespace Engine
