// The non-GUI platform pieces on real files: the preferences store, the settings
// kept in it, and the desktop's trash.
#include "platform/Preferences.h"
#include "model/Settings.h"
#include "platform/Trash.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QJsonDocument>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>

namespace {

QJsonObject onDisk(const QString& path) {
    return QJsonDocument::fromJson(::Test::readAll(path)).object();
}

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

TEST(Preferences, valuesKeepTheirTypesInOneJsonObjectAndAFileChangedBehindTheStoreIsReadAgain) {
    ::Test::FreshHome home;
    Preferences preferences = Preferences::user();
    ASSERT_EQ(preferences.path(), home.preferencesPath());

    const QJsonObject frame{{QStringLiteral("x"), 10}, {QStringLiteral("y"), 20}};
    EXPECT_TRUE(preferences.setInteger(QStringLiteral("interval"), 3));
    EXPECT_TRUE(preferences.setString(QStringLiteral("tag"), QStringLiteral("Voice.wav")));
    EXPECT_TRUE(preferences.setBoolean(QStringLiteral("seeded"), true));
    EXPECT_TRUE(preferences.setObject(QStringLiteral("ZelkorMain"), frame));
    EXPECT_TRUE(preferences.remove(QStringLiteral("tag")));

    EXPECT_EQ(onDisk(home.preferencesPath()), (QJsonObject{{QStringLiteral("interval"), 3},
                                                           {QStringLiteral("seeded"), true},
                                                           {QStringLiteral("ZelkorMain"), frame}}));
    // Neither the temporary file of a write nor the lock is left behind.
    EXPECT_EQ(QDir(QFileInfo(home.preferencesPath()).path()).entryList(QDir::Files),
              QStringList{QStringLiteral("preferences.json")});

    // A value of another type reads as none.
    EXPECT_EQ(preferences.string(QStringLiteral("interval")), std::nullopt);
    EXPECT_EQ(preferences.integer(QStringLiteral("seeded")), std::nullopt);

    // A file changed behind the store is read again and keeps its keys through the next write.
    preferences.setInteger(QStringLiteral("level"), 0);
    ASSERT_EQ(preferences.integer(QStringLiteral("level")), 0);

    ::Test::writeFile(home.preferencesPath(), R"({"level": 2, "tag": "b.wav"})");
    EXPECT_EQ(preferences.integer(QStringLiteral("level")), 2);

    preferences.setBoolean(QStringLiteral("seeded"), true);
    EXPECT_EQ(onDisk(home.preferencesPath()),
              (QJsonObject{{QStringLiteral("level"), 2},
                           {QStringLiteral("tag"), QStringLiteral("b.wav")},
                           {QStringLiteral("seeded"), true}}));
}

TEST(Preferences, anUnparsableFileReadsAsEmptyAndIsKeptBesideTheFileThatReplacesIt) {
    ::Test::FreshHome home;
    QDir().mkpath(QFileInfo(home.preferencesPath()).path());
    Preferences preferences = Preferences::user();

    for (const QByteArray& broken : {QByteArray(R"({"interval": 2,)"), QByteArray("[2, 1]")}) {
        ::Test::writeFile(home.preferencesPath(), broken);
        EXPECT_TRUE(preferences.values().isEmpty()) << broken.constData();

        EXPECT_TRUE(preferences.setInteger(QStringLiteral("level"), 2));
        EXPECT_EQ(::Test::readAll(home.preferencesPath() + QStringLiteral(".corrupt")), broken);
        EXPECT_EQ(onDisk(home.preferencesPath()), (QJsonObject{{QStringLiteral("level"), 2}}));
    }
}

TEST(Trash, aFileGoesToTheTrashUnderTheDataFolderEvenBeforeThatFolderExists) {
    ::Test::FreshHome home;
    ASSERT_FALSE(QFileInfo::exists(home.dataHome()));
    const QString clip = home.root() + QStringLiteral("/clip.wav");
    ::Test::writeFile(clip, "clip");
    // Qt's fallback is ./files under the current folder: make it visible.
    const QString previous = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(home.root()));

    EXPECT_EQ(Trash::moveToTrash(clip), home.dataHome() + QStringLiteral("/Trash/files/clip.wav"));
    EXPECT_FALSE(QFileInfo::exists(clip));
    EXPECT_TRUE(::Test::readAll(home.dataHome() + QStringLiteral("/Trash/info/clip.wav.trashinfo"))
                    .contains("Path=" + QFile::encodeName(clip)));
    EXPECT_FALSE(QFileInfo::exists(home.root() + QStringLiteral("/files")));
    EXPECT_EQ(Trash::moveToTrash(clip), std::nullopt);

    // A relative XDG_DATA_HOME names no trash: the file stays where it is.
    ::Test::writeFile(clip, "clip");
    home.setEnv("XDG_DATA_HOME", QStringLiteral("relative"));
    EXPECT_EQ(Trash::moveToTrash(clip), std::nullopt);
    EXPECT_TRUE(QFileInfo::exists(clip));
    QDir::setCurrent(previous);
}

TEST(Settings, choicesOutliveTheProcessAndReadAsTheDefaultWhenFreshOrOutOfTheTable) {
    ::Test::FreshHome home;
    Settings::setLevelIndex(2);
    ASSERT_EQ(Settings::levelIndex(), 2);

    // The child reads the level written here, then writes its own interval.
    EXPECT_EQ(inAnotherProcessSetInterval(3), QStringLiteral("3 2"));
    EXPECT_EQ(Settings::interval(), 60);
    EXPECT_EQ(Settings::levelDB(), -1);
    Settings::setLevelIndex(0);
    EXPECT_EQ(inAnotherProcessSetInterval(0), QStringLiteral("0 0"));

    // Thirty seconds at MID, also for a stored value that is not an index of its table.
    QFile::remove(home.preferencesPath());
    EXPECT_EQ(Settings::interval(), 30);
    EXPECT_EQ(Settings::levelDB(), -5);
    for (const char* stored : {"\"abc\"", "-1", "4", "2.5", "true", "null", "[0]", "9e99"}) {
        storeRaw(home, QByteArray(R"({"interval": )") + stored + R"(, "level": )" + stored + "}");
        EXPECT_EQ(Settings::intervalIndex(), 1) << stored;
        EXPECT_EQ(Settings::levelIndex(), 1) << stored;
    }
}
