// Pop-up menus with Qt's QMenu.
#include "platform/Menus.h"

#include <QMenu>
#include <QWidget>

QString menuText(const QString& title, qsizetype mnemonic) {
    QString text;
    for (qsizetype i = 0; i < title.size(); ++i) {
        if (i == mnemonic || title[i] == QLatin1Char('&'))
            text += QLatin1Char('&');
        text += title[i];
    }
    return text;
}

std::unique_ptr<QMenu> buildMenu(const std::vector<MenuItem>& items) {
    auto menu = std::make_unique<QMenu>();
    for (std::size_t i = 0; i < items.size(); ++i) {
        const MenuItem& item = items[i];
        if (item.separator) {
            menu->addSeparator();
            continue;
        }
        QAction* action = menu->addAction(menuText(item.title, item.mnemonic));
        action->setData(static_cast<int>(i));
        // Only a marked item is checkable: an unchecked one would show an empty box.
        action->setCheckable(item.checked);
        action->setChecked(item.checked);
    }
    return menu;
}

namespace {

class QtMenus final : public Menus {
public:
    std::optional<int> popUp(const std::vector<MenuItem>& items, QWidget& over,
                             QPointF at) override {
        const std::unique_ptr<QMenu> menu = buildMenu(items);
        const QAction* chosen = menu->exec(over.mapToGlobal(at).toPoint());
        if (!chosen)
            return std::nullopt;
        return chosen->data().toInt();
    }
};

class NoMenus final : public Menus {
public:
    std::optional<int> popUp(const std::vector<MenuItem>&, QWidget&, QPointF) override {
        return std::nullopt;
    }
};

} // namespace

Menus& noMenus() {
    static NoMenus none;
    return none;
}

std::unique_ptr<Menus> makeQtMenus() {
    return std::make_unique<QtMenus>();
}
