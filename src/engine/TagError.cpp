// Messages of the engine's errors.
#include "engine/TagError.h"

TagError::TagError(Kind kind, QString payload)
    : m_kind(kind)
    , m_payload(std::move(payload)) {
    m_what = errorDescription().toUtf8();
}

QString TagError::errorDescription() const {
    switch (m_kind) {
    case Kind::ffmpegFailed:
        return m_payload;
    case Kind::noFFmpeg:
        return QStringLiteral("FFMPEG NOT FOUND");
    case Kind::noTag:
        return QStringLiteral("NO TAG SELECTED");
    case Kind::unreadable:
        return QStringLiteral("CAN'T READ FILE");
    }
    return {};
}

QString describeError(const std::exception& error) {
    if (auto* tag = dynamic_cast<const TagError*>(&error))
        return tag->errorDescription();
    if (auto* failure = dynamic_cast<const Failure*>(&error))
        return failure->errorDescription();
    return QString::fromUtf8(error.what()).toUpper();
}
