// The meter: K-weighting by two biquads designed for the stream's own rate (as
// ffmpeg 5.1 does; it does not resample to 48 kHz first), 400 ms blocks every
// 100 ms, and ffmpeg's histogram of block loudness to 0.01 LU for the gates.
#include "engine/Meter.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif
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

bool haveWide() {
#if defined(__x86_64__) || defined(__i386__)
    return __builtin_cpu_supports("avx");
#else
    return false;
#endif
}

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

Meter::Meter(int sampleRate, std::vector<double> weights, bool trailingSilence,
             Instructions instructions)
    : m_rate(std::max(sampleRate, 1))
    , m_channels(weights.size())
    , m_weights(std::move(weights))
    , m_state(m_channels * 4)
    , m_squares(m_channels)
    , m_wide(instructions == Instructions::widest && haveWide())
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
    const double shelf[5] = {(vh + vb * k / q + k * k) / a0, 2 * (k * k - vh) / a0,
                             (vh - vb * k / q + k * k) / a0, 2 * (k * k - 1) / a0,
                             (1 - k / q + k * k) / a0};
    k = std::tan(std::numbers::pi * 38.13547087602444 / rate);
    q = 0.5003270373238773;
    a0 = 1 + k / q + k * k;
    const double highPass[5] = {1, -2, 1, 2 * (k * k - 1) / a0, (1 - k / q + k * k) / a0};
    std::copy(shelf, shelf + 5, m_shelf);
    std::copy(highPass, highPass + 5, m_highPass);
}

namespace {

using Encoding = Meter::Encoding;
// Every function that takes or gives a 32-byte vector is inlined into the one that
// runs the filters: no call passes one, so how a call would is of no concern.
#pragma GCC diagnostic ignored "-Wpsabi"
using Two = double __attribute__((vector_size(16)));
using Four = double __attribute__((vector_size(32)));

template<Encoding E>
constexpr std::size_t kWidth = E == Encoding::f64                         ? 8
                               : E == Encoding::f32 || E == Encoding::s32 ? 4
                               : E == Encoding::s24                       ? 3
                               : E == Encoding::s16                       ? 2
                                                                          : 1;

// One sample at full scale 1.0; read byte-wise, since a piece may start anywhere.
// Every conversion is exact: integers are scaled by powers of two.
template<Encoding E> [[gnu::always_inline]] inline double load(const char* p) {
    if constexpr (E == Encoding::f64) {
        double v;
        std::memcpy(&v, p, sizeof v);
        return v;
    } else if constexpr (E == Encoding::f32) {
        float v;
        std::memcpy(&v, p, sizeof v);
        return v;
    } else if constexpr (E == Encoding::u8) {
        return (static_cast<unsigned char>(*p) - 128) * (1.0 / 128);
    } else if constexpr (E == Encoding::s16) {
        std::int16_t v;
        std::memcpy(&v, p, sizeof v);
        return v * (1.0 / 32768);
    } else if constexpr (E == Encoding::s24) {
        const auto* u = reinterpret_cast<const unsigned char*>(p);
        const auto v = static_cast<std::int32_t>(
            std::uint32_t{u[0]} << 8 | std::uint32_t{u[1]} << 16 | std::uint32_t{u[2]} << 24);
        return v * (1.0 / 2147483648);
    } else {
        std::int32_t v;
        std::memcpy(&v, p, sizeof v);
        return v * (1.0 / 2147483648);
    }
}

// Two neighbouring samples, converted together where one instruction does it.
template<Encoding E> [[gnu::always_inline]] inline Two loadTwo(const char* p) {
#if defined(__SSE2__)
    if constexpr (E == Encoding::f32) {
        return _mm_cvtps_pd(_mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p))));
    } else if constexpr (E == Encoding::s16) {
        std::int32_t both;
        std::memcpy(&both, p, sizeof both);
        const __m128i words = _mm_cvtsi32_si128(both);
        // Each 16-bit sample into the top of a 32-bit lane, then shifted down with its sign.
        return _mm_cvtepi32_pd(_mm_srai_epi32(_mm_unpacklo_epi16(words, words), 16)) *
               (1.0 / 32768);
    }
