// The user's preferences: one JSON object in a file, read through a cache that
// follows the file, and written atomically one key at a time.
#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <functional>
#include <optional>

class Preferences {
public:
    explicit Preferences(QString path);
    // $XDG_CONFIG_HOME/ODRAVEX Zelkor/preferences.json (default ~/.config).
    static Preferences user();

    const QString& path() const { return m_path; }
    // Where an unparsable file is kept when the next write replaces it.
    QString corruptPath() const;

    // A missing, unreadable or unparsable file reads as an empty object.
    QJsonObject values() const;
    QJsonValue value(const QString& key) const;
    // Each typed read gives nothing when the key is missing or holds another type.
    std::optional<qint64> integer(const QString& key) const; // whole numbers only
    std::optional<QString> string(const QString& key) const;
    std::optional<bool> boolean(const QString& key) const;
    std::optional<QJsonObject> object(const QString& key) const;

    // Every write re-reads the file and changes only its own key, so a key
    // written meanwhile by another process survives. False when the file could
    // not be written; callers may ignore it.
    bool setValue(const QString& key, const QJsonValue& value);
    bool setInteger(const QString& key, qint64 value) { return setValue(key, value); }
    bool setString(const QString& key, const QString& value) { return setValue(key, value); }
    bool setBoolean(const QString& key, bool value) { return setValue(key, value); }
    bool setObject(const QString& key, const QJsonObject& value) { return setValue(key, value); }
    bool remove(const QString& key);

private:
    bool update(const std::function<void(QJsonObject&)>& change);

    QString m_path;
};
