// The program as a whole: the command line, and `zelkor --snapshot` run as a
// child process that draws its window offscreen, writes the PNG and quits.
#include "app/AppDelegate.h"
#include "app/FrameAutosave.h"
#include "base/TagError.h"
#include "style/Palette.h"
#include "support/GuiSupport.h"
#include "view/Drawing.h"

#include <QJsonObject>
#include <QRegularExpression>

using namespace Qt::StringLiterals;
using namespace Style;

namespace {

::Test::Process zelkor(const QStringList& args, const QStringList& environment = {}) {
    return ::Test::runProgram(::Test::binary(u"zelkor"_s), args, environment);
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
// what does says why it did not; a snapshot that cannot be written (its parent
// a file) says so in one line and leaves nothing.
TEST(LaunchCommandLine, answersWithoutADisplayAndEndsWithTheReason) {
    ::Test::FreshHome home;
    home.useOwnRuntime();
    home.setEnv("QT_QPA_PLATFORM", u"xcb"_s);
    home.setEnv("DISPLAY", std::nullopt);
    home.setEnv("WAYLAND_DISPLAY", std::nullopt);
    const QString file = home.root() + u"/file"_s;
    ::Test::writeFile(file, "x");
    const QString oneLine = u"^zelkor: [^\n]*\n$"_s;
    const std::vector<std::tuple<QStringList, QStringList, int, QString, QString>> rows{
        {{u"--help"_s}, {}, 0, u"^Usage: zelkor "_s, u"^$"_s},
        {{u"--version"_s}, {}, 0, u"^zelkor " ZELKOR_VERSION "\n$"_s, u"^$"_s},
        {{u"--bogus"_s}, {}, 2, u"^$"_s, oneLine},
        {{u"beat.wav"_s, u"--snapshot"_s}, {}, 2, u"^$"_s, oneLine},
        {{}, {}, 1, u"^$"_s, u"could not connect to display"_s},
        {{u"--snapshot"_s, file + u"/x.png"_s},
         {u"QT_QPA_PLATFORM=offscreen"_s},
         1,
         u"^$"_s,
         u"^zelkor: can't write the snapshot "_s + QRegularExpression::escape(file) +
             u"/x.png[^\n]*\n$"_s}};
    for (const auto& [args, environment, status, out, err] : rows) {
        SCOPED_TRACE(args.join(u' ').toStdString());
        const ::Test::Process run = zelkor(args, environment);
        EXPECT_EQ(run.status, status);
        EXPECT_TRUE(QRegularExpression(out).match(run.out).hasMatch()) << run.out.toStdString();
        EXPECT_TRUE(QRegularExpression(err).match(run.err).hasMatch()) << run.err.toStdString();
    }
    EXPECT_EQ(::Test::readAll(file), QByteArray("x"));
    EXPECT_EQ(QDir(home.root()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries),
              (QStringList{u"file"_s, u"runtime"_s}));
}

// Idle with the seeded tag selected; with files named at launch, already busy.
TEST(Snapshot, drawsTheWindowAsLaunchedAndPrintsNothing) {
    ::Test::FreshHome home;
    home.useOwnRuntime();
    const QString beat = home.root() + u"/beat.wav"_s, out = home.root() + u"/out.png"_s;
    ::Test::makeAudio(beat, u"sine=frequency=220"_s, 20);
    const auto snapshot = [&](QStringList args) {
        const ::Test::Process run = zelkor(args << u"--snapshot"_s << out);
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.out + run.err, QString());
        const QImage image(out);
        EXPECT_EQ(image.size(), QSize(600, 640));
        return image;
    };
    const QImage idle = snapshot({}), busy = snapshot({beat});
    const std::vector<std::tuple<const QImage*, QPoint, QColor, int>> probes{
        {&idle, {3, 3}, black, 0},
        {&idle, {115, 108}, purple, 3}, // a tag is selected
        {&idle, {25, 140}, ::Test::over(Drawing::withAlpha(white, 0.85), black), 3},
        {&busy, {25, 140}, purple, 3},                     // busy brackets
        {&busy, {168, 335}, ::Test::over(line, black), 3}, // 00/01: no cell lit
        {&busy, {300, 220}, black, 0}};                    // no plus sign
    for (const auto& [image, at, colour, tolerance] : probes)
        EXPECT_TRUE(::Test::near(image->pixelColor(at), colour, tolerance))
            << at.x() << ", " << at.y();
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
        const auto movedTo = [&](QPoint at) {
            window.show();
            window.move(at);
            return ::Test::waitUntil([&] { return preferences.object(name).has_value(); }, 3000);
        };
        ASSERT_TRUE(movedTo({60, 60}));
        // Only a move of the shown window is saved, even by the close that follows.
        preferences.remove(name);
        window.setWindowTitle(u"retitled"_s);
        window.hide();
        window.close();
        EXPECT_FALSE(preferences.object(name));
        ASSERT_TRUE(movedTo({120, 90}));
    }
    QWidget again;
    again.resize(200, 100);
    (new FrameAutosave(again, name, preferences))->restore();
    EXPECT_EQ(again.pos(), QPoint(120, 90));

    // Off every screen, or not numbers: left where the launch put it.
    QWidget lost;
    lost.move(10, 10);
    for (const QJsonObject& frame : {QJsonObject{{u"x"_s, -9000}, {u"y"_s, -9000}},
                                     QJsonObject{{u"x"_s, u"a"_s}, {u"y"_s, 5}}}) {
        preferences.setObject(name, frame);
        (new FrameAutosave(lost, name, preferences))->restore();
        EXPECT_EQ(lost.pos(), QPoint(10, 10));
    }

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
