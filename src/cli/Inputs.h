// zelkor-tag's PATHs as tracks: folders expanded (with their sub-folders when
// recursive), paths read from standard input, and a PATH that is no track kept
// for its own line.
#pragma once

#include "engine/Engine.h"

#include <QString>
#include <QStringList>
#include <cstdio>
#include <vector>

namespace Cli {

// A PATH's root is the folder it names, or a file PATH's own folder.
using Input = Engine::Input;

struct Collecting {
    bool recursive = false;
    QString excluded; // a folder whose tree is never read (the output folder)
};

// The tracks of `paths` in order. A folder gives its own tracks in the window's
// order (Engine::collect); recursive, then each sub-folder in name order, depth
// first, hidden ones and `excluded` left out.
std::vector<Input> collect(const QStringList& paths, const Collecting& how);
// Whether `path` names a folder, after following links.
bool isFolder(const QString& path);
// A folder's sub-folders, hidden ones left out, in the order the window sorts names.
QStringList subFolders(const QString& folder);
// Whether `path` lies in the folder `folder` or below it.
bool isWithin(const QString& path, const QString& folder);
// The lines of `in`, each a path, or its NUL-ended names when `nul`; empty ones
// are passed by.
QStringList readPaths(std::FILE* in, bool nul = false);
// The track as its line names it: its path below its root.
QString shownName(const Input& input);

} // namespace Cli
