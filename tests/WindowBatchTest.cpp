// The window's batch in daily use, through the launched window and the real
// ffmpeg: files handed over while it runs join it, Escape stops it and the
// next drop is tagged, every batch ends with its summary, the desktop hears
// of it over a private session bus, and the log reads back.
#include "app/AppDelegate.h"
#include "app/SingleInstance.h"
#include "base/Names.h"
#include "platform/AppName.h"
#include "style/Palette.h"
#include "support/GuiSupport.h"

#include <QDropEvent>
#include <QKeyEvent>
#include <QMainWindow>
#include <QMimeData>
#include <QProcess>
#include <QWheelEvent>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using namespace Style;

namespace {

// A session bus of this process's own, before anything asks for one, and a
// monitor writing down what passes on it.
struct PrivateBus {
    PrivateBus() {
        daemon.start(u"dbus-daemon"_s, {u"--session"_s, u"--nofork"_s, u"--print-address=1"_s});
        daemon.waitForReadyRead(10'000);
        address = QString::fromUtf8(daemon.readLine()).trimmed();
        qputenv("DBUS_SESSION_BUS_ADDRESS", address.toUtf8());
        monitor.start(u"stdbuf"_s,
                      {u"-oL"_s, u"dbus-monitor"_s, u"--address"_s, address,
                       u"type='signal',interface='com.canonical.Unity.LauncherEntry'"_s,
                       u"type='method_call',interface='org.freedesktop.Notifications'"_s});
        monitor.waitForReadyRead(10'000); // it has become a monitor
        seen = monitor.readAll();
    }
    ~PrivateBus() {
        monitor.kill();
        monitor.waitForFinished();
        daemon.kill();
        daemon.waitForFinished();
    }
    QString heard() {
        monitor.waitForReadyRead(100); // made before the application: no notifier reads it
        return QString::fromUtf8(seen += monitor.readAll());
    }
    QProcess daemon, monitor;
    QString address;
    QByteArray seen;
};

PrivateBus& bus() {
    static PrivateBus bus;
    return bus;
}

class WindowBatch : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        bus();
        ::Test::guiApplication();
    }
    WindowBatch() { delegate.didFinishLaunching(); }

