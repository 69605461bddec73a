// Watching folders for tracks that appear in them (and in their sub-folders when
// recursive), each handed over once it is complete.
#pragma once

#include "cli/Inputs.h"

#include <QElapsedTimer>
#include <QHash>
#include <QObject>
#include <QTimer>
#include <functional>
#include <optional>
#include <sys/types.h>

class QSocketNotifier;

namespace Cli {

class Watch : public QObject {
public:
    // A file is complete when its size and modification time have not changed
    // for this long, and a WAV's data is as long as its header says.
    static constexpr int kSettleMs = 2000;

    // `ready` gets each complete track on the event loop, again when the file
    // is written anew later. Tracks there at the start are not handed over until
    // they change. A folder given twice, or inside another, is watched once.
    // Says through `notice` what it watches, and when a folder went and came
    // back. Throws TagError when a folder cannot be watched.
    Watch(const QStringList& folders, const Collecting& how, std::function<void(Input)> ready,
          std::function<void(const QString&)> notice);
    ~Watch() override;

private:
    struct Seen {
        qint64 size = -1;
        qint64 modified = 0; // nanoseconds
        dev_t device = 0;
        ino_t inode = 0;
        qint64 since = 0; // when the above were last seen to change, on m_clock
        bool same(const Seen& other) const {
            return size == other.size && modified == other.modified && device == other.device &&
                   inode == other.inode;
        }
    };
    // The file's state now; nothing when it is gone, no regular file, or
    // another user's link to what is not theirs.
    static std::optional<Seen> look(const QString& path);

    struct Folder {
        QString path;
        QString root;
        dev_t device = 0; // of a folder given
        ino_t inode = 0;  // 0 while it is gone
    };
    struct Pending {
        Seen seen;
        QString root;
    };
    // Fills in the folder's identity; false when its path names no folder.
    static bool identify(Folder& folder);

    bool add(const QString& folder, const QString& root, bool announce);
    void forget(const QString& folder);
    void followRoots();
    void read();
    void touched(const QString& path, const QString& root);
    void settle();

    Collecting m_how;
    std::function<void(Input)> m_ready;
    std::function<void(const QString&)> m_notice; // above the progress line
    int m_fd = -1;
    QSocketNotifier* m_notifier = nullptr;
    QList<Folder> m_roots;             // as given
    QHash<int, Folder> m_folders;      // by watch descriptor
    QHash<QString, Pending> m_pending; // tracks written lately
    QHash<QString, Seen> m_handed;     // tracks as they were when handed over
    QTimer m_timer;
    QTimer m_rootsTimer;
    QElapsedTimer m_clock;
    int m_settleMs = kSettleMs;
};

} // namespace Cli
