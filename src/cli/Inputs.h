// zelkor-tag's PATHs as tracks: folders expanded (with their sub-folders when
// recursive), paths read from standard input, and a PATH that is no track kept
// for its own line.
#pragma once

#include <QString>
#include <QStringList>
#include <cstdio>
#include <vector>

namespace Cli {

struct Input {
    QString track;   // absolute; for a PATH that is no track, the PATH as given
    QString root;    // the folder the PATH names, or a file PATH's own folder
    QString problem; // "NOT FOUND" or "NOT A TRACK"; empty for a track
};

inline const QString kNotFound = QStringLiteral("NOT FOUND");
inline const QString kNotATrack = QStringLiteral("NOT A TRACK");

struct Collecting {
    bool recursive = false;
    QString excluded; // a folder whose tree is never read (the output folder)
};

// The tracks of `paths` in order. A folder gives its own tracks in the window's
// order (Engine::collect); recursive, then each sub-folder in name order, depth
// first, hidden ones and `excluded` left out.
std::vector<Input> collect(const QStringList& paths, const Collecting& how);
// A folder's sub-folders, hidden ones left out, in the order the window sorts names.
QStringList subFolders(const QString& folder);
// Whether `path` lies in the folder `folder` or below it.
bool isWithin(const QString& path, const QString& folder);
// The lines of `in`, each a path; empty lines are passed by.
QStringList readPaths(std::FILE* in);
// The track as its line names it: its path below its root.
QString shownName(const Input& input);
// The folder under `outputDir` that mirrors the track's own below its root.
QString mirroredFolder(const Input& input, const QString& outputDir);

} // namespace Cli
