// The watch reads inotify's events for each watched folder: a track created,
// written, closed or moved in is looked at again every kPollMs until its size
// and time have settled. Besides, each folder given is looked at every
// kFollowMs, to follow it again when it was removed or replaced (moved away,
// it would still send its events).
#include "cli/Watch.h"

#include "base/TagError.h"
#include "cli/Console.h"
#include "engine/Collect.h"

#include <QSocketNotifier>
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Cli {

namespace {

constexpr int kPollMs = 250;
constexpr int kFollowMs = 1000;
constexpr uint32_t kEvents = IN_CREATE | IN_MOVED_TO | IN_MODIFY | IN_CLOSE_WRITE | IN_ONLYDIR;
// More chunks than any writer puts before the data: a file that has them is
// left for the analysis to judge.
constexpr int kMaxChunks = 64;

// Whether a link on the way may be followed. Another user's link is followed
// only to what that user owns: in a shared folder, a link planted to one of
// the user's own files would otherwise have it tagged where its planter reads.
bool trusted(const QByteArray& path, const struct stat& target) {
    struct stat link = {};
    return ::lstat(path.constData(), &link) == 0 &&
           (!S_ISLNK(link.st_mode) || link.st_uid == ::geteuid() || link.st_uid == target.st_uid);
}

quint64 little(const char* bytes) {
    quint64 value = 0;
    for (int i = 3; i >= 0; --i)
        value = value << 8 | static_cast<unsigned char>(bytes[i]);
    return value;
}

// Whether a WAV is all there: at least as long as its header says, with a
// data chunk of a known length. Until its writer knows them, it writes sizes
// that fail either (0xFFFFFFFF, or a data chunk of none), or it knew them from
// the start. An RF64 keeps its sizes elsewhere: it is whole once it has settled.
bool whole(int fd, qint64 size) {
    char head[12];
    if (::pread(fd, head, sizeof head, 0) != static_cast<ssize_t>(sizeof head))
        return false;
    const QByteArrayView magic(head, 4);
    if (magic != "RIFF")
        return magic != QByteArrayView("\0\0\0\0", 4); // else no header yet
    if (little(head + 4) + 8 > static_cast<quint64>(size))
        return false;
    qint64 at = sizeof head;
    for (int chunk = 0; chunk < kMaxChunks; ++chunk) {
        char header[8]; // its name and size
        if (::pread(fd, header, sizeof header, at) != static_cast<ssize_t>(sizeof header))
            return false; // no data chunk yet
        const quint64 length = little(header + 4);
        if (QByteArrayView(header, 4) == "data")
            return length != 0;
        at += static_cast<qint64>(8 + length + (length & 1));
    }
    return true;
}

// Whether the track is all there, as far as its header can say: an MP3 has no
// length to wait for. One that cannot be read is handed over to fail there.
bool whole(const QString& track) {
    if (!track.endsWith(QLatin1String(".wav"), Qt::CaseInsensitive))
        return true;
    const int fd =
        ::open(Names::encode(track).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0)
        return true;
    struct stat info = {};
    const bool result = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && whole(fd, info.st_size);
    ::close(fd);
    return result;
}

} // namespace

bool Watch::identify(Folder& folder) {
    struct stat info = {};
    if (::stat(Names::encode(folder.path).constData(), &info) != 0 || !S_ISDIR(info.st_mode))
        return false;
    folder.device = info.st_dev;
    folder.inode = info.st_ino;
    return true;
}

std::optional<Watch::Seen> Watch::look(const QString& path) {
    const QByteArray name = Names::encode(path);
    struct stat info = {};
    if (::stat(name.constData(), &info) != 0 || !S_ISREG(info.st_mode) || !trusted(name, info))
        return std::nullopt;
    return Seen{info.st_size, info.st_mtim.tv_sec * 1'000'000'000LL + info.st_mtim.tv_nsec,
                info.st_dev, info.st_ino, 0};
}

Watch::Watch(const QStringList& folders, const Collecting& how, std::function<void(Input)> ready,
             std::function<void(const QString&)> notice)
    : m_how(how)
    , m_ready(std::move(ready))
    , m_notice(std::move(notice)) {
    // ZELKOR_WATCH_SETTLE_MS shortens the settling time, for tests of exports that pause.
    bool shorter = false;
    const int settleMs = qEnvironmentVariableIntValue("ZELKOR_WATCH_SETTLE_MS", &shorter);
    if (shorter && settleMs >= 0)
        m_settleMs = settleMs;
    m_fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_fd < 0)
        throw TagError::systemFailed(errno);
    m_notifier = new QSocketNotifier(m_fd, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &Watch::read);
    m_timer.setInterval(kPollMs);
    connect(&m_timer, &QTimer::timeout, this, &Watch::settle);
    m_clock.start();
    for (const QString& folder : folders) {
        const QString root = Names::absolute(folder);
        if (std::any_of(m_roots.cbegin(), m_roots.cend(),
                        [&root](const Folder& known) { return known.path == root; }))
            continue;
        Folder given{root, root};
        if (!identify(given) || !add(root, root, false))
            throw TagError::systemFailed(errno);
        m_roots.push_back(given);
        m_notice(m_how.recursive
                     ? QStringLiteral("zelkor-tag: watching '%1' and its sub-folders\n").arg(root)
                     : QStringLiteral("zelkor-tag: watching '%1'\n").arg(root));
    }
    m_rootsTimer.setInterval(kFollowMs);
    connect(&m_rootsTimer, &QTimer::timeout, this, &Watch::followRoots);
    m_rootsTimer.start();
}

