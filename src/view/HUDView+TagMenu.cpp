// The tag menu under the tag field and what its items do: pick, add, remove
// and show the library's clips, each leaving its line in the log.
#include "view/HUDView.h"

#include "model/StatusTexts.h"
#include "model/Tags.h"
#include "platform/FileViewer.h"
#include "platform/Menus.h"
#include "platform/OpenPanels.h"
#include "style/Palette.h"

#include <QFileInfo>

using namespace Style;

namespace {

constexpr double kMenuGap = 4;

// The name as the user gave it: "Voice Tag.wav" -> "Voice Tag".
QString baseName(const QString& path) {
    return QFileInfo(path).completeBaseName();
}

} // namespace

void HUDView::tagMenu(const QRectF& field) {
    const std::optional<QString> selected = m_tags.selected();
    std::vector<MenuItem> items;
    std::vector<std::function<void()>> actions;
    auto add = [&](MenuItem item, std::function<void()> action) {
        items.push_back(std::move(item));
        actions.push_back(std::move(action));
    };
    const QStringList clips = Tags::all();
    for (const QString& clip : clips)
        add({.title = baseName(clip), .checked = clip == selected},
            [this, clip] { pickTag(clip); });
    if (!clips.isEmpty())
        add(MenuItem::separatorItem(), {});
    add({.title = QStringLiteral("Add Tag\u2026")}, [this] { chooseTag(); });
    if (selected)
        add({.title =
                 QStringLiteral("Remove \u201C") + baseName(*selected) + QStringLiteral("\u201D")},
            [this, clip = *selected] { removeTag(clip); });
    add({.title = QStringLiteral("Show Tags Folder")}, [this] { showTags(); });

    const std::optional<int> chosen =
        m_services.menus.popUp(items, *this, QPointF(field.left(), field.bottom() + kMenuGap));
    if (chosen && *chosen >= 0 && static_cast<std::size_t>(*chosen) < actions.size() &&
        actions[static_cast<std::size_t>(*chosen)])
        actions[static_cast<std::size_t>(*chosen)]();
}

void HUDView::chooseTag() {
    if (const std::optional<QString> chosen = m_services.panels.chooseTag(*this))
        addTag(*chosen);
}

void HUDView::pickTag(const std::optional<QString>& clip) {
    m_tags.setSelected(clip);
    refreshTag();
}

void HUDView::removeTag(const QString& clip) {
    m_tags.remove(clip);
    m_state.log.push_back({StatusTexts::tagRemoved(Tags::name(clip)), StatusTexts::kTrash, dim});
    refreshTag();
    update();
}

void HUDView::showTags() {
    const std::optional<QString> selected = m_tags.selected();
    m_services.fileViewer.show({selected ? *selected : Tags::dir()});
}

void HUDView::addTag(const QString& path) {
    try {
        const QString stored = m_tags.add(path);
        m_state.log.push_back(
            {StatusTexts::tagAdded(Tags::name(stored)), StatusTexts::kArmed, purple});
    } catch (...) {
        // The line names the file; the system's reason is not shown.
        m_state.log.push_back({QFileInfo(path).fileName(), StatusTexts::kCantAddTag, errColor});
    }
    refreshTag();
    update();
}
