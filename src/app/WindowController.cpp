// The window's actions: the settings chosen, the tag menu and the library's
// clips picked, added, removed and shown, each leaving its line in the log;
// and batches, whose guards and lines run on the main thread while the tracks
// are tagged in the background, one per core.
#include "app/WindowController.h"

#include "base/Files.h"
#include "base/Names.h"
#include "base/TagError.h"
#include "engine/Batch.h"
#include "engine/Collect.h"
#include "engine/EngineState.h"
#include "model/StatusTexts.h"
#include "platform/FileViewer.h"
#include "platform/Preferences.h"
#include "platform/Sounds.h"
#include "style/Palette.h"
#include "view/HUDView.h"

#include <QFileSystemWatcher>
#include <QGuiApplication>
#include <QWindow>
#include <algorithm>
#include <iterator>

using namespace Style;

namespace {

constexpr double kMenuGap = 4;

LogLine logLine(const Batch::Outcome& outcome) {
    const QString name = Names::fileName(outcome.track);
    if (!outcome.result)
        return {name, outcome.error, errColor};
    return {name, StatusTexts::tagged(outcome.result->placements, outcome.result->kbps), purple};
}

} // namespace

WindowController::WindowController(HUDView& view, Services services, QObject* parent)
    : QObject(parent)
    , m_view(&view)
    , m_services(services)
    , m_settings(services.preferences)
    , m_tags(services.preferences, services.trash) {
    connect(this, &WindowController::logged, &view, &HUDView::appendLog);
    connect(this, &WindowController::busyChanged, &view, &HUDView::setBusy);
    connect(this, &WindowController::progressChanged, &view, &HUDView::setProgress);
    connect(this, &WindowController::fractionChanged, &view,
            [this](double done) { m_view->setRunning(done - static_cast<double>(m_run.done)); });
    connect(this, &WindowController::tagChanged, &view, &HUDView::setTag);
    connect(this, &WindowController::choicesChanged, &view, &HUDView::setChoices);
    connect(&view, &HUDView::intervalChosen, this,
            [this](int index) { saveChoice([&] { m_settings.setIntervalIndex(index); }); });
    connect(&view, &HUDView::levelChosen, this,
            [this](int index) { saveChoice([&] { m_settings.setLevelIndex(index); }); });
    connect(&view, &HUDView::tagFieldClicked, this, &WindowController::tagMenu);
    connect(&view, &HUDView::addTagClicked, this, &WindowController::chooseTag);
    connect(&view, &HUDView::zoneClicked, this, &WindowController::zoneClicked);
    connect(&view, &HUDView::clipDropped, this, &WindowController::addTag);
    connect(&view, &HUDView::itemsDropped, this, &WindowController::start);
    emit choicesChanged(m_settings.intervalIndex(), m_settings.levelIndex());
    watchTag();
}

WindowController::~WindowController() = default;

void WindowController::log(const LogLine& line) {
    emit logged(line);
}

void WindowController::logFailure(const TagError& error) {
    log({error.action(), error.reason(), errColor});
}

// What a click writes may fail to be saved: the old choice stays, and says why.
void WindowController::saveChoice(const std::function<void()>& write) {
    try {
        write();
    } catch (const TagError& error) {
        logFailure(error);
    }
    emit choicesChanged(m_settings.intervalIndex(), m_settings.levelIndex());
}

// The zone asks for what it showed; had that changed unseen, the click only
// shows the change, rather than opening a chooser the zone never offered.
void WindowController::zoneClicked() {
    if (refreshTag())
        return;
    if (!m_tag) {
        chooseTag();
        return;
    }
    if (const std::optional<QStringList> chosen = m_services.panels.chooseTracks(*m_view))
        start(*chosen);
}

// The view shows the clip read last rather than listing the library on every
// pass. zelkor-tag, a file manager or another window may change the library or
// the selection: the folders are watched (the preferences file is replaced by a
// rename, which only its folder sees), and coming back to the window reads
// again in case a change went unseen.
void WindowController::watchTag() {
    m_tagWatch = new QFileSystemWatcher(this);
    connect(m_tagWatch, &QFileSystemWatcher::directoryChanged, this, &WindowController::refreshTag);
    connect(qApp, &QGuiApplication::focusWindowChanged, this, [this](QWindow* focused) {
        if (focused && m_view && focused == m_view->window()->windowHandle())
            refreshTag();
    });
    refreshTag();
}

