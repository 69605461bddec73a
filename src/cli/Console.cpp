// Writing zelkor-tag's lines, and redrawing its progress line in place.
#include "cli/Console.h"

#include "base/Names.h"

#include <algorithm>
#include <unistd.h>

namespace Cli {

bool write(std::FILE* stream, const QString& text) {
    const bool written = std::fputs(Names::encode(text).constData(), stream) >= 0;
    return std::fflush(stream) == 0 && written;
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
