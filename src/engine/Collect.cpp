// Expanding dropped files and folders into the ordered list of tracks.
#include "engine/Collect.h"

#include "base/Names.h"

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

bool isFolder(const QString& path) {
    struct stat info = {};
    return ::stat(Names::encode(path).constData(), &info) == 0 && S_ISDIR(info.st_mode);
}

constexpr std::array kAudioExts{QLatin1String("mp3"), QLatin1String("wav")};

bool isAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// On the name's bytes: the extensions and "(Tagged)" are ASCII, so most entries
// of a big folder are turned away before any string is built.
bool isTrackName(std::string_view name) {
    // "._NAME" is another system's sidecar of NAME (AppleDouble), never audio.
    if (name.starts_with("._"))
        return false;
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

// Calls `take` with each track's name in the folder, in the folder's own order,
// until it returns false. readdir without a stat per entry: a drag hovering over a
// big folder asks this on every move.
template<typename Take> void eachTrackName(const QString& folder, Take take) {
    DIR* dir = opendir(Names::encode(folder).constData());
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
        const QString decoded = Names::decode(QByteArrayView(name.data(), name.size()));
        const QByteArray composed = Names::encode(decoded.normalized(QString::NormalizationForm_C));
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
            path.append(Names::decode(QByteArrayView(name.data(), size)));
        paths << std::move(path);
    }
    return paths;
}

} // namespace

bool isTrack(const QString& path) {
    const QByteArray name = Names::encode(path.mid(path.lastIndexOf(QLatin1Char('/')) + 1));
    return isTrackName(std::string_view(name.constData(), static_cast<std::size_t>(name.size())));
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
