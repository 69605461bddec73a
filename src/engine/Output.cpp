// Naming outputs, and making them appear whole: ffmpeg writes a hidden, locked
// temporary file beside the final name, which the file takes in one step once
// ffmpeg has succeeded, never replacing what another run put there meanwhile.
#include "engine/Output.h"

#include "base/Files.h"

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace Engine {

namespace {

constexpr std::string_view kTempMark = ".zelkor-";
constexpr std::string_view kTempEnd = ".part";
constexpr qsizetype kRandomLength = 6;
// Keeps the temporary name within the 255 bytes a name may have.
constexpr qsizetype kTempStemBytes = 200;
constexpr int kTempAttempts = 100;
// Where an output keeps what it was made from.
constexpr const char* kSourceAttribute = "user.zelkor.source";

[[noreturn]] void fail(int code) {
    throw TagError::systemFailed(code);
}

QByteArray folderOf(const QString& folder) {
    QByteArray bytes = Names::encode(Names::absolute(folder));
    if (!bytes.endsWith('/'))
        bytes += '/';
    return bytes;
}

// ".STEM.zelkor-PID-RANDOM.part"
bool isTempName(std::string_view name) {
    if (name.size() < 1 + kTempMark.size() + 2 + kRandomLength + kTempEnd.size() ||
        name.front() != '.' || !name.ends_with(kTempEnd))
        return false;
    name.remove_suffix(kTempEnd.size());
    for (qsizetype i = 0; i < kRandomLength; ++i, name.remove_suffix(1))
        if (!std::isalnum(static_cast<unsigned char>(name.back())))
            return false;
    if (name.back() != '-')
        return false;
    name.remove_suffix(1);
    std::size_t digits = 0;
    for (; !name.empty() && name.back() >= '0' && name.back() <= '9'; name.remove_suffix(1))
        ++digits;
    return digits > 0 && name.ends_with(kTempMark);
}

bool sameFile(int fd, const QByteArray& path) {
    struct stat held = {}, named = {};
    return ::fstat(fd, &held) == 0 && ::lstat(path.constData(), &named) == 0 &&
           held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

void lock(int fd) {
    // Where the file system has no locks, no sweep can take this one's either.
    while (::flock(fd, LOCK_EX) != 0 && errno == EINTR) {
    }
}

// Removes the temporary files of runs that died: a living run holds its file's lock.
void removeDeadTemps(const QByteArray& folder) {
    DIR* dir = ::opendir(folder.constData());
    if (!dir)
        return;
    while (const dirent* entry = ::readdir(dir)) {
        if (!isTempName(entry->d_name))
            continue;
        const QByteArray path = folder + entry->d_name;
        const int fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        if (fd < 0)
            continue;
        struct stat info = {};
        // Under the lock, the name must still be this file: another sweep may have
        // removed it, and a new run taken the name.
        if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) &&
            ::flock(fd, LOCK_EX | LOCK_NB) == 0 && sameFile(fd, path))
            ::unlink(path.constData());
        ::close(fd);
    }
    ::closedir(dir);
}

QByteArray shortened(const QByteArray& stem) {
    if (stem.size() <= kTempStemBytes)
        return stem;
    qsizetype cut = kTempStemBytes;
    while (cut > 0 && (static_cast<unsigned char>(stem[cut]) & 0xC0) == 0x80)
        --cut; // not inside a character
    return stem.left(cut);
}

QByteArray timeText(const struct timespec& time) {
    return QByteArray::number(static_cast<qlonglong>(time.tv_sec)) + '.' +
           QByteArray::number(static_cast<qlonglong>(time.tv_nsec));
}

QByteArray sourceRecord(const Files::Identity& master, const struct stat& output) {
    const auto time = [](const Files::Time& at) {
        return timeText({static_cast<time_t>(at.seconds), at.nanoseconds});
    };
    // Not the device: another host mounting the same share numbers it otherwise.
    return QByteArrayLiteral("1 ") + QByteArray::number(master.inode) + ' ' +
           QByteArray::number(master.size) + ' ' + time(master.modified) + ' ' +
           time(master.changed) + ' ' + QByteArray::number(static_cast<qlonglong>(output.st_size)) +
           ' ' + timeText(output.st_mtim);
}

} // namespace

