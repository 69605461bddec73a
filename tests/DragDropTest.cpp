// Drags of file URLs over the main view, sent as Qt's own drag events: what
// each point and each set of files targets, the answers, the hover flags, the
// redraws, and what a drop does.
#include "model/Tags.h"
#include "support/FreshHome.h"
#include "support/GuiSupport.h"
#include "support/TestSupport.h"

#include <QDragEnterEvent>
#include <QMimeData>
#include <QUrl>
#include <gtest/gtest.h>

using ::Test::repaints;

class DragDrop : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ::Test::guiApplication(); }

    QString file(const QString& name) {
        const QString path = home.root() + QLatin1Char('/') + name;
        ::Test::writeFile(path, "x");
        return path;
    }

    // The answer ("copy" or "none") followed by the hover flags that are set.
    template<typename Event> std::string send(QPoint at, const QStringList& paths) {
        QMimeData data;
        QList<QUrl> urls;
        for (const QString& path : paths)
            urls << QUrl::fromLocalFile(path);
        data.setUrls(urls);
        Event event(at, Qt::CopyAction | Qt::MoveAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(&view, &event);
        std::string answer =
            event.isAccepted() && event.dropAction() == Qt::CopyAction ? "copy" : "none";
        return answer + (view.state().hoverZone ? " zone" : "") +
               (view.state().hoverTag ? " tag" : "");
    }
    std::string enter(QPoint at, const QStringList& paths) {
        return send<QDragEnterEvent>(at, paths);
    }
    std::string move(QPoint at, const QStringList& paths) {
        return send<QDragMoveEvent>(at, paths);
    }
    void leave() {
        QDragLeaveEvent event;
        QCoreApplication::sendEvent(&view, &event);
    }

    ::Test::FreshHome home;
    ::Test::FakeDesktop desktop;
    HUDView view{desktop.services()};
    const QPoint band{300, 100};
    const QPoint zone{300, 290};
};

TEST_F(DragDrop, theTagRowsBandReachesTenPointsAboveAndBelowIt) {
    const QStringList wav{file(QStringLiteral("voice.wav"))}; // a clip and a track at once
    const QRectF row = view.tagRowRect();
    const int top = static_cast<int>(row.top());
    const int bottom = static_cast<int>(row.bottom());
    EXPECT_EQ(enter({300, top - 8}, wav), "copy tag");
    EXPECT_EQ(move({300, top - 11}, wav), "copy zone");
    EXPECT_EQ(move({300, bottom + 8}, wav), "copy tag");
    EXPECT_EQ(move({300, bottom + 11}, wav), "copy zone");
}

TEST_F(DragDrop, onlyOneClipTargetsTheRowAndOnlyTracksTargetTheRest) {
    const QStringList two{file(QStringLiteral("a.wav")), file(QStringLiteral("b.wav"))};
    // Refused where it comes in, the drag must still be heard further on.
    EXPECT_EQ(enter(band, two), "none");
    EXPECT_EQ(move(zone, two), "copy zone");
    const QStringList m4a{file(QStringLiteral("voice.m4a"))};
    EXPECT_EQ(move(band, m4a), "copy tag");
    EXPECT_EQ(move(zone, m4a), "none");
    const QString folder = home.root() + QStringLiteral("/beats");
    QDir().mkpath(folder);
    ::Test::writeFile(folder + QStringLiteral("/beat.MP3"), "x");
    EXPECT_EQ(move(zone, {folder}), "copy zone");
    EXPECT_EQ(move(band, {folder}), "none");
}

TEST_F(DragDrop, onlyAChangeOfTargetOrLeavingRedraws) {
    const QStringList wav{file(QStringLiteral("beat.wav"))};
    EXPECT_EQ(repaints(view, [&] { enter(zone, wav); }), 1);
    EXPECT_EQ(repaints(view, [&] { move(zone + QPoint(10, 10), wav); }), 0);
    EXPECT_EQ(repaints(view, [&] { move(band, wav); }), 1);
    EXPECT_EQ(repaints(view, [&] { move(band + QPoint(10, 4), wav); }), 0);
    EXPECT_EQ(repaints(view, [&] { leave(); }), 1);
    EXPECT_EQ(enter(zone, {}), "none"); // nothing lit, yet leaving redraws
    EXPECT_EQ(repaints(view, [&] { leave(); }), 1);
}

TEST_F(DragDrop, aBusyViewRefusesDragsAndKeepsItsFlags) {
    HUDView::State busy;
    busy.busy = true;
    busy.hoverZone = true;
    view.setState(busy);
    EXPECT_EQ(enter(band, {file(QStringLiteral("voice.wav"))}), "none zone");
}

TEST_F(DragDrop, aClipDroppedOnTheRowIsAddedAndAFolderDroppedElsewhereStartsABatch) {
    const QString voice = file(QStringLiteral("voice.wav"));
    enter(band, {voice});
    EXPECT_EQ(send<QDropEvent>(band, {voice}), "copy");
    EXPECT_FALSE(view.state().busy);
    EXPECT_EQ(Tags::selected(), Tags::dir() + QStringLiteral("/voice.wav"));
    ASSERT_EQ(view.state().log.size(), 1u);
    EXPECT_EQ(view.state().log[0].text, QStringLiteral("TAG ADDED: VOICE"));

    const QString folder = home.root() + QStringLiteral("/beats");
    QDir().mkpath(folder);
    ::Test::writeFile(folder + QStringLiteral("/beat.wav"), "x");
    enter(zone, {folder});
    EXPECT_EQ(send<QDropEvent>(zone, {folder}), "copy");
    EXPECT_EQ(view.state().progress, (HUDView::Progress{0, 1})); // a batch over the folder
    EXPECT_TRUE(::Test::waitUntil([this] { return !view.state().busy; }, 60'000));
}
