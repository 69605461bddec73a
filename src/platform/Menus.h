// Pop-up menus, behind an interface: a real menu runs its own modal loop, which
// never ends under the offscreen platform, so tests hand in a scripted one.
#pragma once

#include <QPointF>
#include <QString>
#include <memory>
#include <optional>
#include <vector>

class QMenu;
class QWidget;

struct MenuItem {
    QString title;
    bool checked = false;   // shows a check mark
    bool separator = false; // a line between groups; never chosen
    // The letter that picks it from the keyboard, by its index in the title.
    qsizetype mnemonic = -1;

    static MenuItem separatorItem() {
        MenuItem item;
        item.separator = true;
        return item;
    }
};

class Menus {
public:
    virtual ~Menus() = default;
    // Shows the items at `at` in `over`'s coordinates and returns once the menu
    // closes: the index of the chosen item, or none when it was dismissed.
    virtual std::optional<int> popUp(const std::vector<MenuItem>& items, QWidget& over,
                                     QPointF at) = 0;
};

// A menu that is dismissed without showing.
Menus& noMenus();
// Qt's own pop-up menus.
std::unique_ptr<Menus> makeQtMenus();

// The menu that makeQtMenus() shows for `items`; each action's data is its item's index.
std::unique_ptr<QMenu> buildMenu(const std::vector<MenuItem>& items);
// `title` as Qt's menus read it: its ampersands shown as such and the letter
// at `mnemonic`, if any, underlined.
QString menuText(const QString& title, qsizetype mnemonic);
