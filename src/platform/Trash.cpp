// The freedesktop home trash, written here rather than through Qt, whose entries
// hold the original path unencoded, so a restore reads "%41" in a name as "A".
#include "platform/Trash.h"
#include "base/Files.h"
#include "base/Names.h"
#include "platform/UserFolders.h"

#include <QDateTime>
#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kMaxNumber = 10000;

// The entry's text: the path as the file system's bytes, escaped as in a URL
// ('/' and the unreserved characters kept), and the local time of the deletion.
QByteArray trashInfo(const QString& original) {
    return "[Trash Info]\nPath=" + Names::encode(original).toPercentEncoding("/") +
           "\nDeletionDate=" +
           QDateTime::currentDateTime()
               .toString(QStringLiteral("yyyy-MM-dd'T'HH:mm:ss"))
               .toLatin1() +
           '\n';
}

} // namespace

HomeTrash::HomeTrash(QString folder)
    : m_folder(std::move(folder)) {}

QString HomeTrash::userFolder() {
    return UserFolders::dataHome() + QStringLiteral("/Trash");
}

std::optional<QString> HomeTrash::moveToTrash(const QString& path) {
    if (!Files::occupied(path))
        return std::nullopt;
    const QString original = Names::absolute(path);
    const QString files = m_folder + QStringLiteral("/files");
    const QString info = m_folder + QStringLiteral("/info");
    // The trash is the user's alone; a failure shows when the entry is made.
    const std::pair<QString, mode_t> folders[] = {
        {Names::folderOf(m_folder), 0777}, {m_folder, 0700}, {files, 0700}, {info, 0700}};
    for (const auto& [folder, mode] : folders) {
        try {
            Files::makeFolders(folder, mode);
        } catch (const TagError&) {
        }
    }

    // Each entry is made first, whole and under a name nobody holds: it claims the
    // name against every other program trashing a file of the same name.
    const auto [name, answer] = Files::claimNumbered(
        Names::fileName(original),
        [&](const QString& name) {
            const QString entry = info + QLatin1Char('/') + name + QStringLiteral(".trashinfo");
            try {
                Files::create(entry, trashInfo(original));
            } catch (const TagError& error) {
                return error.code() == EEXIST ? EEXIST : EIO;
            }
            const int moved = Files::moveNew(original, files + QLatin1Char('/') + name);
            // Only a name left taken by a broken entry is worth another try.
            if (moved != 0)
                Files::remove(entry);
            return moved;
        },
        kMaxNumber);
    if (answer != 0)
        return std::nullopt;
    return files + QLatin1Char('/') + name;
}