#endif
    return Two{load<E>(p), load<E>(p + kWidth<E>)};
}

// One channel or a pair: `Half` holds one value per channel, `Whole` two.
template<int Channels> struct Lanes;
template<> struct Lanes<1> {
    using Half = double;
    using Whole = Two;
    static Half splat(double v) { return v; }
    static Half gather(const double* p, std::size_t) { return *p; }
    static void scatter(double* p, std::size_t, Half v) { *p = v; }
    template<Encoding E> static Half load(const char* p) { return ::Engine::load<E>(p); }
    [[gnu::always_inline]] static Whole join(Half low, Half high) { return Whole{low, high}; }
    [[gnu::always_inline]] static Half low(const Whole& v) { return v[0]; }
    [[gnu::always_inline]] static Half high(const Whole& v) { return v[1]; }
    static void widen(Half& top, Half& bottom, Half in) {
        top = std::max(top, in);
        bottom = std::min(bottom, in);
    }
    static double largest(Half top, Half bottom) { return std::max(top, -bottom); }
};
template<> struct Lanes<2> {
    using Half = Two;
    using Whole = Four;
    static Half splat(double v) { return Half{v, v}; }
    static Half gather(const double* p, std::size_t stride) { return Half{p[0], p[stride]}; }
    static void scatter(double* p, std::size_t stride, Half v) { p[0] = v[0], p[stride] = v[1]; }
    template<Encoding E> static Half load(const char* p) { return loadTwo<E>(p); }
    [[gnu::always_inline]] static Whole join(Half low, Half high) {
        return __builtin_shufflevector(low, high, 0, 1, 2, 3);
    }
    [[gnu::always_inline]] static Half low(const Whole& v) {
        return __builtin_shufflevector(v, v, 0, 1);
    }
    [[gnu::always_inline]] static Half high(const Whole& v) {
        return __builtin_shufflevector(v, v, 2, 3);
    }
    static void widen(Half& top, Half& bottom, Half in) {
        top = top > in ? top : in;
        bottom = bottom < in ? bottom : in;
    }
    static double largest(Half top, Half bottom) {
        return std::max({top[0], top[1], -bottom[0], -bottom[1]});
    }
};

// A biquad, transposed direct form II, lane by lane.
template<typename T> struct Biquad { T b0, b1, b2, a1, a2; };

template<typename T>
[[gnu::always_inline]] inline T filter(const Biquad<T>& f, const T& x, T& z1, T& z2) {
    const T y = f.b0 * x + z1;
    z1 = f.b1 * x - f.a1 * y + z2;
    z2 = f.b2 * x - f.a2 * y;
    return y;
}

// What one run of frames needs: the filters' coefficients and what they carry.
struct Run {
    const char* samples;
    std::size_t frames;
    std::size_t channels;
    const double* shelf;
    const double* highPass;
    double* state;
    double* squares;
    double* peak;
};

