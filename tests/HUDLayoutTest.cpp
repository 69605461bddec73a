// The window's geometry as a table: sizes and contents in, rectangles out,
// measured by a fixed-width measure (each character half its style's size,
// no kern) and without any application object.
#include "view/HUDLayout.h"

#include <QTextBoundaryFinder>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using namespace HUDLayout;

namespace {

double fixedWidth(const QString& text, const Style::TextStyle& style) {
    return static_cast<double>(text.size()) * style.size / 2;
}

// A text as a rectangle: where it starts, its line, its width.
QRectF at(const Text& text) {
    return {text.x, text.line, text.width, 0};
}

Content tagged(std::optional<QSizeF> logo = {}, int interval = 1, int level = 1) {
    return {logo, interval, level, u"VOICE"_s};
}

QRectF line(const QLineF& l) {
    return {l.p1(), l.p2()};
}

bool near(const QRectF& a, const QRectF& b) {
    return std::abs(a.x() - b.x()) < 1e-3 && std::abs(a.y() - b.y()) < 1e-3 &&
           std::abs(a.width() - b.width()) < 1e-3 && std::abs(a.height() - b.height()) < 1e-3;
}

const QSizeF kNominal(600, 640);

} // namespace

TEST(HUDLayout, placesEveryElement) {
    const Layout n = layout(kNominal, tagged(), fixedWidth);
    const Layout none = layout(kNominal, {}, fixedWidth);
    const Layout logo = layout(kNominal, tagged(QSizeF(200, 100), 2, 2), fixedWidth);
    const Layout big = layout({800, 700}, tagged(), fixedWidth);
    const std::vector<std::tuple<const char*, QRectF, QRectF>> rows{
        {"tag row", n.tagRow.row, {16, 94, 568, 30}},
        {"tag row, wider", big.tagRow.row, {16, 94, 768, 30}},
        {"drag band", n.tagRow.band, {16, 84, 568, 50}},
        {"+ ADD TAG ends the row", n.tagRow.addTag.outline, {506, 94, 78, 30}},
        {"tag field, 8 before it", n.tagRow.field, {100, 94, 398, 30}},
        {"status square", n.tagRow.statusSquare, {112, 105, 8, 8}},
        {"tag text", at(n.tagRow.text), {128, 109, 30, 0}},
        {"drop zone", n.zone.rect, {16, 140, 568, 300}},
        {"inner ticks", n.zone.inner, {24, 148, 552, 284}},
        {"logo, 48 high", logo.header.logo.value_or(QRectF()), {16, 16, 96, 48}},
        {"title after it", at(logo.header.title), {124, 45, 63, 0}},
        {"title without", at(n.header.title), {76, 45, 63, 0}},
        {"subtitle", at(n.header.subtitle), {151, 45, 39, 0}},
        {"plate", n.header.plate, {334, 18.853, 250, 42.293}},
        {"plate's interval", at(n.header.every), {382, 32.810, 60.5, 0}},
        {"plate's level", at(n.header.level), {464.75, 32.810, 60.5, 0}},
        {"header rule", line(n.header.rule), {16, 78.5, 568, 0}},
        {"first dot", n.zone.dots.front(), {32, 156, 1.2, 1.2}},
        {"last dot", n.zone.dots.back(), {560, 428, 1.2, 1.2}},
        {"first cell", n.zone.cells.front(), {165, 328, 6.1, 14}},
        {"last cell", n.zone.cells.back(), {428.9, 328, 6.1, 14}},
        {"headline", at(n.zone.headline), {260, 286, 80, 0}},
        {"headline, no tag", at(none.zone.headline), {210, 286, 180, 0}},
        {"headline, hovered", at(n.zone.hoverHeadline), {230, 286, 140, 0}},
        {"processing stays put", at(n.zone.processing), {264, 308, 60, 0}},
        {"plus across", line(n.zone.plusAcross), {286, 228, 28, 0}},
        {"plus down", line(n.zone.plusDown), {300, 214, 0, 28}},
        {"footer", at(logo.zone.footer), {32, 420, 102, 0}},
        {"saves", at(n.zone.saves), {436, 420, 132, 0}},
        {"log heading", at(n.log.heading), {16, 466, 21, 0}},
        {"log rule", line(n.log.rule), {64, 466.5, 520, 0}},
        {"waiting line", at(n.log.waiting), {16, 490, 114, 0}},
        {"bottom rule", line(n.controls.rule), {16, 578.5, 568, 0}},
        {"first interval", n.controls.intervals.rects.front(), {100, 594, 42, 30}},
        {"interval control", n.controls.intervals.outline, {100, 594, 168, 30}},
        {"level control", n.controls.levels.outline, {452, 594, 132, 30}},
        {"level control, bigger", big.controls.levels.outline, {652, 654, 132, 30}},
        {"HIGH", n.controls.levels.rects.back(), {536, 594, 48, 30}},
        {"LEVEL, 14 before it", at(n.controls.levelLabel), {408, 609, 30, 0}},
    };
    for (const auto& [what, got, expected] : rows)
        EXPECT_TRUE(near(got, expected)) << what << ": " << got.x() << ", " << got.y() << ", "
                                         << got.width() << ", " << got.height();
}

