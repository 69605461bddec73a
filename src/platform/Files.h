// Writing and copying files so that each appears whole or not at all, with the
// file system's own failure thrown as an error in the program's voice.
#pragma once

#include "platform/Failure.h"

#include <QByteArray>
#include <QString>

// A failed file operation: "CAN'T COPY VOICE.WAV: NOT A DIRECTORY". The reason
// is the system's own text for the failure, upper-cased.
class FileError : public Failure {
public:
    // `action` says what could not be done ("CAN'T COPY VOICE.WAV"); `code` is
    // the errno value behind the reason, 0 when there is none.
    FileError(QString action, QString reason, int code = 0)
        : Failure(action + QStringLiteral(": ") + reason)
        , m_action(std::move(action))
        , m_reason(std::move(reason))
        , m_code(code) {}
    // With the system's text for an errno value as the reason.
    static FileError fromCode(QString action, int code);

    const QString& action() const { return m_action; }
    const QString& reason() const { return m_reason; }
    int code() const { return m_code; }

private:
    QString m_action;
    QString m_reason;
    int m_code;
};

namespace Files {

// Copies the regular file `from` to `to`, which must not exist: a name taken
// meanwhile by another program fails with EEXIST instead of being replaced.
// Throws FileError when the copy cannot be made; nothing is left behind then.
void copy(const QString& from, const QString& to);

// Writes a new file at `path`, which must not exist, in the same way.
void create(const QString& path, const QByteArray& contents);

// Replaces the file at `path` with `contents` in one step. Every write is
// checked before the new file takes the name; on failure the old file stays
// whole and a FileError is thrown.
void replace(const QString& path, const QByteArray& contents);

// Moves `from` to `to` on one file system, failing with EEXIST when `to` is taken.
// Returns errno, or 0 on success.
int moveNew(const QString& from, const QString& to);

// Whether a name is taken: a dangling link counts, since a write would go through it.
bool occupied(const QString& path);

} // namespace Files
