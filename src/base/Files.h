// Writing and copying files so that each appears whole or not at all, with the
// file system's own failure thrown as a TagError naming what was tried:
// "CAN'T COPY VOICE.WAV: NOT A DIRECTORY".
#pragma once

#include "base/TagError.h"

#include <QByteArray>
#include <QString>

namespace Files {

// Copies the regular file `from` to `to`, which must not exist: a name taken
// meanwhile by another program fails with EEXIST instead of being replaced.
// Throws TagError when the copy cannot be made; nothing is left behind then.
void copy(const QString& from, const QString& to);

// Writes a new file at `path`, which must not exist, in the same way.
void create(const QString& path, const QByteArray& contents);

// Replaces the file at `path` with `contents` in one step. Every write is
// checked before the new file takes the name; on failure the old file stays
// whole and a TagError is thrown.
void replace(const QString& path, const QByteArray& contents);

// Moves `from` to `to` on one file system, failing with EEXIST when `to` is taken.
// Returns errno, or 0 on success.
int moveNew(const QString& from, const QString& to);
// The same for names given as the bytes the file system holds.
int moveNew(const QByteArray& from, const QByteArray& to);

// Whether a name is taken: a dangling link counts, since a write would go through it.
bool occupied(const QString& path);
// The same for a name given as the bytes the file system holds.
bool occupied(const QByteArray& path);

} // namespace Files
