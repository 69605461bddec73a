// The batch runner: guards on the main thread, one worker thread per batch
// taking the tracks one at a time, each result and then the finish step posted
// back to the main thread in order.
#include "view/HUDView.h"

#include "engine/Engine.h"
#include "model/Settings.h"
#include "model/StatusTexts.h"
#include "model/Tags.h"
#include "platform/FileViewer.h"
#include "platform/Sounds.h"
#include "style/Palette.h"

#include <QFileInfo>
#include <QMetaObject>
#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

using namespace Style;

namespace {

// Every batch's worker, joinable: at quit the program ends their ffmpeg runs and
// waits for them, so no thread outlives the objects it uses.
struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
};
struct Workers {
    std::mutex mutex;
    std::vector<Worker> list;
    // Reached only when the process ends without stopWorkers (a test, say): the
    // workers still running are left to the exit, as a detached thread would be.
    ~Workers() {
        for (Worker& worker : list)
            worker.done->load() ? worker.thread.join() : worker.thread.detach();
    }
} g_workers;

void reapFinishedWorkers() {
    const std::lock_guard lock(g_workers.mutex);
    std::erase_if(g_workers.list, [](Worker& worker) {
        if (!worker.done->load())
            return false;
        worker.thread.join();
        return true;
    });
}

} // namespace

// The worker's way back to the view. A QWidget cannot be kept alive from another
// thread, so the view detaches itself here when it goes; posting under the lock
// means nothing is posted to a view that is being destroyed, and Qt drops the
// steps already posted to it.
struct HUDView::Batch {
    std::mutex mutex;
    HUDView* view = nullptr;

    void post(std::function<void(HUDView&)> step) {
        const std::lock_guard lock(mutex);
        if (view)
            QMetaObject::invokeMethod(
                view, [target = view, step = std::move(step)] { step(*target); },
                Qt::QueuedConnection);
    }
};

namespace {

struct Work {
    QStringList tracks;
    QString tag;
    double interval = 0;
    double levelDB = 0;
};

LogLine tagTrack(const QString& track, const Work& work, QStringList& written) {
    const QString name = QFileInfo(track).fileName();
    try {
        const Engine::Result result = Engine::process(track, work.tag, work.interval, work.levelDB);
        written << result.output;
        return {name, StatusTexts::tagged(result.placements), purple};
    } catch (const std::exception& error) {
        return {name, describeError(error), errColor};
    } catch (...) {
        return {name, QStringLiteral("FAILED"), errColor};
    }
}

} // namespace

void HUDView::start(const QStringList& paths) {
    const QStringList tracks = Engine::collect(paths);
    if (tracks.isEmpty() || m_state.busy) {
        update();
        return;
    }
    refreshTag();
    if (!m_tag) {
        m_state.log.push_back({StatusTexts::kAddTagFirst, StatusTexts::kNoTag, errColor});
        update();
        m_services.sounds.play(QStringLiteral("Basso"));
        return;
    }
    m_state.busy = true;
    m_state.progress = {0, tracks.size()};
    update();

    Work work{tracks, *m_tag, m_settings.interval(), m_settings.levelDB()};
    if (!m_batch) {
        m_batch = std::make_shared<Batch>();
        m_batch->view = this;
    }
    reapFinishedWorkers();
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread thread([batch = m_batch, work = std::move(work), done] {
        QStringList written;
        const auto total = static_cast<long long>(work.tracks.size());
        for (long long i = 0; i < total; ++i) {
            const LogLine line = tagTrack(work.tracks[i], work, written);
            batch->post([line, i, total](HUDView& view) { view.trackDone(line, i + 1, total); });
        }
        batch->post([written](HUDView& view) { view.finishBatch(written); });
        *done = true;
    });
    const std::lock_guard lock(g_workers.mutex);
    g_workers.list.push_back({std::move(thread), std::move(done)});
}

void HUDView::trackDone(const LogLine& line, long long done, long long total) {
    m_state.log.push_back(line);
    m_state.progress = {done, total};
    update();
}

void HUDView::finishBatch(const QStringList& written) {
    m_state.busy = false;
    update();
    if (written.isEmpty()) {
        m_services.sounds.play(QStringLiteral("Basso"));
        return;
    }
    m_services.fileViewer.show(written);
    m_services.sounds.play(QStringLiteral("Glass"));
}

HUDView::~HUDView() {
    if (m_batch) {
        const std::lock_guard lock(m_batch->mutex);
        m_batch->view = nullptr;
    }
}

bool HUDView::workersRunning() {
    const std::lock_guard lock(g_workers.mutex);
    return std::any_of(g_workers.list.begin(), g_workers.list.end(),
                       [](const Worker& worker) { return !worker.done->load(); });
}

void HUDView::stopWorkers() {
    std::vector<Worker> workers;
    {
        const std::lock_guard lock(g_workers.mutex);
        workers.swap(g_workers.list);
    }
    if (workers.empty())
        return;
    // Ends the running ffmpeg (its partial output goes) and fails the tracks not yet begun.
    Engine::stopAll();
    for (Worker& worker : workers)
        worker.thread.join();
}
