// Files and folders in one Qt file dialog: its selected rows, read through
// the dialog's file system model.
#include "platform/TrackDialog.h"

#include <QAbstractProxyModel>
#include <QDir>
#include <QFileInfo>
#include <QFileSystemModel>
#include <QLineEdit>
#include <QListView>

TrackDialog::TrackDialog(QWidget* parent)
    : QFileDialog(parent) {
    setOption(QFileDialog::DontUseNativeDialog);
    setFileMode(QFileDialog::ExistingFiles);
    setNameFilter(QStringLiteral("MP3 / WAV (*.mp3 *.wav)"));
}

// A folder typed into the name field is opened, as Return does in any file
// dialog: typing selects the matching row, which would otherwise be taken.
// Otherwise the selected rows, folders included, rather than the name field,
// which Qt fills with files only; the field still counts when nothing is selected.
void TrackDialog::accept() {
    if (auto* name = findChild<QLineEdit*>(QStringLiteral("fileNameEdit"));
        name && name->isModified()) {
        QString typed = name->text().trimmed();
        if (typed == QLatin1String("~") || typed.startsWith(QLatin1String("~/")))
            typed.replace(0, 1, QDir::homePath());
        if (const QFileInfo folder(directory(), typed); !typed.isEmpty() && folder.isDir()) {
            setDirectory(folder.absoluteFilePath());
            name->clear();
            return;
        }
    }
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
