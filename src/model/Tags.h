// The user's library of tag clips: a folder of audio files, the selection
// (by file name, in the preferences) and the once-per-installation seeding.
#pragma once

#include <QSet>
#include <QString>
#include <QStringList>
#include <optional>

namespace Tags {

const QSet<QString>& exts();
// The one test of what counts as a clip, by name: the listing, drops, choosers
// and zelkor-tag all ask it. "VOICE.WAV" is one; ".wav" is a hidden name, not one.
bool isClip(const QString& path);

// $XDG_DATA_HOME/ODRAVEX Zelkor/Tags, created on every read (failure ignored).
QString dir();
// The library's clips, in the file browser's order.
QStringList all();

std::optional<QString> selected();
void setSelected(const std::optional<QString>& path);

// "my tag.wav" -> "MY TAG"
QString name(const QString& path);

// Copies the file into the library under a free name and selects the copy;
// throws FileError for a file that is no clip, or the file system's error when
// the copy fails.
QString add(const QString& path);
void seedDefaults();
// Moves the clip to the desktop's trash; failures are ignored.
void remove(const QString& path);

} // namespace Tags