bool WindowController::refreshTag() {
    // A folder made or replaced since the last look is watched from now on.
    for (const QString& folder : {Tags::dir(), m_services.preferences.watchedFolder()})
        if (!folder.isEmpty() && !m_tagWatch->directories().contains(folder) &&
            Files::identity(folder).value_or(Files::Identity{}).folder)
            m_tagWatch->addPath(folder);
    std::optional<QString> tag = m_tags.selected();
    // A clip added beside the selected one may make its name ambiguous.
    std::optional<QString> shown =
        tag ? std::optional(Tags::label(*tag, Tags::all()).toUpper()) : std::nullopt;
    if (tag == m_tag && shown == m_tagShown)
        return false;
    m_tag = std::move(tag);
    m_tagShown = std::move(shown);
    emit tagChanged(m_tagShown);
    return true;
}

void WindowController::tagMenu(const QRectF& field) {
    const std::optional<QString> selected = m_tags.selected();
    std::vector<MenuItem> items;
    std::vector<std::function<void()>> actions;
    auto add = [&](MenuItem item, std::function<void()> action) {
        items.push_back(std::move(item));
        actions.push_back(std::move(action));
    };
    const QStringList clips = Tags::all();
    for (const QString& clip : clips)
        add({.title = Tags::label(clip, clips), .checked = clip == selected},
            [this, clip] { pickTag(clip); });
    if (!clips.isEmpty())
        add(MenuItem::separatorItem(), {});
    add({.title = QStringLiteral("Add Tag\u2026"), .mnemonic = 0}, [this] { chooseTag(); });
    if (selected)
        add({.title = QStringLiteral("Remove \u201C") + Tags::label(*selected, clips) +
                      QStringLiteral("\u201D"),
             .mnemonic = 0},
            [this, clip = *selected] { removeTag(clip); });
    add({.title = QStringLiteral("Show Tags Folder"), .mnemonic = 0}, [this] { showTags(); });

    const std::optional<int> chosen =
        m_services.menus.popUp(items, *m_view, QPointF(field.left(), field.bottom() + kMenuGap));
    if (chosen && *chosen >= 0 && static_cast<std::size_t>(*chosen) < actions.size() &&
        actions[static_cast<std::size_t>(*chosen)])
        actions[static_cast<std::size_t>(*chosen)]();
}

void WindowController::chooseTag() {
    if (const std::optional<QString> chosen =
            m_services.panels.chooseTag(*m_view, tagNameFilter(Tags::exts())))
        addTag(*chosen);
}

void WindowController::pickTag(const std::optional<QString>& clip) {
    try {
        m_tags.setSelected(clip);
    } catch (const TagError& error) {
        logFailure(error);
    }
    refreshTag();
}

void WindowController::removeTag(const QString& clip) {
    const QString shown = Tags::label(clip, Tags::all()).toUpper();
    m_tags.remove(clip);
    log({StatusTexts::tagRemoved(shown), StatusTexts::kTrash, dim});
    refreshTag();
}

void WindowController::showTags() {
    const std::optional<QString> selected = m_tags.selected();
    m_services.fileViewer.show({selected ? *selected : Tags::dir()});
}

void WindowController::addTag(const QString& path) {
    try {
        const QString stored = m_tags.add(path);
        log({StatusTexts::tagAdded(Tags::name(stored)), StatusTexts::kArmed, purple});
    } catch (...) {
        // The line names the file; the system's reason is not shown.
        log({Names::fileName(path), StatusTexts::kCantAddTag, errColor});
    }
    refreshTag();
}

void WindowController::start(const QStringList& paths) {
    const QStringList tracks = Engine::collect(paths);
    if (tracks.isEmpty())
        return;
    if (m_busy) {
        // The desktop reported the file opened: nothing handed over is dropped.
        if (m_run.stopping)
            m_run.afterStop << tracks;
        else
            join(tracks);
        return;
    }
    refreshTag();
    if (!m_tag) {
        log({StatusTexts::kAddTagFirst, StatusTexts::kNoTag, errColor});
        m_services.sounds.play(QStringLiteral("Basso"));
        return;
    }
    m_busy = true;
    emit busyChanged(true);
    startBatch(tracks, *m_tag);
}

void WindowController::stop() {
    if (!m_busy || m_run.stopping)
        return;
    m_run.stopping = true;
    m_run.queued.clear(); // counted as left
    if (m_batch)
        m_batch->stop();
}

void WindowController::trackProgress(qsizetype track, double fraction) {
    if (!m_busy)
        return;
    m_run.shares[track] = std::clamp(fraction, 0.0, 1.0);
    double running = 0;
    for (const auto& [index, share] : m_run.shares)
        running += share;
    emit fractionChanged(static_cast<double>(m_run.done) + running, m_run.total);
}

