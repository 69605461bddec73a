// What a run never claims falsely and never waits on for ever: inputs that change
// under a render, outputs that are not whole, a stalled ffmpeg and its children,
// planted cache entries, and too few descriptors for the tracks asked at once.
#include "engine/Analysis.h"
#include "engine/AnalysisCache.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

using ::Test::readAll;
using ::Test::zelkorTag;

// A home of the test's own (kept analyses included) and a clip in it.
class Reliability : public testing::Test {
protected:
    void SetUp() override { ::Test::makeAudio(clip, u"sine=frequency=1000"_s, 0.5, 8000, 1); }
    QString path(const QString& name) const { return home.root() + u'/' + name; }
    QStringList files(const QString& pattern) const {
        return QDir(home.root()).entryList({pattern}, QDir::Files | QDir::Hidden);
    }
    ::Test::FreshHome home;
    const QString clip = path(u"voice.wav"_s);
};

// Whether the process lives (a zombie is gone).
bool alive(const QString& pid) {
    const QByteArray stat = readAll(u"/proc/"_s + pid + u"/stat"_s);
    return !stat.isEmpty() && stat.mid(stat.lastIndexOf(')') + 2, 1) != "Z";
}

} // namespace

// The fake runs the real ffmpeg but, by the track's name, writes nothing, cuts the
// output short, renders a second of a longer MP3, or changes the track or the clip
// before it ends. Each fails its own track and leaves nothing under an output's name;
// the clip touched is measured again for the next track, whose output is readable by
// no more people than the track.
TEST_F(Reliability, onlyAWholeOutputOfUnchangedInputsIsCommitted) {
    home.setEnv("ZELKOR_RESOURCES", ::Test::resourcesWith(home.root(), R"(in=; prev=
for a; do [ "$prev" = -i ] && [ -z "$in" ] && in=$a; prev=$a; o=$a; done
case " $* " in *" -filter_complex "*)
    case "$in" in
    *nothing*) exit 0 ;;
    *short*) exec "$real" -t 1 "$@" ;;
    esac
    "$real" "$@" || exit
    case "$in" in
    *half*) truncate -s 100000 "$o" ;;
    *bounced*) printf x >> "$in" ;;
    *clip*) touch "$(dirname "$in")/voice.wav" ;;
    esac
    exit 0 ;;
esac
exec "$real" "$@"
)"));
    const QStringList names{u"a nothing.wav"_s, u"b half.wav"_s, u"c short.mp3"_s,
                            u"d bounced.wav"_s, u"e clip.wav"_s, u"f fine.wav"_s};
    QStringList tracks;
    for (const QString& name : names) {
        tracks << path(name);
        ::Test::makeAudio(tracks.last(), u"sine=frequency=220"_s, 3);
    }
    ::chmod(QFile::encodeName(tracks.last()).constData(), 0600);
    const auto run = zelkorTag(QStringList{u"-j"_s, u"1"_s, u"--tag"_s, clip} + tracks);
    EXPECT_EQ(run.out, u"a nothing.wav  FFMPEG WROTE NOTHING\n"
                       u"b half.wav  OUTPUT INCOMPLETE\n"
                       u"c short.mp3  OUTPUT LASTS 1.0 S OF 3.0 S\n"
                       u"d bounced.wav  CHANGED WHILE TAGGING\n"
                       u"e clip.wav  CHANGED WHILE TAGGING\n"
                       u"f fine.wav  1 TAGS  OK  -> "_s +
                           path(u"f fine (Tagged).wav\n"_s));
    EXPECT_EQ(files(u"*Tagged*"_s), QStringList{u"f fine (Tagged).wav"_s});
    EXPECT_EQ(QFileInfo(path(u"f fine (Tagged).wav"_s)).permissions(),
              QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadUser |
                  QFileDevice::WriteUser);
}

// A clip rewritten under its name is another clip, within one process too.
TEST_F(Reliability, aClipRewrittenUnderItsNameIsMeasuredAgain) {
    const double before = Engine::info(clip).length;
    const QString longer = path(u"longer.wav"_s);
    ::Test::makeAudio(longer, u"sine=frequency=1000"_s, 2, 8000, 1);
    ASSERT_EQ(::rename(QFile::encodeName(longer).constData(), QFile::encodeName(clip).constData()),
              0);
    EXPECT_EQ(before, 0.5);
    EXPECT_EQ(Engine::info(clip).length, 2);
}

