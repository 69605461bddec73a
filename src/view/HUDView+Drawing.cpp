// The drawing pass: background, header, tag row, drop zone in each of its
// states (idle, hovered, without a tag, busy), log panel and the settings row,
// with the segmented control and the text helpers they share.
#include "view/HUDView.h"

#include "style/Palette.h"
#include "view/Drawing.h"

#include <QFontMetricsF>
#include <QPainter>
#include <QPainterPath>

using namespace Style;
using Drawing::rule;

namespace {

constexpr double kLogTextAlpha = 0.82;

const QColor kGridColor = rgb(0xFAFAFA, 0.07);
constexpr double kBracketAlpha = 0.85;
constexpr double kBracketStroke = 2;
constexpr double kPlusStroke = 1.5;
constexpr double kChevronStroke = 1.2;
constexpr double kFocusStroke = 2;

QImage dotGridImage(const HUDLayout::Zone& z, qreal dpr) {
    QImage grid((z.rect.size() * dpr).toSize(), QImage::Format_ARGB32_Premultiplied);
    grid.setDevicePixelRatio(dpr);
    grid.fill(Qt::transparent);
    QPainter painter(&grid);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(-z.rect.topLeft());
    painter.setPen(Qt::NoPen);
    painter.setBrush(kGridColor);
    painter.drawRects(z.dots.data(), static_cast<int>(z.dots.size()));
    return grid;
}

void strokePath(QPainter& painter, const QPainterPath& path, const QColor& color, double width) {
    painter.setPen(Drawing::pen(color, width));
    painter.setBrush(Qt::NoBrush);
    painter.drawPath(path);
}

} // namespace

double HUDView::width(const QString& text, const Style::TextStyle& style) {
    const QFont font = Style::font(style);
    // Qt adds the spacing after the last character too, rounded to 1/64 px.
    const double advance = QFontMetricsF(font).horizontalAdvance(text);
    return text.isEmpty() ? advance : advance - font.letterSpacing();
}

void HUDView::drawText(QPainter& painter, const HUDLayout::Text& text, const QColor& color) {
    const QFont font = Style::font(text.style);
    const double baseline = text.line + QFontMetricsF(font).capHeight() / 2;
    painter.setFont(font);
    painter.setPen(color);
    painter.drawText(QPointF(text.x, baseline), text.string);
}

void HUDView::draw(QPainter& painter) {
    painter.setRenderHints(QPainter::Antialiasing | QPainter::TextAntialiasing |
                           QPainter::SmoothPixmapTransform);
    painter.fillRect(m_layout.bounds, black);
    m_hits.clear();
    drawHeader(painter);
    drawTagRow(painter);
    drawDropZone(painter);
    drawLog(painter);
    drawSettingsRow(painter);
    drawFocus(painter);
}

// A ring inside the control, over everything, so it reads on a selected
// segment's white as on the black.
void HUDView::drawFocus(QPainter& painter) {
    if (!m_focused)
        return;
    const std::vector<QRectF> controls = HUDLayout::focusOrder(m_layout);
    Drawing::outline(painter, controls.at(static_cast<std::size_t>(*m_focused)), purple,
                     kFocusStroke);
}

void HUDView::drawHeader(QPainter& painter) {
    const HUDLayout::Header& h = m_layout.header;
    if (m_logo && h.logo)
        m_logo->draw(painter, *h.logo);
    drawText(painter, h.title, white);
    drawText(painter, h.subtitle, dim);
    if (m_plate)
        m_plate->draw(painter, h.plate);
    drawText(painter, h.every, dim);
    drawText(painter, h.level, dim);
    rule(painter, h.rule.p1(), h.rule.p2(), line);
}

void HUDView::drawLog(QPainter& painter) {
    const HUDLayout::Log& l = m_layout.log;
    drawText(painter, l.heading, white);
    rule(painter, l.rule.p1(), l.rule.p2(), line);

    if (m_state.log.empty()) {
        drawText(painter, m_state.blink ? l.waitingWithCursor : l.waiting, dim);
        return;
    }
    const QColor textColour = Drawing::withAlpha(white, kLogTextAlpha);
    const auto count = static_cast<long long>(m_state.log.size()) - m_state.logScroll;
    double y = l.firstLine;
    for (long long i = HUDLayout::firstShownLogLine(count); i < count; ++i) {
        HUDLayout::LogRow row = logRow(static_cast<std::size_t>(i));
        row.text.line = row.status.line = y;
        drawText(painter, row.text, textColour);
        drawText(painter, row.status, m_state.log[static_cast<std::size_t>(i)].color);
        y += HUDLayout::kLogLineStep;
    }
}

