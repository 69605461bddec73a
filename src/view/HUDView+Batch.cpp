// The batch runner: guards and log lines on the main thread; the tracks tagged
// one at a time by a Batch that the view's owner keeps, each result and then
// the finish step posted back to the main thread in order.
#include "view/HUDView.h"

#include "engine/Batch.h"
#include "engine/Collect.h"
#include "model/Settings.h"
#include "model/StatusTexts.h"
#include "model/Tags.h"
#include "platform/FileViewer.h"
#include "platform/Sounds.h"
#include "style/Palette.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QPointer>

using namespace Style;

namespace {

LogLine logLine(const Batch::Outcome& outcome) {
    const QString name = QFileInfo(outcome.track).fileName();
    if (!outcome.result)
        return {name, outcome.error, errColor};
    return {name, StatusTexts::tagged(outcome.result->placements), purple};
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

    // The steps run on the main thread, where the view may meanwhile have gone;
    // the application object outlives every batch its owner keeps.
    const QPointer<HUDView> view(this);
    const auto post = [view](std::function<void(HUDView&)> step) {
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [view, step = std::move(step)] {
                if (view)
                    step(*view);
            },
            Qt::QueuedConnection);
    };
    // Written by the batch's callbacks only, which never run two at a time.
    auto written = std::make_shared<QStringList>();
    const auto total = static_cast<long long>(tracks.size());
    Engine::Job job;
    job.clip = *m_tag;
    job.interval = m_settings.interval();
    job.levelDB = m_settings.levelDB();
    m_services.batch.reset(); // the last batch has ended: its thread is joined here
    m_services.batch = std::make_unique<Batch>(
        Batch::Work{job, Engine::plan(job, tracks), 1},
        [post, written, total](const Batch::Outcome& outcome) {
            if (outcome.result)
                *written << outcome.result->output;
            post([line = logLine(outcome), done = outcome.index + 1, total](HUDView& view) {
                view.trackDone(line, done, total);
            });
        },
        [post, written] {
            post([written = *written](HUDView& view) { view.finishBatch(written); });
        });
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
