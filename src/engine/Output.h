// Naming a render's output, and making it appear whole under that name.
#pragma once

#include "base/Files.h"
#include "engine/Runner.h"

#include <QByteArray>
#include <QString>
#include <optional>

namespace Engine {

inline const QString kOutputSuffix = QStringLiteral(" (Tagged)");

// What a finished output does when its name is taken.
enum class Collision {
    nextNumber, // "STEM (2).EXT", "STEM (3).EXT", ...: nothing is ever replaced
    replace,    // the file under the name is replaced, in one step
};

// A render's output while ffmpeg writes it: a hidden file in the target folder,
// ".STEM.zelkor-PID-RANDOM.part" (collection never takes it), locked while this
// object lives and removed with it unless committed. Creating one first removes
// the temporary files of runs that died in that folder (those nobody locks).
// So an output appears whole under its name, or not at all.
class PendingOutput {
public:
    // Made with `mode` less the umask. Throws TagError::systemFailed when the folder
    // takes no file.
    PendingOutput(const QString& folder, const QString& stem, unsigned mode = 0666);
    ~PendingOutput();
    PendingOutput(const PendingOutput&) = delete;
    PendingOutput& operator=(const PendingOutput&) = delete;

    // For ffmpeg's output argument (run with -y and an explicit -f FORMAT).
    const OpenFile& file() const { return m_file; }
    // Once ffmpeg has succeeded: flushes the file to the disk and names it
    // FOLDER/STEM.EXT (`extension` without the dot), by `collision`. Returns the
    // final path; throws TagError::systemFailed, the file then removed.
    QString commit(const QString& extension, Collision collision);

private:
    QByteArray m_folder; // encoded, ending in '/'
    QByteArray m_stem;
    QByteArray m_temp;
    OpenFile m_file;
    bool m_committed = false;
};

// Where a render puts the tagged file: by default the track's own folder, in the
// track's format family, with the next free number.
struct Destination {
    QString folder; // empty: the track's folder
    Collision collision = Collision::nextNumber;
    QString format; // "mp3" or "wav", the output's extension too; empty: the track's
};

// The name an output of a track takes before any number: FOLDER/STEM.EXTENSION.
struct OutputName {
    QString folder;    // absolute
    QString stem;      // "NAME (Tagged)"
    QString extension; // without the dot
    QString path() const;
    bool operator==(const OutputName&) const = default;
};
OutputName outputName(const QString& track, const Destination& destination = {});

// The name a render of `track` would get now; the render itself claims its name
// only when it has finished (PendingOutput::commit). With Collision::replace the
// one without a number, which an earlier output may hold.
QString outputURL(const QString& track, const Destination& destination = {});
QString outputURL(const OutputName& name, Collision collision);

// The failure a render into `folder` would end with, read from the disk as it
// is now, writing nothing: the folder (made first when `makeFolder`, as
// Files::makeFolders would) must take a new file. Nothing when it would not fail.
std::optional<TagError> unwritable(const QString& folder, bool makeFolder);
// The same for an output's file name that is longer than `folder`'s file system takes.
std::optional<TagError> tooLong(const QString& folder, const QString& fileName);
// The failure the commit of a finished render under `path` would end with now:
// a name too long, or, replacing, a folder under the name.
std::optional<TagError> commitRefused(const QString& path, Collision collision);

// Whether a living run is writing an output of this name now: it holds its
// temporary file locked.
bool beingWritten(const OutputName& name);

// What an output was made from, kept on the output itself: the master's
// identity, and the output's own size and time, so that neither a master
// rewritten (whatever its times say) nor a file copied over the output passes
// for the output of the master as it is now. Kept where the file system takes
// extended attributes; elsewhere nothing is kept.
void recordSource(const QString& output, const Files::Identity& master);
// Whether `output` is the one recorded as made from the master of identity `master`.
bool madeFrom(const QString& output, const Files::Identity& master);

} // namespace Engine
