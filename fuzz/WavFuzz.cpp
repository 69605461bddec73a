// Fuzzes the WAV reader and the meter behind it, with the bytes cut into pieces
// where the input says.
#include "engine/Wav.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2)
        return 0;
    using Places = Engine::Wav::Stream::Places;
    Engine::Wav::Stream stream(data[0] & 1 ? Places::guessed : Places::given, data[0] & 2);
    const std::size_t piece = data[1] + 1u;
    const auto* bytes = reinterpret_cast<const char*>(data + 2);
    for (std::size_t at = 0, left = size - 2; left > 0;) {
        const std::size_t n = std::min(piece, left);
        stream.feed(bytes + at, n);
        at += n;
        left -= n;
    }
    if (const auto& meter = stream.meter()) {
        // What the render relies on, whatever the samples were.
        const double lufs = meter->loudness();
        if (!(lufs >= Engine::kAbsoluteGate) || std::isnan(meter->peakDb()) ||
            !(meter->seconds() >= 0))
            std::abort();
        if (const auto start = meter->silenceStart(); start && !(*start <= meter->seconds()))
            std::abort();
        if (!stream.format() || stream.format()->sampleRate <= 0)
            std::abort();
    }
    return 0;
}
