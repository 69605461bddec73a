// Small drawing conventions shared by the view's painting files.
#pragma once

#include <QColor>
#include <QPainter>
#include <QPen>

namespace Drawing {

// Rules and outlines end flush with their points and meet in sharp corners.
inline QPen pen(const QColor& color, double width = 1) {
    return QPen(color, width, Qt::SolidLine, Qt::FlatCap, Qt::MiterJoin);
}

inline void rule(QPainter& painter, QPointF from, QPointF to, const QColor& color,
                 double width = 1) {
    painter.setPen(pen(color, width));
    painter.drawLine(from, to);
}

// Inside the rectangle, `width` wide.
inline void outline(QPainter& painter, const QRectF& rect, const QColor& color, double width = 1) {
    const double in = width / 2;
    painter.setPen(pen(color, width));
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(rect.adjusted(in, in, -in, -in));
}

inline QColor withAlpha(QColor color, double alpha) {
    color.setAlphaF(static_cast<float>(alpha));
    return color;
}

} // namespace Drawing
