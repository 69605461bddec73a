// zelkor-tag: tags tracks from the shell, one at a time unless told otherwise,
// with the window's log lines (or JSON) on standard output; stops cleanly on a
// signal or a closed output.
#include "cli/Console.h"
#include "cli/Inputs.h"
#include "cli/Library.h"
#include "cli/Options.h"
#include "cli/Report.h"
#include "cli/Watch.h"
#include "engine/Analysis.h"
#include "engine/AnalysisCache.h"
#include "engine/Batch.h"
#include "engine/Engine.h"
#include "engine/Runner.h"
#include "model/StatusTexts.h"
#include "platform/QuitSignals.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QSocketNotifier>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace Cli;

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

// For -v: whole lines, though runs start on several threads.
void showCommand(const QStringList& commandLine) {
    static std::mutex one;
    const std::lock_guard lock(one);
    write(stderr, shellQuoted(commandLine) + QLatin1Char('\n'));
}

// NO_COLOR set and not empty is a user's standing wish; --color says it for this run.
bool coloured(const Options& options) {
    if (options.colour != Colour::whenTerminal)
        return options.colour == Colour::always;
    const char* noColour = std::getenv("NO_COLOR");
    return isatty(STDOUT_FILENO) && (noColour == nullptr || *noColour == '\0');
}

// One run over the inputs: a batch at a time, more inputs queued while one runs
// (a watched folder's), every line in input order. Lives on the main thread;
// the batch's callbacks touch only what they alone write while it runs.
class Tagging {
public:
    Tagging(const Options& options, Engine::Job job, bool watching)
        : m_options(options)
        , m_job(std::move(job))
        , m_clip(m_job.clip.isEmpty() ? QString() : Names::absolute(m_job.clip))
        , m_watching(watching)
        , m_coloured(!options.json && coloured(options))
        , m_summed(!options.quiet && isatty(STDERR_FILENO))
        , m_progress(!options.quiet && !options.verbose) {
        m_clock.start();
    }

    void add(std::vector<Input> inputs) {
        m_progress.grow(static_cast<qsizetype>(inputs.size()));
        m_queue.insert(m_queue.end(), std::make_move_iterator(inputs.begin()),
                       std::make_move_iterator(inputs.end()));
        if (!m_batch)
            next();
    }

    // A watched track handed over again before its turn is tagged once, as it is then.
    void addWatched(Input input) {
        if (std::none_of(m_queue.begin(), m_queue.end(),
                         [&input](const Input& queued) { return queued.track == input.track; }))
            add({std::move(input)});
    }

    // On standard error, with the progress line kept below it.
    void notice(const QString& text) { m_progress.above(stderr, text); }

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
        const Tally& t = m_tally;
        if (m_summed && t.written + t.skipped + t.failed + t.stopped > 1)
            write(stderr, t.line(static_cast<double>(m_clock.elapsed()) / 1000, m_job.dryRun) +
                              QLatin1Char('\n'));
        if (m_stoppedBy != 0)
            return kExitSignalled + m_stoppedBy;
        if (m_outputError != 0)
            return m_outputError == EPIPE ? kExitSignalled + SIGPIPE : kExitFailed;
        return m_anyFailed ? kExitFailed : kExitOk;
    }

private:
    void next() {
        m_batch.reset(); // ended: its threads are joined here
        for (std::size_t i = 0; i < m_made.size(); ++i)
            if (!m_made[i].isEmpty()) {
                const Engine::OutputName& planned = m_running[i].output;
                m_written.insert(m_running[i].input.track,
                                 {planned.folder,
                                  Names::fileName(m_made[i]).chopped(planned.extension.size() + 1),
                                  planned.extension});
            }
        if (m_stoppedBy != 0 || m_outputError != 0 || (m_queue.empty() && !m_watching)) {
            QCoreApplication::quit();
            return;
        }
        if (m_queue.empty())
            return;
        const auto queued = std::ssize(m_queue);
        m_running = Engine::plan(m_job, std::exchange(m_queue, {}));
        if (std::ssize(m_running) != queued) // a track given twice is tagged once
            m_progress.grow(std::ssize(m_running) - queued);
        for (Engine::Planned& planned : m_running)
            if (const auto own = m_written.constFind(planned.input.track);
                own != m_written.cend()) {
                planned.output = *own;
                planned.ownOutput = true;
            }
        m_made.assign(m_running.size(), {});
        Batch::OnProgress reached;
        if (m_progress.shown())
            reached = [this](const Batch::Progress& progress) {
                m_progress.reached(
                    shownName(m_running[static_cast<std::size_t>(progress.index)].input), progress);
            };
        m_batch = std::make_unique<Batch>(
            Batch::Work{m_job, m_running, m_options.jobs, std::move(reached)},
            [this](const Batch::Outcome& outcome) { report(outcome); },
            [this] {
                QMetaObject::invokeMethod(
                    qApp, [this] { next(); }, Qt::QueuedConnection);
            });
    }

    // On the batch's threads, one at a time.
    void report(const Batch::Outcome& outcome) {
        m_anyFailed = m_anyFailed || outcome.failed();
        ++(outcome.stopped()   ? m_tally.stopped
           : outcome.failed()  ? m_tally.failed
           : outcome.skipped() ? m_tally.skipped
                               : m_tally.written);
        if (m_watching && outcome.result && !m_job.dryRun)
            m_made[static_cast<std::size_t>(outcome.index)] = outcome.result->output;
        const Said said{m_running[static_cast<std::size_t>(outcome.index)], outcome, m_job.dryRun,
                        m_clip};
        QString line = m_options.json ? jsonLine(said) : textLine(said);
        if (m_coloured && outcome.failed())
            line = inRed(line);
        if ((outcome.failed() || !m_options.quiet || m_job.dryRun) && m_outputError == 0 &&
            !m_progress.above(stdout, line + QLatin1Char('\n'))) {
            m_outputError = errno != 0 ? errno : EIO;
            m_batch->stop();
        }
    }

    const Options& m_options;
    const Engine::Job m_job;
    const QString m_clip; // as the JSON lines name it
    const bool m_watching;
    const bool m_coloured; // failures in red
    const bool m_summed;   // how the run went, at its end
    QElapsedTimer m_clock;
    Tally m_tally;
    std::vector<Input> m_queue;
    Engine::Plan m_running; // read by the running batch
    // A watched track written again after it was tagged is tagged again into
    // the same output: the outputs of the running batch, by track, then of all.
    std::vector<QString> m_made;
    QHash<QString, Engine::OutputName> m_written;
    std::unique_ptr<Batch> m_batch;
    int m_stoppedBy = 0;
    // Written by the batch's callbacks, which never run two at a time, and read
    // once it has ended.
    bool m_anyFailed = false;
    int m_outputError = 0;
    Progress m_progress;
};

