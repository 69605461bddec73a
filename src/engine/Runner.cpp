// Finding ffmpeg, running it as a child process, and reading its text.
#include "engine/Engine.h"
#include "platform/Resources.h"

#include <QFileInfo>
#include <QProcess>

namespace Engine {

QStringList ffmpegCandidates(const QString& resourcesDir) {
    QStringList candidates;
    const QString own = resourcesDir + QStringLiteral("/ffmpeg");
    // A link whose target is gone still counts as present; the executable test drops it.
    if (QFileInfo(own).exists() || QFileInfo(own).isSymLink())
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

RunResult run(const QStringList& args) {
    const std::optional<QString>& program = ffmpeg();
    if (!program)
        throw TagError::noFFmpeg();

    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setInputChannelMode(QProcess::ForwardedInputChannel);
    process.start(*program,
                  QStringList{QStringLiteral("-hide_banner"), QStringLiteral("-nostdin")} + args,
                  QIODevice::ReadOnly);
    if (!process.waitForStarted(-1))
        throw Failure(process.errorString().toUpper());

    // QProcess drains the pipe while it waits, so a chatty child never blocks.
    process.waitForFinished(-1);
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
