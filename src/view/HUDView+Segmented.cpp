// The segmented control: adjoining text segments in one outline, the selected
// one filled, each registering its own click region.
#include "view/HUDView.h"

#include "style/Fonts.h"
#include "style/Palette.h"
#include "view/Drawing.h"

using namespace Style;

double HUDView::segmented(QPainter& painter, const QStringList& labels, std::optional<int> selected,
                          QPointF at, double height, const std::function<void(int)>& action) {
    constexpr double kKern = 1.2;
    const QFont font = body(12);
    std::vector<double> widths;
    for (const QString& label : labels)
        widths.push_back(width(label, font, kKern));
    const std::vector<QRectF> segments = HUDLayout::segmentRects(at, height, widths);

    double right = at.x();
    for (int i = 0; i < labels.size(); ++i) {
        const QRectF& r = segments[static_cast<std::size_t>(i)];
        QColor color = dim;
        if (selected == i) {
            painter.fillRect(r, white);
            color = black;
        }
        drawText(painter, labels[i], attrs(font, color, kKern), r.center().x(), r.center().y(),
                 Align::centredOn);
        if (i > 0)
            Drawing::rule(painter, {r.left() + 0.5, r.top()}, {r.left() + 0.5, r.bottom()},
                          lineStrong);
        if (!m_state.busy)
            m_hits.push_back({r, [action, i] { action(i); }});
        right = r.right();
    }
    Drawing::outline(painter, QRectF(at.x(), at.y(), right - at.x(), height), lineStrong);
    return right - at.x();
}
