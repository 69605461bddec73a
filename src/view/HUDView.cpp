// The view's state, its construction, the blink timer and the paint entry.
#include "view/HUDView.h"

#include "base/TagError.h"
#include "model/Settings.h"
#include "model/Tags.h"
#include "style/Fonts.h"
#include "style/Palette.h"

#include <QPaintEvent>
#include <QPainter>
#include <QTimer>

using namespace Style;

HUDView::HUDView(Services services, QWidget* parent)
    : QWidget(parent)
    , m_services(services)
    , m_settings(services.preferences)
    , m_tags(services.preferences, services.trash)
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

void HUDView::logFailure(const TagError& error) {
    m_state.log.push_back({error.action(), error.reason(), errColor});
    update();
}

void HUDView::tick() {
    m_state.blink = !m_state.blink;
    // The cursors show only in the empty log and while a batch runs; otherwise a
    // pass would draw the same picture again.
    if (m_state.log.empty() || m_state.busy)
        update();
}

// Everything the drawing shows that takes measuring or reading the settings is
// done here, so a pass only paints.
void HUDView::relayout() {
    HUDLayout::Content content;
    if (m_logo)
        content.logo = m_logo->size();
    content.intervalIndex = m_settings.intervalIndex();
    content.levelIndex = m_settings.levelIndex();
    if (m_tag)
        content.tagName = Tags::name(*m_tag);
    m_layout = HUDLayout::layout(QSizeF(QWidget::size()), content, &HUDView::width);
    m_logRows.clear();
}

void HUDView::resizeEvent(QResizeEvent*) {
    relayout();
}

void HUDView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    draw(painter);
}

QImage HUDView::snapshot(qreal devicePixelRatio) {
    // A hidden widget gets its resize event only when shown.
    if (m_layout.bounds.size() != QSizeF(QWidget::size()))
        relayout();
    QImage out(QWidget::size() * devicePixelRatio, QImage::Format_ARGB32_Premultiplied);
    out.setDevicePixelRatio(devicePixelRatio);
    {
        QPainter painter(&out);
        draw(painter);
    }
    return out;
}
