// Faults: killed, hung or half-written ffmpeg runs, a full or read-only disk, files that
// change under a batch, a broken home, and a signal or a closed output mid-render.
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QThread>
#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

using ::Test::readAll;
using ::Test::zelkorTag;

// Whether any process on the machine names `path` among its arguments.
bool processWriting(const QString& path) {
    const QByteArray wanted = QFile::encodeName(path);
    for (const QString& pid : QDir(u"/proc"_s).entryList({u"[0-9]*"_s}, QDir::Dirs))
        if (readAll(u"/proc/"_s + pid + u"/cmdline"_s).split('\0').contains(wanted))
            return true;
    return false;
}

// Outputs and the hidden files they are written to.
QString taggedIn(const QString& folder) {
    return QDir(folder).entryList({u"*Tagged*"_s}, QDir::AllEntries | QDir::Hidden).join(u'|');
}

QStringList hiddenIn(const QString& folder) {
    QStringList hidden = QDir(folder).entryList({u".*.part"_s}, QDir::Files | QDir::Hidden);
    for (QString& name : hidden)
        name.prepend(folder + u'/');
    return hidden;
}

using Faults = ::Test::HomeWithClip;

} // namespace

// One batch, each track a fault and its line; the batch goes on past each, every track
// that stays is left as it was, and only a whole output of unchanged inputs is committed,
// keeping the track's privacy. By the track's name the fake ffmpeg removes "vanished" once
// measured; a render of "killed" dies as the OOM killer would; a render of "crashed" and
// the analysis of "cut", half-way through its decode, by a segmentation fault: each says
// how. A render writes nothing, is cut, lasts a second, changes an input or hangs with a
// child (ended too, also by Ctrl-C), or the analysis hangs.
TEST_F(Faults, eachFaultFailsItsOwnTrackAndTheBatchGoesOn) {
    home.setEnv("ZELKOR_STALL_SECONDS", u"3"_s);
    home.setEnv("ZELKOR_RESOURCES", ::Test::resourcesWith(home.root(), R"(in=; prev=
for arg; do [ "$prev" = -i ] && [ -z "$in" ] && in=$arg; prev=$arg; out=$arg; done
case "$in $* " in *stuck*" pipe:1 "*) exec sleep 300 ;; esac
case " $* " in *" -filter_complex "*) ;; *)
    case "$in" in
    *vanished*) "$real" "$@"; status=$?; rm "$in"; exit $status ;;
    *cut*) "$real" "$@" | head -c 65536; ulimit -c 0; kill -SEGV $$ ;;
    esac
    exec "$real" "$@" ;;
esac
case "$in" in
*killed*)
    head -c 65536 /dev/zero > "$out"
    echo 'size=      64kB time=00:00:00.37 bitrate=1411.2kbits/s' >&2
    kill -9 $$ ;;
