// What the program does with files, each in one place: writes that appear whole
// or not at all, numbered free names, a file's identity, folders, listings and
// the order of names. Paths are QStrings whose bytes are Names' (never
// QFile::encodeName); the file system's own failure is thrown as a TagError
// naming what was tried: "CAN'T COPY VOICE.WAV: NOT A DIRECTORY".
#pragma once

#include "base/TagError.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QString>
#include <QStringList>
#include <compare>
#include <functional>
#include <optional>
#include <sys/types.h>
#include <utility>

namespace Files {

// --- whole files -----------------------------------------------------------

// Whether a replaced file is on the disk before it takes the name: a power cut
// then leaves the old file or the new one. A cache that can be measured again
// needs no such wait.
enum class Sync { durable, cached };

// Copies the regular file `from` to `to`, which must not exist: a name taken
// meanwhile by another program fails with EEXIST instead of being replaced.
// Throws TagError when the copy cannot be made; nothing is left behind then.
void copy(const QString& from, const QString& to);

// Writes a new file at `path`, which must not exist, in the same way.
void create(const QString& path, const QByteArray& contents);

// Replaces the file at `path` (through a link, the file it names) with
// `contents` in one step. Every write is checked before the new file takes the
// name; on failure the old file stays whole and a TagError is thrown.
void replace(const QString& path, const QByteArray& contents, Sync sync = Sync::durable);

// The file's contents, at most `limit` bytes; nothing when it cannot be read.
std::optional<QByteArray> read(const QString& path, qsizetype limit);

// Moves `from` to `to` on one file system, failing with EEXIST when `to` is taken.
// Returns errno, or 0 on success.
int moveNew(const QString& from, const QString& to);
// The same for names given as the bytes the file system holds.
int moveNew(const QByteArray& from, const QByteArray& to);

// Removes the name; false when the system refused.
bool remove(const QString& path);

// Whether a name is taken: a dangling link counts, since a write would go through it.
bool occupied(const QString& path);
// The same for a name given as the bytes the file system holds.
bool occupied(const QByteArray& path);

// --- numbered names --------------------------------------------------------

// "voice", "wav", 2 -> "voice (2).wav"; number 1 gives "voice.wav", an empty
// extension no dot.
QString numberedName(const QString& stem, const QString& extension, int number);
// The same for a whole file name, numbered before its last dot ("voice (2).WAV");
// a leading dot starts a hidden name, not an extension (".wav (2)").
QString numberedName(const QString& fileName, int number);

// Offers `claim` the names numberedName gives for 1, 2, ... up to `last`, while
// it answers EEXIST. Returns the last name offered and claim's answer for it:
// 0 when the name was taken, else the errno that stopped the search.
std::pair<QString, int> claimNumbered(const QString& stem, const QString& extension,
                                      const std::function<int(const QString& name)>& claim,
                                      int last = 1 << 30);
// The same for a whole file name, split as numberedName splits it.
std::pair<QString, int> claimNumbered(const QString& fileName,
                                      const std::function<int(const QString& name)>& claim,
                                      int last = 1 << 30);

// --- identity --------------------------------------------------------------

struct Time {
    long long seconds = 0;
    long nanoseconds = 0;
    auto operator<=>(const Time&) const = default;
};

// What changes when a file does: a new file under the name changes the inode,
// a write changes the change time even when the modification time is set back.
struct Identity {
    unsigned long long device = 0;
    unsigned long long inode = 0;
    long long size = 0;
    Time modified;
    Time changed;
    bool regular = false;
    bool folder = false;
    unsigned permissions = 0; // the mode's permission bits
    bool operator==(const Identity&) const = default;
};

// The identity of the file `path` names, through links; nothing when there is none.
std::optional<Identity> identity(const QString& path);

// --- folders and names ------------------------------------------------------

// Makes `folder` and the folders above it that are missing, each with `mode`
// (less the umask). Throws TagError "CAN'T CREATE <folder>" with the system's reason.
void makeFolders(const QString& folder, mode_t mode = 0777);

// The names in `folder` (hidden ones too, not "." and ".."), unsorted; empty
// when it cannot be read.
QStringList names(const QString& folder);

// Six random letters and digits, say: never a track's or a clip's extension.
QByteArray randomLetters(int count);

// `length` bytes at `offset` of the file `fd` has open, all of them; a failure, or an
// end before them, throws TagError::systemFailed.
void readFully(int fd, char* to, qint64 length, qint64 offset);
void writeFully(int fd, const char* from, qint64 length, qint64 offset);

} // namespace Files
