// The freedesktop home trash, written here rather than through Qt, whose entries
// hold the original path unencoded, so a restore reads "%41" in a name as "A".
#include "platform/Trash.h"
#include "base/Files.h"
#include "platform/UserFolders.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kMaxNumber = 10000;

// "clip.wav", 3 -> "clip (3).wav"; a name without an extension gets the number at its end.
QString numbered(const QString& name, int number) {
    if (number == 1)
        return name;
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    const qsizetype at = dot > 0 ? dot : name.size();
    return name.left(at) + QStringLiteral(" (%1)").arg(number) + name.mid(at);
}

// The entry's text: the path as the file system's bytes, escaped as in a URL
// ('/' and the unreserved characters kept), and the local time of the deletion.
QByteArray trashInfo(const QString& original) {
    return "[Trash Info]\nPath=" + QFile::encodeName(original).toPercentEncoding("/") +
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
    const QFileInfo source(path);
    if (!Files::occupied(path))
        return std::nullopt;
    const QString original = source.absoluteFilePath();
    const QString files = m_folder + QStringLiteral("/files");
    const QString info = m_folder + QStringLiteral("/info");
    // The trash is the user's alone; a failure shows when the entry is made.
    QDir().mkpath(QFileInfo(m_folder).path());
    for (const QString& folder : {m_folder, files, info})
        ::mkdir(QFile::encodeName(folder).constData(), 0700);

    for (int number = 1; number <= kMaxNumber; ++number) {
        const QString name = numbered(source.fileName(), number);
        const QString entry = info + QLatin1Char('/') + name + QStringLiteral(".trashinfo");
        // The entry is made first, whole and under a name nobody holds: it claims
        // the name against every other program trashing a file of the same name.
        try {
            Files::create(entry, trashInfo(original));
        } catch (const TagError& error) {
            if (error.code() == EEXIST)
                continue;
            return std::nullopt;
        }
        const QString inTrash = files + QLatin1Char('/') + name;
        const int moved = Files::moveNew(original, inTrash);
        if (moved == 0)
            return inTrash;
        ::unlink(QFile::encodeName(entry).constData());
        // Only a name left taken by a broken entry is worth another try.
        if (moved != EEXIST)
            return std::nullopt;
    }
    return std::nullopt;
}
