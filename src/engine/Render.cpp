// Placing the clip over a track and rendering the tagged file with one ffmpeg run.
#include "engine/Render.h"

#include "base/Files.h"
#include "engine/Keep.h"

#include <QHash>
#include <QRegularExpression>
#include <QSet>
#include <QTextBoundaryFinder>
#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

namespace Engine {

namespace {

// Timestamps counted afresh from the samples, for the filters that read them (afade).
// N/SR/TB alone is cut to a whole number and falls a sample short for about one frame
// start in eight at 44.1 kHz (32605.99...), which put a fade there a sample late.
const QString kRestamp = QStringLiteral("asetpts=round(N/SR/TB)");

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

// alimiter takes a limit up to 1: a higher ceiling scales the signal down and back up
// around it by a power of two, which leaves every sample it does not limit exact.
QString alimiter(double ceiling) {
    const QString times = QStringLiteral("level=0:attack=2:release=40:latency=1");
    if (ceiling <= 1)
        return QStringLiteral("alimiter=limit=%1:").arg(QString::number(ceiling, 'g', 7)) + times;
    const double scale = std::exp2(std::ceil(std::log2(ceiling)));
    return QStringLiteral("alimiter=level_in=%1:level_out=%2:limit=%3:")
               .arg(QString::number(1 / scale, 'g', 17), QString::number(scale, 'g', 17),
                    QString::number(ceiling / scale, 'g', 17)) +
           times;
}

// The limiter from the filter before it to the label `out`, its own labels named after
// `id`. On three channels or more ffmpeg 5.1's alimiter flips samples to the opposite
// ceiling where their peaks differ, so there it limits only the loudest channel's
// magnitude, in mono, and that one gain is laid on every channel.
QString limiter(const Mix& mix, const QString& id, const QString& out) {
    const int channels = mix.format ? channelCount(mix.format->channelLayout) : 0;
    if (channels < 3)
        return alimiter(mix.ceiling) + out;
    QString loudest = QStringLiteral("abs(val(0))");
    for (int c = 1; c < channels; ++c)
        loudest = QStringLiteral("max(%1,abs(val(%2)))").arg(loudest).arg(c);
    QString spread = QStringLiteral("pan=") + mix.format->channelLayout;
    for (int c = 0; c < channels; ++c)
        spread += QStringLiteral("|c%1=c0").arg(c);
    // In double precision, as alimiter alone would be, whether or not the stretch before
    // was. aeval leaves its layout unset; pan names it. The padded magnitude lets the
    // limiter's last samples, flushed at the end, still find their gain.
    return QStringLiteral(
               "aformat=sample_fmts=dbl,asplit=2[%1a][%1b];[%1b]aeval=exprs='%2',pan=mono|c0=c0,"
               "asplit=2[%1s][%1t];[%1s]%3[%1l];[%1t]apad[%1p];"
               "[%1l][%1p]join=inputs=2:channel_layout=stereo,"
               "aeval=exprs='if(gt(val(1),0),val(0)/val(1),1)',%4[%1g];"
               "[%1a][%1g]amultiply")
               .arg(id, loudest, alimiter(mix.ceiling), spread) +
           out;
}

using Stretches = std::vector<std::pair<long long, long long>>;

// Stretches of the track in samples, one around each copy from `lead` before its start to
// `tail` after its audible end; stretches that meet are one.
Stretches stretches(const Mix& mix, int rate, long long lead, long long tail) {
    const long long length = audibleSamples(mix.tagLength, rate);
    Stretches found;
    for (double t : mix.times) {
        const long long from = std::max(0LL, sampleDelay(t, rate) - lead);
        const long long to = sampleDelay(t, rate) + length + tail;
        if (!found.empty() && from <= found.back().second)
            found.back().second = std::max(found.back().second, to);
        else
            found.emplace_back(from, to);
    }
    return found;
}

// The stream cut at the stretches' bounds into pieces labelled after `cut`, each stretch
// through `treat` (given its piece's label and number, its own, and the label to write; it
// writes the whole text) into a piece labelled after `treated`, the rest passed on as it is,
// and all joined again into `out`. The stream is cut in the sample format `format` (its own
// when empty); the pieces passed on are joined in `join` (as they were cut when empty),
// which `treat` must write too, so that concat never has to choose one.
QString throughStretches(
    const Stretches& stretches, const QString& format, const QString& join, const QString& cut,
    const QString& treated, const QString& out,
    const std::function<QString(const QString&, qsizetype, std::size_t, const QString&)>& treat) {
    QStringList bounds;
    for (const auto& [from, to] : stretches) {
        if (from > 0)
            bounds << QString::number(from);
        bounds << QString::number(to);
    }
    const qsizetype pieces = bounds.size() + 1;
    // Piece 0 is a stretch when the first stretch starts with the track; then they alternate.
    const int firstTreated = stretches.front().first == 0 ? 0 : 1;
    QString stage =
        format.isEmpty() ? QString() : QStringLiteral("aformat=sample_fmts=%1,").arg(format);
    stage += QStringLiteral("asegment=samples=") + bounds.join(QLatin1Char('|'));
    QString joined;
    for (qsizetype i = 0; i < pieces; ++i)
        stage += QStringLiteral("[%1%2]").arg(cut).arg(i);
    stage += QLatin1Char(';');
    for (qsizetype i = 0; i < pieces; ++i) {
        const QString piece = QStringLiteral("[%1%2]").arg(cut).arg(i);
        const QString done = QStringLiteral("[%1%2]").arg(treated).arg(i);
        if (i % 2 == firstTreated) {
            stage += treat(piece, i, std::size_t(i / 2), done) + QLatin1Char(';');
            joined += done;
        } else if (!join.isEmpty()) {
            stage += piece + QStringLiteral("aformat=sample_fmts=%1").arg(join) + done +
                     QLatin1Char(';');
            joined += done;
        } else {
            joined += piece;
        }
    }
    return stage + joined + QStringLiteral("concat=n=%1:v=0:a=1").arg(pieces) + out;
}

// The clip's chain split into one copy per placement, each delayed by its entry of `delays`
// (as adelay takes it) and then through `then`, into [d0], [d1], ...
QString copiesOf(const QStringList& delays, const QString& then = {}) {
    QString text = QStringLiteral(",asplit=%1").arg(delays.size());
    for (qsizetype i = 0; i < delays.size(); ++i)
        text += QStringLiteral("[s%1]").arg(i);
    text += QLatin1Char(';');
    for (qsizetype i = 0; i < delays.size(); ++i)
        text += QStringLiteral("[s%1]adelay=%2:all=1%3[d%1];").arg(i).arg(delays[i], then);
    return text;
}

QString mixOf(qsizetype inputs, const QString& duration = QStringLiteral("first")) {
    return QStringLiteral("amix=inputs=%1:normalize=0:duration=%2:dropout_transition=0")
        .arg(inputs)
        .arg(duration);
}

// A stream's samples from `from` to `to` (by its timestamps, counted in samples) faded in
// and out like a copy, silent before and after.
QString window(int rate, long long from, long long to) {
    const long long fade = std::max(1LL, std::llround(kFadeSeconds * rate));
    return QStringLiteral("afade=t=in:ss=%1:ns=%2:curve=hsin,afade=t=out:ss=%3:ns=%2:curve=hsin")
        .arg(from)
        .arg(fade)
        .arg(std::max(from, to - fade));
}

// What the beat loses where it gives way: scaled by the mix's duck less one, in single
// precision as the mix it is added to.
QString opposite(const Mix& mix) {
    return QStringLiteral("volume=volume=%1:precision=float")
        .arg(QString::number(std::pow(10.0, -mix.duckDB / 20) - 1, 'g', 17));
}

// The beat giving way under a copy, as a branch to add to the stretch it lies in: the
// span of `length` samples from `offset`, taken out, shaped and laid back at its place.
QString givingWay(const Mix& mix, int rate, long long offset, long long length) {
    return QStringLiteral("atrim=start_sample=%1:end_sample=%2,").arg(offset).arg(offset + length) +
           kRestamp + QLatin1Char(',') + window(rate, 0, length) + QLatin1Char(',') +
           opposite(mix) + QStringLiteral(",adelay=%1S:all=1").arg(offset);
}

// The beat under each copy gives way by the mix's duck, writing [beat]: the beat plus one
// share of it, windowed under the copies and silent elsewhere, mixed once. The share is cut
// at each stretch's end and each piece windowed by the track's own timestamps, two filters a
// stretch: a mix of its own for each held ffmpeg's buffers to the end (a 2-hour master given
// way under every 30 s took 158 MB), and every filter costs each step through the graph. The
// share is copied first so that the windows work in place (their buffers too are held);
// it is padded, and the beat ends the mix, as in the stretches' mix.
QString duckedBeat(const Mix& mix, int rate) {
    const Stretches spans = stretches(mix, rate, 0, 0);
    QStringList ends;
    QString cut, windows, pieces;
    for (std::size_t i = 0; i < spans.size(); ++i) {
        ends << QString::number(spans[i].second);
        cut += QStringLiteral("[b%1]").arg(i);
        windows += QStringLiteral("[b%1]").arg(i) + window(rate, spans[i].first, spans[i].second) +
                   QStringLiteral("[c%1];").arg(i);
        pieces += QStringLiteral("[c%1]").arg(i);
    }
    // What follows the last stretch is silenced and joined too: a piece nobody reads in
    // turn makes the cut read on, and the whole track piles up ahead of the join.
    const QString rest = QStringLiteral("[b%1]").arg(spans.size());
    // In single precision, as the mix after it: double would cost the whole track a sixth more.
    return QStringLiteral("[0:a]aformat=sample_fmts=flt,") + kRestamp +
           QStringLiteral(",asplit=2[bx][by];[by]acopy,asegment=samples=") +
           ends.join(QLatin1Char('|')) + cut + rest + QLatin1Char(';') + windows + rest +
           QStringLiteral("volume=0[c%1];").arg(spans.size()) + pieces +
           QStringLiteral("[c%1]concat=n=%2:v=0:a=1,").arg(spans.size()).arg(spans.size() + 1) +
           opposite(mix) + QStringLiteral(",apad[bz];[bz][bx]") +
           mixOf(2, QStringLiteral("shortest")) + QLatin1Char(',') + kRestamp +
           QStringLiteral("[beat];");
}

// Whether the track is worked on only around its copies. When nothing of it reaches the
// ceiling, the limiter can only act near a copy: from its 2 ms look-ahead before the copy
// to its 40 ms release after it. Then each stretch (with room to spare) is mixed with its
// copies, gives way and is limited on its own, and the rest of the track is passed on
// untouched: the same samples at a fraction of the cost. Each stretch costs ffmpeg a
// little, so past kMaxLimitedStretches the whole track is mixed and limited.
bool aroundCopies(const Mix& mix, int rate) {
    return mix.clearOfCeiling && rate > 0 && mix.times.size() <= kMaxLimitedStretches;
}

// The track cut into the stretches around the copies, each mixed with its own copies,
// giving way under them and limited, writing [out]. ffmpeg 5.1's amix drops what it holds
// of its first input when that input ends before the others caught up (measured: 956
// samples of a stretch at 8 kHz), so the stretch is the second input and the only one that
// ends: the copies and the beat's shares are padded without end, and the mix stops once the
// stretch is drained. A sum's first two terms commute, so the samples are those of the
// track mixed first. The joined pieces' timestamps run ahead of their samples: they are
// counted afresh, as a float WAV's header counts its samples by them.
QString stretchedMix(const Mix& mix, int rate, const QString& clipChain) {
    const Stretches around = stretches(mix, rate, rate / 100, rate / 10);
    const Stretches spans = mix.duckDB > 0 ? stretches(mix, rate, 0, 0) : Stretches();
    const std::size_t n = mix.times.size();
    // Each copy, delayed to its place in its stretch.
    QStringList delays;
    std::vector<QStringList> copies(around.size());
    for (std::size_t i = 0, s = 0; i < n; ++i) {
        const long long start = sampleDelay(mix.times[i], rate);
        while (start >= around[s].second)
            ++s;
        delays << QStringLiteral("%1S").arg(start - around[s].first);
        copies[s] << QStringLiteral("[d%1]").arg(i);
    }
    const QString padded = QStringLiteral(",apad");
    return clipChain + copiesOf(delays, padded) + QStringLiteral("[0:a]") +
           throughStretches(
               around, QString(), mix.joinFormat, QStringLiteral("g"), QStringLiteral("h"),
               QLatin1Char(',') + kRestamp + QStringLiteral("[out]"),
               [&](const QString& piece, qsizetype i, std::size_t s, const QString& done) {
                   const auto [from, to] = around[s];
                   QStringList shares;
                   for (const auto& [a, b] : spans)
                       if (a >= from && a < to)
                           shares << givingWay(mix, rate, a - from, b - a) + padded;
                   // The beat's shares, then the copies: their order in the whole track's mix.
                   QString text, stretch = piece;
                   QStringList added;
                   if (!shares.isEmpty()) {
                       // In single precision, as the mix: afade would work on integers.
                       stretch = QStringLiteral("[e%1x]").arg(i);
                       text = piece +
                              QStringLiteral("aformat=sample_fmts=flt,asplit=%1")
                                  .arg(shares.size() + 1) +
                              stretch;
                       for (qsizetype j = 0; j < shares.size(); ++j)
                           text += QStringLiteral("[e%1y%2]").arg(i).arg(j);
                       text += QLatin1Char(';');
                       for (qsizetype j = 0; j < shares.size(); ++j) {
                           added << QStringLiteral("[e%1z%2]").arg(i).arg(j);
                           text += QStringLiteral("[e%1y%2]").arg(i).arg(j) + shares[j] +
                                   added.last() + QLatin1Char(';');
                       }
                   }
                   added += copies[s];
                   return text + added.first() + stretch + added.sliced(1).join(QString()) +
                          mixOf(added.size() + 1, QStringLiteral("shortest")) + QLatin1Char(',') +
                          limiter(mix, QStringLiteral("k%1").arg(i),
                                  QStringLiteral(",aformat=sample_fmts=%1").arg(mix.joinFormat) +
                                      done);
               });
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

double duck(std::optional<double> trackPeakDB, double ceiling, std::optional<double> tagPeakDB) {
    if (!trackPeakDB || !tagPeakDB)
        return 0;
    // The limiter takes from the copy and the beat alike whatever passes the ceiling. Their
    // peaks seldom meet in full: measured, they add like powers, not like amplitudes. So the
    // beat gives way until the two fit so, and as far as it may once the copy alone nears it.
    const double tag = std::pow(10.0, *tagPeakDB / 20), beat = std::pow(10.0, *trackPeakDB / 20);
    const double room = ceiling * ceiling - tag * tag,
                 least = beat * std::pow(10.0, -kMostDuck / 20);
    if (room <= least * least)
        return kMostDuck;
    return std::max(0.0, 20 * std::log10(beat / std::sqrt(room)));
}

bool carriesOverFullScale(const Analysis& track, const QString& format) {
    return format != QLatin1String("mp3") && track.floatSamples;
}

double ceiling(std::optional<double> peakDB, bool overFullScale) {
    if (!peakDB || !std::isfinite(*peakDB))
        return kDefaultCeiling;
    // The meter prints 0.1 dB steps, so the true peak may lie half a step above; the
    // ceiling is rounded up in the last written digit, never below the peak.
    const double linear = std::pow(10.0, (*peakDB + kHalfStep) / 20);
    return std::clamp(std::ceil(linear * kLimitDigits + 1e-6) / kLimitDigits, kDefaultCeiling,
                      overFullScale ? kHighestCeiling : 1.0);
}

bool clearOfCeiling(const Analysis& track, const QString& format) {
    if (!track.peak)
        return false;
    // Where the ceiling is clamped at 1, only integer samples are sure to stay under it.
    // An MP3 is encoded from the mix as it is: its samples past full scale pass untouched
    // outside the tags, and under them the mix is held at full scale, as a plain encode of
    // them would decode past it again.
    return *track.peak + kHalfStep <= 0 || track.integerSamples || format == QLatin1String("mp3") ||
           (carriesOverFullScale(track, format) &&
            *track.peak + kHalfStep <= 20 * std::log10(kHighestCeiling));
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
    const QString restamp = kRestamp + QLatin1Char(',');
    const QString fadeIn = QStringLiteral("afade=t=in:d=%1:curve=hsin,").arg(kFadeSeconds);
    graph += restamp;
    if (rate)
        graph += QStringLiteral("atrim=end_sample=%1,").arg(audibleSamples(mix.tagLength, rate));
    const QString faded = fadeIn + QStringLiteral("areverse,") + restamp + fadeIn +
                          QStringLiteral("areverse,") + restamp.chopped(1);
    graph += faded;
    if (aroundCopies(mix, rate))
        return stretchedMix(mix, rate, graph);

    // The faded chain laid at every placement: as a looped bed, or a branch per copy.
    const bool looped = shape == GraphShape::loopedBed && rate && n >= 2;
    QString laid;
    if (looped) {
        // The clip padded to one interval and repeated: the same samples at the same
        // places as one branch per copy, at the cost of a single two-input mix.
        graph += QStringLiteral(",apad=whole_len=%1,atrim=end_sample=%1,aloop=loop=%2:size=%1,"
                                "adelay=%3:all=1[bed];")
                     .arg(spacing(mix.times, rate))
                     .arg(n - 1)
                     .arg(delay(mix.times[0]));
        laid = QStringLiteral("[bed]");
    } else {
        QStringList delays;
        for (double t : mix.times)
            delays << delay(t);
        graph += copiesOf(delays);
        for (std::size_t i = 0; i < n; ++i)
            laid += QStringLiteral("[d%1]").arg(i);
    }
    const qsizetype inputs = looped ? 2 : qsizetype(n) + 1;
    const QString limited = mixOf(inputs) + QLatin1Char(',') +
                            limiter(mix, QStringLiteral("k"), QStringLiteral("[out]"));
    if (!(mix.duckDB > 0) || !rate)
        return graph + QStringLiteral("[0:a]") + laid + limited;
    return graph + duckedBeat(mix, rate) + QStringLiteral("[beat]") + laid + limited;
}

Encoder encoder(const Analysis& track, const QString& format) {
    if (format == QLatin1String("mp3")) {
        // lame takes planar floats. A rate or channels it cannot carry are converted after
        // the join, from the limiter's double precision as they always were.
        static constexpr int kRates[] = {8000,  11025, 12000, 16000, 22050,
                                         24000, 32000, 44100, 48000};
        const bool carried = track.format &&
                             std::ranges::count(kRates, track.format->sampleRate) > 0 &&
                             channelCount(track.format->channelLayout) > 0 &&
                             channelCount(track.format->channelLayout) <= 2;
        return {QStringLiteral("libmp3lame"),
                carried ? QStringLiteral("fltp") : QStringLiteral("dbl")};
    }
    // A WAV of floats stays one: its samples past full scale and its precision kept.
    if (track.floatSamples)
        return {QStringLiteral("pcm_f32le"), QStringLiteral("flt")};
    return {QStringLiteral("pcm_s24le"), QStringLiteral("s32")};
}

QStringList renderArguments(const QString& track, const QString& tag, const QString& graph,
                            const Analysis& analysis, const QString& output, const QString& format,
                            const QString& graphFile) {
    const bool mp3 = format == QLatin1String("mp3");
    // The analysis admits pictures only when every one is of a kind the MP3 muxer can
    // write, so a picture never fails the render. They are copied as they are, from the
    // track opened a second time: taken from the mixed input, ffmpeg 5.1 ends the audio
    // after a fraction of a second.
    const bool pictures = mp3 && analysis.pictures;
    const QString codec = encoder(analysis, format).codec;
    QStringList args{QStringLiteral("-y")};
    // The WAV reader's packets of 4 KiB cost every filter a step each.
    if (analysis.largePackets)
        args << QStringLiteral("-max_size") << QStringLiteral("32768");
    args << QStringLiteral("-i") << track << QStringLiteral("-i") << tag;
    if (pictures)
        args << QStringLiteral("-i") << track;
    if (graphFile.isEmpty())
        args << QStringLiteral("-filter_complex") << graph;
    else
        args << QStringLiteral("-filter_complex_script") << graphFile;
    args << QStringLiteral("-map") << QStringLiteral("[out]");
    if (pictures)
        args << QStringLiteral("-map") << QStringLiteral("2:v?") << QStringLiteral("-c:v")
             << QStringLiteral("copy");
    args << QStringLiteral("-map_metadata") << QStringLiteral("0");
    args << QStringLiteral("-c:a") << codec;
    if (mp3)
        args << QStringLiteral("-b:a") << QStringLiteral("320k") << QStringLiteral("-id3v2_version")
             << QStringLiteral("3") << QStringLiteral("-f") << QStringLiteral("mp3");
    else if (analysis.broadcastChunk)
        args << QStringLiteral("-write_bext") << QStringLiteral("1") << QStringLiteral("-f")
             << QStringLiteral("wav");
    else
        args << QStringLiteral("-f") << QStringLiteral("wav");
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

std::uint32_t littleEndian(const QByteArray& bytes, qsizetype at, int size) {
    std::uint32_t value = 0;
    for (int i = size - 1; i >= 0; --i)
        value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
    return value;
}

std::uint32_t bigEndian(const QByteArray& bytes, qsizetype at, int size) {
    std::uint32_t value = 0;
    for (int i = 0; i < size; ++i)
        value = value << 8 | static_cast<unsigned char>(bytes[at + i]);
    return value;
}

QByteArray bytesAt(int fd, long long at, qsizetype count) {
    QByteArray bytes(count, '\0');
    const ssize_t got = ::pread(fd, bytes.data(), static_cast<std::size_t>(count), at);
    bytes.truncate(std::max<ssize_t>(got, 0));
    return bytes;
}

// An output's samples per channel and their rate, as its header gives them.
struct Length {
    long long frames = 0;
    int rate = 0;
};

// A WAV's length by its data chunk; nothing when the chunk is missing or runs past the end.
std::optional<Length> wavLength(int fd, long long fileBytes) {
    const QByteArray riff = bytesAt(fd, 0, 12);
    if (riff.size() < 12 || !riff.startsWith("RIFF") || riff.mid(8, 4) != "WAVE" ||
        littleEndian(riff, 4, 4) + 8LL > fileBytes)
        return std::nullopt;
    std::uint32_t rate = 0, blockAlign = 0;
    for (long long at = 12; at + 8 <= fileBytes;) {
        const QByteArray chunk = bytesAt(fd, at, 24);
        if (chunk.size() < 8)
            break;
        const long long size = littleEndian(chunk, 4, 4);
        if (chunk.startsWith("fmt ") && chunk.size() >= 24) {
            rate = littleEndian(chunk, 12, 4);
            blockAlign = littleEndian(chunk, 20, 2);
        } else if (chunk.startsWith("data")) {
            if (rate == 0 || blockAlign == 0 || at + 8 + size > fileBytes)
                return std::nullopt;
            return Length{size / blockAlign, static_cast<int>(rate)};
        }
        at += 8 + size + (size & 1);
    }
    return std::nullopt;
}

// An MP3's length by its Xing or Info frame (frames, bytes, and the encoder's delay
// and padding), as ffmpeg writes it; nothing when it is missing or the stream is cut.
std::optional<Length> mp3Length(int fd, long long fileBytes) {
    long long at = 0;
    if (const QByteArray id3 = bytesAt(fd, 0, 10); id3.startsWith("ID3") && id3.size() == 10) {
        at = 10 + ((id3[6] & 0x7f) << 21 | (id3[7] & 0x7f) << 14 | (id3[8] & 0x7f) << 7 |
                   (id3[9] & 0x7f));
        if (id3[5] & 0x10)
            at += 10; // a footer
    }
    const QByteArray frame = bytesAt(fd, at, 200);
    if (frame.size() < 200 || static_cast<unsigned char>(frame[0]) != 0xff ||
        (frame[1] & 0xe6) != 0xe2) // a sync word, layer III
        return std::nullopt;
    const bool mpeg1 = (frame[1] & 0x18) == 0x18, mono = (frame[3] & 0xc0) == 0xc0;
    static constexpr int kRates[3] = {44100, 48000, 32000};
    const int index = (frame[2] >> 2) & 3;
    if (index == 3)
        return std::nullopt;
    const int rate = kRates[index] >> (mpeg1 ? 0 : (frame[1] & 0x18) == 0x10 ? 1 : 2);
    const qsizetype xing = 4 + (mpeg1 ? (mono ? 17 : 32) : (mono ? 9 : 17));
    const QByteArray mark = frame.mid(xing, 4);
    if ((mark != "Xing" && mark != "Info") || (bigEndian(frame, xing + 4, 4) & 3) != 3)
        return std::nullopt;
    const long long frames = bigEndian(frame, xing + 8, 4), bytes = bigEndian(frame, xing + 12, 4);
    if (at + bytes > fileBytes)
        return std::nullopt;
    // The encoder's delay and padding, 12 bits each, where ffmpeg writes them.
    const std::uint32_t gaps = bigEndian(frame, xing + 141, 3);
    const long long samples = frames * (mpeg1 ? 1152 : 576) - (gaps >> 12) - (gaps & 0xfff);
    return Length{std::max(samples, 0LL), rate};
}

} // namespace

std::optional<QString> outputFault(int fd, const QString& output, const Analysis& track) {
    struct stat file = {};
    if (::fstat(fd, &file) != 0)
        return QString::fromLocal8Bit(std::strerror(errno)).toUpper();
    if (file.st_size == 0)
        return QStringLiteral("FFMPEG WROTE NOTHING");
    std::optional<Length> length = wavLength(fd, file.st_size);
    if (!length)
        length = mp3Length(fd, file.st_size);
    if (!length)
        return QStringLiteral("OUTPUT INCOMPLETE");
    const double seconds = double(length->frames) / length->rate;
    // The samples the meter counted, in the output's: at the track's rate every one,
    // resampled for lame as many to a few of its own.
    if (const int rate = track.format && track.frames > 0 ? track.format->sampleRate : 0) {
        const double trackSeconds = double(track.frames) / rate;
        const long long missing = std::llround(trackSeconds * length->rate) - length->frames;
        if (std::abs(missing) > (rate == length->rate ? 0 : kResampledSlack)) {
            // Seconds to a tenth cannot show a loss of a few hundred samples.
            if (QString::number(seconds, 'f', 1) != QString::number(trackSeconds, 'f', 1))
                return QString::asprintf("OUTPUT LASTS %.1f S OF %.1f S", seconds, trackSeconds);
            return missing > 0 ? QStringLiteral("OUTPUT SHORT BY %1 SAMPLES").arg(missing)
                               : QStringLiteral("OUTPUT LONG BY %1 SAMPLES").arg(-missing);
        }
    }
    // A track that plays shorter than its header claims (a cut MP3) is damaged; a
    // duration ffmpeg only estimated says nothing about it.
    if (std::abs(seconds - track.duration) > kOutputDurationTolerance &&
        !output.contains(QLatin1String("Estimating duration from bitrate")))
        return QString::asprintf("OUTPUT LASTS %.1f S OF %.1f S", seconds, track.duration);
    return std::nullopt;
}

namespace {

// ffmpeg's lines about the output quote its temporary name, which says nothing to
// the user: "Error closing file NAME: No space left on device".
QString withoutName(QString text, const QString& name) {
    return text.remove(QLatin1Char(' ') + name).remove(name + QStringLiteral(": ")).remove(name);
}

} // namespace

namespace {

// ffmpeg's clock runs ahead of the audio in a graph of concatenated stretches,
// so a render's progress is read from its output's size: the bytes a second
// of the track takes in it, 0 when the format is not known.
double outputBytesPerSecond(const Analysis& analysis, const QString& format) {
    constexpr double kMp3BytesPerSecond = 320'000 / 8;
    if (format == QLatin1String("mp3"))
        return kMp3BytesPerSecond;
    if (!analysis.format)
        return 0;
    return analysis.format->sampleRate * channelCount(analysis.format->channelLayout) *
           (analysis.floatSamples ? 4.0 : 3.0);
}

// The measurements and placements a render is made of.
struct Prepared {
    QString track;
    Analysis analysis;
    double gain = 0;
    std::vector<double> times;
    double tagLength = 0;
    std::optional<double> tagPeak; // dBFS, at its gain
};

Prepared prepare(const QString& given, const QString& tag, double interval, double levelDB) {
    if (!(interval > 0) || !std::isfinite(interval))
        throw TagError::badInterval();
    if (!std::isfinite(levelDB))
        throw TagError::badLevel();

    // Absolute from here on: QFileInfo would lose the stray bytes of a relative name.
    Prepared prepared{Names::absolute(given), {}, 0, {}, 0, {}};
    const TagInfo clip = info(tag);
    Measuring measuring;
    if (const ProgressReports* reports = ProgressReports::current())
        measuring.progress = [reports](double seconds, double length) {
            reports->reached()(Pass::analysis, seconds, length);
        };
    prepared.analysis = analyze(prepared.track, measuring);
    prepared.gain = clipGain(levelDB, prepared.analysis.lufs, clip.lufs);
    prepared.times = positions(prepared.analysis.duration, interval, clip.length);
    prepared.tagLength = clip.length;
    if (clip.peak)
        prepared.tagPeak = *clip.peak + prepared.gain;
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
    // The files as they are before they are measured: a DAW may write the track again
    // while it is tagged, and the output must be made from one file throughout.
    const QString clipFile = Names::absolute(tag);
    const std::optional<Files::Identity> trackWas = Files::identity(Names::absolute(given)),
                                         clipWas = Files::identity(clipFile);
    const Prepared prepared = prepare(given, tag, interval, levelDB);
    const QString& track = prepared.track;
    const Analysis& analysis = prepared.analysis;

    // Opened again: the cached clip, or the track, may have become a FIFO since.
    const OpenFile trackFile = openInput(track), tagFile = openInput(clipFile);
    // Readable by no more people than the track.
    PendingOutput out(output.folder, output.stem,
                      (trackWas ? trackWas->permissions & 0666 : 0666) | S_IRUSR | S_IWUSR);
    const double limit = ceiling(analysis.peak, carriesOverFullScale(analysis, output.extension));
    const Mix mix{.gainDB = prepared.gain,
                  .times = prepared.times,
                  .tagLength = prepared.tagLength,
                  .ceiling = limit,
                  .format = analysis.format,
                  .clearOfCeiling = clearOfCeiling(analysis, output.extension),
                  .duckDB = duck(analysis.peak, limit, prepared.tagPeak),
                  .joinFormat = encoder(analysis, output.extension).sampleFormat};
    const QString graph = filterGraph(mix);
    // A long track at a short interval, the beat giving way, takes a graph past what Linux
    // passes as one argument: ffmpeg then reads it from a file that no run leaves behind.
    const QByteArray graphText = graph.toUtf8();
    const OpenFile graphFile =
        graphText.size() > kLongestGraphArgument ? heldText(graphText) : OpenFile();
    const QStringList args =
        renderArguments(trackFile.argument(), tagFile.argument(), graph, analysis,
                        out.file().argument(), output.extension, graphFile.argument());
    std::vector<int> passed;
    for (const OpenFile* file : {&trackFile, &tagFile, &out.file(), &graphFile})
        if (file->passDown())
            passed.push_back(file->fd());

    // Stopped or failed, the temporary file goes with `out`.
    const PassMark rendering(Pass::render, analysis.duration,
                             outputBytesPerSecond(analysis, output.extension));
    const RunResult result = run(args, passed);
    if (result.signal != 0)
        throw TagError::ffmpegCrashed(result.signal);
    if (result.status != 0) {
        const QString why = failureText(withoutName(result.output, out.file().argument()));
        if (const int lack = lackIn(result.output))
            throw TagError::systemFailed(lack, {}, why);
        throw TagError::ffmpegFailed(why);
    }
    if (Files::identity(track) != trackWas || Files::identity(clipFile) != clipWas)
        throw TagError::changed();
    if (const std::optional<QString> fault = outputFault(out.file().fd(), result.output, analysis))
        throw TagError::badOutput(*fault);
    Keep::keepTags(track, out.file().fd(), output.extension);
    return resultOf(out.commit(output.extension, collision), prepared);
}

} // namespace Engine
