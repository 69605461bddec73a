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

TEST(LaunchArguments, snapshotPathAndFilesComeApartAndAnythingElseIsAUsageError) {
    const QString cwd = QDir::currentPath();
    LaunchOptions plain = parseArguments({QStringLiteral("zelkor")});
    EXPECT_FALSE(plain.snapshot);
    EXPECT_TRUE(plain.files.isEmpty());
    EXPECT_TRUE(plain.error.isEmpty());

    LaunchOptions both = parseArguments({QStringLiteral("zelkor"), QStringLiteral("beat.wav"),
                                         QStringLiteral("--snapshot"), QStringLiteral("out.png"),
                                         QStringLiteral("/music"), QStringLiteral("--"),
                                         QStringLiteral("--odd.wav")});
    EXPECT_EQ(both.snapshot, QStringLiteral("out.png"));
    EXPECT_EQ(both.files, (QStringList{cwd + QStringLiteral("/beat.wav"), QStringLiteral("/music"),
                                       cwd + QStringLiteral("/--odd.wav")}));

    LaunchOptions twice =
        parseArguments({QStringLiteral("zelkor"), QStringLiteral("--snapshot"),
                        QStringLiteral("a.png"), QStringLiteral("--snapshot=b.png")});
    EXPECT_EQ(twice.snapshot, QStringLiteral("a.png"));
    EXPECT_TRUE(twice.files.isEmpty());

    EXPECT_FALSE(
        parseArguments({QStringLiteral("zelkor"), QStringLiteral("--snapshot")}).error.isEmpty());
    EXPECT_FALSE(parseArguments({QStringLiteral("zelkor"), QStringLiteral("-x")}).error.isEmpty());
}

// Without a display the window cannot open: what needs none still works, and
// what does says why it did not.
TEST(LaunchCommandLine, helpVersionAndUsageErrorsNeedNoDisplayAndNoDisplayIsReported) {
    ::Test::FreshHome home;
    home.useOwnRuntime();
    home.setEnv("QT_QPA_PLATFORM", QStringLiteral("xcb"));
    home.setEnv("DISPLAY", std::nullopt);
    home.setEnv("WAYLAND_DISPLAY", std::nullopt);
    auto zelkor = [](const QStringList& args) {
        return ::Test::runProgram(::Test::binary(QStringLiteral("zelkor")), args);
    };
    const ::Test::Process help = zelkor({QStringLiteral("--help")});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(help.out.startsWith(QStringLiteral("Usage: zelkor "))) << help.out.toStdString();
    EXPECT_TRUE(help.err.isEmpty()) << help.err.toStdString();
    const ::Test::Process version = zelkor({QStringLiteral("--version")});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.out, QStringLiteral("zelkor " ZELKOR_VERSION "\n"));

    for (const QStringList& wrong :
         {QStringList{QStringLiteral("--bogus")},
          QStringList{QStringLiteral("beat.wav"), QStringLiteral("--snapshot")}}) {
        const ::Test::Process run = zelkor(wrong);
        EXPECT_EQ(run.status, 2) << wrong.join(u' ').toStdString();
        EXPECT_TRUE(run.out.isEmpty());
        EXPECT_EQ(run.err.count(u'\n'), 1) << run.err.toStdString();
        EXPECT_TRUE(run.err.startsWith(QStringLiteral("zelkor: "))) << run.err.toStdString();
    }

    const ::Test::Process noDisplay = zelkor({});
    EXPECT_EQ(noDisplay.status, 1);
    EXPECT_TRUE(noDisplay.err.contains(QStringLiteral("could not connect to display")))
        << noDisplay.err.toStdString();
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

TEST_F(Snapshot, thatCannotBeWrittenEndsWithTheReasonAndLeavesNothing) {
    // A folder that is not there, and a path whose parent is a regular file.
    const QString file = home.root() + QStringLiteral("/file");
    ::Test::writeFile(file, "x");
    for (const QString& out :
         {home.root() + QStringLiteral("/missing/x.png"), file + QStringLiteral("/x.png")}) {
        const ::Test::Process run = zelkor({QStringLiteral("--snapshot"), out});
        EXPECT_EQ(run.status, 1);
        EXPECT_TRUE(run.err.startsWith(QStringLiteral("zelkor: can't write the snapshot ") + out))
            << run.err.toStdString();
        EXPECT_EQ(run.err.count(u'\n'), 1) << run.err.toStdString();
    }
    EXPECT_EQ(::Test::readAll(file), QByteArray("x"));
    EXPECT_EQ(QDir(home.root()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries),
              (QStringList{QStringLiteral("file"), QStringLiteral("runtime")}));
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
