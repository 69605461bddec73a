// Batches through the real engine and the real ffmpeg on generated audio: the
// window's log lines, progress, files shown and end sound, and the runner under
// it on its own: track order with several jobs, and stopping.
#include "engine/Batch.h"
#include "engine/EngineState.h"
#include "model/Settings.h"
#include "style/Palette.h"
#include "support/GuiSupport.h"

#include <gtest/gtest.h>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

using namespace Style;

namespace {

class BatchRunner : public ::Test::ViewFixture {
protected:
    QString track(const QString& name, double seconds = 3) {
        const QString path = home.root() + QLatin1Char('/') + name;
        ::Test::makeAudio(path, QStringLiteral("sine=frequency=220"), seconds);
        return path;
    }
    void addTag() {
        QDir().mkpath(home.tagsDir());
        ::Test::makeAudio(home.tagsDir() + QStringLiteral("/voice.wav"),
                          QStringLiteral("sine=frequency=880"), 1);
    }
    bool finish() {
        return ::Test::waitUntil([this] { return !view().state().busy; }, 120'000);
    }
    const std::vector<LogLine>& log() { return view().state().log; }
};

} // namespace

// A FIFO and a device, which would never end, fail at once like a file that is no audio.
TEST_F(BatchRunner, aFailingTrackIsLoggedAndTheOthersAreWrittenAndShown) {
    addTag();
    const QString fifo = home.root() + QStringLiteral("/pipe.mp3");
    const QString device = home.root() + QStringLiteral("/zero.wav");
    ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    ASSERT_TRUE(QFile::link(QStringLiteral("/dev/zero"), device));
    view().start({track(QStringLiteral("a.wav")), file(QStringLiteral("b.wav"), "not audio"), fifo,
                  device, track(QStringLiteral("c.wav"))});
    EXPECT_TRUE(view().state().busy);
    EXPECT_EQ(view().state().progress, (HUDView::Progress{0, 5}));
    ASSERT_TRUE(finish());

    const QString ok = QStringLiteral("1 TAGS  OK"), unreadable = QStringLiteral("CAN'T READ FILE");
    EXPECT_EQ(log(), (std::vector<LogLine>{{QStringLiteral("a.wav"), ok, purple},
                                           {QStringLiteral("b.wav"), unreadable, errColor},
                                           {QStringLiteral("pipe.mp3"), unreadable, errColor},
                                           {QStringLiteral("zero.wav"), unreadable, errColor},
                                           {QStringLiteral("c.wav"), ok, purple}}));
    EXPECT_EQ(view().state().progress, (HUDView::Progress{5, 5}));
    EXPECT_EQ(viewer.shown,
              (std::vector<QStringList>{{home.root() + QStringLiteral("/a (Tagged).wav"),
                                         home.root() + QStringLiteral("/c (Tagged).wav")}}));
    EXPECT_EQ(sounds.played, QStringList{QStringLiteral("Glass")});
}

// Items without tracks are ignored silently; without a tag one line says so; when
// every track fails nothing is shown. The last two end with Basso.
TEST_F(BatchRunner, withoutTracksATagOrAnySuccess) {
    QDir().mkpath(home.root() + QStringLiteral("/empty"));
    view().start({home.root() + QStringLiteral("/empty"), file(QStringLiteral("notes.txt"))});
    EXPECT_FALSE(view().state().busy);
    EXPECT_TRUE(log().empty());
    EXPECT_TRUE(sounds.played.isEmpty());

    const QStringList broken{file(QStringLiteral("x.wav")), file(QStringLiteral("y.mp3"))};
    view().start(broken);
    EXPECT_FALSE(view().state().busy);
    EXPECT_EQ(log(), (std::vector<LogLine>{{QStringLiteral("ADD YOUR TAG FILE FIRST"),
                                            QStringLiteral("NO TAG"), errColor}}));
    EXPECT_EQ(sounds.played, QStringList{QStringLiteral("Basso")});
    EXPECT_EQ(view().state().progress, (HUDView::Progress{0, 0}));

    addTag();
    view().start(broken);
    ASSERT_TRUE(finish());
    ASSERT_EQ(log().size(), 3u);
    EXPECT_EQ(log()[1].color, errColor);
    EXPECT_EQ(log()[2].color, errColor);
    EXPECT_TRUE(viewer.shown.empty());
    EXPECT_EQ(sounds.played, (QStringList{QStringLiteral("Basso"), QStringLiteral("Basso")}));
    EXPECT_EQ(view().state().progress, (HUDView::Progress{2, 2}));
}

// Settings are read once when the batch starts, and a start during a batch is
// dropped for good.
TEST_F(BatchRunner, aBatchKeepsItsSettingsAndIgnoresAnotherStart) {
    addTag();
    // 25 s: placements at 0.5 and 20.5 every 20 s, only at 0.5 every 60 s.
    const QString beat = track(QStringLiteral("beat.wav"), 25);
    const QString second = track(QStringLiteral("second.wav"));
    settings.setIntervalIndex(0);
    view().start({beat});
    settings.setIntervalIndex(3);
    view().start({second});
    ASSERT_TRUE(finish());
    QCoreApplication::processEvents();
    EXPECT_EQ(log(), (std::vector<LogLine>{
                         {QStringLiteral("beat.wav"), QStringLiteral("2 TAGS  OK"), purple}}));
    EXPECT_FALSE(QFileInfo::exists(home.root() + QStringLiteral("/second (Tagged).wav")));
}

TEST_F(BatchRunner, aViewClosedDuringABatchIsLeftAlone) {
    addTag();
    view().start({track(QStringLiteral("gone.wav"))});
    m_view.reset();
    batch->wait();
    QCoreApplication::processEvents();
    EXPECT_TRUE(sounds.played.isEmpty());
    EXPECT_TRUE(viewer.shown.empty());
}

namespace {

// The runner itself, without a window.
class BatchCore : public ::Test::TempFolder {
protected:
    QString track(const QString& name, double seconds, int channels = 2) {
        ::Test::makeAudio(path(name), QStringLiteral("sine=frequency=220"), seconds, 44100,
                          channels);
        return path(name);
    }
    Batch::Work work(const QStringList& tracks, int jobs) {
        ::Test::makeAudio(path(QStringLiteral("tag.wav")), QStringLiteral("sine=frequency=880"),
                          0.5);
        return {tracks, path(QStringLiteral("tag.wav")), 20, -5, jobs};
    }
    // Every outcome in the order handed over, and how often the end came.
    std::vector<Batch::Outcome> outcomes;
    int ends = 0;
    Batch::OnTrack record() {
        return [this](const Batch::Outcome& outcome) { outcomes.push_back(outcome); };
    }
};

// This process's children still running.
int children() {
    int count = 0;
    const QByteArray parent = QByteArray::number(::getpid());
    for (const QString& pid : QDir(QStringLiteral("/proc")).entryList({QStringLiteral("[0-9]*")}))
        // "pid (name) state ppid ...": the name may hold blanks, so read after its ')'.
        if (const QByteArray stat = ::Test::readAll(QStringLiteral("/proc/%1/stat").arg(pid));
            stat.mid(stat.lastIndexOf(')') + 2).split(' ').value(1) == parent)
            ++count;
    return count;
}

} // namespace

// The first track takes longest, yet the outcomes come in track order, one each,
// and the end comes once after them.
TEST_F(BatchCore, outcomesComeInTrackOrderWhateverFinishesFirst) {
    ::Test::writeFile(path(QStringLiteral("b.wav")), "not audio");
    const QStringList tracks{track(QStringLiteral("a.wav"), 120), path(QStringLiteral("b.wav")),
                             track(QStringLiteral("c.wav"), 1), track(QStringLiteral("d.wav"), 1)};
    {
        Batch batch(work(tracks, 3), record(), [this] { ++ends; });
        batch.wait();
        EXPECT_EQ(ends, 1);
    }
    ASSERT_EQ(outcomes.size(), 4u);
    for (qsizetype i = 0; i < 4; ++i) {
        EXPECT_EQ(outcomes[i].index, i);
        EXPECT_EQ(outcomes[i].track, tracks[i]);
        EXPECT_EQ(outcomes[i].result.has_value(), i != 1) << outcomes[i].error.toStdString();
    }
    EXPECT_EQ(outcomes[0].result->placements, 6);
    EXPECT_EQ(outcomes[0].result->output, path(QStringLiteral("a (Tagged).wav")));
    EXPECT_EQ(outcomes[1].error, QStringLiteral("CAN'T READ FILE"));
}

// Stopping, here from the first outcome as zelkor-tag does when its output is
// gone: the running ffmpeg ends, what it wrote goes, no further track begins, the
// end still comes.
TEST_F(BatchCore, stoppingEndsTheRunningFfmpegAndBeginsNoFurtherTrack) {
    const QStringList tracks{track(QStringLiteral("short.wav"), 1),
                             track(QStringLiteral("long.wav"), 300, 1),
                             track(QStringLiteral("later.wav"), 1)};
    std::unique_ptr<Batch> batch;
    std::mutex made; // the callback may come before make_unique has returned
    {
        const std::lock_guard lock(made);
        batch = std::make_unique<Batch>(
            work(tracks, 2),
            [&](const Batch::Outcome& outcome) {
                outcomes.push_back(outcome);
                const std::lock_guard ready(made);
                batch->stop();
            },
            [this] { ++ends; });
    }
    batch->wait();
    EXPECT_EQ(children(), 0);
    batch.reset();

    EXPECT_EQ(ends, 1);
    ASSERT_EQ(outcomes.size(), 2u);
    EXPECT_TRUE(outcomes[0].result);
    EXPECT_EQ(outcomes[1].error, QStringLiteral("STOPPED"));
    EXPECT_EQ(QDir(dir.path()).entryList({QStringLiteral("*Tagged*")}),
              QStringList{QStringLiteral("short (Tagged).wav")});
    Engine::EngineState::shared().reset(); // stopping is for good otherwise
}
