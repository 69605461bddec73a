// Expanding dropped files and folders into the ordered list of tracks.
#include "engine/Engine.h"

#include <QFile>
#include <QFileInfo>
#include <algorithm>
#include <array>
#include <dirent.h>

namespace Engine {

namespace {

constexpr std::array kAudioExts{QLatin1String("mp3"), QLatin1String("wav")};

bool isAscii(const char* text) {
    for (; *text; ++text)
        if (static_cast<unsigned char>(*text) >= 0x80)
            return false;
    return true;
}

bool isTrackName(QStringView name) {
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    if (dot < 0)
        return false;
    const QStringView ext = name.mid(dot + 1);
    const bool accepted =
        std::any_of(kAudioExts.begin(), kAudioExts.end(), [&](QLatin1String known) {
            return ext.compare(known, Qt::CaseInsensitive) == 0;
        });
    return accepted && !name.left(dot).contains(QLatin1String("(Tagged)"));
}

bool isTrack(const QString& path) {
    return isTrackName(QStringView(path).mid(path.lastIndexOf(QLatin1Char('/')) + 1));
}

// readdir without a stat per entry: a drag hovering over a big folder asks this on every move.
// Names sort in Unicode code-point order after canonical composition; UTF-8 bytes sort that way.
QStringList folderTracks(const QString& folder) {
    std::vector<std::pair<QByteArray, QString>> tracks;
    DIR* dir = opendir(QFile::encodeName(folder).constData());
    if (!dir)
        return {};
    const QString prefix = folder.endsWith(QLatin1Char('/')) ? folder : folder + QLatin1Char('/');
    while (const dirent* entry = readdir(dir)) {
        const QString name = QFile::decodeName(entry->d_name);
        if (name == QLatin1String(".") || name == QLatin1String("..") || !isTrackName(name))
            continue;
        // ASCII is its own canonical form; only other names need composing.
        QByteArray key = isAscii(entry->d_name)
                             ? QByteArray(entry->d_name)
                             : name.normalized(QString::NormalizationForm_C).toUtf8();
        tracks.emplace_back(std::move(key), prefix + name);
    }
    closedir(dir);
    std::sort(tracks.begin(), tracks.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    QStringList paths;
    paths.reserve(static_cast<qsizetype>(tracks.size()));
    for (auto& track : tracks)
        paths << std::move(track.second);
    return paths;
}

} // namespace

const QSet<QString>& audioExts() {
    static const QSet<QString> exts(kAudioExts.begin(), kAudioExts.end());
    return exts;
}

QStringList collect(const QStringList& paths) {
    QStringList tracks;
    for (const QString& path : paths) {
        if (QFileInfo(path).isDir())
            tracks << folderTracks(path);
        else if (isTrack(path))
            tracks << path;
    }
    return tracks;
}

} // namespace Engine
