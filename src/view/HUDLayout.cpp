// The view's geometry, in flipped coordinates (origin top-left, y downwards).
#include "view/HUDLayout.h"

namespace HUDLayout {

namespace {

constexpr double kTagRowTop = 94;
constexpr double kZoneTop = 140;
constexpr double kZoneHeight = 300;

constexpr double kLogoHeight = 48;
constexpr double kTitleGap = 12;
constexpr double kTitleXWithoutLogo = 76;
constexpr double kHeaderLine = 45;
// The plate keeps the artwork's 387.83 x 65.61 proportions.
constexpr double kPlateWidth = 250;
constexpr double kPlateHeight = kPlateWidth * 65.61 / 387.83;
constexpr double kPlateMiddle = 40;
constexpr double kHeaderRuleY = 78.5;

constexpr double kTagFieldLeft = 84;
constexpr double kTagFieldGap = 8;
constexpr double kTagBandMargin = 10;

constexpr double kCellPitch = 9.1;
constexpr double kCellWidth = 6.1;
constexpr double kCellHeight = 14;
constexpr double kBarHalfWidth = 135;
constexpr double kBarTopBelowCentre = 38;

constexpr double kControlsFromBottom = 46;

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

Layout layout(QSizeF size, const Measures& m) {
    const double w = size.width();
    const double h = size.height();
    Layout out;
    out.bounds = QRectF(QPointF(0, 0), size);

    Header& header = out.header;
    header.titleX = kTitleXWithoutLogo;
    if (m.logo && m.logo->height() > 0) {
        const double logoWidth = m.logo->width() * kLogoHeight / m.logo->height();
        header.logo = QRectF(kPad, kPad, logoWidth, kLogoHeight);
        header.titleX = kPad + logoWidth + kTitleGap;
    }
    header.subtitleX = header.titleX + m.titleWidth + kTitleGap;
    header.titleLine = kHeaderLine;
    header.plate =
        QRectF(w - kPad - kPlateWidth, kPlateMiddle - kPlateHeight / 2, kPlateWidth, kPlateHeight);
    header.plateLine = header.plate.top() + 0.33 * kPlateHeight;
    header.everyRight = header.plate.right() - 0.55 * kPlateWidth - 4;
    header.levelLeft = header.plate.left() + 0.495 * kPlateWidth + 7;
    header.ruleY = kHeaderRuleY;

    TagRow& row = out.tagRow;
    row.row = tagRowRect(w);
    const QRectF& r = row.row;
    row.band = r.adjusted(0, -kTagBandMargin, 0, kTagBandMargin);
    row.button = QRectF(r.right() - m.addTagWidth, r.top(), m.addTagWidth, r.height());
    row.field = QRectF(r.left() + kTagFieldLeft, r.top(),
                       r.width() - kTagFieldLeft - m.addTagWidth - kTagFieldGap, r.height());
    const QRectF& f = row.field;
    row.statusSquare = QRectF(f.left() + 12, f.center().y() - 4, 8, 8);
    row.textX = f.left() + 28;
    row.textRoom = f.width() - 24 - 22;
    row.chevron = QPointF(f.right() - 16, f.center().y());

    Zone& zone = out.zone;
    zone.rect = zoneRect(w);
    zone.inner = zone.rect.adjusted(8, 8, -8, -8);
    zone.centre = zone.rect.center();
    const double my = zone.centre.y();
    zone.plusY = my - 62;
    zone.headlineLine = my - 4;
    zone.hintLine = my + 30;
    zone.counterLine = my - 20;
    zone.processingLine = my + 18;
    zone.footerLine = zone.rect.bottom() - 20;
    zone.footerLeft = zone.rect.left() + 16;
    zone.footerRight = zone.rect.right() - 16;
    for (const QPointF& dot : dotGrid(zone.rect))
        zone.dots.emplace_back(dot, QSizeF(kDotSize, kDotSize));
    for (int i = 0; i < kProgressCells; ++i)
        zone.cells.push_back(progressCell(zone.centre, i));

    Log& log = out.log;
    log.headingLine = zone.rect.bottom() + 26;
    log.ruleY = log.headingLine + 0.5;
    log.ruleLeft = 64;
    log.firstLine = log.headingLine + 24;
    log.left = kPad;
    log.right = w - kPad;

    Controls& controls = out.controls;
    controls.top = h - kControlsFromBottom;
    controls.ruleY = controls.top - 15.5;
    controls.labelLine = controls.top + 15;
    controls.intervalAt = QPointF(100, controls.top);
    controls.levelAt = QPointF(w - kPad - m.levelControlWidth, controls.top);
    controls.levelLabelRight = controls.levelAt.x() - 14;
    return out;
}

std::vector<QRectF> segmentRects(QPointF at, double height,
                                 const std::vector<double>& labelWidths) {
    std::vector<QRectF> rects;
    double x = at.x();
    for (const double labelWidth : labelWidths) {
        rects.emplace_back(x, at.y(), labelWidth + 2 * kSegmentPadding, height);
        x = rects.back().right();
    }
    return rects;
}

std::vector<QPointF> dotGrid(const QRectF& zone) {
    std::vector<QPointF> dots;
    const double first = kDotSpacing;
    for (int i = 0;; ++i) {
        // start + spacing × count: repeated addition would drift.
        const double x = zone.left() + first + kDotSpacing * i;
        if (x >= zone.right() - 8)
            break;
        for (int j = 0;; ++j) {
            const double y = zone.top() + first + kDotSpacing * j;
            if (y >= zone.bottom() - 8)
                break;
            dots.emplace_back(x, y);
        }
    }
    return dots;
}

int filledCells(long long done, long long total) {
    if (total <= 0)
        return 0;
    const double share = static_cast<double>(done) * kProgressCells / static_cast<double>(total);
    if (!(share > 0))
        return 0;
    return share >= kProgressCells ? kProgressCells : static_cast<int>(share);
}

QRectF progressCell(QPointF centre, int index) {
    return {centre.x() - kBarHalfWidth + kCellPitch * index, centre.y() + kBarTopBelowCentre,
            kCellWidth, kCellHeight};
}

long long firstShownLogLine(long long count) {
    return count >= kLogLinesShown ? count - kLogLinesShown : 0;
}

} // namespace HUDLayout
