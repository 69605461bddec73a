// The main view drawn offscreen at device pixel ratio 1, checked pixel by pixel
// in each of its states; the layout numbers it derives; and the text helpers.
#include "model/Settings.h"
#include "style/Fonts.h"
#include "style/Palette.h"
#include "support/GuiSupport.h"
#include "view/Drawing.h"
#include "view/HUDLayout.h"

#include <QTextBoundaryFinder>
#include <gtest/gtest.h>
#include <limits>

using namespace Style;
using Drawing::withAlpha;
using ::Test::near;
using ::Test::over;

namespace {

struct Extent {
    int left = -1, right = -1, top = -1, bottom = -1;
    bool found() const { return left >= 0; }
    double middleY() const { return (top + bottom + 1) / 2.0; }
};

// Where the pixels that `counts` lie inside a box.
Extent extent(const QImage& image, const QRect& box, const std::function<bool(QColor)>& counts) {
    Extent e;
    for (int y = box.top(); y <= box.bottom(); ++y)
        for (int x = box.left(); x <= box.right(); ++x)
            if (counts(image.pixelColor(x, y)))
                e = e.found() ? Extent{std::min(e.left, x), std::max(e.right, x),
                                       std::min(e.top, y), std::max(e.bottom, y)}
                              : Extent{x, x, y, y};
    return e;
}

// Pixels brighter than the background.
Extent lit(const QImage& image, const QRect& box, int threshold = 40) {
    return extent(image, box, [threshold](QColor c) {
        return std::max({c.red(), c.green(), c.blue()}) >= threshold;
    });
}

bool hasColour(const QImage& image, const QRect& box, const QColor& colour) {
    return extent(image, box, [&](QColor c) { return near(c, colour, 12); }).found();
}

const QRect kHeadline(100, 262, 400, 48); // "DROP" starts right of 220, "ADD A TAG" left of it
const QRect kTagText(128, 100, 300, 18);

class ViewDrawing : public ::Test::ViewFixture {
protected:
    void addTag(const QString& name = QStringLiteral("voice.wav")) {
        QDir().mkpath(home.tagsDir());
        ::Test::writeFile(home.tagsDir() + QLatin1Char('/') + name, "RIFF");
    }
    QImage render(const std::function<void(HUDView::State&)>& set = {}) {
        HUDView::State state;
        if (set)
            set(state);
        view().setState(std::move(state));
        return view().snapshot(1);
    }
};

} // namespace

// A few decisive pixels per state: without a tag, then with one.
TEST_F(ViewDrawing, eachStateShowsItsDecisivePixels) {
    QImage image = render();
    const auto is = [&image](int x, int y, QColor colour, int tolerance = 3) {
        return near(image.pixelColor(x, y), colour, tolerance);
    };
    EXPECT_TRUE(is(115, 108, over(lineStrong, black))); // the status square grey
    EXPECT_LT(lit(image, kHeadline, 120).left, 220);    // "ADD A TAG"
    EXPECT_TRUE(lit(image, kTagText).found());
    EXPECT_FALSE(lit(image, kTagText, 200).found()); // dim, never white
    image = render([](auto& s) { s.hoverTag = true; });
    EXPECT_TRUE(is(115, 108, over(lineStrong, over(purpleSoft, black))));
    EXPECT_TRUE(lit(image, kTagText, 200).found()); // "DROP TO ADD AS TAG" in white

    addTag(QStringLiteral("my tag.mp3"));
    m_view.reset();
    image = render();
    EXPECT_TRUE(is(300, 78, over(line, black)));                        // header rule
    EXPECT_TRUE(is(32, 156, over(rgb(0xFAFAFA, 0.07), black)));         // a dot
    EXPECT_TRUE(is(40, 164, black, 0));                                 // between dots
    EXPECT_TRUE(is(300, 220, over(withAlpha(purple, 0.75), black), 6)); // the plus
    EXPECT_TRUE(is(168, 335, black, 0));                                // no progress bar
    EXPECT_TRUE(lit(image, kTagText, 200).found());                     // "MY TAG", white
    const Extent drop = lit(image, kHeadline, 120);
    EXPECT_GT(drop.left, 220);
    EXPECT_NEAR(drop.middleY(), 286, 1.0);

    image = render([](auto& s) { s.hoverZone = true; }); // the zone lit, the tag field not
    EXPECT_TRUE(is(50, 200, over(purpleSoft, black)));
    EXPECT_TRUE(is(25, 140, purple));
    EXPECT_TRUE(is(100, 109, over(lineStrong, black)));
    // "RELEASE": wider than "DROP", narrower than "ADD A TAG".
    const int release = lit(image, kHeadline, 120).left;
    EXPECT_TRUE(release > 180 && release < 240) << release;

    image = render([](auto& s) { s.hoverTag = true; }); // the tag field lit, the zone not
    EXPECT_TRUE(is(100, 109, purple));
    EXPECT_TRUE(is(104, 98, over(purpleSoft, black)));
    EXPECT_TRUE(is(50, 200, black, 0));

    image = render([](auto& s) { s.busy = true, s.progress = {3, 12}; });
    EXPECT_TRUE(view().hits().empty());
    EXPECT_TRUE(is(222, 335, purple) && is(231, 335, over(line, black))); // 7 of 30 cells
    // The first digit alone: "/" reaches above the capitals and below the baseline.
    const Extent counter = lit(image, QRect(150, 245, 300, 50));
    EXPECT_NEAR(lit(image, QRect(counter.left, 245, 16, 50)).middleY(), 270, 1.0);
}

