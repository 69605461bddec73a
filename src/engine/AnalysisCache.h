// Analyses kept on disk between runs, so that tagging the same files again
// (another clip, another level) measures nothing twice.
#pragma once

#include "engine/Analysis.h"
#include "engine/Runner.h"

#include <functional>

namespace Engine {

// Whether analyses are kept between runs: on unless a front turns it off. Off,
// every file is measured afresh and the cache is neither read nor written.
void setAnalysisCache(bool enabled);
bool analysisCache();

namespace AnalysisCache {

// At most this many files' figures are kept; past it the least recently used go.
constexpr int kMaxEntries = 5000;

// $XDG_CACHE_HOME/ODRAVEX Zelkor/analyses (default ~/.cache); made on the first write.
QString folder();

// The figures kept for the file at `path`, measured by `method` (figures measured
// otherwise never serve), when neither it nor ffmpeg has changed since; otherwise
// `measure(path)`, kept when it returns. A throw keeps nothing, and a cache that
// cannot be read or written is passed by.
Analysis kept(const QString& path, const QString& method,
              const std::function<Analysis(const QString&)>& measure);

// Whether figures measured now would be kept: a file changed moments ago is
// measured but not kept, since a second change within one tick of the file
// system's clock could leave its times as they were.
bool settled(const QString& path);

} // namespace AnalysisCache

} // namespace Engine
