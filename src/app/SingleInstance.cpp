// The hand-over: the new instance writes its files as a QDataStream'd list and
// closes; the running one reads the list once the writer has gone.
#include "app/SingleInstance.h"

#include <QDataStream>
#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLockFile>
#include <unistd.h>

namespace {

constexpr int kConnectMs = 1000;
constexpr int kWriteMs = 2000;
constexpr int kLockMs = 3000;
constexpr QDataStream::Version kStreamVersion = QDataStream::Qt_6_4;

bool handOver(const QString& path, const QStringList& files) {
    QLocalSocket socket;
    socket.connectToServer(path);
    if (!socket.waitForConnected(kConnectMs))
        return false;
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    out.setVersion(kStreamVersion);
    out << files;
    socket.write(bytes);
    while (socket.bytesToWrite() > 0)
        if (!socket.waitForBytesWritten(kWriteMs))
            return false;
    socket.disconnectFromServer();
    return true;
}

} // namespace

QString SingleInstance::defaultPath() {
    QString folder = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (folder.isEmpty() || !QDir(folder).exists())
        folder = QDir::tempPath();
    return folder + QStringLiteral("/zelkor-") + QString::number(getuid());
}

SingleInstance::SingleInstance(QString path, QObject* parent)
    : QObject(parent)
    , m_path(std::move(path)) {}

SingleInstance::Outcome SingleInstance::claim(const QStringList& files,
                                              std::function<void(const QStringList&)> opened) {
    // Two launches at once must not both decide the socket is stale and remove
    // each other's; the lock lets one of them decide at a time.
    QLockFile lock(m_path + QStringLiteral(".lock"));
    lock.tryLock(kLockMs);
    if (handOver(m_path, files))
        return Outcome::handedOver;

    QLocalServer::removeServer(m_path);
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    if (!m_server->listen(m_path))
        return Outcome::alone;
    m_opened = std::move(opened);
    connect(m_server, &QLocalServer::newConnection, this, &SingleInstance::receive);
    return Outcome::listening;
}

void SingleInstance::receive() {
    while (QLocalSocket* socket = m_server->nextPendingConnection()) {
        connect(socket, &QLocalSocket::disconnected, this, [this, socket] {
            QDataStream in(socket->readAll());
            in.setVersion(kStreamVersion);
            QStringList files;
            in >> files;
            socket->deleteLater();
            if (in.status() == QDataStream::Ok && m_opened)
                m_opened(files);
        });
    }
}
