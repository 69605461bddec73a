// The messages of the program's errors.
#include "base/TagError.h"

#include <csignal>
#include <cstring>

namespace {

QString messageOf(TagError::Kind kind) {
    using Kind = TagError::Kind;
    switch (kind) {
    case Kind::noFFmpeg:
        return QStringLiteral("FFMPEG NOT FOUND");
    case Kind::noTag:
        return QStringLiteral("NO TAG SELECTED");
    case Kind::unreadable:
        return QStringLiteral("CAN'T READ FILE");
    case Kind::stopped:
        return QStringLiteral("STOPPED");
    case Kind::badInterval:
        return QStringLiteral("INTERVAL MUST BE A POSITIVE NUMBER OF SECONDS");
    case Kind::badLevel:
        return QStringLiteral("LEVEL MUST BE A NUMBER OF DB");
    case Kind::tooManyTags:
        return QStringLiteral("TOO MANY TAGS FOR THIS TRACK");
    case Kind::notFound:
        return QStringLiteral("NOT FOUND");
    case Kind::notATrack:
        return QStringLiteral("NOT A TRACK");
    case Kind::changed:
        return QStringLiteral("CHANGED WHILE TAGGING");
    case Kind::stalled:
        return QStringLiteral("FFMPEG STALLED: NO PROGRESS");
    case Kind::ffmpegFailed:
    case Kind::systemFailed:
    case Kind::badOutput:
        break; // their reason is given
    }
    return {};
}

} // namespace

TagError::TagError(Kind kind)
    : TagError(kind, {}, messageOf(kind), 0) {}

TagError::TagError(Kind kind, QString action, QString reason, int code)
    : m_kind(kind)
    , m_action(std::move(action))
    , m_reason(std::move(reason))
    , m_code(code)
    , m_what(errorDescription().toUtf8()) {}

TagError TagError::ffmpegCrashed(int signal) {
    const QString name = QString::fromLocal8Bit(strsignal(signal)).toUpper();
    switch (signal) {
    case SIGKILL: // the out-of-memory killer's, most often
        return ffmpegFailed(QStringLiteral("FFMPEG WAS KILLED (OUT OF MEMORY?)"));
    case SIGSEGV:
    case SIGBUS:
    case SIGILL:
    case SIGFPE:
    case SIGABRT:
    case SIGSYS:
    case SIGTRAP:
        return ffmpegFailed(QStringLiteral("FFMPEG CRASHED (%1)").arg(name));
    default:
        return ffmpegFailed(QStringLiteral("FFMPEG ENDED BY A SIGNAL (%1)").arg(name));
    }
}

TagError TagError::systemFailed(int code, QString action) {
    return {Kind::systemFailed, std::move(action),
            QString::fromLocal8Bit(std::strerror(code)).toUpper(), code};
}

QString TagError::errorDescription() const {
    return m_action.isEmpty() ? m_reason : m_action + QStringLiteral(": ") + m_reason;
}

QString describeError(const std::exception& error) {
    if (const auto* known = dynamic_cast<const TagError*>(&error))
        return known->errorDescription();
    // Anything else (out of memory, say) in the program's voice all the same.
    return QString::fromUtf8(error.what()).toUpper();
}
