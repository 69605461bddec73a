// The application shell and the desktop around it: the window the launch
// builds, its menu bar and menus; the tag row kept in step with the library
// whoever changes it, and one rule for what a tag clip is; the file viewer's
// fallback and the sound service, quiet on a desktop of the test's own.
#include "app/AppDelegate.h"
#include "platform/Menus.h"
#include "platform/OpenPanels.h"
#include "platform/Sounds.h"
#include "style/Palette.h"
#include "support/GuiSupport.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QProcess>
#include <QScopeGuard>
#include <QScreen>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

class AppShell : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ::Test::guiApplication(); }
    AppShell() { delegate.didFinishLaunching(); }

    QMainWindow& window() { return *delegate.window(); }
    // Every menu as "Title: entry [keys], ...", separators as "-".
    std::vector<std::string> menus() {
        std::vector<std::string> out;
        for (const QAction* menu : window().menuBar()->actions()) {
            QString text = menu->text() + u':';
            for (const QAction* action : menu->menu()->actions()) {
                text += action->isSeparator() ? u" -"_s : u' ' + action->text();
                if (!action->shortcut().isEmpty())
                    text += u" ["_s + action->shortcut().toString() + u']';
            }
            out.push_back(text.toStdString());
        }
        return out;
    }
    void trigger(const QString& entry) {
        for (QAction* action : window().menuBar()->findChildren<QAction*>())
            if (action->text() == entry)
                return action->trigger();
        ADD_FAILURE() << "no menu entry " << entry.toStdString();
    }

    ::Test::FreshHome home;
    AppDelegate delegate{{std::make_unique<::Test::RecordingSounds>(),
                          std::make_unique<::Test::RecordingFileViewer>(),
                          std::make_unique<PreferencesFile>(home.preferencesPath()),
                          std::make_unique<HomeTrash>(home.dataHome() + u"/Trash"_s),
                          std::make_unique<::Test::ScriptedMenus>(),
                          std::make_unique<::Test::ScriptedPanels>()},
                         std::nullopt};
};

