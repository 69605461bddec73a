// What the fronts ask of the engine: a job (the clip, where its outputs go and
// what a taken name does), planned over a run's tracks before the first render,
// and one call that tags a planned track by it.
#pragma once

#include "base/TagError.h"
#include "engine/Output.h"

#include <QString>
#include <QStringList>
#include <optional>
#include <vector>

namespace Engine {

struct Result {
    QString output;
    int placements = 0;
    // What the render was made of, for a report.
    std::vector<double> times;
    double gainDB = 0;
    double trackLufs = 0;
    int kbps = 0; // an MP3 output's bitrate, which its sample rate may hold under 320
};

// The output's format: the track's own rule (MP3 for MP3, WAV otherwise), or one for all.
enum class Format { same, mp3, wav };

// What a track does when its output's name without a number is taken already.
enum class Taken {
    nextNumber, // "NAME (Tagged) (2).EXT", as the window does
    skip,       // the track is not analysed nor written again when its output was made
                // from the master as it is now, or another run is writing it; a stale
                // output is replaced
    replace,    // the new output replaces the earlier one once it is complete
};

struct Job {
    QString clip;
    double interval = 0;
    double levelDB = 0;
    // Empty: each output beside its track. Otherwise outputs go under this folder,
    // each in the track's own folder as it lies below the root it was found under.
    QString mirrorUnder;
    Format format = Format::same;
    Taken taken = Taken::nextNumber;
    bool dryRun = false; // measure and name, write nothing
};

// One input of a run.
struct Input {
    QString track; // absolute; for a path that is no track, the path as given
    QString root;  // the folder it was found under; empty: its own folder
    // TagError::notFound or notATrack: no track; or, once planned, why its output
    // cannot be written (a folder that takes no file, a name too long)
    std::optional<TagError> problem;
};

// An input with the name its output takes (the number a taken name needs is
// decided only when the output is committed).
struct Planned {
    Input input;
    OutputName output; // empty for an input with a problem
    // The output is one this track got earlier in the run (a watched track
    // written again): it is replaced, whatever the job says of a taken name.
    bool ownOutput = false;
};
using Plan = std::vector<Planned>;

// Every output's name of a run, before its first render: one output per track,
// a track given twice (by any path) planned once, in the order given. When
// outputs would share a name, each says after " (Tagged)" what tells its master
// apart: its own extension when theirs differ ("Beat (Tagged) (wav).mp3"),
// else the folder it was found under, with folders above it as far as it
// takes ("beat (Tagged) (A).mp3", "(x drums)"). A master beside it in its folder
// counts though the run does not hold it, so the name is the same whatever a
// run was given. Reads the tracks' identities and folders, writes nothing.
Plan plan(const Job& job, std::vector<Input> inputs);
Plan plan(const Job& job, const QStringList& tracks);

// Tags a planned track by the job, blocking while ffmpeg runs: the output
// written (or, in a dry run, the one that would be), or nothing for a track
// skipped. Throws TagError, the input's problem included.
std::optional<Result> tag(const Job& job, const Planned& track);

} // namespace Engine
