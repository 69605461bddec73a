// Where everything in the main view goes: pure geometry over the view's size and
// a few measured text widths, shared by the drawing and the hit-testing.
#pragma once

#include <QPointF>
#include <QRectF>
#include <QSizeF>
#include <optional>
#include <vector>

namespace HUDLayout {

constexpr double kPad = 16;
constexpr double kControlHeight = 30;
constexpr double kSegmentPadding = 12; // each side of a segment's label
constexpr double kLogLineStep = 20;
constexpr int kLogLinesShown = 4;
constexpr int kProgressCells = 30;
constexpr double kDotSpacing = 16;
constexpr double kDotSize = 1.2;

// Whether `point` lies in `rect`: its left and top edges belong to it, its
// right and bottom edges to what comes next.
bool contains(const QRectF& rect, QPointF point);

// The tag row and the drop zone, from the view's width.
QRectF tagRowRect(double width);
QRectF zoneRect(double width);

// What the layout needs from the fonts and the images.
struct Measures {
    std::optional<QSizeF> logo;   // the logo's own size, none without a logo
    double titleWidth = 0;        // "ODRAVEX" in the title face
    double addTagWidth = 0;       // the "+ ADD TAG" button, padding included
    double levelControlWidth = 0; // the whole LEVEL control
};

struct Header {
    std::optional<QRectF> logo;
    double titleX = 0;
    double subtitleX = 0;
    double titleLine = 0;
    QRectF plate;
    double plateLine = 0;
    double everyRight = 0; // "EVERY / 30S" ends here
    double levelLeft = 0;  // "LEVEL / MID" starts here
    double ruleY = 0;
};

struct TagRow {
    QRectF row;
    QRectF band; // where a drag aims at the row: a little above and below it too
    QRectF field;
    QRectF statusSquare;
    double textX = 0;
    double textRoom = 0; // the widest tag name that fits without shortening
    QPointF chevron;     // the middle of the "v"
    QRectF button;
};

struct Zone {
    QRectF rect;
    QRectF inner; // the small ticks' frame
    QPointF centre;
    double headlineLine = 0;
    double hintLine = 0;
    double counterLine = 0;
    double processingLine = 0;
    double plusY = 0;
    double footerLine = 0;
    double footerLeft = 0;
    double footerRight = 0;
    std::vector<QRectF> dots;  // the dot grid
    std::vector<QRectF> cells; // the progress bar, left to right
};

struct Log {
    double headingLine = 0;
    double ruleY = 0;
    double ruleLeft = 0;
    double firstLine = 0;
    double left = 0;
    double right = 0; // statuses end here
};

struct Controls {
    double ruleY = 0;
    double top = 0;
    double labelLine = 0;
    QPointF intervalAt;
    QPointF levelAt;
    double levelLabelRight = 0;
};

struct Layout {
    QRectF bounds;
    Header header;
    TagRow tagRow;
    Zone zone;
    Log log;
    Controls controls;
};

Layout layout(QSizeF size, const Measures& measures);

// Adjoining segments from `at`, each its label's width plus padding on both sides.
std::vector<QRectF> segmentRects(QPointF at, double height, const std::vector<double>& labelWidths);

// The grid of dots inside the drop zone, column by column.
std::vector<QPointF> dotGrid(const QRectF& zone);

// How many of the progress bar's cells are lit: none for an empty batch, all
// once done reaches the total.
int filledCells(long long done, long long total);
QRectF progressCell(QPointF centre, int index);

// The first log entry shown, so that only the last few are.
long long firstShownLogLine(long long count);

} // namespace HUDLayout
