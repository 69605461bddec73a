// The main view drawn offscreen at ratio 1: what only pixels show (colours, the
// logo, anti-aliasing, texts' widths) where the layout puts it; the click regions.
#include "style/Palette.h"
#include "support/GuiSupport.h"
#include "view/Drawing.h"
#include "view/HUDLayout.h"

using namespace Qt::StringLiterals;
using namespace Style;
using ::Test::near;
using ::Test::over;

namespace {

// Where the pixels that `counts` lie inside a box; not valid when none do.
QRect extent(const QImage& image, const QRect& box, const std::function<bool(QColor)>& counts) {
    QRect found;
    for (int y = box.top(); y <= box.bottom(); ++y)
        for (int x = box.left(); x <= box.right(); ++x)
            if (counts(image.pixelColor(x, y)))
                found |= QRect(x, y, 1, 1);
    return found;
}

QRect lit(const QImage& image, const QRect& box, int threshold = 40) { // brighter than black
    return extent(image, box, [threshold](QColor c) {
        return std::max({c.red(), c.green(), c.blue()}) >= threshold;
    });
}

// Where a text may leave ink: its advance and a little more, around its line.
QRect box(const HUDLayout::Text& text) {
    const double half = text.style.size * 0.6;
    return QRectF(text.x - 2, text.line - half, text.width + 4, 2 * half).toAlignedRect();
}

// Capitals where the layout put them: ink from start to end, give or take a bearing.
void expectDrawn(const QImage& image, const HUDLayout::Text& text, int threshold = 40) {
    SCOPED_TRACE(text.string.toStdString());
    const QRect ink = lit(image, box(text), threshold);
    ASSERT_TRUE(ink.isValid());
    const double bearing = std::max(3.0, text.style.size / 8);
    EXPECT_NEAR(ink.left(), text.x, bearing);
    EXPECT_NEAR(ink.right() + 1, text.right(), bearing);
    EXPECT_NEAR(QRectF(ink).center().y(), text.line, 1.0);
}

class ViewDrawing : public ::Test::ViewFixture {
protected:
    QImage render(HUDView::State state = {}) {
        view().setState(std::move(state));
        return image = view().snapshot(1);
    }
    // Whether the last image shows `colour` at `at`.
    bool is(QPointF at, QColor colour, int tolerance = 3) {
        return near(image.pixelColor(QPoint(int(at.x()), int(at.y()))), colour, tolerance);
    }
    QImage image;
};

} // namespace

