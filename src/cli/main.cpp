// zelkor-tag: tags tracks from the shell, one at a time unless told otherwise,
// with the window's log lines on standard output.
#include "cli/Options.h"
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

// False when the text could not be written whole.
bool write(std::FILE* stream, const QString& text) {
    const bool written = std::fputs(text.toLocal8Bit().constData(), stream) >= 0;
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

QString lineFor(const Batch::Outcome& outcome) {
    const QString name = QFileInfo(outcome.track).fileName();
    if (!outcome.result)
        return name + QStringLiteral("  ") + outcome.error;
    return name + QStringLiteral("  ") + StatusTexts::tagged(outcome.result->placements) +
           QStringLiteral("  -> ") + outcome.result->output;
}

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

int tagAll(const Cli::Options& options) {
    const QStringList tracks = Engine::collect(options.paths);
    if (tracks.isEmpty()) {
        write(stderr, QStringLiteral("NO TRACKS FOUND\n"));
        return kExitFailed;
    }
    PreferencesFile preferences(PreferencesFile::userPath());
    std::optional<QString> chosen = options.tag;
    if (!chosen) {
        HomeTrash trash(HomeTrash::userFolder());
        Tags tags(preferences, trash);
        tags.seedDefaults();
        chosen = tags.selected();
    }
    if (!chosen) {
        write(stdout,
              QStringLiteral("%1  %2\n").arg(StatusTexts::kAddTagFirst, StatusTexts::kNoTag));
        return kExitFailed;
    }
    const QString tag = *chosen;
    if (!QFileInfo(tag).isFile()) {
        write(stderr, QStringLiteral("zelkor-tag: no tag clip at '%1'\n").arg(tag));
        return kExitFailed;
    }
    const Settings settings(preferences);
    const double interval = options.interval.value_or(settings.interval());
    const double levelDB = options.levelDB.value_or(settings.levelDB());

    // SIGINT, SIGTERM (a kill), SIGHUP (the terminal closed), SIGQUIT and a reader
    // of standard output that went away all stop the batch: its ffmpeg runs end,
    // their partial outputs go, the tracks already written stay.
    std::optional<Batch> batch;
    int stoppedBy = 0;
    const auto stop = [&](int signal) {
        if (stoppedBy == 0)
            stoppedBy = signal;
        batch->stop();
    };
    QObject listening; // the signal and pipe watchers go with it
    onSignals(&listening, {SIGINT, SIGTERM, SIGHUP, SIGQUIT}, stop);
    struct sigaction pipeAction = {};
    pipeAction.sa_handler = onBrokenPipe;
    sigaction(SIGPIPE, &pipeAction, nullptr);
    // A pipe's reader may go while a long render runs; poll reports it at once.
    struct stat out = {};
    if (fstat(STDOUT_FILENO, &out) == 0 && (S_ISFIFO(out.st_mode) || S_ISSOCK(out.st_mode))) {
        auto* closed = new QSocketNotifier(STDOUT_FILENO, QSocketNotifier::Exception, &listening);
        QObject::connect(closed, &QSocketNotifier::activated, closed, [closed, &stop] {
            closed->setEnabled(false);
            stop(SIGPIPE);
        });
    }

    Progress progress(tracks.size());
    progress.show(0);
    bool anyFailed = false; // the callbacks never run two at a time
    int outputError = 0;    // likewise
    batch.emplace(
        Batch::Work{tracks, tag, interval, levelDB, options.jobs},
        [&](const Batch::Outcome& outcome) {
            progress.clear();
            anyFailed = anyFailed || !outcome.result;
            if (outputError == 0 && !write(stdout, lineFor(outcome) + QLatin1Char('\n'))) {
                outputError = errno != 0 ? errno : EIO;
                batch->stop();
            }
            progress.show(outcome.index + 1);
        },
        [] { QMetaObject::invokeMethod(qApp, &QCoreApplication::quit, Qt::QueuedConnection); });
    QCoreApplication::exec();
    batch->wait();
    progress.clear();
    if (stoppedBy != 0)
        return kExitSignalled + stoppedBy;
    if (outputError != 0)
        return outputError == EPIPE ? kExitSignalled + SIGPIPE : kExitFailed;
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
    const int status = tagAll(options);
    if (status > kExitSignalled)
        endBy(status - kExitSignalled);
    return status;
}
