// Copying files, with the file system's own failure thrown as an error in the
// program's voice.
#pragma once

#include "platform/Failure.h"

#include <QString>

// A failed file operation: "CAN'T COPY VOICE.WAV: NOT A DIRECTORY". The reason
// is the system's own text for the failure, upper-cased.
class FileError : public Failure {
public:
    using Failure::Failure;
};

namespace Files {

// Copies the file `from` to `to`, which must not exist yet. The copy appears
// whole or not at all; throws FileError when it cannot be made.
void copy(const QString& from, const QString& to);

// Whether a name is taken: a dangling link counts, since a write would go through it.
bool occupied(const QString& path);

} // namespace Files
