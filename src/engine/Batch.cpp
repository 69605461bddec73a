// The batch's threads: each takes the next track as it frees up; whichever
// thread finds the next outcome in track order ready hands it over.
#include "engine/Batch.h"

#include <algorithm>
#include <system_error>

namespace {

Batch::Outcome tagOne(const Batch::Work& work, const Batch::TagOne& custom, qsizetype index) {
    Batch::Outcome outcome{index, work.tracks[index], std::nullopt, {}};
    try {
        outcome.result =
            custom ? custom(index)
                   : Engine::process(outcome.track, work.tag, work.interval, work.levelDB);
        return outcome;
    } catch (const std::exception& error) {
        outcome.error = describeError(error);
    } catch (...) {
    }
    if (outcome.error.isEmpty()) // a failure is never taken for a skip
        outcome.error = QStringLiteral("FAILED");
    return outcome;
}

} // namespace

Batch::Batch(Work work, OnTrack onTrack, OnEnd onEnd, TagOne tagOne)
    : m_work(std::move(work))
    , m_onTrack(std::move(onTrack))
    , m_onEnd(std::move(onEnd))
    , m_tagOne(std::move(tagOne))
    , m_ready(static_cast<std::size_t>(m_work.tracks.size())) {
    const auto wanted = static_cast<std::size_t>(
        std::clamp<qsizetype>(m_work.tracks.size(), 1, std::max(m_work.jobs, 1)));
    // The threads wait for this lock before their first track, so the count of
    // those that really started is right before any of them can end.
    const std::lock_guard lock(m_mutex);
    try {
        while (m_threads.size() < wanted)
            m_threads.emplace_back([this] { takeTracks(); });
    } catch (const std::system_error&) {
        if (m_threads.empty())
            throw;
    }
    m_running = m_threads.size();
}

Batch::~Batch() {
    stop();
    for (std::thread& thread : m_threads)
        thread.join();
}

void Batch::stop() {
    {
        const std::lock_guard lock(m_mutex);
        if (m_stopped || m_running == 0)
            return; // nothing of this batch runs any more
        m_stopped = true;
    }
    Engine::stopAll();
}

void Batch::wait() {
    std::unique_lock lock(m_mutex);
    m_endedChanged.wait(lock, [this] { return m_ended; });
}

void Batch::takeTracks() {
    for (;;) {
        qsizetype index = 0;
        {
            const std::lock_guard lock(m_mutex);
            if (m_stopped || m_next == m_work.tracks.size())
                break;
            index = m_next++;
        }
        Outcome outcome = tagOne(m_work, m_tagOne, index);
        {
            const std::lock_guard lock(m_mutex);
            // The signal that stopped the batch may have reached ffmpeg first.
            if (m_stopped && !outcome.result)
                outcome.error = TagError::stopped().errorDescription();
            m_ready[static_cast<std::size_t>(index)] = std::move(outcome);
        }
        deliver();
    }
    {
        const std::lock_guard lock(m_mutex);
        if (--m_running > 0)
            return;
    }
    // The last thread out: every outcome there will be has been handed over.
    {
        const std::lock_guard delivering(m_delivering);
        m_onEnd();
    }
    const std::lock_guard lock(m_mutex);
    m_ended = true;
    m_endedChanged.notify_all();
}

void Batch::deliver() {
    const std::lock_guard delivering(m_delivering);
    for (;;) {
        std::optional<Outcome> outcome;
        {
            const std::lock_guard lock(m_mutex);
            if (m_delivered == m_work.tracks.size())
                return;
            std::optional<Outcome>& next = m_ready[static_cast<std::size_t>(m_delivered)];
            if (!next)
                return;
            outcome = std::exchange(next, std::nullopt);
        }
        ++m_delivered;
        m_onTrack(*outcome);
    }
}
