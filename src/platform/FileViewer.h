// "Show these files in the file manager", behind an interface so tests can
// record what the program asked to show.
#pragma once

#include <QStringList>
#include <functional>
#include <memory>

class FileViewer {
public:
    virtual ~FileViewer() = default;
    // Absolute paths, shown selected; returns at once.
    virtual void show(const QStringList& paths) = 0;
};

// org.freedesktop.FileManager1.ShowItems on the session bus, one call per
// folder with that folder's first file (see windowsFor); when no file manager
// answers within two seconds, the folder is opened instead.
std::unique_ptr<FileViewer> makeDesktopFileViewer();

// What one show asks the file manager for: a window per folder, each given
// its folder's first file in `paths`, folders in the order they first come.
// Thunar opens a window for every item of a call, even for files of one
// folder; Nautilus selects them all in one. One item per call is one window on both.
QStringList windowsFor(const QStringList& paths);

// Whether the folder handler that the desktop entry `id` (its text `entry`)
// runs may be handed a folder: only a program other than `self`, the running
// executable. `resolve` gives the real file behind a program's name or path.
bool isOtherProgram(const QString& id, const QString& entry, const QString& self,
                    const std::function<QString(const QString&)>& resolve);
