// The application shell and the desktop around it: the window the launch
// builds, its menu bar and menus; the tag row kept in step with the library
// whoever changes it, and one rule for what a tag clip is; the file viewer's
// fallback on a desktop of the test's own; the real sound service, which must
// stay silent on the console on a machine without sound.
#include "app/AppDelegate.h"
#include "model/Tags.h"
#include "platform/FileViewer.h"
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
#include <QMimeData>
#include <QProcess>
#include <QScopeGuard>
#include <QScreen>
#include <QStandardPaths>
#include <QThread>
#include <QUrl>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

class AppShell : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ::Test::guiApplication(); }
    AppShell() { delegate.didFinishLaunching(); }

    QMainWindow& window() { return *delegate.window(); }
    // Every menu as "Title: entry [keys], ...", separators as "-".
    std::vector<std::string> menus() {
        std::vector<std::string> out;
        for (const QAction* menu : window().menuBar()->actions()) {
            QString text = menu->text() + QLatin1Char(':');
            for (QAction* action : menu->menu()->actions()) {
                text += action->isSeparator() ? QStringLiteral(" -")
                                              : QLatin1Char(' ') + action->text();
                if (!action->shortcut().isEmpty())
                    text += QStringLiteral(" [") + action->shortcut().toString() + QLatin1Char(']');
                m_actions[action->text()] = action;
            }
            out.push_back(text.toStdString());
        }
        return out;
    }
    void trigger(const QString& entry) { m_actions.at(entry)->trigger(); }

    ::Test::FreshHome home;
    AppDelegate delegate{{std::make_unique<::Test::RecordingSounds>(),
                          std::make_unique<::Test::RecordingFileViewer>(),
                          std::make_unique<PreferencesFile>(home.preferencesPath()),
                          std::make_unique<HomeTrash>(home.dataHome() + QStringLiteral("/Trash")),
                          std::make_unique<::Test::ScriptedMenus>(),
                          std::make_unique<::Test::ScriptedPanels>()},
                         std::nullopt};
    std::map<QString, QAction*> m_actions;
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

    trigger(QStringLiteral("Hide ODRAVEX Zelkor"));
    EXPECT_TRUE(window().isMinimized());
    delegate.activate();
    EXPECT_FALSE(window().isMinimized());

    trigger(QStringLiteral("About ODRAVEX Zelkor"));
    const auto* about = window().findChild<QMessageBox*>();
    ASSERT_TRUE(about);
    EXPECT_TRUE(about->text().contains(QStringLiteral("ODRAVEX Zelkor")));
    EXPECT_TRUE(about->text().contains(QStringLiteral(ZELKOR_VERSION)));
    EXPECT_FALSE(about->iconPixmap().isNull());

    constexpr int kStillRunning = 7;
    QTimer::singleShot(0, &window(), [this] { trigger(QStringLiteral("Close")); });
    QTimer::singleShot(10'000, qApp, [] { QCoreApplication::exit(kStillRunning); });
    EXPECT_EQ(QCoreApplication::exec(), 0);
}