TEST_F(AppShell, theMenuBarHidesShowsAboutAndQuitsWithTheWindow) {
    EXPECT_EQ(menus(), (std::vector<std::string>{
                           "ODRAVEX Zelkor: About ODRAVEX Zelkor - Hide ODRAVEX Zelkor [Ctrl+H] "
                           "Quit ODRAVEX Zelkor [Ctrl+Q]",
                           "Window: Minimize [Ctrl+M] Close [Ctrl+W]"}));
    EXPECT_EQ(window().minimumSize(), window().maximumSize());
    // Centred as it shows, menu bar included.
    const QPoint offCentre =
        window().frameGeometry().center() - window().screen()->availableGeometry().center();
    EXPECT_LE(offCentre.manhattanLength(), 1) << offCentre.x() << ", " << offCentre.y();

    trigger(u"Hide ODRAVEX Zelkor"_s);
    EXPECT_TRUE(window().isMinimized());
    delegate.activate();
    EXPECT_FALSE(window().isMinimized());

    trigger(u"About ODRAVEX Zelkor"_s);
    const auto* about = window().findChild<QMessageBox*>();
    ASSERT_TRUE(about);
    EXPECT_TRUE(about->text().contains(u"ODRAVEX Zelkor"_s));
    EXPECT_TRUE(about->text().contains(QStringLiteral(ZELKOR_VERSION)));
    EXPECT_FALSE(about->iconPixmap().isNull());

    constexpr int kStillRunning = 7;
    QTimer::singleShot(0, &window(), [this] { trigger(u"Close"_s); });
    QTimer::singleShot(10'000, qApp, [] { QCoreApplication::exit(kStillRunning); });
    EXPECT_EQ(QCoreApplication::exec(), 0);
}

// Menus over the near-black window: their background, border and separators
// must show, whatever fonts draw the titles.
TEST(DarkMenus, standOutFromTheWindowAndShowTheirSeparators) {
    ::Test::guiApplication();
    applyDarkAppearance();
    const auto menu = buildMenu({{.title = u"a"_s}, MenuItem::separatorItem(), {.title = u"b"_s}});
    menu->adjustSize();
    const QImage image = menu->grab().toImage();
    const int x = image.width() - 8; // right of the short titles, inside the separator
    auto grey = [&](int px, int py) { return qGray(image.pixel(px, py)); };
    const int window = qGray(Style::black.rgb());
    const int background = grey(x, 3);
    int separator = background;
    for (int y = 3; y < image.height() - 3; ++y)
        if (std::abs(grey(x, y) - background) > std::abs(separator - background))
            separator = grey(x, y);
    EXPECT_GE(background - window, 15);
    EXPECT_GE(std::abs(separator - background), 20);
    EXPECT_GE(grey(0, image.height() / 2) - window, 40); // the border
}

using TagRow = ::Test::ViewFixture;

// Another program changes the selection, a file manager deletes the clips:
// the window shows it by itself, within a second or so, activated or not.
TEST_F(TagRow, followsChangesMadeByOtherProgramsWithoutBeingActivated) {
    clip(u"a.wav"_s);
    tags.setSelected(clip(u"b.wav"_s));
    const auto inStep = [this] {
        return current(view().tagRowRect()) && current(view().zoneRect());
    };
    ASSERT_TRUE(inStep());
    const QImage before = shown(view().tagRowRect());

    ASSERT_EQ(::Test::zelkorTag({u"--select-tag"_s, u"a.wav"_s}).status, 0);
    EXPECT_TRUE(::Test::waitUntil(inStep, 2000));
    EXPECT_NE(shown(view().tagRowRect()), before);

    for (const QString& name : QDir(home.tagsDir()).entryList(QDir::Files))
        QFile::remove(home.tagsDir() + u'/' + name);
    // A click on the zone before the change was seen shows it, and opens nothing.
    ::Test::click(view(), view().zoneRect().center());
    EXPECT_EQ(panels.tagPanels + panels.trackPanels, 0);
    EXPECT_TRUE(::Test::waitUntil(inStep, 2000));
}

// What the library would not list is refused by the chooser and zelkor-tag in
// the same words: a name that is only an extension is a hidden file, not a clip.
TEST_F(TagRow, oneRuleDecidesWhatATagClipIsForTheChooserAndZelkorTag) {
    EXPECT_EQ(tagNameFilter(Tags::exts()), u"Tag clips (*.aif *.aiff *.flac *.m4a *.mp3 *.wav)"_s);
    const QString hidden = file(u".wav"_s, "RIFF");
    const ::Test::Process added = ::Test::zelkorTag({u"--add-tag"_s, hidden});
    EXPECT_EQ(added.status, 1);
    EXPECT_EQ(added.out, u".wav  CAN'T ADD TAG\n"_s);

    panels.tag = hidden; // typed into the chooser past its filter
    view().snapshot(1);
    ::Test::click(view(), view().layout().tagRow.addTag.outline.center());
    ASSERT_EQ(panels.tagPanels, 1);
    EXPECT_EQ(view().state().log.back(), (LogLine{u".wav"_s, u"CAN'T ADD TAG"_s, Style::errColor}));
    EXPECT_FALSE(QFileInfo::exists(home.tagsDir() + u"/.wav"_s));
}

namespace {

// A file manager on the test's own session bus that cannot show anything, as
// when none is installed; `answering` runs before each refusal.
class FailingFileManager final : public QDBusVirtualObject {
public:
    std::function<void(const QStringList&)> answering;
    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& bus) override {
        if (message.member() != QLatin1String("ShowItems"))
            return false;
        answering(message.arguments().value(0).toStringList());
        bus.send(message.createErrorReply(QDBusError::Failed, u"cannot show"_s));
        return true;
    }
};

} // namespace

