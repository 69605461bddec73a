// The program as a whole: the command line, and `zelkor --snapshot` run as a
// child process that draws its window offscreen, writes the PNG and quits.
#include "app/AppDelegate.h"
#include "app/FrameAutosave.h"
#include "base/TagError.h"
#include "platform/Preferences.h"
#include "style/Palette.h"
#include "support/FreshHome.h"
#include "support/GuiSupport.h"
#include "support/TestSupport.h"
#include "view/Drawing.h"

#include <QDir>
#include <QImage>
#include <QJsonObject>
#include <QWidget>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using namespace Style;
using ::Test::near;
using ::Test::over;

namespace {

::Test::Process zelkor(const QStringList& args) {
    return ::Test::runProgram(::Test::binary(u"zelkor"_s), args);
}

} // namespace

// What only the parse shows: "--" ends the options, the first snapshot path counts.
TEST(LaunchArguments, filesAfterADoubleDashAndTheFirstSnapshotPathCount) {
    const LaunchOptions options = parseArguments(
        u"zelkor /music --snapshot a.png --snapshot=b.png -- --odd.wav"_s.split(u' '));
    EXPECT_TRUE(options.error.isEmpty());
    EXPECT_EQ(options.snapshot, u"a.png"_s);
    EXPECT_EQ(options.files, (QStringList{u"/music"_s, QDir::currentPath() + u"/--odd.wav"_s}));
}

// Without a display the window cannot open: what needs none still works, and
// what does says why it did not.
TEST(LaunchCommandLine, helpVersionAndUsageErrorsNeedNoDisplayAndNoDisplayIsReported) {
    ::Test::FreshHome home;
    home.useOwnRuntime();
    home.setEnv("QT_QPA_PLATFORM", u"xcb"_s);
    home.setEnv("DISPLAY", std::nullopt);
    home.setEnv("WAYLAND_DISPLAY", std::nullopt);
    const ::Test::Process help = zelkor({u"--help"_s});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(help.out.startsWith(u"Usage: zelkor "_s)) << help.out.toStdString();
    EXPECT_TRUE(help.err.isEmpty()) << help.err.toStdString();
    const ::Test::Process version = zelkor({u"--version"_s});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, u"zelkor " ZELKOR_VERSION "\n"_s);

    for (const QStringList& wrong : {QStringList{u"--bogus"_s}, {u"beat.wav"_s, u"--snapshot"_s}}) {
        const ::Test::Process run = zelkor(wrong);
        EXPECT_EQ(run.status, 2) << wrong.join(u' ').toStdString();
        EXPECT_TRUE(run.out.isEmpty());
        EXPECT_EQ(run.err.count(u'\n'), 1) << run.err.toStdString();
        EXPECT_TRUE(run.err.startsWith(u"zelkor: "_s)) << run.err.toStdString();
    }

    const ::Test::Process noDisplay = zelkor({});
    EXPECT_EQ(noDisplay.status, 1);
    EXPECT_TRUE(noDisplay.err.contains(u"could not connect to display"_s))
        << noDisplay.err.toStdString();
}

class Snapshot : public ::testing::Test {
protected:
    Snapshot() { home.useOwnRuntime(); }
    // `zelkor ARGS --snapshot OUT`, run to a quiet end; what it drew.
    QImage snapshot(QStringList args) {
        const QString out = home.root() + u"/out.png"_s;
        const ::Test::Process run = zelkor(args << u"--snapshot"_s << out);
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.out + run.err, QString());
        const QImage image(out);
        EXPECT_EQ(image.size(), QSize(600, 640));
        return image;
    }

    ::Test::FreshHome home;
};

// Idle with the seeded tag selected; with files named at launch, already busy.
TEST_F(Snapshot, drawsTheWindowAsLaunchedAndPrintsNothing) {
    const QImage idle = snapshot({});
    EXPECT_TRUE(near(idle.pixelColor(3, 3), black, 0));
    EXPECT_TRUE(near(idle.pixelColor(115, 108), purple)); // a tag is selected
    EXPECT_TRUE(near(idle.pixelColor(25, 140), over(Drawing::withAlpha(white, 0.85), black)));

    const QString beat = home.root() + u"/beat.wav"_s;
    ::Test::makeAudio(beat, u"sine=frequency=220"_s, 20);
    const QImage busy = snapshot({beat});
    EXPECT_TRUE(near(busy.pixelColor(25, 140), purple));             // busy brackets
    EXPECT_TRUE(near(busy.pixelColor(168, 335), over(line, black))); // 00/01: no cell lit
    EXPECT_TRUE(near(busy.pixelColor(300, 220), black, 0));          // no plus sign
}

TEST_F(Snapshot, thatCannotBeWrittenEndsWithTheReasonAndLeavesNothing) {
    // A path whose parent is a regular file.
    const QString file = home.root() + u"/file"_s;
    ::Test::writeFile(file, "x");
    const ::Test::Process run = zelkor({u"--snapshot"_s, file + u"/x.png"_s});
    EXPECT_EQ(run.status, 1);
    EXPECT_TRUE(run.err.startsWith(u"zelkor: can't write the snapshot "_s + file + u"/x.png"_s))
        << run.err.toStdString();
    EXPECT_EQ(run.err.count(u'\n'), 1) << run.err.toStdString();
    EXPECT_EQ(::Test::readAll(file), QByteArray("x"));
    EXPECT_EQ(QDir(home.root()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries),
              (QStringList{u"file"_s, u"runtime"_s}));
}

TEST(FrameAutosave, aMovedWindowReopensWhereItWasLeftAndAFailedSaveIsReported) {
    ::Test::guiApplication();
    ::Test::FreshHome home;
    PreferencesFile preferences(home.preferencesPath());
    const QString name = u"ZelkorMain"_s;
    {
        QWidget window;
        window.resize(200, 100);
        new FrameAutosave(window, name, preferences);
        window.show();
        window.move(120, 90);
        ASSERT_TRUE(::Test::waitUntil([&] { return preferences.object(name).has_value(); }, 3000));
    }
    QWidget again;
    again.resize(200, 100);
    (new FrameAutosave(again, name, preferences))->restore();
    EXPECT_EQ(again.pos(), QPoint(120, 90));

    // Off every screen: left where the launch put it.
    preferences.setObject(name, QJsonObject{{u"x"_s, -9000}, {u"y"_s, -9000}});
    QWidget lost;
    lost.move(10, 10);
    (new FrameAutosave(lost, name, preferences))->restore();
    EXPECT_EQ(lost.pos(), QPoint(10, 10));

    // A folder in place of the file: the window is told, once the move rests.
    QFile::remove(home.preferencesPath());
    QDir().mkpath(home.preferencesPath());
    QStringList failures;
    QWidget moved;
    new FrameAutosave(moved, name, preferences,
                      [&](const TagError& error) { failures << error.errorDescription(); });
    moved.show();
    moved.move(40, 30);
    EXPECT_TRUE(::Test::waitUntil([&] { return !failures.isEmpty(); }, 3000));
    EXPECT_EQ(failures, QStringList{u"CAN'T SAVE PREFERENCES.JSON: IS A DIRECTORY"_s});
}
