// The interval and level choices, kept as indices in the user's preferences.
#include "model/Settings.h"
#include "platform/Preferences.h"

namespace Settings {

namespace {

constexpr QLatin1String kIntervalKey("interval");
constexpr QLatin1String kLevelKey("level");
constexpr int kDefaultIndex = 1;

// A hand-edited file may hold anything: only an index inside the table counts,
// so no reader ever indexes outside it.
int storedIndex(QLatin1String key, std::size_t tableSize) {
    const std::optional<qint64> stored = Preferences::user().integer(key);
    if (!stored || *stored < 0 || *stored >= static_cast<qint64>(tableSize))
        return kDefaultIndex;
    return static_cast<int>(*stored);
}

} // namespace

int intervalIndex() {
    return storedIndex(kIntervalKey, intervals.size());
}

void setIntervalIndex(int index) {
    Preferences::user().setInteger(kIntervalKey, index);
}

int levelIndex() {
    return storedIndex(kLevelKey, levels.size());
}

void setLevelIndex(int index) {
    Preferences::user().setInteger(kLevelKey, index);
}

double interval() {
    return intervals[static_cast<std::size_t>(intervalIndex())];
}

double levelDB() {
    return levels[static_cast<std::size_t>(levelIndex())].db;
}

} // namespace Settings
