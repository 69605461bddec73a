// Placing the clip over a track and rendering the tagged file with one ffmpeg run.
#include "engine/Render.h"

#include "engine/Keep.h"

#include <QHash>
#include <QRegularExpression>
#include <QSet>
#include <QTextBoundaryFinder>
#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <mutex>

namespace Engine {

namespace {

// Placement times in whole milliseconds, as adelay wants them.
long long milliseconds(double seconds) {
    const double ms = std::trunc(seconds * 1000);
    constexpr double kLimit = 9.2e18;
    return ms >= kLimit ? static_cast<long long>(kLimit) : static_cast<long long>(ms);
}

// Written to six decimals: the ceiling is rounded up to the last of them.
constexpr double kLimitDigits = 1e6;
// Half the meter's step: the true peak lies at most this far above the printed one.
constexpr double kHalfStep = 0.05;

// A placement's first sample: its whole milliseconds at the track's rate.
long long sampleDelay(double seconds, int rate) {
    const long long ms = milliseconds(seconds);
    constexpr long long kLimit = std::numeric_limits<long long>::max() / 2;
    if (rate <= 0 || ms / 1000 > kLimit / rate)
        return kLimit;
    return ms / 1000 * rate + ms % 1000 * rate / 1000;
}

// Samples from the first copy to the second.
long long spacing(const std::vector<double>& times, int rate) {
    return sampleDelay(times[1], rate) - sampleDelay(times[0], rate);
}

// The samples each copy keeps: the clip up to its audible end.
long long audibleSamples(double seconds, int rate) {
    return std::max(1LL, std::llround(std::min(seconds, 1e9) * rate));
}

// The limiter, writing [out]. When nothing of the track reaches the ceiling it can only
// act near a copy: from its 2 ms look-ahead before the copy to its 40 ms release after
// it. Then only those stretches (with room to spare) pass through a limiter of their
// own and the rest is passed on untouched: the same samples at a fraction of the cost.
QString limiterStage(const Mix& mix, int rate) {
    const QString limiter =
        QStringLiteral("alimiter=limit=%1:level=0:attack=2:release=40:latency=1")
            .arg(QString::number(mix.ceiling, 'g', 7));
    if (!mix.clearOfCeiling || rate <= 0 || mix.times.size() > kMaxLimitedStretches)
        return limiter + QStringLiteral("[out]");
    const long long lead = rate / 100, tail = rate / 10,
                    length = audibleSamples(mix.tagLength, rate);
    std::vector<std::pair<long long, long long>> stretches;
    for (double t : mix.times) {
        const long long from = std::max(0LL, sampleDelay(t, rate) - lead);
        const long long to = sampleDelay(t, rate) + length + tail;
        if (!stretches.empty() && from <= stretches.back().second)
            stretches.back().second = std::max(stretches.back().second, to);
        else
            stretches.emplace_back(from, to);
    }
    QStringList bounds;
    for (const auto& [from, to] : stretches) {
        if (from > 0)
            bounds << QString::number(from);
        bounds << QString::number(to);
    }
    const qsizetype pieces = bounds.size() + 1;
    // Piece 0 is limited when the first stretch starts with the track; then they alternate.
    const int firstLimited = stretches.front().first == 0 ? 0 : 1;
    // In the limiter's own double precision throughout, or the pieces would be joined in
    // single precision and round differently.
    QString stage =
        QStringLiteral("aformat=sample_fmts=dbl,asegment=samples=") + bounds.join(QLatin1Char('|'));
    QString joined;
    for (qsizetype i = 0; i < pieces; ++i)
        stage += QStringLiteral("[g%1]").arg(i);
    stage += QLatin1Char(';');
    for (qsizetype i = 0; i < pieces; ++i) {
        if (i % 2 == firstLimited) {
            stage += QStringLiteral("[g%1]%2[h%1];").arg(i).arg(limiter);
            joined += QStringLiteral("[h%1]").arg(i);
        } else {
            joined += QStringLiteral("[g%1]").arg(i);
        }
    }
    return stage + joined + QStringLiteral("concat=n=%1:v=0:a=1[out]").arg(pieces);
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

double ceiling(std::optional<double> peakDB) {
    if (!peakDB || !std::isfinite(*peakDB))
        return kDefaultCeiling;
    // The meter prints 0.1 dB steps, so the true peak may lie half a step above; the
    // ceiling is rounded up in the last written digit, never below the peak.
    const double linear = std::pow(10.0, (*peakDB + kHalfStep) / 20);
    return std::clamp(std::ceil(linear * kLimitDigits + 1e-6) / kLimitDigits, kDefaultCeiling, 1.0);
}

bool clearOfCeiling(const Analysis& track) {
    if (!track.peak)
        return false;
    // Above 1 the ceiling is clamped: only integer samples are then sure to stay under it.
    return *track.peak + kHalfStep <= 0 || track.integerSamples;
}

int channelCount(const QString& layout) {
    static const QHash<QString, int> named{
        {QStringLiteral("mono"), 1},      {QStringLiteral("stereo"), 2},
        {QStringLiteral("downmix"), 2},   {QStringLiteral("quad"), 4},
        {QStringLiteral("hexagonal"), 6}, {QStringLiteral("octagonal"), 8},
        {QStringLiteral("cube"), 8},      {QStringLiteral("hexadecagonal"), 16}};
    static const QRegularExpression counted(QStringLiteral(R"(^(\d+)c$)"));
    static const QRegularExpression dotted(QStringLiteral(R"(^(\d+)\.(\d+)$)"));
    const QString name = layout.section(QLatin1Char('('), 0, 0);
    if (auto m = counted.match(name); m.hasMatch())
        return m.captured(1).toInt();
    if (auto m = dotted.match(name); m.hasMatch())
        return m.captured(1).toInt() + m.captured(2).toInt();
    return named.value(name, 0);
}

GraphShape graphShape(const Mix& mix) {
    const std::size_t n = mix.times.size();
    if (n < 2 || !mix.format)
        return GraphShape::branchPerCopy;
    const int rate = mix.format->sampleRate;
    const long long interval = spacing(mix.times, rate);
    for (std::size_t i = 2; i < n; ++i)
        if (sampleDelay(mix.times[i], rate) - sampleDelay(mix.times[i - 1], rate) != interval)
            return GraphShape::branchPerCopy;
    const int channels = channelCount(mix.format->channelLayout);
    const bool fits = audibleSamples(mix.tagLength, rate) <= interval;
    const bool small = channels > 0 && interval <= kMaxLoopSamples / channels;
    return fits && small ? GraphShape::loopedBed : GraphShape::branchPerCopy;
}

QString filterGraph(const Mix& mix, GraphShape shape) {
    const std::size_t n = mix.times.size();
    const int rate = mix.format ? mix.format->sampleRate : 0;
    // Delays in samples where the rate is known: adelay turns milliseconds into samples in
    // single precision, which puts most copies a sample or two away from their millisecond.
    const auto delay = [&](double t) {
        return rate ? QStringLiteral("%1S").arg(sampleDelay(t, rate))
                    : QString::number(milliseconds(t));
    };
    QString graph = QStringLiteral("[1:a]");
    // Mix in the track's own format: otherwise ffmpeg mixes at the clip's rate and layout.
    if (mix.format)
        graph += QStringLiteral("aformat=sample_rates=%1:channel_layouts=%2,")
                     .arg(mix.format->sampleRate)
                     .arg(mix.format->channelLayout);
    graph += QString::asprintf("volume=%.2fdB,", mix.gainDB);
    // Each copy ends at the clip's audible end and fades at both edges, so a clip cut
    // mid-word never clicks. The fade-out runs on the reversed clip, so it ends on the
    // clip's last sample whatever its container claimed; timestamps are counted afresh
    // because afade reads them.
    const QString restamp = QStringLiteral("asetpts=N/SR/TB,");
    const QString fadeIn = QStringLiteral("afade=t=in:d=%1:curve=hsin,").arg(kFadeSeconds);
    graph += restamp;
    if (rate)
        graph += QStringLiteral("atrim=end_sample=%1,").arg(audibleSamples(mix.tagLength, rate));
    graph += fadeIn + QStringLiteral("areverse,") + restamp + fadeIn + QStringLiteral("areverse,") +
             restamp.chopped(1);

    const QString mixed = QStringLiteral("amix=inputs=%1:normalize=0:duration=first:"
                                         "dropout_transition=0,");
    const QString limiter = limiterStage(mix, rate);
    if (shape == GraphShape::loopedBed && rate && n >= 2) {
        // The clip padded to one interval and repeated: the same samples at the same
        // places as one branch per copy, at the cost of a single two-input mix.
        graph += QStringLiteral(",apad=whole_len=%1,atrim=end_sample=%1,aloop=loop=%2:size=%1,"
                                "adelay=%3:all=1[bed];[0:a][bed]")
                     .arg(spacing(mix.times, rate))
                     .arg(n - 1)
                     .arg(delay(mix.times[0]));
        return graph + mixed.arg(2) + limiter;
    }
    graph += QStringLiteral(",asplit=%1").arg(n);
    for (std::size_t i = 0; i < n; ++i)
        graph += QStringLiteral("[s%1]").arg(i);
    graph += QLatin1Char(';');
    for (std::size_t i = 0; i < n; ++i)
        graph += QStringLiteral("[s%1]adelay=%2:all=1[d%1];").arg(i).arg(delay(mix.times[i]));
    graph += QStringLiteral("[0:a]");
    for (std::size_t i = 0; i < n; ++i)
        graph += QStringLiteral("[d%1]").arg(i);
    return graph + mixed.arg(n + 1) + limiter;
}

QStringList renderArguments(const QString& track, const QString& tag, const QString& graph,
                            const Analysis& analysis, const QString& output,
                            const QString& format) {
    const bool mp3 = format == QLatin1String("mp3");
    // The analysis admits pictures only when every one is of a kind the MP3 muxer can
    // write, so a picture never fails the render. They are copied as they are, from the
    // track opened a second time: taken from the mixed input, ffmpeg 5.1 ends the audio
    // after a fraction of a second.
    const bool pictures = mp3 && analysis.pictures;
    QStringList args{QStringLiteral("-y"), QStringLiteral("-i"), track, QStringLiteral("-i"), tag};
    if (pictures)
        args << QStringLiteral("-i") << track;
    args << QStringLiteral("-filter_complex") << graph << QStringLiteral("-map")
         << QStringLiteral("[out]");
    if (pictures)
        args << QStringLiteral("-map") << QStringLiteral("2:v?") << QStringLiteral("-c:v")
             << QStringLiteral("copy");
    args << QStringLiteral("-map_metadata") << QStringLiteral("0");
    if (mp3)
        args << QStringLiteral("-c:a") << QStringLiteral("libmp3lame") << QStringLiteral("-b:a")
             << QStringLiteral("320k") << QStringLiteral("-id3v2_version") << QStringLiteral("3")
             << QStringLiteral("-f") << QStringLiteral("mp3");
    else if (analysis.broadcastChunk)
        args << QStringLiteral("-c:a") << QStringLiteral("pcm_s24le")
             << QStringLiteral("-write_bext") << QStringLiteral("1") << QStringLiteral("-f")
             << QStringLiteral("wav");
    else
        args << QStringLiteral("-c:a") << QStringLiteral("pcm_s24le") << QStringLiteral("-f")
             << QStringLiteral("wav");
    args << output;
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

// ffmpeg's lines about the output quote its temporary name, which says nothing to
// the user: "Error closing file NAME: No space left on device".
QString withoutName(QString text, const QString& name) {
    return text.remove(QLatin1Char(' ') + name).remove(name + QStringLiteral(": ")).remove(name);
}

} // namespace

namespace {

// The measurements and placements a render is made of.
struct Prepared {
    QString track;
    Analysis analysis;
    double gain = 0;
    std::vector<double> times;
    double tagLength = 0;
};

Prepared prepare(const QString& given, const QString& tag, double interval, double levelDB) {
    if (!(interval > 0) || !std::isfinite(interval))
        throw TagError::badInterval();
    if (!std::isfinite(levelDB))
        throw TagError::badLevel();

    // Absolute from here on: QFileInfo would lose the stray bytes of a relative name.
    Prepared prepared{Names::absolute(given), {}, 0, {}};
    const TagInfo clip = info(tag);
    prepared.analysis = analyze(prepared.track);
    prepared.gain = clipGain(levelDB, prepared.analysis.lufs, clip.lufs);
    prepared.times = positions(prepared.analysis.duration, interval, clip.length);
    prepared.tagLength = clip.length;
    if (prepared.times.size() == kMaxPlacements)
        throw TagError::tooManyTags();
    return prepared;
}

Result resultOf(const QString& output, const Prepared& prepared) {
    return {output,
            static_cast<int>(prepared.times.size()),
            prepared.times,
            prepared.gain,
            prepared.analysis.lufs,
            output.endsWith(QLatin1String(".mp3")) ? Keep::mp3Kbps(output) : 0};
}

} // namespace

Result preview(const QString& track, const QString& tag, double interval, double levelDB,
               const OutputName& output, Collision collision) {
    const Prepared prepared = prepare(track, tag, interval, levelDB);
    Result result = resultOf(outputURL(output, collision), prepared);
    result.kbps = 0; // a file under that name is an earlier output, not this one
    return result;
}

Result process(const QString& track, const QString& tag, double interval, double levelDB,
               const Destination& destination) {
    return process(track, tag, interval, levelDB, outputName(track, destination),
                   destination.collision);
}

Result process(const QString& given, const QString& tag, double interval, double levelDB,
               const OutputName& output, Collision collision) {
    const Prepared prepared = prepare(given, tag, interval, levelDB);
    const QString& track = prepared.track;
    const Analysis& analysis = prepared.analysis;

    // Opened again: the cached clip, or the track, may have become a FIFO since.
    const QString clipFile = Names::absolute(tag);
    const OpenFile trackFile = openInput(track), tagFile = openInput(clipFile);
    PendingOutput out(output.folder, output.stem);
    const Mix mix{.gainDB = prepared.gain,
                  .times = prepared.times,
                  .tagLength = prepared.tagLength,
                  .ceiling = ceiling(analysis.peak),
                  .format = analysis.format,
                  .clearOfCeiling = clearOfCeiling(analysis)};
    const QStringList args =
        renderArguments(trackFile.argument(), tagFile.argument(), filterGraph(mix), analysis,
                        out.file().argument(), output.extension);
    std::vector<int> passed;
    for (const OpenFile* file : {&trackFile, &tagFile, &out.file()})
        if (file->passDown())
            passed.push_back(file->fd());

    // Stopped or failed, the temporary file goes with `out`.
    const RunResult result = run(args, passed);
    if (result.status != 0)
        throw TagError::ffmpegFailed(
            failureText(withoutName(result.output, out.file().argument())));
    Keep::keepTags(track, out.file().fd(), output.extension);
    return resultOf(out.commit(output.extension, collision), prepared);
}

} // namespace Engine
