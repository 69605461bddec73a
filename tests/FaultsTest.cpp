// Faults and hostile input: killed and failing ffmpeg runs, a full or read-only
// disk, files that change under a batch, a broken preferences file or library
// folder, and a signal or a closed output in the middle of a render.
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QProcess>
#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

using ::Test::zelkorTag;

QByteArray digest(const QString& path) {
    return QCryptographicHash::hash(::Test::readAll(path), QCryptographicHash::Sha256);
}

QString text(const QString& path) {
    return QString::fromUtf8(::Test::readAll(path));
}

// Whether any process on the machine names `path` among its arguments.
bool processWriting(const QString& path) {
    const QByteArray wanted = QFile::encodeName(path);
    for (const QString& pid : QDir(u"/proc"_s).entryList({u"[0-9]*"_s}, QDir::Dirs))
        if (::Test::readAll(u"/proc/"_s + pid + u"/cmdline"_s).split('\0').contains(wanted))
            return true;
    return false;
}

// Outputs and the hidden files they are written to.
QString taggedIn(const QString& folder) {
    return QDir(folder).entryList({u"*Tagged*"_s}, QDir::AllEntries | QDir::Hidden).join(u'|');
}

QString hiddenIn(const QString& folder) {
    return QDir(folder).entryList({u".*.part"_s}, QDir::Files | QDir::Hidden).join(u'|');
}

// A home of the test's own (preferences, library, kept analyses) and a clip in it.
class Faults : public testing::Test {
protected:
    void SetUp() override { ::Test::makeAudio(clip, u"sine=frequency=1000"_s, 0.5, 8000, 1); }
    QString path(const QString& name) const { return home.root() + u'/' + name; }
    ::Test::FreshHome home;
    const QString clip = path(u"voice.wav"_s);
    const QString prefs = home.preferencesPath();
};

} // namespace

// The fake runs the real ffmpeg, then changes the analysed track as its name says;
// a render of "killed" writes a little and dies as the kernel's OOM killer would,
// and so does an analysis of "dies measuring", and the clip's first analysis, half-way
// through their text. A FIFO fails at once, never hanging ffmpeg, and the batch goes on.
TEST_F(Faults, aBatchGoesOnPastKilledRunsFifosAndTracksThatChangeUnderIt) {
    const QString share = ::Test::resourcesWith(home.root(), R"(in=; prev=
for arg; do [ "$prev" = -i ] && [ -z "$in" ] && in=$arg; prev=$arg; out=$arg; done
case " $* " in *" -filter_complex "*)
    case "$in" in *killed*)
        head -c 65536 /dev/zero > "$out"
        echo 'size=      64kB time=00:00:00.37 bitrate=1411.2kbits/s' >&2
        kill -9 $$ ;;
    esac
    exec "$real" "$@" ;;
