// The audio engine: finds and runs ffmpeg, measures files, places and renders
// the tag clip, and expands dropped items into tracks. Paths are plain local
// file paths; everything handed to ffmpeg is made absolute first.
#pragma once

#include "base/Names.h"
#include "base/TagError.h"

#include <QRegularExpression>
#include <QString>
#include <QStringList>
#include <optional>
#include <vector>

namespace Engine {

// --- ffmpeg runner ---------------------------------------------------------

struct RunResult {
    int status = 0; // 0 on success; non-zero for any failure, a signal included
    QString output; // standard output and standard error, interleaved
};

// Where ffmpeg is looked for, in order: the program's own resource, then two
// fixed install paths. No PATH search.
QStringList ffmpegCandidates(const QString& resourcesDir);
// The first candidate that exists and may be executed.
std::optional<QString> findExecutable(const QStringList& candidates);
// Searched once per process, on first use.
const std::optional<QString>& ffmpeg();

// Runs ffmpeg with "-hide_banner -nostdin" and `args`; throws TagError::noFFmpeg
// when there is none, TagError::systemFailed when it cannot be started. The child dies with
// this process (so a run must be started by a thread that waits for it, as this
// call does). `passed` are descriptors the child keeps open, for the arguments
// of OpenFile::passDown files. Of a run's text the first and the last
// kOutputKept bytes are kept, whole lines only.
RunResult run(const QStringList& args, const std::vector<int>& passed = {});
constexpr qsizetype kOutputKept = 1 << 20;
// Ends every ffmpeg run in progress and refuses new ones, for quitting: such a
// run throws TagError::stopped, and a render removes its partial output first.
void stopAll();

// A file this process holds open for ffmpeg. ffmpeg is told its path, or, when
// the name is not text (Names::encode), /proc/self/fd/N with N passed down to it.
class OpenFile {
public:
    OpenFile() = default;
    OpenFile(int fd, const QString& path);
    ~OpenFile();
    OpenFile(OpenFile&& other) noexcept;
    OpenFile& operator=(OpenFile&& other) noexcept;

