// The application's delegate: builds the window and the view at launch, hands
// files opened from the shell to the view, and writes a snapshot when asked.
#pragma once

#include <QObject>
#include <QStringList>
#include <memory>
#include <optional>

class FileViewer;
class HUDView;
class Menus;
class OpenPanels;
class Preferences;
class QMainWindow;
class Sounds;
class Trash;
class WindowController;

// What the command line asks for: files to process and an optional snapshot,
// or only the help or the version, or nothing at all when it is wrong.
struct LaunchOptions {
    QStringList files; // absolute paths, in the order given
    std::optional<QString> snapshot;
    bool help = false;
    bool version = false;
    QString error; // one line naming what is wrong; empty for a good command line
};

// `arguments` starts with the program path. The first "--snapshot PATH" asks
// for a snapshot (later ones are ignored); "--" makes every later argument a file.
LaunchOptions parseArguments(const QStringList& arguments);
QString launchUsage();

class AppDelegate : public QObject {
public:
    struct Services {
        std::unique_ptr<Sounds> sounds;
        std::unique_ptr<FileViewer> fileViewer;
        std::unique_ptr<Preferences> preferences;
        std::unique_ptr<Trash> trash;
        std::unique_ptr<Menus> menus;
        std::unique_ptr<OpenPanels> panels;
    };

    AppDelegate(Services services, std::optional<QString> snapshot);
    ~AppDelegate() override;

    // Files opened from the shell: to the window once it exists, kept until then.
    void open(const QStringList& paths);
    void didFinishLaunching();
    // Brings the window to the front, out of the task bar if minimised.
    void activate();

    HUDView* hud() const { return m_hud; }
    WindowController* controller() const { return m_controller.get(); }
    QMainWindow* window() const { return m_window.get(); }

private:
    void buildWindow();
    // Quits with status 0 once written, or with 1 and the reason on standard error.
    void writeSnapshot(const QString& path);

    Services m_services;
    std::optional<QString> m_snapshot;
    std::unique_ptr<QMainWindow> m_window;
    HUDView* m_hud = nullptr; // owned by the window
    QStringList m_pending;
    // Declared last so that at quit its batch is stopped (its ffmpeg ended, the
    // partial output gone) and joined before the window goes.
    std::unique_ptr<WindowController> m_controller;
};

// The whole application in the dark: title bars, menus and dialogs included.
void applyDarkAppearance();