void WindowController::startBatch(const QStringList& tracks, const QString& tag) {
    m_run = {};
    m_run.job.clip = tag;
    m_run.job.interval = m_settings.interval();
    m_run.job.levelDB = m_settings.levelDB();
    m_run.tracks = tracks;
    Engine::Plan plan = Engine::plan(m_run.job, tracks); // a track dropped twice is tagged once
    m_run.total = static_cast<long long>(plan.size());
    emit progressChanged(0, m_run.total);
    runPart(std::move(plan));
}

void WindowController::join(const QStringList& tracks) {
    QStringList added;
    for (const QString& track : tracks)
        if (!m_run.tracks.contains(track))
            added << track;
    if (added.isEmpty())
        return;
    m_run.tracks << added;
    Engine::Plan plan = Engine::plan(m_run.job, added);
    m_run.total += static_cast<long long>(plan.size());
    std::move(plan.begin(), plan.end(), std::back_inserter(m_run.queued));
    emit progressChanged(m_run.done, m_run.total);
}

// Each step is posted to this object on the main thread, in order; steps still
// pending when it goes are dropped with it, after its batch has been joined.
void WindowController::runPart(Engine::Plan plan) {
    const auto post = [this](std::function<void()> step) {
        QMetaObject::invokeMethod(this, std::move(step), Qt::QueuedConnection);
    };
    // Written by the batch's callbacks only, which never run two at a time.
    auto written = std::make_shared<QStringList>();
    m_batch.reset(); // the last part has ended: its thread is joined here
    const auto reached = [this, post](const Batch::Progress& progress) {
        post([this, progress] { trackProgress(progress.index, progress.fraction); });
    };
    m_batch = std::make_unique<Batch>(
        Batch::Work{m_run.job, std::move(plan), 0, reached},
        [this, post, written](const Batch::Outcome& outcome) {
            if (outcome.result)
                *written << outcome.result->output;
            post([this, index = outcome.index, line = logLine(outcome),
                  failed = outcome.failed() && !outcome.stopped()] {
                trackDone(index, line, failed);
            });
        },
        [this, post, written] { post([this, written = *written] { partEnded(written); }); });
}

void WindowController::trackDone(qsizetype track, const LogLine& line, bool failed) {
    log(line);
    ++m_run.done;
    m_run.failed += failed ? 1 : 0;
    m_run.shares.erase(track);
    emit progressChanged(m_run.done, m_run.total);
    if (!m_run.shares.empty())
        trackProgress(m_run.shares.begin()->first, m_run.shares.begin()->second);
}

void WindowController::partEnded(const QStringList& written) {
    m_run.written << written;
    if (m_run.stopping || m_run.queued.empty()) {
        finishBatch();
        return;
    }
    runPart(std::exchange(m_run.queued, {}));
}

// "BATCH 2: 5 OF 6 TAGGED", then what went wrong, if anything: the line that
// tells this batch from the next, and a failure scrolled out of sight from the end.
LogLine WindowController::summary() const {
    const auto tagged = static_cast<long long>(m_run.written.size());
    QStringList status;
    if (m_run.failed > 0)
        status << QStringLiteral("%1 FAILED").arg(m_run.failed);
    if (m_run.stopping)
        status << QStringLiteral("STOPPED, %1 LEFT").arg(m_run.total - m_run.done);
    if (status.isEmpty())
        status << QStringLiteral("DONE");
    return {QStringLiteral("BATCH %1: %2 OF %3 TAGGED").arg(m_batches).arg(tagged).arg(m_run.total),
            status.join(QStringLiteral("  ")),
            m_run.failed > 0 ? errColor
            : m_run.stopping ? dim
                             : purple};
}

void WindowController::finishBatch() {
    ++m_batches;
    const LogLine last = summary();
    log(last);
    if (m_run.stopping) {
        m_batch.reset(); // joined: no run of it is left when the engine takes runs again
        Engine::EngineState::shared().resume();
    }
    m_busy = false;
    emit busyChanged(false);
    emit batchEnded(last);
    if (m_run.written.isEmpty()) {
        m_services.sounds.play(QStringLiteral("Basso"));
    } else {
        m_services.fileViewer.show(m_run.written);
        m_services.sounds.play(QStringLiteral("Glass"));
    }
    if (!m_run.afterStop.isEmpty())
        start(std::exchange(m_run.afterStop, {}));
}
