// A run's plan and the one call that tags a track by its job: where the output
// goes, one output per track, what a taken name does, and whether anything is
// written at all.
#include "engine/Engine.h"

#include "base/Files.h"
#include "base/Names.h"
#include "engine/Collect.h"
#include "engine/Render.h"

#include <QDir>
#include <QHash>
#include <QSet>
#include <algorithm>
#include <map>
#include <numeric>
#include <utility>

namespace Engine {

namespace {

// The folder under `outputDir` that mirrors the track's own below its root.
QString mirroredFolder(const Input& input, const QString& outputDir) {
    const QString below = QDir(input.root).relativeFilePath(Names::folderOf(input.track));
    return QDir::cleanPath(Names::absolute(outputDir) + QLatin1Char('/') + below);
}

QString formatName(Format format) {
    switch (format) {
    case Format::mp3:
        return QStringLiteral("mp3");
    case Format::wav:
        return QStringLiteral("wav");
    case Format::same:
        break;
    }
    return {};
}

// One of the tracks whose outputs would take one name: a track of the run, or a
// master beside one of them that is not in the run (it keeps the names apart all
// the same, so that a track's name does not depend on what else a run was given).
struct Member {
    QString track;
    QString root;               // never empty: a track's own folder when it was found under none
    Planned* planned = nullptr; // nothing for a master beside
};

bool allDistinct(const QStringList& texts) {
    return QSet<QString>(texts.begin(), texts.end()).size() == texts.size();
}

// "Beat.WAV" -> "WAV", as written.
QString ownExtension(const QString& track) {
    const QString name = Names::fileName(track);
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    return dot < 0 ? QString() : name.mid(dot + 1);
}

// The last `count` folder names of `folder`: "/x/drums", 2 -> "x drums".
QString lastFolders(const QString& folder, qsizetype count) {
    const QStringList names = folder.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    return names.mid(std::max<qsizetype>(names.size() - count, 0)).join(QLatin1Char(' '));
}

// What tells each member apart from the others, in member order: its own
// extension when theirs differ, else (or as well, when that is not enough) the
// folder it was found under, with as many folders above as it takes.
QStringList apart(const std::vector<Member>& members) {
    QStringList extensions;
    for (const Member& member : members)
        extensions << ownExtension(member.track);
    const bool byExtension = QSet<QString>(extensions.begin(), extensions.end()).size() > 1;
    if (byExtension && allDistinct(extensions))
        return extensions;
    qsizetype deepest = 0;
    for (const Member& member : members)
        deepest = std::max(deepest, member.root.count(QLatin1Char('/')));
    QStringList named;
    for (qsizetype count = 1; count <= deepest; ++count) {
        named.clear();
        for (std::size_t i = 0; i < members.size(); ++i) {
            const QString folder = lastFolders(members[i].root, count);
            named << (byExtension ? QStringList{folder, extensions[static_cast<qsizetype>(i)]}
                                        .join(QLatin1Char(' '))
                                        .trimmed()
                                  : folder);
        }
        if (allDistinct(named))
            return named;
    }
    // Folders whose names, blank-joined, still read alike: then by the order of
    // the tracks' paths, which no order of the run's inputs changes.
    std::vector<std::size_t> order(members.size());
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return Names::encode(members[a].track) < Names::encode(members[b].track);
    });
    named = byExtension ? extensions : QStringList(std::ssize(members), QString());
    for (std::size_t rank = 0; rank < order.size(); ++rank) {
        QString& name = named[static_cast<qsizetype>(order[rank])];
        name = (name + QLatin1Char(' ') + QString::number(rank + 1)).trimmed();
    }
    return named;
}

// Which file a path names, through links.
using FileKey = std::pair<unsigned long long, unsigned long long>;
std::optional<FileKey> fileOf(const QString& path) {
    const auto identity = Files::identity(path);
    if (!identity)
        return std::nullopt;
    return FileKey{identity->device, identity->inode};
}

// Every output's name as the track alone gives it; tracks given twice dropped.
Plan named(const Job& job, std::vector<Input> inputs) {
    Plan planned;
    planned.reserve(inputs.size());
    QSet<QByteArray> paths;
    QSet<FileKey> files;
    for (Input& input : inputs) {
        OutputName output;
        if (!input.problem) {
            // The same master by another path (a link, a folder and a file in it) is the same.
            const auto file = fileOf(input.track);
            const QByteArray path = Names::encode(Names::absolute(input.track));
            const bool again = paths.contains(path) || (file && files.contains(*file));
            paths.insert(path);
            if (file)
                files.insert(*file);
            if (again)
                continue;
            Destination destination;
            if (!job.mirrorUnder.isEmpty() && !input.root.isEmpty())
                destination.folder = mirroredFolder(input, job.mirrorUnder);
            destination.format = formatName(job.format);
            output = outputName(input.track, destination);
        }
        planned.push_back({std::move(input), std::move(output)});
    }
    return planned;
}

