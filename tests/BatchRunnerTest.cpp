// Batches through the real engine and the real ffmpeg on generated audio: the
// log lines in track order, the progress, the files shown and the end sound.
#include "model/Settings.h"
#include "style/Palette.h"
#include "support/GuiSupport.h"

#include <gtest/gtest.h>

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

TEST_F(BatchRunner, aFailingTrackIsLoggedAndTheOthersAreWrittenAndShown) {
    addTag();
    view().start({track(QStringLiteral("a.wav")), file(QStringLiteral("b.wav"), "not audio"),
                  track(QStringLiteral("c.wav"))});
    EXPECT_TRUE(view().state().busy);
    EXPECT_EQ(view().state().progress, (HUDView::Progress{0, 3}));
    ASSERT_TRUE(finish());

    const QString ok = QStringLiteral("1 TAGS  OK");
    EXPECT_EQ(log(), (std::vector<LogLine>{
                         {QStringLiteral("a.wav"), ok, purple},
                         {QStringLiteral("b.wav"), QStringLiteral("CAN'T READ FILE"), errColor},
                         {QStringLiteral("c.wav"), ok, purple}}));
    EXPECT_EQ(view().state().progress, (HUDView::Progress{3, 3}));
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
    EXPECT_TRUE(::Test::waitUntil([] { return !HUDView::workersRunning(); }, 120'000));
    QCoreApplication::processEvents();
    EXPECT_TRUE(sounds.played.isEmpty());
    EXPECT_TRUE(viewer.shown.empty());
}
