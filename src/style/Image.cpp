// Loading, tinting and drawing the SVG resources.
#include "style/Image.h"

#include "platform/Resources.h"

#include <QFileInfo>
#include <QPainter>
#include <QSvgRenderer>
#include <cmath>

namespace Style {

namespace {

std::shared_ptr<QSvgRenderer> load(const QString& name) {
    const QString path = Resources::path(name + QStringLiteral(".svg"));
    if (!QFileInfo(path).isFile())
        return nullptr;
    auto svg = std::make_shared<QSvgRenderer>(path);
    if (!svg->isValid())
        return nullptr;
    svg->setAspectRatioMode(Qt::IgnoreAspectRatio);
    return svg;
}

} // namespace

Image::Image(std::shared_ptr<QSvgRenderer> svg, std::optional<QColor> tint)
    : m_svg(std::move(svg))
    , m_tint(std::move(tint)) {
    const QRectF box = m_svg->viewBoxF();
    m_size = box.isValid() ? box.size() : QSizeF(m_svg->defaultSize());
}

QImage Image::raster(const QSize& pixels, qreal dpr) const {
    QImage out(pixels, QImage::Format_ARGB32_Premultiplied);
    out.setDevicePixelRatio(dpr);
    out.fill(Qt::transparent);
    QPainter painter(&out);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF whole(QPointF(0, 0), QSizeF(pixels) / dpr);
    m_svg->render(&painter, whole);
    if (m_tint) {
        painter.setCompositionMode(QPainter::CompositionMode_SourceAtop);
        painter.fillRect(whole, *m_tint);
    }
    return out;
}

void Image::draw(QPainter& painter, const QRectF& target) const {
    const qreal dpr = painter.device() ? painter.device()->devicePixelRatioF() : 1.0;
    const QSize pixels(std::max(1, static_cast<int>(std::ceil(target.width() * dpr))),
                       std::max(1, static_cast<int>(std::ceil(target.height() * dpr))));
    if (!m_cache || m_cache->size() != pixels || m_cache->devicePixelRatio() != dpr)
        m_cache = std::make_shared<QImage>(raster(pixels, dpr));
    painter.drawImage(target, *m_cache);
}

std::optional<Image> image(const QString& name) {
    if (auto svg = load(name))
        return Image(std::move(svg), std::nullopt);
    return std::nullopt;
}

std::optional<Image> tinted(const QString& name, const QColor& colour) {
    if (auto svg = load(name))
        return Image(std::move(svg), colour);
    return std::nullopt;
}

} // namespace Style
