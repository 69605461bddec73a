// The menu bar and the about box.
#include "app/MenuBar.h"

#include "app/WindowController.h"
#include "platform/AppName.h"
#include "platform/Menus.h"
#include "platform/Resources.h"

#include <QApplication>
#include <QMainWindow>
#include <QMenuBar>
#include <QMessageBox>

namespace {

constexpr int kAboutIconSize = 64;

QAction* addEntry(QMenu& menu, const QString& title, const QKeySequence& keys) {
    QAction* action = menu.addAction(title);
    action->setShortcut(keys);
    action->setMenuRole(QAction::NoRole);
    return action;
}

} // namespace

QIcon applicationIcon() {
    return QIcon(Resources::icon());
}

void installMenuBar(QMainWindow& window, WindowController& controller) {
    QMenuBar* bar = window.menuBar();
    QMenu* application = bar->addMenu(menuText(appName, 0));
    QObject::connect(addEntry(*application, QStringLiteral("&About ") + appName, {}),
                     &QAction::triggered, &window, [&window] { showAbout(window); });
    application->addSeparator();
    // Escape, as in any dialog; the window keeps no other use for it.
    QAction* stop =
        addEntry(*application, QStringLiteral("&Stop Batch"), QKeySequence(Qt::Key_Escape));
    stop->setEnabled(controller.busy());
    QObject::connect(stop, &QAction::triggered, &controller, &WindowController::stop);
    QObject::connect(&controller, &WindowController::busyChanged, stop, &QAction::setEnabled);
    QObject::connect(addEntry(*application, QStringLiteral("&Hide ") + appName,
                              QKeySequence(Qt::CTRL | Qt::Key_H)),
                     &QAction::triggered, &window, &QWidget::showMinimized);
    QObject::connect(addEntry(*application, QStringLiteral("&Quit ") + appName,
                              QKeySequence(Qt::CTRL | Qt::Key_Q)),
                     &QAction::triggered, qApp, &QCoreApplication::quit, Qt::QueuedConnection);

    // F10 opens the first menu, as in the desktop's other applications.
    auto* menuKey = new QAction(&window);
    menuKey->setShortcut(QKeySequence(Qt::Key_F10));
    window.addAction(menuKey);
    QObject::connect(menuKey, &QAction::triggered, bar,
                     [bar, application] { bar->setActiveAction(application->menuAction()); });

    QMenu* windowMenu = bar->addMenu(QStringLiteral("&Window"));
    QObject::connect(
        addEntry(*windowMenu, QStringLiteral("Mi&nimize"), QKeySequence(Qt::CTRL | Qt::Key_M)),
        &QAction::triggered, &window, &QWidget::showMinimized);
    QObject::connect(
        addEntry(*windowMenu, QStringLiteral("&Close"), QKeySequence(Qt::CTRL | Qt::Key_W)),
        &QAction::triggered, &window, &QWidget::close);
}

void showAbout(QWidget& parent) {
    auto* box = new QMessageBox(
        QMessageBox::NoIcon, QStringLiteral("About ") + appName,
        QStringLiteral("<b>%1</b><p>Version %2</p>").arg(appName, QStringLiteral(ZELKOR_VERSION)),
        QMessageBox::Ok, &parent);
    box->setIconPixmap(applicationIcon().pixmap(kAboutIconSize));
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->open();
}
