// The watch reads inotify's events for each watched folder: a track created,
// written, closed or moved in is looked at again every kPollMs until its size
// and time have settled. Nothing else is polled.
#include "cli/Watch.h"

#include "base/TagError.h"
#include "engine/Collect.h"

#include <QSocketNotifier>
#include <cerrno>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Cli {

namespace {

constexpr int kPollMs = 250;
constexpr uint32_t kEvents = IN_CREATE | IN_MOVED_TO | IN_MODIFY | IN_CLOSE_WRITE | IN_ONLYDIR;

} // namespace

std::optional<Watch::Seen> Watch::look(const QString& path) {
    struct stat info = {};
    if (::stat(Names::encode(path).constData(), &info) != 0 || !S_ISREG(info.st_mode))
        return std::nullopt;
    return Seen{info.st_size, info.st_mtim.tv_sec * 1'000'000'000LL + info.st_mtim.tv_nsec, 0};
}

Watch::Watch(const QString& folder, const Collecting& how, std::function<void(Input)> ready)
    : m_root(Names::absolute(folder))
    , m_how(how)
    , m_ready(std::move(ready)) {
    m_fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_fd < 0)
        throw TagError::systemFailed(errno);
    m_notifier = new QSocketNotifier(m_fd, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &Watch::read);
    m_timer.setInterval(kPollMs);
    connect(&m_timer, &QTimer::timeout, this, &Watch::settle);
    m_clock.start();
    add(m_root, false);
    if (m_folders.isEmpty())
        throw TagError::systemFailed(errno);
}

Watch::~Watch() {
    ::close(m_fd);
}

// A folder that appears later has all its tracks announced; at the start, what
// is there only becomes the state to compare with.
void Watch::add(const QString& folder, bool announce) {
    if (!m_how.excluded.isEmpty() && isWithin(folder, m_how.excluded))
        return;
    const int wd = ::inotify_add_watch(m_fd, Names::encode(folder).constData(), kEvents);
    if (wd < 0)
        return;
    m_folders.insert(wd, folder);
    for (const QString& track : Engine::collect({folder})) {
        if (announce)
            touched(track);
        else if (const std::optional<Seen> now = look(track))
            m_handed.insert(track, *now);
    }
    if (m_how.recursive)
        for (const QString& sub : subFolders(folder))
            add(sub, announce);
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
                for (const QString& folder : std::as_const(m_folders))
                    for (const QString& track : Engine::collect({folder}))
                        touched(track);
                continue;
            }
            if (event->mask & IN_IGNORED) {
                m_folders.remove(event->wd);
                continue;
            }
            if (event->len == 0 || !m_folders.contains(event->wd))
                continue;
            const QByteArray name(event->name);
            const QString path =
                m_folders.value(event->wd) + QLatin1Char('/') + Names::decode(name);
            if (!(event->mask & IN_ISDIR)) {
                if (Engine::isTrack(path))
                    touched(path);
            } else if (m_how.recursive && !name.startsWith('.') &&
                       (event->mask & (IN_CREATE | IN_MOVED_TO))) {
                add(path, true);
            }
        }
    }
}

void Watch::touched(const QString& path) {
    m_pending.insert(path, {-1, 0, m_clock.elapsed()});
    if (!m_timer.isActive())
        m_timer.start();
}

void Watch::settle() {
    const qint64 now = m_clock.elapsed();
    QStringList complete;
    for (auto it = m_pending.begin(); it != m_pending.end();) {
        const std::optional<Seen> current = look(it.key());
        if (!current) {
            it = m_pending.erase(it);
            continue;
        }
        Seen& seen = it.value();
        if (!current->same(seen)) {
            seen = {current->size, current->modified, now};
            ++it;
            continue;
        }
        if (now - seen.since < kSettleMs) {
            ++it;
            continue;
        }
        const QString track = it.key();
        it = m_pending.erase(it);
        const auto before = m_handed.constFind(track);
        if (before != m_handed.cend() && before->same(seen))
            continue; // touched, not written anew
        m_handed.insert(track, seen);
        complete << track;
    }
    if (m_pending.isEmpty())
        m_timer.stop();
    complete.sort(); // tracks that settle together go in a steady order
    for (const QString& track : complete)
        m_ready({track, m_root, {}});
}

} // namespace Cli
