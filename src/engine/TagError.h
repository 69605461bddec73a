// The engine's one error type and the messages the user sees for it.
#pragma once

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

// Anything the engine refuses that is not one of the cases above: bad arguments
// from a caller, a child process that could not be started. The description is
// already in the program's own voice.
class EngineError : public std::exception {
public:
    explicit EngineError(QString description)
        : m_description(std::move(description))
        , m_what(m_description.toUtf8()) {}
    QString errorDescription() const { return m_description; }
    const char* what() const noexcept override { return m_what.constData(); }

private:
    QString m_description;
    QByteArray m_what;
};

// The text a front shows for any failure of a track.
QString describeError(const std::exception& error);