    HUDView& view() { return *delegate.hud(); }
    const std::vector<LogLine>& log() { return view().state().log; }
    QString track(const QString& name, double seconds) {
        const QString path = home.root() + u'/' + name;
        QDir().mkpath(home.root());
        ::Test::makeAudio(path, u"sine=frequency=220"_s, seconds);
        return path;
    }
    bool finished() {
        return ::Test::waitUntil([this] { return !view().state().busy; }, 120'000);
    }
    // What a file manager's drop on the zone delivers.
    void drop(const QStringList& paths) {
        QMimeData data;
        QByteArray list;
        for (const QString& path : paths)
            list += "file://" + Names::encode(path).toPercentEncoding("/") + "\r\n";
        data.setData(u"text/uri-list"_s, list);
        const QPoint at = view().zoneRect().center().toPoint();
        QDragEnterEvent enter(at, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(&view(), &enter);
        QDropEvent drop(at, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(&view(), &drop);
    }

    ::Test::FreshHome home;
    ::Test::RecordingSounds* sounds = new ::Test::RecordingSounds;
    ::Test::RecordingFileViewer* viewer = new ::Test::RecordingFileViewer;
    AppDelegate delegate{{std::unique_ptr<Sounds>(sounds), std::unique_ptr<FileViewer>(viewer),
                          std::make_unique<PreferencesFile>(home.preferencesPath()),
                          std::make_unique<HomeTrash>(home.dataHome() + u"/Trash"_s),
                          std::make_unique<::Test::ScriptedMenus>(),
                          std::make_unique<::Test::ScriptedPanels>()},
                         std::nullopt};
};

} // namespace

// A launch hands its files to the running window in the middle of a batch: they
// are counted at once and tagged in it, once each. While it runs the title and
// the task bar carry the count; it ends with one line summing it up, and, the
// window being elsewhere, a notification.
TEST_F(WindowBatch, aFileHandedOverDuringABatchIsTaggedInIt) {
    SingleInstance running(home.root() + u"/socket"_s);
    ASSERT_EQ(running.claim({}, [this](const QStringList& files) { delegate.open(files); }),
              SingleInstance::Outcome::listening);
    QWidget elsewhere;
    elsewhere.show();
    elsewhere.activateWindow();
    ASSERT_TRUE(::Test::waitUntil([&] { return elsewhere.isActiveWindow(); }, 5000));

    const QString a = track(u"a.wav"_s, 60), c = track(u"c.wav"_s, 2);
    const QString broken = home.root() + u"/b.wav"_s;
    ::Test::writeFile(broken, "not audio");
    delegate.open({a, broken});
    ASSERT_TRUE(view().state().busy);
    SingleInstance later(home.root() + u"/socket"_s);
    EXPECT_EQ(later.claim({c, a}, {}), SingleInstance::Outcome::handedOver);
    EXPECT_TRUE(::Test::waitUntil([&] { return view().state().progress.total == 3; }, 10'000));
    EXPECT_TRUE(delegate.window()->windowTitle().endsWith(u"/03 \u2014 "_s + appName))
        << delegate.window()->windowTitle().toStdString();

    ASSERT_TRUE(finished());
    const LogLine summary{u"BATCH 1: 2 OF 3 TAGGED"_s, u"1 FAILED"_s, errColor};
    EXPECT_EQ(log(), (std::vector<LogLine>{
                         {u"a.wav"_s, u"2 TAGS  OK"_s, purple},
                         {u"b.wav"_s,
                          u"CAN'T READ FILE: INVALID DATA FOUND WHEN PROCESSING INPUT"_s, errColor},
                         {u"c.wav"_s, u"1 TAGS  OK"_s, purple},
                         summary}));
    EXPECT_EQ(view().state().progress, (HUDView::Progress{3, 3}));
    EXPECT_EQ(viewer->shown, (std::vector<QStringList>{{home.root() + u"/a (Tagged).wav"_s,
                                                        home.root() + u"/c (Tagged).wav"_s}}));
    EXPECT_EQ(delegate.window()->windowTitle(), appName);
    EXPECT_TRUE(::Test::waitUntil(
        [&] { return bus().heard().contains(u"string \"BATCH 1: 2 OF 3 TAGGED\""_s); }, 10'000));
    const QString heard = bus().heard();
    EXPECT_TRUE(heard.contains(u"member=Notify"_s));
    EXPECT_TRUE(heard.contains(u"string \"1 FAILED\""_s));
    EXPECT_TRUE(heard.contains(u"member=Update"_s));
    EXPECT_TRUE(heard.contains(u"string \"application://zelkor.desktop\""_s));
    EXPECT_TRUE(heard.contains(u"double 0.666667"_s)) << heard.toStdString();
}

// Escape in the window stops the batch: nothing is written, no track begins,
// the last line says how many were left; the next drop is tagged as usual.
TEST_F(WindowBatch, escapeStopsTheBatchAndTheNextDropIsTagged) {
    const QStringList tracks{track(u"one.wav"_s, 30), track(u"two.wav"_s, 30),
                             track(u"three.wav"_s, 30)};
    delegate.activate();
    ASSERT_TRUE(::Test::waitUntil([&] { return delegate.window()->isActiveWindow(); }, 5000));
    delegate.open(tracks);
    ASSERT_TRUE(view().state().busy);
    QKeyEvent escape(QEvent::KeyPress, Qt::Key_Escape, Qt::NoModifier);
    QCoreApplication::sendEvent(QApplication::focusWidget(), &escape);
    ASSERT_TRUE(finished());

    // The track running when it stopped has its own line.
    ASSERT_FALSE(log().empty());
    long long stopped = 0;
    for (const LogLine& line : log())
        stopped += line.status == u"STOPPED"_s ? 1 : 0;
    EXPECT_EQ(log().back(),
              (LogLine{u"BATCH 1: 0 OF 3 TAGGED"_s, u"STOPPED, %1 LEFT"_s.arg(3 - stopped), dim}));
    EXPECT_EQ(QDir(home.root()).entryList(QDir::Files | QDir::Hidden),
              (QStringList{u"one.wav"_s, u"three.wav"_s, u"two.wav"_s}));
    EXPECT_EQ(sounds->played, QStringList{u"Basso"_s});

    drop({tracks[1]});
    ASSERT_TRUE(finished());
    EXPECT_EQ(log().back(), (LogLine{u"BATCH 2: 1 OF 1 TAGGED"_s, u"DONE"_s, purple}));
    EXPECT_TRUE(QFileInfo::exists(home.root() + u"/two (Tagged).wav"_s));
}

// A failure scrolled out of sight by ten more tracks is brought back by the
// wheel, stays put while lines come, and End shows the newest as before.
TEST(LogReadBack, theWheelAndKeysScrollBackToAFailure) {
    ::Test::guiApplication();
    HUDView view;
    std::vector<LogLine> lines{
        {u"b.wav"_s, u"CAN'T READ FILE: INVALID DATA FOUND WHEN PROCESSING INPUT"_s, errColor}};
    for (int i = 0; i < 10; ++i)
        lines.push_back({u"t%1.wav"_s.arg(i), u"2 TAGS  OK"_s, purple});
    lines.push_back({u"BATCH 1: 10 OF 11 TAGGED"_s, u"1 FAILED"_s, errColor});
    for (const LogLine& line : lines)
        view.appendLog(line);
    // The same view showing the log up to `end`, unscrolled.
    const auto upTo = [&](std::size_t end) {
        HUDView shown;
        HUDView::State state;
        state.log.assign(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(end));
        shown.setState(state);
        return shown.snapshot(1);
    };
    const QImage newest = view.snapshot(1);
    EXPECT_EQ(newest, upTo(lines.size()));

    const auto wheel = [&](int notches) {
        QWheelEvent event(view.zoneRect().center(), view.mapToGlobal(QPointF()), {},
                          {0, notches * 120}, Qt::NoButton, Qt::NoModifier, Qt::NoScrollPhase,
                          false);
        QCoreApplication::sendEvent(&view, &event);
    };
    const auto key = [&](Qt::Key k) {
        QKeyEvent event(QEvent::KeyPress, k, Qt::NoModifier);
        QCoreApplication::sendEvent(&view, &event);
    };
    wheel(20); // no further than the oldest
    EXPECT_EQ(view.snapshot(1), upTo(4));
    view.appendLog({u"late.wav"_s, u"1 TAGS  OK"_s, purple});
    lines.push_back(view.state().log.back());
    EXPECT_EQ(view.snapshot(1), upTo(4));
    wheel(-1);
    key(Qt::Key_Down);
    EXPECT_EQ(view.snapshot(1), upTo(6));
    key(Qt::Key_PageDown);
    key(Qt::Key_Up);
    EXPECT_EQ(view.snapshot(1), upTo(9));
    key(Qt::Key_End);
    EXPECT_EQ(view.snapshot(1), upTo(lines.size()));
    key(Qt::Key_Home);
    key(Qt::Key_PageUp);
    EXPECT_EQ(view.snapshot(1), upTo(4));
}