// A render whose ffmpeg hangs, through a wrapper whose own child hangs too: past the
// time without progress its track fails; on Ctrl-C the run ends. The child ends with it.
TEST_F(Reliability, aHungFfmpegEndsWithItsChildrenOnStallOrCtrlC) {
    home.setEnv("ZELKOR_RESOURCES", ::Test::resourcesWith(home.root(), R"(here=$(dirname "$0")
case " $* " in *" -filter_complex "*) sleep 300 & echo $! > "$here/child"; wait; exit ;; esac
exec "$real" "$@"
)"));
    const QString track = path(u"beat.wav"_s), child = path(u"share/child"_s);
    ::Test::makeAudio(track, u"sine=frequency=220"_s, 3);
    for (const bool ctrlC : {false, true}) {
        SCOPED_TRACE(ctrlC);
        QFile::remove(child);
        QProcess run;
        if (!ctrlC) {
            auto env = QProcessEnvironment::systemEnvironment();
            env.insert(u"ZELKOR_STALL_SECONDS"_s, u"1"_s);
            run.setProcessEnvironment(env);
        }
        run.start(::Test::binary(u"zelkor-tag"_s), {u"--tag"_s, clip, track});
        ASSERT_TRUE(::Test::waitUntil([&] { return QFileInfo::exists(child); }, 30'000));
        const QString pid = QString::fromUtf8(readAll(child)).trimmed();
        if (ctrlC)
            ::kill(static_cast<pid_t>(run.processId()), SIGINT);
        ASSERT_TRUE(run.waitForFinished(30'000));
        EXPECT_EQ(QString::fromUtf8(run.readAllStandardOutput()),
                  ctrlC ? u"beat.wav  STOPPED\n"_s : u"beat.wav  FFMPEG STALLED: NO PROGRESS\n"_s);
        EXPECT_TRUE(::Test::waitUntil([&] { return !alive(pid); }, 10'000));
    }
    EXPECT_EQ(files(u"*Tagged*"_s), QStringList{});
}

// Entries another user could have planted are passed by, never opened far enough to
// hang on: a FIFO, an entry of another owner, and a forged entry in a folder others
// can write. The figures stay the measured ones.
TEST_F(Reliability, onlyTheUsersOwnRegularCacheEntriesAreRead) {
    const QString track = path(u"beat.wav"_s);
    ::Test::makeAudio(track, u"sine=frequency=220"_s, 3);
    // Only figures of files that have settled are kept.
    ASSERT_TRUE(::Test::waitUntil([&] { return Engine::AnalysisCache::settled(track); }, 10'000));
    const QStringList dryRun{u"--tag"_s, clip, u"--dry-run"_s, track};
    const QString measured = zelkorTag(dryRun).out;
    ASSERT_TRUE(measured.contains(u"GAIN"_s)) << measured.toStdString();
    const QString folder = Engine::AnalysisCache::folder();
    struct stat made = {};
    ASSERT_EQ(::stat(QFile::encodeName(folder).constData(), &made), 0);
    EXPECT_EQ(made.st_mode & 0777, 0700u);
    QStringList entries;
    for (const QString& name : QDir(folder).entryList(QDir::Files))
        entries << folder + u'/' + name;
    ASSERT_EQ(entries.size(), 2); // the clip's and the track's
    const QByteArray forged = readAll(entries[0]).replace("\"lufs\":", "\"lufs\":-60,\"x\":");
    const QByteArray forgedTrack = readAll(entries[1]).replace("\"lufs\":", "\"lufs\":-60,\"x\":");

    enum Plant { fifo, otherOwner, openFolder };
    for (const Plant plant : {fifo, otherOwner, openFolder}) {
        SCOPED_TRACE(plant);
        ::chmod(QFile::encodeName(folder).constData(), plant == openFolder ? 0777 : 0700);
        for (const auto& [entry, bytes] :
             {std::pair(entries[0], forged), std::pair(entries[1], forgedTrack)}) {
            QFile::remove(entry);
            if (plant == fifo) {
                ASSERT_EQ(::mkfifo(QFile::encodeName(entry).constData(), 0600), 0);
            } else {
                ::Test::writeFile(entry, bytes);
            }
            if (plant == otherOwner) {
                ASSERT_EQ(::chown(QFile::encodeName(entry).constData(), 65534, 65534), 0);
            }
        }
        EXPECT_EQ(zelkorTag(dryRun, {}, 30'000).out, measured);
    }
}

// With few descriptors, or few processes (ffmpeg's threads count), 64 tracks asked at
// once run a few at a time and all are tagged. Processes are limited for another user
// than root, whom the limit does not bind.
TEST_F(Reliability, tooFewDescriptorsOrProcessesRunFewerTracksAtOnce) {
    QTemporaryDir shared;
    ::chmod(QFile::encodeName(shared.path()).constData(), 0777);
    const QString voice = shared.filePath(u"voice.wav"_s);
    ASSERT_TRUE(QFile::copy(clip, voice));
    QStringList tracks;
    for (int i = 0; i < 6; ++i) {
        tracks << shared.filePath(u"beat %1.wav"_s.arg(i));
        ::Test::makeAudio(tracks.last(), u"sine=frequency=220"_s, 1);
    }
    const QStringList tag =
        QStringList{
            ::Test::binary(u"zelkor-tag"_s), u"--no-cache"_s, u"-j"_s, u"64"_s, u"--tag"_s, voice} +
        tracks;
    const QStringList nobody{u"--reuid=65534"_s, u"--regid=65534"_s, u"--clear-groups"_s,
                             u"prlimit"_s, u"--nproc=12"_s};
    for (const QStringList& limited :
         {QStringList{u"prlimit"_s, u"--nofile=24"_s}, QStringList{u"setpriv"_s} + nobody}) {
        SCOPED_TRACE(limited.join(u' ').toStdString());
        if (limited[0] == u"setpriv"_s && ::geteuid() != 0)
            continue;
        for (const QString& track : tracks)
            QFile::remove(QString(track).replace(u".wav"_s, u" (Tagged).wav"_s));
        const auto run =
            ::Test::runProgram(limited[0], limited.mid(1) + tag, {u"HOME="_s + shared.path()});
        EXPECT_EQ(run.status, 0) << run.out.toStdString() << run.err.toStdString();
        EXPECT_EQ(run.out.count(u"1 TAGS  OK"_s), 6) << run.out.toStdString();
    }
}
