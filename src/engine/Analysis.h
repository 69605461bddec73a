// Measuring a track or a clip: loudness, length, the silence at its end, its
// format and what of it an output can keep.
#pragma once

#include "engine/Meter.h"

#include <QString>
#include <QStringList>
#include <QStringView>
#include <cstdint>
#include <functional>
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
    // The samples per channel it decodes to, as the meter counted them, at the format's
    // rate: what a whole output of that rate holds. 0 when either is unknown.
    std::int64_t frames = 0;
    std::optional<double> silenceStart; // a silence still running at the end
    std::optional<AudioFormat> format;
    std::optional<double> peak;  // sample peak in dBFS, as the meter prints it (to 0.1 dB)
    bool integerSamples = false; // decoded as integers, so never past full scale
    bool floatSamples = false;   // stored as floating point (a float WAV): may pass full scale
    bool pictures = false;       // attached pictures, every one of a kind an MP3 can carry
    bool broadcastChunk = false; // a broadcast WAV's bext chunk (its time_reference)
    // A WAV of 16- to 32-bit integers or 32-bit floats: ffmpeg may read it in large packets,
    // which gives the very same samples at a fraction of the work (not so for 8 or 64 bits).
    bool largePackets = false;
};

struct TagInfo {
    double lufs = -70;
    double length = 0;          // audible length
    std::optional<double> peak; // sample peak in dBFS
};

constexpr double kLoudnessFloor = kAbsoluteGate;
constexpr double kMinimumTagLength = 0.5;

// Raised whenever the same file would be measured otherwise: kept analyses
// of another way of measuring are measured again.
constexpr int kMeterVersion = 1;

// The seconds of a file read so far and its length, reported at most a few times a second.
using Progress = std::function<void(double seconds, double length)>;

struct Measuring {
    bool trailingSilence = false; // only a clip's length needs it
    Progress progress;
};

// ffmpeg decoding a file that is not read here into a float WAV on its output.
QStringList analysisArguments(const QString& path);
// Reads the figures from an analysis run's text; throws TagError::unreadable
// when it holds no duration. Figures the meter measures are taken from it in
// `analyze`.
Analysis parseAnalysis(const QString& output);
// A capture as a number: digits with at most one point, an optional leading
// minus, or "-inf". Anything else is not a number.
std::optional<double> readNumber(QStringView text);

// A WAV of integer or float PCM is read here; any other file is decoded by
// ffmpeg into the meter. Throws TagError::unreadable when it cannot be read, or
// ffmpeg did not end normally with status 0, or the file holds no audio stream.
// Figures kept from an earlier run serve while the file and ffmpeg are unchanged
// (engine/AnalysisCache.h).
Analysis analyze(const QString& path, const Measuring& measuring = {});
// For tag clips: measured once per path for the life of the process (EngineState).
TagInfo info(const QString& path);

} // namespace Engine
