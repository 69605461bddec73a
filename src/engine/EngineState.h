// Everything the engine keeps between calls, for the life of the process, in
// one place: the ffmpeg children running now with the one-way switch that stops
// them, and the tag clips' analyses. (The ffmpeg path, searched once, lives in
// Runner.cpp; it describes the machine, not the work.) Output names need no
// state: a finished render claims its name with one atomic rename.
#pragma once

#include "base/Files.h"
#include "engine/Analysis.h"

#include <QHash>
#include <functional>
#include <mutex>
#include <set>

namespace Engine {

class EngineState {
public:
    static EngineState& shared();

    // A started child; when stopping has begun it is killed at once, and false returned.
    bool adoptChild(qint64 pid);
    void releaseChild(qint64 pid);
    // Kills every child and refuses new runs, until resume().
    void stopAll();
    bool stopping() const;
    // Takes new runs again: a batch stopped without quitting has ended, and the
    // next one must run. No run of the stopped batch may be in progress.
    void resume();

    // The clip's cached figures while it is still the file `identity` describes, or
    // `measure`'s, stored when it returns. The lock is held across `measure`, so a
    // clip is never measured twice at once; a throw stores nothing.
    TagInfo clipInfo(const QString& path, const std::optional<Files::Identity>& identity,
                     const std::function<TagInfo()>& measure);

    // As a new process starts: nothing cached, not stopping. For tests; no run
    // may be in progress.
    void reset();

private:
    mutable std::mutex m_childrenLock;
    std::set<qint64> m_children;
    bool m_stopping = false;

    std::mutex m_clipLock;
    QHash<QString, std::pair<std::optional<Files::Identity>, TagInfo>> m_clips;
};

} // namespace Engine
