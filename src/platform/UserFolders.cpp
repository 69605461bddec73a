// The freedesktop base folders, read from the environment at every call.
#include "platform/UserFolders.h"
#include "platform/AppName.h"

#include <QDir>

namespace UserFolders {

namespace {

// The base-directory rules: a relative path in these variables is invalid and ignored.
QString baseFolder(const char* variable, const QString& fallbackUnderHome) {
    const QString value = qEnvironmentVariable(variable);
    if (!value.isEmpty() && QDir::isAbsolutePath(value))
        return QDir::cleanPath(value);
    return QDir::cleanPath(QDir::homePath() + QLatin1Char('/') + fallbackUnderHome);
}

} // namespace

QString configHome() {
    return baseFolder("XDG_CONFIG_HOME", QStringLiteral(".config"));
}

QString dataHome() {
    return baseFolder("XDG_DATA_HOME", QStringLiteral(".local/share"));
}

QString appDataDir() {
    return dataHome() + QLatin1Char('/') + appName;
}

QString cacheHome() {
    return baseFolder("XDG_CACHE_HOME", QStringLiteral(".cache"));
}

} // namespace UserFolders