TEST_F(ViewDrawing, logShowsTheLastFourWithALongNameShortened) {
    const auto line = [](const char* text, const char* status, QColor color) {
        return LogLine{QString::fromUtf8(text), QString::fromUtf8(status), color};
    };
    const QImage image = render([&](auto& s) {
        s.log = {line("one.wav", "4 TAGS  OK", purple),
                 line("two.wav", "4 TAGS  OK", purple),
                 line("AN EXTREMELY LONG BEAT NAME THAT GOES ON AND ON AND ON "
                      "UNTIL IT CANNOT POSSIBLY FIT.wav",
                      "CAN'T READ FILE", errColor),
                 line("four.wav", "1 TAGS  OK", purple),
                 line("five.wav", "FFMPEG NOT FOUND", errColor),
                 line("six.mp3", "12 TAGS  OK", purple)};
    });
    for (int row = 0; row < 4; ++row) {
        const QRect status(300, 484 + 20 * row, 284, 12);
        const bool failed = row % 2 == 0; // entries 3 to 6: red, purple, red, purple
        EXPECT_TRUE(hasColour(image, status, failed ? errColor : purple)) << row;
        EXPECT_FALSE(hasColour(image, status, failed ? purple : errColor)) << row;
        EXPECT_LE(lit(image, status).right, 584);
    }
    EXPECT_FALSE(lit(image, QRect(0, 564, 600, 10)).found()); // no fifth line

    // The shortened text stops at least 16 points before its status, and not far before.
    const QRect first(16, 484, 568, 12);
    const Extent status = extent(image, first, [](QColor c) { return c.red() - c.green() > 40; });
    const Extent text = extent(image, first, [](QColor c) {
        return c.red() > 40 && std::abs(c.red() - c.green()) < 8 &&
               std::abs(c.green() - c.blue()) < 8;
    });
    EXPECT_LE(text.right, status.left - 16 + 1);
    EXPECT_GT(text.right, status.left - 16 - 24);
}

TEST_F(ViewDrawing, emptyLogWaitsWithABlinkingCursor) {
    const Extent withCursor = lit(render(), QRect(16, 482, 400, 16));
    const Extent without = lit(render([](auto& s) { s.blink = false; }), QRect(16, 482, 400, 16));
    EXPECT_GT(withCursor.right, without.right + 4);
    EXPECT_NEAR(without.left, 16, 2);
    EXPECT_TRUE(::Test::waitUntil([&] { return !view().state().blink; }, 2000));
}

TEST_F(ViewDrawing, hitsFollowTheDrawingOrderAndTheirActionsShowInTheNextPass) {
    addTag();
    QImage image = render();
    const std::vector<HUDView::Hit> hits = view().hits();
    ASSERT_EQ(hits.size(), 9u);
    const double bw = HUDView::width(QStringLiteral("+ ADD TAG"), body(12), 1.2) + 24;
    EXPECT_EQ(hits[0].rect, QRectF(100, 94, 476 - bw, 30));
    EXPECT_EQ(hits[1].rect, QRectF(584 - bw, 94, bw, 30));
    EXPECT_EQ(hits[2].rect.topLeft(), QPointF(100, 594));
    for (std::size_t i = 3; i < 9; ++i) {
        EXPECT_EQ(hits[i].rect.top(), 594);
        EXPECT_EQ(hits[i].rect.height(), 30);
        if (i != 6) { // the level control starts a row of its own
            EXPECT_DOUBLE_EQ(hits[i].rect.left(), hits[i - 1].rect.right());
        }
    }
    EXPECT_DOUBLE_EQ(hits[8].rect.right(), 584);
    view().resize(720, 640); // the region and the drawing share one rectangle
    image = view().snapshot(1);
    EXPECT_TRUE(near(image.pixelColor(703, 600), over(lineStrong, black)));
    EXPECT_TRUE(near(image.pixelColor(704, 600), black, 0));
    view().resize(600, 640);
    image = view().snapshot(1);

    // A chosen segment is white inside.
    const auto inside = [&image](const QRectF& r) {
        return image.pixelColor((r.topLeft() + QPointF(3, 3)).toPoint());
    };
    EXPECT_TRUE(near(inside(hits[3].rect), white));
    hits[4].action();
    hits[8].action();
    EXPECT_EQ(settings.intervalIndex(), 2);
    EXPECT_EQ(settings.levelIndex(), 2);
    image = view().snapshot(1);
    EXPECT_TRUE(near(inside(hits[4].rect), white));
    EXPECT_TRUE(near(inside(hits[3].rect), black, 0));
    EXPECT_TRUE(near(inside(hits[8].rect), white));
}

