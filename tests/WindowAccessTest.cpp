// The window for everyone: the keyboard's way round the drawn controls, what a
// screen reader is told of them (Qt's accessibility in-process: the offscreen
// platform has no AT-SPI bridge), menus with mnemonics, clips that share a
// name, a small screen, and the file viewer's windows.
#include "app/AppDelegate.h"
#include "app/MenuBar.h"
#include "style/Palette.h"
#include "support/GuiSupport.h"

#include <QAccessible>
#include <QKeyEvent>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QPainter>
#include <QScreen>

using namespace Qt::StringLiterals;

namespace {

void key(QWidget& widget, int key, Qt::KeyboardModifiers modifiers = Qt::NoModifier) {
    QKeyEvent press(QEvent::KeyPress, key, modifiers);
    QCoreApplication::sendEvent(&widget, &press);
}

class WindowAccess : public ::Test::ViewFixture {
protected:
    void SetUp() override { tags.setSelected(clip(u"voice.wav"_s)); }
    QImage idle() { return view().snapshot(1); }
};

using Keys = WindowAccess;
using ScreenReader = WindowAccess;

} // namespace

TEST_F(Keys, tabShowsARingOnEveryControlInTurnAndSpaceReturnAndCtrlOClick) {
    const QImage before = idle();
    const std::vector<QRectF> controls = HUDLayout::focusOrder(view().layout());
    ASSERT_EQ(controls.size(), 10u); // tag field, + ADD TAG, zone, 4 intervals, 3 levels
    for (std::size_t i = 0; i < controls.size(); ++i) {
        key(view(), Qt::Key_Tab);
        ASSERT_EQ(view().focused(), static_cast<int>(i));
        const QImage ringed = idle();
        const QPoint edge(static_cast<int>(std::floor(controls[i].left())) + 1,
                          static_cast<int>(controls[i].center().y()));
        EXPECT_TRUE(::Test::near(ringed.pixelColor(edge), Style::purple, 0)) << i;
        // Only inside the control does anything change.
        QImage outside = ringed;
        const QRect area = controls[i].toAlignedRect();
        QPainter(&outside).drawImage(area.topLeft(), before.copy(area));
        EXPECT_EQ(outside, before) << i;
    }
    key(view(), Qt::Key_Tab);
    EXPECT_EQ(view().focused(), 0); // round again
    key(view(), Qt::Key_Backtab, Qt::ShiftModifier);
    EXPECT_EQ(view().focused(), 9);

    key(view(), Qt::Key_Return); // HIGH
    EXPECT_EQ(settings.levelIndex(), 2);
    for (int i = 0; i < 6; ++i)
        key(view(), Qt::Key_Backtab, Qt::ShiftModifier);
    key(view(), Qt::Key_Space); // 20S
    EXPECT_EQ(settings.intervalIndex(), 0);
    key(view(), Qt::Key_Backtab, Qt::ShiftModifier);
    key(view(), Qt::Key_Enter, Qt::KeypadModifier); // the zone
    key(view(), Qt::Key_O, Qt::ControlModifier);
    EXPECT_EQ(panels.trackPanels, 2);
    key(view(), Qt::Key_Backtab, Qt::ShiftModifier);
    key(view(), Qt::Key_Space); // + ADD TAG
    key(view(), Qt::Key_Backtab, Qt::ShiftModifier);
    key(view(), Qt::Key_Space); // the tag field
    EXPECT_TRUE(panels.tagPanels == 1 && menus.shown.size() == 1);

    // A click puts the ring away: the idle picture again.
    ::Test::click(view(), QPointF(2, 2));
    EXPECT_FALSE(view().focused());
    HUDView::State state = view().state();
    state.blink = true;
    view().setState(state);
    EXPECT_TRUE(current(view().layout().bounds));
}

// Mnemonics: one letter each, none twice in a menu; a clip's "&" is shown as one.
TEST_F(Keys, everyMenuEntryHasItsOwnMnemonic) {
    EXPECT_EQ(menuText(u"R&B"_s, 0), u"&R&&B"_s);
    const auto letters = [](const QStringList& texts) {
        QString seen;
        for (const QString& text : texts) {
            const qsizetype at = QString(text).replace(u"&&"_s, u""_s).indexOf(u'&');
            EXPECT_GE(at, 0) << text.toStdString();
            if (at >= 0 && at + 1 < text.size())
                seen += text[at + 1].toLower();
        }
        return QSet<QChar>(seen.begin(), seen.end()).size() == seen.size();
    };
    QMainWindow window;
    installMenuBar(window, controller());
    QStringList bar;
    for (QAction* menu : window.menuBar()->actions()) {
        bar << menu->text();
        QStringList entries;
        for (QAction* entry : menu->menu()->actions())
            if (!entry->isSeparator())
                entries << entry->text();
        EXPECT_TRUE(letters(entries)) << entries.join(u", "_s).toStdString();
    }
    EXPECT_TRUE(letters(bar));

    idle();
    ::Test::click(view(), view().hits().at(0).rect.center());
    QStringList tagMenu;
    const std::unique_ptr<QMenu> built = buildMenu(menus.shown.at(0));
    for (QAction* entry : built->actions())
        if (!entry->isSeparator() && !entry->isCheckable())
            tagMenu << entry->text();
    EXPECT_EQ(tagMenu.size(), 3); // Add, Remove, Show
    EXPECT_TRUE(letters(tagMenu));
}

