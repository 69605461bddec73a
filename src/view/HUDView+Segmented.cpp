// The segmented control: adjoining text segments in one outline, the selected
// one filled, each registering its own click region.
#include "view/HUDView.h"

#include "style/Palette.h"
#include "view/Drawing.h"

using namespace Style;

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