*crashed*) ulimit -c 0; kill -SEGV $$ ;;
*nothing*) exit 0 ;;
*short*) exec "$real" -t 1 "$@" ;;
*hung*) sleep 300 & echo $! > "$(dirname "$0")/child"; wait; exit ;;
esac
"$real" "$@" || exit
case "$in" in
*half*) truncate -s 100000 "$out" ;;
*bounced*) printf x >> "$in" ;;
*clip*) touch "$(dirname "$in")/voice.wav" ;;
esac
)"));
    const QString ok = u"1 TAGS  OK  -> "_s, changed = u"CHANGED WHILE TAGGING"_s,
                  stalled = u"FFMPEG STALLED: NO PROGRESS"_s;
    // No line where it depends on when the change lands.
    std::vector<std::pair<QString, QString>> rows{
        {u"0 first.wav"_s, ok + path(u"0 first (Tagged).wav"_s)},
        {u"a killed.wav"_s, u"FFMPEG WAS KILLED (OUT OF MEMORY?)"_s},
        {u"c crashed.wav"_s, u"FFMPEG CRASHED (SEGMENTATION FAULT)"_s},
        {u"d cut.mp3"_s, u"FFMPEG CRASHED (SEGMENTATION FAULT)"_s},
        {u"b vanished.mp3"_s, {}},
        {u"fifo.mp3"_s, u"CAN'T READ FILE: NOT A REGULAR FILE"_s}, // never hanging ffmpeg
        {u"a nothing.wav"_s, u"FFMPEG WROTE NOTHING"_s},
        {u"b half.wav"_s, u"OUTPUT INCOMPLETE"_s},
        {u"c short.mp3"_s, u"OUTPUT LASTS 1.0 S OF 3.0 S"_s},
        {u"d bounced.wav"_s, changed},
        {u"e clip.wav"_s, changed},
        {u"g hung.wav"_s, stalled},
        {u"h stuck.mp3"_s, stalled},
        {u"f fine.wav"_s, ok + path(u"f fine (Tagged).wav"_s)},
        // 1.7 MB of 16-bit audio leaves no room for its 24-bit copy.
        {u"full/beat.wav"_s, u"ERROR CLOSING FILE: NO SPACE LEFT ON DEVICE"_s},
        {u"ro/beat.wav"_s, u"READ-ONLY FILE SYSTEM"_s}};
    const ::Test::Tmpfs full(path(u"full"_s), u"2m"_s), readOnly(path(u"ro"_s), u"2m"_s);
    if (!full.mounted() || !readOnly.mounted()) // where no tmpfs can be mounted
        rows.resize(rows.size() - 2);
    QStringList tracks;
    QList<QByteArray> originals;
    for (const auto& [track, line] : rows) {
        tracks << ::Test::makeAudio(path(track), u"sine=frequency=220"_s,
                                    track.startsWith(u'f') ? 10 : 3);
        originals << readAll(tracks.last());
    }
    QFile::remove(tracks[5]);
    ASSERT_EQ(::mkfifo(QFile::encodeName(tracks[5]).constData(), 0644), 0);
    ::chmod(QFile::encodeName(tracks[13]).constData(), 0600);
    ::Test::runProgram(u"mount"_s, {u"-o"_s, u"remount,ro"_s, path(u"ro"_s)});
    const QString child = path(u"share/child"_s);
    const auto childEnded = [&] { // or left a zombie
        const QString stat = u"/proc/"_s + QString::fromUtf8(readAll(child)).trimmed() + u"/stat"_s;
        return ::Test::waitUntil([&] { return readAll(stat).split(' ').value(2, "Z") == "Z"; },
                                 10'000);
    };

    const auto run =
        zelkorTag(QStringList{u"-j"_s, u"1"_s, u"--tag"_s, clip} + tracks, {}, 120'000);
    EXPECT_EQ(run.status, 1);
    const QStringList said = run.out.split(u'\n', Qt::SkipEmptyParts);
    ASSERT_EQ(said.size(), tracks.size()) << run.out.toStdString();
    for (int i = 0; i < tracks.size(); ++i) {
        const QString& line = rows[std::size_t(i)].second;
        const QString name = QFileInfo(tracks[i]).fileName() + u"  "_s;
        EXPECT_TRUE(line.isEmpty() ? said[i].startsWith(name) && !said[i].contains(u"OK"_s)
                                   : said[i] == name + line)
            << said[i].toStdString();
        EXPECT_TRUE(line.isEmpty() || i == 5 || i == 9 || readAll(tracks[i]) == originals[i]) << i;
    }
    EXPECT_TRUE(childEnded());
    EXPECT_EQ(QFile::permissions(path(u"f fine (Tagged).wav"_s)).toInt() & 0x77,
              0); // group, others

    QFile::remove(child);
    QProcess ctrlC;
    ctrlC.start(::Test::binary(u"zelkor-tag"_s), {u"--tag"_s, clip, tracks[11]});
    ASSERT_TRUE(::Test::waitUntil([&] { return QFileInfo::exists(child); }, 30'000));
    ::kill(static_cast<pid_t>(ctrlC.processId()), SIGINT);
    ASSERT_TRUE(ctrlC.waitForFinished(30'000));
    EXPECT_EQ(ctrlC.readAllStandardOutput(), "g hung.wav  STOPPED\n");
    EXPECT_TRUE(childEnded());
    EXPECT_EQ(taggedIn(home.root()) + taggedIn(path(u"full"_s)) + taggedIn(path(u"ro"_s)),
              u"0 first (Tagged).wav|f fine (Tagged).wav"_s);
}

// The library commands on a broken home replace nothing the user had there.
TEST_F(Faults, aBrokenHomeIsNeverReplacedWithoutACopy) {
    const QStringList add{u"--add-tag"_s, clip};
    const QString prefs = home.preferencesPath();
    // A file in place of the tags folder: no clip to list, to tag with or to add.
    ::Test::writeFile(home.tagsDir(), "mine");
    EXPECT_EQ(zelkorTag({u"--list-tags"_s}).out, u""_s);
    const auto untagged = zelkorTag({clip});
    EXPECT_EQ(untagged.out + QString::number(untagged.status),
              u"ADD YOUR TAG FILE FIRST  NO TAG\n1"_s);
    EXPECT_EQ(zelkorTag(add).out, u"voice.wav  CAN'T ADD TAG\n"_s);
    EXPECT_EQ(readAll(home.tagsDir()), "mine");

    QFile::remove(home.tagsDir());
    // With no way to keep it aside, the garbage stays where it is, and the failed run
    // keeps no copy of the clip.
    QDir().mkpath(prefs + u".corrupt"_s);
    ::Test::writeFile(prefs, "garbage");
    EXPECT_EQ(zelkorTag(add).status, 1);
    EXPECT_EQ(readAll(prefs), "garbage");
    EXPECT_TRUE(QDir(home.tagsDir()).isEmpty());
}

// A signal while the second of three tracks renders (in real time; the window renders
// the third beside it): SIGTERM, SIGHUP or a reader of the output going away to the
// shell, SIGTERM to the window, ends the run and its ffmpeg runs, removes the hidden
// files and begins no further track;
// SIGKILL leaves that file to the next run. No partial file bears an output's name.
// The window tags with the library's seeded clip.
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
    const QStringList tracks{first, second, path(u"c long.wav"_s)};
    QFile::copy(second, tracks[2]);
    ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    const QByteArray original = readAll(second);
    const QString firstLine = u"a.wav  1 TAGS  OK  -> "_s + written + u'\n';
    const QString stopped = firstLine + u"b long.wav  STOPPED\n"_s;

    for (const auto& [window, signal, said] :
         std::vector<std::tuple<bool, int, QString>>{{false, SIGTERM, stopped},
                                                     {false, SIGHUP, stopped},
                                                     {false, SIGPIPE, firstLine},
                                                     {true, SIGTERM, {}},
                                                     {false, SIGKILL, firstLine}}) {
        SCOPED_TRACE(std::to_string(window) + ' ' + std::to_string(signal));
        QFile::remove(written);
        QProcess run;
        const int reader = signal == SIGPIPE ? ::open(QFile::encodeName(fifo).constData(),
                                                      O_RDONLY | O_NONBLOCK | O_CLOEXEC)
                                             : -1;
        if (reader >= 0)
            run.setStandardOutputFile(fifo);
        run.start(::Test::binary(window ? u"zelkor"_s : u"zelkor-tag"_s),
                  window ? tracks : QStringList{u"--tag"_s, clip} + tracks);
        // The shell's first line may still be on its way when the second begins.
        QString out;
        const qsizetype rendering = window ? std::min(QThread::idealThreadCount(), 2) : 1;
        ::Test::waitUntil(
            [&] {
                char bytes[256];
                const ssize_t got = reader < 0 ? 0 : ::read(reader, bytes, sizeof bytes);
                out += QString::fromUtf8(bytes, std::max<ssize_t>(got, 0));
                run.waitForReadyRead(1);
                out += QString::fromUtf8(run.readAllStandardOutput());
                const QStringList hidden = hiddenIn(home.root());
                return hidden.size() == rendering && hidden[0].contains(u"/.b long"_s) &&
                       out.startsWith(said.left(firstLine.size()));
            },
            60'000);
        const QStringList partial = hiddenIn(home.root());
        ASSERT_TRUE(partial.value(0).contains(u"/.b long (Tagged).zelkor-"_s))
            << "the second never began";
        ASSERT_EQ(partial.size(), rendering) << "the third never began beside it";
        reader < 0 ? ::kill(static_cast<pid_t>(run.processId()), signal) : ::close(reader);

        ASSERT_TRUE(run.waitForFinished(30'000));
        // zelkor-tag ends by the signal itself, so that a shell loop around it stops too.
        EXPECT_EQ(run.exitStatus(), window ? QProcess::NormalExit : QProcess::CrashExit);
        EXPECT_EQ(run.exitCode(), window ? 0 : signal);
        EXPECT_EQ(out + QString::fromUtf8(run.readAllStandardOutput()), said);
        for (const QString& part : partial)
            EXPECT_TRUE(::Test::waitUntil([&] { return !processWriting(part); }, 10'000));
        EXPECT_TRUE(readAll(second) == original);
        EXPECT_EQ(hiddenIn(home.root()), signal == SIGKILL ? partial : QStringList{});
        if (signal == SIGKILL) { // the next run in the folder clears it away
            QFile::remove(written);
            EXPECT_EQ(zelkorTag({u"--tag"_s, clip, first}).out, firstLine);
        }
        EXPECT_EQ(taggedIn(home.root()), u"a (Tagged).wav"_s);
    }
}
