// The track chooser's real dialog, short of its modal loop: files and folders
// selected together come back together.
#include "platform/TrackDialog.h"
#include "support/GuiSupport.h"
#include "support/TestSupport.h"

#include <QFileSystemModel>
#include <QListView>
#include <gtest/gtest.h>

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
    bool loaded = false; // read in the background
    QObject::connect(model, &QFileSystemModel::directoryLoaded, [&] { loaded = true; });
    dialog.setDirectory(root);
    ASSERT_TRUE(::Test::waitUntil([&] { return loaded; }, 5000));
    QStringList listed;
    for (int row = 0; row < model->rowCount(model->index(root)); ++row)
        listed << model->index(row, 0, model->index(root)).data().toString();
    listed.sort();
    EXPECT_EQ(listed, (QStringList{QStringLiteral("a.wav"), QStringLiteral("b.MP3"),
                                   QStringLiteral("sub")}));

    for (const char* name : {"sub", "a.wav", "b.MP3"})
        view->selectionModel()->select(model->index(root + QLatin1String(name)),
                                       QItemSelectionModel::Select | QItemSelectionModel::Rows);
    dialog.accept();
    EXPECT_EQ(dialog.result(), QDialog::Accepted);
    EXPECT_EQ(dialog.chosen(),
              (QStringList{root + QStringLiteral("sub"), root + QStringLiteral("a.wav"),
                           root + QStringLiteral("b.MP3")}));
}
