// The window's geometry as a table, measured with each character half its
// style's size and no kern, without any application object.
#include "view/HUDLayout.h"

#include <QTextBoundaryFinder>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using namespace HUDLayout;

namespace {

double fixedWidth(const QString& text, const Style::TextStyle& style) {
    return static_cast<double>(text.size()) * style.size / 2;
}

// A text as a rectangle: where it starts, its line, its width; a line as its ends.
QRectF at(const Text& text) {
    return {text.x, text.line, text.width, 0};
}
QRectF at(const QLineF& l) {
    return {l.p1(), l.p2()};
}

Content tagged(std::optional<QSizeF> logo = {}, int interval = 1, int level = 1) {
    return {logo, interval, level, u"VOICE"_s};
}

const QSizeF kNominal(600, 640);

} // namespace

TEST(HUDLayout, placesEveryElement) {
    const Layout n = layout(kNominal, tagged(), fixedWidth);
    const Layout none = layout(kNominal, {}, fixedWidth);
    const Layout logo = layout(kNominal, tagged(QSizeF(200, 100), 2, 2), fixedWidth);
    const Layout big = layout({800, 700}, tagged(), fixedWidth);
    const LogRow row = logRow(n.log, u"beat.wav"_s, u"1 TAGS  OK"_s, fixedWidth);
    // Each row: a part's rectangles, then where each should be.
    using R = QRectF;
    const std::vector<std::tuple<const char*, std::vector<R>, std::vector<R>>> rows{
        {"tag row, wider; its band; + ADD TAG ends it, the field 8 before; square, text",
         {n.tagRow.row, big.tagRow.row, n.tagRow.band, n.tagRow.addTag.outline, n.tagRow.field,
          n.tagRow.statusSquare, at(n.tagRow.text)},
         {R{16, 94, 568, 30}, R{16, 94, 768, 30}, R{16, 84, 568, 50}, R{506, 94, 78, 30},
          R{100, 94, 398, 30}, R{112, 105, 8, 8}, R{128, 109, 30, 0}}},
        {"logo 48 high, the title after it or without; subtitle; plate, its texts; rule",
         {logo.header.logo.value_or(R()), at(logo.header.title), at(n.header.title),
          at(n.header.subtitle), n.header.plate, at(n.header.every), at(n.header.level),
          at(n.header.rule)},
         {R{16, 16, 96, 48}, R{124, 45, 63, 0}, R{76, 45, 63, 0}, R{151, 45, 39, 0},
          R{334, 18.853, 250, 42.293}, R{382, 32.810, 60.5, 0}, R{464.75, 32.810, 60.5, 0},
          R{16, 78.5, 568, 0}}},
        {"zone, ticks; first and last dot and cell",
         {n.zone.rect, n.zone.inner, n.zone.dots.front(), n.zone.dots.back(), n.zone.cells.front(),
          n.zone.cells.back()},
         {R{16, 140, 568, 300}, R{24, 148, 552, 284}, R{32, 156, 1.2, 1.2}, R{560, 428, 1.2, 1.2},
          R{165, 328, 6.1, 14}, R{428.9, 328, 6.1, 14}}},
        {"headline: tagged, none, hovered; processing stays put; plus; footer, saves",
         {at(n.zone.headline), at(none.zone.headline), at(n.zone.hoverHeadline),
          at(n.zone.processing), at(n.zone.plusAcross), at(n.zone.plusDown), at(logo.zone.footer),
          at(n.zone.saves)},
         {R{260, 286, 80, 0}, R{210, 286, 180, 0}, R{230, 286, 140, 0}, R{264, 308, 60, 0},
          R{286, 228, 28, 0}, R{300, 214, 0, 28}, R{32, 420, 102, 0}, R{436, 420, 132, 0}}},
        {"log heading, rule, waiting line; a row's status at the right pad",
         {at(n.log.heading), at(n.log.rule), at(n.log.waiting), at(row.status)},
         {R{16, 466, 21, 0}, R{64, 466.5, 520, 0}, R{16, 490, 114, 0}, R{524, 0, 60, 0}}},
        {"rule; first interval, intervals; levels, bigger; HIGH; LEVEL 14 before",
         {at(n.controls.rule), n.controls.intervals.rects.front(), n.controls.intervals.outline,
          n.controls.levels.outline, big.controls.levels.outline, n.controls.levels.rects.back(),
          at(n.controls.levelLabel)},
         {R{16, 578.5, 568, 0}, R{100, 594, 42, 30}, R{100, 594, 168, 30}, R{452, 594, 132, 30},
          R{652, 654, 132, 30}, R{536, 594, 48, 30}, R{408, 609, 30, 0}}}};
    for (const auto& [what, got, expected] : rows) {
        ASSERT_EQ(got.size(), expected.size()) << what;
        for (std::size_t i = 0; i < got.size(); ++i) {
            const R& r = got[i];
            EXPECT_LT((r.topLeft() - expected[i].topLeft()).manhattanLength() +
                          std::abs(r.width() - expected[i].width()) +
                          std::abs(r.height() - expected[i].height()),
                      1e-3)
                << what << " #" << i << ": " << r.x() << ", " << r.y() << ", " << r.width();
        }
    }
}