// Menus over the near-black window: their background, border and separators
// must show, whatever fonts draw the titles.
TEST(DarkMenus, standOutFromTheWindowAndShowTheirSeparators) {
    ::Test::guiApplication();
    applyDarkAppearance();
    const auto menu = buildMenu({{.title = QStringLiteral("a")},
                                 MenuItem::separatorItem(),
                                 {.title = QStringLiteral("b")}});
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

namespace {

class TagRow : public ::Test::ViewFixture {
protected:
    QString clip(const QString& name) {
        const QString path = Tags::dir() + QLatin1Char('/') + name;
        ::Test::writeFile(path, "RIFF");
        return path;
    }
    // The row and the zone as the view shows them, and as a view made now would.
    QImage shown(const QRectF& area) { return view().snapshot(1).copy(area.toAlignedRect()); }
    bool current() {
        HUDView fresh(services());
        for (const QRectF area : {view().tagRowRect(), view().zoneRect()})
            if (shown(area) != fresh.snapshot(1).copy(area.toAlignedRect()))
                return false;
        return true;
    }
    ::Test::Process zelkorTag(const QStringList& args) {
        return ::Test::runProgram(::Test::binary(QStringLiteral("zelkor-tag")), args);
    }
};

} // namespace

// Another program changes the selection, a file manager deletes the clips:
// the window shows it by itself, within a second or so, activated or not.
TEST_F(TagRow, followsChangesMadeByOtherProgramsWithoutBeingActivated) {
    clip(QStringLiteral("a.wav"));
    tags.setSelected(clip(QStringLiteral("b.wav")));
    ASSERT_TRUE(current());
    const QImage before = shown(view().tagRowRect());

    ASSERT_EQ(zelkorTag({QStringLiteral("--select-tag"), QStringLiteral("a.wav")}).status, 0);
    EXPECT_TRUE(::Test::waitUntil([&] { return current(); }, 2000));
    EXPECT_NE(shown(view().tagRowRect()), before);

    for (const QString& name : QDir(home.tagsDir()).entryList(QDir::Files))
        QFile::remove(home.tagsDir() + QLatin1Char('/') + name);
    // A click on the zone before the change was seen shows it, and opens nothing.
    ::Test::click(view(), view().zoneRect().center());
    EXPECT_EQ(panels.tagPanels + panels.trackPanels, 0);
    EXPECT_TRUE(::Test::waitUntil([&] { return current(); }, 2000));
}

// What the library would not list is refused everywhere, in the same words: a
// name that is only an extension is a hidden file, not a clip.
TEST_F(TagRow, oneRuleDecidesWhatATagClipIsForTheRowTheChooserAndZelkorTag) {
    EXPECT_EQ(tagNameFilter(), QStringLiteral("Tag clips (*.aif *.aiff *.flac *.m4a *.mp3 *.wav)"));
    const QString hidden = file(QStringLiteral(".wav"), "RIFF");
    const ::Test::Process added = zelkorTag({QStringLiteral("--add-tag"), hidden});
    EXPECT_EQ(added.status, 1);
    EXPECT_EQ(added.out, QStringLiteral(".wav  CAN'T ADD TAG\n"));

    QMimeData data;
    data.setUrls({QUrl::fromLocalFile(hidden)});
    QDragEnterEvent over(view().layout().tagRow.band.center().toPoint(), Qt::CopyAction, &data,
                         Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(&view(), &over);
    EXPECT_FALSE(view().state().hoverTag);
    EXPECT_NE(over.dropAction(), Qt::CopyAction);

    panels.tag = hidden; // typed into the chooser past its filter
    view().snapshot(1);
    ::Test::click(view(), view().layout().tagRow.addTag.outline.center());
    ASSERT_EQ(panels.tagPanels, 1);
    EXPECT_EQ(view().state().log.back(),
              (LogLine{QStringLiteral(".wav"), QStringLiteral("CAN'T ADD TAG"), Style::errColor}));
    EXPECT_FALSE(QFileInfo::exists(home.tagsDir() + QStringLiteral("/.wav")));
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
        bus.send(message.createErrorReply(QDBusError::Failed, QStringLiteral("cannot show")));
        return true;
    }
};

} // namespace

