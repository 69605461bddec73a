// Clicks: the regions the last drawing pass registered, then the drop zone,
// which asks for a tag clip first and for tracks once there is one.
#include "view/HUDView.h"

#include "base/TagError.h"
#include "platform/OpenPanels.h"

#include <QMouseEvent>

void HUDView::mousePressEvent(QMouseEvent* event) {
    if (event->button() == Qt::LeftButton)
        click(event->position());
}

void HUDView::click(QPointF at) {
    if (m_state.busy)
        return;
    for (const Hit& hit : m_hits) {
        if (!HUDLayout::contains(hit.rect, at))
            continue;
        // A menu opened by the action repaints while it shows, which rebuilds m_hits.
        const std::function<void()> action = hit.action;
        // What a click writes (a setting, the selection) may fail to be saved.
        try {
            action();
        } catch (const TagError& error) {
            logFailure(error);
        }
        update();
        return;
    }
    if (!HUDLayout::contains(zoneRect(), at))
        return;
    // The zone asks for what it showed; had that changed unseen, the click
    // only shows the change, rather than opening a chooser the zone never offered.
    if (refreshTag())
        return;
    if (!m_tag) {
        chooseTag();
        return;
    }
    if (const std::optional<QStringList> chosen = m_services.panels.chooseTracks(*this))
        start(*chosen);
}
