// zelkor-tag's use of the tag library: the library commands, and the clip a
// run takes when none is named.
#pragma once

#include "cli/Options.h"
#include "engine/Engine.h"

namespace Cli {

// Adds, selects and lists, in that order, as the window would; an exit status.
int manageLibrary(const Options& options);
// The job's clip, interval and level: the options', or the library's and the
// window's. False, the reason written, when there is no clip to use.
bool chooseClip(const Options& options, Engine::Job& job);

} // namespace Cli
