// One batch of tracks tagged in the background, for both fronts: the window runs
// one track per core, zelkor-tag as many as it is told.
#pragma once

#include "engine/Engine.h"
#include "engine/Runner.h"

#include <QString>
#include <QStringList>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

class Batch {
public:
    // How far a track is: the pass ffmpeg runs, the seconds of the track it has
    // reached in it and the track's length (0 while unknown), and the share of
    // the track's whole work done, 0 to 1, which never goes back.
    struct Progress {
        qsizetype index = 0; // the track's position in Work::tracks
        Engine::Pass pass = Engine::Pass::analysis;
        double seconds = 0;
        double length = 0;
        double fraction = 0;
        bool ended = false; // the track is done, its outcome not yet delivered maybe
    };
    // Called on the thread that tags the track, so for several tracks at once
    // with `jobs` above 1: about twice a second while its ffmpeg runs, then once
    // with `ended` (and fraction 1) as it ends, before its outcome is delivered.
    // Not called for a track given no outcome. Must not throw.
    using OnProgress = std::function<void(const Progress&)>;

    struct Work {
        Engine::Job job;
        Engine::Plan tracks;
        int jobs = 1;            // tracks tagged at once; 0 for one per core
        OnProgress onProgress{}; // none: ffmpeg is not asked for its reports
    };

    // One track's end: the file written, or the failure (its kind, and the text
    // the user sees), or neither for a track skipped.
    struct Outcome {
        qsizetype index = 0; // the track's position in Work::tracks
        QString track;
        std::optional<Engine::Result> result;
        std::optional<TagError::Kind> failure; // systemFailed for an error of no kind
        QString error;
        bool failed() const { return failure.has_value(); }
        bool stopped() const { return failure == TagError::Kind::stopped; }
        bool skipped() const { return !result && !failed(); }
    };

    // Called on the batch's own threads, never two at a time: once per track in
    // track order, then once at the end. They must not throw, and must not destroy
    // the batch; they may stop it.
    using OnTrack = std::function<void(const Outcome&)>;
    using OnEnd = std::function<void()>;

    // Starts at once.
    Batch(Work work, OnTrack onTrack, OnEnd onEnd);
    // Stops the batch if it still runs, and waits for its threads.
    ~Batch();
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

    // Starts no further track and ends the running ffmpeg runs through the engine,
    // which then refuses any later run of this process until EngineState::resume().
    // A track that fails from then on ends as "STOPPED"; a track not begun gets
    // no outcome. The end still comes.
    void stop();
    // Blocks until the end callback has returned.
    void wait();

private:
    void takeTracks();
    void deliver();

    Work m_work;
    OnTrack m_onTrack;
    OnEnd m_onEnd;

    std::mutex m_mutex;   // guards what follows, up to the threads
    qsizetype m_next = 0; // the next track to begin
    std::vector<std::optional<Outcome>> m_ready;
    std::size_t m_running = 0; // threads still taking tracks
    std::size_t m_busy = 0;    // threads tagging a track now
    // Tracks given back for lack of processes or descriptors, taken before the next.
    std::vector<qsizetype> m_again;
    bool m_stopped = false;
    bool m_ended = false;
    std::condition_variable m_endedChanged;

    std::mutex m_delivering; // held while a callback runs, so they never overlap
    qsizetype m_delivered = 0;

    std::vector<std::thread> m_threads;
};
