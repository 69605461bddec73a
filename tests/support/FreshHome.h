// A private home for one test: HOME, XDG_CONFIG_HOME, XDG_DATA_HOME and
// XDG_CACHE_HOME inside a new temporary folder, so nothing touches the real
// user's files.
#pragma once

#include "support/TestSupport.h"

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>
#include <optional>
#include <utility>
#include <vector>

namespace Test {

class FreshHome {
public:
    // Sets the variables in this process (children inherit them); the data
    // folder is left uncreated, as on a first start.
    FreshHome();
    // Puts every variable it changed back.
    ~FreshHome();
    FreshHome(const FreshHome&) = delete;
    FreshHome& operator=(const FreshHome&) = delete;

    QString root() const { return at("/scratch"); } // for the test's own files
    QString configHome() const { return at("/config"); }
    QString dataHome() const { return at("/data"); }
    QString tagsDir() const { return at("/data/ODRAVEX Zelkor/Tags"); }
    QString preferencesPath() const { return at("/config/ODRAVEX Zelkor/preferences.json"); }

    // For a launched window: a private runtime folder (its single-instance socket)
    // and the offscreen platform. Returns the folder.
    QString useOwnRuntime();

    // Sets or unsets a variable until the home goes away.
    void setEnv(const char* name, const std::optional<QString>& value);

private:
    QString at(const char* path) const { return m_dir.path() + QLatin1String(path); }

    QTemporaryDir m_dir;
    std::vector<std::pair<QByteArray, std::optional<QByteArray>>> m_saved;
};

// A test in a fresh home holding a short clip, voice.wav.
class HomeWithClip : public testing::Test {
protected:
    void SetUp() override { makeAudio(clip, QStringLiteral("sine=frequency=1000"), 0.5, 8000, 1); }
    QString path(const QString& name) const { return home.root() + u'/' + name; }
    FreshHome home;
    const QString clip = path(QStringLiteral("voice.wav"));
};

} // namespace Test
