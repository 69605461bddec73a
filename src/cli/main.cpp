// zelkor-tag: tags tracks from the shell, one at a time, with the window's log
// lines on standard output.
#include "cli/Options.h"
#include "engine/Engine.h"

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
constexpr double kDefaultInterval = 30;
constexpr double kDefaultLevelDB = -5;

volatile std::sig_atomic_t interrupted = 0;

void onInterrupt(int) {
    interrupted = 1;
}

// ffmpeg shares our process group and stops on Ctrl-C by itself; we only stop
// starting new tracks, so the one it was writing is cleaned up, not left half done.
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

int tagAll(const Cli::Options& options) {
    const QStringList tracks = Engine::collect(options.paths);
    if (tracks.isEmpty()) {
        write(stderr, QStringLiteral("NO TRACKS FOUND\n"));
        return kExitFailed;
    }
    const QString tag = *options.tag;
    if (!QFileInfo(tag).isFile()) {
        write(stderr, QStringLiteral("zelkor-tag: no tag clip at '%1'\n").arg(tag));
        return kExitFailed;
    }

    const double interval = options.interval.value_or(kDefaultInterval);
    const double levelDB = options.levelDB.value_or(kDefaultLevelDB);
    Progress progress(tracks.size());
    int failures = 0;
    for (qsizetype i = 0; i < tracks.size() && !interrupted; ++i) {
        progress.show(i);
        const QString& track = tracks[i];
        QString line = QFileInfo(track).fileName() + QStringLiteral("  ");
        try {
            const Engine::Result result = Engine::process(track, tag, interval, levelDB);
            line += QStringLiteral("%1 TAGS  OK  -> %2").arg(result.placements).arg(result.output);
        } catch (const std::exception& error) {
            line += describeError(error);
            ++failures;
        }
        progress.clear();
        write(stdout, line + QLatin1Char('\n'));
    }
    progress.show(tracks.size());
    progress.clear();
    if (interrupted) {
        write(stderr, QStringLiteral("INTERRUPTED\n"));
        return kExitFailed;
    }
    return failures == 0 ? kExitOk : kExitFailed;
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
    if (!options.tag) {
        write(stderr, QStringLiteral("zelkor-tag: missing --tag FILE (see --help)\n"));
        return kExitUsage;
    }
    if (options.paths.isEmpty()) {
        write(stderr, QStringLiteral("zelkor-tag: no PATH given (see --help)\n"));
        return kExitUsage;
    }
    catchInterrupts();
    return tagAll(options);
}
