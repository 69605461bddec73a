// Measuring decoded samples in one pass: integrated loudness (BS.1770 gating, as
// ffmpeg's ebur128 filter reads it), the sample peak, the length and, when asked,
// the silence still running at the end (as ffmpeg's silencedetect finds it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace Engine {

// Blocks quieter than this never count, and a file with none reads as it.
constexpr double kAbsoluteGate = -70;

class Meter {
public:
    // Which instructions run the filters; the figures are the same, bit for bit.
    enum class Instructions { widest, baseline };
    // `weights` holds one per channel, in the samples' order (channelWeights).
    Meter(int sampleRate, std::vector<double> weights, bool trailingSilence,
          Instructions instructions = Instructions::widest);

    // Interleaved frames at full scale 1.0, fed in blocks of any size.
    void add(const double* samples, std::size_t frames);
    // The same as stored (little-endian; u8 offset by 128, s24 in three bytes): read
    // as they are, with no pass to convert them first.
    enum class Encoding { f64, f32, u8, s16, s24, s32 };
    void add(const char* samples, std::size_t frames, Encoding encoding);

    // Integrated loudness in LUFS; kAbsoluteGate when no block reaches it.
    double loudness() const;
    // The largest sample in dBFS; -inf for silence.
    double peakDb() const;
    double seconds() const;
    std::int64_t frames() const { return m_frames; }
    // Where a silence of -50 dB lasting 0.3 s or more that runs to the end began.
    std::optional<double> silenceStart() const;

private:
    template<Encoding E> void addAs(const char* samples, std::size_t frames);
    void endStep();

    int m_rate;
    std::size_t m_channels;
    std::vector<double> m_weights;
    // The two filters' coefficients, b0 b1 b2 a1 a2 each.
    double m_shelf[5] = {}, m_highPass[5] = {};
    std::vector<double> m_state;   // per channel: the shelf's two delays, the high-pass's two
    std::vector<double> m_squares; // per channel, of the current 100 ms step
    bool m_wide;                   // the processor has AVX
    std::int64_t m_stepFrames;
    std::int64_t m_inStep = 0;
    double m_steps[4] = {};
    int m_stepsSeen = 0;
    std::vector<std::uint32_t> m_histogram;
    double m_keptPower = 0;
    std::int64_t m_keptBlocks = 0;
    double m_peak = 0;
    std::int64_t m_frames = 0;
    bool m_silence;
    std::int64_t m_quietValues = 0; // the current run of values below the threshold
    std::int64_t m_quietFrom = 0;   // interleaved index of its first value
};

// ffmpeg's ebur128 weights by WAV channel mask bit, in bit order: the low-frequency
// channels count for nothing, those behind the listener +1.5 dB, the rest 1. A
// zero mask (the channels' places unknown) weighs each channel 1.
std::vector<double> channelWeights(std::uint64_t mask, int channels);

} // namespace Engine
