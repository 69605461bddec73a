// The tag library on real folders: listing order, selection, adding, seeding
// and removing to the desktop's trash.
#include "model/Tags.h"
#include "engine/Engine.h"
#include "platform/Preferences.h"
#include "platform/Trash.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFileInfo>
#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>

namespace {

class TagsTest : public ::testing::Test {
protected:
    QString put(const QString& folder, const QString& name, const QByteArray& bytes = "clip") {
        QDir().mkpath(folder);
        ::Test::writeFile(folder + QLatin1Char('/') + name, bytes);
        return folder + QLatin1Char('/') + name;
    }
    QString inLibrary(const QString& name, const QByteArray& bytes = "clip") {
        return put(Tags::dir(), name, bytes);
    }
    static QStringList listed() {
        QStringList names;
        for (const QString& clip : Tags::all())
            names << QFileInfo(clip).fileName();
        return names;
    }
    QString selectedName() const {
        return QFileInfo(tags.selected().value_or(QString())).fileName();
    }
    std::optional<QString> stored() const { return preferences.string(QStringLiteral("tag")); }

    ::Test::FreshHome home;
    PreferencesFile preferences{home.preferencesPath()};
    HomeTrash trash{home.dataHome() + QStringLiteral("/Trash")};
    Tags tags{preferences, trash};
};

} // namespace

TEST_F(TagsTest, clipsListInNaturalOrderAndTheSelectionIsAFileNameThatFallsBackToTheFirst) {
    EXPECT_TRUE(Tags::all().isEmpty());
    EXPECT_EQ(tags.selected(), std::nullopt);
    EXPECT_TRUE(QFileInfo(home.tagsDir()).isDir());

    for (const char* name : {"tag 10.wav", "Tag 2.mp3", "notes.txt", "B.FLAC", "wav", "a.ogg"})
        inLibrary(QString::fromUtf8(name));
    EXPECT_EQ(listed(), (QStringList{QStringLiteral("B.FLAC"), QStringLiteral("Tag 2.mp3"),
                                     QStringLiteral("tag 10.wav")}));
    EXPECT_EQ(Tags::name(QStringLiteral("/x/my tag.final.wav")), QStringLiteral("MY TAG.FINAL"));

    // The selection is a file name and falls back to the first clip without being rewritten.
    inLibrary(QStringLiteral("a.wav"));
    inLibrary(QStringLiteral("b.mp3"));
    inLibrary(QString::fromUtf8("Caf\u00e9.wav"));
    EXPECT_EQ(selectedName(), QStringLiteral("a.wav"));

    // Only the name is kept, so a path in another folder selects the library's clip.
    tags.setSelected(home.root() + QStringLiteral("/b.mp3"));
    EXPECT_EQ(stored(), QStringLiteral("b.mp3"));
    EXPECT_EQ(tags.selected(), home.tagsDir() + QStringLiteral("/b.mp3"));

    tags.setSelected(QString::fromUtf8("Cafe\u0301.wav")); // decomposed: e + combining acute
    EXPECT_EQ(selectedName(), QString::fromUtf8("Caf\u00e9.wav"));

    tags.setSelected(QStringLiteral("B.MP3"));
    EXPECT_EQ(selectedName(), QStringLiteral("a.wav"));
    EXPECT_EQ(stored(), QStringLiteral("B.MP3"));

    tags.setSelected(std::nullopt);
    EXPECT_EQ(stored(), std::nullopt);
}

TEST_F(TagsTest, removingGoesToTheTrashAndSelectsTheNewFirstClipAndAddingNumbersCopies) {
    const QString a = inLibrary(QStringLiteral("a.wav"), "the a clip");
    const QString b = inLibrary(QStringLiteral("b.wav"));
    tags.setSelected(a);

    tags.remove(a);
    EXPECT_EQ(::Test::readAll(home.dataHome() + QStringLiteral("/Trash/files/a.wav")),
              QByteArray("the a clip"));
    EXPECT_EQ(Tags::all(), QStringList{b});
    EXPECT_EQ(tags.selected(), b);

    tags.remove(b);
    tags.remove(b); // already gone: nothing to report
    EXPECT_EQ(tags.selected(), std::nullopt);

    // Added copies take the first free numbered name and are selected.
    const QString voice = put(home.root(), QStringLiteral("Voice.wav"), "spoken");
    for (const QString& name : {QStringLiteral("Voice.wav"), QStringLiteral("Voice (2).wav"),
                                QStringLiteral("Voice (3).wav")}) {
        const QString copy = tags.add(voice);
        EXPECT_EQ(copy, home.tagsDir() + QLatin1Char('/') + name);
        EXPECT_EQ(::Test::readAll(copy), QByteArray("spoken"));
        EXPECT_EQ(tags.selected(), copy);
    }
    EXPECT_TRUE(QFileInfo::exists(voice));

    // Added from the library itself, and the extension keeps its letter case.
    const QString upper = inLibrary(QStringLiteral("VOICE.WAV"));
    EXPECT_EQ(tags.add(upper), home.tagsDir() + QStringLiteral("/VOICE (2).WAV"));
}

TEST_F(TagsTest, seedingCopiesTheDefaultsOnceAndLeavesAClipOfTheSameNameAlone) {
    const QString defaults = home.root() + QStringLiteral("/resources/DefaultTags");
    put(defaults, QStringLiteral("a.wav"), "default a");
    put(defaults, QStringLiteral("B.MP3"), "default b");
    put(defaults, QStringLiteral("readme.txt"));
    home.setEnv("ZELKOR_RESOURCES", home.root() + QStringLiteral("/resources"));
    const QString mine = inLibrary(QStringLiteral("a.wav"), "my own a");

    tags.seedDefaults();
    EXPECT_EQ(listed(), (QStringList{QStringLiteral("a.wav"), QStringLiteral("B.MP3")}));
    EXPECT_EQ(::Test::readAll(mine), QByteArray("my own a"));
    EXPECT_EQ(::Test::readAll(home.tagsDir() + QStringLiteral("/B.MP3")), QByteArray("default b"));
    EXPECT_EQ(stored(), std::nullopt);

    for (const QString& clip : Tags::all())
        QFile::remove(clip);
    tags.seedDefaults();
    EXPECT_TRUE(Tags::all().isEmpty());
}

TEST_F(TagsTest, theShippedDefaultIsAStereoSpokenClipEndingInSilence) {
    tags.seedDefaults();
    const QStringList clips = Tags::all();
    ASSERT_FALSE(clips.isEmpty());

    constexpr int kRate = 44100;
    for (const QString& clip : clips) {
        const Engine::Analysis analysis = Engine::analyze(clip);
        EXPECT_EQ(analysis.format, (Engine::AudioFormat{kRate, QStringLiteral("stereo")}));
        EXPECT_TRUE(analysis.duration > 1 && analysis.duration < 4) << analysis.duration;
        EXPECT_GT(analysis.lufs, -30);

        const std::vector<double> samples = ::Test::samples(clip, kRate, 2);
        const auto tail = static_cast<std::ptrdiff_t>(0.3 * kRate * 2);
        ASSERT_GT(static_cast<std::ptrdiff_t>(samples.size()), tail);
        const auto peak = [](auto begin, auto end) {
            return std::abs(*std::max_element(
                begin, end, [](double x, double y) { return std::abs(x) < std::abs(y); }));
        };
        EXPECT_GT(peak(samples.begin(), samples.end() - tail), 0.5);
        EXPECT_LT(peak(samples.end() - tail, samples.end()), 0.001);
    }
}
