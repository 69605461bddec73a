// The main view: the whole user interface, drawn by itself. Its state lives
// here; each concern has its own HUDView+Concern.cpp.
#pragma once

#include "view/HUDLayout.h"
#include "view/LogLine.h"

#include "platform/Menus.h"
#include "platform/OpenPanels.h"
#include "style/Image.h"

#include <QFont>
#include <QImage>
#include <QStringList>
#include <QWidget>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

class FileViewer;
class QFileSystemWatcher;
class QMimeData;
class QTimer;
class Sounds;

class HUDView : public QWidget {
public:
    // The desktop services the view asks for; owned by the caller, outliving the
    // view. A view given no menus and panels (to be drawn only) opens none.
    struct Services {
        Sounds& sounds;
        FileViewer& fileViewer;
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

    struct TextAttributes {
        QFont font; // carries the kern as its letter spacing
        QColor color;
        double kern = 0;
    };

    enum class Align { at, rightTo, centredOn };

    static constexpr QSize kSize{600, 640};
    static constexpr int kBlinkIntervalMs = 550;

    explicit HUDView(Services services, QWidget* parent = nullptr);
    ~HUDView() override;

    const State& state() const { return m_state; }
    // Shows a given state as it is (hover flags, a log, a batch's progress).
    void setState(State state);

    // Rebuilt by every drawing pass: the tag field, "+ ADD TAG", the interval
    // segments, the level segments. Empty after a pass drawn while busy.
    const std::vector<Hit>& hits() const { return m_hits; }
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

    // The whole view drawn into an image, as on screen.
    QImage snapshot(qreal devicePixelRatio);

    // Whether a batch's worker thread, of any view, has not ended yet.
    static bool workersRunning();
    // At quit: ends the ffmpeg runs of every batch and waits for their workers.
    static void stopWorkers();

    // Text helpers: every text is drawn with a font, a colour and a kern added
    // after each character; its width leaves out the kern after the last one.
    static TextAttributes attrs(const QFont& font, const QColor& color, double kern);
    static double width(const QString& text, const QFont& font, double kern);
    // x is where the text starts, ends, or has its middle; its capital letters'
    // middle sits on `line`.
    static void drawText(QPainter& painter, const QString& text, const TextAttributes& attributes,
                         double x, double line, Align align = Align::at);
    // Drops the last two characters and appends "…" until `fits` or fewer than
    // `minimum` characters remain; characters as the reader sees them.
    using Fits = std::function<bool(const QString&)>;
    static QString shortened(const QString& text, int minimum, const Fits& fits);
    // Whether a text is at most `room` wide, measured as width() does.
    static Fits fitsWithin(const QFont& font, double kern, double room);

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dragLeaveEvent(QDragLeaveEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    struct Batch;

    void draw(QPainter& painter);
    void drawHeader(QPainter& painter, int interval, const QString& level);
    void drawTagRow(QPainter& painter);
    void drawDropZone(QPainter& painter, int interval, const QString& level);
    void drawLog(QPainter& painter);
    void drawSettingsRow(QPainter& painter, int intervalIndex, int levelIndex);
    double segmented(QPainter& painter, const QStringList& labels, std::optional<int> selected,
                     QPointF at, double height, const std::function<void(int)>& action);

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
    State m_state;
    std::vector<Hit> m_hits;
    std::optional<Style::Image> m_logo;
    std::optional<Style::Image> m_plate;
    std::optional<QString> m_tag;
    QFileSystemWatcher* m_tagWatch = nullptr;
    QImage m_grid; // the drop zone's dots, drawn once per size
    HUDLayout::Layout m_layout;
    QTimer* m_timer = nullptr;
    std::shared_ptr<Batch> m_batch;
};
