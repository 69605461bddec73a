// The program as a whole: the command line, and `zelkor --snapshot` run as a
// child process that draws its window offscreen, writes the PNG and quits.
#include "app/AppDelegate.h"
#include "app/FrameAutosave.h"
#include "engine/TagError.h"
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

using namespace Style;
using ::Test::near;
using ::Test::over;

TEST(LaunchArguments, snapshotPathAndFilesComeApart) {
    const QString cwd = QDir::currentPath();
    LaunchOptions plain = parseArguments({QStringLiteral("zelkor")});
    EXPECT_FALSE(plain.snapshot);
    EXPECT_TRUE(plain.files.isEmpty());

    LaunchOptions both = parseArguments({QStringLiteral("zelkor"), QStringLiteral("beat.wav"),
                                         QStringLiteral("--snapshot"), QStringLiteral("out.png"),
                                         QStringLiteral("/music")});
    EXPECT_EQ(both.snapshot, QStringLiteral("out.png"));
    EXPECT_EQ(both.files,
              (QStringList{cwd + QStringLiteral("/beat.wav"), QStringLiteral("/music")}));

    LaunchOptions last = parseArguments({QStringLiteral("zelkor"), QStringLiteral("--snapshot")});
    EXPECT_FALSE(last.snapshot);
    EXPECT_TRUE(last.files.isEmpty());

    LaunchOptions twice = parseArguments({QStringLiteral("zelkor"), QStringLiteral("--snapshot"),
                                          QStringLiteral("a.png"), QStringLiteral("--snapshot"),
                                          QStringLiteral("b.png")});
    EXPECT_EQ(twice.snapshot, QStringLiteral("a.png"));
}

class Snapshot : public ::testing::Test {
protected:
    Snapshot() { home.useOwnRuntime(); }

    ::Test::Process zelkor(const QStringList& args) {
        return ::Test::runProgram(::Test::binary(QStringLiteral("zelkor")), args);
    }

    ::Test::FreshHome home;
};

TEST_F(Snapshot, writesTheIdleWindowWithTheSeededTagAndPrintsNothing) {
    const QString out = home.root() + QStringLiteral("/out.png");
    const ::Test::Process run = zelkor({QStringLiteral("--snapshot"), out});
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(run.out.isEmpty()) << run.out.toStdString();
    EXPECT_TRUE(run.err.isEmpty()) << run.err.toStdString();
    const QImage image(out);
    ASSERT_EQ(image.size(), QSize(600, 640));
    EXPECT_TRUE(near(image.pixelColor(3, 3), black, 0));
    EXPECT_TRUE(near(image.pixelColor(115, 108), purple)); // a tag is selected
    EXPECT_TRUE(near(image.pixelColor(25, 140), over(Drawing::withAlpha(white, 0.85), black)));
    EXPECT_FALSE(QDir(home.tagsDir()).entryList(QDir::Files).isEmpty());
}

TEST_F(Snapshot, filesNamedAtLaunchAreAlreadyABatchInTheSnapshot) {
    const QString beat = home.root() + QStringLiteral("/beat.wav");
    ::Test::makeAudio(beat, QStringLiteral("sine=frequency=220"), 20);
    const QString out = home.root() + QStringLiteral("/busy.png");
    const ::Test::Process run = zelkor({beat, QStringLiteral("--snapshot"), out});
    EXPECT_EQ(run.status, 0);
    EXPECT_TRUE(run.err.isEmpty()) << run.err.toStdString();
    const QImage image(out);
    ASSERT_EQ(image.size(), QSize(600, 640));
    EXPECT_TRUE(near(image.pixelColor(25, 140), purple));             // busy brackets
    EXPECT_TRUE(near(image.pixelColor(168, 335), over(line, black))); // 00/01: no cell lit
    EXPECT_TRUE(near(image.pixelColor(300, 220), black, 0));          // no plus sign
}

TEST(FrameAutosave, aMovedWindowReopensWhereItWasLeftAndAFailedSaveIsReported) {
    ::Test::guiApplication();
    ::Test::FreshHome home;
    PreferencesFile preferences(home.preferencesPath());
    const QString name = QStringLiteral("ZelkorMain");
    {
        QWidget window;
        window.resize(200, 100);
        new FrameAutosave(window, name, preferences);
        window.show();
        window.move(120, 90);
        ASSERT_TRUE(::Test::waitUntil([&] { return preferences.object(name).has_value(); }, 3000));
    }
    const QJsonObject saved = *preferences.object(name);
    EXPECT_EQ(saved[QStringLiteral("x")].toInt(), 120);
    EXPECT_EQ(saved[QStringLiteral("y")].toInt(), 90);

    QWidget again;
    again.resize(200, 100);
    (new FrameAutosave(again, name, preferences))->restore();
    EXPECT_EQ(again.pos(), QPoint(120, 90));

    // Off every screen: left where the launch put it.
    preferences.setObject(name,
                          QJsonObject{{QStringLiteral("x"), -9000}, {QStringLiteral("y"), -9000}});
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
    EXPECT_EQ(failures, QStringList{QStringLiteral("CAN'T SAVE PREFERENCES.JSON: IS A DIRECTORY")});
}
