// One Zelkor per user: a second launch hands its files over and ends, a crashed
// one's socket does not stop the next, and only its user can reach the socket.
#include "app/SingleInstance.h"
#include "base/Names.h"
#include "support/FreshHome.h"

#include <QProcess>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

TEST(SingleInstanceLaunch, aSecondLaunchHandsItsFilesToTheFirstAndACrashedOnesSocketIsTakenOver) {
    ::Test::FreshHome home;
    const QString runtime = home.useOwnRuntime(), zelkor = ::Test::binary(u"zelkor"_s);
    const QByteArray socket = Names::encode(runtime + u"/zelkor-"_s + QString::number(getuid()));
    const QByteArray folder = Names::encode(home.root()) + '/';
    QProcess first, second, next; // killed as they go out of scope
    const auto launch = [](QProcess& process, const QStringList& command, const QString& where) {
        process.setWorkingDirectory(where);
        process.start(command.front(), command.mid(1));
        EXPECT_TRUE(process.waitForStarted());
    };
    const auto appears = [](const QByteArray& name, int ms = 60'000) {
        struct stat info = {};
        return ::Test::waitUntil([&] { return ::stat(name.constData(), &info) == 0; }, ms);
    };
    for (const char* name : {"beat.wav", "next.wav"})
        ::Test::makeAudio(home.root() + u'/' + QLatin1StringView(name), u"sine=frequency=220"_s, 3);
    // A relative name that is not UTF-8 reaches the window by its bytes.
    ASSERT_EQ(::rename(folder + "next.wav", folder + "next \xe9.wav"), 0);
    // Elsewhere, so that only an absolute path handed over finds the beat.
    launch(first, {zelkor}, runtime);
    ASSERT_TRUE(appears(socket, 10'000));
    launch(second, {zelkor, u"beat.wav"_s}, home.root());
    ASSERT_TRUE(second.waitForFinished(10'000));
    EXPECT_TRUE(second.exitStatus() == QProcess::NormalExit && second.exitCode() == 0);
    EXPECT_TRUE(appears(folder + "beat (Tagged).wav"));
    EXPECT_EQ(first.state(), QProcess::Running);

    first.kill();
    first.waitForFinished();
    ASSERT_TRUE(appears(socket, 0));
    // Handed to the dead socket, the file would never be tagged.
    launch(next, {u"/bin/sh"_s, u"-c"_s, u"exec \"$0\" \"$(printf 'next \\351.wav')\""_s, zelkor},
           home.root());
    EXPECT_TRUE(appears(folder + "next \xe9 (Tagged).wav"));
    EXPECT_EQ(next.state(), QProcess::Running);
}

TEST(SingleInstancePath, withoutARuntimeFolderTheSocketSitsInAFolderOnlyTheUserCanReach) {
    ::Test::FreshHome home;
    QTemporaryDir temporary;
    const QString folder = temporary.path() + u"/zelkor-"_s + QString::number(getuid());
    const QByteArray name = Names::encode(folder);
    ASSERT_EQ(chmod(Names::encode(temporary.path()).constData(), 01777), 0);
    home.setEnv("TMPDIR", temporary.path());
    home.setEnv("XDG_RUNTIME_DIR", std::nullopt);
    EXPECT_EQ(SingleInstance::defaultPath(), folder + u"/socket"_s);
    chmod(name.constData(), 0777); // opened up since: made private again
    EXPECT_EQ(SingleInstance::defaultPath(), folder + u"/socket"_s);
    struct stat info {};
    ASSERT_EQ(lstat(name.constData(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0700u);

    // Someone else's folder, or a link, is no place for it: the launch runs alone.
    if (const passwd* nobody = getpwnam("nobody"); nobody && getuid() == 0) {
        ASSERT_EQ(chown(name.constData(), nobody->pw_uid, nobody->pw_gid), 0);
        EXPECT_EQ(SingleInstance::defaultPath(), QString());
    }
    ASSERT_EQ(rmdir(name.constData()), 0);
    ASSERT_EQ(symlink(Names::encode(home.root()).constData(), name.constData()), 0);
    EXPECT_EQ(SingleInstance::defaultPath(), QString());
}
