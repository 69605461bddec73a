// zelkor-tag: tags tracks from the shell, one at a time unless told otherwise,
// with the window's log lines on standard output.
#include "cli/Options.h"
#include "engine/Batch.h"
#include "engine/Engine.h"
#include "model/Settings.h"
#include "model/Tags.h"
#include "platform/Files.h"
#include "platform/Preferences.h"
#include "platform/Trash.h"
#include "platform/QuitSignals.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <csignal>
#include <cstdio>
#include <unistd.h>

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kBarCells = 30;

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

QString lineFor(const Batch::Outcome& outcome) {
    const QString name = QFileInfo(outcome.track).fileName();
    if (!outcome.result)
        return name + QStringLiteral("  ") + outcome.error;
    return QStringLiteral("%1  %2 TAGS  OK  -> %3")
        .arg(name)
        .arg(outcome.result->placements)
        .arg(outcome.result->output);
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
        const QString fileName = QFileInfo(file).fileName();
        try {
            if (!Tags::exts().contains(QFileInfo(file).suffix().toLower()) ||
                !QFileInfo(file).isFile())
                throw Failure(QStringLiteral("CAN'T ADD TAG"));
            const QString added = tags.add(file);
            write(stdout, QStringLiteral("TAG ADDED: %1  ARMED\n").arg(Tags::name(added)));
        } catch (const std::exception& error) {
            if (const auto* failed = dynamic_cast<const FileError*>(&error))
                write(stderr, QStringLiteral("zelkor-tag: %1\n").arg(failed->errorDescription()));
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
            try {
                tags.setSelected(*found);
                write(stdout, QStringLiteral("TAG SELECTED: %1\n").arg(Tags::name(*found)));
            } catch (const FileError& error) {
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
        write(stdout, QStringLiteral("ADD YOUR TAG FILE FIRST  NO TAG\n"));
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

    Progress progress(tracks.size());
    progress.show(0);
    bool anyFailed = false; // the callbacks never run two at a time
    Batch batch(
        {tracks, tag, interval, levelDB, options.jobs},
        [&](const Batch::Outcome& outcome) {
            progress.clear();
            write(stdout, lineFor(outcome) + QLatin1Char('\n'));
            anyFailed = anyFailed || !outcome.result;
            progress.show(outcome.index + 1);
        },
        [] { QMetaObject::invokeMethod(qApp, &QCoreApplication::quit, Qt::QueuedConnection); });
    bool interrupted = false;
    // On Ctrl-C or a kill, the running ffmpeg children are ended and their partial
    // outputs removed; tracks already written stay.
    onSignals(qApp, {SIGINT, SIGTERM}, [&](int) {
        interrupted = true;
        batch.stop();
    });
    QCoreApplication::exec();
    batch.wait();
    progress.clear();
    if (interrupted) {
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
    return tagAll(options);
}
