// Where everything in the main view goes and what its texts say: pure geometry
// over the view's size, what it shows (the settings, the selected tag) and a
// text measure, computed when one of them changes. The drawing and the
// hit-testing only read it.
#pragma once

#include "style/TextStyles.h"

#include <QLineF>
#include <QPainterPath>
#include <QPointF>
#include <QRectF>
#include <QSizeF>
#include <QString>
#include <QStringList>
#include <functional>
#include <optional>
#include <vector>

namespace HUDLayout {

constexpr double kPad = 16;
constexpr double kControlHeight = 30;
constexpr double kLogLineStep = 20;
constexpr int kProgressCells = 30;
// Rules are one point wide: drawn half a point past a whole coordinate, they
// fill one row or column of pixels.
constexpr double kHairline = 0.5;

// Whether `point` lies in `rect`: its left and top edges belong to it, its
// right and bottom edges to what comes next.
bool contains(const QRectF& rect, QPointF point);

// The tag row and the drop zone, from the view's width.
QRectF tagRowRect(double width);
QRectF zoneRect(double width);

// A text's width in a style: its advances with the kern after every character
// but the last.
using Measure = std::function<double(const QString& text, const Style::TextStyle& style)>;

// One text in place: it starts at x, and its capital letters' middle sits on `line`.
struct Text {
    QString string;
    Style::TextStyle style = Style::smallText;
    double x = 0;
    double line = 0;
    double width = 0;
    double right() const { return x + width; }
};

// Whether x is where the text starts, ends, or has its middle.
enum class Align { at, rightTo, centredOn };
Text place(const QString& string, const Style::TextStyle& style, double x, double line, Align align,
           const Measure& measure);

// Drops the last two characters and appends "…" until `fits` or fewer than
// `minimum` characters remain; characters as the reader sees them.
using Fits = std::function<bool(const QString&)>;
QString shortened(const QString& text, int minimum, const Fits& fits);

// A row of adjoining segments in one outline, each its label's width plus
// padding on both sides, the label centred in it.
struct Segments {
    std::vector<QRectF> rects;
    std::vector<Text> labels;
    std::optional<int> selected;
    QRectF outline;
};

// What the view shows that moves or sizes things, besides its own size.
struct Content {
    std::optional<QSizeF> logo;     // the logo's own size, none without a logo
    int intervalIndex = 1;          // into Settings::intervals
    int levelIndex = 1;             // into Settings::levels
    std::optional<QString> tagName; // the selected clip's name, none without one
};

struct Header {
    std::optional<QRectF> logo;
    Text title;    // "ODRAVEX"
    Text subtitle; // "ZELKOR"
    QRectF plate;
    Text every; // "EVERY / 30S"
    Text level; // "LEVEL / MID"
    QLineF rule;
};

struct TagRow {
    QRectF row;
    QRectF band; // where a drag aims at the row: a little above and below it too
    Text label;  // "TAG"
    QRectF field;
    QRectF statusSquare;
    Text text;      // the selected clip's name, or the call for one, shortened to fit
    Text hoverText; // while a clip is dragged over the row
    QPainterPath chevron;
    Segments addTag; // the "+ ADD TAG" button
};

struct Zone {
    QRectF rect;
    QRectF inner; // the small ticks' frame
    QPointF centre;
    std::vector<QRectF> dots; // the dot grid
    QPainterPath brackets;    // at the zone's corners
    QPainterPath ticks;       // at the inner frame's corners
    QLineF plusAcross;
    QLineF plusDown;
    Text headline;      // "DROP", or "ADD A TAG" without a tag
    Text hoverHeadline; // "RELEASE", or "ADD A TAG"
    Text hint;
    double counterLine = 0; // the busy counter, centred on the middle
    // Placed with the cursor in both phases, so the word stays still.
    Text processing;
    Text processingWithCursor;
    std::vector<QRectF> cells; // the progress bar, left to right
    Text footer;               // "EVERY 30S // MID"
    Text saves;                // "SAVES NEXT TO ORIGINAL"
};

struct Log {
    Text heading; // "LOG"
    QLineF rule;
    Text waiting; // the empty log's line
    Text waitingWithCursor;
    double firstLine = 0;
    double left = 0;
    double right = 0; // statuses end here
};

struct Controls {
    QLineF rule;
    Text intervalLabel; // "INTERVAL"
    Segments intervals;
    Text levelLabel; // "LEVEL"
    Segments levels;
};

struct Layout {
    QRectF bounds;
    Header header;
    TagRow tagRow;
    Zone zone;
    Log log;
    Controls controls;
};

Layout layout(QSizeF size, const Content& content, const Measure& measure);

// One log entry: "> " and its text, shortened to leave room before its status,
// which ends at the log's right edge. Laid out on line 0: the entry moves up
// as later ones come, its widths stay.
struct LogRow {
    Text text;
    Text status;
};
LogRow logRow(const Log& log, const QString& text, const QString& status, const Measure& measure);

// How many of the progress bar's cells are lit: none for an empty batch, all
// once done (the running tracks' shares included) reaches the total.
int filledCells(double done, long long total);

// The first log entry shown, so that only the last few are.
long long firstShownLogLine(long long count);

// The controls the keyboard visits, in reading order: the tag field, "+ ADD
// TAG", the drop zone, the interval segments, the level segments.
std::vector<QRectF> focusOrder(const Layout& layout);

// How much a view of `view` is drawn scaled so that its window, `frame` with
// the view at full size, fits in `available`: 1 when it fits; the rest of the
// frame (title bar, menu bar) keeps its size.
double fitScale(QSizeF view, QSizeF frame, QSizeF available);

} // namespace HUDLayout
