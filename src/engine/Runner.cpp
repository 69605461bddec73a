// Finding ffmpeg, opening the files it reads, running it as a child process
// that dies with this one, and reading its text.
#include "engine/Runner.h"
#include "base/Files.h"
#include "engine/EngineState.h"
#include "platform/Resources.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace Engine {

QStringList ffmpegCandidates(const QString& resourcesDir) {
    QStringList candidates;
    const QString own = resourcesDir + QStringLiteral("/ffmpeg");
    // A link whose target is gone still counts as present; the executable test drops it.
    if (Files::occupied(own))
        candidates << own;
    candidates << QStringLiteral("/opt/homebrew/bin/ffmpeg")
               << QStringLiteral("/usr/local/bin/ffmpeg");
    return candidates;
}

std::optional<QString> findExecutable(const QStringList& candidates) {
    for (const QString& candidate : candidates) {
        const QFileInfo info(candidate);
        if (info.exists() && info.isFile() && info.isExecutable())
            return info.absoluteFilePath();
    }
    return std::nullopt;
}

const std::optional<QString>& ffmpeg() {
    static const std::optional<QString> found = findExecutable(ffmpegCandidates(Resources::dir()));
    return found;
}

namespace {

// Registered while it runs, so that stopAll can end it.
class Child {
public:
    explicit Child(qint64 pid)
        : m_pid(pid) {
        EngineState::shared().adoptChild(pid);
    }
    ~Child() { EngineState::shared().releaseChild(m_pid); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

private:
    qint64 m_pid;
};

// The start and the end of a run's text, each up to kOutputKept bytes and cut to
// whole lines: what the parsers read is there (the file's description first,
// the summary or the error last), and no input can make it grow without bound.
class KeptText {
public:
    void add(const QByteArray& bytes) {
        qsizetype from = 0;
        if (m_head.size() < kOutputKept) {
            from = std::min(bytes.size(), kOutputKept - m_head.size());
            m_head += bytes.left(from);
        }
        m_tail += QByteArrayView(bytes).sliced(from);
        if (m_tail.size() > 2 * kOutputKept) {
            m_tail.remove(0, m_tail.size() - kOutputKept);
            m_cut = true;
        }
    }
    const QByteArray& head() const { return m_head; }
    QByteArray text() const {
        if (!m_cut)
            return m_head + m_tail;
        const qsizetype headEnd = m_head.lastIndexOf('\n') + 1;
        const qsizetype tailStart = m_tail.indexOf('\n') + 1;
        return m_head.left(headEnd) + m_tail.sliced(tailStart);
    }

private:
    QByteArray m_head, m_tail;
    bool m_cut = false;
};

} // namespace

thread_local const ProgressReports* t_reports = nullptr;
thread_local const PassMark* t_mark = nullptr;

// One run's progress, read from ffmpeg's reports as they come: blocks of
// "key=value" lines, each ended by "progress=continue" (or "end").
struct Watched {
    const ProgressReports::Reached& reached;
    const PassMark& mark;
    int fd; // the read end of the run's standard output, not blocking
    QByteArray partial;
    double seconds = 0;

    Watched(const ProgressReports::Reached& reached, const PassMark& mark, int fd)
        : reached(reached)
        , mark(mark)
        , fd(fd) {}
    Watched(const Watched&) = delete;
    Watched& operator=(const Watched&) = delete;
    ~Watched() { ::close(fd); }

