// The desktop's file manager, reached over D-Bus, and the fallback that opens
// the first file's folder with the desktop's folder handler.
#include "platform/FileViewer.h"
#include "base/Names.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTimer>
#include <QUrl>
#include <deque>

namespace {

// The command of a desktop entry's Exec line, quotes removed and an "env"
// prefix skipped: "env A=1 /opt/zelkor %F" -> "/opt/zelkor".
QString execProgram(const QString& entry) {
    bool inMainGroup = false;
    for (const QString& raw : entry.split(QLatin1Char('\n'))) {
        const QString line = raw.trimmed();
        if (line.startsWith(QLatin1Char('[')))
            inMainGroup = line == QLatin1String("[Desktop Entry]");
        if (!inMainGroup || !line.startsWith(QLatin1String("Exec=")))
            continue;
        QStringList words = QProcess::splitCommand(line.mid(5));
        if (!words.isEmpty() && words.first() == QLatin1String("env")) {
            words.removeFirst();
            while (!words.isEmpty() && words.first().contains(QLatin1Char('=')))
                words.removeFirst();
        }
        return words.value(0);
    }
    return {};
}

} // namespace

// Zelkor handed a folder would tag it again and show it again, without end; an
// entry without a program is not trusted.
bool isOtherProgram(const QString& id, const QString& entry, const QString& self,
                    const std::function<QString(const QString&)>& resolve) {
    if (id.isEmpty() || id == QLatin1String("zelkor.desktop"))
        return false;
    const QString program = execProgram(entry);
    if (program.isEmpty())
        return false;
    return QFileInfo(program).fileName() != QFileInfo(self).fileName() &&
           resolve(program) != resolve(self);
}

QStringList windowsFor(const QStringList& paths) {
    QStringList firsts, folders;
    for (const QString& path : paths) {
        const QString folder = Names::folderOf(path);
        if (folders.contains(folder))
            continue;
        folders << folder;
        firsts << path;
    }
    return firsts;
}

namespace {

// A file manager that owns the name but never answers would hold a blocking
// call for 25 s; the fallback should come much sooner. The same bound holds
// for asking the desktop which program opens folders.
constexpr int kTimeoutMs = 2000;

// Whether the desktop entry `id` (as "xdg-mime query default" names it) is a
// program other than Zelkor, from what the desktop knows of it.
bool isOtherProgram(const QString& id) {
    const QString path =
        id.isEmpty() ? QString() : QStandardPaths::locate(QStandardPaths::ApplicationsLocation, id);
    QFile file(path);
    const QString entry = !path.isEmpty() && file.open(QIODevice::ReadOnly | QIODevice::Text)
                              ? QString::fromUtf8(file.readAll())
                              : QString();
    return isOtherProgram(id, entry, QCoreApplication::applicationFilePath(),
                          [](const QString& program) {
                              return QFileInfo(program.contains(QLatin1Char('/'))
                                                   ? program
                                                   : QStandardPaths::findExecutable(program))
                                  .canonicalFilePath();
                          });
}

// Starts `program` on its own, its output going nowhere: what a folder handler
// prints is not Zelkor's to show.
void startQuietly(const QString& program, const QStringList& arguments) {
    QProcess process;
    process.setProgram(program);
    process.setArguments(arguments);
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    process.startDetached();
}

// Requests are taken one at a time, in order, each ending before the next
// begins, so a burst of batches never opens a pile of windows at once.
class DesktopFileViewer final : public FileViewer {
public:
    void show(const QStringList& paths) override {
        const bool idle = m_queue.empty();
        for (const QString& first : windowsFor(paths))
            m_queue.push_back({first});
        if (idle && !m_queue.empty())
            showItems(m_queue.front());
    }

private:
    void next() {
        m_queue.pop_front();
        if (!m_queue.empty())
            showItems(m_queue.front());
    }

    void showItems(const QStringList& paths) {
        QDBusConnection bus = QDBusConnection::sessionBus();
        if (!bus.isConnected()) {
            openFolderOf(paths.first());
            return;
        }
        QStringList uris;
        for (const QString& path : paths)
            uris << QUrl::fromLocalFile(path).toString(QUrl::FullyEncoded);
        QDBusMessage call = QDBusMessage::createMethodCall(
            QStringLiteral("org.freedesktop.FileManager1"),
            QStringLiteral("/org/freedesktop/FileManager1"),
            QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
        call << uris << QString();
        auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, kTimeoutMs), &m_context);
        QObject::connect(watcher, &QDBusPendingCallWatcher::finished, &m_context,
                         [this, first = paths.first()](QDBusPendingCallWatcher* done) {
                             done->deleteLater();
                             if (done->isError())
                                 openFolderOf(first);
                             else
                                 next();
                         });
    }

    // Asks the desktop which program opens folders, and opens the folder only
    // with a program that is not Zelkor.
    void openFolderOf(const QString& path) {
        const QString folder = Names::folderOf(path);
        const QString query = QStandardPaths::findExecutable(QStringLiteral("xdg-mime"));
        const QString opener = QStandardPaths::findExecutable(QStringLiteral("xdg-open"));
        if (query.isEmpty() || opener.isEmpty()) {
            next();
            return;
        }
        auto* process = new QProcess(&m_context);
        process->setStandardInputFile(QProcess::nullDevice());
        process->setStandardErrorFile(QProcess::nullDevice());
        QTimer::singleShot(kTimeoutMs, process, &QProcess::kill);
        QObject::connect(process, &QProcess::finished, &m_context, [this, process, opener, folder] {
            process->deleteLater();
            const QString id = QString::fromUtf8(process->readAllStandardOutput()).trimmed();
            if (process->exitStatus() == QProcess::NormalExit && process->exitCode() == 0 &&
                isOtherProgram(id))
                startQuietly(opener, {folder});
            next();
        });
        QObject::connect(process, &QProcess::errorOccurred, &m_context,
                         [this, process](QProcess::ProcessError error) {
                             if (error != QProcess::FailedToStart)
                                 return;
                             process->deleteLater();
                             next();
                         });
        process->start(query, {QStringLiteral("query"), QStringLiteral("default"),
                               QStringLiteral("inode/directory")});
    }

    QObject m_context; // owns the calls and processes under way; ends them with the viewer
    std::deque<QStringList> m_queue;
};

} // namespace

std::unique_ptr<FileViewer> makeDesktopFileViewer() {
    return std::make_unique<DesktopFileViewer>();
}