// Log entries come and go without the view hearing of it (a batch appends
// them, setState replaces them), so each is measured when first shown.
const HUDLayout::LogRow& HUDView::logRow(std::size_t index) {
    const LogLine& entry = m_state.log[index];
    m_logRows.resize(m_state.log.size());
    LogRowMeasured& measured = m_logRows[index];
    if (measured.row.text.string.isNull() || measured.text != entry.text ||
        measured.status != entry.status)
        measured = {entry.text, entry.status,
                    HUDLayout::logRow(m_layout.log, entry.text, entry.status, &HUDView::width)};
    return measured.row;
}

void HUDView::drawSettingsRow(QPainter& painter) {
    const HUDLayout::Controls& c = m_layout.controls;
    rule(painter, c.rule.p1(), c.rule.p2(), line);
    drawText(painter, c.intervalLabel, dim);
    segmented(painter, c.intervals, [this](int index) { emit intervalChosen(index); });
    drawText(painter, c.levelLabel, dim);
    segmented(painter, c.levels, [this](int index) { emit levelChosen(index); });
}

void HUDView::segmented(QPainter& painter, const HUDLayout::Segments& segments,
                        const std::function<void(int)>& action) {
    for (std::size_t i = 0; i < segments.rects.size(); ++i) {
        const QRectF& r = segments.rects[i];
        const int index = static_cast<int>(i);
        QColor color = dim;
        if (segments.selected == index) {
            painter.fillRect(r, white);
            color = black;
        }
        drawText(painter, segments.labels[i], color);
        if (i > 0)
            Drawing::rule(painter, {r.left() + HUDLayout::kHairline, r.top()},
                          {r.left() + HUDLayout::kHairline, r.bottom()}, lineStrong);
        if (!m_state.busy)
            m_hits.push_back({r, [action, index] { action(index); }});
    }
    Drawing::outline(painter, segments.outline, lineStrong);
}

void HUDView::drawTagRow(QPainter& painter) {
    const HUDLayout::TagRow& t = m_layout.tagRow;
    drawText(painter, t.label, dim);

    const bool hover = m_state.hoverTag;
    const bool tagged = m_content.tagName.has_value();
    if (hover)
        painter.fillRect(t.field, purpleSoft);
    Drawing::outline(painter, t.field, hover ? purple : lineStrong);

    painter.fillRect(t.statusSquare, tagged ? purple : lineStrong);
    drawText(painter, hover ? t.hoverText : t.text, !tagged && !hover ? dim : white);
    strokePath(painter, t.chevron, dim, kChevronStroke);

    if (!m_state.busy)
        m_hits.push_back({t.field, [this, field = t.field] {
                              // Where the menu shows is the widget's own, scaled, place.
                              emit tagFieldClicked(
                                  QRectF(field.topLeft() * m_scale, field.size() * m_scale));
                          }});
    segmented(painter, t.addTag, [this](int) { emit addTagClicked(); });
}

void HUDView::drawDropZone(QPainter& painter) {
    const HUDLayout::Zone& z = m_layout.zone;
    if (m_state.hoverZone)
        painter.fillRect(z.rect, purpleSoft);

    // 612 specks cost more than the rest of the zone; drawn once, then copied.
    const qreal dpr = painter.device()->devicePixelRatioF();
    if (m_grid.isNull() || m_grid.devicePixelRatio() != dpr ||
        m_grid.size() != (z.rect.size() * dpr).toSize())
        m_grid = dotGridImage(z, dpr);
    painter.drawImage(z.rect.topLeft(), m_grid);

    const bool lit = m_state.hoverZone || m_state.busy;
    strokePath(painter, z.brackets, lit ? purple : Drawing::withAlpha(white, kBracketAlpha),
               kBracketStroke);
    strokePath(painter, z.ticks, line, 1);

    if (m_state.busy) {
        const Progress& p = m_state.progress;
        drawText(painter,
                 HUDLayout::place(QString::asprintf("%02lld/%02lld", p.done, p.total), counter,
                                  z.centre.x(), z.counterLine, HUDLayout::Align::centredOn,
                                  &HUDView::width),
                 white);
        drawText(painter, m_state.blink ? z.processingWithCursor : z.processing, purple);
        const int filled = HUDLayout::filledCells(static_cast<double>(p.done) + p.running, p.total);
        for (int i = 0; i < HUDLayout::kProgressCells; ++i)
            painter.fillRect(z.cells[static_cast<std::size_t>(i)], i < filled ? purple : line);
    } else {
        Drawing::rule(painter, z.plusAcross.p1(), z.plusAcross.p2(), purple, kPlusStroke);
        Drawing::rule(painter, z.plusDown.p1(), z.plusDown.p2(), purple, kPlusStroke);
        drawText(painter, m_state.hoverZone ? z.hoverHeadline : z.headline, white);
        drawText(painter, z.hint, dim);
    }

    drawText(painter, z.footer, dim);
    drawText(painter, z.saves, dim);
}
