// The batch's threads: each takes the next track as it frees up; whichever
// thread finds the next outcome in track order ready hands it over.
#include "engine/Batch.h"

#include <QThread>
#include <algorithm>
#include <cerrno>
#include <system_error>

namespace {

// The analysis' share of a track's work when it runs: measured on 10-minute
// tracks, about a sixth of the whole for a WAV and for an MP3 alike.
constexpr double kAnalysisShare = 0.15;

// A track's passes turned into one share of its work: the analysis up to its
// share, the render from wherever it began to 1.
class TrackShare {
public:
    TrackShare(const Batch::Work& work, qsizetype index)
        : m_work(work)
        , m_index(index) {}

    void reached(Engine::Pass pass, double seconds, double length) {
        const double part = length > 0 ? std::clamp(seconds / length, 0.0, 1.0) : 0;
        if (pass == Engine::Pass::render && !m_rendering) {
            m_rendering = true;
            m_from = m_fraction;
        }
        const double fraction = m_rendering ? m_from + (1 - m_from) * part : kAnalysisShare * part;
        m_fraction = std::max(m_fraction, fraction);
        m_work.onProgress({m_index, pass, seconds, length, m_fraction, false});
    }

private:
    const Batch::Work& m_work;
    qsizetype m_index;
    bool m_rendering = false;
    double m_from = 0;
    double m_fraction = 0;
};

// Sets `lacking` when the system had no process, thread, descriptor or memory to
// spare: a lack that passes when fewer tracks run at once.
Batch::Outcome outcomeOf(const Batch::Work& work, qsizetype index, bool& lacking) {
    const Engine::Planned& planned = work.tracks[static_cast<std::size_t>(index)];
    Batch::Outcome outcome{index, planned.input.track, std::nullopt, {}, {}};
    lacking = false;
    TrackShare share(work, index);
    std::optional<Engine::ProgressReports> reports;
    if (work.onProgress)
        reports.emplace([&share](Engine::Pass pass, double seconds, double length) {
            share.reached(pass, seconds, length);
        });
    try {
        outcome.result = Engine::tag(work.job, planned);
        return outcome;
    } catch (const TagError& error) {
        const int code = error.code();
        lacking = error.kind() == TagError::Kind::systemFailed &&
                  (code == EAGAIN || code == EMFILE || code == ENFILE || code == ENOMEM);
        outcome.failure = error.kind();
        outcome.error = error.errorDescription();
    } catch (const std::exception& error) {
        outcome.error = describeError(error);
    } catch (...) {
    }
    if (!outcome.failure)
        outcome.failure = TagError::Kind::systemFailed;
    if (outcome.error.isEmpty())
        outcome.error = QStringLiteral("FAILED");
    return outcome;
}

} // namespace

Batch::Batch(Work work, OnTrack onTrack, OnEnd onEnd)
    : m_work(std::move(work))
    , m_onTrack(std::move(onTrack))
    , m_onEnd(std::move(onEnd))
    , m_ready(m_work.tracks.size()) {
    const int jobs = m_work.jobs == 0 ? QThread::idealThreadCount() : m_work.jobs;
    const auto wanted = std::clamp<std::size_t>(m_work.tracks.size(), 1,
                                                static_cast<std::size_t>(std::max(jobs, 1)));
    // The threads wait for this lock before their first track, so the count of
    // those that really started is right before any of them can end.
    const std::lock_guard lock(m_mutex);
    m_running = wanted; // set before any thread starts, which then sees it
    try {
        while (m_threads.size() < wanted)
            m_threads.emplace_back([this] { takeTracks(); });
    } catch (const std::system_error&) {
        if (m_threads.empty())
            throw;
        m_running = m_threads.size();
    }
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
    bool givenBack = false;
    for (;;) {
        qsizetype index = 0;
        {
            const std::lock_guard lock(m_mutex);
            if (m_stopped || (m_again.empty() && m_next == std::ssize(m_work.tracks)))
                break;
            if (!m_again.empty()) {
                index = m_again.back();
                m_again.pop_back();
            } else {
                index = m_next++;
            }
            ++m_busy;
        }
        bool lacking = false;
        Outcome outcome = outcomeOf(m_work, index, lacking);
        {
            const std::lock_guard lock(m_mutex);
            --m_busy;
            // Out of processes or descriptors while others run: the track waits for
            // them and this thread ends, so fewer run at once. Alone, it tries once
            // more with what the others have freed, then fails.
            if (lacking && !m_stopped && (m_busy > 0 || !givenBack)) {
                m_again.push_back(index);
                if (m_busy > 0)
                    break;
                givenBack = true;
                continue;
            }
            givenBack = false;
            // The signal that stopped the batch may have reached ffmpeg first; an
            // input that is no track says so all the same.
            if (m_stopped && !outcome.result &&
                !m_work.tracks[static_cast<std::size_t>(index)].input.problem) {
                outcome.failure = TagError::Kind::stopped;
                outcome.error = TagError::stopped().errorDescription();
            }
        }
        // Before any thread can deliver the outcome.
        if (m_work.onProgress)
            m_work.onProgress({.index = index, .fraction = 1, .ended = true});
        {
            const std::lock_guard lock(m_mutex);
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
            if (m_delivered == std::ssize(m_work.tracks))
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
