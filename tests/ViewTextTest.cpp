// The text helpers: widths without the last kern, and shortening with "…" by
// the characters a reader sees.
#include "style/Fonts.h"
#include "support/GuiSupport.h"
#include "view/HUDView.h"

#include <QFontMetricsF>
#include <QTextBoundaryFinder>
#include <gtest/gtest.h>

namespace {

qsizetype graphemes(const QString& text) {
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    qsizetype count = 0;
    while (finder.toNextBoundary() > 0)
        ++count;
    return count;
}

QString dropLastTwo(const QString& text) {
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    finder.toEnd();
    finder.toPreviousBoundary();
    return text.left(finder.toPreviousBoundary());
}

// The rule as written: one round at a time.
QString reference(QString text, int minimum, const HUDView::Fits& fits) {
    while (!fits(text) && graphemes(text) >= minimum)
        text = dropLastTwo(text) + QStringLiteral("\u2026");
    return text;
}

HUDView::Fits atMost(qsizetype characters) {
    return [characters](const QString& text) { return graphemes(text) <= characters; };
}

} // namespace

TEST(TextWidth, leavesOutTheKernAfterTheLastCharacter) {
    ::Test::guiApplication();
    const QFont font = Style::body(12);
    EXPECT_EQ(HUDView::width(QString(), font, 1.2), 0);
    const double glyph = QFontMetricsF(font).horizontalAdvance(QStringLiteral("A"));
    EXPECT_NEAR(HUDView::width(QStringLiteral("A"), font, 1.2), glyph, 1e-6);
    const double plain = HUDView::width(QStringLiteral("ABCD"), font, 0);
    // Qt keeps spacing in 1/64 px: 0.9 becomes 0.890625.
    EXPECT_NEAR(HUDView::width(QStringLiteral("ABCD"), font, 0.9), plain + 3 * 0.890625, 1e-6);
}

TEST(TextShortening, endsWithAnEllipsisAndStopsAtTheMinimum) {
    const QString ten = QStringLiteral("ABCDEFGHIJ");
    EXPECT_EQ(HUDView::shortened(ten, 7, atMost(10)), ten);
    EXPECT_EQ(HUDView::shortened(ten, 7, atMost(9)), QStringLiteral("ABCDEFGH\u2026"));
    EXPECT_EQ(HUDView::shortened(ten, 7, atMost(6)), QStringLiteral("ABCDE\u2026"));
    // Never below six characters for the log, four for the tag row.
    EXPECT_EQ(HUDView::shortened(ten, 7, atMost(0)), QStringLiteral("ABCDE\u2026"));
    EXPECT_EQ(HUDView::shortened(ten, 5, atMost(0)), QStringLiteral("ABC\u2026"));
    EXPECT_EQ(HUDView::shortened(QStringLiteral("ABCD"), 5, atMost(0)), QStringLiteral("ABCD"));
}

TEST(TextShortening, agreesWithTheRoundByRoundRule) {
    const QString texts[] = {
        QStringLiteral("> AN EXTREMELY LONG BEAT NAME.wav"),
        QStringLiteral("e\u0301e\u0301e\u0301e\u0301e\u0301e\u0301e\u0301e\u0301"),
        QStringLiteral("BEAT \U0001F3B9\U0001F3B9\U0001F3B9 FINAL FINAL.mp3")};
    for (const QString& text : texts)
        for (const int minimum : {5, 7})
            for (qsizetype room = 0; room <= graphemes(text) + 1; ++room) {
                const QString ours = HUDView::shortened(text, minimum, atMost(room));
                EXPECT_EQ(ours, reference(text, minimum, atMost(room)))
                    << text.toStdString() << " " << minimum << " " << room;
            }
}
