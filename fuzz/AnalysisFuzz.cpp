// Fuzzes everything that turns ffmpeg's text into figures.
#include "engine/Analysis.h"
#include "engine/Render.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const QString text =
        QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    Engine::readNumber(text);
    try {
        const Engine::Analysis analysis = Engine::parseAnalysis(text);
        // What the render relies on, whatever the text said.
        if (!(analysis.lufs >= Engine::kLoudnessFloor) || !std::isfinite(analysis.duration) ||
            analysis.duration < 0)
            std::abort();
        if (analysis.format && analysis.format->sampleRate <= 0)
            std::abort();
        const double ceiling = Engine::ceiling(analysis.peak);
        if (!(ceiling >= Engine::kDefaultCeiling && ceiling <= 1))
            std::abort();
    } catch (const TagError& error) {
        if (error.kind() != TagError::Kind::unreadable)
            std::abort();
    }
    return 0;
}
