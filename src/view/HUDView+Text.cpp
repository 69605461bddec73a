// Text helpers: attributes, widths, placement to the point and shortening.
#include "view/HUDView.h"

#include <QFontMetricsF>
#include <QPainter>
#include <QTextBoundaryFinder>

namespace {

const QString kEllipsis = QStringLiteral("\u2026");

// Boundaries of the characters a reader sees (accents and emoji stay whole).
std::vector<qsizetype> graphemeEnds(const QString& text) {
    std::vector<qsizetype> ends;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Grapheme, text);
    for (qsizetype at = finder.toNextBoundary(); at > 0; at = finder.toNextBoundary())
        ends.push_back(at);
    return ends;
}

// Qt adds the spacing after the last character too, rounded to 1/64 px.
double kernedWidth(const QFontMetricsF& metrics, double spacing, const QString& text) {
    const double advance = metrics.horizontalAdvance(text);
    return text.isEmpty() ? advance : advance - spacing;
}

} // namespace

HUDView::TextAttributes HUDView::attrs(const QFont& font, const QColor& color, double kern) {
    TextAttributes out{font, color, kern};
    out.font.setLetterSpacing(QFont::AbsoluteSpacing, kern);
    return out;
}

double HUDView::width(const QString& text, const QFont& font, double kern) {
    const TextAttributes measured = attrs(font, Qt::white, kern);
    return kernedWidth(QFontMetricsF(measured.font), measured.font.letterSpacing(), text);
}

void HUDView::drawText(QPainter& painter, const QString& text, const TextAttributes& attributes,
                       double x, double line, Align align) {
    double left = x;
    if (align != Align::at) {
        const double w = width(text, attributes.font, attributes.kern);
        left = align == Align::rightTo ? x - w : x - w / 2;
    }
    const double baseline = line + QFontMetricsF(attributes.font).capHeight() / 2;
    painter.setFont(attributes.font);
    painter.setPen(attributes.color);
    painter.drawText(QPointF(left, baseline), text);
}

QString HUDView::shortened(const QString& text, int minimum,
                           const std::function<bool(const QString&)>& fits) {
    if (fits(text))
        return text;
    // Each round of the rule drops the "…" of the round before and one more
    // character, so round j keeps n - 1 - j characters and adds "…"; rounds go on
    // while the text has `minimum` characters or more.
    const std::vector<qsizetype> ends = graphemeEnds(text);
    const auto n = static_cast<long long>(ends.size());
    const long long last = n >= minimum ? n - minimum + 1 : 0;
    if (last < 1)
        return text;
    auto round = [&](long long j) {
        const long long kept = n - 1 - j;
        return text.left(kept > 0 ? ends[static_cast<std::size_t>(kept - 1)] : 0) + kEllipsis;
    };
    // Fewer characters are never wider, so the first round that fits is found
    // by bisection instead of measuring every round of a long name.
    long long low = 1;
    long long high = last;
    while (low < high) {
        const long long middle = low + (high - low) / 2;
        if (fits(round(middle)))
            high = middle;
        else
            low = middle + 1;
    }
    return round(low);
}

HUDView::Fits HUDView::fitsWithin(const QFont& font, double kern, double room) {
    const TextAttributes measured = attrs(font, Qt::white, kern);
    return [metrics = QFontMetricsF(measured.font), spacing = measured.font.letterSpacing(),
            room](const QString& candidate) {
        return kernedWidth(metrics, spacing, candidate) <= room;
    };
}
