// The drawing pass: background, header, log panel and the settings row; the
// tag row and the drop zone have their own file.
#include "view/HUDView.h"

#include "model/Settings.h"
#include "style/Palette.h"
#include "view/Drawing.h"

using namespace Style;
using Drawing::rule;

namespace {

constexpr double kLogTextAlpha = 0.82;

} // namespace

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
    const auto count = static_cast<long long>(m_state.log.size());
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
    segmented(painter, c.intervals, [this](int index) {
        m_settings.setIntervalIndex(index);
        relayout();
    });
    drawText(painter, c.levelLabel, dim);
    segmented(painter, c.levels, [this](int index) {
        m_settings.setLevelIndex(index);
        relayout();
    });
}
