// Placing the clip over a track and rendering the tagged file with one ffmpeg run.
#include "engine/Engine.h"

#include <QFileInfo>
#include <QTextBoundaryFinder>
#include <algorithm>
#include <cmath>

namespace Engine {

namespace {

// Placement times in whole milliseconds, as adelay wants them.
long long milliseconds(double seconds) {
    const double ms = std::trunc(seconds * 1000);
    constexpr double kLimit = 9.2e18;
    return ms >= kLimit ? static_cast<long long>(kLimit) : static_cast<long long>(ms);
}

QString firstCharacters(const QString& text, int count) {
    // Count what the user sees as characters, so an accent or an emoji is never cut in half.
    QTextBoundaryFinder boundaries(QTextBoundaryFinder::Grapheme, text);
    for (int seen = 0; seen < count; ++seen)
        if (boundaries.toNextBoundary() < 0)
            return text;
    return text.left(boundaries.position());
}

} // namespace

std::vector<double> positions(double duration, double interval, double tagLength) {
    std::vector<double> times;
    // A nonsense interval or duration gives the fallback rather than an endless loop.
    if (interval > 0 && std::isfinite(interval) && std::isfinite(duration) &&
        std::isfinite(tagLength)) {
        for (double t = kFirstPlacement; t + tagLength <= duration + kEndTolerance; t += interval) {
            if (times.size() == kMaxPlacements)
                break;
            times.push_back(t);
        }
    }
    if (times.empty())
        times.push_back(kFallbackPlacement);
    return times;
}

double clipGain(double levelDB, double trackLufs, double tagLufs) {
    double gain = levelDB + trackLufs - tagLufs;
    if (gain <= kGainFloor)
        gain = kGainFloor;
    if (gain > kGainCeiling)
        gain = kGainCeiling;
    return gain;
}

QString filterGraph(double gainDB, const std::vector<double>& times,
                    const std::optional<AudioFormat>& trackFormat) {
    const std::size_t n = times.size();
    QString graph = QStringLiteral("[1:a]");
    // Mix in the track's own format: otherwise ffmpeg mixes at the clip's rate and layout.
    if (trackFormat)
        graph += QStringLiteral("aformat=sample_rates=%1:channel_layouts=%2,")
                     .arg(trackFormat->sampleRate)
                     .arg(trackFormat->channelLayout);
    graph += QString::asprintf("volume=%.2fdB,asplit=%zu", gainDB, n);
    for (std::size_t i = 0; i < n; ++i)
        graph += QStringLiteral("[s%1]").arg(i);
    graph += QLatin1Char(';');
    for (std::size_t i = 0; i < n; ++i)
        graph += QStringLiteral("[s%1]adelay=%2:all=1[d%1];").arg(i).arg(milliseconds(times[i]));
    graph += QStringLiteral("[0:a]");
    for (std::size_t i = 0; i < n; ++i)
        graph += QStringLiteral("[d%1]").arg(i);
    graph += QStringLiteral("amix=inputs=%1:normalize=0:duration=first:dropout_transition=0,")
                 .arg(n + 1);
    graph += QStringLiteral("alimiter=limit=0.97:level=0:attack=2:release=40:latency=1[out]");
    return graph;
}

QStringList renderArguments(const QString& track, const QString& tag, const QString& graph,
                            const QString& output, const QString& format) {
    QStringList args{QStringLiteral("-y"),
                     QStringLiteral("-i"),
                     QFileInfo(track).absoluteFilePath(),
                     QStringLiteral("-i"),
                     QFileInfo(tag).absoluteFilePath(),
                     QStringLiteral("-filter_complex"),
                     graph,
                     QStringLiteral("-map"),
                     QStringLiteral("[out]"),
                     QStringLiteral("-map_metadata"),
                     QStringLiteral("0")};
    const QString family = format.isEmpty() ? QFileInfo(track).suffix().toLower() : format;
    if (family == QLatin1String("mp3"))
        args << QStringLiteral("-c:a") << QStringLiteral("libmp3lame") << QStringLiteral("-b:a")
             << QStringLiteral("320k") << QStringLiteral("-id3v2_version") << QStringLiteral("3")
             << QStringLiteral("-f") << QStringLiteral("mp3");
    else
        args << QStringLiteral("-c:a") << QStringLiteral("pcm_s24le") << QStringLiteral("-f")
             << QStringLiteral("wav");
    args << QFileInfo(output).absoluteFilePath();
    return args;
}

QString failureText(const QString& output) {
    // ffmpeg closes a failed run with lines that name no cause: its statistics
    // and "Conversion failed!".
    static const QRegularExpression closing(
        QStringLiteral(R"(^\s*(\[[^\]]*\] )?(Conversion failed!|size=|frame=|video:\S* audio:))"));
    static const QRegularExpression lineEnd(QStringLiteral("[\r\n]"));
    QStringList lines = output.split(lineEnd, Qt::SkipEmptyParts);
    lines.removeIf([](const QString& line) { return line.trimmed().isEmpty(); });
    if (lines.isEmpty())
        return QStringLiteral("ERROR");
    const auto cause = std::find_if(lines.crbegin(), lines.crend(), [](const QString& line) {
        return !closing.match(line).hasMatch();
    });
    return firstCharacters(cause != lines.crend() ? *cause : lines.last(), kErrorTextLength)
        .toUpper();
}

namespace {

// The render's arguments name an input by its path; one whose name is not text
// is named by its descriptor instead.
void nameInput(QStringList& args, const QString& path, const OpenFile& file,
               std::vector<int>& passed) {
    if (!file.passDown())
        return;
    const QString named = QFileInfo(path).absoluteFilePath(); // as renderArguments names it
    for (qsizetype i = 1; i < args.size(); ++i)
        if (args[i - 1] == QLatin1String("-i") && args[i] == named) {
            args[i] = file.argument();
            passed.push_back(file.fd());
            return;
        }
}

// ffmpeg's lines about the output quote its temporary name, which says nothing to
// the user: "Error closing file NAME: No space left on device".
QString withoutName(QString text, const QString& name) {
    return text.remove(QLatin1Char(' ') + name).remove(name + QStringLiteral(": ")).remove(name);
}

} // namespace

Result process(const QString& track, const QString& tag, double interval, double levelDB) {
    return process(track, tag, interval, levelDB, Destination{});
}

namespace {

// The measurements and placements a render is made of.
struct Prepared {
    QString track;
    Analysis analysis;
    double gain = 0;
    std::vector<double> times;
};

Prepared prepare(const QString& given, const QString& tag, double interval, double levelDB) {
    if (!(interval > 0) || !std::isfinite(interval))
        throw Failure(QStringLiteral("INTERVAL MUST BE A POSITIVE NUMBER OF SECONDS"));
    if (!std::isfinite(levelDB))
        throw Failure(QStringLiteral("LEVEL MUST BE A NUMBER OF DB"));

    // Absolute from here on: QFileInfo would lose the stray bytes of a relative name.
    Prepared prepared{absoluteName(given), {}, 0, {}};
    const TagInfo clip = info(tag);
    prepared.analysis = analyze(prepared.track);
    prepared.gain = clipGain(levelDB, prepared.analysis.lufs, clip.lufs);
    prepared.times = positions(prepared.analysis.duration, interval, clip.length);
    if (prepared.times.size() == kMaxPlacements)
        throw Failure(QStringLiteral("TOO MANY TAGS FOR THIS TRACK"));
    return prepared;
}

Result resultOf(const QString& output, const Prepared& prepared) {
    return {output, static_cast<int>(prepared.times.size()), prepared.times, prepared.gain,
            prepared.analysis.lufs};
}

} // namespace

Result plan(const QString& track, const QString& tag, double interval, double levelDB,
            const Destination& destination) {
    const Prepared prepared = prepare(track, tag, interval, levelDB);
    return resultOf(outputURL(prepared.track, destination), prepared);
}

Result process(const QString& given, const QString& tag, double interval, double levelDB,
               const Destination& destination) {
    const Prepared prepared = prepare(given, tag, interval, levelDB);
    const QString& track = prepared.track;
    const Analysis& analysis = prepared.analysis;

    // Opened again: the cached clip, or the track, may have become a FIFO since.
    const QString clipFile = absoluteName(tag);
    const OpenFile trackFile = openInput(track), tagFile = openInput(clipFile);
    const QFileInfo named(track);
    PendingOutput out(destination.folder.isEmpty() ? named.absolutePath() : destination.folder,
                      named.completeBaseName() + kOutputSuffix);
    QStringList args = renderArguments(track, clipFile,
                                       filterGraph(prepared.gain, prepared.times, analysis.format),
                                       out.file().argument(), destination.format);
    std::vector<int> passed;
    nameInput(args, track, trackFile, passed);
    nameInput(args, clipFile, tagFile, passed);
    if (out.file().passDown())
        passed.push_back(out.file().fd());

    // Stopped or failed, the temporary file goes with `out`.
    const RunResult result = run(args, passed);
    if (result.status != 0)
        throw TagError::ffmpegFailed(
            failureText(withoutName(result.output, out.file().argument())));
    const QString extension =
        destination.format.isEmpty() ? named.suffix().toLower() : destination.format;
    return resultOf(out.commit(extension, destination.collision), prepared);
}

} // namespace Engine
