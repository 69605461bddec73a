// The engine's one error type and the messages the user sees for it.
#pragma once

#include "platform/Failure.h"

#include <QString>
#include <exception>

class TagError : public std::exception {
public:
    enum class Kind { ffmpegFailed, noFFmpeg, noTag, unreadable };

    static TagError ffmpegFailed(QString message) {
        return {Kind::ffmpegFailed, std::move(message)};
    }
    static TagError noFFmpeg() { return {Kind::noFFmpeg, {}}; }
    static TagError noTag() { return {Kind::noTag, {}}; }
    static TagError unreadable() { return {Kind::unreadable, {}}; }

    Kind kind() const { return m_kind; }
    QString errorDescription() const;
    const char* what() const noexcept override { return m_what.constData(); }

private:
    TagError(Kind kind, QString payload);

    Kind m_kind;
    QString m_payload;
    QByteArray m_what;
};

// The text a front shows for any failure of a track.
QString describeError(const std::exception& error);
