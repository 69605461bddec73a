// The interval and level choices, persisted in the user's preferences.
#include "model/Settings.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>

namespace {

constexpr const char* kChildVariable = "ZELKOR_SETTINGS_CHILD";

// Started again with ZELKOR_SETTINGS_CHILD=INDEX, this binary is "another
// process": it stores INDEX as the interval, prints the two indices it then
// reads, and exits before any test runs.
[[maybe_unused]] const bool kChildRun = [] {
    if (!qEnvironmentVariableIsSet(kChildVariable))
        return false;
    Settings::setIntervalIndex(qEnvironmentVariableIntValue(kChildVariable));
    std::printf("%d %d\n", Settings::intervalIndex(), Settings::levelIndex());
    std::fflush(stdout);
    std::_Exit(0);
}();

QString inAnotherProcessSetInterval(int index) {
    const QString self = QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath();
    const ::Test::Process child = ::Test::runProgram(
        self, {}, {QStringLiteral("%1=%2").arg(QLatin1String(kChildVariable)).arg(index)});
    EXPECT_EQ(child.status, 0) << child.err.toStdString();
    return child.out.trimmed();
}

// A hand edit, saved the way editors save: a new file renamed over the old one.
void storeRaw(const ::Test::FreshHome& home, const QByteArray& json) {
    QDir().mkpath(QFileInfo(home.preferencesPath()).path());
    const QString edited = home.preferencesPath() + QStringLiteral(".edited");
    ::Test::writeFile(edited, json);
    ASSERT_EQ(std::rename(QFile::encodeName(edited).constData(),
                          QFile::encodeName(home.preferencesPath()).constData()),
              0);
}

} // namespace

TEST(Settings, aFreshInstallationChoosesThirtySecondsAtMid) {
    ::Test::FreshHome home;
    EXPECT_EQ(Settings::intervalIndex(), 1);
    EXPECT_EQ(Settings::levelIndex(), 1);
    EXPECT_EQ(Settings::interval(), 30);
    EXPECT_EQ(Settings::levelDB(), -5);
    EXPECT_EQ(Settings::levels[static_cast<std::size_t>(Settings::levelIndex())].name,
              QLatin1String("MID"));
}

TEST(Settings, choicesOutliveTheProcessAndTwoProcessesKeepEachOthersChoice) {
    ::Test::FreshHome home;
    Settings::setLevelIndex(2);
    ASSERT_EQ(Settings::levelIndex(), 2);

    // The child reads the level written here, then writes its own interval.
    EXPECT_EQ(inAnotherProcessSetInterval(3), QStringLiteral("3 2"));
    EXPECT_EQ(Settings::intervalIndex(), 3);
    EXPECT_EQ(Settings::levelIndex(), 2);
    EXPECT_EQ(Settings::interval(), 60);
    EXPECT_EQ(Settings::levelDB(), -1);

    Settings::setLevelIndex(0);
    EXPECT_EQ(inAnotherProcessSetInterval(0), QStringLiteral("0 0"));
    EXPECT_EQ(Settings::interval(), 20);
    EXPECT_EQ(Settings::levelDB(), -9);
}

TEST(Settings, aStoredValueThatIsNotAnIndexOfItsTableReadsAsTheDefault) {
    ::Test::FreshHome home;
    storeRaw(home, R"({"interval": "abc", "level": 7})");
    EXPECT_EQ(Settings::intervalIndex(), 1);
    EXPECT_EQ(Settings::levelIndex(), 1);
    EXPECT_EQ(Settings::interval(), 30);
    EXPECT_EQ(Settings::levelDB(), -5);

    for (const char* stored : {"-1", "4", "2.5", "true", "null", "[0]", "9e99"}) {
        storeRaw(home, QByteArray(R"({"interval": )") + stored + R"(, "level": 2})");
        EXPECT_EQ(Settings::intervalIndex(), 1) << stored;
        EXPECT_EQ(Settings::levelIndex(), 2) << stored;
    }
}
