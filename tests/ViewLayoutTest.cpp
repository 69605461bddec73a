// The main view's geometry without a window: the numbers the drawing and the
// hit-testing share, where they are derived rather than given.
#include "view/HUDLayout.h"

#include <gtest/gtest.h>
#include <limits>

using namespace HUDLayout;

namespace {

constexpr QSizeF kNominal{600, 640};

Measures measures(std::optional<QSizeF> logo = std::nullopt) {
    return {.logo = logo, .titleWidth = 90, .addTagWidth = 110, .levelControlWidth = 160};
}

} // namespace

TEST(ViewLayout, sharedRectanglesAtTheNominalSize) {
    EXPECT_EQ(tagRowRect(600), QRectF(16, 94, 568, 30));
    EXPECT_EQ(zoneRect(600), QRectF(16, 140, 568, 300));
}

TEST(ViewLayout, headerFollowsTheLogoAndCentresThePlateOn40) {
    const Header wide = layout(kNominal, measures(QSizeF(192, 96))).header;
    EXPECT_EQ(*wide.logo, QRectF(16, 16, 96, 48));
    EXPECT_DOUBLE_EQ(wide.titleX, 124);
    EXPECT_DOUBLE_EQ(wide.subtitleX, 124 + 90 + 12);

    const Header h = layout(kNominal, measures()).header;
    EXPECT_DOUBLE_EQ(h.titleX, 76);
    EXPECT_NEAR(h.plate.top(), 18.853, 1e-3);
    EXPECT_NEAR(h.plate.height(), 42.293, 1e-3);
    EXPECT_DOUBLE_EQ(h.plate.left(), 334);
    EXPECT_NEAR(h.plateLine, 32.81, 1e-2);
    EXPECT_DOUBLE_EQ(h.everyRight, 442.5);
    EXPECT_DOUBLE_EQ(h.levelLeft, 464.75);
}

TEST(ViewLayout, dotGridRunsColumnByColumnInsideTheZone) {
    const std::vector<QPointF> dots = dotGrid(zoneRect(600));
    ASSERT_EQ(dots.size(), 34u * 18u);
    EXPECT_EQ(dots.front(), QPointF(32, 156));
    EXPECT_EQ(dots[17], QPointF(32, 428));
    EXPECT_EQ(dots.back(), QPointF(560, 428));
}

TEST(ViewLayout, progressBarCellsAndHowManyAreLit) {
    const QPointF centre(300, 290);
    EXPECT_NEAR(progressCell(centre, 0).left(), 165, 1e-9);
    EXPECT_NEAR(progressCell(centre, 29).right(), 435, 1e-9);
    EXPECT_EQ(filledCells(3, 12), 7); // 7.5 truncated
    EXPECT_EQ(filledCells(0, 0), 0);
    EXPECT_EQ(filledCells(5, 0), 0);
    EXPECT_EQ(filledCells(40, 12), 30);
    EXPECT_EQ(filledCells(std::numeric_limits<long long>::max(), 1), 30);
}
