// The view's state, its construction, the blink timer, what it is told, and
// the paint entry.
#include "view/HUDView.h"

#include "style/Palette.h"
#include "view/HUDAccessible.h"

#include <QPaintEvent>
#include <QPainter>
#include <QTimer>

using namespace Style;

HUDView::HUDView(QWidget* parent)
    : QWidget(parent)
    , m_logo(image(QStringLiteral("logo")))
    , m_plate(tinted(QStringLiteral("panel-strip"), lineStrong)) {
    if (m_logo)
        m_content.logo = m_logo->size();
    resize(kSize);
    setAttribute(Qt::WA_OpaquePaintEvent);
    setAcceptDrops(true);
    setFocusPolicy(Qt::StrongFocus);
    HUDAccessible::install();
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

void HUDView::appendLog(const LogLine& line) {
    m_state.log.push_back(line);
    // Scrolled back, the entries being read stay where they are.
    if (m_state.logScroll > 0)
        ++m_state.logScroll;
    update();
}

void HUDView::setBusy(bool busy) {
    m_state.busy = busy;
    update();
}

void HUDView::setProgress(long long done, long long total) {
    m_state.progress = {done, total};
    update();
    HUDAccessible::progressChanged(*this);
}

void HUDView::setRunning(double running) {
    m_state.progress.running = running;
    update();
}

void HUDView::setTag(const std::optional<QString>& name) {
    m_content.tagName = name;
    relayout();
    update();
    HUDAccessible::tagChanged(*this);
}

void HUDView::setChoices(int intervalIndex, int levelIndex) {
    m_content.intervalIndex = intervalIndex;
    m_content.levelIndex = levelIndex;
    relayout();
    update();
}

void HUDView::tick() {
    m_state.blink = !m_state.blink;
    // The cursors show only in the empty log and while a batch runs; otherwise a
    // pass would draw the same picture again.
    if (m_state.log.empty() || m_state.busy)
        update();
}

// Everything the drawing shows that takes measuring is done here, so a pass only paints.
void HUDView::relayout() {
    m_layout = HUDLayout::layout(logicalSize(), m_content, &HUDView::width);
    m_logRows.clear();
}

void HUDView::resizeEvent(QResizeEvent*) {
    relayout();
}

void HUDView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.scale(m_scale, m_scale);
    draw(painter);
}

void HUDView::setScale(double scale) {
    m_scale = scale;
    setFixedSize((QSizeF(kSize) * scale).toSize());
    relayout();
    update();
}

QImage HUDView::snapshot(qreal devicePixelRatio) {
    // A hidden widget gets its resize event only when shown.
    if (m_layout.bounds.size() != logicalSize())
        relayout();
    QImage out((logicalSize() * devicePixelRatio).toSize(), QImage::Format_ARGB32_Premultiplied);
    out.setDevicePixelRatio(devicePixelRatio);
    {
        QPainter painter(&out);
        draw(painter);
    }
    return out;
}
