// The two choices that shape every tagged track: the interval and the level.
#pragma once

#include <QString>
#include <array>

namespace Settings {

struct Level {
    QLatin1String name;
    double db;
};

inline constexpr std::array<double, 4> intervals{20, 30, 45, 60};
inline constexpr std::array<Level, 3> levels{
    {{QLatin1String("LOW"), -9}, {QLatin1String("MID"), -5}, {QLatin1String("HIGH"), -1}}};

} // namespace Settings
