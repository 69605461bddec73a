// The user's preferences: one JSON object, behind a small interface so that
// the model is handed its store; the store kept in a file, read through a cache
// that follows the file, and written atomically one key at a time.
#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QString>
#include <functional>
#include <optional>

class Preferences {
public:
    virtual ~Preferences() = default;

    // A store that cannot be read reads as an empty object.
    virtual QJsonObject values() const = 0;
    // Applies `change` to the stored object as it is now and stores the result;
    // throws TagError, with the store left as it was, when that fails.
    virtual void update(const std::function<void(QJsonObject&)>& change) = 0;
    // Where a change made by another program shows (the store is replaced by a
    // rename, which only its folder sees); empty when there is nothing to watch.
    virtual QString watchedFolder() const { return {}; }

    QJsonValue value(const QString& key) const { return values().value(key); }
    // Each typed read gives nothing when the key is missing or holds another type.
    std::optional<qint64> integer(const QString& key) const; // whole numbers only
    std::optional<QString> string(const QString& key) const;
    std::optional<bool> boolean(const QString& key) const;
    std::optional<QJsonObject> object(const QString& key) const;

    // Each write changes only its own key, so a key written meanwhile by another
    // process survives. Throws TagError when the store cannot be written.
    void setValue(const QString& key, const QJsonValue& value);
    void setInteger(const QString& key, qint64 value) { setValue(key, value); }
    void setString(const QString& key, const QString& value) { setValue(key, value); }
    void setBoolean(const QString& key, bool value) { setValue(key, value); }
    void setObject(const QString& key, const QJsonObject& value) { setValue(key, value); }
    void remove(const QString& key);
};

class PreferencesFile final : public Preferences {
public:
    explicit PreferencesFile(QString path);
    // $XDG_CONFIG_HOME/ODRAVEX Zelkor/preferences.json (default ~/.config).
    static QString userPath();

    const QString& path() const { return m_path; }
    QString watchedFolder() const override;
    // Where an unparsable file is kept when the next write replaces it.
    QString corruptPath() const;

    // A missing, unreadable or unparsable file reads as an empty object.
    QJsonObject values() const override;
    // Re-reads the file under a lock shared with other processes.
    void update(const std::function<void(QJsonObject&)>& change) override;

private:
    QString m_path;
};
