// One Zelkor per user, with the real program in child processes drawing
// offscreen in private folders: a second launch hands its files over and ends,
// the socket left by a crashed instance does not stop the next launch, and
// files pass only between processes of the same user.
#include "app/SingleInstance.h"
#include "base/Names.h"
#include "support/GuiSupport.h"

#include <QDataStream>
#include <QProcess>
#include <QScopeGuard>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

class SingleInstanceLaunch : public ::testing::Test {
protected:
    ~SingleInstanceLaunch() override {
        for (auto& process : running) {
            process->kill();
            process->waitForFinished();
        }
    }
    // `program args...` started in `folder`, left running.
    QProcess& launch(const QString& program, const QStringList& args, const QString& folder) {
        auto& process = running.emplace_back(std::make_unique<QProcess>());
        process->setWorkingDirectory(folder);
        process->start(program, args);
        EXPECT_TRUE(process->waitForStarted());
        return *process;
    }
    bool appears(const QByteArray& name, int ms = 60'000) {
        struct stat info = {};
        return ::Test::waitUntil([&] { return ::stat(name.constData(), &info) == 0; }, ms);
    }

    ::Test::FreshHome home;
    const QString runtime = home.useOwnRuntime(), zelkor = ::Test::binary(u"zelkor"_s);
    const QByteArray socket = Names::encode(runtime + u"/zelkor-"_s + QString::number(getuid()));
    const QByteArray folder = Names::encode(home.root()) + '/';
    std::vector<std::unique_ptr<QProcess>> running;
};

TEST_F(SingleInstanceLaunch, aSecondLaunchHandsItsFilesToTheFirstAndACrashedOnesSocketIsTakenOver) {
    for (const char* name : {"beat.wav", "next.wav"})
        ::Test::makeAudio(home.root() + u'/' + QLatin1StringView(name), u"sine=frequency=220"_s, 3);
    // A relative name that is not UTF-8 reaches the window by its bytes.
    ASSERT_EQ(::rename(folder + "next.wav", folder + "next \xe9.wav"), 0);
    // Elsewhere, so that only an absolute path handed over finds the beat.
    QProcess& first = launch(zelkor, {}, runtime);
    ASSERT_TRUE(appears(socket, 10'000));
    QProcess& second = launch(zelkor, {u"beat.wav"_s}, home.root());
    ASSERT_TRUE(second.waitForFinished(10'000));
    EXPECT_TRUE(second.exitStatus() == QProcess::NormalExit && second.exitCode() == 0);
    EXPECT_TRUE(appears(folder + "beat (Tagged).wav"));
    EXPECT_EQ(first.state(), QProcess::Running);

    first.kill();
    first.waitForFinished();
    ASSERT_TRUE(appears(socket, 0));
    // Handed to the dead socket, the file would never be tagged.
    QProcess& next =
        launch(u"/bin/sh"_s, {u"-c"_s, u"exec \"$0\" \"$(printf 'next \\351.wav')\""_s, zelkor},
               home.root());
    EXPECT_TRUE(appears(folder + "next \xe9 (Tagged).wav"));
    EXPECT_EQ(next.state(), QProcess::Running);
}

namespace {

// A child process running as `uid` with a local socket at `path`: it serves
// (reporting every read on `report`) or sends `bytes`. Only async-signal-safe
// calls run in the child.
pid_t asUser(const passwd& user, const QString& path, int report, const QByteArray& bytes,
             bool serve) {
    const QByteArray name = Names::encode(path);
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    if (setgroups(0, nullptr) != 0 || setgid(user.pw_gid) != 0 || setuid(user.pw_uid) != 0)
        _exit(3);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.constData(), name.size());
    const int s = socket(AF_UNIX, SOCK_STREAM, 0);
    const auto* at = reinterpret_cast<const sockaddr*>(&address);
    if (!serve) {
        // A server that hangs up at once may fail the write: only getting through counts.
        signal(SIGPIPE, SIG_IGN);
        if (connect(s, at, sizeof address) != 0)
            _exit(4);
        (void)!write(s, bytes.constData(), bytes.size());
        _exit(0);
    }
    if (bind(s, at, sizeof address) != 0 || listen(s, 8) != 0)
        _exit(5);
    (void)!write(report, "L", 1); // listening
    for (char buffer[4096];;) {
        const int peer = accept(s, nullptr, nullptr);
        while (peer >= 0 && read(peer, buffer, sizeof buffer) > 0)
            (void)!write(report, "B", 1);
        close(peer);
    }
}

} // namespace

// The tests run as root; "nobody" stands for another user of the machine. The
// instances are this process's own: what counts is whom each side trusts.
TEST(SingleInstanceUsers, filesGoOnlyToAndComeOnlyFromTheSameUser) {
    ::Test::guiApplication();
    const passwd* nobody = getpwnam("nobody");
    if (getuid() != 0 || !nobody)
        GTEST_SKIP() << "a process of another user needs root and the user nobody";
    QTemporaryDir shared; // a folder anyone may write to, as /tmp is
    ASSERT_EQ(chmod(Names::encode(shared.path()).constData(), 01777), 0);
    const QString path = shared.path() + u"/zelkor-0"_s;
    int report[2];
    ASSERT_EQ(pipe2(report, O_CLOEXEC), 0);
    const pid_t stranger = asUser(*nobody, path, report[1], {}, true);
    const auto end = qScopeGuard([&] {
        kill(stranger, SIGKILL);
        waitpid(stranger, nullptr, 0);
        close(report[0]);
        close(report[1]);
    });
    char ready = 0;
    ASSERT_EQ(read(report[0], &ready, 1), 1);

    // Another user's server at the path: this instance keeps its files and listens itself.
    QStringList opened;
    SingleInstance own(path);
    ASSERT_EQ(own.claim({u"/beats/mine.wav"_s}, [&](const QStringList& files) { opened << files; }),
              SingleInstance::Outcome::listening);
    kill(stranger, SIGKILL);
    pollfd wait{report[0], POLLIN, 0};
    EXPECT_EQ(poll(&wait, 1, 0), 0) << "the stranger received bytes";

    // Even reachable, it takes nothing from another user; a later launch of its
    // own still gets through, after the stranger.
    ASSERT_EQ(chmod(Names::encode(path).constData(), 0777), 0);
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    out.setVersion(QDataStream::Qt_6_4);
    out << QStringList{u"/beats/theirs.wav"_s};
    int status = -1;
    waitpid(asUser(*nobody, path, report[1], bytes, false), &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the stranger could not connect";
    EXPECT_EQ(SingleInstance(path).claim({u"/beats/next.wav"_s}, {}),
              SingleInstance::Outcome::handedOver);
    EXPECT_TRUE(::Test::waitUntil([&] { return !opened.isEmpty(); }, 5000));
    EXPECT_EQ(opened, QStringList{u"/beats/next.wav"_s});
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