QString OutputName::path() const {
    return Names::decode(folderOf(folder) + Names::encode(Files::numberedName(stem, extension, 1)));
}

// On the name's text alone: nothing here looks at the disk.
OutputName outputName(const QString& track, const Destination& destination) {
    const QString absolute = Names::absolute(track);
    const QString name = Names::fileName(absolute);
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    const QString suffix = dot < 0 ? QString() : name.mid(dot + 1).toLower();
    return {Names::absolute(destination.folder.isEmpty() ? Names::folderOf(absolute)
                                                         : destination.folder),
            (dot < 0 ? name : name.left(dot)) + kOutputSuffix,
            destination.format.isEmpty() ? suffix : destination.format};
}

QString outputURL(const QString& track, const Destination& destination) {
    return outputURL(outputName(track, destination), destination.collision);
}

QString outputURL(const OutputName& name, Collision collision) {
    const QByteArray folder = folderOf(name.folder);
    const auto taken = [&](const QString& candidate) {
        return Files::occupied(folder + Names::encode(candidate)) ? EEXIST : 0;
    };
    // With Collision::replace the first name, taken or not.
    const int last = collision == Collision::nextNumber ? INT_MAX : 1;
    return Names::decode(
        folder + Names::encode(Files::claimNumbered(name.stem, name.extension, taken, last).first));
}

namespace {

// The errno making the missing folder `path` would fail with, 0 for none.
int makeRefused(const QByteArray& path) {
    const QByteArray parent = path.left(std::max<qsizetype>(path.lastIndexOf('/'), 1));
    return ::access(parent.constData(), W_OK | X_OK) == 0 ? 0 : errno;
}

} // namespace

std::optional<TagError> unwritable(const QString& folder, bool makeFolder) {
    const QByteArray path = Names::encode(Names::absolute(folder));
    const auto cantCreate = [&](int error) {
        return TagError::systemFailed(error, QStringLiteral("CAN'T CREATE %1").arg(folder));
    };
    struct stat info = {};
    // Down the path as Files::makeFolders goes: a name that exists is passed
    // (a folder under a file then fails), and the first missing one made decides.
    for (qsizetype at = 1; makeFolder && at <= path.size(); ++at) {
        if (at < path.size() && path[at] != '/')
            continue;
        const QByteArray step = path.left(at);
        if (::stat(step.constData(), &info) == 0) {
            if (!S_ISDIR(info.st_mode) && at < path.size())
                return cantCreate(ENOTDIR);
            continue;
        }
        const int error = errno == ENOENT ? makeRefused(step) : errno;
        if (error != 0)
            return cantCreate(error);
        return std::nullopt;
    }
    // A track's own folder that is gone took the track with it, which its
    // measurement says first.
    if (::stat(path.constData(), &info) != 0)
        return errno == ENOENT && !makeFolder ? std::nullopt
                                              : std::optional(TagError::systemFailed(errno));
    if (!S_ISDIR(info.st_mode))
        return TagError::systemFailed(ENOTDIR);
    if (::access(path.constData(), W_OK | X_OK) != 0)
        return TagError::systemFailed(errno);
    return std::nullopt;
}

std::optional<TagError> tooLong(const QString& folder, const QString& fileName) {
    // A folder not made yet: the nearest one above it says.
    QByteArray path = Names::encode(Names::absolute(folder));
    long limit = ::pathconf(path.constData(), _PC_NAME_MAX);
    while (limit < 0 && path.size() > 1) {
        path.truncate(std::max<qsizetype>(path.lastIndexOf('/'), 1));
        limit = ::pathconf(path.constData(), _PC_NAME_MAX);
    }
    if (Names::encode(fileName).size() <= (limit < 0 ? NAME_MAX : limit))
        return std::nullopt;
    return TagError::systemFailed(ENAMETOOLONG);
}

