// Writing zelkor-tag's lines, and redrawing its progress line in place.
#include "cli/Console.h"

#include "base/Names.h"

#include <QRegularExpression>
#include <algorithm>
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

QString Tally::line(double seconds, bool dryRun) const {
    const auto whole = static_cast<qint64>(seconds);
    const QString time = seconds < 60   ? QString::asprintf("%.1f S", seconds)
                         : whole < 3600 ? QString::asprintf("%lld:%02lld", whole / 60, whole % 60)
                                        : QString::asprintf("%lld:%02lld:%02lld", whole / 3600,
                                                            whole / 60 % 60, whole % 60);
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
    if (m_shown) {
        m_total += tracks;
        show();
    }
}

void Progress::step() {
    if (m_shown) {
        ++m_done;
        show();
    }
}

void Progress::clear() {
    if (m_shown)
        write(stderr, QStringLiteral("\r\033[K"));
}

QString Progress::line(qsizetype done, qsizetype total) {
    const int width = std::max(2, static_cast<int>(QString::number(total).size()));
    const int filled = static_cast<int>(kBarCells * done / std::max<qsizetype>(total, 1));
    return QStringLiteral("\r%1/%2 [%3%4]")
        .arg(done, width, 10, QLatin1Char('0'))
        .arg(total, width, 10, QLatin1Char('0'))
        .arg(QString(filled, QLatin1Char('#')))
        .arg(QString(kBarCells - filled, QLatin1Char('.')));
}

void Progress::show() {
    write(stderr, line(m_done, m_total));
}

} // namespace Cli