TEST_F(ViewDrawing, titleStartsAt76WithoutALogoAndTheFooterEndsAtItsPad) {
    home.setEnv("ZELKOR_RESOURCES", home.root());
    const QImage image = render();
    EXPECT_FALSE(lit(image, QRect(0, 10, 70, 60)).found());
    const Extent title = lit(image, QRect(60, 25, 100, 40), 120);
    EXPECT_GE(title.left, 76);
    EXPECT_LE(title.left, 79);
    EXPECT_NEAR(title.middleY(), 45, 1.0);
    const Extent footer = lit(image, QRect(400, 412, 178, 16)); // right-aligned to 568
    EXPECT_GE(footer.right, 565);
    EXPECT_LE(footer.right, 568);
}

// What the pixels above do not show: a logo's place, the plate, and the grid's and
// the bar's counts at their limits.
TEST(ViewLayout, headerDotGridAndProgressCells) {
    using namespace HUDLayout;
    Measures measures{
        .logo = std::nullopt, .titleWidth = 90, .addTagWidth = 110, .levelControlWidth = 160};
    const Header h = layout({600, 640}, measures).header;
    EXPECT_NEAR(h.plate.top(), 18.853, 1e-3);
    EXPECT_NEAR(h.plate.height(), 42.293, 1e-3);
    EXPECT_DOUBLE_EQ(h.plate.left(), 334);
    EXPECT_NEAR(h.plateLine, 32.81, 1e-2);
    EXPECT_DOUBLE_EQ(h.everyRight, 442.5);
    EXPECT_DOUBLE_EQ(h.levelLeft, 464.75);
    measures.logo = QSizeF(192, 96);
    const Header logo = layout({600, 640}, measures).header;
    EXPECT_EQ(*logo.logo, QRectF(16, 16, 96, 48));
    EXPECT_DOUBLE_EQ(logo.titleX, 124);
    EXPECT_DOUBLE_EQ(logo.subtitleX, 124 + 90 + 12);

    const std::vector<QPointF> dots = dotGrid(zoneRect(600));
    ASSERT_EQ(dots.size(), 34u * 18u);
    EXPECT_EQ(dots[17], QPointF(32, 428));
    EXPECT_EQ(dots.back(), QPointF(560, 428));
    EXPECT_EQ(filledCells(5, 0), 0);
    EXPECT_EQ(filledCells(40, 12), 30);
    EXPECT_EQ(filledCells(std::numeric_limits<long long>::max(), 1), 30);
}

namespace {

qsizetype graphemes(const QString& text) {
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    while (finder.toNextBoundary() > 0)
        ++count;
    return count;
}

HUDView::Fits atMost(qsizetype characters) {
    return [characters](const QString& text) { return graphemes(text) <= characters; };
}

// The rule as written: drop the last two characters and add "…", one round at a time.
QString reference(QString text, int minimum, const HUDView::Fits& fits) {
    while (!fits(text) && graphemes(text) >= minimum) {
        QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
        finder.toEnd();
        finder.toPreviousBoundary();
        text = text.left(finder.toPreviousBoundary()) + QStringLiteral("\u2026");
    }
    return text;
}

} // namespace

TEST(ViewText, widthLeavesOutTheLastKernAndShorteningFollowsTheRoundByRoundRule) {
    ::Test::guiApplication();
    const QFont font = Style::body(12);
    EXPECT_EQ(HUDView::width(QString(), font, 1.2), 0);
    const double plain = HUDView::width(QStringLiteral("ABCD"), font, 0);
    // Qt keeps spacing in 1/64 px: 0.9 becomes 0.890625.
    EXPECT_NEAR(HUDView::width(QStringLiteral("ABCD"), font, 0.9), plain + 3 * 0.890625, 1e-6);

    // Shortening agrees with the round-by-round rule and stops at the minimum.
    const QString ten = QStringLiteral("ABCDEFGHIJ");
    // Never below six characters for the log, four for the tag row.
    EXPECT_EQ(HUDView::shortened(ten, 7, atMost(0)), QStringLiteral("ABCDE\u2026"));
    EXPECT_EQ(HUDView::shortened(ten, 5, atMost(0)), QStringLiteral("ABC\u2026"));
    for (const QString& text :
         {QStringLiteral("> AN EXTREMELY LONG BEAT NAME.wav"),
          QStringLiteral("e\u0301e\u0301e\u0301e\u0301e\u0301e\u0301e\u0301e\u0301"),
          QStringLiteral("BEAT \U0001F3B9\U0001F3B9\U0001F3B9 FINAL FINAL.mp3"),
          QStringLiteral("ABCD")})
        for (const int minimum : {5, 7})
            for (qsizetype room = 0; room <= graphemes(text) + 1; ++room)
                EXPECT_EQ(HUDView::shortened(text, minimum, atMost(room)),
                          reference(text, minimum, atMost(room)))
                    << text.toStdString() << " " << minimum << " " << room;
}
