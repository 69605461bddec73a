// What the window does: it owns the settings, the tag library and the batch,
// acts on what the view reports (clicks, drops, menus) and tells the view what
// changed. The view keeps what it shows; this keeps what is true.
#pragma once

#include "model/Settings.h"
#include "model/Tags.h"
#include "platform/Menus.h"
#include "platform/OpenPanels.h"
#include "view/LogLine.h"

#include <QObject>
#include <QPointer>
#include <QRectF>
#include <QStringList>
#include <functional>
#include <memory>
#include <optional>

class Batch;
class FileViewer;
class HUDView;
class Preferences;
class QFileSystemWatcher;
class Sounds;
class TagError;
class Trash;

class WindowController : public QObject {
    Q_OBJECT

public:
    // The desktop services it asks for; owned by the caller, outliving this.
    struct Services {
        Sounds& sounds;
        FileViewer& fileViewer;
        Preferences& preferences;
        Trash& trash;
        Menus& menus = noMenus();
        OpenPanels& panels = noPanels();
    };

    // Connects itself to `view` both ways and tells it the settings and the
    // selected tag at once.
    WindowController(HUDView& view, Services services, QObject* parent = nullptr);
    // Stops a running batch and waits for it: its ffmpeg ends, its partial output goes.
    ~WindowController() override;

    // Expands files and folders into tracks and tags them in the background,
    // one at a time, logging each; ignored while a batch runs.
    void start(const QStringList& paths);
    // Reads the selected tag clip again; true when it changed. Called whenever
    // the library or the preferences change on disk, and when the window is activated.
    bool refreshTag();
    // A write that failed outside the window's own actions (its frame, say).
    void logFailure(const TagError& error);

signals:
    void logged(const LogLine& line);
    void busyChanged(bool busy);
    void progressChanged(long long done, long long total);
    // The selected clip's name as shown, none without one.
    void tagChanged(const std::optional<QString>& name);
    void choicesChanged(int intervalIndex, int levelIndex);

private:
    void saveChoice(const std::function<void()>& write);
    void zoneClicked();

    void tagMenu(const QRectF& field);
    void chooseTag();
    void pickTag(const std::optional<QString>& clip);
    void removeTag(const QString& clip);
    void showTags();
    void addTag(const QString& path);

    void startBatch(const QStringList& tracks, const QString& tag);
    void trackDone(const LogLine& line, long long done, long long total);
    void finishBatch(const QStringList& written);

    void log(const LogLine& line);
    void watchTag();

    QPointer<HUDView> m_view;
    Services m_services;
    Settings m_settings;
    Tags m_tags;
    std::optional<QString> m_tag;      // the selected clip, as last read
    std::optional<QString> m_tagShown; // its name as the tag row shows it
    bool m_busy = false;               // a batch runs: starts are dropped until it ends
    QFileSystemWatcher* m_tagWatch = nullptr;
    // Last: at quit it is stopped and joined before anything it reports to goes.
    std::unique_ptr<Batch> m_batch;
};
