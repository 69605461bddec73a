// The window's batches through the real engine and ffmpeg: log lines, progress, files
// shown and end sound. (A batch stopped mid-render is FaultsTest's.)
#include "engine/Batch.h"
#include "model/Settings.h"
#include "style/Palette.h"
#include "support/GuiSupport.h"

#include <gtest/gtest.h>
#include <mutex>
#include <set>

using namespace Qt::StringLiterals;
using namespace Style;

namespace {

using BatchRunner = ::Test::ViewFixture;

} // namespace

// Items without tracks are ignored; without a tag one line says so. A failing track
// is logged in its colour while the others are written and shown; when all fail none
// is. Failures end with Basso, success Glass. Settings are read once a batch starts;
// tracks started meanwhile join it, logged in track order though the short ones end first.
TEST_F(BatchRunner, aFailingTrackIsLoggedAndTheOthersAreWrittenAndShown) {
    const auto track = [this](const QString& name, double seconds) {
        return ::Test::makeAudio(home.root() + u'/' + name, u"sine=frequency=220"_s, seconds);
    };
    const auto finish = [this] {
        return ::Test::waitUntil([this] { return !view().state().busy; }, 120'000);
    };
    const std::vector<LogLine>& log = view().state().log;
    controller().start({QFileInfo(file(u"empty/notes.txt"_s)).path(), file(u"notes.txt"_s)});
    EXPECT_TRUE(log.empty());
    const QString broken = file(u"b.wav"_s, "not audio");
    controller().start({broken});
    EXPECT_EQ(log, (std::vector<LogLine>{{u"ADD YOUR TAG FILE FIRST"_s, u"NO TAG"_s, errColor}}));

    ::Test::makeAudio(home.tagsDir() + u"/voice.wav"_s, u"sine=frequency=880"_s, 1);
    // 25 s: placements at 0.5 and 20.5 every 20 s, only at 0.5 every 60 s.
    settings.setIntervalIndex(0);
    const QString a = track(u"a.wav"_s, 25), c = track(u"c.wav"_s, 3);
    controller().start({a, broken});
    EXPECT_TRUE(view().state().busy);
    settings.setIntervalIndex(3);
    controller().start({c, a}); // joins the batch, each track once
    EXPECT_EQ(view().state().progress, (HUDView::Progress{0, 3}));
    ASSERT_TRUE(finish());
    QCoreApplication::processEvents();
    EXPECT_EQ(
        std::vector<LogLine>(log.begin() + 1, log.end()),
        (std::vector<LogLine>{
            {u"a.wav"_s, u"2 TAGS  OK"_s, purple},
            {u"b.wav"_s, u"CAN'T READ FILE: INVALID DATA FOUND WHEN PROCESSING INPUT"_s, errColor},
            {u"c.wav"_s, u"1 TAGS  OK"_s, purple},
            {u"BATCH 1: 2 OF 3 TAGGED"_s, u"1 FAILED"_s, errColor}}));
    EXPECT_EQ(view().state().progress, (HUDView::Progress{3, 3}));
    EXPECT_EQ(viewer.shown, (std::vector<QStringList>{{home.root() + u"/a (Tagged).wav"_s,
                                                       home.root() + u"/c (Tagged).wav"_s}}));
    controller().start({broken, file(u"y.mp3"_s)});
    ASSERT_TRUE(finish());
    EXPECT_EQ(log.size(), 8u);
    EXPECT_EQ(viewer.shown.size(), 1u);
    EXPECT_EQ(sounds.played, (QStringList{u"Basso"_s, u"Glass"_s, u"Basso"_s}));
}

// ffmpeg's reports come in order, from the analysis to the render, each pass
// reaching the track's length, the share of the work to 1, and then the track's end.
TEST_F(BatchRunner, aTracksProgressReportsGoFromItsAnalysisToItsEnd) {
    ::Test::makeAudio(home.root() + u"/voice.wav"_s, u"sine=frequency=880"_s, 0.5);
    Engine::Job job;
    job.clip = home.root() + u"/voice.wav"_s;
    job.interval = 60;
    // Ten minutes of stereo WAV: long enough for ffmpeg to report several times per pass.
    const QString track =
        ::Test::makeAudio(home.root() + u"/long.wav"_s, u"sine=frequency=220"_s, 600);
    std::mutex lock;
    std::vector<Batch::Progress> reports;
    Batch batch(
        {job, Engine::plan(job, {track}), 1,
         [&](const Batch::Progress& progress) {
             const std::lock_guard locked(lock);
             reports.push_back(progress);
         }},
        [](const Batch::Outcome&) {}, [] {});
    batch.wait();
    ASSERT_GE(reports.size(), 4u);
    EXPECT_TRUE(reports.back().ended && reports.back().fraction == 1);
    for (std::size_t i = 1; i + 1 < reports.size(); ++i) {
        const Batch::Progress &was = reports[i - 1], &is = reports[i];
        EXPECT_TRUE(is.fraction >= was.fraction && is.pass >= was.pass &&
                    (is.pass != was.pass || is.seconds >= was.seconds) && is.length == 600)
            << i;
    }
    const auto last = [&](Engine::Pass pass) {
        return *std::find_if(reports.rbegin(), reports.rend(), [pass](const Batch::Progress& p) {
            return p.pass == pass && !p.ended;
        });
    };
    EXPECT_NEAR(last(Engine::Pass::analysis).seconds, 600, 0.1);
    EXPECT_NEAR(last(Engine::Pass::render).seconds, 600, 0.1);
    EXPECT_GT(reports[reports.size() - 2].fraction, 0.99);
}

// Within one long track the bar's cells advance, step by step, before its line comes.
TEST_F(BatchRunner, theBarFillsWithinOneLongTrack) {
    ::Test::makeAudio(home.tagsDir() + u"/voice.wav"_s, u"sine=frequency=880"_s, 1);
    // The render reads its two minutes of track at 40 times their speed, on any machine.
    home.setEnv("ZELKOR_RESOURCES", ::Test::resourcesWith(home.root(), R"(case " $* " in
*" -filter_complex "*) exec "$real" -readrate 40 "$@" ;;
esac
exec "$real" "$@"
)"));
    ::Test::makeAudio(home.root() + u"/long.wav"_s, u"sine=frequency=220"_s, 120);
    controller().start({home.root() + u"/long.wav"_s});
    std::set<int> lit; // the cells seen lit while the track runs
    ASSERT_TRUE(::Test::waitUntil(
        [&] {
            if (view().state().progress.done == 0) {
                const QImage drawn = view().snapshot(1);
                const auto& cells = view().layout().zone.cells;
                lit.insert(static_cast<int>(
                    std::count_if(cells.begin(), cells.end(), [&](const QRectF& cell) {
                        return drawn.pixelColor(cell.center().toPoint()) == purple;
                    })));
            }
            return !view().state().busy;
        },
        120'000));
    lit.erase(0);
    lit.erase(HUDLayout::kProgressCells);
    EXPECT_GE(lit.size(), 2u);
}