TEST_F(ScreenReader, namesEveryControlWithItsStateAndTheLogAsAList) {
    view().appendLog({u"beat.wav"_s, u"3 TAGS  OK"_s, Style::purple});
    view().show();
    view().activateWindow();
    ASSERT_TRUE(::Test::waitUntil([this] { return view().hasFocus(); }, 2000));
    QAccessibleInterface* root = QAccessible::queryAccessibleInterface(&view());
    ASSERT_TRUE(root);
    // Role, name, value, and the names of its children ("*" checked).
    const auto describe = [](QAccessibleInterface* node) {
        QStringList children;
        for (int i = 0; i < node->childCount(); ++i)
            children << (node->child(i)->state().checked ? u"*"_s : u""_s) +
                            node->child(i)->text(QAccessible::Name);
        return QStringList{QString::number(node->role()), node->text(QAccessible::Name),
                           node->text(QAccessible::Value), children.join(u'|')}
            .join(u" / "_s);
    };
    const QStringList expected{
        u"%1 / TAG / VOICE / "_s.arg(QAccessible::ButtonMenu),
        u"%1 / + ADD TAG /  / "_s.arg(QAccessible::PushButton),
        u"%1 / DROP /  / "_s.arg(QAccessible::PushButton),
        u"%1 / PROCESSING / 00/00 / "_s.arg(QAccessible::ProgressBar),
        u"%1 / INTERVAL /  / 20S|*30S|45S|60S"_s.arg(QAccessible::Grouping),
        u"%1 / LEVEL /  / LOW|*MID|HIGH"_s.arg(QAccessible::Grouping),
        u"%1 / LOG /  / beat.wav, 3 TAGS  OK"_s.arg(QAccessible::List),
    };
    QStringList seen;
    for (int i = 0; i < root->childCount(); ++i) {
        seen << describe(root->child(i));
        EXPECT_EQ(root->child(i)->parent(), root);
        EXPECT_EQ(root->indexOfChild(root->child(i)), i);
    }
    EXPECT_EQ(seen, expected);
    EXPECT_TRUE(root->child(3)->state().invisible); // no batch: no progress shown

    // Where it is drawn, and the keyboard's control is the focused one.
    QAccessibleInterface* high = root->child(5)->child(2);
    EXPECT_EQ(high->rect(), view().layout().controls.levels.rects[2].toAlignedRect().translated(
                                view().mapToGlobal(QPoint(0, 0))));
    EXPECT_EQ(root->childAt(high->rect().center().x(), high->rect().center().y()), root->child(5));
    for (int i = 0; i < 10; ++i)
        key(view(), Qt::Key_Tab);
    EXPECT_EQ(root->focusChild(), high);
    idle();
    EXPECT_TRUE(high->state().focused && high->state().focusable);
    // Its action clicks it.
    high->actionInterface()->doAction(QAccessibleActionInterface::pressAction());
    EXPECT_EQ(settings.levelIndex(), 2);
    EXPECT_TRUE(high->state().checked);

    HUDView::State busy = view().state();
    busy.busy = true;
    view().setState(busy);
    QAccessibleInterface* progress = root->child(3);
    view().setProgress(2, 5);
    EXPECT_FALSE(progress->state().invisible);
    EXPECT_EQ(progress->text(QAccessible::Value), u"02/05"_s);
    EXPECT_EQ(progress->valueInterface()->currentValue(), 2);
    EXPECT_EQ(progress->valueInterface()->maximumValue(), 5);
    EXPECT_TRUE(high->state().disabled);
}

