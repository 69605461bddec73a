// The engine's process-wide state.
#include "engine/EngineState.h"

#include <csignal>

namespace Engine {

EngineState& EngineState::shared() {
    static EngineState state;
    return state;
}

bool EngineState::adoptChild(qint64 pid) {
    const std::lock_guard lock(m_childrenLock);
    if (m_stopping) {
        ::kill(-static_cast<pid_t>(pid), SIGKILL); // its whole group
        return false;
    }
    m_children.insert(pid);
    return true;
}

void EngineState::releaseChild(qint64 pid) {
    const std::lock_guard lock(m_childrenLock);
    m_children.erase(pid);
}

void EngineState::stopAll() {
    const std::lock_guard lock(m_childrenLock);
    m_stopping = true;
    for (const qint64 pid : m_children)
        ::kill(-static_cast<pid_t>(pid), SIGKILL); // its whole group
}

bool EngineState::stopping() const {
    const std::lock_guard lock(m_childrenLock);
    return m_stopping;
}

void EngineState::resume() {
    const std::lock_guard lock(m_childrenLock);
    m_stopping = false;
}

TagInfo EngineState::clipInfo(const QString& path, const std::optional<Files::Identity>& identity,
                              const std::function<TagInfo()>& measure) {
    {
        const std::lock_guard lock(m_clipLock);
        if (auto it = m_clips.constFind(path); it != m_clips.constEnd() && it->first == identity)
            return it->second;
    }
    // Measured with no lock held: a child process is no place to hold one.
    const TagInfo measured = measure();
    const std::lock_guard lock(m_clipLock);
    m_clips.insert(path, {identity, measured});
    return measured;
}

void EngineState::reset() {
    {
        const std::lock_guard lock(m_childrenLock);
        m_stopping = false;
        m_children.clear();
    }
    const std::lock_guard lock(m_clipLock);
    m_clips.clear();
}

} // namespace Engine
