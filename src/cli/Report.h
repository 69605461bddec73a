// What zelkor-tag prints for each track: the window's line, or one JSON object.
#pragma once

#include "cli/Inputs.h"
#include "engine/Batch.h"

#include <QString>

namespace Cli {

struct Said {
    const Engine::Planned& track; // for a track skipped, its output names the one it has
    const Batch::Outcome& outcome;
    bool dryRun = false;
    QString clip;
};

// "beat.wav  4 TAGS  OK  -> /music/beat (Tagged).wav", and the like; no line break.
QString textLine(const Said& said);
// {"track": ..., "status": "ok" | "error" | "skipped", "output", "placements",
// "gain_db", "track_lufs", "clip", "error"}, "dry_run" in a dry run, and
// "track_bytes" (and so on) for a name that is not UTF-8; one line.
QString jsonLine(const Said& said);

} // namespace Cli
