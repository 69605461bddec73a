// A run's plan and the one call that tags a track by its job: where the output
// goes, what a taken name does, and whether anything is written at all.
#include "engine/Engine.h"

#include "base/Files.h"
#include "base/Names.h"
#include "engine/Render.h"

#include <QDir>

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

} // namespace

Plan plan(const Job& job, std::vector<Input> inputs) {
    Plan planned;
    planned.reserve(inputs.size());
    for (Input& input : inputs) {
        OutputName output;
        if (!input.problem) {
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
    if (job.taken == Taken::skip && !track.ownOutput && Files::occupied(track.output.path()))
        return std::nullopt;
    const Collision collision =
        job.taken == Taken::replace || track.ownOutput ? Collision::replace : Collision::nextNumber;
    if (job.dryRun)
        return preview(input.track, job.clip, job.interval, job.levelDB, track.output, collision);
    if (!job.mirrorUnder.isEmpty())
        Files::makeFolders(track.output.folder);
    return process(input.track, job.clip, job.interval, job.levelDB, track.output, collision);
}

} // namespace Engine
