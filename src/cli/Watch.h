// Watching a folder for tracks that appear in it (and in its sub-folders when
// recursive), each handed over once it is complete.
#pragma once

#include "cli/Inputs.h"

#include <QElapsedTimer>
#include <QHash>
#include <QObject>
#include <QTimer>
#include <functional>
#include <optional>

class QSocketNotifier;

namespace Cli {

class Watch : public QObject {
public:
    // A file is complete when its size and modification time have not changed
    // for this long.
    static constexpr int kSettleMs = 2000;

    // `ready` gets each complete track on the event loop, again when the file
    // is written anew later. Tracks there at the start are not handed over until
    // they change. Throws TagError when the folder cannot be watched.
    Watch(const QString& folder, const Collecting& how, std::function<void(Input)> ready);
    ~Watch() override;

private:
    struct Seen {
        qint64 size = -1;
        qint64 modified = 0; // nanoseconds
        qint64 since = 0;    // when the two were last seen to change, on m_clock
        bool same(const Seen& other) const {
            return size == other.size && modified == other.modified;
        }
    };
    // The file's size and time now; nothing when it is gone or no regular file.
    static std::optional<Seen> look(const QString& path);

    void add(const QString& folder, bool announce);
    void read();
    void touched(const QString& path);
    void settle();

    QString m_root;
    Collecting m_how;
    std::function<void(Input)> m_ready;
    int m_fd = -1;
    QSocketNotifier* m_notifier = nullptr;
    QHash<int, QString> m_folders;  // by watch descriptor
    QHash<QString, Seen> m_pending; // tracks written lately
    QHash<QString, Seen> m_handed;  // tracks as they were when handed over
    QTimer m_timer;
    QElapsedTimer m_clock;
};

} // namespace Cli