// A few decisive pixels per state: without a tag, then with one and no images;
// the regions are the layout's rectangles, in drawing order.
TEST_F(ViewDrawing, eachStateShowsItsDecisivePixelsAndLeavesItsRegions) {
    render();
    const HUDLayout::TagRow* t = &view().layout().tagRow;
    EXPECT_TRUE(is(t->statusSquare.center(), over(lineStrong, black))); // grey
    // The shipped logo, drawn where the layout put it.
    EXPECT_TRUE(
        lit(image, view().layout().header.logo.value_or(QRectF()).toAlignedRect()).isValid());
    expectDrawn(image, t->text);
    EXPECT_FALSE(lit(image, box(t->text), 200).isValid()); // dim, never white
    expectDrawn(render({.hoverTag = true, .progress = {}, .log = {}}), t->hoverText, 200);

    clip(u"my tag.mp3"_s);
    settings.setIntervalIndex(2);
    settings.setLevelIndex(2);
    home.setEnv("ZELKOR_RESOURCES", home.root()); // no logo, no plate
    close();
    render();
    const HUDLayout::Layout& l = view().layout();
    std::vector<QRectF> rects{l.tagRow.field, l.tagRow.addTag.rects.at(0)};
    for (const HUDLayout::Segments* control : {&l.controls.intervals, &l.controls.levels})
        rects.insert(rects.end(), control->rects.begin(), control->rects.end());
    ASSERT_EQ(view().hits().size(), 9u);
    for (std::size_t i = 0; i < rects.size(); ++i) {
        EXPECT_EQ(view().hits()[i].rect, rects[i]) << i;
        const QColor inside = image.pixelColor((rects[i].topLeft() + QPointF(3, 3)).toPoint());
        // 45S and HIGH are chosen; the field and "+" are no segments.
        EXPECT_TRUE(i < 2 || (i == 4 || i == 8 ? near(inside, white) : near(inside, black, 0)))
            << i;
    }
    // A rule between two segments, a hairline wide at their shared edge.
    const auto ruled = [&](const QRectF& r) {
        return !is(QPointF(r.left() + 0.5, r.center().y() + 9).toPoint(), black, 0);
    };
    EXPECT_TRUE(ruled(rects[3]) && ruled(rects[7]));
    t = &l.tagRow;
    const HUDLayout::Zone* z = &l.zone;
    EXPECT_FALSE(l.header.logo);
    expectDrawn(image, l.header.title, 120);
    EXPECT_FALSE(lit(image, QRect(0, 10, static_cast<int>(l.header.title.x) - 2, 60)).isValid());
    const QPointF dot = z->dots.front().topLeft(), edge(t->field.left(), t->field.center().y());
    EXPECT_TRUE(is(dot, over(rgb(0xFAFAFA, 0.07), black)));
    // The vertical stroke, 1.5 wide on a pixel edge: three quarters of a pixel.
    EXPECT_TRUE(
        is(z->plusDown.p1() + QPointF(0, 6), over(Drawing::withAlpha(purple, 0.75), black), 6));
    EXPECT_TRUE(is(z->cells.front().center(), black, 0)); // no progress bar
    expectDrawn(image, t->text, 200);                     // in white
    expectDrawn(image, z->headline, 120);
    expectDrawn(image, z->saves);

    expectDrawn(render({.hoverZone = true, .progress = {}, .log = {}}), z->hoverHeadline, 120);
    EXPECT_TRUE(is(dot + QPointF(8, 8), over(purpleSoft, black))); // the zone lit, the field not
    EXPECT_TRUE(is(edge, over(lineStrong, black)));
    render({.hoverTag = true, .progress = {}, .log = {}}); // the tag field lit, the zone not
    EXPECT_TRUE(is(edge, purple) && is(dot + QPointF(8, 8), black, 0));

    // The bar: 3 of 12 lights 7 of 30 cells in purple, the rest in the line's grey.
    render({.busy = true, .progress = {3, 12}, .log = {}});
    const auto cells = [&](QColor colour) {
        return std::ranges::count_if(z->cells,
                                     [&](QRectF cell) { return is(cell.center(), colour); });
    };
    EXPECT_TRUE(cells(purple) == 7 && cells(over(line, black)) == 23);
    // The first digit alone: "/" reaches above the capitals and below the baseline.
    const QRect counter(QPointF(z->centre.x() - 150, z->counterLine - 25).toPoint(),
                        QSize(300, 50));
    const QRect digit(lit(image, counter).left(), counter.top(), 16, 50);
    EXPECT_NEAR(QRectF(lit(image, digit)).center().y(), z->counterLine, 1.0);
}

TEST_F(ViewDrawing, logWaitsWithABlinkingCursorThenShowsTheLastFourInTheirColours) {
    const QRect line = box(view().layout().log.waitingWithCursor);
    const QRect withCursor = lit(render(), line);
    ASSERT_TRUE(::Test::waitUntil([&] { return !view().state().blink; }, 2000));
    const QRect without = lit(view().snapshot(1), line);
    EXPECT_GT(withCursor.right(), without.right() + 4);

    const QString ok = u"12 TAGS  OK"_s, unread = u"CAN'T READ FILE"_s;
    render({.progress = {},
            .log = {{u"one.wav"_s, ok, purple},
                    {u"two.wav"_s, ok, purple},
                    {u"AN EXTREMELY LONG BEAT NAME THAT GOES ON AND ON UNTIL IT CANNOT FIT.wav"_s,
                     unread, errColor},
                    {u"four.wav"_s, ok, purple},
                    {u"five.wav"_s, unread, errColor},
                    {u"six.mp3"_s, ok, purple}}});
    const HUDLayout::Log& l = view().layout().log;
    const auto row = [&](int index, double from) {
        const int top = static_cast<int>(l.firstLine + HUDLayout::kLogLineStep * index) - 6;
        return QRect(static_cast<int>(from), top, static_cast<int>(l.right - from), 12);
    };
    for (int index = 0; index < 4; ++index) {
        const QRect status = row(index, l.right - 284);
        const bool failed = index % 2 == 0; // entries 3 to 6: red, purple, red, purple
        const auto has = [&](QColor colour) {
            return extent(image, status, [&](QColor c) { return near(c, colour, 12); }).isValid();
        };
        EXPECT_TRUE(has(failed ? errColor : purple) && !has(failed ? purple : errColor)) << index;
        EXPECT_LE(lit(image, status.adjusted(0, 0, 8, 0)).right(), l.right);
    }
    EXPECT_FALSE(lit(image, row(4, 0).adjusted(0, 0, 16, 0)).isValid()); // no fifth line
}
