// The window's batches through the real engine and ffmpeg: log lines, progress, files
// shown and end sound. (A batch stopped mid-render is FaultsTest's.)
#include "engine/Batch.h"
#include "model/Settings.h"
#include "style/Palette.h"
#include "support/GuiSupport.h"

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using namespace Style;

namespace {

using BatchRunner = ::Test::ViewFixture;

} // namespace

// Items without tracks are ignored; without a tag one line says so. A failing track
// is logged in its colour while the others are written and shown; when all fail none
// is. Failures end with Basso, success Glass. Settings are read once a batch starts.
TEST_F(BatchRunner, aFailingTrackIsLoggedAndTheOthersAreWrittenAndShown) {
    const auto track = [this](const QString& name, double seconds) {
        ::Test::makeAudio(home.root() + u'/' + name, u"sine=frequency=220"_s, seconds);
        return home.root() + u'/' + name;
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

    QDir().mkpath(home.tagsDir());
    ::Test::makeAudio(home.tagsDir() + u"/voice.wav"_s, u"sine=frequency=880"_s, 1);
    // 25 s: placements at 0.5 and 20.5 every 20 s, only at 0.5 every 60 s.
    settings.setIntervalIndex(0);
    controller().start({track(u"a.wav"_s, 25), broken, track(u"c.wav"_s, 3)});
    EXPECT_TRUE(view().state().busy);
    EXPECT_EQ(view().state().progress, (HUDView::Progress{0, 3}));
    settings.setIntervalIndex(3);
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