// Two clips of one name: the menu, the row, Remove and its line show which.
TEST_F(WindowAccess, clipsOfOneNameShowTheirExtensions) {
    clip(u"voice.mp3"_s);
    clip(u"other.wav"_s);
    EXPECT_EQ(view().content().tagName, u"VOICE.WAV"_s);
    menus.choose = u"Remove \u201Cvoice.wav\u201D"_s;
    idle();
    ::Test::click(view(), view().hits().at(0).rect.center());
    QStringList titles;
    for (const MenuItem& item : menus.shown.at(0))
        if (!item.separator)
            titles << item.title;
    EXPECT_EQ(titles, (QStringList{u"other"_s, u"voice.mp3"_s, u"voice.wav"_s, u"Add Tag\u2026"_s,
                                   u"Remove \u201Cvoice.wav\u201D"_s, u"Show Tags Folder"_s}));
    EXPECT_EQ(view().state().log.back().text, u"TAG REMOVED: VOICE.WAV"_s);
    // The one left of the name is plain again.
    tags.setSelected(Tags::dir() + u"/voice.mp3"_s);
    controller().refreshTag();
    EXPECT_EQ(view().content().tagName, u"VOICE"_s);
}

// Thunar opens a window per item of a call: one call per folder, its first file.
TEST(FileViewerWindows, oneWindowPerFolderWithItsFirstFile) {
    EXPECT_EQ(windowsFor({u"/a/1.wav"_s, u"/a/2.wav"_s, u"/b/1.wav"_s, u"/a/3.wav"_s,
                          u"/a/c/1.wav"_s, u"/top.wav"_s}),
              (QStringList{u"/a/1.wav"_s, u"/b/1.wav"_s, u"/a/c/1.wav"_s, u"/top.wav"_s}));
    EXPECT_EQ(windowsFor({}), QStringList());
}

// The offscreen platform's screen is what its configuration file says, read
// once per application: the check runs again in a process of its own.
TEST(SmallScreen, theViewIsDrawnSmallerToFitAndClicksFollow) {
    const QByteArray config = qgetenv("ZELKOR_SMALL_SCREEN");
    if (config.isEmpty()) {
        ::Test::FreshHome home;
        const QString file = home.root() + u"/screen.json"_s;
        // 1366 x 768 at 125 %, less a panel.
        ::Test::writeFile(file, R"({"screens": [{"name": "small", "x": 0, "y": 0,
                                                 "width": 1093, "height": 590}]})");
        const ::Test::Process child = ::Test::runProgram(
            QFileInfo(u"/proc/self/exe"_s).canonicalFilePath(), {u"--gtest_filter=SmallScreen.*"_s},
            {u"ZELKOR_SMALL_SCREEN="_s + file});
        EXPECT_EQ(child.status, 0) << child.out.toStdString();
        EXPECT_TRUE(child.out.contains(u"[  PASSED  ] 1 test."_s)) << child.out.toStdString();
        return;
    }
    ::Test::FreshHome home;
    home.useOwnRuntime();
    QByteArray name("zelkor-test"), option("-platform"), platform("offscreen:configfile=" + config);
    int argc = 3;
    char* argv[] = {name.data(), option.data(), platform.data(), nullptr};
    QApplication app(argc, argv);
    auto scripted = std::make_unique<::Test::ScriptedMenus>();
    const ::Test::ScriptedMenus& menus = *scripted;
    AppDelegate delegate{{std::make_unique<::Test::RecordingSounds>(),
                          std::make_unique<::Test::RecordingFileViewer>(),
                          std::make_unique<PreferencesFile>(home.preferencesPath()),
                          std::make_unique<HomeTrash>(home.dataHome() + u"/Trash"_s),
                          std::move(scripted), std::make_unique<::Test::ScriptedPanels>()},
                         std::nullopt};
    delegate.didFinishLaunching();
    const QRect available = delegate.window()->screen()->availableGeometry();
    ASSERT_EQ(available.size(), QSize(1093, 590));
    HUDView& view = *delegate.hud();
    EXPECT_LT(view.scale(), 1);
    EXPECT_TRUE(available.contains(delegate.window()->frameGeometry()));
    EXPECT_EQ(view.size(), (QSizeF(HUDView::kSize) * view.scale()).toSize());
    EXPECT_EQ(view.snapshot(1).size(), HUDView::kSize); // a snapshot stays whole

    // The picture and the regions shrink alike: the selected 30S is white
    // where it is drawn, and a click on 20S there chooses it.
    const std::vector<QRectF>& intervals = view.layout().controls.intervals.rects;
    const QPointF inside = (intervals[1].topLeft() + QPointF(3, 3)) * view.scale();
    EXPECT_TRUE(::Test::near(view.grab().toImage().pixelColor(inside.toPoint()), Style::white));
    ::Test::click(view, intervals[0].center() * view.scale());
    PreferencesFile preferences(home.preferencesPath());
    EXPECT_EQ(Settings(preferences).intervalIndex(), 0);
    // The tag menu shows under the field as drawn.
    const QRectF field = view.layout().tagRow.field;
    ::Test::click(view, field.center() * view.scale());
    ASSERT_EQ(menus.where.size(), 1u);
    EXPECT_EQ(menus.where[0], QPointF(field.left(), field.bottom()) * view.scale() + QPointF(0, 4));
}
