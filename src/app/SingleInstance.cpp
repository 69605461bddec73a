// The hand-over: the new instance writes its files as a QDataStream'd list and
// closes; the running one reads the list once the writer has gone. Both ask
// the kernel who is at the other end of the socket before trusting it.
#include "app/SingleInstance.h"

#include "base/Names.h"

#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLockFile>
#include <cerrno>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kConnectMs = 1000;
constexpr int kWriteMs = 2000;
constexpr int kLockMs = 3000;
constexpr QDataStream::Version kStreamVersion = QDataStream::Qt_6_4;
constexpr mode_t kPrivateMode = 0700;

// Whether the process at the other end runs as this user, as the kernel saw it
// when the connection (or, for a server, its listening socket) was made.
bool peerIsThisUser(const QLocalSocket& socket) {
    ucred peer{};
    socklen_t size = sizeof peer;
    return getsockopt(static_cast<int>(socket.socketDescriptor()), SOL_SOCKET, SO_PEERCRED, &peer,
                      &size) == 0 &&
           size == sizeof peer && peer.uid == getuid();
}

bool handOver(const QString& path, const QStringList& files) {
    QLocalSocket socket;
    socket.connectToServer(path);
    if (!socket.waitForConnected(kConnectMs))
        return false;
    if (!peerIsThisUser(socket)) {
        socket.abort();
        return false;
    }
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

// The folder at `path`, made with mode 0700 when missing; when it exists it
// must be a real folder (not a link) owned by this user, and is made private.
bool ensurePrivateFolder(const QString& path) {
    const QByteArray name = Names::encode(path);
    if (mkdir(name.constData(), kPrivateMode) != 0 && errno != EEXIST)
        return false;
    const int folder = open(name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (folder < 0)
        return false;
    struct stat info {};
    const bool safe = fstat(folder, &info) == 0 && S_ISDIR(info.st_mode) &&
                      info.st_uid == getuid() &&
                      ((info.st_mode & 0777) == kPrivateMode || fchmod(folder, kPrivateMode) == 0);
    close(folder);
    return safe;
}

} // namespace

QString SingleInstance::defaultPath() {
    const QString name = QStringLiteral("zelkor-") + QString::number(getuid());
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtime.isEmpty() && QDir(runtime).exists())
        return runtime + QLatin1Char('/') + name;
    // The temporary folder is shared: anyone could bind a socket there first.
    const QString folder = QDir::tempPath() + QLatin1Char('/') + name;
    return ensurePrivateFolder(folder) ? folder + QStringLiteral("/socket") : QString();
}

SingleInstance::SingleInstance(QString path, QObject* parent)
    : QObject(parent)
    , m_path(std::move(path)) {}

SingleInstance::Outcome SingleInstance::claim(const QStringList& files,
                                              std::function<void(const QStringList&)> opened) {
    if (m_path.isEmpty())
        return Outcome::alone;
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
        if (!peerIsThisUser(*socket)) {
            socket->abort();
            socket->deleteLater();
            continue;
        }
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
