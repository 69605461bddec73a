// The main view: the whole user interface, drawn by itself. It keeps what it
// shows (hover and busy flags, progress, the log, the settings and the tag as
// last told) and reports what the user does; a controller decides what follows.
#pragma once

#include "view/HUDLayout.h"
#include "view/LogLine.h"

#include "style/Image.h"

#include <QImage>
#include <QStringList>
#include <QWidget>
#include <functional>
#include <optional>
#include <vector>

class QMimeData;
class QTimer;

class HUDView : public QWidget {
    Q_OBJECT

public:
    struct Progress {
        long long done = 0;
        long long total = 0;
        double running = 0; // the running tracks' shares of their work, summed
        bool operator==(const Progress&) const = default;
    };

    struct State {
        bool hoverZone = false; // a drag that would start a batch is over the zone
        bool hoverTag = false;  // a drag that would add a tag clip is over the tag row
        bool busy = false;
        Progress progress;
        std::vector<LogLine> log; // oldest first, never trimmed
        long long logScroll = 0;  // entries scrolled back from the newest
        bool blink = true;        // the blinking cursors' phase
    };

    struct Hit {
        QRectF rect;
        std::function<void()> action;
    };

    static constexpr QSize kSize{600, 640};
    static constexpr int kBlinkIntervalMs = 550;

    explicit HUDView(QWidget* parent = nullptr);

    const State& state() const { return m_state; }
    // Shows a given state as it is (hover flags, a log, a batch's progress).
    void setState(State state);

    // What the controller tells it.
    void appendLog(const LogLine& line);
    void setBusy(bool busy);
    void setProgress(long long done, long long total);
    // The bar fills by the running tracks too; a new count drops their shares.
    void setRunning(double running);
    // The selected clip's name as shown ("VOICE TAG"), none without a clip.
    void setTag(const std::optional<QString>& name);
    void setChoices(int intervalIndex, int levelIndex);

    // Rebuilt by every drawing pass: the tag field, "+ ADD TAG", the interval
    // segments, the level segments. Empty after a pass drawn while busy.
    const std::vector<Hit>& hits() const { return m_hits; }
    // Made when the size, the settings or the tag shown change; fonts are
    // registered before any view exists.
    const HUDLayout::Layout& layout() const { return m_layout; }
    QRectF tagRowRect() const { return m_layout.tagRow.row; }
    QRectF zoneRect() const { return m_layout.zone.rect; }

    // The whole view drawn into an image, as on screen at full size.
    QImage snapshot(qreal devicePixelRatio);

    // On a screen too small for the window, the view is drawn at `scale` of its
    // size and its input read back alike; sets its own fixed size.
    void setScale(double scale);
    double scale() const { return m_scale; }
    // The size the layout is made for, whatever the scale.
    QSizeF logicalSize() const { return QSizeF(QWidget::size()) / m_scale; }

    // The keyboard's control, an index into HUDLayout::focusOrder: none until
    // Tab is first pressed, and again after a click of the mouse.
    std::optional<int> focused() const { return m_focused; }
    // Does what a click on that control does.
    void activate(int control);
    const HUDLayout::Content& content() const { return m_content; }

    // Text helpers: every text is drawn in a style (font, size, kern added after
    // each character) and a colour; its width leaves out the kern after the last
    // character. width() is the layout's measure.
    static double width(const QString& text, const Style::TextStyle& style);
    static void drawText(QPainter& painter, const HUDLayout::Text& text, const QColor& color);

signals:
    void intervalChosen(int index);
    void levelChosen(int index);
    // The tag field as the widget shows it, to open the tag menu under it.
    void tagFieldClicked(const QRectF& field);
    void addTagClicked();
    // A click in the drop zone on no region.
    void zoneClicked();
    void clipDropped(const QString& path);
    void itemsDropped(const QStringList& paths);

protected:
    void paintEvent(QPaintEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dragMoveEvent(QDragMoveEvent* event) override;
    void dragLeaveEvent(QDragLeaveEvent* event) override;
    void dropEvent(QDropEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    bool focusNextPrevChild(bool next) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    void draw(QPainter& painter);
    void drawHeader(QPainter& painter);
    void drawTagRow(QPainter& painter);
    void drawDropZone(QPainter& painter);
    void drawLog(QPainter& painter);
    void drawSettingsRow(QPainter& painter);
    void drawFocus(QPainter& painter);
    void segmented(QPainter& painter, const HUDLayout::Segments& segments,
                   const std::function<void(int)>& action);
    const HUDLayout::LogRow& logRow(std::size_t index);

    void relayout();
    void tick();
    void click(QPointF at);
    // Back (positive) towards the oldest entries, or forward; 0 shows the newest.
    void scrollLog(long long entries);
    void scrollKey(QKeyEvent* event);
    void setFocused(std::optional<int> control);

    // What a drop would do: start a batch (zone) or add a tag clip (tag), never both.
    struct DragTarget {
        bool zone = false;
        bool tag = false;
    };
    static QStringList urls(const QMimeData* data);
    DragTarget dragTarget(const QMimeData* data, QPointF at) const;
    bool dragOver(const QMimeData* data, QPointF at);

    State m_state;
    HUDLayout::Content m_content;
    std::vector<Hit> m_hits;
    std::optional<Style::Image> m_logo;
    std::optional<Style::Image> m_plate;
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
    int m_wheel = 0; // a wheel's turn not yet a whole entry
    double m_scale = 1;
    std::optional<int> m_focused;
};
