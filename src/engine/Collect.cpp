// Expanding dropped files and folders into the ordered list of tracks.
#include "engine/Engine.h"

#include <QDir>
#include <algorithm>
#include <array>
#include <cstdint>
#include <dirent.h>
#include <string>
#include <string_view>
#include <sys/stat.h>

namespace Engine {

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

bool isFolder(const QString& path) {
    struct stat info = {};
    return ::stat(encodeName(path).constData(), &info) == 0 && S_ISDIR(info.st_mode);
}

constexpr std::array kAudioExts{QLatin1String("mp3"), QLatin1String("wav")};

bool isAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// On the name's bytes: the extensions and "(Tagged)" are ASCII, so most entries
// of a big folder are turned away before any string is built.
bool isTrackName(std::string_view name) {
    const std::size_t dot = name.rfind('.');
    if (dot == std::string_view::npos)
        return false;
    const std::string_view ext = name.substr(dot + 1);
    const bool accepted =
        std::any_of(kAudioExts.begin(), kAudioExts.end(), [&](QLatin1String known) {
            return ext.size() == static_cast<std::size_t>(known.size()) &&
                   std::equal(ext.begin(), ext.end(), known.begin(), [](char a, char b) {
                       return a == b || (a >= 'A' && a <= 'Z' && a + 32 == b);
                   });
        });
    return accepted && name.substr(0, dot).find("(Tagged)") == std::string_view::npos;
}

bool isTrack(const QString& path) {
    const QByteArray name = encodeName(path.mid(path.lastIndexOf(QLatin1Char('/')) + 1));
    return isTrackName(std::string_view(name.constData(), static_cast<std::size_t>(name.size())));
}

// Calls `take` with each track's name in the folder, in the folder's own order,
// until it returns false. readdir without a stat per entry: a drag hovering over a
// big folder asks this on every move.
template<typename Take> void eachTrackName(const QString& folder, Take take) {
    DIR* dir = opendir(encodeName(folder).constData());
    if (!dir)
        return;
    while (const dirent* entry = readdir(dir)) {
        const std::string_view name(entry->d_name);
        if (isTrackName(name) && !take(name))
            break;
    }
    closedir(dir);
}

// Names sort in Unicode code-point order after canonical composition; UTF-8 bytes
// sort that way (a name that is not UTF-8 sorts by its bytes). Keys live in one
// buffer and the sort moves small records, not strings.
QStringList folderTracks(const QString& folder) {
    struct Span {
        std::size_t at = 0, size = 0;
    };
    struct Entry {
        Span key;  // the name's bytes, composed when not ASCII
        Span name; // the name as stored
    };
    std::string bytes;
    std::vector<Entry> tracks;
    bytes.reserve(1 << 16);
    const auto keep = [&bytes](std::string_view text) {
        const Span span{bytes.size(), text.size()};
        bytes.append(text);
        return span;
    };
    eachTrackName(folder, [&](std::string_view name) {
        const Span stored = keep(name);
        if (isAscii(name)) {
            tracks.push_back({stored, stored});
            return true;
        }
        const QString decoded = decodeName(QByteArrayView(name.data(), name.size()));
        const QByteArray composed = encodeName(decoded.normalized(QString::NormalizationForm_C));
        tracks.push_back({keep(std::string_view(composed.data(), composed.size())), stored});
        return true;
    });
    const auto view = [&bytes](Span span) {
        return std::string_view(bytes).substr(span.at, span.size);
    };
    std::sort(tracks.begin(), tracks.end(),
              [&](const Entry& a, const Entry& b) { return view(a.key) < view(b.key); });
    const QString prefix = folder.endsWith(QLatin1Char('/')) ? folder : folder + QLatin1Char('/');
    QStringList paths;
    paths.reserve(static_cast<qsizetype>(tracks.size()));
    for (const Entry& track : tracks) {
        const std::string_view name = view(track.name);
        const auto size = static_cast<qsizetype>(name.size());
        QString path;
        path.reserve(prefix.size() + size);
        path.append(prefix);
        if (track.key.at == track.name.at)
            path.append(QLatin1String(name.data(), size));
        else
            path.append(decodeName(QByteArrayView(name.data(), size)));
        paths << std::move(path);
    }
    return paths;
}

} // namespace

QString decodeName(QByteArrayView bytes) {
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

QByteArray encodeName(const QString& path) {
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

QString absoluteName(const QString& path) {
    return QDir::cleanPath(
        path.startsWith(QLatin1Char('/')) ? path : QDir::currentPath() + QLatin1Char('/') + path);
}

bool hasTracks(const QStringList& paths) {
    return std::any_of(paths.begin(), paths.end(), [](const QString& path) {
        if (!isFolder(path))
            return isTrack(path);
        bool found = false;
        eachTrackName(path, [&found](std::string_view) {
            found = true;
            return false; // one is enough
        });
        return found;
    });
}

QStringList collect(const QStringList& paths) {
    QStringList tracks;
    for (const QString& path : paths) {
        if (isFolder(path))
            tracks << folderTracks(path);
        else if (isTrack(path))
            tracks << path;
    }
    return tracks;
}

} // namespace Engine
