// Files and folders in one Qt file dialog: its selected rows, read through
// the dialog's file system model.
#include "platform/TrackDialog.h"

#include <QAbstractProxyModel>
#include <QFileSystemModel>
#include <QListView>

TrackDialog::TrackDialog(QWidget* parent)
    : QFileDialog(parent) {
    setOption(QFileDialog::DontUseNativeDialog);
    setFileMode(QFileDialog::ExistingFiles);
    setNameFilter(QStringLiteral("MP3 / WAV (*.mp3 *.wav)"));
}

// The selected rows, folders included, rather than the name field, which Qt
// fills with files only; the field still counts when nothing is selected.
void TrackDialog::accept() {
    const auto* view = findChild<QListView*>(QStringLiteral("listView"));
    const QModelIndexList rows =
        view && view->selectionModel() ? view->selectionModel()->selectedRows() : QModelIndexList();
    if (rows.isEmpty()) {
        QFileDialog::accept();
        if (result() == QDialog::Accepted)
            m_chosen = selectedFiles();
        return;
    }
    const auto* proxy = qobject_cast<const QAbstractProxyModel*>(view->model());
    const auto* files =
        qobject_cast<const QFileSystemModel*>(proxy ? proxy->sourceModel() : view->model());
    if (!files)
        return;
    m_chosen.clear();
    for (const QModelIndex& row : rows)
        m_chosen << files->filePath(proxy ? proxy->mapToSource(row) : row);
    done(QDialog::Accepted);
}
