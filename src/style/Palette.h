// The program's colours: near-black, off-white at several strengths, one violet
// accent and one soft red, all sRGB and meant to be drawn over `black`.
#pragma once

#include <QColor>
#include <cstdint>

namespace Style {

// 0xRRGGBB; bits above the low 24 are ignored.
inline QColor rgb(std::uint32_t hex, double alpha = 1) {
    constexpr float kMax = 255;
    return QColor::fromRgbF(static_cast<float>((hex >> 16) & 0xFF) / kMax,
                            static_cast<float>((hex >> 8) & 0xFF) / kMax,
                            static_cast<float>(hex & 0xFF) / kMax, static_cast<float>(alpha));
}

inline const QColor black = rgb(0x050505);
inline const QColor white = rgb(0xFAFAFA);
inline const QColor purple = rgb(0xA260FF);
inline const QColor purpleSoft = rgb(0xA260FF, 0.12);
inline const QColor line = rgb(0xFAFAFA, 0.14);
inline const QColor lineStrong = rgb(0xFAFAFA, 0.3);
inline const QColor dim = rgb(0xFAFAFA, 0.58);
inline const QColor errColor = rgb(0xFF6B6B);

} // namespace Style
