// The main view's input through Qt's own events: clicks on the regions the
// drawing left behind, the tag menu, drags of file URLs, and the track chooser.
#include "model/Settings.h"
#include "model/Tags.h"
#include "platform/TrackDialog.h"
#include "style/Palette.h"
#include "support/GuiSupport.h"

#include <QDragEnterEvent>
#include <QFileSystemModel>
#include <QLineEdit>
#include <QListView>
#include <QMimeData>
#include <QUrl>
#include <gtest/gtest.h>

using namespace Style;
using ::Test::click;
using ::Test::repaints;

namespace {

class ViewInput : public ::Test::ViewFixture {
protected:
    // Draws once, so that the regions exist.
    std::vector<HUDView::Hit> drawn() {
        view().snapshot(1);
        return view().hits();
    }

    QString clip(const QString& name) {
        const QString path = Tags::dir() + QLatin1Char('/') + name;
        ::Test::writeFile(path, "RIFF");
        return path;
    }

    // Clicks the tag field and chooses `item`; returns the menu as read, a
    // checked item marked "* ", a separator as "--".
    std::vector<std::string> choose(const QString& item = {}) {
        const QRectF field = drawn().at(0).rect;
        menus.choose = item;
        click(view(), field.center());
        EXPECT_EQ(menus.where.back(), QPointF(field.left(), field.bottom() + 4));
        std::vector<std::string> titles;
        for (const MenuItem& entry : menus.shown.back())
            titles.push_back(
                entry.separator ? "--" : (entry.checked ? "* " : "") + entry.title.toStdString());
        return titles;
    }

    // The row shows the library's selection, not one read before the change.
    bool rowIsCurrent() {
        const QRect row = view().tagRowRect().toAlignedRect();
        return view().snapshot(1).copy(row) == HUDView(services()).snapshot(1).copy(row);
    }

    const LogLine& last() { return view().state().log.back(); }

