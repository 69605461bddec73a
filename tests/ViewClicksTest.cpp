// Clicks on the main view through real mouse events: the regions the drawing
// left behind, the drop zone's two choosers, and a busy view that ignores them.
#include "model/Settings.h"
#include "model/Tags.h"
#include "support/FreshHome.h"
#include "support/GuiSupport.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

using ::Test::click;
using ::Test::repaints;

class ViewClicks : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ::Test::guiApplication(); }

    // Draws once, so that the regions exist.
    std::vector<HUDView::Hit> drawn() {
        view.snapshot(1);
        return view.hits();
    }

    ::Test::FreshHome home;
    ::Test::FakeDesktop desktop;
    HUDView view{desktop.services()};
};

TEST_F(ViewClicks, aSegmentsRightEdgeBelongsToTheNextOneAndEachClickRedrawsOnce) {
    Settings::setIntervalIndex(0);
    Settings::setLevelIndex(0);
    const QRectF twenty = drawn()[2].rect;
    EXPECT_EQ(repaints(view, [&] { click(view, {twenty.right(), twenty.center().y()}); }), 1);
    EXPECT_EQ(Settings::intervalIndex(), 1);

    // The last segment's right edge is nobody's, and the header answers nothing.
    const QRectF high = drawn()[8].rect;
    EXPECT_EQ(repaints(view, [&] { click(view, {high.right(), high.center().y()}); }), 0);
    EXPECT_EQ(repaints(view, [&] { click(view, {300, 20}); }), 0);
    EXPECT_EQ(Settings::levelIndex(), 0);
}

TEST_F(ViewClicks, whereRegionsOverlapTheOneDrawnFirstWins) {
    view.resize(400, 640); // too narrow: the level segments slide over the interval ones
    Settings::setIntervalIndex(0);
    Settings::setLevelIndex(1);
    const std::vector<HUDView::Hit> hits = drawn();
    for (int i = 2; i < 6; ++i)
        for (int j = 6; j < 9; ++j)
            if (const QRectF both = hits[i].rect & hits[j].rect; !both.isEmpty()) {
                click(view, both.center());
                EXPECT_EQ(Settings::intervalIndex(), i - 2);
                EXPECT_EQ(Settings::levelIndex(), 1);
                return;
            }
    FAIL() << "no regions overlap";
}

TEST_F(ViewClicks, theDropZoneAsksForATagFirstThenForTracks) {
    const QPointF zone = view.zoneRect().center();
    desktop.panels.tag = home.root() + QStringLiteral("/voice.wav");
    ::Test::writeFile(*desktop.panels.tag, "RIFF");
    click(view, zone);
    EXPECT_EQ(desktop.panels.tagPanels, 1);
    ASSERT_TRUE(Tags::selected());

    click(view, zone); // cancelled: nothing starts
    EXPECT_FALSE(view.state().busy);
    const QString folder = home.root() + QStringLiteral("/beats");
    QDir().mkpath(folder);
    ::Test::writeFile(folder + QStringLiteral("/beat.wav"), "RIFF");
    desktop.panels.tracks = QStringList{folder};
    click(view, zone);
    EXPECT_EQ(desktop.panels.tagPanels, 1);
    EXPECT_EQ(desktop.panels.trackPanels, 2);
    EXPECT_EQ(view.state().progress, (HUDView::Progress{0, 1})); // a batch over the folder
    EXPECT_TRUE(::Test::waitUntil([this] { return !view.state().busy; }, 60'000));
}

TEST_F(ViewClicks, aBusyViewIgnoresClicksEvenOnRegionsDrawnBeforeTheBatch) {
    Settings::setIntervalIndex(0);
    const std::vector<HUDView::Hit> hits = drawn();
    HUDView::State busy;
    busy.busy = true;
    view.setState(busy); // not drawn again yet: the old regions remain
    ASSERT_FALSE(view.hits().empty());
    for (const QPointF at :
         {hits[0].rect.center(), hits[3].rect.center(), view.zoneRect().center()})
        click(view, at);
    EXPECT_EQ(Settings::intervalIndex(), 0);
    EXPECT_TRUE(desktop.menus.shown.empty());
    EXPECT_EQ(desktop.panels.tagPanels + desktop.panels.trackPanels, 0);
}
