// The tag row (the selected clip, its menu and "+ ADD TAG") and the drop zone
// in each of its states: idle, hovered, without a tag, and busy; and keeping
// the selection they show in step with the library on disk.
#include "view/HUDView.h"

#include "model/Tags.h"
#include "platform/Preferences.h"
#include "style/Palette.h"
#include "view/Drawing.h"

#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QGuiApplication>
#include <QPainterPath>
#include <QWindow>

using namespace Style;

namespace {

const QColor kGridColor = rgb(0xFAFAFA, 0.07);
constexpr double kBracketAlpha = 0.85;
constexpr double kBracketStroke = 2;
constexpr double kPlusStroke = 1.5;
constexpr double kChevronStroke = 1.2;

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

// The drawing shows the clip read last rather than listing the library on
// every pass. zelkor-tag, a file manager or another window may change the
// library or the selection: the folders are watched (the preferences file is
// replaced by a rename, which only its folder sees), and coming back to the
// window reads again in case a change went unseen.
void HUDView::watchTag() {
    m_tagWatch = new QFileSystemWatcher(this);
    connect(m_tagWatch, &QFileSystemWatcher::directoryChanged, this, &HUDView::refreshTag);
    connect(qApp, &QGuiApplication::focusWindowChanged, this, [this](QWindow* focused) {
        if (focused && focused == window()->windowHandle())
            refreshTag();
    });
    refreshTag();
}

bool HUDView::refreshTag() {
    // A folder made or replaced since the last look is watched from now on.
    for (const QString& folder : {Tags::dir(), m_services.preferences.watchedFolder()})
        if (!folder.isEmpty() && !m_tagWatch->directories().contains(folder) &&
            QFileInfo(folder).isDir())
            m_tagWatch->addPath(folder);
    std::optional<QString> tag = m_tags.selected();
    if (tag == m_tag)
        return false;
    m_tag = std::move(tag);
    relayout();
    update();
    return true;
}

void HUDView::drawTagRow(QPainter& painter) {
    const HUDLayout::TagRow& t = m_layout.tagRow;
    drawText(painter, t.label, dim);

    const bool hover = m_state.hoverTag;
    if (hover)
        painter.fillRect(t.field, purpleSoft);
    Drawing::outline(painter, t.field, hover ? purple : lineStrong);

    painter.fillRect(t.statusSquare, m_tag ? purple : lineStrong);
    drawText(painter, hover ? t.hoverText : t.text, !m_tag && !hover ? dim : white);
    strokePath(painter, t.chevron, dim, kChevronStroke);

    if (!m_state.busy)
        m_hits.push_back({t.field, [this, field = t.field] { tagMenu(field); }});
    segmented(painter, t.addTag, [this](int) { chooseTag(); });
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
        const int filled = HUDLayout::filledCells(p.done, p.total);
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
