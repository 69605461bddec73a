// File copies that fail with the system's reason.
#include "platform/Files.h"

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <array>
#include <cerrno>
#include <cstring>

namespace Files {

namespace {

constexpr qint64 kChunk = 64 * 1024;

[[noreturn]] void fail(const QString& from, const QString& reason) {
    throw FileError(
        QStringLiteral("CAN'T COPY %1: %2").arg(QFileInfo(from).fileName(), reason).toUpper());
}

QString systemReason(int code) {
    return QString::fromLocal8Bit(std::strerror(code));
}

} // namespace

bool occupied(const QString& path) {
    const QFileInfo info(path);
    return info.exists() || info.isSymLink();
}

void copy(const QString& from, const QString& to) {
    if (occupied(to))
        fail(from, systemReason(EEXIST));
    if (QFileInfo(from).isDir())
        fail(from, systemReason(EISDIR));

    QFile source(from);
    if (!source.open(QIODevice::ReadOnly))
        fail(from, source.errorString());
    // QSaveFile writes beside the target and renames on commit, so a failure
    // half-way leaves nothing behind in the destination folder.
    QSaveFile copy(to);
    if (!copy.open(QIODevice::WriteOnly))
        fail(from, copy.errorString());

    std::array<char, kChunk> buffer;
    for (;;) {
        const qint64 read = source.read(buffer.data(), kChunk);
        if (read < 0)
            fail(from, source.errorString());
        if (read == 0)
            break;
        if (copy.write(buffer.data(), read) != read)
            fail(from, copy.errorString());
    }
    if (!copy.commit())
        fail(from, copy.errorString());
}

} // namespace Files
