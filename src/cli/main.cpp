// zelkor-tag: tags tracks from the shell, one at a time unless told otherwise,
// with the window's log lines (or JSON) on standard output; stops cleanly on a
// signal or a closed output.
#include "base/Files.h"
#include "cli/Inputs.h"
#include "cli/Options.h"
#include "cli/Report.h"
#include "cli/Watch.h"
#include "engine/AnalysisCache.h"
#include "engine/Batch.h"
#include "engine/Engine.h"
#include "model/Settings.h"
#include "model/StatusTexts.h"
#include "model/Tags.h"
#include "platform/Preferences.h"
#include "platform/QuitSignals.h"
#include "platform/Trash.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QSocketNotifier>
#include <QThread>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
// A run ended by a signal exits with this plus the signal's number, as a shell reports it.
constexpr int kExitSignalled = 128;
constexpr int kBarCells = 30;

// False when the text could not be written whole. Names keep their bytes.
bool write(std::FILE* stream, const QString& text) {
    const bool written = std::fputs(Names::encode(text).constData(), stream) >= 0;
    return std::fflush(stream) == 0 && written;
}

// A handler rather than SIG_IGN, which ffmpeg would inherit: a write to a closed
// pipe then fails with EPIPE instead of ending the program half-way.
void onBrokenPipe(int) {}

