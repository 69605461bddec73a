// Placing the tag clip over a track and rendering the mix with ffmpeg.
#pragma once

#include "engine/Analysis.h"
#include "engine/Engine.h"
#include "engine/Output.h"

#include <QString>
#include <QStringList>
#include <optional>
#include <vector>

namespace Engine {

constexpr double kFirstPlacement = 0.5;
constexpr double kEndTolerance = 0.5;
constexpr double kFallbackPlacement = 0.0;
constexpr double kGainFloor = -40;
constexpr double kGainCeiling = 12;
constexpr int kErrorTextLength = 60;
// No tagging job needs more; a larger count means a nonsense interval or duration.
constexpr std::size_t kMaxPlacements = 100'000;

constexpr double kDefaultCeiling = 0.97;
constexpr double kFadeSeconds = 0.005;
constexpr double kMostDuck = 12; // dB the track gives way under a tag, at most
// The loop of the one-branch graph holds an interval of the track's audio (about 64 MB).
constexpr long long kMaxLoopSamples = 1LL << 24;
// Up to this many tags the track is mixed and limited only in the stretches around them:
// each stretch costs ffmpeg a little on every step through the whole graph, so more would
// cost more than it saves (measured on a 12-minute WAV: 36 stretches took a tenth less
// processor time than the whole track mixed, 72 as much, 144 a quarter more).
constexpr std::size_t kMaxLimitedStretches = 40;

std::vector<double> positions(double duration, double interval, double tagLength);
double clipGain(double levelDB, double trackLufs, double tagLufs);
constexpr double kHighestCeiling = 64; // the most the limiter's levels can scale
// Whether an output of `format` keeps samples past full scale exactly: a WAV of floats.
bool carriesOverFullScale(const Analysis& track, const QString& format);
// How far the track (its sample peak in dBFS) gives way under each copy so that the copy
// (its peak at its gain) and the beat fit under `ceiling` together: 0 to kMostDuck dB.
double duck(std::optional<double> trackPeakDB, double ceiling, std::optional<double> tagPeakDB);
// The limiter's ceiling: never below the track's own peak, so that it acts only under a
// tag; past full scale only where the output carries it.
double ceiling(std::optional<double> peakDB, bool overFullScale = false);
// Whether the track, rendered to `format`, needs its limiter only around the tags.
bool clearOfCeiling(const Analysis& track, const QString& format = {});

// Everything the render's filter graph depends on.
struct Mix {
    double gainDB = 0;
    std::vector<double> times;
    double tagLength = 0; // the clip's audible length: each copy fades out and ends there
    double ceiling = kDefaultCeiling;
    std::optional<AudioFormat> format;
    // Nothing of the track reaches the ceiling, so the limiter can pass what lies between
    // the tags untouched.
    bool clearOfCeiling = false;
    double duckDB = 0; // how far the track gives way under each copy
    // The sample format the output's encoder takes (Encoder): a track worked on only around
    // its copies is joined in it, so that each piece is converted once. dbl suits any.
    QString joinFormat = QStringLiteral("dbl");
};
enum class GraphShape {
    branchPerCopy, // one delayed branch per placement, all mixed under the track
    loopedBed,     // the clip looped once per interval: one branch, a two-input mix
};
// The looped bed when copies cannot overlap and lie a whole number of samples apart.
GraphShape graphShape(const Mix& mix);
QString filterGraph(const Mix& mix, GraphShape shape);
inline QString filterGraph(const Mix& mix) {
    return filterGraph(mix, graphShape(mix));
}
// The encoder of an output of `format` ("mp3" or "wav") and the sample format it takes.
struct Encoder {
    QString codec, sampleFormat;
};
Encoder encoder(const Analysis& track, const QString& format);
// Channels of a layout as ffmpeg names it ("stereo", "5.1(side)", "3c"); 0 when unknown.
int channelCount(const QString& layout);

// The inputs and the output as ffmpeg is to be given them: absolute paths, or
// /proc/self/fd/N (OpenFile::argument). The track's analysis says which of its extras
// (pictures, bext chunk) the output keeps; `format` "mp3" or "wav" chooses the encoder.
// With `graphFile`, ffmpeg reads the graph from that file instead of its argument.
QStringList renderArguments(const QString& track, const QString& tag, const QString& graph,
                            const Analysis& analysis, const QString& output, const QString& format,
                            const QString& graphFile = {});
// Linux takes no single argument over 128 KiB, and no less than that for a whole command
// line with its environment: half of it is left for the paths and the environment.
constexpr qsizetype kLongestGraphArgument = 64 * 1024;
// The message of a failed render: ffmpeg's last line that names a cause (not a
// closing line such as "Conversion failed!" or its statistics), cut and upper-cased.
QString failureText(const QString& output);

// An output may end this far from the track's duration, which ffmpeg's report
// rounds to 10 ms.
constexpr double kOutputDurationTolerance = 0.25;
// An output at another rate than the track's (an MP3 resampled for lame) may end
// this many of its samples from the track's length; measured, never more than one.
constexpr long long kResampledSlack = 2;
// What is wrong with a render's output, read from the file `fd` has open: its header
// (a WAV's data chunk, an MP3's Xing frame) must say it is whole, holds the samples
// the track was measured to hold (at another rate, as long) and lasts its duration;
// nothing when it does. A track whose duration ffmpeg only estimated (its text
// `output` says so) is not held to that.
std::optional<QString> outputFault(int fd, const QString& output, const Analysis& track);

// Tags one track into `output`; blocks while ffmpeg runs. Committed only when the
// track and the clip are still the files that were measured (else TagError::changed)
// and the output is whole (else TagError::badOutput).
Result process(const QString& track, const QString& tag, double interval, double levelDB,
               const OutputName& output, Collision collision);
Result process(const QString& track, const QString& tag, double interval, double levelDB,
               const Destination& destination = {});
// What process would do now, without rendering: the figures, the placements and
// the output's name. Blocks while the clip and the track are measured.
Result preview(const QString& track, const QString& tag, double interval, double levelDB,
               const OutputName& output, Collision collision);

} // namespace Engine
