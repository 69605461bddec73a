// Measuring a track or a clip: loudness, length, the silence at its end, its
// format and what of it an output can keep.
#pragma once

#include <QString>
#include <QStringList>
#include <QStringView>
#include <optional>

namespace Engine {

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
    bool floatSamples = false;   // stored as floating point (a float WAV): may pass full scale
    bool pictures = false;       // attached pictures, every one of a kind an MP3 can carry
    bool broadcastChunk = false; // a broadcast WAV's bext chunk (its time_reference)
};

struct TagInfo {
    double lufs = -70;
    double length = 0;          // audible length
    std::optional<double> peak; // sample peak in dBFS
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

} // namespace Engine