    // Whether anything came.
    bool drain() {
        bool came = false;
        char buffer[4096];
        for (ssize_t got; (got = ::read(fd, buffer, sizeof buffer)) > 0;) {
            came = true;
            partial.append(buffer, got);
        }
        for (qsizetype end; (end = partial.indexOf('\n')) >= 0; partial.remove(0, end + 1)) {
            const QByteArray line = partial.left(end);
            const bool bySize = mark.bytesPerSecond() > 0;
            const QByteArray key = bySize ? "total_size=" : "out_time_us=";
            if (line.startsWith(key)) {
                bool ok = false;
                const qlonglong value = line.mid(key.size()).toLongLong(&ok);
                if (ok && value >= 0)
                    seconds = static_cast<double>(value) / (bySize ? mark.bytesPerSecond() : 1e6);
            } else if (line.startsWith("progress=")) {
                reached(mark.pass(), seconds, mark.length());
            }
        }
        return came;
    }
};

ProgressReports::ProgressReports(Reached reached)
    : m_reached(std::move(reached))
    , m_outer(std::exchange(t_reports, this)) {}

ProgressReports::~ProgressReports() {
    t_reports = m_outer;
}

const ProgressReports* ProgressReports::current() {
    return t_reports;
}

PassMark::PassMark(Pass pass, double length, double bytesPerSecond)
    : m_outer(std::exchange(t_mark, this))
    , m_pass(pass)
    , m_length(length)
    , m_bytesPerSecond(bytesPerSecond) {}

PassMark::~PassMark() {
    t_mark = m_outer;
}

namespace {

// Without free descriptors QProcess prints a warning and reports a wrong reason;
// so a run fails here first, with the system's. It takes two pipes and one
// descriptor for the child.
void ensureDescriptors() {
    int fds[5];
    int opened = 0;
    if (::pipe2(fds, O_CLOEXEC) == 0) {
        opened = 2;
        if (::pipe2(fds + 2, O_CLOEXEC) == 0) {
            opened = 4;
            if ((fds[4] = ::fcntl(fds[0], F_DUPFD_CLOEXEC, 0)) >= 0)
                opened = 5;
        }
    }
    const int error = errno;
    for (int i = 0; i < opened; ++i)
        ::close(fds[i]);
    if (opened < 5)
        throw TagError::systemFailed(error);
}

bool isStopping() {
    return EngineState::shared().stopping();
}

// How long a run may go without progress before it is ended: two minutes, far
// beyond any pause of a working ffmpeg. ZELKOR_STALL_SECONDS shortens it for tests.
std::chrono::milliseconds stallLimit() {
    static const std::chrono::milliseconds limit = [] {
        bool ok = false;
        const double seconds = qEnvironmentVariable("ZELKOR_STALL_SECONDS").toDouble(&ok);
        return std::chrono::milliseconds(ok && seconds > 0 ? std::llround(seconds * 1000)
                                                           : 120'000);
    }();
    return limit;
}

// The processor time used so far by the process group `group`: ffmpeg and whatever it
// started. An analysis prints nothing until it ends, so its work shows only here.
unsigned long long groupTicks(pid_t group) {
    unsigned long long ticks = 0;
    DIR* proc = ::opendir("/proc");
    if (!proc)
        return ticks;
    while (const dirent* entry = ::readdir(proc)) {
        if (entry->d_name[0] < '1' || entry->d_name[0] > '9')
            continue;
        const QByteArray stat =
            Files::read(QStringLiteral("/proc/%1/stat").arg(QLatin1String(entry->d_name)), 1024)
                .value_or(QByteArray());
        // After the name in parentheses: state, ppid, pgrp, ... utime and stime are the
        // 12th and 13th, the times of its waited-for children the next two.
        const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
        if (fields.size() > 14 && fields[2].toLongLong() == group)
            for (int i = 11; i <= 14; ++i)
                ticks += fields[i].toULongLong();
    }
    ::closedir(proc);
    return ticks;
}

// ffmpeg's reports are read at least this often, though an analysis prints nothing.
constexpr long long kReportsReadMs = 250;

// Reads the run's output until it ends: `drain` takes what came so far and says
// whether anything did; `watched` reads ffmpeg's reports. One that shows no
// progress (no output, no report, no processor time) for stallLimit() is ended with
// its whole group. Returns whether it stalled.
bool readUntilEnd(QProcess& process, const std::function<bool()>& drain, Watched* watched) {
    const std::chrono::milliseconds limit = stallLimit();
    const int lookEvery = static_cast<int>(std::clamp<long long>(limit.count() / 4, 50, 5000));
    const int slice = watched ? std::min<int>(lookEvery, kReportsReadMs) : lookEvery;
    const auto group = static_cast<pid_t>(process.processId());
    unsigned long long ticks = groupTicks(group);
    QElapsedTimer quiet, looked;
    quiet.start();
    looked.start();
    for (;;) {
        QElapsedTimer waited;
        waited.start();
        const bool ready = process.waitForReadyRead(slice);
        const bool spoke = drain() || ready;
        if (watched && watched->drain() && !spoke) {
            quiet.restart();
            continue;
        }
        if (spoke) {
            quiet.restart();
            continue;
        }
        if (process.state() != QProcess::Running)
            return false;
        // A closed output answers at once: wait for the end instead.
        if (waited.elapsed() < slice / 2 && process.waitForFinished(slice))
            return false;
        // The processes are not looked at any more often for the reports' sake.
        if (watched && looked.elapsed() < lookEvery)
            continue;
        looked.restart();
        if (const unsigned long long now = groupTicks(group); now != ticks) {
            ticks = now;
            quiet.restart();
        } else if (quiet.elapsed() >= limit.count()) {
            ::kill(-group, SIGKILL);
            return true;
        }
    }
}

std::atomic<void (*)(const QStringList&)> runSeen = nullptr;

// What every run shares: the checks before it, the child's set-up and its end.
// `channels` says whether its standard output is read apart from its text; when it
// is not, and a front follows this run, ffmpeg's reports take it.
RunResult runWith(const QStringList& args, const std::vector<int>& passed,
                  QProcess::ProcessChannelMode channels,
                  const std::function<bool(QProcess&, KeptText&)>& drain) {
    const std::optional<QString>& program = ffmpeg();
    if (!program)
        throw TagError::noFFmpeg();
    if (isStopping())
        throw TagError::stopped();
    ensureDescriptors();

    // ffmpeg's reports on a pipe of their own: the text the parsers read stays as it is.
    QStringList prefix{QStringLiteral("-hide_banner"), QStringLiteral("-nostdin")};
    std::optional<Watched> watched;
    int reportsEnd = -1; // the child's end of it
    if (t_reports && t_mark && channels == QProcess::MergedChannels) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            throw TagError::systemFailed(errno);
        ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
        watched.emplace(t_reports->reached(), *t_mark, ends[0]);
        reportsEnd = ends[1];
        prefix << QStringLiteral("-progress") << QStringLiteral("pipe:1");
    }
    QProcess process;
    process.setProcessChannelMode(channels);
    process.setInputChannelMode(QProcess::ForwardedInputChannel);
    const pid_t parent = ::getpid();
    process.setChildProcessModifier([parent, &passed, reportsEnd] {
        // No ffmpeg writes on once Zelkor is gone. The signal comes when the
        // thread that started the child ends: this one, which waits for it.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        // A group of its own, so that what ffmpeg starts (a wrapper's real ffmpeg)
        // is ended with it.
        ::setpgid(0, 0);
        if (::getppid() != parent)
            ::_exit(127);
        for (const int fd : passed)
            ::fcntl(fd, F_SETFD, 0);
        // Its standard output, after QProcess has set up the channels.
        if (reportsEnd >= 0)
            ::dup2(reportsEnd, STDOUT_FILENO);
    });
    if (const auto seen = runSeen.load())
        seen(QStringList{*program} + prefix + args);
    process.start(*program, prefix + args, QIODevice::ReadOnly);
    if (reportsEnd >= 0)
        ::close(reportsEnd); // the child holds it now, so its end is the pipe's
    if (!process.waitForStarted(-1)) {
        // Qt gives the system's reason only as text.
        const QString why = process.errorString();
        throw TagError::systemFailed(lackIn(why), {}, why.toUpper());
    }

    KeptText text;
    bool stalled = false;
    {
        const Child child(process.processId());
        stalled = readUntilEnd(
            process, [&] { return drain(process, text); }, watched ? &*watched : nullptr);
        process.waitForFinished(-1);
        drain(process, text);
        if (watched)
            watched->drain();
    }
    if (isStopping())
        throw TagError::stopped();
    if (stalled)
        throw TagError::stalled();

    RunResult result;
    const bool exited = process.exitStatus() == QProcess::NormalExit;
    result.status = exited ? process.exitCode() : -1;
    result.signal = exited ? 0 : process.exitCode(); // Qt gives the signal as the code
    result.output = QString::fromUtf8(text.text());
    return result;
}

} // namespace

OpenFile::OpenFile(int fd, const QString& path)
    : m_fd(fd)
    , m_argument(Names::absolute(path)) {
    // QProcess would hand ffmpeg another name (U+FFFD's bytes) for a name that is not text.
    if (Names::encode(m_argument) != m_argument.toUtf8()) {
        m_argument = QStringLiteral("/proc/self/fd/%1").arg(fd);
        m_passDown = true;
    }
}

OpenFile::~OpenFile() {
    close();
}

void OpenFile::close() {
    if (m_fd >= 0)
        ::close(std::exchange(m_fd, -1));
}

OpenFile::OpenFile(OpenFile&& other) noexcept
    : m_fd(std::exchange(other.m_fd, -1))
    , m_argument(std::move(other.m_argument))
    , m_passDown(other.m_passDown) {}

OpenFile& OpenFile::operator=(OpenFile&& other) noexcept {
    if (this != &other) {
        close();
        m_fd = std::exchange(other.m_fd, -1);
        m_argument = std::move(other.m_argument);
        m_passDown = other.m_passDown;
    }
    return *this;
}

OpenFile openInput(const QString& path, Holding holding) {
    const QByteArray name = Names::encode(Names::absolute(path));
    // A FIFO or a device would hang ffmpeg, or feed it without end: looked at
    // before it is opened, and again once it is.
    struct stat info = {};
    if (::stat(name.constData(), &info) != 0)
        throw TagError::unreadable(TagError::systemFailed(errno).reason());
    if (!S_ISREG(info.st_mode))
        throw TagError::unreadable(QStringLiteral("NOT A REGULAR FILE"));
    const int fd = ::open(name.constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOMEM)
            throw TagError::systemFailed(errno);
        throw TagError::unreadable(TagError::systemFailed(errno).reason());
    }
    OpenFile file(fd, path);
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode))
        throw TagError::unreadable();
    if (!file.passDown() && holding == Holding::whenPassedDown)
        file.close(); // ffmpeg opens it by its name
    return file;
}

