// What the window does: it owns the settings, the tag library and the batch,
// acts on what the view reports (clicks, drops, menus) and tells the view what
// changed. The view keeps what it shows; this keeps what is true.
#pragma once

#include "engine/Engine.h"
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
#include <map>
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
    // one per core, logging each in track order. While a batch runs they join it, tagged after
    // its tracks with its clip and settings; while one stops, they start the next.
    void start(const QStringList& paths);
    // Ends the running track (its partial output goes) and begins no other; the
    // batch's last line says how many were left. Nothing without a batch.
    void stop();
    // How far the running track `track` of the batch's part now is, 0 to 1; the
    // bar fills by the shares of all that run.
    void trackProgress(qsizetype track, double fraction);
    bool busy() const { return m_busy; }
    // Reads the selected tag clip again; true when it changed. Called whenever
    // the library or the preferences change on disk, and when the window is activated.
    bool refreshTag();
    // A write that failed outside the window's own actions (its frame, say).
    void logFailure(const TagError& error);

signals:
    void logged(const LogLine& line);
    void busyChanged(bool busy);
    void progressChanged(long long done, long long total);
    // The batch's tracks done, the running one's share included, of its total.
    void fractionChanged(double done, long long total);
    // The batch's last line, once it has ended.
    void batchEnded(const LogLine& summary);
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
    void join(const QStringList& tracks);
    void runPart(Engine::Plan plan);
    void trackDone(qsizetype track, const LogLine& line, bool failed);
    void partEnded(const QStringList& written);
    void finishBatch();
    LogLine summary() const;

    void log(const LogLine& line);
    void watchTag();

    QPointer<HUDView> m_view;
    Services m_services;
    Settings m_settings;
    Tags m_tags;
    std::optional<QString> m_tag;      // the selected clip, as last read
    std::optional<QString> m_tagShown; // its name as the tag row shows it
    bool m_busy = false;               // a batch runs: starts join it until it ends
    // The batch as the user sees it. It runs in parts: the tracks handed over
    // while one part runs make the next, with the same job.
    struct Running {
        Engine::Job job;
        QStringList tracks; // every track given to it, so that none runs twice
        Engine::Plan queued;
        long long done = 0, total = 0, failed = 0;
        std::map<qsizetype, double> shares; // of the running tracks, by their index in the part
        QStringList written;
        bool stopping = false;
        QStringList afterStop; // handed over while it stopped: the next batch
    };
    Running m_run;
    int m_batches = 0; // numbers the batches' last lines
    QFileSystemWatcher* m_tagWatch = nullptr;
    // Last: at quit it is stopped and joined before anything it reports to goes.
    std::unique_ptr<Batch> m_batch;
};
