// The desktop's file manager, reached over D-Bus.
#include "platform/FileViewer.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDesktopServices>
#include <QFileInfo>
#include <QUrl>

namespace {

// A file manager that owns the name but never answers would hold a blocking
// call for 25 s; the fallback should come much sooner.
constexpr int kTimeoutMs = 2000;

void openFolderOf(const QString& path) {
    QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(path).absolutePath()));
}

class DesktopFileViewer final : public FileViewer {
public:
    void show(const QStringList& paths) override {
        if (paths.isEmpty())
            return;
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
        auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, kTimeoutMs));
        const QString first = paths.first();
        QObject::connect(watcher, &QDBusPendingCallWatcher::finished, watcher,
                         [first](QDBusPendingCallWatcher* done) {
                             if (done->isError())
                                 openFolderOf(first);
                             done->deleteLater();
                         });
    }
};

} // namespace

std::unique_ptr<FileViewer> makeDesktopFileViewer() {
    return std::make_unique<DesktopFileViewer>();
}
