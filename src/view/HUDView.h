// The main view: the whole user interface, drawn by itself. Its state lives
// here; each concern has its own HUDView+Concern.cpp.
#pragma once

#include "view/HUDLayout.h"
#include "view/LogLine.h"

#include "model/Settings.h"
#include "model/Tags.h"
#include "platform/Menus.h"
#include "platform/OpenPanels.h"
#include "style/Image.h"

#include <QImage>
#include <QStringList>
#include <QWidget>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

class Batch;
class FileViewer;
class Preferences;
class QFileSystemWatcher;
class QMimeData;
class QTimer;
class Sounds;
class TagError;
class Trash;

class HUDView : public QWidget {
public:
    // The desktop services the view asks for; owned by the caller, outliving the
    // view. A view given no menus and panels (to be drawn only) opens none.
    struct Services {
        Sounds& sounds;
        FileViewer& fileViewer;
        Preferences& preferences;
        Trash& trash;
        // Where the caller keeps the view's batch, so that the caller decides when
        // a running batch is stopped and its thread joined.
        std::unique_ptr<Batch>& batch;
        Menus& menus = noMenus();
        OpenPanels& panels = noPanels();
    };

    struct Progress {
        long long done = 0;
        long long total = 0;
        bool operator==(const Progress&) const = default;
    };

    struct State {
        bool hoverZone = false; // a drag that would start a batch is over the zone
        bool hoverTag = false;  // a drag that would add a tag clip is over the tag row
        bool busy = false;
        Progress progress;
        std::vector<LogLine> log; // oldest first, never trimmed
        bool blink = true;        // the blinking cursors' phase
    };

    struct Hit {
        QRectF rect;
        std::function<void()> action;
    };

    static constexpr QSize kSize{600, 640};
    static constexpr int kBlinkIntervalMs = 550;

    explicit HUDView(Services services, QWidget* parent = nullptr);

    const State& state() const { return m_state; }
    // Shows a given state as it is (hover flags, a log, a batch's progress).
    void setState(State state);

    // Rebuilt by every drawing pass: the tag field, "+ ADD TAG", the interval
    // segments, the level segments. Empty after a pass drawn while busy.
    const std::vector<Hit>& hits() const { return m_hits; }
    // Made when the size, the settings or the selected tag change; fonts are
    // registered before any view exists.
    const HUDLayout::Layout& layout() const { return m_layout; }
    QRectF tagRowRect() const { return m_layout.tagRow.row; }
    QRectF zoneRect() const { return m_layout.zone.rect; }

    // Expands files and folders into tracks and tags them in the background,
    // one at a time, logging each; ignored while a batch runs.
    void start(const QStringList& paths);
    // Reads the selected tag clip again and redraws when it changed; the drawing
    // uses what was read last. The view calls it itself whenever the library or
    // the preferences change on disk, and when its window is activated.
    bool refreshTag();
    // A write that failed outside the view's own actions (the window's frame,
    // say) gets its line in the log.
    void logFailure(const TagError& error);

    // The whole view drawn into an image, as on screen.
    QImage snapshot(qreal devicePixelRatio);

    // Text helpers: every text is drawn in a style (font, size, kern added after
    // each character) and a colour; its width leaves out the kern after the last
    // character. width() is the layout's measure.
    static double width(const QString& text, const Style::TextStyle& style);
    static void drawText(QPainter& painter, const HUDLayout::Text& text, const QColor& color);

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dragLeaveEvent(QDragLeaveEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    void draw(QPainter& painter);
    void drawHeader(QPainter& painter);
    void drawTagRow(QPainter& painter);
    void drawDropZone(QPainter& painter);
    void drawLog(QPainter& painter);
    void drawSettingsRow(QPainter& painter);
    void segmented(QPainter& painter, const HUDLayout::Segments& segments,
                   const std::function<void(int)>& action);
    const HUDLayout::LogRow& logRow(std::size_t index);

    void relayout();
    void tick();
    void watchTag();

    void click(QPointF at);

    void tagMenu(const QRectF& field);
    void chooseTag();
    void pickTag(const std::optional<QString>& clip);
    void removeTag(const QString& clip);
    void showTags();
    void addTag(const QString& path);

    // What a drop would do: start a batch (zone) or add a tag clip (tag), never both.
    struct DragTarget {
        bool zone = false;
        bool tag = false;
    };
    static QStringList urls(const QMimeData* data);
    DragTarget dragTarget(const QMimeData* data, QPointF at) const;
    bool dragOver(const QMimeData* data, QPointF at);

    void trackDone(const LogLine& line, long long done, long long total);
    void finishBatch(const QStringList& written);

    Services m_services;
    Settings m_settings;
    Tags m_tags;
    State m_state;
    std::vector<Hit> m_hits;
    std::optional<Style::Image> m_logo;
    std::optional<Style::Image> m_plate;
    std::optional<QString> m_tag;
    QFileSystemWatcher* m_tagWatch = nullptr;
    QImage m_grid; // the drop zone's dots, drawn once per size
    HUDLayout::Layout m_layout;
    // The log entries as shown, by index, each measured when first drawn.
    struct LogRowMeasured {
        QString text;
        QString status;
        HUDLayout::LogRow row;
    };
    std::vector<LogRowMeasured> m_logRows;
    QTimer* m_timer = nullptr;
};
