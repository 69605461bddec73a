// Writing zelkor-tag's lines, and redrawing its progress line in place.
#include "cli/Console.h"

#include "base/Names.h"

#include <QRegularExpression>
#include <algorithm>
#include <cerrno>
#include <sys/ioctl.h>
#include <unistd.h>

namespace Cli {

bool write(std::FILE* stream, const QString& text) {
    const bool written = std::fputs(Names::encode(text).constData(), stream) >= 0;
    return std::fflush(stream) == 0 && written;
}

QString shellQuoted(const QStringList& words) {
    static const QRegularExpression plain(QStringLiteral("^[A-Za-z0-9_@%+=:,./-]+$"));
    QStringList quoted;
    for (const QString& word : words)
        quoted << (plain.match(word).hasMatch()
                       ? word
                       : QLatin1Char('\'') +
                             QString(word).replace(QLatin1Char('\''), QStringLiteral("'\\''")) +
                             QLatin1Char('\''));
    return quoted.join(QLatin1Char(' '));
}

QString inRed(const QString& line) {
    return QStringLiteral("\033[31m") + line + QStringLiteral("\033[0m");
}

namespace {

// 75 -> "1:15", 3725 -> "1:02:05".
QString clock(double seconds) {
    const auto whole = static_cast<qint64>(std::max(seconds, 0.0));
    return whole < 3600
               ? QString::asprintf("%lld:%02lld", whole / 60, whole % 60)
               : QString::asprintf("%lld:%02lld:%02lld", whole / 3600, whole / 60 % 60, whole % 60);
}

int terminalColumns() {
    winsize size = {};
    return ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

} // namespace

QString Tally::line(double seconds, bool dryRun) const {
    const QString time = seconds < 60 ? QString::asprintf("%.1f S", seconds) : clock(seconds);
    QString text = QStringLiteral("%1 %2  %3 SKIPPED  %4 FAILED")
                       .arg(written)
                       .arg(dryRun ? QStringLiteral("PLANNED") : QStringLiteral("WRITTEN"))
                       .arg(skipped)
                       .arg(failed);
    if (stopped > 0)
        text += QStringLiteral("  %1 STOPPED").arg(stopped);
    return text + QStringLiteral("  IN ") + time;
}

Progress::Progress(bool wanted)
    : m_shown(wanted && isatty(STDERR_FILENO)) {}

void Progress::grow(qsizetype tracks) {
    if (!m_shown)
        return;
    const std::lock_guard lock(m_mutex);
    if (m_finished == m_total) {
        m_since.start();
        m_finishedBefore = m_finished;
    }
    m_total += tracks;
    show();
}

void Progress::reached(const QString& name, const Batch::Progress& progress) {
    if (!m_shown)
        return;
    const std::lock_guard lock(m_mutex);
    const auto it =
        std::find_if(m_running.begin(), m_running.end(), [&progress](const Running& running) {
            return running.progress.index == progress.index;
        });
    if (progress.ended) {
        if (it != m_running.end())
            m_running.erase(it);
        ++m_finished;
        show();
        return;
    }
    if (it == m_running.end())
        m_running.push_back({name, progress});
    else
        it->progress = progress;
    if (!m_drawn.isValid() || m_drawn.elapsed() >= kRedrawMs)
        show();
}

bool Progress::above(std::FILE* stream, const QString& text) {
    if (!m_shown)
        return write(stream, text);
    const std::lock_guard lock(m_mutex);
    write(stderr, QStringLiteral("\r\033[K"));
    const bool written = write(stream, text);
    const int error = errno; // the caller's to read
    show();
    errno = error;
    return written;
}

void Progress::clear() {
    if (!m_shown)
        return;
    const std::lock_guard lock(m_mutex);
    write(stderr, QStringLiteral("\r\033[K"));
}

// "03/12 [########..........] beat.wav 2:13/10:00  kick.wav ANALYSIS 0:40/3:00  1:23 LEFT"
QString Progress::line() const {
    double work = static_cast<double>(m_finished);
    QString tracks;
    for (const Running& running : m_running) {
        const Batch::Progress& p = running.progress;
        work += p.fraction;
        tracks += QStringLiteral("  ") + running.name +
                  (p.pass == Engine::Pass::analysis ? QStringLiteral(" ANALYSIS ")
                                                    : QStringLiteral(" ")) +
                  clock(p.seconds) +
                  (p.length > 0 ? QLatin1Char('/') + clock(p.length) : QString());
    }
    const int width = std::max(2, static_cast<int>(QString::number(m_total).size()));
    const int filled = static_cast<int>(
        std::clamp(kBarCells * work / static_cast<double>(std::max<qsizetype>(m_total, 1)), 0.0,
                   static_cast<double>(kBarCells)));
    QString text = QStringLiteral("%1/%2 [%3%4]")
                       .arg(m_finished, width, 10, QLatin1Char('0'))
                       .arg(m_total, width, 10, QLatin1Char('0'))
                       .arg(QString(filled, QLatin1Char('#')))
                       .arg(QString(kBarCells - filled, QLatin1Char('.'))) +
                   tracks;
    // Once a little of the run is done, its pace so far says the rest.
    const double done = work - static_cast<double>(m_finishedBefore);
    const double seconds = static_cast<double>(m_since.elapsed()) / 1000;
    if (m_finished < m_total && done > 0.01 && seconds >= 1)
        text += QStringLiteral("  ") +
                clock(seconds * (static_cast<double>(m_total) - work) / done) +
                QStringLiteral(" LEFT");
    // Kept to one row, or the next redraw would start below it.
    return text.left(terminalColumns() - 1);
}

// Called with the lock held.
void Progress::show() {
    // A watch with nothing handed over yet shows nothing.
    write(stderr, QStringLiteral("\r\033[K") + (m_total > 0 ? line() : QString()));
    m_drawn.start();
}

} // namespace Cli
