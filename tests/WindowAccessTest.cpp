// The launched window in daily use with the real ffmpeg and a private session bus;
// the window for everyone: keys, a screen reader (Qt's, in-process), a small screen.
#include "app/AppDelegate.h"
#include "app/MenuBar.h"
#include "platform/AppName.h"
#include "style/Palette.h"
#include "support/GuiSupport.h"

#include <QAccessible>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QProcess>
#include <QScreen>
#include <QThread>

using namespace Qt::StringLiterals;
using namespace Style;

namespace {

// A session bus of our own before the application asks for one, and a monitor on it.
struct PrivateBus {
    PrivateBus() {
        daemon.start(u"dbus-daemon"_s, {u"--session"_s, u"--nofork"_s, u"--print-address=1"_s});
        daemon.waitForReadyRead(10'000);
        const QString address = QString::fromUtf8(daemon.readLine()).trimmed();
        qputenv("DBUS_SESSION_BUS_ADDRESS", address.toUtf8());
        monitor.start(u"stdbuf"_s, {u"-oL"_s, u"dbus-monitor"_s, u"--address"_s, address});
        monitor.waitForReadyRead(10'000); // it has become a monitor
        ::Test::guiApplication();
    }
    QString heard() {
        monitor.waitForReadyRead(100); // made before the application: no notifier reads it
        return QString::fromUtf8(seen += monitor.readAll());
    }
    QProcess daemon, monitor; // their destructors kill them
    QByteArray seen;
};

PrivateBus& bus() {
    static PrivateBus bus;
    return bus;
}

class WindowBatch : public ::testing::Test {
protected:
    static void SetUpTestSuite() { bus(); }
    WindowBatch() { delegate.didFinishLaunching(); }

    HUDView& view() { return *delegate.hud(); }
    const std::vector<LogLine>& log() { return view().state().log; }
    QString track(const QString& name, double seconds, int rate = 44100) {
        return ::Test::makeAudio(home.root() + u'/' + name, u"sine=frequency=220"_s, seconds, rate);
    }
    bool finished() {
        return ::Test::waitUntil([this] { return !view().state().busy; }, 120'000);
    }

    ::Test::FreshHome home;
    AppDelegate delegate{::Test::appServices(home), std::nullopt};
};

class WindowAccess : public ::Test::ViewFixture {
protected:
    void SetUp() override { tags.setSelected(clip(u"voice.wav"_s)); }
    // `key` after going `back` so many controls.
    void key(int key, int back = 0, Qt::KeyboardModifiers modifiers = Qt::NoModifier) {
        for (int i = 0; i <= back; ++i) {
            QKeyEvent press(QEvent::KeyPress, i < back ? int(Qt::Key_Backtab) : key,
                            i < back ? Qt::ShiftModifier : modifiers);
            QCoreApplication::sendEvent(&view(), &press);
        }
    }
};

} // namespace

// The window being elsewhere, a notification ends a batch and the task bar follows it.
// Escape stops a batch of tracks rendering at once, writing nothing; the next is tagged.
TEST_F(WindowBatch, aNotificationEndsABatchAndEscapeStopsOne) {
    QWidget elsewhere;
    elsewhere.show();
    elsewhere.activateWindow();
    ASSERT_TRUE(::Test::waitUntil([&] { return elsewhere.isActiveWindow(); }, 5000));

    ::Test::writeFile(home.root() + u"/b.wav"_s, "not audio");
    delegate.open({track(u"a.wav"_s, 60), home.root() + u"/b.wav"_s, track(u"c.wav"_s, 2)});
    EXPECT_TRUE(delegate.window()->windowTitle().endsWith(u"/03 \u2014 "_s + appName));
    ASSERT_TRUE(finished());
    for (const QString& part :
         {u"string \"BATCH 1: 2 OF 3 TAGGED\""_s, u"member=Notify"_s, u"string \"1 FAILED\""_s,
          u"member=Update"_s, u"string \"application://zelkor.desktop\""_s, u"double 0.666667"_s})
        EXPECT_TRUE(::Test::waitUntil([&] { return bus().heard().contains(part); }, 10'000));

    const QStringList tracks{track(u"one.wav"_s, 900, 22050), track(u"two.wav"_s, 900, 22050)};
    delegate.activate();
    ASSERT_TRUE(::Test::waitUntil([&] { return delegate.window()->isActiveWindow(); }, 5000));
    delegate.open(tracks);
    const auto rendering = [this] {
        return QDir(home.root()).entryList({u".*.part"_s}, QDir::Files | QDir::Hidden).size();
    };
    const qsizetype atOnce = std::min(QThread::idealThreadCount(), 2);
    ASSERT_TRUE(::Test::waitUntil([&] { return rendering() == atOnce; }, 60'000));
    QKeyEvent escape(QEvent::KeyPress, Qt::Key_Escape, Qt::NoModifier);
    QCoreApplication::sendEvent(QApplication::focusWidget(), &escape);
    ASSERT_TRUE(finished());
    std::vector<LogLine> cut; // the tracks running when it stopped
    for (const QString& name : QStringList{u"one.wav"_s, u"two.wav"_s}.mid(0, atOnce))
        cut.push_back({name, u"STOPPED"_s, errColor});
    EXPECT_EQ(std::vector(log().end() - atOnce - 1, log().end() - 1), cut);
    EXPECT_EQ(log().back(),
              (LogLine{u"BATCH 2: 0 OF 2 TAGGED"_s, u"STOPPED, %1 LEFT"_s.arg(2 - atOnce), dim}));
    EXPECT_EQ(QDir(home.root()).entryList(QDir::Files | QDir::Hidden).filter(u"Tagged"_s),
              (QStringList{u"a (Tagged).wav"_s, u"c (Tagged).wav"_s})); // nothing written

    delegate.open({tracks[1]});
    ASSERT_TRUE(finished() && delegate.window()->windowTitle() == appName);
    EXPECT_EQ(log().back(), (LogLine{u"BATCH 3: 1 OF 1 TAGGED"_s, u"DONE"_s, purple}));
}

// The offscreen screen's size is read once per application: this reruns in a child.
TEST(SmallScreen, theViewIsDrawnSmallerToFitAndClicksFollow) {
    ::Test::FreshHome home;
    const QByteArray config = qgetenv("ZELKOR_SMALL_SCREEN");
    if (config.isEmpty()) {
        const QString file = home.root() + u"/screen.json"_s; // 1366 x 768 at 125 %, a panel
        ::Test::writeFile(file, R"({"screens": [{"name": "small", "x": 0, "y": 0,
                                                 "width": 1093, "height": 590}]})");
        const ::Test::Process child = ::Test::runProgram(
            QFileInfo(u"/proc/self/exe"_s).canonicalFilePath(), {u"--gtest_filter=SmallScreen.*"_s},
            {u"ZELKOR_SMALL_SCREEN="_s + file});
        EXPECT_TRUE(child.status == 0 && child.out.contains(u"[  PASSED  ] 1 test."_s))
            << child.out.toStdString();
        return;
    }
    home.useOwnRuntime();
    QByteArray name("zelkor-test"), option("-platform"), platform("offscreen:configfile=" + config);
    int argc = 3;
    char* argv[] = {name.data(), option.data(), platform.data(), nullptr};
    QApplication app(argc, argv);
    AppDelegate delegate{::Test::appServices(home), std::nullopt};
    delegate.didFinishLaunching();
    HUDView& view = *delegate.hud();
    const QRect available = delegate.window()->screen()->availableGeometry();
    ASSERT_EQ(available.size(), QSize(1093, 590));
    EXPECT_TRUE(available.contains(delegate.window()->frameGeometry()));
    // Picture and regions shrink alike: 30S shows white where drawn, a click on 20S takes.
    const std::vector<QRectF>& intervals = view.layout().controls.intervals.rects;
    const QPointF inside = (intervals[1].topLeft() + QPointF(3, 3)) * view.scale();
    EXPECT_TRUE(::Test::near(view.grab().toImage().pixelColor(inside.toPoint()), white));
    ::Test::click(view, intervals[0].center() * view.scale());
    PreferencesFile preferences(home.preferencesPath());
    EXPECT_EQ(Settings(preferences).intervalIndex(), 0);
}

// A failure ten tracks back: the wheel brings it, it stays put, End shows the newest.
TEST(LogReadBack, theWheelAndKeysScrollBackToAFailure) {
    ::Test::guiApplication();
    HUDView view;
    view.appendLog({u"b.wav"_s, u"CAN'T READ FILE"_s, errColor});
    for (int i = 0; i < 10; ++i)
        view.appendLog({u"t%1.wav"_s.arg(i), u"2 TAGS  OK"_s, purple});
    view.appendLog({u"BATCH 1: 10 OF 11 TAGGED"_s, u"1 FAILED"_s, errColor});
    const std::vector<LogLine>& lines = view.state().log;
    const auto upTo = [&](std::size_t end) { // the same log up to `end`, unscrolled
        HUDView shown;
        shown.setState(
            {.progress = {}, .log = {lines.begin(), lines.begin() + std::ptrdiff_t(end)}});
        return shown.snapshot(1);
    };
    const auto scroll = [&](int notches, std::vector<Qt::Key> keys, std::size_t end) {
        QWheelEvent wheel(view.zoneRect().center(), view.mapToGlobal(QPointF()), {},
                          {0, notches * 120}, Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase,
                          false);
        QCoreApplication::sendEvent(&view, &wheel);
        for (Qt::Key k : keys) {
            QKeyEvent event(QEvent::KeyPress, k, Qt::NoModifier);
            QCoreApplication::sendEvent(&view, &event);
        }
        EXPECT_EQ(view.snapshot(1), upTo(end)) << end;
    };
    scroll(20, {}, 4); // no further than the oldest
    view.appendLog({u"late.wav"_s, u"1 TAGS  OK"_s, purple});
    scroll(0, {}, 4);
    scroll(-1, {Qt::Key_Down}, 6);
    scroll(0, {Qt::Key_End}, lines.size());
}

// One mnemonic each, none twice a menu, a clip's "&" shown; clips of one name told apart.
TEST_F(WindowAccess, menusHaveMnemonicsAndClipsOfOneNameTheirExtensions) {
    EXPECT_EQ(menuText(u"R&B"_s, 0), u"&R&&B"_s);
    QString seen;
    const auto letters = [&seen](const QList<QAction*>& entries, bool clips = false) {
        seen.clear();
        for (QAction* entry : entries) {
            const QString text = entry->text().replace(u"&&"_s, u""_s);
            if (!entry->isSeparator() && !(clips && entry->isCheckable()))
                seen += text.indexOf(u'&') < 0 ? u'&' : text.at(text.indexOf(u'&') + 1).toLower();
        }
        return QSet<QChar>(seen.begin(), seen.end()).size() == seen.size() && !seen.contains(u'&');
    };
    QMainWindow window;
    installMenuBar(window, controller());
    for (QAction* menu : window.menuBar()->actions())
        EXPECT_TRUE(letters(menu->menu()->actions())) << seen.toStdString();
    EXPECT_TRUE(letters(window.menuBar()->actions()));
    choose();
    EXPECT_TRUE(letters(buildMenu(menus.shown.back())->actions(), true));
    EXPECT_EQ(seen.size(), 3); // Add, Remove, Show
    clip(u"voice.mp3"_s);
    clip(u"other.wav"_s);
    controller().refreshTag();
    EXPECT_EQ(view().content().tagName, u"VOICE.WAV"_s);
    std::vector<std::string> titles = choose(u"Remove \u201Cvoice.wav\u201D"_s);
    std::erase_if(
        titles, [](const std::string& title) { return title.find("voice") == std::string::npos; });
    EXPECT_EQ(titles, (std::vector<std::string>{"voice.mp3", "* voice.wav", "Remove “voice.wav”"}));
    EXPECT_EQ(view().state().log.back().text, u"TAG REMOVED: VOICE.WAV"_s);
    tags.setSelected(Tags::dir() + u"/voice.mp3"_s); // the one left of the name is plain again
    controller().refreshTag();
    EXPECT_EQ(view().content().tagName, u"VOICE"_s);
}

// Tab rings each control, Space, Return and Ctrl+O click; a screen reader hears the focus.
TEST_F(WindowAccess, keysAndAScreenReaderReachEveryControl) {
    view().show();
    view().activateWindow();
    ASSERT_TRUE(::Test::waitUntil([this] { return view().hasFocus(); }, 2000));
    QAccessibleInterface* root = QAccessible::queryAccessibleInterface(&view());
    QAccessibleInterface *high = root->child(5)->child(2), *progress = root->child(3);

    const std::vector<QRectF> controls = HUDLayout::focusOrder(view().layout());
    ASSERT_EQ(controls.size(), 10u); // tag field, + ADD TAG, zone, 4 intervals, 3 levels
    for (std::size_t i = 0; i <= controls.size(); ++i) {
        key(Qt::Key_Tab);
        ASSERT_EQ(view().focused(), static_cast<int>(i % controls.size())); // round again
        if (i == controls.size())
            break;
        const QImage ringed = view().snapshot(1);
        const QRect area = controls[i].toAlignedRect();
        EXPECT_TRUE(::Test::near(ringed.pixelColor(area.left() + 1, area.center().y()), purple, 0))
            << i;
        EXPECT_EQ(root->focusChild() == high, i == 9);
    }
    key(Qt::Key_Return, 1); // HIGH
    EXPECT_TRUE(settings.levelIndex() == 2 && high->state().checked);
    key(Qt::Key_Space, 6); // 20S
    EXPECT_EQ(settings.intervalIndex(), 0);
    key(Qt::Key_Enter, 1, Qt::KeypadModifier); // the zone
    key(Qt::Key_O, 0, Qt::ControlModifier);
    EXPECT_EQ(panels.trackPanels, 2);
    key(Qt::Key_Space, 1); // + ADD TAG
    key(Qt::Key_Space, 1); // the tag field
    EXPECT_TRUE(panels.tagPanels == 1 && menus.shown.size() == 1);
    ::Test::click(view(), QPointF(2, 2)); // a click puts the ring away
    EXPECT_FALSE(view().focused());
    // While a batch runs, its progress shows.
    view().setState({.busy = true, .progress = {}, .log = {}});
    view().setProgress(2, 5);
    EXPECT_FALSE(progress->state().invisible);
    EXPECT_EQ(progress->text(QAccessible::Value), u"02/05"_s);
    EXPECT_TRUE(high->state().disabled);
}

// Thunar opens a window per item of a call: one call per folder, its first file.
TEST(FileViewerWindows, oneWindowPerFolderWithItsFirstFile) {
    EXPECT_EQ(windowsFor({u"/a/1"_s, u"/a/2"_s, u"/b/1"_s, u"/a/3"_s, u"/a/c/1"_s, u"/top"_s}),
              (QStringList{u"/a/1"_s, u"/b/1"_s, u"/a/c/1"_s, u"/top"_s}));
}