OpenFile heldText(const QByteArray& contents) {
    const int fd = ::memfd_create("zelkor", MFD_CLOEXEC);
    if (fd < 0)
        throw TagError::systemFailed(errno);
    OpenFile file;
    file.m_fd = fd;
    file.m_argument = QStringLiteral("/proc/self/fd/%1").arg(fd);
    file.m_passDown = true;
    ::fchmod(fd, S_IRUSR | S_IWUSR); // private as any file of the user's own
    Files::writeFully(fd, contents.constData(), contents.size(), 0);
    return file;
}

void stopAll() {
    EngineState::shared().stopAll();
}

void onRun(void (*seen)(const QStringList& commandLine)) {
    runSeen = seen;
}

RunResult run(const QStringList& args, const std::vector<int>& passed) {
    return runWith(args, passed, QProcess::MergedChannels, [](QProcess& process, KeptText& text) {
        const QByteArray bytes = process.readAll();
        text.add(bytes);
        return !bytes.isEmpty();
    });
}

RunResult runStreaming(const QStringList& args, const Streamed& output,
                       const std::vector<int>& passed) {
    return runWith(args, passed, QProcess::SeparateChannels,
                   [&output](QProcess& process, KeptText& text) {
                       // All that is there in one read: QProcess then hands over
                       // its buffer instead of copying it.
                       const QByteArray out = process.read(process.bytesAvailable());
                       const QByteArray err = process.readAllStandardError();
                       text.add(err);
                       if (!out.isEmpty() || !err.isEmpty())
                           output(out, err);
                       return !out.isEmpty() || !err.isEmpty();
                   });
}

int lackIn(const QString& text) {
    // Not ENOMEM: ffmpeg says "Cannot allocate memory" for many a damaged file.
    for (const int lack : {EAGAIN, EMFILE, ENFILE})
        if (text.contains(QString::fromLocal8Bit(std::strerror(lack))))
            return lack;
    return 0;
}

QStringList match(const QRegularExpression& pattern, const QString& text) {
    QStringList captures;
    if (!pattern.isValid())
        return captures;
    for (auto it = pattern.globalMatch(text); it.hasNext();) {
        const QRegularExpressionMatch m = it.next();
        if (m.capturedStart(1) >= 0)
            captures << m.captured(1);
    }
    return captures;
}

QStringList match(const QString& pattern, const QString& text) {
    return match(QRegularExpression(pattern), text);
}

} // namespace Engine
