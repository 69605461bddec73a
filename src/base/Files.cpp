// Checked file writes: a hidden temporary file beside the target, every write
// and the flush to disk checked, then the name taken in one step.
#include "base/Files.h"
#include "base/Names.h"

#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace Files {

namespace {

constexpr std::size_t kChunk = 64 * 1024;
constexpr int kNameAttempts = 64;

[[noreturn]] void fail(const QString& action, int code) {
    throw TagError::systemFailed(code, action);
}

QByteArray native(const QString& path) {
    return Names::encode(path);
}

// Six random letters and digits: never a track's or a clip's extension.
QString randomSuffix() {
    static constexpr char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    QString suffix;
    for (int i = 0; i < 6; ++i)
        suffix += QLatin1Char(
            kAlphabet[QRandomGenerator::global()->bounded(static_cast<int>(sizeof kAlphabet - 1))]);
    return suffix;
}

// Closed when it goes out of scope.
class Descriptor {
public:
    explicit Descriptor(int fd)
        : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

// A hidden temporary file in the target's folder, removed unless it took a name.
class Staged {
public:
    Staged(const QString& target, QString action)
        : m_action(std::move(action)) {
        const QFileInfo info(target);
        const QString stem = info.absolutePath() + QStringLiteral("/.") + info.fileName();
        for (int attempt = 0;; ++attempt) {
            m_path = native(stem + QLatin1Char('.') + randomSuffix());
            m_fd = ::open(m_path.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
            if (m_fd >= 0)
                return;
            if (errno != EEXIST || attempt == kNameAttempts)
                fail(m_action, errno);
        }
    }
    ~Staged() {
        if (m_fd >= 0)
            ::close(m_fd);
        if (!m_placed)
            ::unlink(m_path.constData());
    }
    Staged(const Staged&) = delete;
    Staged& operator=(const Staged&) = delete;

    void write(const char* data, std::size_t size) {
        while (size > 0) {
            const ssize_t written = ::write(m_fd, data, size);
            if (written < 0 && errno == EINTR)
                continue;
            if (written <= 0)
                fail(m_action, written < 0 ? errno : EIO);
            data += written;
            size -= static_cast<std::size_t>(written);
        }
    }
    void replace(const QString& target) {
        finish();
        if (::rename(m_path.constData(), native(target).constData()) != 0)
            fail(m_action, errno);
        m_placed = true;
    }
    void placeNew(const QString& target) {
        finish();
        if (const int code = moveNew(m_path, native(target)))
            fail(m_action, code);
        m_placed = true;
    }

private:
    // On the disk before it takes the name: a power cut then leaves the old file
    // or the new one, never an empty one.
    void finish() {
        if (::fsync(m_fd) != 0)
            fail(m_action, errno);
        if (::close(std::exchange(m_fd, -1)) != 0 && errno != EINTR)
            fail(m_action, errno);
    }

    QString m_action;
    QByteArray m_path;
    int m_fd = -1;
    bool m_placed = false;
};

} // namespace

bool occupied(const QByteArray& path) {
    // No file's name holds a NUL; the system would read the name only up to it.
    if (path.contains('\0'))
        return false;
    struct stat info {};
    return ::lstat(path.constData(), &info) == 0;
}

bool occupied(const QString& path) {
    return occupied(native(path));
}

int moveNew(const QByteArray& from, const QByteArray& to) {
    if (::renameat2(AT_FDCWD, from.constData(), AT_FDCWD, to.constData(), RENAME_NOREPLACE) == 0)
        return 0;
    if (errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP)
        return errno;
    // A file system without that flag: a hard link never replaces either.
    if (::link(from.constData(), to.constData()) == 0) {
        ::unlink(from.constData());
        return 0;
    }
    if (errno != EPERM && errno != EOPNOTSUPP && errno != ENOSYS)
        return errno;
    // Nor hard links (FAT): an empty file claims the name, which the rename replaces.
    const int placeholder = ::open(to.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (placeholder < 0)
        return errno;
    ::close(placeholder);
    if (::rename(from.constData(), to.constData()) == 0)
        return 0;
    const int error = errno;
    ::unlink(to.constData());
    return error;
}

int moveNew(const QString& from, const QString& to) {
    return moveNew(native(from), native(to));
}

void copy(const QString& from, const QString& to) {
    const QString action = QStringLiteral("CAN'T COPY ") + QFileInfo(from).fileName().toUpper();
    if (occupied(to))
        fail(action, EEXIST);
    // Opened without waiting for a writer, so a FIFO is refused rather than
    // waited on; a device would never end.
    Descriptor source(::open(native(from).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (source.get() < 0)
        fail(action, errno);
    struct stat info {};
    if (::fstat(source.get(), &info) != 0)
        fail(action, errno);
    if (S_ISDIR(info.st_mode))
        fail(action, EISDIR);
    if (!S_ISREG(info.st_mode))
        throw TagError::systemFailed(EINVAL, action, QStringLiteral("NOT A REGULAR FILE"));

    Staged copy(to, action);
    std::array<char, kChunk> buffer;
    for (;;) {
        const ssize_t read = ::read(source.get(), buffer.data(), buffer.size());
        if (read < 0 && errno == EINTR)
            continue;
        if (read < 0)
            fail(action, errno);
        if (read == 0)
            break;
        copy.write(buffer.data(), static_cast<std::size_t>(read));
    }
    copy.placeNew(to);
}

void create(const QString& path, const QByteArray& contents) {
    Staged file(path, QStringLiteral("CAN'T SAVE ") + QFileInfo(path).fileName().toUpper());
    file.write(contents.constData(), static_cast<std::size_t>(contents.size()));
    file.placeNew(path);
}

void replace(const QString& path, const QByteArray& contents) {
    // Through a link to the file it names, as an editor saves: the link stays.
    const QFileInfo info(path);
    const QString target = info.isSymLink() ? info.symLinkTarget() : path;
    Staged file(target, QStringLiteral("CAN'T SAVE ") + info.fileName().toUpper());
    file.write(contents.constData(), static_cast<std::size_t>(contents.size()));
    file.replace(target);
}

} // namespace Files
