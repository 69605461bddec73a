// Input: clicks on the regions the last drawing pass registered, then on the
// drop zone; and dragged files, where one tag clip over the tag row's band is
// a clip to add and anything holding a track elsewhere a batch to start. The
// hover flags light the target while the drag is over the view.
#include "view/HUDView.h"

#include "base/Names.h"
#include "engine/Collect.h"
#include "model/Tags.h"
#include "view/HUDAccessible.h"

#include <QDragEnterEvent>
#include <QDragLeaveEvent>
#include <QDragMoveEvent>
#include <QDropEvent>
#include <QKeyEvent>
#include <QMimeData>
#include <QMouseEvent>
#include <QUrl>
#include <QWheelEvent>
#include <algorithm>

void HUDView::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton)
        return;
    // The ring is for the keyboard; a click puts it away.
    setFocused(std::nullopt);
    click(event->position() / m_scale);
}

// Tab goes round the view's own controls: it is the window's only widget.
bool HUDView::focusNextPrevChild(bool next) {
    const int count = static_cast<int>(HUDLayout::focusOrder(m_layout).size());
    int control = next ? 0 : count - 1;
    if (m_focused)
        control = (*m_focused + (next ? 1 : count - 1)) % count;
    setFocused(control);
    return true;
}

void HUDView::setFocused(std::optional<int> control) {
    if (control == m_focused)
        return;
    m_focused = control;
    update();
    if (m_focused)
        HUDAccessible::focusMoved(*this, *m_focused);
}

void HUDView::activate(int control) {
    click(HUDLayout::focusOrder(m_layout).at(static_cast<std::size_t>(control)).center());
}

void HUDView::keyPressEvent(QKeyEvent* event) {
    if (event->matches(QKeySequence::Open)) {
        // The drop zone's click: the track chooser, or the tag's first.
        if (!m_state.busy)
            emit zoneClicked();
        return;
    }
    const bool press = event->key() == Qt::Key_Space || event->key() == Qt::Key_Return ||
                       event->key() == Qt::Key_Enter;
    if (press && m_focused && (event->modifiers() & ~Qt::KeypadModifier) == Qt::NoModifier) {
        activate(*m_focused);
        return;
    }
    scrollKey(event);
}

void HUDView::click(QPointF at) {
    if (m_state.busy)
        return;
    for (const Hit& hit : m_hits) {
        if (!HUDLayout::contains(hit.rect, at))
            continue;
        // A menu opened by the action repaints while it shows, which rebuilds m_hits.
        const std::function<void()> action = hit.action;
        action();
        update();
        return;
    }
    if (HUDLayout::contains(zoneRect(), at))
        emit zoneClicked();
}

void HUDView::scrollLog(long long entries) {
    const long long oldest =
        HUDLayout::firstShownLogLine(static_cast<long long>(m_state.log.size()));
    const long long scroll = std::clamp(m_state.logScroll + entries, 0LL, oldest);
    if (scroll == m_state.logScroll)
        return;
    m_state.logScroll = scroll;
    update();
}

// A notch is one entry; a touchpad's small steps add up to one.
void HUDView::wheelEvent(QWheelEvent* event) {
    constexpr int kNotch = 120;
    m_wheel += event->angleDelta().y();
    scrollLog(m_wheel / kNotch);
    m_wheel %= kNotch;
    event->accept();
}

// The log's keys.
void HUDView::scrollKey(QKeyEvent* event) {
    constexpr long long kPage = 4; // the entries shown
    const long long all = static_cast<long long>(m_state.log.size());
    switch (event->key()) {
    case Qt::Key_Up:
        scrollLog(1);
        break;
    case Qt::Key_Down:
        scrollLog(-1);
        break;
    case Qt::Key_PageUp:
        scrollLog(kPage);
        break;
    case Qt::Key_PageDown:
        scrollLog(-kPage);
        break;
    case Qt::Key_Home:
        scrollLog(all);
        break;
    case Qt::Key_End:
        scrollLog(-all);
        break;
    default:
        QWidget::keyPressEvent(event);
        return;
    }
    event->accept();
}

// From the list's own bytes: QUrl decodes a name's escapes as UTF-8 and would turn a
// byte of a Latin-1 name into U+FFFD, the name of another file.
QStringList HUDView::urls(const QMimeData* data) {
    QStringList paths;
    if (!data)
        return paths;
    for (const QByteArray& line : data->data(QStringLiteral("text/uri-list")).split('\n')) {
        const QUrl url = QUrl::fromEncoded(line.trimmed());
        if (!url.isLocalFile())
            continue;
        if (url.host().isEmpty() || url.host() == QLatin1String("localhost"))
            paths << Names::decode(
                QByteArray::fromPercentEncoding(url.path(QUrl::FullyEncoded).toLatin1()));
        else
            paths << url.toLocalFile();
    }
    return paths;
}

// Nothing is cached between calls: each move reads the files again and, outside
// the band, looks into them again.
HUDView::DragTarget HUDView::dragTarget(const QMimeData* data, QPointF at) const {
    const QStringList paths = urls(data);
    if (HUDLayout::contains(m_layout.tagRow.band, at)) {
        return {.zone = false, .tag = paths.size() == 1 && Tags::isClip(paths.first())};
    }
    return {.zone = Engine::hasTracks(paths), .tag = false};
}

// Whether the drop would be taken; redraws only when the target changed.
bool HUDView::dragOver(const QMimeData* data, QPointF at) {
    if (m_state.busy)
        return false;
    const DragTarget target = dragTarget(data, at);
    if (target.zone != m_state.hoverZone || target.tag != m_state.hoverTag) {
        m_state.hoverZone = target.zone;
        m_state.hoverTag = target.tag;
        update();
    }
    return target.zone || target.tag;
}

namespace {

void answer(QDragMoveEvent* event, bool copy) {
    event->setDropAction(copy ? Qt::CopyAction : Qt::IgnoreAction);
    event->setAccepted(copy);
}

} // namespace

void HUDView::dragEnterEvent(QDragEnterEvent* event) {
    answer(event, dragOver(event->mimeData(), event->position() / m_scale));
    // Qt sends the moves, the drop and the leave only to a widget that took the
    // enter, and a drag refused where it came in may be wanted a little further
    // on. The move that Qt sends right after the enter carries the real answer.
    event->accept();
}

void HUDView::dragMoveEvent(QDragMoveEvent* event) {
    answer(event, dragOver(event->mimeData(), event->position() / m_scale));
}

void HUDView::dragLeaveEvent(QDragLeaveEvent*) {
    m_state.hoverZone = false;
    m_state.hoverTag = false;
    update();
}

void HUDView::dropEvent(QDropEvent* event) {
    const DragTarget target = dragTarget(event->mimeData(), event->position() / m_scale);
    m_state.hoverZone = false;
    m_state.hoverTag = false;
    const QStringList paths = urls(event->mimeData());
    event->setDropAction(Qt::CopyAction);
    event->accept();
    update();
    // Files handed over from the shell may have started a batch since the last move.
    if (m_state.busy)
        return;
    if (target.tag && !paths.isEmpty())
        emit clipDropped(paths.first());
    else
        emit itemsDropped(paths);
}
