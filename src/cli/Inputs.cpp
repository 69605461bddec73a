// Expanding zelkor-tag's PATHs: the window's rules for a folder's own tracks,
// and, when asked, a walk down its sub-folders. Names are bytes (Engine's
// Names::decode and Names::encode), so every look at the disk goes through them.
#include "cli/Inputs.h"

#include "engine/Collect.h"

#include <QDir>
#include <QFile>
#include <QSet>
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <dirent.h>
#include <sys/stat.h>

namespace Cli {

namespace {

enum class Kind { none, folder, file };

Kind kindOf(const QString& path) {
    struct stat info = {};
    if (::stat(Names::encode(path).constData(), &info) != 0)
        return Kind::none;
    return S_ISDIR(info.st_mode) ? Kind::folder : Kind::file;
}

QString folderOf(const QString& path) {
    return path.left(std::max<qsizetype>(path.lastIndexOf(QLatin1Char('/')), 1));
}

// The path with every link resolved, to know a folder met twice.
QByteArray realPath(const QString& path) {
    char real[PATH_MAX];
    return ::realpath(Names::encode(path).constData(), real) ? QByteArray(real)
                                                             : Names::encode(path);
}

class Walk {
public:
    Walk(const Collecting& how, std::vector<Input>& into)
        : m_how(how)
        , m_into(into)
        , m_excluded(how.excluded.isEmpty() ? QByteArray() : realPath(how.excluded)) {}

    void folder(const QString& folder, const QString& root) {
        // A link back up the tree is walked once; the output folder never.
        const QByteArray real = realPath(folder);
        if (m_seen.contains(real) ||
            (!m_excluded.isEmpty() && isWithin(Names::decode(real), Names::decode(m_excluded))))
            return;
        m_seen.insert(real);
        for (const QString& track : Engine::collect({folder}))
            if (!m_how.recursive || kindOf(track) != Kind::folder)
                m_into.push_back({track, root, {}});
        if (m_how.recursive)
            for (const QString& sub : subFolders(folder))
                this->folder(sub, root);
    }

private:
    const Collecting& m_how;
    std::vector<Input>& m_into;
    QByteArray m_excluded;
    QSet<QByteArray> m_seen;
};

} // namespace

bool isFolder(const QString& path) {
    return kindOf(path) == Kind::folder;
}

// Links to folders count; the order is the window's: code points after
// canonical composition.
QStringList subFolders(const QString& folder) {
    QStringList folders;
    DIR* dir = ::opendir(Names::encode(folder).constData());
    if (!dir)
        return folders;
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] == '.') // hidden, "." and ".." alike
            continue;
        const QString path = folder + QLatin1Char('/') + Names::decode(entry->d_name);
        if (entry->d_type == DT_DIR || ((entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) &&
                                        kindOf(path) == Kind::folder))
            folders << path;
    }
    ::closedir(dir);
    const auto key = [](const QString& path) {
        return path.normalized(QString::NormalizationForm_C).toUcs4();
    };
    std::sort(folders.begin(), folders.end(),
              [&key](const QString& a, const QString& b) { return key(a) < key(b); });
    return folders;
}

bool isWithin(const QString& path, const QString& folder) {
    const QString inside = folder.endsWith(QLatin1Char('/')) ? folder : folder + QLatin1Char('/');
    return path == folder || path.startsWith(inside);
}

std::vector<Input> collect(const QStringList& paths, const Collecting& how) {
    std::vector<Input> inputs;
    for (const QString& path : paths) {
        const QString absolute = Names::absolute(path);
        switch (kindOf(path)) {
        case Kind::none:
            inputs.push_back({path, {}, TagError::notFound()});
            break;
        case Kind::folder:
            Walk(how, inputs).folder(absolute, absolute);
            break;
        case Kind::file:
            if (!Engine::isTrack(path))
                inputs.push_back({path, {}, TagError::notATrack()});
            else
                inputs.push_back({absolute, folderOf(absolute), {}});
            break;
        }
    }
    return inputs;
}

QStringList readPaths(std::FILE* in, bool nul) {
    QFile input;
    QStringList paths;
    if (!input.open(in, QIODevice::ReadOnly))
        return paths;
    // A NUL-ended name is taken as it is: only NUL and '/' cannot be in a name.
    for (QByteArray& name : input.readAll().split(nul ? '\0' : '\n')) {
        while (!nul && name.endsWith('\r'))
            name.chop(1);
        if (!name.isEmpty())
            paths << Names::decode(name);
    }
    return paths;
}

QString shownName(const Input& input) {
    if (input.root.isEmpty())
        return input.track;
    return QDir(input.root).relativeFilePath(input.track);
}

} // namespace Cli