Watch::~Watch() {
    ::close(m_fd);
}

// A folder that appears later has all its tracks announced; at the start, what
// is there only becomes the state to compare with.
bool Watch::add(const QString& folder, const QString& root, bool announce) {
    if (!m_how.excluded.isEmpty() && isWithin(folder, m_how.excluded))
        return false;
    const int wd = ::inotify_add_watch(m_fd, Names::encode(folder).constData(), kEvents);
    if (wd < 0)
        return false;
    const auto known = m_folders.constFind(wd);
    if (known != m_folders.cend() && known->path == folder)
        return true; // given twice, or inside a folder given before
    m_folders.insert(wd, {folder, root});
    for (const QString& track : Engine::collect({folder})) {
        if (announce)
            touched(track, root);
        else if (const std::optional<Seen> now = look(track))
            m_handed.insert(track, *now);
    }
    if (m_how.recursive)
        for (const QString& sub : subFolders(folder)) {
            struct stat info = {};
            const QByteArray name = Names::encode(sub);
            if (::stat(name.constData(), &info) == 0 && trusted(name, info))
                add(sub, root, announce);
        }
    return true;
}

// A folder moved away or replaced: its path names something else now.
void Watch::forget(const QString& folder) {
    for (auto it = m_folders.begin(); it != m_folders.end();) {
        if (isWithin(it->path, folder)) {
            ::inotify_rm_watch(m_fd, it.key());
            it = m_folders.erase(it);
        } else {
            ++it;
        }
    }
}

void Watch::followRoots() {
    for (Folder& root : m_roots) {
        Folder now{root.path, root.root};
        const bool there = identify(now);
        if (root.inode != 0 && (!there || now.device != root.device || now.inode != root.inode)) {
            forget(root.path);
            root.inode = 0;
            m_notice(QStringLiteral("zelkor-tag: '%1' is gone; waiting for it to come back\n")
                         .arg(root.path));
        }
        if (root.inode == 0 && there && add(root.path, root.path, true)) {
            root = now;
            m_notice(QStringLiteral("zelkor-tag: watching '%1' again\n").arg(root.path));
        }
    }
}

void Watch::read() {
    alignas(inotify_event) char buffer[64 * 1024];
    for (;;) {
        const ssize_t length = ::read(m_fd, buffer, sizeof buffer);
        if (length <= 0)
            return;
        for (ssize_t at = 0; at < length;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            if (event->mask & IN_Q_OVERFLOW) {
                // Events were lost: every track of every folder is looked at again.
                for (const Folder& folder : std::as_const(m_folders))
                    for (const QString& track : Engine::collect({folder.path}))
                        touched(track, folder.root);
                continue;
            }
            if (event->mask & IN_IGNORED) {
                m_folders.remove(event->wd);
                followRoots(); // a folder given may be gone
                continue;
            }
            if (event->len == 0 || !m_folders.contains(event->wd))
                continue;
            const Folder folder = m_folders.value(event->wd);
            const QByteArray name(event->name);
            const QString path = folder.path + QLatin1Char('/') + Names::decode(name);
            if (!(event->mask & IN_ISDIR)) {
                if (Engine::isTrack(path))
                    touched(path, folder.root);
            } else if (m_how.recursive && !name.startsWith('.') &&
                       (event->mask & (IN_CREATE | IN_MOVED_TO))) {
                add(path, folder.root, true);
            }
        }
    }
}

void Watch::touched(const QString& path, const QString& root) {
    m_pending.insert(path, {{-1, 0, 0, 0, m_clock.elapsed()}, root});
    if (!m_timer.isActive())
        m_timer.start();
}

void Watch::settle() {
    const qint64 now = m_clock.elapsed();
    std::vector<Input> complete;
    for (auto it = m_pending.begin(); it != m_pending.end();) {
        const std::optional<Seen> current = look(it.key());
        if (!current) {
            it = m_pending.erase(it);
            continue;
        }
        Seen& seen = it->seen;
        if (!current->same(seen)) {
            seen = *current;
            seen.since = now;
            ++it;
            continue;
        }
        if (now - seen.since < m_settleMs) {
            ++it;
            continue;
        }
        const QString track = it.key();
        const QString root = it->root;
        it = m_pending.erase(it);
        // Not whole yet: the write that completes it brings another event.
        if (!whole(track))
            continue;
        const auto before = m_handed.constFind(track);
        if (before != m_handed.cend() && before->same(seen))
            continue; // touched, not written anew
        m_handed.insert(track, seen);
        complete.push_back({track, root, {}});
    }
    if (m_pending.isEmpty())
        m_timer.stop();
    // Tracks that settle together go in a steady order.
    std::sort(complete.begin(), complete.end(),
              [](const Input& a, const Input& b) { return a.track < b.track; });
    for (Input& track : complete)
        m_ready(std::move(track));
}

} // namespace Cli
