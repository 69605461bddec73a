// Finding and running ffmpeg, and handing it the files it reads and writes.
// Everything handed to ffmpeg is made absolute first.
#pragma once

#include "base/Names.h"
#include "base/TagError.h"

#include <QRegularExpression>
#include <QString>
#include <QStringList>
#include <functional>
#include <optional>
#include <vector>

namespace Engine {

struct RunResult {
    int status = 0; // 0 on success; non-zero for any failure, a signal included
    int signal = 0; // the signal that ended ffmpeg, 0 when it exited
    QString output; // standard output and standard error, interleaved
};

// Where ffmpeg is looked for, in order: the program's own resource, then two
// fixed install paths. No PATH search.
QStringList ffmpegCandidates(const QString& resourcesDir);
// The first candidate that exists and may be executed.
std::optional<QString> findExecutable(const QStringList& candidates);
// Searched once per process, on first use.
const std::optional<QString>& ffmpeg();

// Runs ffmpeg with "-hide_banner -nostdin" and `args`; throws TagError::noFFmpeg
// when there is none, TagError::systemFailed when it cannot be started. The child dies with
// this process (so a run must be started by a thread that waits for it, as this
// call does). `passed` are descriptors the child keeps open, for the arguments
// of OpenFile::passDown files. Of a run's text the first and the last
// kOutputKept bytes are kept, whole lines only.
RunResult run(const QStringList& args, const std::vector<int>& passed = {});
constexpr qsizetype kOutputKept = 1 << 20;
// As run, but the child's standard output is handed on as it comes instead of
// kept: `output` gets each piece of it (of any size) with the text (standard
// error) that came meanwhile, on the calling thread. The result's output is that
// text alone.
using Streamed = std::function<void(QByteArrayView output, QByteArrayView text)>;
RunResult runStreaming(const QStringList& args, const Streamed& output,
                       const std::vector<int>& passed = {});
// `seen` gets each command line (the program first) as it starts, on the thread
// that runs it; null for none. Set before the first run.
void onRun(void (*seen)(const QStringList& commandLine));

// The part of a track's work an ffmpeg run is.
enum class Pass { analysis, render };

// While one lives on a thread, each ffmpeg run started there under a PassMark
// tells how far it is, from ffmpeg's own reports (`-progress pipe:1`, its
// standard output, which none of these runs uses otherwise): `reached` gets the
// pass, the seconds of the input done and the mark's length. On the running
// thread, about twice a second and once at the run's end.
class ProgressReports {
public:
    using Reached = std::function<void(Pass pass, double seconds, double length)>;
    explicit ProgressReports(Reached reached);
    ~ProgressReports();
    ProgressReports(const ProgressReports&) = delete;
    ProgressReports& operator=(const ProgressReports&) = delete;
    const Reached& reached() const { return m_reached; }
    // The reports this thread gives, if any: for work done without ffmpeg.
    static const ProgressReports* current();

private:
    Reached m_reached;
    const ProgressReports* m_outer;
};

// Marks the runs started on this thread while it lives as `pass` over `length`
// seconds of input. With `bytesPerSecond`, the time
// reached is the size of the output written over it, not ffmpeg's own clock.
class PassMark {
public:
    PassMark(Pass pass, double length, double bytesPerSecond = 0);
    ~PassMark();
    PassMark(const PassMark&) = delete;
    PassMark& operator=(const PassMark&) = delete;
    Pass pass() const { return m_pass; }
    double length() const { return m_length; }
    double bytesPerSecond() const { return m_bytesPerSecond; }

private:
    const PassMark* m_outer;
    Pass m_pass;
    double m_length;
    double m_bytesPerSecond;
};

// Ends every ffmpeg run in progress and refuses new ones, for quitting: such a
// run throws TagError::stopped, and a render removes its partial output first.
void stopAll();

// A file this process holds open for ffmpeg. ffmpeg is told its path, or, when
// the name is not text (Names::encode), /proc/self/fd/N with N passed down to it.
class OpenFile {
public:
    OpenFile() = default;
    OpenFile(int fd, const QString& path);
    ~OpenFile();
    OpenFile(OpenFile&& other) noexcept;
    OpenFile& operator=(OpenFile&& other) noexcept;

    int fd() const { return m_fd; } // -1 once closed
    const QString& argument() const { return m_argument; }
    bool passDown() const { return m_passDown; }
    void close();

private:
    friend OpenFile heldText(const QByteArray& contents);
    int m_fd = -1;
    QString m_argument;
    bool m_passDown = false;
};

// Opens a track or clip for ffmpeg. Only a regular file (after following links)
// is accepted: anything else, or a file that cannot be opened, throws
// TagError::unreadable without touching it further; running out of descriptors
// throws TagError::systemFailed. A file ffmpeg is given by name is
// closed again at once, unless it is to be read here too.
enum class Holding { whenPassedDown, always };
OpenFile openInput(const QString& path, Holding holding = Holding::whenPassedDown);

// A file of this process's own holding `contents`, always passed down: it has no
// name, so nothing of it outlives the run, however the run or this process ends.
// Running out of descriptors or memory throws TagError::systemFailed.
OpenFile heldText(const QByteArray& contents);

// The errno value of a lack of processes, threads or descriptors that `text`
// (a run's, or Qt's reason it could not start one) names in the system's words; 0
// when it names none. Such a lack passes when fewer tracks run at once.
int lackIn(const QString& text);

// Capture group 1 of every match, in text order; an invalid pattern gives none.
QStringList match(const QString& pattern, const QString& text);
QStringList match(const QRegularExpression& pattern, const QString& text);

} // namespace Engine
