// The tag row (the selected clip, its menu and "+ ADD TAG") and the drop zone
// in each of its states: idle, hovered, without a tag, and busy; and keeping
// the selection they show in step with the library on disk.
#include "view/HUDView.h"

#include "model/Tags.h"
#include "platform/Preferences.h"
#include "style/Fonts.h"
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
    for (const QString& folder :
         {Tags::dir(), QFileInfo(Preferences::user().path()).absolutePath()})
        if (!m_tagWatch->directories().contains(folder) && QFileInfo(folder).isDir())
            m_tagWatch->addPath(folder);
    std::optional<QString> tag = Tags::selected();
    if (tag == m_tag)
        return false;
    m_tag = std::move(tag);
    update();
    return true;
}

void HUDView::drawTagRow(QPainter& painter) {
    const HUDLayout::TagRow& t = m_layout.tagRow;
    const QFont font = body(12);
    drawText(painter, QStringLiteral("TAG"), attrs(font, dim, 1.44), t.row.left(),
             t.row.center().y());

    const bool hover = m_state.hoverTag;
    if (hover)
        painter.fillRect(t.field, purpleSoft);
    Drawing::outline(painter, t.field, hover ? purple : lineStrong);

    QString text;
    if (hover)
        text = QStringLiteral("DROP TO ADD AS TAG");
    else if (!m_tag)
        text = QStringLiteral("NO TAG \u2014 ADD YOUR TAG FILE");
    else
        text = Tags::name(*m_tag);
    text = shortened(text, 5, fitsWithin(font, 1.2, t.textRoom));

    painter.fillRect(t.statusSquare, m_tag ? purple : lineStrong);
    drawText(painter, text, attrs(font, !m_tag && !hover ? dim : white, 1.2), t.textX,
             t.field.center().y());

    const QPointF c = t.chevron;
    QPainterPath chevron;
    chevron.moveTo(c.x() - 4, c.y() - 2);
    chevron.lineTo(c.x(), c.y() + 2);
    chevron.lineTo(c.x() + 4, c.y() - 2);
    strokePath(painter, chevron, dim, 1.2);

    if (!m_state.busy)
        m_hits.push_back({t.field, [this, field = t.field] { tagMenu(field); }});
    segmented(painter, {QStringLiteral("+ ADD TAG")}, std::nullopt, t.button.topLeft(),
              HUDLayout::kControlHeight, [this](int) { chooseTag(); });
}

void HUDView::drawDropZone(QPainter& painter, int interval, const QString& level) {
    const HUDLayout::Zone& z = m_layout.zone;
    const double mx = z.centre.x();
    if (m_state.hoverZone)
        painter.fillRect(z.rect, purpleSoft);

    // 612 specks cost more than the rest of the zone; drawn once, then copied.
    const qreal dpr = painter.device()->devicePixelRatioF();
    if (m_grid.isNull() || m_grid.devicePixelRatio() != dpr ||
        m_grid.size() != (z.rect.size() * dpr).toSize())
        m_grid = dotGridImage(z, dpr);
    painter.drawImage(z.rect.topLeft(), m_grid);

    const bool lit = m_state.hoverZone || m_state.busy;
    strokePath(painter, cornerBrackets(z.rect, 22),
               lit ? purple : Drawing::withAlpha(white, kBracketAlpha), 2);
    strokePath(painter, cornerBrackets(z.inner, 6), line, 1);

    const QFont small = body(12);
    if (m_state.busy) {
        const Progress& p = m_state.progress;
        drawText(painter, QString::asprintf("%02lld/%02lld", p.done, p.total),
                 attrs(head(40), white, 1.6), mx, z.counterLine, Align::centredOn);
        const QString processing = QStringLiteral("PROCESSING");
        const QString cursor = QStringLiteral(" _");
        // Centred with the cursor in both phases, so the word stays still.
        const double left = mx - width(processing + cursor, small, 1.2) / 2;
        drawText(painter, m_state.blink ? processing + cursor : processing,
                 attrs(small, purple, 1.2), left, z.processingLine);
        const int filled = HUDLayout::filledCells(p.done, p.total);
        for (int i = 0; i < HUDLayout::kProgressCells; ++i)
            painter.fillRect(z.cells[static_cast<std::size_t>(i)], i < filled ? purple : line);
    } else {
        Drawing::rule(painter, {mx - 14, z.plusY}, {mx + 14, z.plusY}, purple, 1.5);
        Drawing::rule(painter, {mx, z.plusY - 14}, {mx, z.plusY + 14}, purple, 1.5);
        QString headline = QStringLiteral("DROP");
        if (!m_tag)
            headline = QStringLiteral("ADD A TAG");
        else if (m_state.hoverZone)
            headline = QStringLiteral("RELEASE");
        drawText(painter, headline, attrs(head(40), white, 2.0), mx, z.headlineLine,
                 Align::centredOn);
        const QString hint =
            m_tag ? QStringLiteral("MP3 / WAV \u2014 ONE FILE OR MANY. OR CLICK TO CHOOSE")
                  : QStringLiteral("CLICK TO CHOOSE YOUR VOICE TAG FILE");
        drawText(painter, hint, attrs(small, dim, 1.2), mx, z.hintLine, Align::centredOn);
    }

    const TextAttributes footer = attrs(small, dim, 1.2);
    drawText(painter,
             QStringLiteral("EVERY ") + QString::number(interval) + QStringLiteral("S // ") + level,
             footer, z.footerLeft, z.footerLine);
    drawText(painter, QStringLiteral("SAVES NEXT TO ORIGINAL"), footer, z.footerRight, z.footerLine,
             Align::rightTo);
}
