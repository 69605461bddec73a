// The program's command line as a child process; the frame kept across launches.
#include "app/FrameAutosave.h"
#include "support/GuiSupport.h"

#include <QJsonObject>
#include <QRegularExpression>

using namespace Qt::StringLiterals;

// Without a display, what needs none still works and the rest says why; an
// unwritable snapshot says so in one line and leaves nothing.
TEST(LaunchCommandLine, answersWithoutADisplayAndEndsWithTheReason) {
    ::Test::FreshHome home;
    home.useOwnRuntime();
    home.setEnv("QT_QPA_PLATFORM", u"xcb"_s);
    for (const char* display : {"DISPLAY", "WAYLAND_DISPLAY"})
        home.setEnv(display, std::nullopt);
    const QString file = home.root() + u"/file"_s;
    ::Test::writeFile(file, "x");
    const QString oneLine = u"^zelkor: [^\n]*\n$"_s,
                  unwritable = u"^zelkor: can't write the snapshot "_s +
                               QRegularExpression::escape(file) + u"/x.png[^\n]*\n$"_s;
    const std::vector<std::tuple<QStringList, QStringList, int, QString, QString>> rows{
        {{u"--version"_s}, {}, 0, u"^zelkor " ZELKOR_VERSION "\n$"_s, u"^$"_s},
        {{u"--bogus"_s}, {}, 2, u"^$"_s, oneLine},
        {{u"beat.wav"_s, u"--snapshot"_s}, {}, 2, u"^$"_s, oneLine},
        {{}, {}, 1, u"^$"_s, u"could not connect to display"_s},
        {{u"--snapshot"_s, file + u"/x.png"_s},
         {u"QT_QPA_PLATFORM=offscreen"_s},
         1,
         u"^$"_s,
         unwritable}};
    for (const auto& [args, environment, status, out, err] : rows) {
        SCOPED_TRACE(args.join(u' ').toStdString());
        const ::Test::Process run =
            ::Test::runProgram(::Test::binary(u"zelkor"_s), args, environment);
        EXPECT_EQ(run.status, status);
        EXPECT_TRUE(QRegularExpression(out).match(run.out).hasMatch()) << run.out.toStdString();
        EXPECT_TRUE(QRegularExpression(err).match(run.err).hasMatch()) << run.err.toStdString();
    }
    EXPECT_EQ(::Test::readAll(file), QByteArray("x"));
    EXPECT_EQ(QDir(home.root()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries),
              (QStringList{u"file"_s, u"runtime"_s}));
}

TEST(FrameAutosave, aMovedWindowReopensWhereItWasLeft) {
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

    // Off every screen (a monitor unplugged since), or not numbers: left where the launch put it.
    QWidget lost;
    lost.move(10, 10);
    for (const QJsonObject& frame : {QJsonObject{{u"x"_s, -9000}, {u"y"_s, -9000}},
                                     QJsonObject{{u"x"_s, u"a"_s}, {u"y"_s, 5}}}) {
        preferences.setObject(name, frame);
        (new FrameAutosave(lost, name, preferences))->restore();
        EXPECT_EQ(lost.pos(), QPoint(10, 10));
    }
}
