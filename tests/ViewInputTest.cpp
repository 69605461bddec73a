// The main view's input through Qt's own events: clicks on the regions the
// drawing left behind, the tag menu, drags of file URLs, and the track chooser.
#include "base/Names.h"
#include "platform/TrackDialog.h"
#include "style/Palette.h"
#include "support/GuiSupport.h"

#include <QtWidgets>

using namespace Qt::StringLiterals;
using namespace Style;
using ::Test::click;

namespace {

class ViewInput : public ::Test::ViewFixture {
protected:
    // Draws once, so that the regions exist.
    std::vector<HUDView::Hit> drawn() {
        view().snapshot(1);
        return view().hits();
    }

    // "copy" or "none" and the hover flags set; the paths sent as a file manager does.
    template<typename Event = QDragMoveEvent>
    std::string drag(QPoint at, const QStringList& paths) {
        QMimeData data;
        QByteArray list;
        for (const QString& path : paths)
            list += "file://" + Names::encode(path).toPercentEncoding("/") + "\r\n";
        data.setData(u"text/uri-list"_s, list);
        Event event(at, Qt::CopyAction | Qt::MoveAction, &data, Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(&view(), &event);
        const bool copy = event.isAccepted() && event.dropAction() == Qt::CopyAction;
        return std::string(copy ? "copy" : "none") + (view().state().hoverZone ? " zone" : "") +
               (view().state().hoverTag ? " tag" : "");
    }

    const QPoint band{300, 100}, zone{300, 290};
};

} // namespace

TEST_F(ViewInput, aSegmentsRightEdgeBelongsToTheNextOneAndABusyViewIgnoresClicks) {
    settings.setIntervalIndex(0);
    settings.setLevelIndex(0);
    const auto edge = [&](int hit) {
        const QRectF r = drawn()[hit].rect;
        click(view(), {r.right(), r.center().y()});
    };
    edge(2);
    EXPECT_EQ(settings.intervalIndex(), 1);
    EXPECT_EQ(view().layout().zone.footer.string, u"EVERY 30S // LOW"_s);
    edge(8); // the last segment's right edge is nobody's
    EXPECT_EQ(settings.levelIndex(), 0);

    // A busy view ignores clicks, even on regions drawn before the batch.
    const std::vector<HUDView::Hit> hits = drawn();
    view().setState(
        {.busy = true, .progress = {}, .log = {}}); // not drawn again yet: the old regions remain
    for (const QPointF at :
         {hits[0].rect.center(), hits[4].rect.center(), view().zoneRect().center()})
        click(view(), at);
    EXPECT_TRUE(settings.intervalIndex() == 1 && menus.shown.empty());
    EXPECT_EQ(panels.tagPanels + panels.trackPanels, 0);
}

TEST_F(ViewInput, aChoiceThatCannotBeSavedLeavesTheOldOneAndALineWithTheSystemsReason) {
    ::Test::writeFile(home.configHome() + u"/ODRAVEX Zelkor"_s, "in the way");
    const LogLine unsaved{u"CAN'T SAVE PREFERENCES.JSON"_s, u"NOT A DIRECTORY"_s, errColor};
    click(view(), drawn()[2].rect.center());
    click(view(), drawn()[6].rect.center());
    EXPECT_EQ(view().state().log, (std::vector<LogLine>{unsaved, unsaved}));
    EXPECT_TRUE(settings.intervalIndex() == 1 && settings.levelIndex() == 1);
}

TEST_F(ViewInput, theDropZoneAsksForATagFirstThenForTracks) {
    const QPointF centre = view().zoneRect().center();
    panels.tag = file(u"voice.wav"_s, "RIFF");
    click(view(), centre);
    ASSERT_TRUE(tags.selected());

    click(view(), centre); // cancelled: nothing starts
    EXPECT_FALSE(view().state().busy);
    panels.tracks = QStringList{file(u"beat.wav"_s, "RIFF")};
    click(view(), centre);
    EXPECT_TRUE(panels.tagPanels == 1 && panels.trackPanels == 2);
    EXPECT_EQ(view().state().progress, (HUDView::Progress{0, 1})); // a batch over the track
}

TEST_F(ViewInput, listsTheClipsWithTheSelectedOneCheckedPicksRemovesAndAddsThem) {
    const QString a = clip(u"a.mp3"_s), b = clip(u"b.wav"_s);
    tags.setSelected(b);
    EXPECT_EQ(
        choose(u"Show Tags Folder"_s),
        (std::vector<std::string>{"a", "* b", "--", "Add Tag…", "Remove “b”", "Show Tags Folder"}));
    EXPECT_EQ(viewer.shown.at(0), QStringList{b});
    choose(u"a"_s);
    EXPECT_EQ(tags.selected(), a);
    EXPECT_TRUE(current(view().tagRowRect()));

    // Removing the selected clip falls back to the first left, then to none.
    choose(u"Remove “a”"_s);
    EXPECT_EQ(view().state().log.back(), (LogLine{u"TAG REMOVED: A"_s, u"TRASH"_s, dim}));
    EXPECT_EQ(tags.selected(), b);
    EXPECT_TRUE(current(view().tagRowRect()));
    choose(u"Remove “b”"_s);
    EXPECT_TRUE(current(view().tagRowRect()));
    // The empty library offers adding and the folder.
    EXPECT_EQ(choose(u"Show Tags Folder"_s),
              (std::vector<std::string>{"Add Tag…", "Show Tags Folder"}));
    EXPECT_EQ(viewer.shown.at(1), QStringList{Tags::dir()});
    panels.tag = file(u"voice.wav"_s, "RIFF");
    choose(u"Add Tag…"_s);
    EXPECT_EQ(tags.selected(), Tags::dir() + u"/voice.wav"_s);
}

TEST_F(ViewInput, oneClipTargetsTheRowAndItsBandOnlyTracksTheRestAndABusyViewNothing) {
    const QStringList wav{file(u"voice.wav"_s)}; // a clip and a track at once
    EXPECT_EQ(drag<QDragEnterEvent>(zone, wav), "copy zone");
    QDragLeaveEvent leave;
    QCoreApplication::sendEvent(&view(), &leave);
    EXPECT_EQ(drag<QDragEnterEvent>(zone, {}), "none");
    // The band reaches 10 past the row.
    const int bottom = static_cast<int>(view().tagRowRect().bottom());
    EXPECT_EQ(drag<QDragEnterEvent>({300, bottom + 8}, wav), "copy tag");
    EXPECT_EQ(drag({300, bottom + 11}, wav), "copy zone");

    const QStringList two{file(u"a.wav"_s), file(u"b.wav"_s)};
    // Refused where it comes in, the drag must still be heard further on.
    EXPECT_EQ(drag<QDragEnterEvent>(band, two), "none");
    EXPECT_EQ(drag(zone, two), "copy zone");
    const QStringList m4a{file(u"voice.m4a"_s)};
    EXPECT_EQ(drag(band, m4a), "copy tag");
    EXPECT_EQ(drag(zone, m4a), "none");
    const QStringList folder{QFileInfo(file(u"beats/beat.MP3"_s)).path()};
    EXPECT_EQ(drag(zone, folder), "copy zone");
    EXPECT_EQ(drag(band, folder), "none");
    view().setState({.hoverZone = true, .busy = true, .progress = {}, .log = {}});
    EXPECT_EQ(drag<QDragEnterEvent>(band, wav), "none zone"); // refused, flags kept
}

TEST_F(ViewInput, aClipDroppedOnTheRowIsAddedAndArmedAndAFolderDroppedElsewhereStartsABatch) {
    const QStringList voice{file(u"voice.wav"_s)};
    drag<QDragEnterEvent>(band, voice);
    EXPECT_EQ(drag<QDropEvent>(band, voice), "copy");
    EXPECT_TRUE(!view().state().busy && tags.selected() == Tags::dir() + u"/voice.wav"_s);
    EXPECT_EQ(view().state().log,
              (std::vector<LogLine>{{u"TAG ADDED: VOICE"_s, u"ARMED"_s, purple}}));
    EXPECT_TRUE(current(view().tagRowRect()));

    // A folder whose name is Latin-1, from an old drive.
    file(u"beats/beat.wav"_s);
    const QByteArray latin = Names::encode(home.root()) + "/beats \xe9";
    ASSERT_EQ(::rename(Names::encode(home.root() + u"/beats"_s).constData(), latin), 0);
    const QStringList folder{Names::decode(latin)};
    drag<QDragEnterEvent>(zone, folder);
    EXPECT_EQ(drag<QDropEvent>(zone, folder), "copy");
    EXPECT_EQ(view().state().progress, (HUDView::Progress{0, 1})); // a batch over the folder
}

// The real dialog, short of its modal loop: it lists only tracks and folders; a
// folder typed into the name field is opened, not taken.
TEST(TrackDialog, takesFilesAndFoldersSelectedTogetherAndListsOnlyTracks) {
    ::Test::guiApplication();
    QTemporaryDir folder;
    const QString root = folder.path() + u'/';
    for (const char* name : {"a.wav", "b.MP3", "notes.txt"})
        ::Test::writeFile(root + QLatin1String(name), "x");
    QDir().mkpath(root + u"sub"_s);
    TrackDialog dialog;
    auto* view = dialog.findChild<QListView*>(u"listView"_s);
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
    EXPECT_EQ(listed, (QStringList{u"a.wav"_s, u"b.MP3"_s, u"sub"_s}));

    dialog.findChild<QLineEdit*>(u"fileNameEdit"_s)->insert(u"sub"_s);
    dialog.accept();
    EXPECT_TRUE(dialog.result() != QDialog::Accepted &&
                QDir(dialog.directory()) == QDir(root + u"sub"_s));
    dialog.setDirectory(root);
    const QStringList chosen{root + u"sub"_s, root + u"a.wav"_s, root + u"b.MP3"_s};
    for (const QString& path : chosen)
        view->selectionModel()->select(model->index(path),
                                       QItemSelectionModel::Select | QItemSelectionModel::Rows);
    dialog.accept();
    EXPECT_TRUE(dialog.result() == QDialog::Accepted && dialog.chosen() == chosen);
}
