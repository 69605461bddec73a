// Batches through the real engine and the real ffmpeg on generated audio: the
// log lines in track order, the progress, the files shown and the end sound.
#include "model/Settings.h"
#include "style/Palette.h"
#include "support/FreshHome.h"
#include "support/GuiSupport.h"
#include "support/TestSupport.h"
#include "view/HUDView.h"

#include <QRegularExpression>
#include <gtest/gtest.h>

using namespace Style;

class BatchRunner : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ::Test::guiApplication(); }

    QString track(const QString& name, double seconds = 3) {
        const QString path = home.root() + QLatin1Char('/') + name;
        ::Test::makeAudio(path, QStringLiteral("sine=frequency=220"), seconds);
        return path;
    }

    // A file with a track's name that ffmpeg cannot read.
    QString broken(const QString& name) {
        const QString path = home.root() + QLatin1Char('/') + name;
        ::Test::writeFile(path, "not audio at all");
        return path;
    }

    void addTag() {
        QDir().mkpath(home.tagsDir());
        ::Test::makeAudio(home.tagsDir() + QStringLiteral("/voice.wav"),
                          QStringLiteral("sine=frequency=880"), 1);
    }

    HUDView& view() {
        if (!m_view)
            m_view = std::make_unique<HUDView>(HUDView::Services{sounds, viewer});
        return *m_view;
    }

    bool finish() {
        return ::Test::waitUntil([this] { return !view().state().busy; }, 120'000);
    }

    ::Test::FreshHome home;
    ::Test::RecordingSounds sounds;
    ::Test::RecordingFileViewer viewer;
    std::unique_ptr<HUDView> m_view;
};

namespace {

const QRegularExpression kTagged(QStringLiteral("^\\d+ TAGS  OK$"));

} // namespace

TEST_F(BatchRunner, aFailingTrackIsLoggedAndTheOthersAreWrittenAndShown) {
    addTag();
    const QStringList tracks{track(QStringLiteral("a.wav")), broken(QStringLiteral("b.wav")),
                             track(QStringLiteral("c.wav"))};
    view().start(tracks);
    EXPECT_TRUE(view().state().busy);
    EXPECT_EQ(view().state().progress, (HUDView::Progress{0, 3}));
    ASSERT_TRUE(finish());

    const std::vector<LogLine>& log = view().state().log;
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].text, QStringLiteral("a.wav"));
    EXPECT_TRUE(kTagged.match(log[0].status).hasMatch()) << log[0].status.toStdString();
    EXPECT_EQ(log[0].color, purple);
    EXPECT_EQ(log[1].text, QStringLiteral("b.wav"));
    EXPECT_FALSE(log[1].status.isEmpty());
    EXPECT_EQ(log[1].status, log[1].status.toUpper());
    EXPECT_EQ(log[1].color, errColor);
    EXPECT_EQ(log[2].text, QStringLiteral("c.wav"));
    EXPECT_EQ(log[2].color, purple);
    EXPECT_EQ(view().state().progress, (HUDView::Progress{3, 3}));

    const QStringList written{home.root() + QStringLiteral("/a (Tagged).wav"),
                              home.root() + QStringLiteral("/c (Tagged).wav")};
    ASSERT_EQ(viewer.shown.size(), 1u);
    EXPECT_EQ(viewer.shown[0], written);
    for (const QString& file : written)
        EXPECT_TRUE(QFileInfo(file).size() > 0) << file.toStdString();
    EXPECT_EQ(sounds.played, QStringList{QStringLiteral("Glass")});
}

TEST_F(BatchRunner, whenEveryTrackFailsNothingIsShownAndBassoPlays) {
    addTag();
    view().start({broken(QStringLiteral("x.wav")), broken(QStringLiteral("y.mp3"))});
    ASSERT_TRUE(finish());
    ASSERT_EQ(view().state().log.size(), 2u);
    for (const LogLine& line : view().state().log)
        EXPECT_EQ(line.color, errColor);
    EXPECT_TRUE(viewer.shown.empty());
    EXPECT_EQ(sounds.played, QStringList{QStringLiteral("Basso")});
    EXPECT_EQ(view().state().progress, (HUDView::Progress{2, 2}));
}

TEST_F(BatchRunner, withoutATagOneLineAndBassoAndNoWork) {
    const QStringList tracks{broken(QStringLiteral("1.wav")), broken(QStringLiteral("2.wav")),
                             broken(QStringLiteral("3.wav"))};
    view().start(tracks);
    EXPECT_FALSE(view().state().busy);
    ASSERT_EQ(view().state().log.size(), 1u);
    EXPECT_EQ(view().state().log[0].text, QStringLiteral("ADD YOUR TAG FILE FIRST"));
    EXPECT_EQ(view().state().log[0].status, QStringLiteral("NO TAG"));
    EXPECT_EQ(view().state().log[0].color, errColor);
    EXPECT_EQ(sounds.played, QStringList{QStringLiteral("Basso")});
    EXPECT_EQ(view().state().progress, (HUDView::Progress{0, 0}));
}

TEST_F(BatchRunner, itemsWithoutTracksAreIgnoredSilently) {
    addTag();
    QDir().mkpath(home.root() + QStringLiteral("/empty"));
    ::Test::writeFile(home.root() + QStringLiteral("/notes.txt"), "text");
    view().start(
        {home.root() + QStringLiteral("/empty"), home.root() + QStringLiteral("/notes.txt")});
    EXPECT_FALSE(view().state().busy);
    EXPECT_TRUE(view().state().log.empty());
    EXPECT_TRUE(sounds.played.isEmpty());
}

TEST_F(BatchRunner, aStartDuringABatchIsDroppedForGood) {
    addTag();
    const QString first = track(QStringLiteral("first.wav"));
    const QString second = track(QStringLiteral("second.wav"));
    view().start({first});
    view().start({second});
    ASSERT_TRUE(finish());
    QCoreApplication::processEvents();
    ASSERT_EQ(view().state().log.size(), 1u);
    EXPECT_EQ(view().state().log[0].text, QStringLiteral("first.wav"));
    EXPECT_FALSE(QFileInfo::exists(home.root() + QStringLiteral("/second (Tagged).wav")));
}

TEST_F(BatchRunner, settingsAreReadOnceWhenTheBatchStarts) {
    addTag();
    // 25 s: placements at 0.5 and 20.5 every 20 s, only at 0.5 every 60 s.
    const QString beat = track(QStringLiteral("beat.wav"), 25);
    Settings::setIntervalIndex(0);
    view().start({beat});
    Settings::setIntervalIndex(3);
    ASSERT_TRUE(finish());
    ASSERT_EQ(view().state().log.size(), 1u);
    EXPECT_EQ(view().state().log[0].status, QStringLiteral("2 TAGS  OK"));
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
