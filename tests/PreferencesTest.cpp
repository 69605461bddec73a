// The preferences store and its settings on real files, and what a full disk leaves.
#include "platform/Preferences.h"
#include "model/Settings.h"
#include "model/Tags.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QJsonDocument>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

QJsonObject onDisk(const QString& path) {
    return QJsonDocument::fromJson(::Test::readAll(path)).object();
}

} // namespace

TEST(Preferences, valuesKeepTheirTypesAndSettingsReadAFileChangedOrBrokenBehindTheStore) {
    ::Test::FreshHome home;
    PreferencesFile preferences(home.preferencesPath());
    const QJsonObject frame{{u"x"_s, 10}, {u"y"_s, 20}};
    preferences.setInteger(u"interval"_s, 3);
    preferences.setString(u"tag"_s, u"Voice.wav"_s);
    preferences.setBoolean(u"seeded"_s, true);
    preferences.setObject(u"ZelkorMain"_s, frame);
    preferences.remove(u"tag"_s);
    EXPECT_EQ(onDisk(home.preferencesPath()),
              (QJsonObject{{u"interval"_s, 3}, {u"seeded"_s, true}, {u"ZelkorMain"_s, frame}}));
    // Neither the temporary file of a write nor the lock is left behind.
    EXPECT_EQ(QDir(QFileInfo(home.preferencesPath()).path()).entryList(QDir::Files),
              QStringList{u"preferences.json"_s});

    // A file changed behind the store is read again and keeps its keys through the next write.
    ::Test::writeFile(home.preferencesPath(), R"({"level": 2, "tag": "b.wav"})");
    EXPECT_EQ(preferences.integer(u"level"_s), 2);
    preferences.setBoolean(u"seeded"_s, true);
    EXPECT_EQ(onDisk(home.preferencesPath()),
              (QJsonObject{{u"level"_s, 2}, {u"tag"_s, u"b.wav"_s}, {u"seeded"_s, true}}));

    // Settings are kept in the file (as another process reads them); thirty seconds at
    // MID when fresh or for a stored value that is not an index of its table.
    Settings settings(preferences);
    settings.setLevelIndex(2);
    settings.setIntervalIndex(3);
    PreferencesFile another(home.preferencesPath());
    EXPECT_TRUE(Settings(another).interval() == 60 && Settings(another).levelDB() == -1);
    for (const char* stored : {"", "\"abc\"", "-1", "4", "2.5", "9e99"}) {
        ::Test::writeFile(home.preferencesPath(),
                          *stored ? "{\"interval\": %1, \"level\": %1}"_ba.replace("%1", stored)
                                  : QByteArray("{}"));
        EXPECT_TRUE(settings.interval() == 30 && settings.levelDB() == -5) << stored;
    }
}

// What was there before stays whole: no "TAG SELECTED" or "TAG ADDED" for a
// write that never reached the disk, and no half-copied clip.
TEST(Preferences, onAFullDiskTheLibraryCommandsFailWithTheReasonAndLeaveWhatWasThere) {
    ::Test::FreshHome home;
    const QString disk = home.root() + u"/disk"_s;
    const ::Test::Tmpfs tmpfs(disk, u"1m"_s);
    if (!tmpfs.mounted())
        GTEST_SKIP() << tmpfs.why();
    home.setEnv("XDG_CONFIG_HOME", disk + u"/config"_s);
    home.setEnv("XDG_DATA_HOME", disk + u"/data"_s);
    PreferencesFile(PreferencesFile::userPath()).setBoolean(u"seeded"_s, true);
    using ::Test::zelkorTag;
    const QString clip = home.root() + u"/a.wav"_s;
    ::Test::writeFile(clip, QByteArray(8898, 'a'));
    ASSERT_EQ(zelkorTag({u"--add-tag"_s, clip}).status, 0);
    ASSERT_EQ(zelkorTag({u"--add-tag"_s, clip}).status, 0); // "a (2).wav", selected
    // Every byte of the library and of the preferences' folder, hidden files included.
    const auto contents = [] {
        QByteArray all;
        for (const QString& folder : {Tags::dir(), QFileInfo(PreferencesFile::userPath()).path()})
            for (const QString& name : QDir(folder).entryList(QDir::Files | QDir::Hidden))
                all += QFile::encodeName(name) + ::Test::readAll(folder + u'/' + name);
        return all;
    };
    const QByteArray before = contents();
    ::Test::runProgram(u"/bin/sh"_s, {u"-c"_s, u"cat /dev/zero > \"$0/filler\""_s, disk});

    const auto select = zelkorTag({u"--select-tag"_s, u"a.wav"_s});
    EXPECT_TRUE(select.status == 1 && select.out.isEmpty());
    EXPECT_EQ(select.err, u"zelkor-tag: CAN'T SAVE PREFERENCES.JSON: NO SPACE LEFT ON DEVICE\n"_s);
    const auto add = zelkorTag({u"--add-tag"_s, clip});
    EXPECT_EQ(add.status, 1);
    EXPECT_EQ(add.out, u"a.wav  CAN'T ADD TAG\n"_s);
    EXPECT_EQ(add.err, u"zelkor-tag: CAN'T COPY A.WAV: NO SPACE LEFT ON DEVICE\n"_s);
    EXPECT_EQ(contents(), before);
}
