// The interval and level choices, kept as indices in the user's preferences.
#include "model/Settings.h"
#include "platform/Preferences.h"

namespace {

constexpr QLatin1String kIntervalKey("interval");
constexpr QLatin1String kLevelKey("level");
constexpr int kDefaultIndex = 1;

// A hand-edited file may hold anything: only an index inside the table counts,
// so no reader ever indexes outside it.
int storedIndex(const Preferences& preferences, QLatin1String key, std::size_t tableSize) {
    const std::optional<qint64> stored = preferences.integer(key);
    if (!stored || *stored < 0 || *stored >= static_cast<qint64>(tableSize))
        return kDefaultIndex;
    return static_cast<int>(*stored);
}

} // namespace

int Settings::intervalIndex() const {
    return storedIndex(m_preferences, kIntervalKey, intervals.size());
}

void Settings::setIntervalIndex(int index) {
    m_preferences.setInteger(kIntervalKey, index);
}

int Settings::levelIndex() const {
    return storedIndex(m_preferences, kLevelKey, levels.size());
}

void Settings::setLevelIndex(int index) {
    m_preferences.setInteger(kLevelKey, index);
}

double Settings::interval() const {
    return intervals[static_cast<std::size_t>(intervalIndex())];
}

double Settings::levelDB() const {
    return levels[static_cast<std::size_t>(levelIndex())].db;
}
