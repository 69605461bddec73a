// Vector images from the resources, drawn as they are or recoloured by a
// palette colour (source-atop: the colour lands only where the image has ink).
#pragma once

#include <QColor>
#include <QImage>
#include <QRectF>
#include <QSizeF>
#include <memory>
#include <optional>

class QPainter;
class QSvgRenderer;

namespace Style {

class Image {
public:
    // The image's own size in points, as the file reports it.
    QSizeF size() const { return m_size; }
    void draw(QPainter& painter, const QRectF& target) const;

private:
    friend std::optional<Image> image(const QString& name);
    friend std::optional<Image> tinted(const QString& name, const QColor& colour);

    Image(std::shared_ptr<QSvgRenderer> svg, std::optional<QColor> tint);
    QImage raster(const QSize& pixels, qreal dpr) const;

    std::shared_ptr<QSvgRenderer> m_svg;
    std::optional<QColor> m_tint;
    QSizeF m_size;
    // Rendering the SVG and compositing the tint costs far more than drawing a
    // bitmap, and the view draws the same image at the same size every pass.
    mutable std::shared_ptr<QImage> m_cache;
};

// The resource NAME.svg; none when it is missing or unreadable.
std::optional<Image> image(const QString& name);
std::optional<Image> tinted(const QString& name, const QColor& colour);

} // namespace Style