// A folder's tracks by their names without the extension, read once per plan.
using FolderTracks = QHash<QString, QHash<QString, QStringList>>;

QString stemOf(const QString& name) {
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    return dot < 0 ? name : name.left(dot);
}

// The masters beside `track` in its folder whose outputs would take its name.
QStringList besides(const Planned& track, const Job& job, FolderTracks& folders) {
    const QString folder = Names::folderOf(Names::absolute(track.input.track));
    auto listed = folders.find(folder);
    if (listed == folders.end()) {
        QHash<QString, QStringList> tracks;
        for (const QString& name : Files::names(folder))
            if (isTrack(name))
                tracks[stemOf(name)] << folder + QLatin1Char('/') + name;
        listed = folders.insert(folder, tracks);
    }
    const Destination destination{track.output.folder, Collision::nextNumber,
                                  formatName(job.format)};
    const QString self = Names::absolute(track.input.track);
    QStringList found;
    for (const QString& other : listed->value(stemOf(Names::fileName(self))))
        if (other != self && outputName(other, destination) == track.output)
            found << other;
    return found;
}

} // namespace

Plan plan(const Job& job, std::vector<Input> inputs) {
    Plan planned = named(job, std::move(inputs));
    // The tracks of each output name; a name of one track stays as it is.
    std::map<QByteArray, std::vector<Member>> byName;
    for (Planned& track : planned)
        if (!track.input.problem)
            byName[Names::encode(track.output.path())].push_back(
                {track.input.track,
                 track.input.root.isEmpty() ? Names::folderOf(track.input.track) : track.input.root,
                 &track});
    FolderTracks folderTracks;
    for (auto& [name, members] : byName) {
        QSet<QString> inRun;
        for (const Member& member : members)
            inRun.insert(Names::absolute(member.track));
        const std::vector<Member> given = members;
        for (const Member& member : given) {
            for (const QString& other : besides(*member.planned, job, folderTracks)) {
                const auto file = fileOf(other);
                const bool same = std::any_of(members.begin(), members.end(), [&](const Member& m) {
                    return file && fileOf(m.track) == file;
                });
                if (!inRun.contains(other) && !same)
                    members.push_back({other, member.root, nullptr});
            }
        }
        if (members.size() < 2)
            continue;
        const QStringList told = apart(members);
        for (std::size_t i = 0; i < members.size(); ++i)
            if (members[i].planned)
                members[i].planned->output.stem +=
                    QStringLiteral(" (%1)").arg(told[static_cast<qsizetype>(i)]);
    }
    // A folder that takes no file, and a name too long, fail the track before it is measured.
    QHash<QString, std::optional<TagError>> folders;
    for (Planned& track : planned) {
        if (track.input.problem)
            continue;
        const QString& folder = track.output.folder;
        if (!folders.contains(folder))
            folders.insert(folder, unwritable(folder, !job.mirrorUnder.isEmpty()));
        track.input.problem = folders.value(folder);
        if (!track.input.problem)
            track.input.problem = tooLong(folder, Names::fileName(track.output.path()));
    }
    return planned;
}

Plan plan(const Job& job, const QStringList& tracks) {
    std::vector<Input> inputs;
    inputs.reserve(static_cast<std::size_t>(tracks.size()));
    for (const QString& track : tracks)
        inputs.push_back({track, {}, {}});
    return plan(job, std::move(inputs));
}

std::optional<Result> tag(const Job& job, const Planned& track) {
    const Input& input = track.input;
    if (input.problem)
        throw *input.problem;
    Collision collision =
        job.taken == Taken::replace || track.ownOutput ? Collision::replace : Collision::nextNumber;
    const std::optional<Files::Identity> master = Files::identity(input.track);
    if (job.taken == Taken::skip && !track.ownOutput) {
        // Done only when made from the master as it is now; another living run's
        // render is left to it. A stale output is made again under its own name.
        const QString done = track.output.path();
        if ((master && madeFrom(done, *master)) || beingWritten(track.output))
            return std::nullopt;
        if (Files::occupied(done))
            collision = Collision::replace;
    }
    if (job.dryRun) {
        Result result =
            preview(input.track, job.clip, job.interval, job.levelDB, track.output, collision);
        if (const auto refused = commitRefused(result.output, collision))
            throw *refused;
        return result;
    }
    if (!job.mirrorUnder.isEmpty())
        Files::makeFolders(track.output.folder);
    Result result =
        process(input.track, job.clip, job.interval, job.levelDB, track.output, collision);
    // Recorded only when the master read was the master as it is now.
    if (master && Files::identity(input.track) == master)
        recordSource(result.output, *master);
    return result;
}

} // namespace Engine
