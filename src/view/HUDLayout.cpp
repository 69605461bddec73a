// The view's geometry and texts, in flipped coordinates (origin top-left, y downwards).
#include "view/HUDLayout.h"

#include "model/Settings.h"

#include <QTextBoundaryFinder>
#include <algorithm>

namespace HUDLayout {

namespace {

using namespace Style;

constexpr double kSegmentPadding = 12; // each side of a segment's label

// The header: logo, title and plate, above a rule.
constexpr double kLogoHeight = 48;
constexpr double kTitleGap = 12; // logo to title, title to subtitle
// Without a logo the title starts where a square logo would have put it.
constexpr double kTitleXWithoutLogo = kPad + kLogoHeight + kTitleGap;
constexpr double kHeaderLine = 45;
// The plate keeps the artwork's 387.83 x 65.61 proportions; its two texts sit
// on the artwork's upper band, either side of its divider.
constexpr double kPlateWidth = 250;
constexpr double kPlateHeight = kPlateWidth * 65.61 / 387.83;
constexpr double kPlateMiddle = 40;
constexpr double kPlateTextLine = 0.33;    // of the plate's height, from its top
constexpr double kPlateEveryEnd = 0.55;    // of its width, back from its right edge
constexpr double kPlateEveryGap = 4;       // further left
constexpr double kPlateLevelStart = 0.495; // of its width, from its left edge
constexpr double kPlateLevelGap = 7;       // further right
constexpr double kHeaderRuleY = 78;

// The tag row, a pad below the header's rule; its label and the INTERVAL label
// share one column left of their controls.
constexpr double kTagRowTop = kHeaderRuleY + kPad;
constexpr double kLabelColumn = 84;
constexpr double kTagFieldGap = 8; // between the field and "+ ADD TAG"
constexpr double kTagBandMargin = 10;
constexpr double kSquareInset = 12;
constexpr double kSquareSize = 8;
constexpr double kFieldTextX = kSquareInset + kSquareSize + 8;
// The field's text may fill its width but for these, the chevron's on the right.
constexpr double kFieldTextTrimLeft = 24;
constexpr double kFieldTextTrimRight = 22;
constexpr double kChevronInset = 16; // its middle, from the field's right edge
constexpr double kChevronHalfWidth = 4;
constexpr double kChevronHalfHeight = 2;
constexpr int kTagTextShortest = 5;

// The drop zone, a pad below the tag row; its centre content on lines measured
// from its middle.
constexpr double kZoneTop = kTagRowTop + kControlHeight + kPad;
constexpr double kZoneHeight = 300;
constexpr double kDotSpacing = 16;
constexpr double kDotSize = 1.2;
constexpr double kBracketArm = 22;
constexpr double kTickInset = 8;
constexpr double kTickArm = 6;
constexpr double kPlusLine = -62;
constexpr double kPlusArm = 14;
constexpr double kCounterLine = -20;
constexpr double kHeadlineLine = -4;
constexpr double kProcessingLine = 18;
constexpr double kHintLine = 30;
constexpr double kCellPitch = 9.1;
constexpr double kCellWidth = 6.1;
constexpr double kCellHeight = 14;
constexpr double kBarHalfWidth = 135;
constexpr double kBarTopBelowCentre = 38;
constexpr double kFooterAboveBottom = 20;
constexpr double kFooterInset = 16;

// The log panel, placed from the zone's bottom edge.
constexpr int kLogLinesShown = 4;
constexpr double kLogHeadingBelowZone = 26;
constexpr double kLogRuleLeft = 64; // clear of "LOG"
constexpr double kLogFirstLineBelowHeading = 24;
constexpr double kLogStatusGap = 16;
constexpr int kLogTextShortest = 7;

// The settings row, a pad above the bottom edge.
constexpr double kLevelLabelGap = 14; // "LEVEL" to its chooser

const QString kEllipsis = QStringLiteral("\u2026");

// Boundaries of the characters a reader sees (accents and emoji stay whole).
std::vector<qsizetype> graphemeEnds(const QString& text) {
    std::vector<qsizetype> ends;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    for (qsizetype at = finder.toNextBoundary(); at > 0; at = finder.toNextBoundary())
        ends.push_back(at);
    return ends;
}

Text placed(const QString& string, const TextStyle& style, double width, double x, double line,
            Align align) {
    double left = x;
    if (align == Align::rightTo)
        left = x - width;
    else if (align == Align::centredOn)
        left = x - width / 2;
    return {string, style, left, line, width};
}

std::vector<double> labelWidths(const QStringList& labels, const Measure& measure) {
    std::vector<double> widths;
    for (const QString& text : labels)
        widths.push_back(measure(text, smallText));
    return widths;
}

Segments segments(const QStringList& labels, const std::vector<double>& widths,
                  std::optional<int> selected, QPointF at) {
    Segments out;
    out.selected = selected;
    double x = at.x();
    for (qsizetype i = 0; i < labels.size(); ++i) {
        const double width = widths[static_cast<std::size_t>(i)];
        const QRectF r(x, at.y(), width + 2 * kSegmentPadding, kControlHeight);
        out.rects.push_back(r);
        out.labels.push_back(
            placed(labels[i], smallText, width, r.center().x(), r.center().y(), Align::centredOn));
        x = r.right();
    }
    out.outline = QRectF(at.x(), at.y(), x - at.x(), kControlHeight);
    return out;
}

// A text shortened to `room`, from where it starts.
Text fitted(const QString& string, const TextStyle& style, int minimum, double room, double x,
            double line, const Measure& measure) {
    const QString shown =
        shortened(string, minimum, [&](const QString& s) { return measure(s, style) <= room; });
    return place(shown, style, x, line, Align::at, measure);
}

// An L at each corner of `r`, its arms `arm` long along the edges.
QPainterPath cornerBrackets(const QRectF& r, double arm) {
    QPainterPath path;
    path.moveTo(r.left() + arm, r.top());
    path.lineTo(r.left(), r.top());
    path.lineTo(r.left(), r.top() + arm);
    path.moveTo(r.right() - arm, r.top());
    path.lineTo(r.right(), r.top());
    path.lineTo(r.right(), r.top() + arm);
    path.moveTo(r.left() + arm, r.bottom());
    path.lineTo(r.left(), r.bottom());
    path.lineTo(r.left(), r.bottom() - arm);
    path.moveTo(r.right() - arm, r.bottom());
    path.lineTo(r.right(), r.bottom());
    path.lineTo(r.right(), r.bottom() - arm);
    return path;
}

QString intervalLabel(double seconds) {
    return QString::number(static_cast<int>(seconds)) + QLatin1Char('S');
}

int chosenInterval(const Content& content) {
    return static_cast<int>(Settings::intervals[static_cast<std::size_t>(content.intervalIndex)]);
}

QString chosenLevel(const Content& content) {
    return Settings::levels[static_cast<std::size_t>(content.levelIndex)].name;
}

Header layHeader(double w, const Content& content, const Measure& measure) {
    Header out;
    double titleX = kTitleXWithoutLogo;
    if (content.logo && content.logo->height() > 0) {
        const double logoWidth = content.logo->width() * kLogoHeight / content.logo->height();
        out.logo = QRectF(kPad, kPad, logoWidth, kLogoHeight);
        titleX = kPad + logoWidth + kTitleGap;
    }
    out.title = place(QStringLiteral("ODRAVEX"), title, titleX, kHeaderLine, Align::at, measure);
    out.subtitle = place(QStringLiteral("ZELKOR"), subtitle, out.title.right() + kTitleGap,
                         kHeaderLine, Align::at, measure);

    out.plate =
        QRectF(w - kPad - kPlateWidth, kPlateMiddle - kPlateHeight / 2, kPlateWidth, kPlateHeight);
    const double line = out.plate.top() + kPlateTextLine * kPlateHeight;
    out.every = place(QStringLiteral("EVERY / ") + QString::number(chosenInterval(content)) +
                          QLatin1Char('S'),
                      plateText, out.plate.right() - kPlateEveryEnd * kPlateWidth - kPlateEveryGap,
                      line, Align::rightTo, measure);
    out.level = place(QStringLiteral("LEVEL / ") + chosenLevel(content), plateText,
                      out.plate.left() + kPlateLevelStart * kPlateWidth + kPlateLevelGap, line,
                      Align::at, measure);
    out.rule = QLineF(kPad, kHeaderRuleY + kHairline, w - kPad, kHeaderRuleY + kHairline);
    return out;
}

TagRow layTagRow(double w, const Content& content, const Measure& measure) {
    TagRow out;
    out.row = tagRowRect(w);
    const QRectF& r = out.row;
    out.band = r.adjusted(0, -kTagBandMargin, 0, kTagBandMargin);
    out.label = place(QStringLiteral("TAG"), label, r.left(), r.center().y(), Align::at, measure);

    const QString add = QStringLiteral("+ ADD TAG");
    const double addWidth = measure(add, smallText);
    const double buttonWidth = addWidth + 2 * kSegmentPadding;
    out.addTag =
        segments({add}, {addWidth}, std::nullopt, QPointF(r.right() - buttonWidth, r.top()));
    out.field = QRectF(r.left() + kLabelColumn, r.top(),
                       r.width() - kLabelColumn - buttonWidth - kTagFieldGap, r.height());
    const QRectF& f = out.field;
    out.statusSquare =
        QRectF(f.left() + kSquareInset, f.center().y() - kSquareSize / 2, kSquareSize, kSquareSize);
    const double room = f.width() - kFieldTextTrimLeft - kFieldTextTrimRight;
    const auto text = [&](const QString& string) {
        return fitted(string, smallText, kTagTextShortest, room, f.left() + kFieldTextX,
                      f.center().y(), measure);
    };
    out.text = text(content.tagName.value_or(QStringLiteral("NO TAG \u2014 ADD YOUR TAG FILE")));
    out.hoverText = text(QStringLiteral("DROP TO ADD AS TAG"));

    const QPointF c(f.right() - kChevronInset, f.center().y());
    out.chevron.moveTo(c.x() - kChevronHalfWidth, c.y() - kChevronHalfHeight);
    out.chevron.lineTo(c.x(), c.y() + kChevronHalfHeight);
    out.chevron.lineTo(c.x() + kChevronHalfWidth, c.y() - kChevronHalfHeight);
    return out;
}

// The grid of dots inside the drop zone, column by column.
std::vector<QPointF> dotGrid(const QRectF& zone) {
    std::vector<QPointF> dots;
    const double first = kDotSpacing;
    for (int i = 0;; ++i) {
        // start + spacing × count: repeated addition would drift.
        const double x = zone.left() + first + kDotSpacing * i;
        if (x >= zone.right() - kTickInset) // the grid stops short of the inner ticks
            break;
        for (int j = 0;; ++j) {
            const double y = zone.top() + first + kDotSpacing * j;
            if (y >= zone.bottom() - kTickInset)
                break;
            dots.emplace_back(x, y);
        }
    }
    return dots;
}

// Cell `index` of the progress bar.
QRectF progressCell(QPointF centre, int index) {
    return {centre.x() - kBarHalfWidth + kCellPitch * index, centre.y() + kBarTopBelowCentre,
            kCellWidth, kCellHeight};
}

Zone layZone(double w, const Content& content, const Measure& measure) {
    Zone out;
    out.rect = zoneRect(w);
    out.inner = out.rect.adjusted(kTickInset, kTickInset, -kTickInset, -kTickInset);
    out.centre = out.rect.center();
    for (const QPointF& dot : dotGrid(out.rect))
        out.dots.emplace_back(dot, QSizeF(kDotSize, kDotSize));
    out.brackets = cornerBrackets(out.rect, kBracketArm);
    out.ticks = cornerBrackets(out.inner, kTickArm);

    const double mx = out.centre.x();
    const double my = out.centre.y();
    const double plusY = my + kPlusLine;
    out.plusAcross = QLineF(mx - kPlusArm, plusY, mx + kPlusArm, plusY);
    out.plusDown = QLineF(mx, plusY - kPlusArm, mx, plusY + kPlusArm);
    const auto centred = [&](const QString& string, const TextStyle& style, double line) {
        return place(string, style, mx, line, Align::centredOn, measure);
    };
    const QString addATag = QStringLiteral("ADD A TAG");
    const bool tagged = content.tagName.has_value();
    out.headline = centred(tagged ? QStringLiteral("DROP") : addATag, headline, my + kHeadlineLine);
    out.hoverHeadline =
        centred(tagged ? QStringLiteral("RELEASE") : addATag, headline, my + kHeadlineLine);
    out.hint =
        centred(tagged ? QStringLiteral("MP3 / WAV \u2014 ONE FILE OR MANY. OR CLICK TO CHOOSE")
                       : QStringLiteral("CLICK TO CHOOSE YOUR VOICE TAG FILE"),
                smallText, my + kHintLine);

    out.counterLine = my + kCounterLine;
    out.processingWithCursor =
        centred(QStringLiteral("PROCESSING _"), smallText, my + kProcessingLine);
    out.processing = place(QStringLiteral("PROCESSING"), smallText, out.processingWithCursor.x,
                           out.processingWithCursor.line, Align::at, measure);
    for (int i = 0; i < kProgressCells; ++i)
        out.cells.push_back(progressCell(out.centre, i));

    const double footerLine = out.rect.bottom() - kFooterAboveBottom;
    out.footer = place(QStringLiteral("EVERY ") + QString::number(chosenInterval(content)) +
                           QStringLiteral("S // ") + chosenLevel(content),
                       smallText, out.rect.left() + kFooterInset, footerLine, Align::at, measure);
    out.saves = place(QStringLiteral("SAVES NEXT TO ORIGINAL"), smallText,
                      out.rect.right() - kFooterInset, footerLine, Align::rightTo, measure);
    return out;
}

Log layLog(double w, const QRectF& zone, const Measure& measure) {
    Log out;
    out.left = kPad;
    out.right = w - kPad;
    const double headingLine = zone.bottom() + kLogHeadingBelowZone;
    out.heading = place(QStringLiteral("LOG"), heading, out.left, headingLine, Align::at, measure);
    out.rule = QLineF(kLogRuleLeft, headingLine + kHairline, out.right, headingLine + kHairline);
    out.firstLine = headingLine + kLogFirstLineBelowHeading;
    const QString waiting = QStringLiteral("> WAITING FOR FILES");
    out.waiting = place(waiting, smallText, out.left, out.firstLine, Align::at, measure);
    out.waitingWithCursor =
        place(waiting + QLatin1Char('_'), smallText, out.left, out.firstLine, Align::at, measure);
    return out;
}

Controls layControls(double w, double h, const Content& content, const Measure& measure) {
    Controls out;
    const double top = h - kPad - kControlHeight;
    out.rule = QLineF(kPad, top - kPad + kHairline, w - kPad, top - kPad + kHairline);
    const double labelLine = top + kControlHeight / 2;
    out.intervalLabel =
        place(QStringLiteral("INTERVAL"), label, kPad, labelLine, Align::at, measure);
    QStringList intervals;
    for (const double seconds : Settings::intervals)
        intervals << intervalLabel(seconds);
    out.intervals = segments(intervals, labelWidths(intervals, measure), content.intervalIndex,
                             QPointF(kPad + kLabelColumn, top));

    // Ends at the right pad: its width is known only once its labels are measured.
    QStringList levels;
    for (const Settings::Level& level : Settings::levels)
        levels << QString(level.name);
    const std::vector<double> widths = labelWidths(levels, measure);
    double width = 0;
    for (const double labelWidth : widths)
        width += labelWidth + 2 * kSegmentPadding;
    out.levels = segments(levels, widths, content.levelIndex, QPointF(w - kPad - width, top));
    out.levelLabel =
        place(QStringLiteral("LEVEL"), label, out.levels.outline.left() - kLevelLabelGap, labelLine,
              Align::rightTo, measure);
    return out;
}

} // namespace

bool contains(const QRectF& rect, QPointF point) {
    return rect.left() <= point.x() && point.x() < rect.right() && rect.top() <= point.y() &&
           point.y() < rect.bottom();
}

QRectF tagRowRect(double width) {
    return {kPad, kTagRowTop, width - 2 * kPad, kControlHeight};
}

QRectF zoneRect(double width) {
    return {kPad, kZoneTop, width - 2 * kPad, kZoneHeight};
}

Text place(const QString& string, const TextStyle& style, double x, double line, Align align,
           const Measure& measure) {
    return placed(string, style, measure(string, style), x, line, align);
}

QString shortened(const QString& text, int minimum, const Fits& fits) {
    if (fits(text))
        return text;
    // Each round of the rule drops the "…" of the round before and one more
    // character, so round j keeps n - 1 - j characters and adds "…"; rounds go on
    // while the text has `minimum` characters or more.
    const std::vector<qsizetype> ends = graphemeEnds(text);
    const auto n = static_cast<long long>(ends.size());
    const long long last = n >= minimum ? n - minimum + 1 : 0;
    if (last < 1)
        return text;
    auto round = [&](long long j) {
        const long long kept = n - 1 - j;
        return text.left(kept > 0 ? ends[static_cast<std::size_t>(kept - 1)] : 0) + kEllipsis;
    };
    // Fewer characters are never wider, so the first round that fits is found
    // by bisection instead of measuring every round of a long name.
    long long low = 1;
    long long high = last;
    while (low < high) {
        const long long middle = low + (high - low) / 2;
        if (fits(round(middle)))
            high = middle;
        else
            low = middle + 1;
    }
    return round(low);
}

Layout layout(QSizeF size, const Content& content, const Measure& measure) {
    Layout out;
    out.bounds = QRectF(QPointF(0, 0), size);
    out.header = layHeader(size.width(), content, measure);
    out.tagRow = layTagRow(size.width(), content, measure);
    out.zone = layZone(size.width(), content, measure);
    out.log = layLog(size.width(), out.zone.rect, measure);
    out.controls = layControls(size.width(), size.height(), content, measure);
    return out;
}

LogRow logRow(const Log& log, const QString& text, const QString& status, const Measure& measure) {
    LogRow out;
    out.status = place(status, smallText, log.right, 0, Align::rightTo, measure);
    const double room = (log.right - log.left) - out.status.width - kLogStatusGap;
    out.text =
        fitted(QStringLiteral("> ") + text, logText, kLogTextShortest, room, log.left, 0, measure);
    return out;
}

int filledCells(double done, long long total) {
    if (total <= 0)
        return 0;
    const double share = done * kProgressCells / static_cast<double>(total);
    if (!(share > 0))
        return 0;
    return share >= kProgressCells ? kProgressCells : static_cast<int>(share);
}

long long firstShownLogLine(long long count) {
    return count >= kLogLinesShown ? count - kLogLinesShown : 0;
}

std::vector<QRectF> focusOrder(const Layout& layout) {
    std::vector<QRectF> order{layout.tagRow.field, layout.tagRow.addTag.rects.at(0),
                              layout.zone.rect};
    for (const Segments* row : {&layout.controls.intervals, &layout.controls.levels})
        order.insert(order.end(), row->rects.begin(), row->rects.end());
    return order;
}

double fitScale(QSizeF view, QSizeF frame, QSizeF available) {
    const QSizeF chrome = frame - view;
    return std::min({1.0, (available.width() - chrome.width()) / view.width(),
                     (available.height() - chrome.height()) / view.height()});
}

} // namespace HUDLayout