// Channels c, ... of a run. The high-pass takes the shelf's output one frame later,
// so that both stages go side by side in one vector: each lane does what one stage
// of one channel alone would, in the same order. The squares add up across runs,
// so how the samples come in pieces changes nothing.
template<Encoding E, int Channels>
[[gnu::always_inline]] inline void runChannels(const Run& run, std::size_t c) {
    using L = Lanes<Channels>;
    using Half = typename L::Half;
    using Whole = typename L::Whole;
    const auto biquad = [](const double* k) {
        return Biquad<Half>{L::splat(k[0]), L::splat(k[1]), L::splat(k[2]), L::splat(k[3]),
                            L::splat(k[4])};
    };
    const Biquad<Half> shelf = biquad(run.shelf), highPass = biquad(run.highPass);
    const Biquad<Whole> both{L::join(shelf.b0, highPass.b0), L::join(shelf.b1, highPass.b1),
                             L::join(shelf.b2, highPass.b2), L::join(shelf.a1, highPass.a1),
                             L::join(shelf.a2, highPass.a2)};
    double* state = run.state + c * 4;
    Half s1 = L::gather(state, 4), s2 = L::gather(state + 1, 4);
    Half h1 = L::gather(state + 2, 4), h2 = L::gather(state + 3, 4);
    const std::size_t stride = run.channels * kWidth<E>;
    const char* x = run.samples + c * kWidth<E>;
    Half in = L::template load<E>(x);
    Half top = L::splat(0), bottom = L::splat(0);
    L::widen(top, bottom, in);
    Half shelved = filter(shelf, in, s1, s2);
    Whole z1 = L::join(s1, h1), z2 = L::join(s2, h2);
    Whole squares = L::join(L::splat(0), L::gather(run.squares + c, 1));
    // Two frames a turn: the loop's own count and jump come once for both.
#pragma GCC unroll 2
    for (std::size_t i = 1; i < run.frames; ++i) {
        x += stride;
        in = L::template load<E>(x);
        L::widen(top, bottom, in);
        const Whole y = filter(both, L::join(in, shelved), z1, z2);
        // The shelf's lanes add up squares that are never read: cheaper than
        // taking the high-pass's lanes out first.
        squares += y * y;
        shelved = L::low(y);
    }
    h1 = L::high(z1), h2 = L::high(z2);
    const Half out = filter(highPass, shelved, h1, h2);
    const Half sum = L::high(squares) + out * out;
    L::scatter(state, 4, L::low(z1));
    L::scatter(state + 1, 4, L::low(z2));
    L::scatter(state + 2, 4, h1);
    L::scatter(state + 3, 4, h2);
    L::scatter(run.squares + c, 1, sum);
    *run.peak = std::max(*run.peak, L::largest(top, bottom));
}

// In pairs where the vectors' lanes allow, the last odd channel alone.
template<Encoding E> [[gnu::always_inline]] inline void runAll(const Run& run) {
    if (run.frames == 0)
        return;
    std::size_t c = 0;
    for (; c + 1 < run.channels; c += 2)
        runChannels<E, 2>(run, c);
    if (c < run.channels)
        runChannels<E, 1>(run, c);
}

// The same source, built twice: AVX's three-operand instructions do the same IEEE
// operations as SSE2's. No fused multiply-add, which rounds once instead of twice.
// Chosen when the meter is made, not by the loader: a resolver run at load time
// comes before the sanitizers have started.
#if defined(__x86_64__) || defined(__i386__)
template<Encoding E> __attribute__((target("avx"))) void runWide(const Run& run) {
    runAll<E>(run);
}
#else
template<Encoding E> void runWide(const Run& run) {
    runAll<E>(run);
}
#endif

template<Encoding E> void runPlain(const Run& run) {
    runAll<E>(run);
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
    case Encoding::u8:
        return addAs<Encoding::u8>(samples, frames);
    case Encoding::s16:
        return addAs<Encoding::s16>(samples, frames);
    case Encoding::s24:
        return addAs<Encoding::s24>(samples, frames);
    case Encoding::s32:
        return addAs<Encoding::s32>(samples, frames);
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
        const Run pass{samples,          run,    channels, m_shelf, m_highPass, m_state.data(),
                       m_squares.data(), &m_peak};
        if (m_wide)
            runWide<E>(pass);
        else
            runPlain<E>(pass);
        samples += run * channels * kWidth<E>;
        frames -= run;
        m_frames += static_cast<std::int64_t>(run);
        m_inStep += static_cast<std::int64_t>(run);
        if (m_inStep == m_stepFrames)
            endStep();
    }
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
