// The real desktop services, where a test can watch them: the sound names and
// a machine without sound, which must stay silent on the console too.
#include "platform/Sounds.h"
#include "support/FreshHome.h"
#include "support/GuiSupport.h"
#include "support/TestSupport.h"

#include <QThread>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

// Everything written to standard error while `work` runs.
QByteArray standardErrorOf(const std::function<void()>& work, const QString& file) {
    std::fflush(stderr);
    const int saved = dup(STDERR_FILENO);
    const int sink = open(file.toLocal8Bit().constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(sink, STDERR_FILENO);
    work();
    std::fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(sink);
    close(saved);
    return ::Test::readAll(file);
}

} // namespace

TEST(ThemeSounds, namesMapToTheFreedesktopEvents) {
    EXPECT_EQ(themeEvent(QStringLiteral("Glass")), QStringLiteral("complete"));
    EXPECT_EQ(themeEvent(QStringLiteral("Basso")), QStringLiteral("dialog-error"));
    EXPECT_TRUE(themeEvent(QStringLiteral("Ping")).isEmpty());
}

TEST(ThemeSounds, withoutASoundDevicePlayingPrintsNothing) {
    ::Test::FreshHome home;
    // A server that is named but absent makes the sound library try ALSA, which
    // prints its failures unless silenced.
    for (const auto& server :
         {std::optional<QString>(), std::optional<QString>(QStringLiteral("unix:/nonexistent"))}) {
        home.setEnv("PULSE_SERVER", server);
        const QByteArray printed = standardErrorOf(
            [] {
                auto sounds = makeThemeSounds();
                sounds->play(QStringLiteral("Glass"));
                sounds->play(QStringLiteral("Basso"));
                QThread::msleep(300);
            },
            home.root() + QStringLiteral("/stderr"));
        EXPECT_TRUE(printed.isEmpty()) << printed.toStdString();
    }
}
