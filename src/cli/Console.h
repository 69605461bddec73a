// What zelkor-tag writes to the terminal: its exit statuses, a text written
// whole or not, and the progress line.
#pragma once

#include "engine/Batch.h"

#include <QElapsedTimer>
#include <QString>
#include <cstdio>
#include <mutex>
#include <vector>

namespace Cli {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
// A run ended by a signal exits with this plus the signal's number, as a shell reports it.
constexpr int kExitSignalled = 128;

// False when the text could not be written whole. Names keep their bytes.
bool write(std::FILE* stream, const QString& text);

// The words as a shell reads them back: each quoted unless it is plain.
QString shellQuoted(const QStringList& words);

// A failure's line in red, to be told apart in a scrolling terminal.
QString inRed(const QString& line);

// How a run went: "3 WRITTEN  1 SKIPPED  2 FAILED  IN 4.2 S", STOPPED added when
// any was, PLANNED for WRITTEN in a dry run.
struct Tally {
    qsizetype written = 0, skipped = 0, failed = 0, stopped = 0;
    QString line(double seconds, bool dryRun) const;
};

// On a terminal, the line under the output, redrawn in place: the tracks
// finished of all so far, the running ones with the time reached in each, and
// the time left as the run's pace so far gives it. Safe from any thread.
class Progress {
public:
    static constexpr int kBarCells = 30;
    // Redrawn at most this often, and at every change of the count.
    static constexpr qint64 kRedrawMs = 250;

    // Shown when wanted and standard error is a terminal.
    explicit Progress(bool wanted);
    bool shown() const { return m_shown; }
    // More tracks to come.
    void grow(qsizetype tracks);
    // How far the track shown as `name` is; it is finished once `ended`. A batch's
    // tracks are told apart by their index: batches follow each other.
    void reached(const QString& name, const Batch::Progress& progress);
    // Writes `text` to `stream` with the line lifted out of its way.
    bool above(std::FILE* stream, const QString& text);
    void clear();

private:
    struct Running {
        QString name;
        Batch::Progress progress;
    };
    QString line() const;
    void show();

    const bool m_shown;
    std::mutex m_mutex; // guards what follows
    qsizetype m_total = 0;
    qsizetype m_finished = 0;
    std::vector<Running> m_running; // in the order they began
    // The pace: time since tracks came to an idle run, and what was finished then.
    QElapsedTimer m_since;
    qsizetype m_finishedBefore = 0;
    QElapsedTimer m_drawn;
};

} // namespace Cli