TEST(HUDLayout, textsFollowTheSettingsAndTheTag) {
    const Layout plain = layout(kNominal, {}, fixedWidth);
    const Layout chosen = layout(kNominal, tagged({}, 2, 0), fixedWidth);
    const QString name(70, u'N'); // too long for the field: what fits of 352 points, then "…"
    const Layout long_ = layout(kNominal, {{}, 1, 1, name}, fixedWidth);
    const LogRow row = logRow(plain.log, u"beat.wav"_s, u"1 TAGS  OK"_s, fixedWidth);
    const LogRow cut = logRow(plain.log, QString(100, u'x'), u"1 TAGS  OK"_s, fixedWidth);
    EXPECT_EQ(
        (QStringList{plain.tagRow.text.string, plain.zone.hint.string,
                     plain.zone.hoverHeadline.string, chosen.header.every.string,
                     chosen.header.level.string, chosen.zone.footer.string,
                     chosen.tagRow.hoverText.string, long_.tagRow.text.string, row.text.string,
                     cut.text.string.right(1)}),
        (QStringList{u"NO TAG \u2014 ADD YOUR TAG FILE"_s, u"CLICK TO CHOOSE YOUR VOICE TAG FILE"_s,
                     u"ADD A TAG"_s, u"EVERY / 45S"_s, u"LEVEL / LOW"_s, u"EVERY 45S // LOW"_s,
                     u"DROP TO ADD AS TAG"_s, name.left(57) + u"\u2026"_s, u"> beat.wav"_s,
                     u"\u2026"_s}));
    EXPECT_EQ(cut.text.width, 492); // 568 - 60 - 16: its text stops 16 before the status
}

TEST(HUDLayout, countsCellsLogLinesAndEdges) {
    using Cells = std::tuple<double, long long, int>;
    const std::vector<Cells> cells{{0, 0, 0},    {1, 0, 0},    {3, 12, 7}, {3.4, 12, 8},
                                   {12, 12, 30}, {40, 12, 30}, {-1, 5, 0}};
    for (const auto& [done, total, filled] : cells)
        EXPECT_EQ(filledCells(done, total), filled) << done << "/" << total;
    for (const auto& [count, first] : std::vector<std::pair<int, int>>{{3, 0}, {4, 0}, {6, 2}})
        EXPECT_EQ(firstShownLogLine(count), first) << count;
    using Point = std::pair<QPointF, bool>;
    for (const auto& [point, inside] : std::vector<Point>{
             {{10, 10}, true}, {{30, 20}, false}, {{20, 30}, false}, {{9.9, 20}, false}})
        EXPECT_EQ(contains(QRectF(10, 10, 20, 20), point), inside)
            << point.x() << ", " << point.y();
}

// Two characters (as a reader sees them) off and "…" on per round, down to 7.
TEST(HUDLayout, shorteningDropsTwoAndAddsAnEllipsisPerRound) {
    const QString e = u"e\u0301"_s, key = u"\U0001F3B9"_s;
    for (const auto& [text, room, expected] : std::vector<std::tuple<QString, int, QString>>{
             {u"ABCDEFG"_s, 7, u"ABCDEFG"_s},
             {u"ABCDEFG"_s, 6, u"ABCDE\u2026"_s},
             {u"ABCDEFG"_s, 0, u"ABCDE\u2026"_s},
             {u"ABCDEFGHIJ"_s, 7, u"ABCDEF\u2026"_s},
             {u"ABCDEFGHIJ"_s, 0, u"ABCDE\u2026"_s},
             {u"ABCDEF"_s, 0, u"ABCDEF"_s},
             {e.repeated(8), 5, e.repeated(5) + u"\u2026"_s},
             {u"AB"_s + key.repeated(5), 6, u"AB"_s + key.repeated(3) + u"\u2026"_s}}) {
        const auto fits = [room](const QString& s) {
            QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, s);
            int count = 0;
            for (; finder.toNextBoundary() > 0; ++count) {
            }
            return count <= room;
        };
        EXPECT_EQ(shortened(text, 7, fits), expected) << text.toStdString() << " " << room;
    }
}
