// The typed reads and writes of any preferences store, and the preferences
// file: cached reads keyed on the file's identity, and read-modify-write
// updates under a lock file, replaced atomically.
#include "platform/Preferences.h"
#include "base/Files.h"
#include "base/Names.h"
#include "base/TagError.h"
#include "platform/AppName.h"
#include "platform/UserFolders.h"

#include <QHash>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QLockFile>
#include <QMutex>
#include <cerrno>
#include <cstdio>
#include <limits>

namespace {

// Long enough for another process's write, short enough that a hung holder
// cannot freeze the window; after it the write goes ahead unlocked.
constexpr int kLockWaitMs = 2000;

// Every write is a new file renamed into place, so a write by anyone changes
// the inode as well as the times; size and times catch in-place edits.
using Stamp = Files::Identity;

struct Contents {
    QJsonObject object;
    bool corrupt = false;
};

Contents readFile(const QString& path) {
    const std::optional<QByteArray> bytes =
        Files::read(path, std::numeric_limits<qsizetype>::max());
    // A file there that cannot be read holds the user's keys all the same: keep
    // it aside like an unparsable one. A folder there is left alone, and no write
    // can replace it.
    if (!bytes) {
        const std::optional<Files::Identity> there = Files::identity(path);
        return {{}, there && !there->folder};
    }
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(*bytes, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return {{}, true};
    return {document.object(), false};
}

struct CachedFile {
    Stamp stamp;
    QJsonObject object;
};

// The view reads the preferences on every paint: one stat instead of a parse.
struct Cache {
    QMutex mutex;
    QHash<QString, CachedFile> files;
};

Cache& cache() {
    static Cache shared;
    return shared;
}

void remember(const QString& path, const std::optional<Stamp>& stamp, const QJsonObject& object) {
    Cache& shared = cache();
    const QMutexLocker locker(&shared.mutex);
    if (stamp)
        shared.files.insert(path, {*stamp, object});
    else
        shared.files.remove(path);
}

} // namespace

std::optional<qint64> Preferences::integer(const QString& key) const {
    const QJsonValue stored = value(key);
    if (!stored.isDouble())
        return std::nullopt;
    // toInteger gives 0 for a fraction or a number beyond 64 bits; only a
    // whole number survives the round trip.
    const qint64 whole = stored.toInteger();
    if (stored.toDouble() != static_cast<double>(whole))
        return std::nullopt;
    return whole;
}

std::optional<QString> Preferences::string(const QString& key) const {
    const QJsonValue stored = value(key);
    return stored.isString() ? std::optional(stored.toString()) : std::nullopt;
}

std::optional<bool> Preferences::boolean(const QString& key) const {
    const QJsonValue stored = value(key);
    return stored.isBool() ? std::optional(stored.toBool()) : std::nullopt;
}

std::optional<QJsonObject> Preferences::object(const QString& key) const {
    const QJsonValue stored = value(key);
    return stored.isObject() ? std::optional(stored.toObject()) : std::nullopt;
}

void Preferences::setValue(const QString& key, const QJsonValue& value) {
    update([&](QJsonObject& object) { object.insert(key, value); });
}

void Preferences::remove(const QString& key) {
    update([&](QJsonObject& object) { object.remove(key); });
}

PreferencesFile::PreferencesFile(QString path)
    : m_path(std::move(path)) {}

QString PreferencesFile::userPath() {
    return UserFolders::configHome() + QLatin1Char('/') + appName +
           QStringLiteral("/preferences.json");
}

QString PreferencesFile::corruptPath() const {
    return m_path + QStringLiteral(".corrupt");
}

QJsonObject PreferencesFile::values() const {
    // Stat before reading: a file replaced in between is then stored under the
    // older stamp and read again next time, never the other way round.
    const std::optional<Stamp> stamp = Files::identity(m_path);
    if (!stamp) {
        remember(m_path, std::nullopt, {});
        return {};
    }
    {
        Cache& shared = cache();
        const QMutexLocker locker(&shared.mutex);
        const auto found = shared.files.constFind(m_path);
        if (found != shared.files.cend() && found->stamp == *stamp)
            return found->object;
    }
    const QJsonObject object = readFile(m_path).object;
    remember(m_path, stamp, object);
    return object;
}

void PreferencesFile::update(const std::function<void(QJsonObject&)>& change) {
    try {
        Files::makeFolders(Names::folderOf(m_path));
    } catch (const TagError&) {
        // The write below fails with the reason.
    }
    // Serialises read-modify-write between processes; stale locks of crashed
    // processes are taken over by QLockFile.
    QLockFile lock(m_path + QStringLiteral(".lock"));
    lock.tryLock(kLockWaitMs);

    Contents current = readFile(m_path);
    // Never replace what could not be kept aside.
    if (current.corrupt &&
        std::rename(Names::encode(m_path).constData(), Names::encode(corruptPath()).constData()) !=
            0 &&
        errno != ENOENT) {
        const int code = errno;
        throw TagError::systemFailed(code, QStringLiteral("CAN'T SAVE ") +
                                               Names::fileName(corruptPath()).toUpper());
    }
    change(current.object);
    // Forgotten before the write: whatever is on disk after it, failed or not,
    // is parsed again on the next read.
    remember(m_path, std::nullopt, {});
    Files::replace(m_path, QJsonDocument(current.object).toJson(QJsonDocument::Indented));
}

QString PreferencesFile::watchedFolder() const {
    return Names::folderOf(m_path);
}
