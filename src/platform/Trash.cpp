// Moving files to the freedesktop trash through Qt, guarded against Qt's
// fallback to a "files" folder under the current directory.
#include "platform/Trash.h"
#include "platform/UserFolders.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

namespace Trash {

std::optional<QString> moveToTrash(const QString& path) {
    const QString dataHome = UserFolders::dataHome();
    // Qt finds the home trash through its own reading of XDG_DATA_HOME, which
    // accepts a relative value, and falls back to ./files when that folder is
    // missing: only go ahead when Qt's folder is ours and exists.
    const QString qtDataHome =
        QDir::cleanPath(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation));
    if (qtDataHome != dataHome || !QDir().mkpath(dataHome))
        return std::nullopt;

    QString inTrash;
    if (!QFile::moveToTrash(path, &inTrash) || !QFileInfo(inTrash).isAbsolute())
        return std::nullopt;
    return inTrash;
}

} // namespace Trash
