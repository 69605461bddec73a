// Temporary homes for tests of the preferences and the tag library.
#include "support/FreshHome.h"
#include "base/Names.h"

#include <QDir>
#include <QFile>
#include <filesystem>
#include <system_error>

namespace Test {

FreshHome::FreshHome() {
    QDir().mkpath(root());
    QDir().mkpath(at("/home"));
    setEnv("HOME", at("/home"));
    setEnv("XDG_CONFIG_HOME", configHome());
    setEnv("XDG_DATA_HOME", dataHome());
    setEnv("XDG_CACHE_HOME", at("/cache"));
}

FreshHome::~FreshHome() {
    // Newest first, so a variable changed twice gets its original value back.
    for (auto it = m_saved.rbegin(); it != m_saved.rend(); ++it) {
        if (it->second)
            qputenv(it->first.constData(), *it->second);
        else
            qunsetenv(it->first.constData());
    }
    // By bytes: QTemporaryDir leaves a name that is not UTF-8 behind.
    std::error_code ignored;
    std::filesystem::remove_all(Names::encode(m_dir.path()).toStdString(), ignored);
}

QString FreshHome::useOwnRuntime() {
    const QString runtime = root() + QStringLiteral("/runtime");
    QDir().mkpath(runtime);
    QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    setEnv("XDG_RUNTIME_DIR", runtime);
    setEnv("QT_QPA_PLATFORM", QStringLiteral("offscreen"));
    return runtime;
}

void FreshHome::setEnv(const char* name, const std::optional<QString>& value) {
    m_saved.emplace_back(name, qEnvironmentVariableIsSet(name)
                                   ? std::optional<QByteArray>(qgetenv(name))
                                   : std::nullopt);
    if (value)
        qputenv(name, value->toLocal8Bit());
    else
        qunsetenv(name);
}

} // namespace Test
