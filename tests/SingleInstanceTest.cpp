// One Zelkor per user, with the real program in child processes drawing
// offscreen in private folders: a second launch hands its files over and ends,
// and the socket left by a crashed instance does not stop the next launch.
#include "support/GuiSupport.h"

#include <QProcess>
#include <gtest/gtest.h>
#include <unistd.h>

class SingleInstance : public ::testing::Test {
protected:
    ~SingleInstance() override {
        for (auto& process : running)
            process->kill(), process->waitForFinished();
    }

    // `zelkor args...` started in `folder`, left running; a beat named in args is made first.
    QProcess& launch(const QStringList& args, const QString& folder) {
        for (const QString& name : args)
            ::Test::makeAudio(home.root() + QLatin1Char('/') + name,
                              QStringLiteral("sine=frequency=220"), 3);
        auto& process = running.emplace_back(std::make_unique<QProcess>());
        process->setWorkingDirectory(folder);
        process->start(::Test::binary(QStringLiteral("zelkor")), args);
        EXPECT_TRUE(process->waitForStarted());
        return *process;
    }
    bool appears(const QString& path, int ms = 60'000) {
        return ::Test::waitUntil([&] { return QFileInfo::exists(path); }, ms);
    }

    ::Test::FreshHome home;
    const QString runtime = home.useOwnRuntime();
    const QString socket = runtime + QStringLiteral("/zelkor-") + QString::number(getuid());
    std::vector<std::unique_ptr<QProcess>> running;
};

TEST_F(SingleInstance, aSecondLaunchHandsItsFilesToTheFirstAndEndsAtOnce) {
    // Elsewhere, so that only an absolute path handed over finds the beat.
    QProcess& first = launch({}, runtime);
    ASSERT_TRUE(appears(socket, 10'000));
    QProcess& second = launch({QStringLiteral("beat.wav")}, home.root());
    ASSERT_TRUE(second.waitForFinished(10'000));
    EXPECT_EQ(second.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(second.exitCode(), 0);
    EXPECT_TRUE(appears(home.root() + QStringLiteral("/beat (Tagged).wav")));
    EXPECT_EQ(first.state(), QProcess::Running);
}

TEST_F(SingleInstance, theSocketOfACrashedInstanceIsTakenOverByTheNextLaunch) {
    QProcess& crashed = launch({}, runtime);
    ASSERT_TRUE(appears(socket, 10'000));
    crashed.kill();
    crashed.waitForFinished();
    ASSERT_TRUE(QFileInfo::exists(socket));
    // Handed to the dead socket, the file would never be tagged.
    QProcess& next = launch({QStringLiteral("next.wav")}, home.root());
    EXPECT_TRUE(appears(home.root() + QStringLiteral("/next (Tagged).wav")));
    EXPECT_EQ(next.state(), QProcess::Running);
}