// Where the outputs go and what a taken name does, by the options.
Engine::Job jobOf(const Options& options) {
    Engine::Job job;
    job.mirrorUnder = options.outputDir.value_or(QString());
    job.format = options.format;
    job.taken = options.existing;
    job.dryRun = options.dryRun;
    return job;
}

int tagAll(const Options& options) {
    QStringList paths;
    for (const QString& path : options.paths)
        paths << (path == QLatin1String("-") ? readPaths(stdin, options.nulSeparated)
                                             : QStringList{path});
    const Collecting how{options.recursive,
                         options.outputDir ? Names::absolute(*options.outputDir) : QString()};
    std::vector<Input> inputs = collect(paths, how);
    for (const QString& folder : options.watch)
        if (!isFolder(folder)) {
            write(stderr, QStringLiteral("zelkor-tag: no folder to watch at '%1'\n").arg(folder));
            return kExitFailed;
        }
    const bool watching = !options.watch.isEmpty();
    if (inputs.empty() && !watching) {
        write(stderr, QStringLiteral("NO TRACKS FOUND\n"));
        return kExitFailed;
    }
    // Without a track to tag, the clip is not needed for the lines of PATHs that are none.
    const bool anyTrack =
        watching || std::any_of(inputs.begin(), inputs.end(),
                                [](const Input& input) { return !input.problem; });
    Engine::Job job = jobOf(options);
    if (anyTrack && !chooseClip(options, job))
        return kExitFailed;
    if (options.verbose)
        Engine::onRun(showCommand);
    // A clip that cannot be used would fail every track alike: said once, by its name.
    try {
        if (anyTrack)
            Engine::info(job.clip);
    } catch (const TagError& error) {
        if (error.kind() == TagError::Kind::unreadable ||
            error.kind() == TagError::Kind::systemFailed) {
            write(options.json ? stderr : stdout,
                  QStringLiteral("%1  %2: %3\n")
                      .arg(Names::absolute(job.clip), StatusTexts::kCantUseTag,
                           error.errorDescription()));
            return kExitFailed;
        }
    }

    Tagging tagging(options, std::move(job), watching);
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
    if (watching) {
        try {
            auto* watch = new Watch(
                options.watch, how,
                [&tagging](Input input) { tagging.addWatched(std::move(input)); },
                [&tagging](const QString& text) { tagging.notice(text); });
            watch->setParent(&listening);
        } catch (const std::exception& error) {
            write(stderr,
                  QStringLiteral("zelkor-tag: can't watch '%1': %2\n")
                      .arg(options.watch.join(QStringLiteral("', '")), describeError(error)));
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
    const auto parsed = parse(arguments);
    if (const auto* error = std::get_if<UsageError>(&parsed)) {
        write(stderr, QStringLiteral("zelkor-tag: %1 (see --help)\n").arg(error->message));
        return kExitUsage;
    }
    const Options& options = std::get<Options>(parsed);
    if (options.help) {
        write(stdout, usage());
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
        if ((options.paths.isEmpty() && options.watch.isEmpty()) || status != kExitOk)
            return status;
    }
    if (options.paths.isEmpty() && options.watch.isEmpty()) {
        write(stderr, QStringLiteral("zelkor-tag: no PATH given (see --help)\n"));
        return kExitUsage;
    }
    Engine::setAnalysisCache(!options.noCache);
    const int status = tagAll(options);
    if (status > kExitSignalled)
        endBy(status - kExitSignalled);
    return status;
}