std::optional<TagError> commitRefused(const QString& path, Collision collision) {
    if (auto refused = tooLong(Names::folderOf(path), Names::fileName(path)))
        return refused;
    struct stat info = {};
    if (collision == Collision::replace && ::lstat(Names::encode(path).constData(), &info) == 0 &&
        S_ISDIR(info.st_mode))
        return TagError::systemFailed(EISDIR);
    return std::nullopt;
}

bool beingWritten(const OutputName& name) {
    const QByteArray folder = folderOf(name.folder);
    const QByteArray prefix = '.' + shortened(Names::encode(name.stem)) + kTempMark.data();
    DIR* dir = ::opendir(folder.constData());
    if (!dir)
        return false;
    bool live = false;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string_view found(entry->d_name);
        if (live || !found.starts_with(std::string_view(prefix.constData(), prefix.size())) ||
            !isTempName(found))
            continue;
        const int fd = ::open((folder + entry->d_name).constData(),
                              O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        if (fd < 0)
            continue;
        struct stat info = {};
        // A living run holds its file's lock from its creation to its commit.
        live = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) &&
               ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
        ::close(fd);
    }
    ::closedir(dir);
    return live;
}

void recordSource(const QString& output, const Files::Identity& master) {
    const int fd =
        ::open(Names::encode(output).constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0)
        return;
    struct stat info = {};
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
        const QByteArray record = sourceRecord(master, info);
        // Where none can be kept, the output only counts as not made from it.
        ::fsetxattr(fd, kSourceAttribute, record.constData(), static_cast<size_t>(record.size()),
                    0);
    }
    ::close(fd);
}

bool madeFrom(const QString& output, const Files::Identity& master) {
    const QByteArray path = Names::encode(output);
    struct stat info = {};
    if (::lstat(path.constData(), &info) != 0 || !S_ISREG(info.st_mode))
        return false;
    char held[256];
    const ssize_t size = ::lgetxattr(path.constData(), kSourceAttribute, held, sizeof held);
    return size > 0 && QByteArrayView(held, size) == sourceRecord(master, info);
}

PendingOutput::PendingOutput(const QString& folder, const QString& stem, unsigned mode)
    : m_folder(folderOf(folder))
    , m_stem(Names::encode(stem)) {
    removeDeadTemps(m_folder);
    const QByteArray prefix = m_folder + '.' + shortened(m_stem) + kTempMark.data() +
                              QByteArray::number(::getpid()) + '-';
    for (int attempt = 0; attempt < kTempAttempts; ++attempt) {
        const QByteArray temp = prefix + Files::randomLetters(kRandomLength) + kTempEnd.data();
        const int fd = ::open(temp.constData(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (fd < 0) {
            if (errno == EEXIST)
                continue;
            fail(errno);
        }
        lock(fd);
        // A sweep that came between the creation and the lock has removed it.
        if (sameFile(fd, temp)) {
            m_temp = temp;
            m_file = OpenFile(fd, Names::decode(temp));
            return;
        }
        ::close(fd);
    }
    fail(EEXIST);
}

PendingOutput::~PendingOutput() {
    if (!m_committed && !m_temp.isEmpty())
        ::unlink(m_temp.constData()); // still locked: no sweep is in the way
}

QString PendingOutput::commit(const QString& extension, Collision collision) {
    // ffmpeg leaves its writes in the cache: after a power cut the name could
    // otherwise hold an empty or partial file.
    if (::fsync(m_file.fd()) != 0)
        fail(errno);
    const QString stem = Names::decode(m_stem);
    QByteArray target;
    int error = 0;
    if (collision == Collision::replace) {
        target = m_folder + Names::encode(Files::numberedName(stem, extension, 1));
        error = ::rename(m_temp.constData(), target.constData()) == 0 ? 0 : errno;
    } else {
        const auto [name, moved] = Files::claimNumbered(stem, extension, [&](const QString& name) {
            return Files::moveNew(m_temp, m_folder + Names::encode(name));
        });
        target = m_folder + Names::encode(name);
        error = moved;
    }
    if (error != 0)
        fail(error);
    m_committed = true;
    // The new name on the disk too; the file is complete and named either way.
    if (const int dir = ::open(m_folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        dir >= 0) {
        ::fsync(dir);
        ::close(dir);
    }
    return Names::decode(target);
}

} // namespace Engine
