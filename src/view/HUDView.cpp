// The view's state, its construction, the blink timer and the paint entry.
#include "view/HUDView.h"

#include "model/Settings.h"
#include "style/Fonts.h"
#include "style/Palette.h"

#include <QPaintEvent>
#include <QPainter>
#include <QTimer>

using namespace Style;

HUDView::HUDView(Services services, QWidget* parent)
    : QWidget(parent)
    , m_services(services)
    , m_logo(image(QStringLiteral("logo")))
    , m_plate(tinted(QStringLiteral("panel-strip"), lineStrong)) {
    resize(kSize);
    setAttribute(Qt::WA_OpaquePaintEvent);
    setAcceptDrops(true);
    watchTag();
    relayout();
    // Parented to the view, so the timer never outlives it.
    m_timer = new QTimer(this);
    m_timer->setInterval(kBlinkIntervalMs);
    connect(m_timer, &QTimer::timeout, this, &HUDView::tick);
    m_timer->start();
}

void HUDView::setState(State state) {
    m_state = std::move(state);
    update();
}

void HUDView::tick() {
    m_state.blink = !m_state.blink;
    // The cursors show only in the empty log and while a batch runs; otherwise a
    // pass would draw the same picture again.
    if (m_state.log.empty() || m_state.busy)
        update();
}

// The fonts cannot change while the program runs, so their widths are taken
// once here instead of on every pass.
void HUDView::relayout() {
    HUDLayout::Measures measures;
    if (m_logo)
        measures.logo = m_logo->size();
    measures.titleWidth = width(QStringLiteral("ODRAVEX"), head(18), 0.9);
    const double padding = 2 * HUDLayout::kSegmentPadding;
    measures.addTagWidth = width(QStringLiteral("+ ADD TAG"), body(12), 1.2) + padding;
    for (const Settings::Level& level : Settings::levels)
        measures.levelControlWidth += width(QString(level.name), body(12), 1.2) + padding;
    m_layout = HUDLayout::layout(QSizeF(QWidget::size()), measures);
}

void HUDView::resizeEvent(QResizeEvent*) {
    relayout();
}

void HUDView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    draw(painter);
}

QImage HUDView::snapshot(qreal devicePixelRatio) {
    QImage out(QWidget::size() * devicePixelRatio, QImage::Format_ARGB32_Premultiplied);
    out.setDevicePixelRatio(devicePixelRatio);
    {
        QPainter painter(&out);
        draw(painter);
    }
    return out;
}
