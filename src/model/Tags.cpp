// The tag library: a folder of clips under the user's data folder, listed in
// the file browser's order, with the selection and seeding flag in the
// preferences.
#include "model/Tags.h"
#include "base/Files.h"
#include "base/Names.h"
#include "platform/Preferences.h"
#include "platform/Resources.h"
#include "platform/Trash.h"
#include "platform/UserFolders.h"

#include <QCollator>
#include <QLocale>
#include <QScopeGuard>
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr QLatin1String kSelectionKey("tag");
constexpr QLatin1String kSeededKey("seeded");
constexpr QLatin1String kDefaultTagsFolder("DefaultTags");

// A leading dot starts a hidden name, not an extension.
qsizetype extensionDot(const QString& fileName) {
    const qsizetype dot = fileName.lastIndexOf(QLatin1Char('.'));
    return dot > 0 ? dot : -1;
}

QString extensionOf(const QString& fileName) {
    const qsizetype dot = extensionDot(fileName);
    return dot < 0 ? QString() : fileName.mid(dot + 1);
}

QString baseNameOf(const QString& fileName) {
    const qsizetype dot = extensionDot(fileName);
    return dot < 0 ? fileName : fileName.left(dot);
}

// The file browser's order: the user's language, digits by value, case ignored.
QCollator browserCollator() {
    QLocale locale;
    // ICU's collator for the C locale (Debian's C.UTF-8) ignores numeric mode.
    if (locale.language() == QLocale::C)
        locale = QLocale(QLocale::English, QLocale::UnitedStates);
    QCollator collator(locale);
    collator.setNumericMode(true);
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    return collator;
}

QString libraryFolder() {
    return UserFolders::appDataDir() + QStringLiteral("/Tags");
}

// `names` of `folder` that are clips, as paths in the file browser's order.
QStringList clipsIn(const QString& folder, QStringList names) {
    names.removeIf([](const QString& name) { return !Tags::isClip(name); });

    const QCollator collator = browserCollator();
    std::stable_sort(names.begin(), names.end(), [&](const QString& a, const QString& b) {
        return collator.compare(a, b) < 0;
    });

    QStringList clips;
    clips.reserve(names.size());
    for (const QString& name : names)
        clips << folder + QLatin1Char('/') + name;
    return clips;
}

} // namespace

const QSet<QString>& Tags::exts() {
    static const QSet<QString> extensions{QStringLiteral("wav"), QStringLiteral("mp3"),
                                          QStringLiteral("aif"), QStringLiteral("aiff"),
                                          QStringLiteral("m4a"), QStringLiteral("flac")};
    return extensions;
}

bool Tags::isClip(const QString& path) {
    return exts().contains(extensionOf(Names::fileName(path)).toLower());
}

QString Tags::dir() {
    const QString folder = libraryFolder();
    try {
        Files::makeFolders(folder);
    } catch (const TagError&) {
        // Shows as an empty library, and as the reason a clip cannot be added.
    }
    return folder;
}

QStringList Tags::all() {
    const QString folder = dir();
    // By their bytes: QDir would read a Latin-1 name as another file's.
    return clipsIn(folder, Files::names(folder));
}

QStringList Tags::allAsSeeded() const {
    const QString folder = libraryFolder();
    QStringList names = Files::names(folder);
    // Seeding copies nothing into a file that stands where the folder should be.
    struct stat info = {};
    const bool blocked =
        ::stat(Names::encode(folder).constData(), &info) == 0 && !S_ISDIR(info.st_mode);
    if (!blocked && !m_preferences.boolean(kSeededKey).value_or(false))
        for (const QString& name : Files::names(Resources::path(kDefaultTagsFolder)))
            if (!names.contains(name))
                names << name;
    return clipsIn(folder, names);
}

std::optional<QString> Tags::selected() const {
    return selectedAmong(all());
}

std::optional<QString> Tags::selectedAmong(const QStringList& clips) const {
    if (clips.isEmpty())
        return std::nullopt;
    if (const std::optional<QString> stored = m_preferences.string(kSelectionKey)) {
        // Names typed on another system may arrive decomposed (NFD).
        const QString wanted = stored->normalized(QString::NormalizationForm_C);
        for (const QString& clip : clips)
            if (Names::fileName(clip).normalized(QString::NormalizationForm_C) == wanted)
                return clip;
    }
    return clips.first();
}

void Tags::setSelected(const std::optional<QString>& path) {
    if (path)
        m_preferences.setString(kSelectionKey, Names::fileName(*path));
    else
        m_preferences.remove(kSelectionKey);
}

QString Tags::name(const QString& path) {
    return baseNameOf(Names::fileName(path)).toUpper();
}

QString Tags::label(const QString& path, const QStringList& clips) {
    const QString fileName = Names::fileName(path);
    const QString base = baseNameOf(fileName);
    for (const QString& clip : clips) {
        const QString other = Names::fileName(clip);
        if (other != fileName && baseNameOf(other).compare(base, Qt::CaseInsensitive) == 0)
            return fileName;
    }
    return base;
}

QString Tags::add(const QString& path) {
    const QString fileName = Names::fileName(path);
    // A file the listing would leave out would be copied in and never seen again.
    if (!isClip(fileName))
        throw TagError::systemFailed(EINVAL, QStringLiteral("CAN'T ADD %1").arg(fileName.toUpper()),
                                     QStringLiteral("NOT A TAG CLIP"));
    const QString folder = dir() + QLatin1Char('/');
    // A name found free may be taken by another program before the copy lands.
    const auto copyTo = [&](const QString& name) {
        try {
            Files::copy(path, folder + name);
            return 0;
        } catch (const TagError& error) {
            if (error.code() == EEXIST)
                return EEXIST;
            throw;
        }
    };
    const QString destination = folder + Files::claimNumbered(fileName, copyTo).first;
    try {
        setSelected(destination);
    } catch (const TagError&) {
        // A copy nobody selected would claim an addition that did not happen.
        Files::remove(destination);
        throw;
    }
    return destination;
}

void Tags::seedDefaults() {
    // Another first run at once waits here until its copies are in, not just its flag.
    const int lock = ::open(Names::encode(dir()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const auto unlock = qScopeGuard([lock] {
        if (lock >= 0)
            ::close(lock);
    });
    if (lock >= 0)
        ::flock(lock, LOCK_EX);
    if (m_preferences.boolean(kSeededKey).value_or(false))
        return;
    // Flagged before copying: a clip the user deletes later never comes back,
    // even when this attempt fails half-way. Unflagged, nothing is copied.
    try {
        m_preferences.setBoolean(kSeededKey, true);
    } catch (const TagError&) {
        return;
    }

    const QString defaults = Resources::path(kDefaultTagsFolder) + QLatin1Char('/');
    QSet<QString> present;
    for (const QString& clip : all())
        present.insert(Names::fileName(clip));

    const QString folder = dir();
    for (const QString& resourceName : Files::names(defaults)) {
        if (!isClip(resourceName) || present.contains(resourceName))
            continue;
        try {
            Files::copy(defaults + resourceName, folder + QLatin1Char('/') + resourceName);
        } catch (const TagError&) {
            // A default that cannot be copied is simply missing from the library.
        }
    }
}

void Tags::remove(const QString& path) {
    m_trash.moveToTrash(path);
}
