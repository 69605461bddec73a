// The drawing pass: background, header, log panel and the settings row; the
// tag row and the drop zone have their own file.
#include "view/HUDView.h"

#include "model/Settings.h"
#include "style/Fonts.h"
#include "style/Palette.h"
#include "view/Drawing.h"

using namespace Style;
using Drawing::rule;

namespace {

constexpr double kLogTextAlpha = 0.82;

QString intervalLabel(double seconds) {
    return QString::number(static_cast<int>(seconds)) + QLatin1Char('S');
}

} // namespace

void HUDView::draw(QPainter& painter) {
    painter.setRenderHints(QPainter::Antialiasing | QPainter::TextAntialiasing |
                           QPainter::SmoothPixmapTransform);
    // A hidden widget gets its resize event only when shown; a snapshot may come first.
    if (m_layout.bounds.size() != QSizeF(QWidget::size()))
        relayout();
    painter.fillRect(m_layout.bounds, black);
    m_hits.clear();
    // Read once per pass: each read asks the preferences store.
    const int intervalIndex = m_settings.intervalIndex();
    const int levelIndex = m_settings.levelIndex();
    const int interval =
        static_cast<int>(Settings::intervals[static_cast<std::size_t>(intervalIndex)]);
    const QString level = Settings::levels[static_cast<std::size_t>(levelIndex)].name;
    drawHeader(painter, interval, level);
    drawTagRow(painter);
    drawDropZone(painter, interval, level);
    drawLog(painter);
    drawSettingsRow(painter, intervalIndex, levelIndex);
}

void HUDView::drawHeader(QPainter& painter, int interval, const QString& level) {
    const HUDLayout::Header& h = m_layout.header;
    if (m_logo && h.logo)
        m_logo->draw(painter, *h.logo);
    drawText(painter, QStringLiteral("ODRAVEX"), attrs(head(18), white, 0.9), h.titleX,
             h.titleLine);
    drawText(painter, QStringLiteral("ZELKOR"), attrs(body(13), dim, 1.56), h.subtitleX,
             h.titleLine);

    if (m_plate)
        m_plate->draw(painter, h.plate);
    const TextAttributes plateText = attrs(body(11), dim, 0.9);
    drawText(painter, QStringLiteral("EVERY / ") + QString::number(interval) + QLatin1Char('S'),
             plateText, h.everyRight, h.plateLine, Align::rightTo);
    drawText(painter, QStringLiteral("LEVEL / ") + level, plateText, h.levelLeft, h.plateLine);

    const double right = m_layout.bounds.right() - HUDLayout::kPad;
    rule(painter, {HUDLayout::kPad, h.ruleY}, {right, h.ruleY}, line);
}

void HUDView::drawLog(QPainter& painter) {
    const HUDLayout::Log& l = m_layout.log;
    drawText(painter, QStringLiteral("LOG"), attrs(head(14), white, 1.1), l.left, l.headingLine);
    rule(painter, {l.ruleLeft, l.ruleY}, {l.right, l.ruleY}, line);

    const QFont font = body(12);
    double y = l.firstLine;
    if (m_state.log.empty()) {
        const QString waiting = QStringLiteral("> WAITING FOR FILES");
        drawText(painter, m_state.blink ? waiting + QLatin1Char('_') : waiting,
                 attrs(font, dim, 1.2), l.left, y);
        return;
    }
    const TextAttributes text = attrs(font, Drawing::withAlpha(white, kLogTextAlpha), 0.6);
    const auto count = static_cast<long long>(m_state.log.size());
    for (long long i = HUDLayout::firstShownLogLine(count); i < count; ++i) {
        const LogLine& entry = m_state.log[static_cast<std::size_t>(i)];
        const double statusWidth = width(entry.status, font, 1.2);
        const double available = (l.right - l.left) - statusWidth - 16;
        const QString shown =
            shortened(QStringLiteral("> ") + entry.text, 7, fitsWithin(font, 0.6, available));
        drawText(painter, shown, text, l.left, y);
        drawText(painter, entry.status, attrs(font, entry.color, 1.2), l.right, y, Align::rightTo);
        y += HUDLayout::kLogLineStep;
    }
}

void HUDView::drawSettingsRow(QPainter& painter, int intervalIndex, int levelIndex) {
    const HUDLayout::Controls& c = m_layout.controls;
    const double right = m_layout.bounds.right() - HUDLayout::kPad;
    rule(painter, {HUDLayout::kPad, c.ruleY}, {right, c.ruleY}, line);

    const TextAttributes label = attrs(body(12), dim, 1.44);
    drawText(painter, QStringLiteral("INTERVAL"), label, HUDLayout::kPad, c.labelLine);
    QStringList intervals;
    for (const double seconds : Settings::intervals)
        intervals << intervalLabel(seconds);
    segmented(painter, intervals, intervalIndex, c.intervalAt, HUDLayout::kControlHeight,
              [this](int index) { m_settings.setIntervalIndex(index); });

    drawText(painter, QStringLiteral("LEVEL"), label, c.levelLabelRight, c.labelLine,
             Align::rightTo);
    QStringList levels;
    for (const Settings::Level& level : Settings::levels)
        levels << QString(level.name);
    segmented(painter, levels, levelIndex, c.levelAt, HUDLayout::kControlHeight,
              [this](int index) { m_settings.setLevelIndex(index); });
}
