// The window's batches through the real engine and the real ffmpeg on generated
// audio: its log lines, progress, files shown and end sound; and the runner under
// it on its own, stopped from another thread.
#include "engine/Batch.h"
#include "engine/EngineState.h"
#include "model/Settings.h"
#include "style/Palette.h"
#include "support/GuiSupport.h"

#include <gtest/gtest.h>
#include <mutex>
#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace Style;

namespace {

class BatchRunner : public ::Test::ViewFixture {
protected:
    QString track(const QString& name, double seconds = 3) {
        const QString path = home.root() + u'/' + name;
        ::Test::makeAudio(path, u"sine=frequency=220"_s, seconds);
        return path;
    }
    void addTag() {
        QDir().mkpath(home.tagsDir());
        ::Test::makeAudio(home.tagsDir() + u"/voice.wav"_s, u"sine=frequency=880"_s, 1);
    }
    bool finish() {
        return ::Test::waitUntil([this] { return !view().state().busy; }, 120'000);
    }
    const std::vector<LogLine>& log() { return view().state().log; }
};

} // namespace

TEST_F(BatchRunner, aFailingTrackIsLoggedAndTheOthersAreWrittenAndShown) {
    addTag();
    controller().start({track(u"a.wav"_s), file(u"b.wav"_s, "not audio"), track(u"c.wav"_s)});
    EXPECT_TRUE(view().state().busy);
    EXPECT_EQ(view().state().progress, (HUDView::Progress{0, 3}));
    ASSERT_TRUE(finish());

    EXPECT_EQ(log(), (std::vector<LogLine>{{u"a.wav"_s, u"1 TAGS  OK"_s, purple},
                                           {u"b.wav"_s, u"CAN'T READ FILE"_s, errColor},
                                           {u"c.wav"_s, u"1 TAGS  OK"_s, purple}}));
    EXPECT_EQ(view().state().progress, (HUDView::Progress{3, 3}));
    EXPECT_EQ(viewer.shown, (std::vector<QStringList>{{home.root() + u"/a (Tagged).wav"_s,
                                                       home.root() + u"/c (Tagged).wav"_s}}));
    EXPECT_EQ(sounds.played, QStringList{u"Glass"_s});
}

// Items without tracks are ignored silently; without a tag one line says so; when
// every track fails nothing is shown. The last two end with Basso.
TEST_F(BatchRunner, withoutTracksATagOrAnySuccess) {
    QDir().mkpath(home.root() + u"/empty"_s);
    controller().start({home.root() + u"/empty"_s, file(u"notes.txt"_s)});
    EXPECT_FALSE(view().state().busy);
    EXPECT_TRUE(log().empty());
    EXPECT_TRUE(sounds.played.isEmpty());

    const QStringList broken{file(u"x.wav"_s), file(u"y.mp3"_s)};
    controller().start(broken);
    EXPECT_FALSE(view().state().busy);
    EXPECT_EQ(log(), (std::vector<LogLine>{{u"ADD YOUR TAG FILE FIRST"_s, u"NO TAG"_s, errColor}}));
    EXPECT_EQ(sounds.played, QStringList{u"Basso"_s});
    EXPECT_EQ(view().state().progress, (HUDView::Progress{0, 0}));

    addTag();
    controller().start(broken);
    ASSERT_TRUE(finish());
    EXPECT_EQ(log().size(), 3u);
    EXPECT_TRUE(viewer.shown.empty());
    EXPECT_EQ(sounds.played, (QStringList{u"Basso"_s, u"Basso"_s}));
}

// Settings are read once when the batch starts, and a start during a batch is
// dropped for good.
TEST_F(BatchRunner, aBatchKeepsItsSettingsAndIgnoresAnotherStart) {
    addTag();
    // 25 s: placements at 0.5 and 20.5 every 20 s, only at 0.5 every 60 s.
    const QString beat = track(u"beat.wav"_s, 25);
    const QString second = track(u"second.wav"_s);
    settings.setIntervalIndex(0);
    controller().start({beat});
    settings.setIntervalIndex(3);
    controller().start({second});
    ASSERT_TRUE(finish());
    QCoreApplication::processEvents();
    EXPECT_EQ(log(), (std::vector<LogLine>{{u"beat.wav"_s, u"2 TAGS  OK"_s, purple}}));
    EXPECT_FALSE(QFileInfo::exists(home.root() + u"/second (Tagged).wav"_s));
}

TEST_F(BatchRunner, aViewClosedDuringABatchIsLeftAlone) {
    addTag();
    controller().start({track(u"gone.wav"_s)});
    close();
    QCoreApplication::processEvents();
    EXPECT_TRUE(sounds.played.isEmpty());
    EXPECT_TRUE(viewer.shown.empty());
}

namespace {

// This process's children still running.
int children() {
    int count = 0;
    const QByteArray parent = QByteArray::number(::getpid());
    for (const QString& pid : QDir(u"/proc"_s).entryList({u"[0-9]*"_s}))
        // "pid (name) state ppid ...": the name may hold blanks, so read after its ')'.
        if (const QByteArray stat = ::Test::readAll(u"/proc/%1/stat"_s.arg(pid));
            stat.mid(stat.lastIndexOf(')') + 2).split(' ').value(1) == parent)
            ++count;
    return count;
}

using BatchCore = ::Test::TempFolder;

} // namespace

// Without a window, stopped from its first outcome as zelkor-tag is when its output
// goes: the running ffmpeg ends, what it wrote goes, no further track begins, and the
// end still comes, once.
TEST_F(BatchCore, stoppingEndsTheRunningFfmpegAndBeginsNoFurtherTrack) {
    QStringList tracks;
    for (const auto& [name, seconds] :
         {std::pair{u"short.wav"_s, 1}, {u"long.wav"_s, 300}, {u"later.wav"_s, 1}}) {
        tracks << path(name);
        ::Test::makeAudio(tracks.last(), u"sine=frequency=220"_s, seconds, 44100, 1);
    }
    ::Test::makeAudio(path(u"tag.wav"_s), u"sine=frequency=880"_s, 0.5);
    std::vector<Batch::Outcome> outcomes;
    int ends = 0;
    std::unique_ptr<Batch> batch;
    std::mutex made; // the callback may come before make_unique has returned
    {
        const std::lock_guard lock(made);
        batch = std::make_unique<Batch>(
            Batch::Work{tracks, path(u"tag.wav"_s), 20, -5, 2},
            [&](const Batch::Outcome& outcome) {
                outcomes.push_back(outcome);
                const std::lock_guard ready(made);
                batch->stop();
            },
            [&] { ++ends; });
    }
    batch->wait();
    EXPECT_EQ(children(), 0);
    batch.reset();
    Engine::EngineState::shared().reset(); // stopping is for good otherwise

    EXPECT_EQ(ends, 1);
    ASSERT_EQ(outcomes.size(), 2u);
    EXPECT_EQ(outcomes[0].index, 0);
    EXPECT_TRUE(outcomes[0].result);
    EXPECT_EQ(outcomes[1].error, u"STOPPED"_s);
    EXPECT_EQ(QDir(dir.path()).entryList({u"*Tagged*"_s}, QDir::Files | QDir::Hidden),
              QStringList{u"short (Tagged).wav"_s});
}
