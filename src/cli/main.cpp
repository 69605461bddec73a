// zelkor-tag: tags tracks from the shell, one at a time unless told otherwise,
// with the window's log lines on standard output.
#include "cli/Options.h"
#include "engine/Engine.h"
#include "model/Settings.h"
#include "model/Tags.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <mutex>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kBarCells = 30;
constexpr std::chrono::milliseconds kSignalPoll{100};

volatile std::sig_atomic_t interrupted = 0;

void onInterrupt(int) {
    interrupted = 1;
}

// On Ctrl-C or a kill, the running ffmpeg children are ended and their partial
// outputs removed; tracks already written stay.
void catchInterrupts() {
    struct sigaction action = {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

void write(std::FILE* stream, const QString& text) {
    std::fputs(text.toLocal8Bit().constData(), stream);
    std::fflush(stream);
}

// The "03/12 [####......]" line on a terminal, redrawn in place.
class Progress {
public:
    explicit Progress(qsizetype total)
        : m_total(total)
        , m_shown(isatty(STDERR_FILENO)) {}

    void show(qsizetype done) {
        if (!m_shown)
            return;
        const int width = std::max(2, static_cast<int>(QString::number(m_total).size()));
        const int filled = static_cast<int>(kBarCells * done / std::max<qsizetype>(m_total, 1));
        write(stderr, QStringLiteral("\r%1/%2 [%3%4]")
                          .arg(done, width, 10, QLatin1Char('0'))
                          .arg(m_total, width, 10, QLatin1Char('0'))
                          .arg(QString(filled, QLatin1Char('#')))
                          .arg(QString(kBarCells - filled, QLatin1Char('.'))));
    }
    void clear() {
        if (m_shown)
            write(stderr, QStringLiteral("\r\033[K"));
    }

private:
    qsizetype m_total;
    bool m_shown;
};

QString tagOne(const QString& track, const QString& tag, double interval, double levelDB,
               bool& failed) {
    QString line = QFileInfo(track).fileName() + QStringLiteral("  ");
    try {
        const Engine::Result result = Engine::process(track, tag, interval, levelDB);
        line += QStringLiteral("%1 TAGS  OK  -> %2").arg(result.placements).arg(result.output);
    } catch (const std::exception& error) {
        line += describeError(error);
        failed = true;
    }
    return line;
}

// The library commands: add, select, list, in that order, as the window would.
int manageLibrary(const Cli::Options& options) {
    Tags::seedDefaults();
    int status = kExitOk;
    if (options.addTag) {
        const QString& file = *options.addTag;
        const QString fileName = QFileInfo(file).fileName();
        try {
            if (!Tags::isClip(file) || !QFileInfo(file).isFile())
                throw Failure(QStringLiteral("CAN'T ADD TAG"));
            const QString added = Tags::add(file);
            write(stdout, QStringLiteral("TAG ADDED: %1  ARMED\n").arg(Tags::name(added)));
        } catch (const std::exception&) {
            write(stdout, QStringLiteral("%1  CAN'T ADD TAG\n").arg(fileName));
            status = kExitFailed;
        }
    }
    if (options.selectTag) {
        const QStringList clips = Tags::all();
        const auto found = std::find_if(clips.begin(), clips.end(), [&](const QString& clip) {
            return QFileInfo(clip).fileName() == *options.selectTag;
        });
        if (found == clips.end()) {
            write(stderr, QStringLiteral("zelkor-tag: no tag named '%1' in the library\n")
                              .arg(*options.selectTag));
            status = kExitFailed;
        } else {
            Tags::setSelected(*found);
            write(stdout, QStringLiteral("TAG SELECTED: %1\n").arg(Tags::name(*found)));
        }
    }
    if (options.listTags) {
        const std::optional<QString> selected = Tags::selected();
        for (const QString& clip : Tags::all())
            write(stdout, QStringLiteral("%1 %2\n")
                              .arg(clip == selected ? QLatin1Char('*') : QLatin1Char(' '))
                              .arg(QFileInfo(clip).fileName()));
    }
    return status;
}

int tagAll(const Cli::Options& options) {
    const QStringList tracks = Engine::collect(options.paths);
    if (tracks.isEmpty()) {
        write(stderr, QStringLiteral("NO TRACKS FOUND\n"));
        return kExitFailed;
    }
    std::optional<QString> chosen = options.tag;
    if (!chosen) {
        Tags::seedDefaults();
        chosen = Tags::selected();
    }
    if (!chosen) {
        write(stdout, QStringLiteral("ADD YOUR TAG FILE FIRST  NO TAG\n"));
        return kExitFailed;
    }
    const QString tag = *chosen;
    if (!QFileInfo(tag).isFile()) {
        write(stderr, QStringLiteral("zelkor-tag: no tag clip at '%1'\n").arg(tag));
        return kExitFailed;
    }
    const double interval = options.interval.value_or(Settings::interval());
    const double levelDB = options.levelDB.value_or(Settings::levelDB());

    // Workers take the next track as they free up; lines are printed in track order.
    const std::size_t total = static_cast<std::size_t>(tracks.size());
    std::vector<std::optional<QString>> lines(total);
    std::size_t next = 0, done = 0, running = 0;
    bool anyFailed = false;
    std::mutex mutex;
    std::condition_variable changed;
    const auto work = [&] {
        std::unique_lock lock(mutex);
        while (next < total && !interrupted) {
            const std::size_t i = next++;
            lock.unlock();
            bool failed = false;
            QString line =
                tagOne(tracks[static_cast<qsizetype>(i)], tag, interval, levelDB, failed);
            lock.lock();
            lines[i] = std::move(line);
            anyFailed = anyFailed || failed;
            ++done;
            changed.notify_all();
        }
        --running;
        changed.notify_all();
    };

    Progress progress(tracks.size());
    std::vector<std::thread> workers;
    std::size_t printed = 0;
    {
        std::unique_lock lock(mutex);
        running = std::min<std::size_t>(static_cast<std::size_t>(options.jobs), total);
        for (std::size_t j = 0; j < running; ++j)
            workers.emplace_back(work);
        progress.show(0);
        while (printed < total) {
            // Woken by each finished track, and often enough to notice a signal.
            while (!changed.wait_for(lock, kSignalPoll,
                                     [&] { return lines[printed] || running == 0; }))
                if (interrupted)
                    Engine::stopAll();
            if (!lines[printed])
                break; // interrupted: the rest will never come
            progress.clear();
            while (printed < total && lines[printed])
                write(stdout, *lines[printed++] + QLatin1Char('\n'));
            progress.show(static_cast<qsizetype>(done));
        }
    }
    for (std::thread& worker : workers)
        worker.join();
    progress.clear();
    if (printed < total) {
        write(stderr, QStringLiteral("INTERRUPTED\n"));
        return kExitFailed;
    }
    return anyFailed ? kExitFailed : kExitOk;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("zelkor-tag"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ZELKOR_VERSION));

    const auto parsed = Cli::parse(QCoreApplication::arguments().mid(1));
    if (const auto* error = std::get_if<Cli::UsageError>(&parsed)) {
        write(stderr, QStringLiteral("zelkor-tag: %1 (see --help)\n").arg(error->message));
        return kExitUsage;
    }
    const Cli::Options& options = std::get<Cli::Options>(parsed);
    if (options.help) {
        write(stdout, Cli::usage());
        return kExitOk;
    }
    if (options.version) {
        write(stdout,
              QStringLiteral("zelkor-tag %1\n").arg(QCoreApplication::applicationVersion()));
        return kExitOk;
    }
    const bool libraryCommand = options.listTags || options.addTag || options.selectTag;
    if (libraryCommand) {
        const int status = manageLibrary(options);
        if (options.paths.isEmpty() || status != kExitOk)
            return status;
    }
    if (options.paths.isEmpty()) {
        write(stderr, QStringLiteral("zelkor-tag: no PATH given (see --help)\n"));
        return kExitUsage;
    }
    catchInterrupts();
    return tagAll(options);
}