// Ends the program by the signal that stopped it, now that its ffmpeg runs are
// over: a shell sees 128 + its number, and a loop in a script stops as well.
[[noreturn]] void endBy(int signal) {
    if (signal == SIGQUIT) {
        const struct rlimit noCore = {0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
    }
    std::signal(signal, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    std::raise(signal);
    std::_Exit(kExitSignalled + signal);
}

// Makes `folder` and the folders above it; throws TagError with the system's reason.
void makeFolders(const QString& folder) {
    const QByteArray path = Names::encode(folder);
    for (qsizetype at = 1; at <= path.size(); ++at) {
        if (at < path.size() && path[at] != '/')
            continue;
        if (::mkdir(path.left(at).constData(), 0777) != 0 && errno != EEXIST)
            throw TagError::systemFailed(errno, QStringLiteral("CAN'T CREATE %1").arg(folder));
    }
}

// The "03/12 [####......]" line on a terminal, redrawn in place.
class Progress {
public:
    explicit Progress(bool wanted)
        : m_shown(wanted && isatty(STDERR_FILENO)) {}

    void grow(qsizetype tracks) {
        if (m_shown) {
            m_total += tracks;
            show();
        }
    }
    void step() {
        if (m_shown) {
            ++m_done;
            show();
        }
    }
    void clear() {
        if (m_shown)
            write(stderr, QStringLiteral("\r\033[K"));
    }

private:
    void show() {
        const int width = std::max(2, static_cast<int>(QString::number(m_total).size()));
        const int filled = static_cast<int>(kBarCells * m_done / std::max<qsizetype>(m_total, 1));
        write(stderr, QStringLiteral("\r%1/%2 [%3%4]")
                          .arg(m_done, width, 10, QLatin1Char('0'))
                          .arg(m_total, width, 10, QLatin1Char('0'))
                          .arg(QString(filled, QLatin1Char('#')))
                          .arg(QString(kBarCells - filled, QLatin1Char('.'))));
    }

    bool m_shown;
    qsizetype m_total = 0;
    qsizetype m_done = 0;
};

// The library commands: add, select, list, in that order, as the window would.
int manageLibrary(const Cli::Options& options) {
    PreferencesFile preferences(PreferencesFile::userPath());
    HomeTrash trash(HomeTrash::userFolder());
    Tags tags(preferences, trash);
    tags.seedDefaults();
    int status = kExitOk;
    if (options.addTag) {
        const QString& file = *options.addTag;
        bool added = false;
        if (Tags::isClip(file) && QFileInfo(file).isFile()) {
            try {
                const QString stored = tags.add(file);
                write(stdout,
                      QStringLiteral("%1  %2\n")
                          .arg(StatusTexts::tagAdded(Tags::name(stored)), StatusTexts::kArmed));
                added = true;
            } catch (const std::exception& error) {
                write(stderr, QStringLiteral("zelkor-tag: %1\n").arg(describeError(error)));
            }
        }
        if (!added) {
            write(stdout, QStringLiteral("%1  %2\n")
                              .arg(QFileInfo(file).fileName(), StatusTexts::kCantAddTag));
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
            try {
                tags.setSelected(*found);
                write(stdout, StatusTexts::tagSelected(Tags::name(*found)) + QLatin1Char('\n'));
            } catch (const TagError& error) {
                write(stderr, QStringLiteral("zelkor-tag: %1\n").arg(error.errorDescription()));
                status = kExitFailed;
            }
        }
    }
    if (options.listTags) {
        const std::optional<QString> selected = tags.selected();
        for (const QString& clip : Tags::all())
            write(stdout, QStringLiteral("%1 %2\n")
                              .arg(clip == selected ? QLatin1Char('*') : QLatin1Char(' '))
                              .arg(QFileInfo(clip).fileName()));
    }
    return status;
}

// One run over the inputs: a batch at a time, more inputs queued while one runs
// (a watched folder's), every line in input order. Lives on the main thread;
// the batch's callbacks touch only what they alone write while it runs.
class Tagging {
public:
    struct Clip {
        QString path;
        double interval = 0;
        double levelDB = 0;
    };

    Tagging(const Cli::Options& options, Clip clip, bool watching)
        : m_options(options)
        , m_clip(std::move(clip))
        , m_watching(watching)
        , m_progress(!options.quiet && !watching) {}

    void add(std::vector<Cli::Input> inputs) {
        m_queue.insert(m_queue.end(), std::make_move_iterator(inputs.begin()),
                       std::make_move_iterator(inputs.end()));
        m_progress.grow(static_cast<qsizetype>(inputs.size()));
        if (!m_batch)
            next();
    }

    // Starts no further track and ends the running ones; the run ends with `signal`.
    void stop(int signal) {
        if (m_stoppedBy == 0)
            m_stoppedBy = signal;
        if (m_batch)
            m_batch->stop();
        if (!m_batch)
            QCoreApplication::quit();
    }

    // Once the event loop has ended.
    int status() {
        m_batch.reset();
        m_progress.clear();
        if (m_stoppedBy != 0)
            return kExitSignalled + m_stoppedBy;
        if (m_outputError != 0)
            return m_outputError == EPIPE ? kExitSignalled + SIGPIPE : kExitFailed;
        return m_anyFailed ? kExitFailed : kExitOk;
    }

private:
    void next() {
        m_batch.reset(); // ended: its threads are joined here
        if (m_stoppedBy != 0 || m_outputError != 0 || (m_queue.empty() && !m_watching)) {
            QCoreApplication::quit();
            return;
        }
        if (m_queue.empty())
            return;
        m_running = std::exchange(m_queue, {});
        QStringList tracks;
        for (const Cli::Input& input : m_running)
            tracks << input.track;
        const int jobs = m_options.jobs == 0 ? QThread::idealThreadCount() : m_options.jobs;
        m_batch = std::make_unique<Batch>(
            Batch::Work{tracks, m_clip.path, m_clip.interval, m_clip.levelDB, jobs},
            [this](const Batch::Outcome& outcome) { report(outcome); },
            [this] {
                QMetaObject::invokeMethod(
                    qApp, [this] { next(); }, Qt::QueuedConnection);
            },
            [this](qsizetype index) { return tagOne(m_running[static_cast<std::size_t>(index)]); });
    }

    // The output's name without a number, which an earlier run may have taken.
    QString existing(const Cli::Input& input) const {
        Engine::Destination unnumbered = destination(input);
        unnumbered.collision = Engine::Collision::replace;
        return Engine::outputURL(input.track, unnumbered);
    }

    Engine::Destination destination(const Cli::Input& input) const {
        Engine::Destination destination;
        if (m_options.outputDir)
            destination.folder = Cli::mirroredFolder(input, *m_options.outputDir);
        if (m_options.existing == Cli::Existing::replace)
            destination.collision = Engine::Collision::replace;
        destination.format = format(m_options.format);
        return destination;
    }

    // On the batch's threads.
    std::optional<Engine::Result> tagOne(const Cli::Input& input) const {
        if (!input.problem.isEmpty())
            throw TagError::systemFailed(0, {}, input.problem);
        const Engine::Destination where = destination(input);
        if (m_options.existing == Cli::Existing::skip &&
            Files::occupied(Names::encode(existing(input))))
            return std::nullopt;
        if (m_options.dryRun)
            return Engine::plan(input.track, m_clip.path, m_clip.interval, m_clip.levelDB, where);
        if (!where.folder.isEmpty())
            makeFolders(where.folder);
        return Engine::process(input.track, m_clip.path, m_clip.interval, m_clip.levelDB, where);
    }

    void report(const Batch::Outcome& outcome) {
        const Cli::Input& input = m_running[static_cast<std::size_t>(outcome.index)];
        const bool failed = !input.problem.isEmpty() || (!outcome.result && !outcome.skipped());
        m_anyFailed = m_anyFailed || failed;
        const Cli::Said said{input, outcome, outcome.skipped() ? existing(input) : QString(),
                             m_options.dryRun,
                             m_clip.path.isEmpty() ? QString() : Names::absolute(m_clip.path)};
        m_progress.clear();
        if ((failed || !m_options.quiet) && m_outputError == 0 &&
            !write(stdout, (m_options.json ? Cli::jsonLine(said) : Cli::textLine(said)) +
                               QLatin1Char('\n'))) {
            m_outputError = errno != 0 ? errno : EIO;
            m_batch->stop();
        }
        m_progress.step();
    }

    static QString format(Cli::Format format) {
        switch (format) {
        case Cli::Format::mp3:
            return QStringLiteral("mp3");
        case Cli::Format::wav:
            return QStringLiteral("wav");
        case Cli::Format::same:
            break;
        }
        return {};
    }

    const Cli::Options& m_options;
    const Clip m_clip;
    const bool m_watching;
    std::vector<Cli::Input> m_queue;
    std::vector<Cli::Input> m_running; // read by the running batch
    std::unique_ptr<Batch> m_batch;
    int m_stoppedBy = 0;
    // Written by the batch's callbacks, which never run two at a time, and read
    // once it has ended.
    bool m_anyFailed = false;
    int m_outputError = 0;
    Progress m_progress;
};

// The clip, interval and level: the options', or the library's and the window's.
std::optional<Tagging::Clip> chooseClip(const Cli::Options& options) {
    PreferencesFile preferences(PreferencesFile::userPath());
    std::optional<QString> chosen = options.tag;
    if (!chosen) {
        HomeTrash trash(HomeTrash::userFolder());
        Tags tags(preferences, trash);
        tags.seedDefaults();
        chosen = tags.selected();
    }
    if (!chosen) {
        write(options.json ? stderr : stdout,
              QStringLiteral("%1  %2\n").arg(StatusTexts::kAddTagFirst, StatusTexts::kNoTag));
        return std::nullopt;
    }
    if (!QFileInfo(*chosen).isFile()) {
        write(stderr, QStringLiteral("zelkor-tag: no tag clip at '%1'\n").arg(*chosen));
        return std::nullopt;
    }
    const Settings settings(preferences);
    return Tagging::Clip{*chosen, options.interval.value_or(settings.interval()),
                         options.levelDB.value_or(settings.levelDB())};
}

int tagAll(const Cli::Options& options) {
    QStringList paths;
    for (const QString& path : options.paths)
        paths << (path == QLatin1String("-") ? Cli::readPaths(stdin) : QStringList{path});
    const Cli::Collecting how{options.recursive,
                              options.outputDir ? Names::absolute(*options.outputDir) : QString()};
    std::vector<Cli::Input> inputs = Cli::collect(paths, how);
    if (options.watch && !QFileInfo(*options.watch).isDir()) {
        write(stderr,
              QStringLiteral("zelkor-tag: no folder to watch at '%1'\n").arg(*options.watch));
        return kExitFailed;
    }
    if (inputs.empty() && !options.watch) {
        write(stderr, QStringLiteral("NO TRACKS FOUND\n"));
        return kExitFailed;
    }
    // Without a track to tag, the clip is not needed for the lines of PATHs that are none.
    const bool anyTrack =
        options.watch || std::any_of(inputs.begin(), inputs.end(), [](const Cli::Input& input) {
            return input.problem.isEmpty();
        });
    const std::optional<Tagging::Clip> clip = anyTrack ? chooseClip(options) : Tagging::Clip{};
    if (!clip)
        return kExitFailed;

    Tagging tagging(options, *clip, options.watch.has_value());
    // SIGINT, SIGTERM (a kill), SIGHUP (the terminal closed), SIGQUIT and a reader
    // of standard output that went away all stop the run: its ffmpeg runs end,
    // their partial outputs go, the tracks already written stay.
    QObject listening; // the signal, pipe and folder watchers go with it
    onSignals(&listening, {SIGINT, SIGTERM, SIGHUP, SIGQUIT},
              [&tagging](int signal) { tagging.stop(signal); });
    struct sigaction pipeAction = {};
    pipeAction.sa_handler = onBrokenPipe;
    sigaction(SIGPIPE, &pipeAction, nullptr);
    // A pipe's reader may go while a long render runs; poll reports it at once.
    struct stat out = {};
    if (fstat(STDOUT_FILENO, &out) == 0 && (S_ISFIFO(out.st_mode) || S_ISSOCK(out.st_mode))) {
        auto* closed = new QSocketNotifier(STDOUT_FILENO, QSocketNotifier::Exception, &listening);
        QObject::connect(closed, &QSocketNotifier::activated, closed, [closed, &tagging] {
            closed->setEnabled(false);
            tagging.stop(SIGPIPE);
        });
    }
    if (options.watch) {
        try {
            auto* watch = new Cli::Watch(*options.watch, how, [&tagging](Cli::Input input) {
                tagging.add({std::move(input)});
            });
            watch->setParent(&listening);
        } catch (const std::exception& error) {
            write(stderr, QStringLiteral("zelkor-tag: can't watch '%1': %2\n")
                              .arg(*options.watch, describeError(error)));
            return kExitFailed;
        }
    }
    tagging.add(std::move(inputs));
    QCoreApplication::exec();
    return tagging.status();
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("zelkor-tag"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ZELKOR_VERSION));

    // From argv itself: QCoreApplication::arguments() would lose a name's stray bytes.
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments << Names::decode(argv[i]);
    const auto parsed = Cli::parse(arguments);
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
        if ((options.paths.isEmpty() && !options.watch) || status != kExitOk)
            return status;
    }
    if (options.paths.isEmpty() && !options.watch) {
        write(stderr, QStringLiteral("zelkor-tag: no PATH given (see --help)\n"));
        return kExitUsage;
    }
    Engine::setAnalysisCache(!options.noCache);
    const int status = tagAll(options);
    if (status > kExitSignalled)
        endBy(status - kExitSignalled);
    return status;
}
