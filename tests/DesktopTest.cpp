// The shell and the desktop around it: the window and its menu bar, the tag row
// in step with the library, the program the file viewer may hand a folder to.
#include "style/Palette.h"
#include "support/GuiSupport.h"

#include <QtWidgets>

using namespace Qt::StringLiterals;

class AppShell : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ::Test::guiApplication(); }
    AppShell() { delegate.didFinishLaunching(); }

    QMainWindow& window() { return *delegate.window(); }
    void trigger(const QString& entry) {
        for (QAction* action : window().menuBar()->findChildren<QAction*>())
            if (action->text().remove(u'&') == entry)
                return action->trigger();
        ADD_FAILURE() << "no menu entry " << entry.toStdString();
    }

    ::Test::FreshHome home;
    AppDelegate delegate{::Test::appServices(home), std::nullopt};
};

TEST_F(AppShell, theMenuBarHidesShowsAndQuitsWithTheWindow) {
    EXPECT_EQ(window().minimumSize(), window().maximumSize());
    // Centred as it shows, menu bar included.
    const QPoint off =
        window().frameGeometry().center() - window().screen()->availableGeometry().center();
    EXPECT_LE(off.manhattanLength(), 1) << off.x() << ", " << off.y();

    trigger(u"Hide ODRAVEX Zelkor"_s);
    EXPECT_TRUE(window().isMinimized());
    delegate.activate();
    EXPECT_FALSE(window().isMinimized());

    QTimer::singleShot(0, &window(), [this] { trigger(u"Close"_s); });
    QTimer::singleShot(10'000, qApp, [] { QCoreApplication::exit(7); }); // still running
    EXPECT_EQ(QCoreApplication::exec(), 0);
}

using TagRow = ::Test::ViewFixture;

// Dark menus stand out from the window, with a border and visible separators.
TEST(DarkMenus, standOutFromTheWindowAndShowTheirSeparators) {
    ::Test::guiApplication();
    applyDarkAppearance();
    const auto menu = buildMenu({{.title = u"a"_s}, MenuItem::separatorItem(), {.title = u"b"_s}});
    menu->adjustSize();
    const QImage image = menu->grab().toImage();
    const auto grey = [&image](int x, int y) { return qGray(image.pixel(x, y)); };
    const int x = image.width() - 8, window = qGray(Style::black.rgb()), background = grey(x, 3);
    int separator = background;
    for (int y = 3; y < image.height() - 3; ++y)
        if (std::abs(grey(x, y) - background) > std::abs(separator - background))
            separator = grey(x, y);
    EXPECT_GE(background - window, 15);
    EXPECT_GE(std::abs(separator - background), 20);
    EXPECT_GE(grey(0, image.height() / 2) - window, 40); // the border
}

// Another program's changes to the library show by themselves, within a second.
TEST_F(TagRow, followsChangesMadeByOtherProgramsAndRereadsOnFocus) {
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

    // A change the watch missed shows when this window gets the focus, not another.
    controller().findChild<QFileSystemWatcher*>()->blockSignals(true);
    tags.setSelected(clip(u"c.wav"_s));
    const auto focus = [](QWidget& window) {
        window.show(), window.activateWindow();
        return ::Test::waitUntil(
            [&] { return QGuiApplication::focusWindow() == window.windowHandle(); }, 2000);
    };
    QWidget other;
    ASSERT_TRUE(focus(other));
    EXPECT_FALSE(inStep());
    ASSERT_TRUE(focus(view()));
    EXPECT_TRUE(inStep());
}

// Zelkor handed a folder would tag it and show it again without end.
TEST(FileViewerFallback, handsAFolderOnlyToAnotherProgram) {
    const auto resolve = [](const QString& program) { // zelkor-link: a link to Zelkor
        return u"/usr/bin/"_s +
               (program == u"zelkor-link"_s ? u"zelkor"_s : QFileInfo(program).fileName());
    };
    const QString self = u"/usr/bin/zelkor"_s,
                  other = u"[Desktop Entry]\nExec=env A=1 B=2 \"/opt/my files/thunar\" %F\n"_s;
    const std::vector<std::tuple<QString, QString, bool>> rows{
        {u"thunar.desktop"_s, other, true},
        {u""_s, other, false},               // no handler
        {u"zelkor.desktop"_s, other, false}, // Zelkor's own entry, whatever it says
        {u"old.desktop"_s, u"[Desktop Entry]\nExec=/opt/zelkor/bin/zelkor %F"_s, false},
        {u"link.desktop"_s, u"[Desktop Entry]\nExec=zelkor-link %F"_s, false},
        {u"action.desktop"_s, u"[Desktop Action new]\nExec=nautilus\n[Desktop Entry]\nName=x"_s,
         false},
    };
    for (const auto& [id, entry, expected] : rows)
        EXPECT_EQ(isOtherProgram(id, entry, self, resolve), expected) << id.toStdString();
}