TEST(HUDLayout, textsFollowTheSettingsAndTheTag) {
    const Layout plain = layout(kNominal, {}, fixedWidth);
    EXPECT_EQ(plain.tagRow.text.string, u"NO TAG \u2014 ADD YOUR TAG FILE"_s);
    EXPECT_EQ(plain.zone.hint.string, u"CLICK TO CHOOSE YOUR VOICE TAG FILE"_s);
    EXPECT_EQ(plain.zone.hoverHeadline.string, u"ADD A TAG"_s);
    const Layout chosen = layout(kNominal, tagged({}, 2, 0), fixedWidth);
    EXPECT_EQ(chosen.header.every.string, u"EVERY / 45S"_s);
    EXPECT_EQ(chosen.header.level.string, u"LEVEL / LOW"_s);
    EXPECT_EQ(chosen.zone.footer.string, u"EVERY 45S // LOW"_s);
    EXPECT_EQ(chosen.controls.intervals.selected, 2);
    EXPECT_EQ(chosen.controls.levels.selected, 0);
    EXPECT_EQ(chosen.zone.dots.size(), 612u);
    EXPECT_EQ(chosen.tagRow.hoverText.string, u"DROP TO ADD AS TAG"_s);

    // A name too long for the field keeps what fits of 352 points, then "…".
    const QString name(70, u'N');
    const Layout long_ = layout(kNominal, {{}, 1, 1, name}, fixedWidth);
    EXPECT_EQ(long_.tagRow.text.string, name.left(57) + u"\u2026"_s);
}

TEST(HUDLayout, aLogRowEndsAtTheRightPadAndItsTextStops16BeforeTheStatus) {
    const Log log = layout(kNominal, {}, fixedWidth).log;
    const LogRow row = logRow(log, u"beat.wav"_s, u"1 TAGS  OK"_s, fixedWidth);
    EXPECT_TRUE(near(at(row.status), {524, 0, 60, 0}));
    EXPECT_EQ(row.text.string, u"> beat.wav"_s);
    const LogRow shortened = logRow(log, QString(100, u'x'), u"1 TAGS  OK"_s, fixedWidth);
    EXPECT_EQ(shortened.text.width, 492); // 568 - 60 - 16
    EXPECT_TRUE(shortened.text.string.endsWith(u"\u2026"_s));
}

TEST(HUDLayout, countsCellsLogLinesAndEdges) {
    for (const auto& [done, total, cells] : std::vector<std::tuple<long long, long long, int>>{
             {0, 0, 0}, {1, 0, 0}, {3, 12, 7}, {12, 12, 30}, {40, 12, 30}, {-1, 5, 0}})
        EXPECT_EQ(filledCells(done, total), cells) << done << "/" << total;
    for (const auto& [count, first] :
         std::vector<std::pair<long long, long long>>{{0, 0}, {3, 0}, {4, 0}, {6, 2}})
        EXPECT_EQ(firstShownLogLine(count), first) << count;
    const QRectF r(10, 10, 20, 20);
    EXPECT_TRUE(contains(r, {10, 10}));
    EXPECT_FALSE(contains(r, {30, 20}));
    EXPECT_FALSE(contains(r, {20, 30}));
    EXPECT_FALSE(contains(r, {9.9, 20}));
}

// Two characters off and "…" on, round by round, while it does not fit and
// has 7 characters or more (the log's minimum); characters as a reader sees them.
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
            while (finder.toNextBoundary() > 0)
                ++count;
            return count <= room;
        };
        EXPECT_EQ(shortened(text, 7, fits), expected) << text.toStdString() << " " << room;
    }
}
