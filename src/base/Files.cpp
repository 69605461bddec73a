// Checked file writes (a hidden temporary file beside the target, every write
// and the flush to disk checked, then the name taken in one step), numbered
// names, identities, folders and the order of names.
#include "base/Files.h"
#include "base/Names.h"

#include <QRandomGenerator>
#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

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

constexpr int kSuffixLetters = 6;

// A leading dot starts a hidden name, not an extension.
qsizetype extensionDot(const QString& fileName) {
    const qsizetype dot = fileName.lastIndexOf(QLatin1Char('.'));
    return dot > 0 ? dot : -1;
}

template<typename Name>
std::pair<QString, int> claimEach(Name nameFor, const std::function<int(const QString&)>& claim,
                                  int last) {
    QString name;
    int answer = EEXIST;
    for (int number = 1; number <= last && answer == EEXIST; ++number) {
        name = nameFor(number);
        answer = claim(name);
    }
    return {name, answer};
}

Time timeOf(const timespec& t) {
    return {t.tv_sec, t.tv_nsec};
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
    Staged(const QString& target, QString action, Sync sync = Sync::durable)
        : m_action(std::move(action))
        , m_sync(sync) {
        const QByteArray stem = native(Names::folderOf(target) + QStringLiteral("/.") +
                                       Names::fileName(target) + QLatin1Char('.'));
        for (int attempt = 0;; ++attempt) {
            m_path = stem + randomLetters(kSuffixLetters);
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
        if (m_sync == Sync::durable && ::fsync(m_fd) != 0)
            fail(m_action, errno);
        if (::close(std::exchange(m_fd, -1)) != 0 && errno != EINTR)
            fail(m_action, errno);
    }

    QString m_action;
    Sync m_sync;
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
    const QString action = QStringLiteral("CAN'T COPY ") + Names::fileName(from).toUpper();
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
    Staged file(path, QStringLiteral("CAN'T SAVE ") + Names::fileName(path).toUpper());
    file.write(contents.constData(), static_cast<std::size_t>(contents.size()));
    file.placeNew(path);
}

void replace(const QString& path, const QByteArray& contents, Sync sync) {
    // Through a link to the file it names, as an editor saves: the link stays.
    QString target = path;
    const QByteArray name = native(path);
    struct stat info {};
    if (::lstat(name.constData(), &info) == 0 && S_ISLNK(info.st_mode)) {
        QByteArray link(PATH_MAX, '\0');
        const ssize_t length = ::readlink(name.constData(), link.data(), link.size());
        if (length > 0) {
            link.truncate(length);
            target = Names::decode(link);
            if (!target.startsWith(QLatin1Char('/')))
                target = Names::folderOf(path) + QLatin1Char('/') + target;
            target = Names::absolute(target);
        }
    }
    Staged file(target, QStringLiteral("CAN'T SAVE ") + Names::fileName(path).toUpper(), sync);
    file.write(contents.constData(), static_cast<std::size_t>(contents.size()));
    file.replace(target);
}

std::optional<QByteArray> read(const QString& path, qsizetype limit) {
    Descriptor file(::open(native(path).constData(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0)
        return std::nullopt;
    QByteArray bytes;
    std::array<char, kChunk> buffer;
    while (bytes.size() < limit) {
        const auto wanted = static_cast<std::size_t>(
            std::min<qsizetype>(limit - bytes.size(), static_cast<qsizetype>(buffer.size())));
        const ssize_t got = ::read(file.get(), buffer.data(), wanted);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return std::nullopt;
        if (got == 0)
            break;
        bytes.append(buffer.data(), got);
    }
    return bytes;
}

bool remove(const QString& path) {
    return ::unlink(native(path).constData()) == 0;
}

QString numberedName(const QString& stem, const QString& extension, int number) {
    QString name = number == 1 ? stem : stem + QStringLiteral(" (%1)").arg(number);
    if (!extension.isEmpty())
        name += QLatin1Char('.') + extension;
    return name;
}

QString numberedName(const QString& fileName, int number) {
    if (number == 1)
        return fileName;
    const qsizetype dot = extensionDot(fileName);
    const qsizetype at = dot < 0 ? fileName.size() : dot;
    return fileName.left(at) + QStringLiteral(" (%1)").arg(number) + fileName.mid(at);
}

std::pair<QString, int> claimNumbered(const QString& stem, const QString& extension,
                                      const std::function<int(const QString&)>& claim, int last) {
    return claimEach([&](int number) { return numberedName(stem, extension, number); }, claim,
                     last);
}

std::pair<QString, int> claimNumbered(const QString& fileName,
                                      const std::function<int(const QString&)>& claim, int last) {
    return claimEach([&](int number) { return numberedName(fileName, number); }, claim, last);
}

std::optional<Identity> identity(const QString& path) {
    struct stat info {};
    if (::stat(native(path).constData(), &info) != 0)
        return std::nullopt;
    return Identity{info.st_dev,           info.st_ino,          info.st_size,
                    timeOf(info.st_mtim),  timeOf(info.st_ctim), S_ISREG(info.st_mode),
                    S_ISDIR(info.st_mode), info.st_mode & 07777u};
}

void makeFolders(const QString& folder, mode_t mode) {
    const QByteArray path = native(folder);
    for (qsizetype at = 1; at <= path.size(); ++at) {
        if (at < path.size() && path[at] != '/')
            continue;
        if (::mkdir(path.left(at).constData(), mode) != 0 && errno != EEXIST)
            throw TagError::systemFailed(errno, QStringLiteral("CAN'T CREATE %1").arg(folder));
    }
}

QStringList names(const QString& folder) {
    QStringList found;
    DIR* dir = ::opendir(native(folder).constData());
    if (!dir)
        return found;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string_view name(entry->d_name);
        if (name != "." && name != "..")
            found << Names::decode(QByteArrayView(name.data(), qsizetype(name.size())));
    }
    ::closedir(dir);
    return found;
}

QByteArray randomLetters(int count) {
    static constexpr char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    QByteArray letters(count, '\0');
    for (char& letter : letters)
        letter = kAlphabet[QRandomGenerator::global()->bounded(int(sizeof kAlphabet - 1))];
    return letters;
}

void readFully(int fd, char* to, qint64 length, qint64 offset) {
    while (length > 0) {
        const ssize_t n = ::pread(fd, to, length, offset);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            throw TagError::systemFailed(n < 0 ? errno : EIO);
        to += n, offset += n, length -= n;
    }
}

void writeFully(int fd, const char* from, qint64 length, qint64 offset) {
    while (length > 0) {
        const ssize_t n = ::pwrite(fd, from, length, offset);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            throw TagError::systemFailed(n < 0 ? errno : EIO);
        from += n, offset += n, length -= n;
    }
}

} // namespace Files
