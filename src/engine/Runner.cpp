// Finding ffmpeg, running it as a child process, and reading its text.
#include "engine/Engine.h"
#include "platform/Files.h"
#include "platform/Resources.h"

#include <QFileInfo>
#include <QProcess>
#include <csignal>
#include <mutex>
#include <set>

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

// The ffmpeg children running now, so that quitting can end them.
std::mutex childrenLock;
std::set<qint64> children;
bool stopping = false;

const QString kStopped = QStringLiteral("STOPPED");

class Child {
public:
    explicit Child(qint64 pid)
        : m_pid(pid) {
        const std::lock_guard lock(childrenLock);
        if (stopping)
            ::kill(static_cast<pid_t>(pid), SIGKILL);
        children.insert(pid);
    }
    ~Child() {
        const std::lock_guard lock(childrenLock);
        children.erase(m_pid);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

private:
    qint64 m_pid;
};

bool isStopping() {
    const std::lock_guard lock(childrenLock);
    return stopping;
}

} // namespace

void stopAll() {
    const std::lock_guard lock(childrenLock);
    stopping = true;
    for (const qint64 pid : children)
        ::kill(static_cast<pid_t>(pid), SIGKILL);
}

RunResult run(const QStringList& args) {
    const std::optional<QString>& program = ffmpeg();
    if (!program)
        throw TagError::noFFmpeg();
    if (isStopping())
        throw Failure(kStopped);

    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setInputChannelMode(QProcess::ForwardedInputChannel);
    process.start(*program,
                  QStringList{QStringLiteral("-hide_banner"), QStringLiteral("-nostdin")} + args,
                  QIODevice::ReadOnly);
    if (!process.waitForStarted(-1))
        throw Failure(process.errorString().toUpper());

    {
        const Child child(process.processId());
        // QProcess drains the pipe while it waits, so a chatty child never blocks.
        process.waitForFinished(-1);
    }
    if (isStopping())
        throw Failure(kStopped);
    const QByteArray bytes = process.readAll();

    RunResult result;
    result.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.output = QString::fromUtf8(bytes);
    return result;
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
