// What the window's tests share: one offscreen application per process in private
// folders, recording stand-ins for the desktop services, and pixels.
#pragma once

#include "app/AppDelegate.h"
#include "app/WindowController.h"
#include "model/Settings.h"
#include "model/Tags.h"
#include "platform/FileViewer.h"
#include "platform/Menus.h"
#include "platform/OpenPanels.h"
#include "platform/Preferences.h"
#include "platform/Sounds.h"
#include "platform/Trash.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"
#include "view/HUDView.h"

#include <QApplication>
#include <QDir>
#include <QFileInfo>
#include <QMouseEvent>
#include <gtest/gtest.h>
#include <memory>

namespace Test {

// Before the application exists, every folder it may write to is this process's own.
inline QApplication& guiApplication() {
    static FreshHome home;
    static QApplication* app = [] {
        home.useOwnRuntime();
        static int argc = 1;
        static char name[] = "zelkor-test";
        static char* argv[] = {name, nullptr};
        return new QApplication(argc, argv);
    }();
    return *app;
}

struct RecordingSounds final : Sounds {
    void play(const QString& name) override { played << name; }
    QStringList played;
};

struct RecordingFileViewer final : FileViewer {
    void show(const QStringList& paths) override { shown.push_back(paths); }
    std::vector<QStringList> shown;
};

// Records every menu and where it shows, and chooses the item titled `choose`.
struct ScriptedMenus final : Menus {
    std::optional<int> popUp(const std::vector<MenuItem>& items, QWidget&, QPointF at) override {
        shown.push_back(items);
        where.push_back(at);
        for (std::size_t i = 0; i < items.size(); ++i)
            if (!items[i].separator && items[i].title == choose)
                return static_cast<int>(i);
        return std::nullopt;
    }
    QString choose; // empty: the menu is dismissed
    std::vector<std::vector<MenuItem>> shown;
    std::vector<QPointF> where;
};

// Counts the panels it opens and answers with what the test set.
struct ScriptedPanels final : OpenPanels {
    std::optional<QString> chooseTag(QWidget&, const QString&) override { return ++tagPanels, tag; }
    std::optional<QStringList> chooseTracks(QWidget&) override { return ++trackPanels, tracks; }
    std::optional<QString> tag;
    std::optional<QStringList> tracks;
    int tagPanels = 0, trackPanels = 0;
};

// A press of the primary button at `at`, delivered like a real one.
inline void click(QWidget& widget, QPointF at) {
    QMouseEvent press(QEvent::MouseButtonPress, at, widget.mapToGlobal(at), Qt::LeftButton,
                      Qt::LeftButton, Qt::NoModifier);
    QCoreApplication::sendEvent(&widget, &press);
}

// A translucent colour as it shows over an opaque background.
inline QColor over(const QColor& top, const QColor& below) {
    const double a = top.alphaF();
    auto mix = [a](double t, double b) { return qRound((t * a + b * (1 - a)) * 255); };
    return QColor(mix(top.redF(), below.redF()), mix(top.greenF(), below.greenF()),
                  mix(top.blueF(), below.blueF()));
}

// Whether every channel is within `tolerance` of the expected colour.
inline bool near(const QColor& seen, const QColor& expected, int tolerance = 3) {
    const auto d = [](int a, int b) { return std::abs(a - b); };
    return std::max({d(seen.red(), expected.red()), d(seen.green(), expected.green()),
                     d(seen.blue(), expected.blue())}) <= tolerance;
}

// A launched window's services: recording stand-ins, the files in `home`.
inline AppDelegate::Services appServices(const FreshHome& home) {
    return {std::make_unique<RecordingSounds>(),
            std::make_unique<RecordingFileViewer>(),
            std::make_unique<PreferencesFile>(home.preferencesPath()),
            std::make_unique<HomeTrash>(home.dataHome() + QStringLiteral("/Trash")),
            std::make_unique<ScriptedMenus>(),
            std::make_unique<ScriptedPanels>()};
}

// A view and its controller over recording services in a fresh home, made on
// first use: after the test has added its tags, which the controller reads.
class ViewFixture : public testing::Test {
protected:
    static void SetUpTestSuite() { guiApplication(); }
    WindowController::Services services() {
        return {sounds, viewer, preferences, trash, menus, panels};
    }
    HUDView& view() {
        if (!m_view) {
            m_view = std::make_unique<HUDView>();
            m_controller = std::make_unique<WindowController>(*m_view, services());
        }
        return *m_view;
    }
    WindowController& controller() { return view(), *m_controller; }
    // The window gone: a running batch stopped and joined.
    void close() {
        m_controller.reset();
        m_view.reset();
    }
    // A file of `bytes` at `name` under the home's scratch folder, its folders made.
    QString file(const QString& name, const QByteArray& bytes = "x") {
        return writeFile(home.root() + QLatin1Char('/') + name, bytes);
    }
    // A clip in the tag library.
    QString clip(const QString& name) {
        return writeFile(Tags::dir() + QLatin1Char('/') + name, "RIFF");
    }
    // Picks `item` in the tag field's menu; returns the menu, "* " checked, "--" a separator.
    std::vector<std::string> choose(const QString& item = {}) {
        view().snapshot(1); // the regions drawn
        const QRectF field = view().hits().at(0).rect;
        menus.choose = item;
        click(view(), field.center());
        EXPECT_EQ(menus.where.back(), QPointF(field.left(), field.bottom() + 4));
        std::vector<std::string> titles;
        for (const MenuItem& entry : menus.shown.back())
            titles.push_back(
                entry.separator ? "--" : (entry.checked ? "* " : "") + entry.title.toStdString());
        return titles;
    }
    // `area` as the view draws it now.
    QImage shown(const QRectF& area) { return view().snapshot(1).copy(area.toAlignedRect()); }
    // Whether `area` shows the library as it is, as a view made now would.
    bool current(const QRectF& area) {
        HUDView fresh;
        const WindowController told(fresh, services());
        return shown(area) == fresh.snapshot(1).copy(area.toAlignedRect());
    }

    FreshHome home;
    PreferencesFile preferences{home.preferencesPath()};
    HomeTrash trash{home.dataHome() + QStringLiteral("/Trash")};
    Settings settings{preferences};
    Tags tags{preferences, trash};
    RecordingSounds sounds;
    RecordingFileViewer viewer;
    ScriptedMenus menus;
    ScriptedPanels panels;
    std::unique_ptr<HUDView> m_view;
    std::unique_ptr<WindowController> m_controller; // goes first, its batch joined
};

} // namespace Test

inline bool operator==(const LogLine& a, const LogLine& b) {
    return a.text == b.text && a.status == b.status && a.color == b.color;
}

// Readable colours and log lines in test failures.
inline void PrintTo(const QColor& color, std::ostream* out) {
    *out << "rgb(" << color.red() << ", " << color.green() << ", " << color.blue() << ")";
}
inline void PrintTo(const LogLine& line, std::ostream* out) {
    *out << line.text.toStdString() << "  " << line.status.toStdString() << " ";
    PrintTo(line.color, out);
}
