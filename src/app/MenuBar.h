// The window's menu bar and what it opens: the application menu (About, Stop
// Batch, Hide, Quit) and "Window" (Minimize, Close), with Ctrl shortcuts.
#pragma once

#include <QIcon>

class QMainWindow;
class QWidget;
class WindowController;

// "Stop Batch" (Escape) stops `controller`'s batch, and is offered only while one runs.
void installMenuBar(QMainWindow& window, WindowController& controller);

// The standard about box: the program's name, version and icon. Returns at
// once; the box closes itself.
void showAbout(QWidget& parent);

// The program's icon, from where the build and the installation put it.
QIcon applicationIcon();
