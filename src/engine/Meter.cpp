// The meter: K-weighting by two biquads designed for the stream's own rate (as
// ffmpeg 5.1 does; it does not resample to 48 kHz first), 400 ms blocks every
// 100 ms, and ffmpeg's histogram of block loudness to 0.01 LU for the gates.
#include "engine/Meter.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <numbers>
#include <utility>

namespace Engine {

namespace {

constexpr double kRelativeGate = -10;
// Bins of the block loudness histogram, 0.01 LU each, from the absolute gate up
// to +10 LUFS.
constexpr int kBinsPerLu = 100;
constexpr int kBins = 80 * kBinsPerLu + 1;
constexpr int kStepsPerBlock = 4;
constexpr double kSilenceThreshold = 0.0031622776601683794; // -50 dB
constexpr double kMinimumSilence = 0.3;
// The weight ffmpeg gives channels behind the listener: +1.5 dB, as it rounds it.
constexpr double kSurroundWeight = 1.41;

constexpr std::uint64_t kLowFrequency = 0x8, kLowFrequency2 = 1ull << 35;
// Back left, right and centre, side left and right, the three top back ones, and
// the two direct surrounds.
constexpr std::uint64_t kSurround =
    0x10 | 0x20 | 0x100 | 0x200 | 0x400 | 0x8000 | 0x10000 | 0x20000 | (3ull << 61);

double loudnessOf(double power) {
    return -0.691 + 10 * std::log10(power);
}

double powerOf(double loudness) {
    return std::pow(10.0, (loudness + 0.691) / 10);
}

int binOf(double loudness) {
    return static_cast<int>(
        std::clamp(std::lrint(kBinsPerLu * (loudness - kAbsoluteGate)), 0L, long{kBins - 1}));
}

} // namespace

std::vector<double> channelWeights(std::uint64_t mask, int channels) {
    std::vector<double> weights;
    for (std::uint64_t rest = mask; rest && static_cast<int>(weights.size()) < channels;
         rest &= rest - 1) {
        const std::uint64_t channel = rest & -rest;
        weights.push_back((channel & (kLowFrequency | kLowFrequency2)) ? 0
                          : (channel & kSurround)                      ? kSurroundWeight
                                                                       : 1);
    }
    weights.resize(static_cast<std::size_t>(std::max(channels, 0)), 1);
    return weights;
}

Meter::Meter(int sampleRate, std::vector<double> weights, bool trailingSilence)
    : m_rate(std::max(sampleRate, 1))
    , m_channels(weights.size())
    , m_weights(std::move(weights))
    , m_state(m_channels * 4)
    , m_squares(m_channels)
    , m_stepFrames(std::max(m_rate / 10, 1))
    , m_histogram(kBins)
    , m_silence(trailingSilence) {
    // BS.1770's two stages, designed anew for any rate (libebur128's constants).
    const double rate = m_rate;
    double k = std::tan(std::numbers::pi * 1681.974450955533 / rate);
    double q = 0.7071752369554196;
    const double vh = std::pow(10.0, 3.999843853973347 / 20);
    const double vb = std::pow(vh, 0.4996667741545416);
    double a0 = 1 + k / q + k * k;
    m_shelf = {(vh + vb * k / q + k * k) / a0, 2 * (k * k - vh) / a0,
               (vh - vb * k / q + k * k) / a0, 2 * (k * k - 1) / a0, (1 - k / q + k * k) / a0};
    k = std::tan(std::numbers::pi * 38.13547087602444 / rate);
    q = 0.5003270373238773;
    a0 = 1 + k / q + k * k;
    m_highPass = {1, -2, 1, 2 * (k * k - 1) / a0, (1 - k / q + k * k) / a0};
}

namespace {

template<Meter::Encoding E>
constexpr std::size_t kWidth = E == Meter::Encoding::f64   ? 8
                               : E == Meter::Encoding::f32 ? 4
                                                           : 2;

// One sample at full scale 1.0; read byte-wise, since a piece may start anywhere.
template<Meter::Encoding E> double load(const char* p) {
    if constexpr (E == Meter::Encoding::f64) {
        double v;
        std::memcpy(&v, p, sizeof v);
        return v;
    } else if constexpr (E == Meter::Encoding::f32) {
        float v;
        std::memcpy(&v, p, sizeof v);
        return v;
    } else {
        std::int16_t v;
        std::memcpy(&v, p, sizeof v);
        return v * (1.0 / 32768);
    }
}

} // namespace

void Meter::add(const double* samples, std::size_t frames) {
    add(reinterpret_cast<const char*>(samples), frames, Encoding::f64);
}

void Meter::add(const char* samples, std::size_t frames, Encoding encoding) {
    switch (encoding) {
    case Encoding::f64:
        return addAs<Encoding::f64>(samples, frames);
    case Encoding::f32:
        return addAs<Encoding::f32>(samples, frames);
    case Encoding::s16:
        return addAs<Encoding::s16>(samples, frames);
    }
}

template<Meter::Encoding E> void Meter::addAs(const char* samples, std::size_t frames) {
    const std::size_t channels = m_channels;
    if (channels == 0)
        return;
    if (m_silence) {
        const std::int64_t first = m_frames * static_cast<std::int64_t>(channels);
        const std::size_t values = frames * channels;
        for (std::size_t i = 0; i < values; ++i) {
            if (std::abs(load<E>(samples + i * kWidth<E>)) < kSilenceThreshold) {
                if (m_quietValues++ == 0)
                    m_quietFrom = first + static_cast<std::int64_t>(i);
            } else {
                m_quietValues = 0;
            }
        }
    }
    while (frames > 0) {
        const auto run = static_cast<std::size_t>(
            std::min<std::int64_t>(m_stepFrames - m_inStep, static_cast<std::int64_t>(frames)));
        std::size_t c = 0;
        for (; c + 1 < channels; c += 2)
            filterPair<E>(samples + c * kWidth<E>, run, c);
        if (c < channels)
            filterOne<E>(samples + c * kWidth<E>, run, c);
        samples += run * channels * kWidth<E>;
        frames -= run;
        m_frames += static_cast<std::int64_t>(run);
        m_inStep += static_cast<std::int64_t>(run);
        if (m_inStep == m_stepFrames)
            endStep();
    }
}

// Two channels at once, each lane of the vectors one of them: half the
// instructions of one at a time.
template<Meter::Encoding E>
void Meter::filterPair(const char* x, std::size_t frames, std::size_t c) {
    using Pair = double __attribute__((vector_size(16)));
    const auto both = [](double v) { return Pair{v, v}; };
    const Pair sb0 = both(m_shelf.b0), sb1 = both(m_shelf.b1), sb2 = both(m_shelf.b2),
               sa1 = both(m_shelf.a1), sa2 = both(m_shelf.a2), ha1 = both(m_highPass.a1),
               ha2 = both(m_highPass.a2);
    double* left = &m_state[c * 4];
    double* right = &m_state[(c + 1) * 4];
    Pair z1{left[0], right[0]}, z2{left[1], right[1]}, z3{left[2], right[2]}, z4{left[3], right[3]};
    Pair sum{0, 0}, high{0, 0}, low{0, 0};
    const std::size_t stride = m_channels * kWidth<E>;
    for (std::size_t i = 0; i < frames; ++i, x += stride) {
        const Pair in{load<E>(x), load<E>(x + kWidth<E>)};
        high = high > in ? high : in;
        low = low < in ? low : in;
        const Pair shelved = sb0 * in + z1;
        z1 = sb1 * in - sa1 * shelved + z2;
        z2 = sb2 * in - sa2 * shelved;
        // The high-pass's numerator is 1, -2, 1.
        const Pair out = shelved + z3;
        z3 = -2 * shelved - ha1 * out + z4;
        z4 = shelved - ha2 * out;
        sum += out * out;
    }
    left[0] = z1[0], left[1] = z2[0], left[2] = z3[0], left[3] = z4[0];
    right[0] = z1[1], right[1] = z2[1], right[2] = z3[1], right[3] = z4[1];
    m_squares[c] += sum[0];
    m_squares[c + 1] += sum[1];
    m_peak = std::max({m_peak, high[0], high[1], -low[0], -low[1]});
}

template<Meter::Encoding E>
void Meter::filterOne(const char* x, std::size_t frames, std::size_t c) {
    const Biquad s = m_shelf;
    const Biquad h = m_highPass;
    double* z = &m_state[c * 4];
    double z1 = z[0], z2 = z[1], z3 = z[2], z4 = z[3];
    double sum = 0, high = 0, low = 0;
    const std::size_t stride = m_channels * kWidth<E>;
    for (std::size_t i = 0; i < frames; ++i, x += stride) {
        const double in = load<E>(x);
        high = std::max(high, in);
        low = std::min(low, in);
        const double shelved = s.b0 * in + z1;
        z1 = s.b1 * in - s.a1 * shelved + z2;
        z2 = s.b2 * in - s.a2 * shelved;
        const double out = shelved + z3;
        z3 = -2 * shelved - h.a1 * out + z4;
        z4 = shelved - h.a2 * out;
        sum += out * out;
    }
    z[0] = z1, z[1] = z2, z[2] = z3, z[3] = z4;
    m_squares[c] += sum;
    m_peak = std::max({m_peak, high, -low});
}

// A block is the last four steps; it counts once it is whole.
void Meter::endStep() {
    double weighted = 0;
    for (std::size_t c = 0; c < m_channels; ++c)
        weighted += m_weights[c] * std::exchange(m_squares[c], 0.0);
    m_inStep = 0;
    m_steps[m_stepsSeen++ % kStepsPerBlock] = weighted;
    if (m_stepsSeen < kStepsPerBlock)
        return;
    const double power = (m_steps[0] + m_steps[1] + m_steps[2] + m_steps[3]) /
                         static_cast<double>(std::max(m_rate * 4 / 10, 1));
    const double loudness = loudnessOf(power);
    if (!(loudness >= kAbsoluteGate))
        return;
    ++m_histogram[static_cast<std::size_t>(binOf(loudness))];
    m_keptPower += power;
    ++m_keptBlocks;
}

double Meter::loudness() const {
    if (m_keptBlocks == 0)
        return kAbsoluteGate;
    const int gate =
        binOf(loudnessOf(m_keptPower / static_cast<double>(m_keptBlocks)) + kRelativeGate);
    double sum = 0;
    std::int64_t counted = 0;
    for (int bin = gate; bin < kBins; ++bin) {
        if (const std::uint32_t count = m_histogram[static_cast<std::size_t>(bin)]) {
            sum += count * powerOf(kAbsoluteGate + static_cast<double>(bin) / kBinsPerLu);
            counted += count;
        }
    }
    return counted ? loudnessOf(sum / static_cast<double>(counted)) : kAbsoluteGate;
}

double Meter::peakDb() const {
    return 20 * std::log10(m_peak);
}

double Meter::seconds() const {
    return static_cast<double>(m_frames) / m_rate;
}

std::optional<double> Meter::silenceStart() const {
    const auto channels = static_cast<std::int64_t>(m_channels);
    if (!m_silence || channels == 0 ||
        m_quietValues < std::llround(kMinimumSilence * m_rate) * channels)
        return std::nullopt;
    // A run that began within a frame starts at the next whole one.
    return static_cast<double>((m_quietFrom + channels - 1) / channels) / m_rate;
}

} // namespace Engine