// The end of a batch shows the written files. Without a file manager the
// folder goes to the desktop's folder handler: never to Zelkor itself, which
// would tag the folder again and show it again without end, and never with a
// word on Zelkor's console.
TEST(FileViewerFallback, opensTheFolderOnlyWithAnotherProgramAndQuietly) {
    ::Test::guiApplication();
    ::Test::FreshHome home;
    home.useOwnRuntime();
    const QString root = home.root();

    // A session bus of the test's own, with nothing on it.
    const QString busConfig = root + QStringLiteral("/bus.conf");
    ::Test::writeFile(
        busConfig,
        QStringLiteral(
            "<busconfig><type>session</type><listen>unix:dir=%1</listen><auth>EXTERNAL</auth>"
            "<policy context=\"default\"><allow send_destination=\"*\"/>"
            "<allow receive_sender=\"*\"/><allow own=\"*\"/>"
            "</policy></busconfig>\n")
            .arg(root)
            .toUtf8());
    QProcess bus;
    bus.start(QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")),
              {QStringLiteral("--config-file=") + busConfig, QStringLiteral("--nofork"),
               QStringLiteral("--print-address=1")});
    ASSERT_TRUE(bus.waitForReadyRead(10'000)) << "dbus-daemon did not start";
    const auto stopBus = qScopeGuard([&] {
        bus.kill();
        bus.waitForFinished();
    });
    const QString address = QString::fromUtf8(bus.readLine()).trimmed();
    home.setEnv("DBUS_SESSION_BUS_ADDRESS", address);
    // A plain desktop of the test's own: xdg-open only asks whether a display
    // is named; Zelkor itself draws offscreen.
    home.setEnv("DISPLAY", QStringLiteral(":99"));
    for (const char* name : {"XDG_CURRENT_DESKTOP", "XDG_SESSION_DESKTOP", "DESKTOP_SESSION",
                             "KDE_FULL_SESSION", "GNOME_DESKTOP_SESSION_ID", "WAYLAND_DISPLAY"})
        home.setEnv(name, std::nullopt);
    home.setEnv("XDG_DATA_DIRS", root + QStringLiteral("/no-system-data"));
    home.setEnv("XDG_CONFIG_DIRS", root + QStringLiteral("/no-system-config"));

    // Zelkor as an older install left it, the default program for folders; and
    // a file manager that notes what it opens and chatters on its console.
    const QString apps = home.dataHome() + QStringLiteral("/applications/");
    QDir().mkpath(apps);
    QDir().mkpath(home.configHome());
    const QString entry = QStringLiteral("[Desktop Entry]\nType=Application\nName=%1\nExec=%2 %F\n"
                                         "MimeType=inode/directory;\n");
    ::Test::writeFile(
        apps + QStringLiteral("zelkor-local.desktop"),
        entry.arg(QStringLiteral("Zelkor"), ::Test::binary(QStringLiteral("zelkor"))).toUtf8());
    const QString opened = root + QStringLiteral("/opened");
    const QString files = root + QStringLiteral("/files");
    ::Test::writeFile(files,
                      QStringLiteral("#!/bin/sh\necho opening \"$1\"\necho warning >&2\n"
                                     "printf '%s\\n' \"$1\" >> '%1'\n")
                          .arg(opened)
                          .toUtf8(),
                      true);
    ::Test::writeFile(apps + QStringLiteral("files.desktop"),
                      entry.arg(QStringLiteral("Files"), files).toUtf8());
    auto openFoldersWith = [&](const QString& id) {
        ::Test::writeFile(
            home.configHome() + QStringLiteral("/mimeapps.list"),
            (QStringLiteral("[Default Applications]\ninode/directory=") + id + QLatin1Char('\n'))
                .toUtf8());
    };
    openFoldersWith(QStringLiteral("zelkor-local.desktop"));

    const QString one = root + QStringLiteral("/one");
    const QString two = root + QStringLiteral("/two");
    for (const QString& folder : {one, two}) {
        QDir().mkpath(folder);
        ::Test::makeAudio(folder + QStringLiteral("/beat.wav"),
                          QStringLiteral("sine=frequency=220"), 3);
    }
    auto taggedIn = [](const QString& folder) {
        return QDir(folder).entryList({QStringLiteral("*(Tagged)*")}, QDir::Files);
    };
    QProcess zelkor;
    zelkor.start(::Test::binary(QStringLiteral("zelkor")), {one + QStringLiteral("/beat.wav")});
    ASSERT_TRUE(::Test::waitUntil([&] { return !taggedIn(one).isEmpty(); }, 60'000));

    // Files handed over later are shown after the first batch's have been dealt
    // with: when they come, a file manager is the folder handler.
    std::optional<QDBusConnection> test =
        QDBusConnection::connectToBus(address, QStringLiteral("file-manager"));
    const auto leave = qScopeGuard([&] {
        test.reset();
        QDBusConnection::disconnectFromBus(QStringLiteral("file-manager"));
    });
    FailingFileManager manager;
    manager.answering = [&](const QStringList& uris) {
        if (uris.value(0).contains(QStringLiteral("/two/")))
            openFoldersWith(QStringLiteral("files.desktop"));
    };
    ASSERT_TRUE(test->registerService(QStringLiteral("org.freedesktop.FileManager1")));
    ASSERT_TRUE(
        test->registerVirtualObject(QStringLiteral("/org/freedesktop/FileManager1"), &manager));
    const ::Test::Process handOver = ::Test::runProgram(::Test::binary(QStringLiteral("zelkor")),
                                                        {two + QStringLiteral("/beat.wav")});
    EXPECT_EQ(handOver.status, 0);
    EXPECT_TRUE(::Test::waitUntil([&] { return QFileInfo::exists(opened); }, 60'000));

    EXPECT_EQ(::Test::readAll(opened), (two + QLatin1Char('\n')).toUtf8());
    EXPECT_EQ(taggedIn(one).size(), 1) << taggedIn(one).join(u',').toStdString();
    EXPECT_EQ(taggedIn(two).size(), 1);
    zelkor.terminate();
    EXPECT_TRUE(zelkor.waitForFinished(10'000));
    EXPECT_EQ(zelkor.readAllStandardOutput() + zelkor.readAllStandardError(), QByteArray());
}

TEST(ThemeSounds, namesMapToTheFreedesktopEventsAndWithoutADevicePrintNothing) {
    EXPECT_EQ(themeEvent(QStringLiteral("Glass")), QStringLiteral("complete"));
    EXPECT_EQ(themeEvent(QStringLiteral("Basso")), QStringLiteral("dialog-error"));
    EXPECT_TRUE(themeEvent(QStringLiteral("Ping")).isEmpty());

    // Without a sound device, playing prints nothing.
    ::Test::FreshHome home;
    // A server that is named but absent makes the sound library try ALSA, which
    // prints its failures unless silenced.
    for (const auto& server :
         {std::optional<QString>(), std::optional<QString>(QStringLiteral("unix:/nonexistent"))}) {
        home.setEnv("PULSE_SERVER", server);
        const QString file = home.root() + QStringLiteral("/stderr");
        std::fflush(stderr);
        const int saved = dup(STDERR_FILENO);
        const int sink = open(file.toLocal8Bit().constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(sink, STDERR_FILENO);
        auto sounds = makeThemeSounds();
        sounds->play(QStringLiteral("Glass"));
        sounds->play(QStringLiteral("Basso"));
        QThread::msleep(300);
        sounds.reset(); // what it prints when it goes counts too
        std::fflush(stderr);
        dup2(saved, STDERR_FILENO);
        close(sink);
        close(saved);
        EXPECT_EQ(::Test::readAll(file), QByteArray()); // nothing printed
    }
}
