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

namespace Settings {

// The user's choices, read from and written to the preferences at every access.
// A stored index that is not an integer, or lies outside its table, reads as 1.
int intervalIndex();
void setIntervalIndex(int index);
int levelIndex();
void setLevelIndex(int index);

// The chosen entries themselves.
double interval();
double levelDB();

} // namespace Settings
