// The two choices that shape every tagged track: the interval and the level.
#pragma once

#include <QString>
#include <array>

class Preferences;

class Settings {
public:
    struct Level {
        QLatin1String name;
        double db;
    };

    static constexpr std::array<double, 4> intervals{20, 30, 45, 60};
    static constexpr std::array<Level, 3> levels{
        {{QLatin1String("LOW"), -9}, {QLatin1String("MID"), -5}, {QLatin1String("HIGH"), -1}}};

    // The choices live in `preferences`, which must outlive this.
    explicit Settings(Preferences& preferences)
        : m_preferences(preferences) {}

    // The user's choices, read from and written to the preferences at every access.
    // A stored index that is not an integer, or lies outside its table, reads as 1.
    // A write throws TagError when the preferences cannot be written.
    int intervalIndex() const;
    void setIntervalIndex(int index);
    int levelIndex() const;
    void setLevelIndex(int index);

    // The chosen entries themselves.
    double interval() const;
    double levelDB() const;

private:
    Preferences& m_preferences;
};
