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
#include <unistd.h>

namespace Engine {

namespace {

constexpr std::string_view kTempMark = ".zelkor-";
constexpr std::string_view kTempEnd = ".part";
constexpr qsizetype kRandomLength = 6;
// Keeps the temporary name within the 255 bytes a name may have.
constexpr qsizetype kTempStemBytes = 200;
constexpr int kTempAttempts = 100;

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
