// Text helpers: widths and drawing a placed text to the point.
#include "view/HUDView.h"

#include <QFontMetricsF>
#include <QPainter>

double HUDView::width(const QString& text, const Style::TextStyle& style) {
    const QFont font = Style::font(style);
    // Qt adds the spacing after the last character too, rounded to 1/64 px.
    const double advance = QFontMetricsF(font).horizontalAdvance(text);
    return text.isEmpty() ? advance : advance - font.letterSpacing();
}

void HUDView::drawText(QPainter& painter, const HUDLayout::Text& text, const QColor& color) {
    const QFont font = Style::font(text.style);
    const double baseline = text.line + QFontMetricsF(font).capHeight() / 2;
    painter.setFont(font);
    painter.setPen(color);
    painter.drawText(QPointF(text.x, baseline), text.string);
}
