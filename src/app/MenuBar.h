// The window's menu bar and what it opens: the application menu (About, Hide,
// Quit) and "Window" (Minimize, Close), with Ctrl shortcuts.
#pragma once

#include <QIcon>

class QMainWindow;
class QWidget;

void installMenuBar(QMainWindow& window);

// The standard about box: the program's name, version and icon. Returns at
// once; the box closes itself.
void showAbout(QWidget& parent);

// The program's icon, from where the build and the installation put it.
QIcon applicationIcon();
