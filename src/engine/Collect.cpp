// Expanding dropped files and folders into the ordered list of tracks.
#include "engine/Engine.h"

#include <QDirIterator>
#include <QFileInfo>
#include <algorithm>

namespace Engine {

namespace {

bool isTrack(const QString& path) {
    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'));
    const QStringView name = QStringView(path).mid(slash + 1);
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    if (dot < 0)
        return false;
    const QStringView ext = name.mid(dot + 1);
    return audioExts().contains(ext.toString().toLower()) &&
           !name.left(dot).contains(QLatin1String("(Tagged)"));
}

// Names in Unicode code-point order after canonical composition; UTF-8 bytes sort that way.
QStringList folderTracks(const QString& folder) {
    std::vector<std::pair<QByteArray, QString>> tracks;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    while (it.hasNext()) {
        const QString path = it.next();
        if (isTrack(path))
            tracks.emplace_back(it.fileName().normalized(QString::NormalizationForm_C).toUtf8(),
                                path);
    }
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
    static const QSet<QString> exts{QStringLiteral("mp3"), QStringLiteral("wav")};
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
