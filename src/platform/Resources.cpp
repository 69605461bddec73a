// Locates the resources folder from the running executable.
#include "platform/Resources.h"

#include <QDir>
#include <QFileInfo>

namespace Resources {

QString dir() {
    const QString overridden = qEnvironmentVariable("ZELKOR_RESOURCES");
    if (!overridden.isEmpty())
        return QDir(overridden).absolutePath();
    // /proc/self/exe works before (and without) a QCoreApplication.
    const QString exe = QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath();
    return QDir::cleanPath(QFileInfo(exe).absolutePath() +
                           QStringLiteral("/" ZELKOR_SHARE_FROM_BIN));
}

QString path(const QString& name) {
    return dir() + QLatin1Char('/') + name;
}

QString icon() {
    return QDir::cleanPath(
        path(QStringLiteral(ZELKOR_ICONS_FROM_SHARE "/hicolor/scalable/apps/zelkor.svg")));
}

} // namespace Resources