    // The answer ("copy" or "none") followed by the hover flags that are set.
    template<typename Event = QDragMoveEvent>
    std::string drag(QPoint at, const QStringList& paths) {
        QMimeData data;
        QList<QUrl> urls;
        for (const QString& path : paths)
            urls << QUrl::fromLocalFile(path);
        data.setUrls(urls);
        Event event(at, Qt::CopyAction | Qt::MoveAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(&view(), &event);
        std::string answer =
            event.isAccepted() && event.dropAction() == Qt::CopyAction ? "copy" : "none";
        return answer + (view().state().hoverZone ? " zone" : "") +
               (view().state().hoverTag ? " tag" : "");
    }
    void leave() {
        QDragLeaveEvent event;
        QCoreApplication::sendEvent(&view(), &event);
    }
    bool batchEnds() {
        return ::Test::waitUntil([this] { return !view().state().busy; }, 60'000);
    }

    const QPoint band{300, 100};
    const QPoint zone{300, 290};
};

using ViewClicks = ViewInput;
using TagMenu = ViewInput;
using DragDrop = ViewInput;

} // namespace

TEST_F(ViewClicks, aSegmentsRightEdgeBelongsToTheNextOneEachClickRedrawsOnceAndBusyIgnoresAll) {
    Settings::setIntervalIndex(0);
    Settings::setLevelIndex(0);
    const QRectF twenty = drawn()[2].rect;
    EXPECT_EQ(repaints(view(), [&] { click(view(), {twenty.right(), twenty.center().y()}); }), 1);
    EXPECT_EQ(Settings::intervalIndex(), 1);

    // The last segment's right edge is nobody's, and the header answers nothing.
    const QRectF high = drawn()[8].rect;
    EXPECT_EQ(repaints(view(), [&] { click(view(), {high.right(), high.center().y()}); }), 0);
    EXPECT_EQ(repaints(view(), [&] { click(view(), {300, 20}); }), 0);
    EXPECT_EQ(Settings::levelIndex(), 0);

    // A busy view ignores clicks, even on regions drawn before the batch.
    const std::vector<HUDView::Hit> hits = drawn();
    HUDView::State busy;
    busy.busy = true;
    view().setState(busy); // not drawn again yet: the old regions remain
    ASSERT_FALSE(view().hits().empty());
    for (const QPointF at :
         {hits[0].rect.center(), hits[4].rect.center(), view().zoneRect().center()})
        click(view(), at);
    EXPECT_EQ(Settings::intervalIndex(), 1);
    EXPECT_TRUE(menus.shown.empty());
    EXPECT_EQ(panels.tagPanels + panels.trackPanels, 0);
}

TEST_F(ViewClicks, whereRegionsOverlapTheOneDrawnFirstWins) {
    view().resize(400, 640); // too narrow: the level segments slide over the interval ones
    Settings::setIntervalIndex(0);
    Settings::setLevelIndex(1);
    const std::vector<HUDView::Hit> hits = drawn();
    for (int i = 2; i < 6; ++i)
        for (int j = 6; j < 9; ++j)
            if (const QRectF both = hits[i].rect & hits[j].rect; !both.isEmpty()) {
                click(view(), both.center());
                EXPECT_EQ(Settings::intervalIndex(), i - 2);
                EXPECT_EQ(Settings::levelIndex(), 1);
                return;
            }
    FAIL() << "no regions overlap";
}

TEST_F(ViewClicks, theDropZoneAsksForATagFirstThenForTracks) {
    const QPointF centre = view().zoneRect().center();
    panels.tag = file(QStringLiteral("voice.wav"), "RIFF");
    click(view(), centre);
    ASSERT_TRUE(Tags::selected());

    click(view(), centre); // cancelled: nothing starts
    EXPECT_FALSE(view().state().busy);
    file(QStringLiteral("beats/beat.wav"), "RIFF");
    panels.tracks = QStringList{home.root() + QStringLiteral("/beats")};
    click(view(), centre);
    EXPECT_EQ(panels.tagPanels, 1);
    EXPECT_EQ(panels.trackPanels, 2);
    EXPECT_EQ(view().state().progress, (HUDView::Progress{0, 1})); // a batch over the folder
    EXPECT_TRUE(batchEnds());
}

TEST_F(TagMenu, listsTheClipsWithTheSelectedOneCheckedPicksAnotherAndRemovesThem) {
    const QString a = clip(QStringLiteral("a.mp3"));
    const QString b = clip(QStringLiteral("b.wav"));
    Tags::setSelected(b);
    EXPECT_EQ(
        choose(QStringLiteral("Show Tags Folder")),
        (std::vector<std::string>{"a", "* b", "--", "Add Tag…", "Remove “b”", "Show Tags Folder"}));
    EXPECT_EQ(viewer.shown.at(0), QStringList{b});
    choose(QStringLiteral("a"));
    EXPECT_EQ(Tags::selected(), a);
    EXPECT_TRUE(rowIsCurrent());

    // Removing the selected clip falls back to the first left, then to none.
    choose(QStringLiteral("Remove “a”"));
    EXPECT_EQ(last(), (LogLine{QStringLiteral("TAG REMOVED: A"), QStringLiteral("TRASH"), dim}));
    EXPECT_EQ(Tags::selected(), b);
    EXPECT_TRUE(rowIsCurrent());
    choose(QStringLiteral("Remove “b”"));
    EXPECT_TRUE(rowIsCurrent());
    // The empty library offers adding and the folder.
    EXPECT_EQ(choose(QStringLiteral("Show Tags Folder")),
              (std::vector<std::string>{"Add Tag…", "Show Tags Folder"}));
    EXPECT_EQ(viewer.shown.at(1), QStringList{Tags::dir()});
}

TEST_F(TagMenu, addingAnExistingNameKeepsBothAndArmsTheNumberedCopy) {
    clip(QStringLiteral("voice.mp3"));
    panels.tag = file(QStringLiteral("voice.mp3"), "ID3");
    choose(QStringLiteral("Add Tag…"));
    EXPECT_EQ(last(),
              (LogLine{QStringLiteral("TAG ADDED: VOICE (2)"), QStringLiteral("ARMED"), purple}));
    EXPECT_TRUE(rowIsCurrent());
    const std::optional<QString> copy = Tags::selected();

    panels.tag = home.root() + QStringLiteral("/gone.WAV");
    choose(QStringLiteral("Add Tag…"));
    EXPECT_EQ(last(),
              (LogLine{QStringLiteral("gone.WAV"), QStringLiteral("CAN'T ADD TAG"), errColor}));
    EXPECT_EQ(Tags::selected(), copy);
}

TEST_F(DragDrop, oneClipTargetsTheRowAndItsBandOnlyTracksTheRestAndABusyViewNothing) {
    const QStringList wav{file(QStringLiteral("voice.wav"))}; // a clip and a track at once
    const int top = static_cast<int>(view().tagRowRect().top());
    const int bottom = static_cast<int>(view().tagRowRect().bottom());
    EXPECT_EQ(drag<QDragEnterEvent>({300, top - 8}, wav), "copy tag");
    EXPECT_EQ(drag({300, top - 11}, wav), "copy zone");
    EXPECT_EQ(drag({300, bottom + 8}, wav), "copy tag");
    EXPECT_EQ(drag({300, bottom + 11}, wav), "copy zone");

    const QStringList two{file(QStringLiteral("a.wav")), file(QStringLiteral("b.wav"))};
    // Refused where it comes in, the drag must still be heard further on.
    EXPECT_EQ(drag<QDragEnterEvent>(band, two), "none");
    EXPECT_EQ(drag(zone, two), "copy zone");
    const QStringList m4a{file(QStringLiteral("voice.m4a"))};
    EXPECT_EQ(drag(band, m4a), "copy tag");
    EXPECT_EQ(drag(zone, m4a), "none");
    file(QStringLiteral("beats/beat.MP3"));
    const QStringList folder{home.root() + QStringLiteral("/beats")};
    EXPECT_EQ(drag(zone, folder), "copy zone");
    EXPECT_EQ(drag(band, folder), "none");

    HUDView::State busy;
    busy.busy = busy.hoverZone = true;
    view().setState(busy);
    EXPECT_EQ(drag<QDragEnterEvent>(band, wav), "none zone"); // refused, flags kept
}

TEST_F(DragDrop, onlyAChangeOfTargetOrLeavingRedraws) {
    const QStringList wav{file(QStringLiteral("beat.wav"))};
    const auto passes = [&](const std::function<void()>& work) { return repaints(view(), work); };
    EXPECT_EQ(passes([&] { drag<QDragEnterEvent>(zone, wav); }), 1);
    EXPECT_EQ(passes([&] { drag(zone + QPoint(10, 10), wav); }), 0);
    EXPECT_EQ(passes([&] { drag(band, wav); }), 1);
    EXPECT_EQ(passes([&] { drag(band + QPoint(10, 4), wav); }), 0);
    EXPECT_EQ(passes([&] { leave(); }), 1);
    EXPECT_EQ(drag<QDragEnterEvent>(zone, {}), "none"); // nothing lit, yet leaving redraws
    EXPECT_EQ(passes([&] { leave(); }), 1);
}

TEST_F(DragDrop, aClipDroppedOnTheRowIsAddedAndAFolderDroppedElsewhereStartsABatch) {
    const QString voice = file(QStringLiteral("voice.wav"));
    drag<QDragEnterEvent>(band, {voice});
    EXPECT_EQ(drag<QDropEvent>(band, {voice}), "copy");
    EXPECT_FALSE(view().state().busy);
    EXPECT_EQ(Tags::selected(), Tags::dir() + QStringLiteral("/voice.wav"));
    ASSERT_EQ(view().state().log.size(), 1u);
    EXPECT_EQ(last().text, QStringLiteral("TAG ADDED: VOICE"));

    file(QStringLiteral("beats/beat.wav"));
    const QStringList folder{home.root() + QStringLiteral("/beats")};
    drag<QDragEnterEvent>(zone, folder);
    EXPECT_EQ(drag<QDropEvent>(zone, folder), "copy");
    EXPECT_EQ(view().state().progress, (HUDView::Progress{0, 1})); // a batch over the folder
    EXPECT_TRUE(batchEnds());
}

// The real dialog, short of its modal loop: files and folders selected together
// come back together.
TEST(TrackDialog, takesFilesAndFoldersSelectedTogetherAndListsOnlyTracks) {
    ::Test::guiApplication();
    QTemporaryDir folder;
    const QString root = folder.path() + QLatin1Char('/');
    for (const char* name : {"a.wav", "b.MP3", "notes.txt"})
        ::Test::writeFile(root + QLatin1String(name), "x");
    QDir().mkpath(root + QStringLiteral("sub"));

    TrackDialog dialog;
    auto* view = dialog.findChild<QListView*>(QStringLiteral("listView"));
    auto* model = qobject_cast<QFileSystemModel*>(view->model());
    bool loaded = false; // read in the background, after the folder it opened in
    QObject::connect(model, &QFileSystemModel::directoryLoaded,
                     [&](const QString& path) { loaded = loaded || QDir(path) == QDir(root); });
    dialog.setDirectory(root);
    ASSERT_TRUE(::Test::waitUntil([&] { return loaded; }, 5000));
    QStringList listed;
    for (int row = 0; row < model->rowCount(model->index(root)); ++row)
        listed << model->index(row, 0, model->index(root)).data().toString();
    listed.sort();
    EXPECT_EQ(listed, (QStringList{QStringLiteral("a.wav"), QStringLiteral("b.MP3"),
                                   QStringLiteral("sub")}));

    // A folder typed into the name field (which selects its row) is opened, not taken.
    dialog.findChild<QLineEdit*>(QStringLiteral("fileNameEdit"))->insert(QStringLiteral("sub"));
    dialog.accept();
    EXPECT_NE(dialog.result(), QDialog::Accepted);
    EXPECT_EQ(QDir(dialog.directory()), QDir(root + QStringLiteral("sub")));
    dialog.setDirectory(root);

    const QStringList chosen{root + QStringLiteral("sub"), root + QStringLiteral("a.wav"),
                             root + QStringLiteral("b.MP3")};
    for (const QString& path : chosen)
        view->selectionModel()->select(model->index(path),
                                       QItemSelectionModel::Select | QItemSelectionModel::Rows);
    dialog.accept();
    EXPECT_EQ(dialog.result(), QDialog::Accepted);
    EXPECT_EQ(dialog.chosen(), chosen);
}
