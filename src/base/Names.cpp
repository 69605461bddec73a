// File names are bytes: the codec that carries them through a QString unchanged.
#include "base/Names.h"

#include <QDir>
#include <algorithm>
#include <cstdint>

namespace Names {

namespace {

constexpr char16_t kEscapes = 0xDC00; // + the byte, 0x80 to 0xFF

bool continuation(std::uint8_t byte, std::uint8_t low = 0x80, std::uint8_t high = 0xBF) {
    return byte >= low && byte <= high;
}

// The length of the well-formed UTF-8 sequence at `at` (no overlong forms, no
// surrogates, nothing above U+10FFFF), or 0.
qsizetype sequenceAt(QByteArrayView bytes, qsizetype at) {
    const auto byte = [&](qsizetype i) {
        return at + i < bytes.size() ? static_cast<std::uint8_t>(bytes[at + i]) : std::uint8_t(0);
    };
    const std::uint8_t lead = byte(0);
    if (lead < 0x80)
        return 1;
    if (lead >= 0xC2 && lead <= 0xDF)
        return continuation(byte(1)) ? 2 : 0;
    if (lead >= 0xE0 && lead <= 0xEF) {
        const bool second = lead == 0xE0   ? continuation(byte(1), 0xA0)
                            : lead == 0xED ? continuation(byte(1), 0x80, 0x9F)
                                           : continuation(byte(1));
        return second && continuation(byte(2)) ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        const bool second = lead == 0xF0   ? continuation(byte(1), 0x90)
                            : lead == 0xF4 ? continuation(byte(1), 0x80, 0x8F)
                                           : continuation(byte(1));
        return second && continuation(byte(2)) && continuation(byte(3)) ? 4 : 0;
    }
    return 0;
}

} // namespace

QString decode(QByteArrayView bytes) {
    QString text;
    qsizetype run = 0; // start of the well-formed bytes not yet decoded
    for (qsizetype at = 0; at < bytes.size();) {
        if (const qsizetype length = sequenceAt(bytes, at)) {
            at += length;
            continue;
        }
        text += QString::fromUtf8(bytes.sliced(run, at - run));
        text += QChar(static_cast<char16_t>(kEscapes + static_cast<std::uint8_t>(bytes[at])));
        run = ++at;
    }
    return run == 0 ? QString::fromUtf8(bytes) : text + QString::fromUtf8(bytes.sliced(run));
}

QByteArray encode(const QString& path) {
    QByteArray bytes;
    qsizetype run = 0; // start of the text not yet encoded
    for (qsizetype at = 0; at < path.size(); ++at) {
        const char16_t unit = path[at].unicode();
        if (QChar::isHighSurrogate(unit) && at + 1 < path.size() &&
            QChar::isLowSurrogate(path[at + 1].unicode())) {
            ++at; // a character beyond U+FFFF, not an escaped byte
            continue;
        }
        if (unit < kEscapes + 0x80 || unit > kEscapes + 0xFF)
            continue;
        bytes += QStringView(path).sliced(run, at - run).toUtf8();
        bytes += static_cast<char>(unit - kEscapes);
        run = at + 1;
    }
    return run == 0 ? path.toUtf8() : bytes + QStringView(path).sliced(run).toUtf8();
}

QString absolute(const QString& path) {
    return QDir::cleanPath(
        path.startsWith(QLatin1Char('/')) ? path : QDir::currentPath() + QLatin1Char('/') + path);
}

QString fileName(const QString& path) {
    return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
}

QString folderOf(const QString& path) {
    const QString whole = absolute(path);
    return whole.left(std::max(qsizetype(1), whole.lastIndexOf(QLatin1Char('/'))));
}

} // namespace Names
