// The tag library on real folders: order, selection, adding, seeding, trashing.
#include "model/Tags.h"
#include "base/Files.h"
#include "base/Names.h"
#include "platform/Preferences.h"
#include "platform/Trash.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFileInfo>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

class TagsTest : public ::testing::Test {
protected:
    QString put(const QString& folder, const QString& name, const QByteArray& bytes = "clip") {
        return ::Test::writeFile(folder + u'/' + name, bytes);
    }
    static QStringList listed() {
        QStringList names;
        for (const QString& clip : Tags::all())
            names << QFileInfo(clip).fileName();
        return names;
    }
    std::optional<QString> stored() const { return preferences.string(u"tag"_s); }

    ::Test::FreshHome home;
    PreferencesFile preferences{home.preferencesPath()};
    HomeTrash trash{home.dataHome() + u"/Trash"_s};
    Tags tags{preferences, trash};
};

} // namespace

TEST_F(TagsTest, clipsListInNaturalOrderAndTheSelectionIsAFileNameThatFallsBackToTheFirst) {
    EXPECT_TRUE(Tags::all().isEmpty());
    EXPECT_TRUE(QFileInfo(home.tagsDir()).isDir());
    for (const QString& name : u"tag 10.wav|Tag 2.mp3|notes.txt|B.FLAC|wav|a.ogg|a.wav|b.mp3|"
                               u"Caf\u00e9.wav"_s.split(u'|'))
        put(Tags::dir(), name);
    EXPECT_EQ(listed(), (QStringList{u"a.wav"_s, u"B.FLAC"_s, u"b.mp3"_s, u"Caf\u00e9.wav"_s,
                                     u"Tag 2.mp3"_s, u"tag 10.wav"_s}));
    EXPECT_EQ(Tags::name(u"/x/my tag.final.wav"_s), u"MY TAG.FINAL"_s);
    EXPECT_EQ(tags.selected(), home.tagsDir() + u"/a.wav"_s);
    // Only the name is kept, so a path in another folder selects the library's clip.
    tags.setSelected(home.root() + u"/b.mp3"_s);
    EXPECT_EQ(stored(), u"b.mp3"_s);
    EXPECT_EQ(tags.selected(), home.tagsDir() + u"/b.mp3"_s);
    tags.setSelected(QString::fromUtf8("Cafe\u0301.wav")); // decomposed: e + combining acute
    EXPECT_EQ(tags.selected(), home.tagsDir() + u"/Caf\u00e9.wav"_s);
    // An unknown name falls back to the first clip without being rewritten.
    tags.setSelected(u"B.MP3"_s);
    EXPECT_EQ(tags.selected(), home.tagsDir() + u"/a.wav"_s);
    EXPECT_EQ(stored(), u"B.MP3"_s);
    tags.setSelected(std::nullopt);
    EXPECT_EQ(stored(), std::nullopt);
}

// A clip from an old drive, its name in Latin-1: added, listed, selected and
// trashed under its own bytes.
TEST_F(TagsTest, addedCopiesTakeTheFirstFreeNumberedNameAndAreSelectedUnderTheirBytes) {
    const QString voice = home.root() + u'/' + Names::decode("voix\xE9.WAV");
    Files::create(voice, "spoken");
    QString copy;
    for (const QByteArray name : {"voix\xE9.WAV", "voix\xE9 (2).WAV"}) {
        copy = tags.add(voice);
        EXPECT_EQ(Names::encode(copy), Names::encode(home.tagsDir()) + '/' + name);
        EXPECT_EQ(Files::read(copy, 100), QByteArray("spoken"));
        EXPECT_EQ(tags.selected(), copy);
    }
    EXPECT_TRUE(Files::occupied(voice));
    // Into the desktop's trash, whose entry names the exact bytes, escaped as in a URL.
    tags.remove(copy);
    const QString trashed = home.dataHome() + u"/Trash/"_s;
    EXPECT_EQ(Files::read(trashed + u"files/"_s + Names::fileName(copy), 100),
              QByteArray("spoken"));
    EXPECT_TRUE(Files::read(trashed + u"info/"_s + Names::fileName(copy) + u".trashinfo"_s, 999)
                    ->startsWith("[Trash Info]\nPath=" +
                                 Names::encode(home.tagsDir()).toPercentEncoding("/") +
                                 "/voix%E9%20%282%29.WAV\nDeletionDate=20"));
    EXPECT_EQ(Tags::all().size(), 1);
}

TEST_F(TagsTest, seedingCopiesTheDefaultsOnceAndLeavesAClipOfTheSameNameAlone) {
    const QString defaults = home.root() + u"/resources/DefaultTags"_s;
    put(defaults, u"a.wav"_s, "default a");
    put(defaults, u"B.MP3"_s, "default b");
    put(defaults, u"readme.txt"_s);
    home.setEnv("ZELKOR_RESOURCES", home.root() + u"/resources"_s);
    const QString mine = put(Tags::dir(), u"a.wav"_s, "my own a");
    tags.seedDefaults();
    EXPECT_EQ(listed(), (QStringList{u"a.wav"_s, u"B.MP3"_s}));
    EXPECT_EQ(::Test::readAll(mine), QByteArray("my own a"));
    EXPECT_EQ(::Test::readAll(home.tagsDir() + u"/B.MP3"_s), QByteArray("default b"));
    EXPECT_EQ(stored(), std::nullopt);
    for (const QString& clip : Tags::all())
        QFile::remove(clip);
    tags.seedDefaults();
    EXPECT_TRUE(Tags::all().isEmpty());
}
