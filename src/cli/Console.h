// What zelkor-tag writes to the terminal: its exit statuses, a text written
// whole or not, and the progress line.
#pragma once

#include <QString>
#include <cstdio>

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

// The "03/12 [####......]" line on a terminal, redrawn in place.
class Progress {
public:
    static constexpr int kBarCells = 30;

    // Shown when wanted and standard error is a terminal.
    explicit Progress(bool wanted);
    // More tracks to come, and one more done.
    void grow(qsizetype tracks);
    void step();
    void clear();
    // The line as it stands.
    static QString line(qsizetype done, qsizetype total);

private:
    void show();

    bool m_shown;
    qsizetype m_total = 0;
    qsizetype m_done = 0;
};

} // namespace Cli
