// One batch of tracks tagged in the background, for both fronts: the window runs
// one track at a time, zelkor-tag as many as it is told.
#pragma once

#include "engine/Engine.h"

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
    struct Work {
        QStringList tracks;
        QString tag;
        double interval = 0;
        double levelDB = 0;
        int jobs = 1; // tracks tagged at once, at least 1
    };

    // One track's end: the file written, or the text the user sees for the
    // failure, or neither for a track skipped.
    struct Outcome {
        qsizetype index = 0; // the track's position in Work::tracks
        QString track;
        std::optional<Engine::Result> result;
        QString error;
        bool skipped() const { return !result && error.isEmpty(); }
    };

    // Called on the batch's own threads, never two at a time: once per track in
    // track order, then once at the end. They must not throw, and must not destroy
    // the batch; they may stop it.
    using OnTrack = std::function<void(const Outcome&)>;
    using OnEnd = std::function<void()>;
    // Tags the track at this index in place of Engine::process with the work's
    // clip, interval and level, as zelkor-tag does to write elsewhere, skip or
    // only analyse. Returns nothing for a track it skipped; throws as process does.
    using TagOne = std::function<std::optional<Engine::Result>(qsizetype index)>;

    // Starts at once.
    Batch(Work work, OnTrack onTrack, OnEnd onEnd, TagOne tagOne = {});
    // Stops the batch if it still runs, and waits for its threads.
    ~Batch();
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

    // Starts no further track and ends the running ffmpeg runs through the engine,
    // which then refuses any later run of this process: stopping is for quitting.
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
    TagOne m_tagOne;

    std::mutex m_mutex;   // guards what follows, up to the threads
    qsizetype m_next = 0; // the next track to begin
    std::vector<std::optional<Outcome>> m_ready;
    std::size_t m_running = 0; // threads still taking tracks
    bool m_stopped = false;
    bool m_ended = false;
    std::condition_variable m_endedChanged;

    std::mutex m_delivering; // held while a callback runs, so they never overlap
    qsizetype m_delivered = 0;

    std::vector<std::thread> m_threads;
};