// The end of a batch shows the written files and plays a sound. Without a file
// manager the folder goes to the desktop's folder handler: never to Zelkor
// itself, which would tag the folder again and show it again without end. And
// never a word on Zelkor's console, from the handler or the sound service.
TEST(FileViewerFallback, opensTheFolderOnlyWithAnotherProgramAndQuietly) {
    ::Test::guiApplication();
    ::Test::FreshHome home;
    home.useOwnRuntime();
    const QString root = home.root();

    // A session bus of the test's own, with nothing on it.
    const QString busConfig = root + u"/bus.conf"_s;
    ::Test::writeFile(
        busConfig,
        u"<busconfig><type>session</type><listen>unix:dir=%1</listen><auth>EXTERNAL</auth>"
        "<policy context=\"default\"><allow send_destination=\"*\"/>"
        "<allow receive_sender=\"*\"/><allow own=\"*\"/></policy></busconfig>\n"_s.arg(root)
            .toUtf8());
    QProcess bus;
    bus.start(u"dbus-daemon"_s,
              {u"--config-file="_s + busConfig, u"--nofork"_s, u"--print-address=1"_s});
    ASSERT_TRUE(bus.waitForReadyRead(10'000)) << "dbus-daemon did not start";
    const auto stopBus = qScopeGuard([&] {
        bus.kill();
        bus.waitForFinished();
    });
    const QString address = QString::fromUtf8(bus.readLine()).trimmed();
    home.setEnv("DBUS_SESSION_BUS_ADDRESS", address);
    // A plain desktop of the test's own: xdg-open only asks whether a display
    // is named; Zelkor itself draws offscreen.
    home.setEnv("DISPLAY", u":99"_s);
    for (const char* name : {"XDG_CURRENT_DESKTOP", "XDG_SESSION_DESKTOP", "DESKTOP_SESSION",
                             "KDE_FULL_SESSION", "GNOME_DESKTOP_SESSION_ID", "WAYLAND_DISPLAY"})
        home.setEnv(name, std::nullopt);
    home.setEnv("XDG_DATA_DIRS", root + u"/no-system-data"_s);
    home.setEnv("XDG_CONFIG_DIRS", root + u"/no-system-config"_s);
    const QString apps = home.dataHome() + u"/applications/"_s;
    QDir().mkpath(apps);
    QDir().mkpath(home.configHome());
    // The system's sound theme; a sound server named, so Zelkor plays, but
    // absent; and the sound library on its ALSA output, as without its
    // PulseAudio driver: ALSA finds no device and prints so unless silenced.
    QFile::link(u"/usr/share/sounds"_s, home.dataHome() + u"/sounds"_s);
    home.setEnv("PULSE_SERVER", u"unix:/nonexistent"_s);
    home.setEnv("CANBERRA_DRIVER", u"alsa"_s);

    // Zelkor as an older install left it, the default program for folders; and
    // a file manager that notes what it opens and chatters on its console.
    const QString entry =
        u"[Desktop Entry]\nType=Application\nName=%1\nExec=%2 %F\nMimeType=inode/directory;\n"_s;
    ::Test::writeFile(apps + u"zelkor-local.desktop"_s,
                      entry.arg(u"Zelkor"_s, ::Test::binary(u"zelkor"_s)).toUtf8());
    const QString opened = root + u"/opened"_s;
    const QString files = root + u"/files"_s;
    ::Test::writeFile(files,
                      u"#!/bin/sh\necho opening \"$1\"\necho warning >&2\n"
                      "printf '%s\\n' \"$1\" >> '%1'\n"_s.arg(opened)
                          .toUtf8(),
                      true);
    ::Test::writeFile(apps + u"files.desktop"_s, entry.arg(u"Files"_s, files).toUtf8());
    auto openFoldersWith = [&](const QString& id) {
        ::Test::writeFile(home.configHome() + u"/mimeapps.list"_s,
                          (u"[Default Applications]\ninode/directory="_s + id + u'\n').toUtf8());
    };
    openFoldersWith(u"zelkor-local.desktop"_s);

    const QString one = root + u"/one"_s, two = root + u"/two"_s;
    for (const QString& folder : {one, two}) {
        QDir().mkpath(folder);
        ::Test::makeAudio(folder + u"/beat.wav"_s, u"sine=frequency=220"_s, 3);
    }
    auto taggedIn = [](const QString& folder) {
        return QDir(folder).entryList({u"*(Tagged)*"_s}, QDir::Files);
    };
    QProcess zelkor;
    zelkor.start(::Test::binary(u"zelkor"_s), {one + u"/beat.wav"_s});
    ASSERT_TRUE(::Test::waitUntil([&] { return !taggedIn(one).isEmpty(); }, 60'000));

    // Files handed over later are shown after the first batch's have been dealt
    // with: when they come, a file manager is the folder handler.
    std::optional<QDBusConnection> test = QDBusConnection::connectToBus(address, u"file-manager"_s);
    const auto leave = qScopeGuard([&] {
        test.reset();
        QDBusConnection::disconnectFromBus(u"file-manager"_s);
    });
    FailingFileManager manager;
    manager.answering = [&](const QStringList& uris) {
        if (uris.value(0).contains(u"/two/"_s))
            openFoldersWith(u"files.desktop"_s);
    };
    ASSERT_TRUE(test->registerService(u"org.freedesktop.FileManager1"_s));
    ASSERT_TRUE(test->registerVirtualObject(u"/org/freedesktop/FileManager1"_s, &manager));
    const ::Test::Process handOver =
        ::Test::runProgram(::Test::binary(u"zelkor"_s), {two + u"/beat.wav"_s});
    EXPECT_EQ(handOver.status, 0);
    EXPECT_TRUE(::Test::waitUntil([&] { return QFileInfo::exists(opened); }, 60'000));

    EXPECT_EQ(::Test::readAll(opened), (two + u'\n').toUtf8());
    EXPECT_EQ(taggedIn(one).size(), 1) << taggedIn(one).join(u',').toStdString();
    zelkor.terminate();
    EXPECT_TRUE(zelkor.waitForFinished(10'000));
    EXPECT_EQ(
        QString::fromLocal8Bit(zelkor.readAllStandardOutput() + zelkor.readAllStandardError()),
        QString());
}

TEST(ThemeSounds, namesMapToTheFreedesktopEvents) {
    EXPECT_EQ(themeEvent(u"Glass"_s), u"complete"_s);
    EXPECT_EQ(themeEvent(u"Basso"_s), u"dialog-error"_s);
    EXPECT_TRUE(themeEvent(u"Ping"_s).isEmpty());
}