    int fd() const { return m_fd; } // -1 once closed
    const QString& argument() const { return m_argument; }
    bool passDown() const { return m_passDown; }
    void close();

private:
    int m_fd = -1;
    QString m_argument;
    bool m_passDown = false;
};

// Opens a track or clip for ffmpeg. Only a regular file (after following links)
// is accepted: anything else, or a file that cannot be opened, throws
// TagError::unreadable without touching it further; running out of descriptors
// throws TagError::systemFailed. A file ffmpeg is given by name is
// closed again at once.
OpenFile openInput(const QString& path);

// Capture group 1 of every match, in text order; an invalid pattern gives none.
QStringList match(const QString& pattern, const QString& text);
QStringList match(const QRegularExpression& pattern, const QString& text);

// --- analysis --------------------------------------------------------------

// The track's own sample rate and channel layout, as ffmpeg names them.
struct AudioFormat {
    int sampleRate = 0;
    QString channelLayout; // "stereo", "5.1(side)", "3c", ...
    bool operator==(const AudioFormat&) const = default;
};

struct Analysis {
    double lufs = -70;
    double duration = 0;
    std::optional<double> silenceStart; // a silence still running at the end
    std::optional<AudioFormat> format;
    std::optional<double> peak;  // sample peak in dBFS, as the meter prints it (to 0.1 dB)
    bool integerSamples = false; // decoded as integers, so never past full scale
    bool pictures = false;       // attached pictures, every one of a kind an MP3 can carry
    bool broadcastChunk = false; // a broadcast WAV's bext chunk (its time_reference)
};

struct TagInfo {
    double lufs = -70;
    double length = 0; // audible length
};

constexpr double kLoudnessFloor = -70;
constexpr double kMinimumTagLength = 0.5;
inline const QString kAnalysisFilter =
    QStringLiteral("silencedetect=n=-50dB:d=0.3,ebur128=framelog=verbose:peak=sample");

QStringList analysisArguments(const QString& path);
// Reads the figures from an analysis run's text; throws TagError::unreadable
// when it holds no duration.
Analysis parseAnalysis(const QString& output);
// A capture as a number: digits with at most one point, an optional leading
// minus, or "-inf". Anything else is not a number.
std::optional<double> readNumber(QStringView text);

// Throws TagError::unreadable also when the run did not end normally with
// status 0, or the file holds no audio stream.
// Figures kept from an earlier run serve while the file and ffmpeg are unchanged
// (engine/AnalysisCache.h).
Analysis analyze(const QString& path);
// For tag clips: measured once per path for the life of the process (EngineState).
TagInfo info(const QString& path);

// --- placement and render --------------------------------------------------

constexpr double kFirstPlacement = 0.5;
constexpr double kEndTolerance = 0.5;
constexpr double kFallbackPlacement = 0.0;
constexpr double kGainFloor = -40;
constexpr double kGainCeiling = 12;
constexpr int kErrorTextLength = 60;
// No tagging job needs more; a larger count means a nonsense interval or duration.
constexpr std::size_t kMaxPlacements = 100'000;
inline const QString kOutputSuffix = QStringLiteral(" (Tagged)");

struct Result {
    QString output;
    int placements = 0;
    // What the render was made of, for a report.
    std::vector<double> times;
    double gainDB = 0;
    double trackLufs = 0;
};

constexpr double kDefaultCeiling = 0.97;
constexpr double kFadeSeconds = 0.005;
// The loop of the one-branch graph holds an interval of the track's audio (about 64 MB).
constexpr long long kMaxLoopSamples = 1LL << 24;
// Up to this many tags the limiter runs only on the stretches around them: each stretch
// costs ffmpeg a little on every frame of the track, so more would cost more than it saves.
constexpr std::size_t kMaxLimitedStretches = 40;

std::vector<double> positions(double duration, double interval, double tagLength);
double clipGain(double levelDB, double trackLufs, double tagLufs);
// The limiter's ceiling: never below the track's own peak, so that it acts only under a tag.
double ceiling(std::optional<double> peakDB);
// Whether every sample of the track is known to lie at or under its ceiling.
bool clearOfCeiling(const Analysis& track);

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
// Channels of a layout as ffmpeg names it ("stereo", "5.1(side)", "3c"); 0 when unknown.
int channelCount(const QString& layout);

// The name a render of `track` would get now; the render itself claims its name
// only when it has finished (PendingOutput::commit).
QString outputURL(const QString& track);
// The inputs and the output as ffmpeg is to be given them: absolute paths, or
// /proc/self/fd/N (OpenFile::argument). The track's analysis says which of its extras
// (pictures, bext chunk) the output keeps; `format` "mp3" or "wav" chooses the encoder.
QStringList renderArguments(const QString& track, const QString& tag, const QString& graph,
                            const Analysis& analysis, const QString& output, const QString& format);
// The message of a failed render: ffmpeg's last line that names a cause (not a
// closing line such as "Conversion failed!" or its statistics), cut and upper-cased.
QString failureText(const QString& output);

// What a finished output does when its name is taken.
enum class Collision {
    nextNumber, // "STEM (2).EXT", "STEM (3).EXT", ...: nothing is ever replaced
    replace,    // the file under the name is replaced, in one step
};

// A render's output while ffmpeg writes it: a hidden file in the target folder,
// ".STEM.zelkor-PID-RANDOM.part" (collection never takes it), locked while this
// object lives and removed with it unless committed. Creating one first removes
// the temporary files of runs that died in that folder (those nobody locks).
// So an output appears whole under its name, or not at all.
class PendingOutput {
public:
    // Throws TagError::systemFailed when the folder takes no file.
    PendingOutput(const QString& folder, const QString& stem);
    ~PendingOutput();
    PendingOutput(const PendingOutput&) = delete;
    PendingOutput& operator=(const PendingOutput&) = delete;

    // For ffmpeg's output argument (run with -y and an explicit -f FORMAT).
    const OpenFile& file() const { return m_file; }
    // Once ffmpeg has succeeded: flushes the file to the disk and names it
    // FOLDER/STEM.EXT (`extension` without the dot), by `collision`. Returns the
    // final path; throws TagError::systemFailed, the file then removed.
    QString commit(const QString& extension, Collision collision);

private:
    QByteArray m_folder; // encoded, ending in '/'
    QByteArray m_stem;
    QByteArray m_temp;
    OpenFile m_file;
    bool m_committed = false;
};

// Where process puts the tagged file: by default the track's own folder, in the
// track's format family, with the next free number.
struct Destination {
    QString folder; // empty: the track's folder
    Collision collision = Collision::nextNumber;
    QString format; // "mp3" or "wav", the output's extension too; empty: the track's
};
// The name a render to `destination` would get now: with Collision::replace the
// one without a number, which an earlier output may hold.
QString outputURL(const QString& track, const Destination& destination);

// Tags one track; blocks while ffmpeg runs.
Result process(const QString& track, const QString& tag, double interval, double levelDB);
Result process(const QString& track, const QString& tag, double interval, double levelDB,
               const Destination& destination);
// What process would do now, without rendering: the figures, the placements and
// the output's name. Blocks while the clip and the track are measured.
Result plan(const QString& track, const QString& tag, double interval, double levelDB,
            const Destination& destination);

// --- input collection ------------------------------------------------------

QStringList collect(const QStringList& paths);
// Whether collect would find any track; stops at the first (a drag asks on every move).
bool hasTracks(const QStringList& paths);

} // namespace Engine
