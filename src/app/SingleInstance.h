// One running Zelkor per user: a later launch hands its files to the running
// one over a local socket in a folder only the user can reach, and ends.
#pragma once

#include <QObject>
#include <QStringList>
#include <functional>

class QLocalServer;

class SingleInstance : public QObject {
public:
    enum class Outcome {
        handedOver, // another instance took the files; this one should end
        listening,  // this is the running instance now
        alone,      // no socket could be made; run without one
    };

    // $XDG_RUNTIME_DIR/zelkor-<user id>; without a runtime folder,
    // <temporary folder>/zelkor-<user id>/socket, in a folder of the user's own
    // with mode 0700 (made when missing). Empty when that folder belongs to
    // someone else or is not a folder: then there is no safe place for one.
    static QString defaultPath();

    explicit SingleInstance(QString path = defaultPath(), QObject* parent = nullptr);

    // Hands `files` (absolute paths, possibly none) to a running instance, or
    // becomes the running instance, calling `opened` with every later hand-over.
    // A socket left by an instance that crashed is replaced. Each side checks
    // that the other runs as the same user: files go to no one else, and come
    // from no one else.
    Outcome claim(const QStringList& files, std::function<void(const QStringList&)> opened);

private:
    void receive();

    QString m_path;
    QLocalServer* m_server = nullptr;
    std::function<void(const QStringList&)> m_opened;
};