esac
dies() { "$real" "$@" 2>&1 | head -n 12; kill -9 $$; }
case "$in" in
*"dies measuring"*) dies "$@" ;;
*/voice.wav) [ -e "$in.measured" ] || { touch "$in.measured"; dies "$@"; } ;;
esac
"$real" "$@"; status=$?
case "$in" in
*vanished*) rm "$in" ;;
*folder*) rm "$in"; mkdir "$in" ;;
*/gone/*) rm -r "${in%/*}" ;;
esac
exit $status
)");
    QDir().mkpath(path(u"gone"_s));
    const QStringList tracks{path(u"0 first.wav"_s),    path(u"a killed.wav"_s),
                             path(u"b vanished.wav"_s), path(u"c folder.wav"_s),
                             path(u"gone/d.wav"_s),     path(u"e dies measuring.wav"_s),
                             path(u"f fifo.mp3"_s),     path(u"g.wav"_s)};
    ::Test::makeAudio(tracks[0], u"sine=frequency=220"_s, 3);
    for (const QString& track : tracks.mid(1))
        QFile::copy(tracks[0], track);
    QFile::remove(tracks[6]);
    ASSERT_EQ(::mkfifo(QFile::encodeName(tracks[6]).constData(), 0644), 0);
    const QByteArray original = digest(tracks[1]);

    const auto run = zelkorTag(QStringList{u"--tag"_s, clip, u"--interval"_s, u"5"_s} + tracks,
                               {u"ZELKOR_RESOURCES="_s + share}, 60'000);
    EXPECT_EQ(run.status, 1);
    const QStringList lines = run.out.split(u'\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), tracks.size()) << run.out.toStdString();
    EXPECT_EQ(lines[1], u"a killed.wav  SIZE=      64KB TIME=00:00:00.37 BITRATE=1411.2KBITS/S"_s);
    for (int i : {2, 3, 4}) // their failure depends on when the change lands
        EXPECT_TRUE(lines[i].startsWith(QFileInfo(tracks[i]).fileName() + u"  "_s) &&
                    !lines[i].contains(u"OK"_s))
            << lines[i].toStdString();
    for (int i : {0, 5, 6})
        EXPECT_EQ(lines[i], QFileInfo(tracks[i]).fileName() + u"  CAN'T READ FILE"_s);
    EXPECT_EQ(lines[7], u"g.wav  1 TAGS  OK  -> "_s + path(u"g (Tagged).wav"_s));
    EXPECT_EQ(taggedIn(home.root()), u"g (Tagged).wav"_s);
    EXPECT_EQ(digest(tracks[1]), original);
}

TEST_F(Faults, aFullDiskOrAReadOnlyFolderFailsTheTrackAndLeavesTheOriginal) {
    const QString disk = path(u"disk"_s);
    const ::Test::Tmpfs tmpfs(disk, u"2m"_s);
    if (!tmpfs.mounted())
        GTEST_SKIP() << tmpfs.why();

    // 1.7 MB of 16-bit audio leaves no room for its 24-bit copy.
    const QString track = disk + u"/beat.wav"_s;
    ::Test::makeAudio(track, u"sine=frequency=220"_s, 10);
    const QByteArray original = digest(track);
    const QStringList tag{u"--tag"_s, clip, track};
    EXPECT_EQ(zelkorTag(tag).out, u"beat.wav  ERROR CLOSING FILE: NO SPACE LEFT ON DEVICE\n"_s);
    EXPECT_EQ(taggedIn(disk), u""_s);
    EXPECT_EQ(digest(track), original);

    ASSERT_EQ(::Test::runProgram(u"mount"_s, {u"-o"_s, u"remount,ro"_s, disk}).status, 0);
    EXPECT_EQ(zelkorTag(tag).out, u"beat.wav  READ-ONLY FILE SYSTEM\n"_s);
    EXPECT_EQ(taggedIn(disk), u""_s);
    EXPECT_EQ(digest(track), original);
}

// The library commands on a broken home. Each run adds a clip, which writes the
// selection: nothing the user had there is replaced without a copy kept, and a run
// that fails keeps no copy of the clip.
TEST_F(Faults, aBrokenHomeIsNeverReplacedWithoutACopyAndAClipNameMayHoldANewline) {
    const QString beat = path(u"beat.wav"_s), corrupt = prefs + u".corrupt"_s;
    const QStringList add{u"--add-tag"_s, clip};
    ::Test::makeAudio(beat, u"sine=frequency=220"_s, 3);
    // A file in place of the tags folder: no clip to list, to tag with or to add.
    QDir().mkpath(home.appData());
    ::Test::writeFile(home.tagsDir(), "mine");
    EXPECT_EQ(zelkorTag({u"--list-tags"_s}).out, u""_s);
    const auto untagged = zelkorTag({beat});
    EXPECT_EQ(untagged.status, 1);
    EXPECT_EQ(untagged.out, u"ADD YOUR TAG FILE FIRST  NO TAG\n"_s);
    EXPECT_EQ(zelkorTag(add).out, u"voice.wav  CAN'T ADD TAG\n"_s);
    EXPECT_EQ(text(home.tagsDir()), u"mine"_s);

    // Put right, the library takes a clip whose name holds a line break.
    QFile::remove(home.tagsDir());
    const QString split = path(u"my\ntag.wav"_s);
    QFile::copy(clip, split);
    EXPECT_EQ(zelkorTag({u"--add-tag"_s, split}).status, 0);
    EXPECT_EQ(zelkorTag({u"--list-tags"_s}).out, u"* my\ntag.wav\n"_s);
    const auto tagged = zelkorTag({u"--interval"_s, u"5"_s, beat});
    EXPECT_EQ(tagged.status, 0) << tagged.out.toStdString();
    EXPECT_TRUE(QFileInfo::exists(path(u"beat (Tagged).wav"_s)));

    // With no way to keep it aside, the garbage stays where it is.
    QDir().mkpath(corrupt);
    ::Test::writeFile(prefs, "garbage");
    EXPECT_EQ(zelkorTag(add).status, 1);
    EXPECT_EQ(text(prefs), u"garbage"_s);
    // A folder in the file's place keeps what it holds.
    QFile::remove(prefs);
    QDir().rename(corrupt, prefs);
    ::Test::writeFile(prefs + u"/mine"_s, "mine");
    EXPECT_EQ(zelkorTag(add).status, 1);
    EXPECT_EQ(text(prefs + u"/mine"_s), u"mine"_s);

    // Unreadable (write-only): root reads anything, so the run is made as nobody.
    QDir(prefs).removeRecursively();
    ::Test::writeFile(prefs, R"({"level": 2})");
    QFile::setPermissions(prefs, QFileDevice::WriteOwner);
    const bool root = ::geteuid() == 0;
    if (root)
        ::Test::runProgram(u"chown"_s,
                           {u"-R"_s, u"65534:65534"_s, QFileInfo(home.configHome()).path()});
    const QStringList nobody{u"--reuid=65534"_s, u"--regid=65534"_s, u"--clear-groups"_s,
                             ::Test::binary(u"zelkor-tag"_s)};
    const auto run = root ? ::Test::runProgram(u"setpriv"_s, nobody + add) : zelkorTag(add);
    EXPECT_EQ(run.status, 0) << run.err.toStdString();
    QFile::setPermissions(corrupt, QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    EXPECT_EQ(text(corrupt), uR"({"level": 2})"_s);
    // No failed run kept its copy of the clip.
    EXPECT_EQ(QJsonDocument::fromJson(::Test::readAll(prefs))[u"tag"_s], u"voice.wav"_s);
}

// A signal while the second of three tracks renders: Ctrl-C or a kill (SIGTERM), a
// closed terminal (SIGHUP) or a reader of the output that goes away, to the shell,
// and the desktop session ending (SIGTERM) to the window, end the run and its
// ffmpeg, remove the hidden file ffmpeg wrote and begin no further track; SIGKILL
// leaves that file to the next run in the folder, and its ffmpeg dies with it. No
// partial file ever bears an output's name. The long track's render reads its
// input in real time, so the signal lands mid-way.
TEST_F(Faults, aSignalMidRenderLeavesNoPartialOutputAndNoFfmpeg) {
    home.setEnv("ZELKOR_RESOURCES", ::Test::resourcesWith(home.root(), R"(case " $* " in
*"long.wav -i "*" -filter_complex "*) exec "$real" -re "$@" ;;
esac
exec "$real" "$@"
)"));
    home.useOwnRuntime();
    const QString first = path(u"a.wav"_s), second = path(u"b long.wav"_s);
    const QString written = path(u"a (Tagged).wav"_s), fifo = path(u"out.fifo"_s);
    ::Test::makeAudio(first, u"sine=frequency=220"_s, 3);
    ::Test::makeAudio(second, u"sine=frequency=330"_s, 60, 22050, 1);
    const QStringList tracks{first, second, path(u"c.wav"_s)};
    QFile::copy(first, tracks[2]);
    ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    const QByteArray original = digest(second);
    const QString firstLine = u"a.wav  1 TAGS  OK  -> "_s + written + u'\n';
    const QString stopped = firstLine + u"b long.wav  STOPPED\n"_s;

    struct Front {
        QString program;
        int signal; // SIGPIPE: the reader of the output closes it
        QString out;
    };
    const Front fronts[] = {{u"zelkor-tag"_s, SIGTERM, stopped},
                            {u"zelkor-tag"_s, SIGHUP, stopped},
                            {u"zelkor-tag"_s, SIGPIPE, firstLine},
                            {u"zelkor"_s, SIGTERM, {}},
                            {u"zelkor-tag"_s, SIGKILL, firstLine}};
    for (const Front& front : fronts) {
        SCOPED_TRACE(front.program.toStdString() + ' ' + std::to_string(front.signal));
        const bool window = front.program == u"zelkor"_s;
        QFile::remove(written);
        QProcess run;
        int reader = -1;
        if (front.signal == SIGPIPE) {
            reader = ::open(QFile::encodeName(fifo).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
            run.setStandardOutputFile(fifo);
        }
        // The window tags with the library's seeded clip.
        run.start(::Test::binary(front.program),
                  window ? tracks : QStringList{u"--tag"_s, clip} + tracks);
        // The shell's first line may still be on its way when the second begins.
        QString out;
        ::Test::waitUntil(
            [&] {
                char bytes[256];
                const ssize_t got = reader < 0 ? 0 : ::read(reader, bytes, sizeof bytes);
                out += QString::fromUtf8(bytes, std::max<ssize_t>(got, 0));
                run.waitForReadyRead(1);
                out += QString::fromUtf8(run.readAllStandardOutput());
                return hiddenIn(home.root()).startsWith(u".b long"_s) &&
                       out.startsWith(front.out.left(firstLine.size()));
            },
            60'000);
        const QString partial = home.root() + u'/' + hiddenIn(home.root());
        ASSERT_TRUE(partial.contains(u"/.b long (Tagged).zelkor-"_s)) << "the second never began";
        if (reader < 0)
            ::kill(static_cast<pid_t>(run.processId()), front.signal);
        else
            ::close(reader);

        ASSERT_TRUE(run.waitForFinished(30'000));
        // zelkor-tag ends by the signal itself, so that a shell loop around it stops too.
        EXPECT_EQ(run.exitStatus(), window ? QProcess::NormalExit : QProcess::CrashExit);
        EXPECT_EQ(run.exitCode(), window ? 0 : front.signal);
        EXPECT_EQ(out + QString::fromUtf8(run.readAllStandardOutput()), front.out);
        EXPECT_TRUE(::Test::waitUntil([&] { return !processWriting(partial); }, 10'000));
        EXPECT_EQ(::Test::samples(written, 44100, 2).size(), 3u * 44100 * 2);
        EXPECT_EQ(digest(second), original);
        if (front.signal == SIGKILL) {
            EXPECT_TRUE(QFileInfo::exists(partial));
            QFile::remove(written);
            EXPECT_EQ(zelkorTag({u"--tag"_s, clip, first}).out, firstLine);
        }
        EXPECT_EQ(taggedIn(home.root()), u"a (Tagged).wav"_s);
    }
}
