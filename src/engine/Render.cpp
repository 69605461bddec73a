// Placing the clip over a track and rendering the tagged file with one ffmpeg run.
#include "engine/Engine.h"
#include "platform/Files.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QTextBoundaryFinder>
#include <cmath>
#include <functional>
#include <mutex>

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

namespace {

// Output names chosen by renders still running, so that parallel jobs never
// pick the same one (the existence test and ffmpeg's write are not atomic).
std::mutex reservedLock;
QSet<QString> reserved;

QString freeOutput(const QString& track, const std::function<bool(const QString&)>& taken) {
    const QFileInfo info(track);
    const QString base = info.completeBaseName() + kOutputSuffix;
    const QString ext = info.suffix().toLower();
    const QString dir = info.absolutePath() + QLatin1Char('/');
    const auto named = [&](const QString& name) {
        return ext.isEmpty() ? dir + name : dir + name + QLatin1Char('.') + ext;
    };
    QString candidate = named(base);
    for (int n = 2; taken(candidate); ++n)
        candidate = named(base + QStringLiteral(" (%1)").arg(n));
    return candidate;
}

class Reservation {
public:
    explicit Reservation(const QString& track) {
        const std::lock_guard locker(reservedLock);
        m_path = freeOutput(track, [](const QString& path) {
            return Files::occupied(path) || reserved.contains(path);
        });
        reserved.insert(m_path);
    }
    ~Reservation() {
        const std::lock_guard locker(reservedLock);
        reserved.remove(m_path);
    }
    Reservation(const Reservation&) = delete;
    Reservation& operator=(const Reservation&) = delete;
    const QString& path() const { return m_path; }

private:
    QString m_path;
};

} // namespace

QString outputURL(const QString& track) {
    return freeOutput(track, Files::occupied);
}

QStringList renderArguments(const QString& track, const QString& tag, const QString& graph,
                            const QString& output) {
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
    if (QFileInfo(track).suffix().toLower() == QLatin1String("mp3"))
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
    const QStringList lines = output.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    const QString last = lines.isEmpty() ? QStringLiteral("ERROR") : lines.last();
    return firstCharacters(last, kErrorTextLength).toUpper();
}

Result process(const QString& track, const QString& tag, double interval, double levelDB) {
    if (!(interval > 0) || !std::isfinite(interval))
        throw Failure(QStringLiteral("INTERVAL MUST BE A POSITIVE NUMBER OF SECONDS"));
    if (!std::isfinite(levelDB))
        throw Failure(QStringLiteral("LEVEL MUST BE A NUMBER OF DB"));

    const TagInfo clip = info(tag);
    const Analysis analysis = analyze(track);
    const double gain = clipGain(levelDB, analysis.lufs, clip.lufs);
    const std::vector<double> times = positions(analysis.duration, interval, clip.length);
    if (times.size() == kMaxPlacements)
        throw Failure(QStringLiteral("TOO MANY TAGS FOR THIS TRACK"));

    const Reservation reservation(track);
    const QString& out = reservation.path();
    RunResult result;
    try {
        result = run(renderArguments(track, tag, filterGraph(gain, times, analysis.format), out));
    } catch (...) {
        QFile::remove(out); // stopped half-way
        throw;
    }
    if (result.status == 0)
        return {out, static_cast<int>(times.size())};

    QFile::remove(out);
    throw TagError::ffmpegFailed(failureText(result.output));
}

} // namespace Engine
