// zelkor-tag as a child process: its lines, exit codes and usage errors, with the
// real ffmpeg, and with a fake one for what the real one cannot show.
#include "support/TestSupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QThread>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

::Test::Process zelkorTag(const QStringList& args, const QStringList& environment = {}) {
    return ::Test::runProgram(::Test::binary(u"zelkor-tag"_s), args, environment);
}

// A resources folder whose ffmpeg records each argument list (NUL-separated, in
// args-0, args-1, ...) and answers an analysis with a loudness line first, over
// 1 MB of noise and the duration last; a render runs `render`.
QString fakeResources(const QTemporaryDir& dir, const QByteArray& render, bool executable = true) {
    const QString resources = dir.path() + u"/share"_s;
    QDir().mkpath(resources);
    ::Test::writeFile(resources + u"/ffmpeg"_s, R"(#!/bin/sh
here=$(dirname "$0")
n=$(ls "$here" | grep -c '^args-')
printf '%s\0' "$@" > "$here/args-$n"
touch "$here/ran"
out=""; for arg; do out=$arg; done
noise() { yes 'frame=1 size=N/A time=00:00:00.00' | head -n 35000 >&2; }
case " $* " in
*" -filter_complex "*) )" + render + R"( ;;
*)  echo '    I:         -20.0 LUFS'; noise
    printf '\n  Duration: 00:00:05.00, bitrate: 1 kb/s\n' >&2
    printf '  Stream #0:0: Audio: pcm_s16le, 44100 Hz, stereo, s16\n' >&2 ;;
esac
)",
                      executable);
    return u"ZELKOR_RESOURCES="_s + resources;
}

QStringList argumentsOfRun(const QTemporaryDir& dir, int run) {
    QStringList args =
        QString::fromUtf8(::Test::readAll(dir.path() + u"/share/args-"_s + QString::number(run)))
            .split(QChar(0));
    args.removeLast();
    return args;
}

using ZelkorTag = ::Test::TempFolder;

} // namespace

TEST_F(ZelkorTag, printsOneLinePerTrackAndExitsOneWhenAnyFailed) {
    const QString music = path(u"music"_s), clip = path(u"tag.wav"_s);
    QDir().mkpath(music);
    ::Test::makeAudio(music + u"/beat.wav"_s, u"sine=frequency=220"_s, 6);
    ::Test::makeAudio(clip, u"sine=frequency=880"_s, 0.5, 8000, 1);

    const auto first = zelkorTag({u"--tag"_s, clip, u"--interval"_s, u"5"_s, u"--level"_s,
                                  u"high"_s, music + u"/beat.wav"_s});
    EXPECT_EQ(first.status, 0) << first.err.toStdString();
    EXPECT_EQ(first.out, u"beat.wav  2 TAGS  OK  -> "_s + music + u"/beat (Tagged).wav\n"_s);
    EXPECT_EQ(first.err, u""_s);

    // The folder's earlier output is no track; the text file fails and the batch goes on.
    ::Test::writeFile(music + u"/a notes.mp3"_s, "not audio\n");
    const auto second = zelkorTag({u"--tag"_s, clip, u"--level=-7"_s, music});
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.out, u"a notes.mp3  CAN'T READ FILE\nbeat.wav  1 TAGS  OK  -> "_s + music +
                              u"/beat (Tagged) (2).wav\n"_s);
}

TEST_F(ZelkorTag, usageErrorsExitTwoAndNameTheBadValueNothingToTagExitsOne) {
    const QString tag = path(u"tag.wav"_s);
    ::Test::writeFile(tag, "x");
    std::vector<std::pair<QStringList, QString>> cases{
        {{u"--tag"_s, tag, u"--level"_s, u"LOUD"_s, dir.path()}, u"--level 'LOUD'"_s},
        {{u"--tag"_s, tag, u"--level"_s, u"13"_s, dir.path()}, u"--level '13'"_s},
        {{u"--tag"_s, tag, u"--jobs"_s, u"0"_s, dir.path()}, u"--jobs '0'"_s},
        {{u"--tag"_s, tag, u"--bogus"_s, dir.path()}, u"'--bogus'"_s},
        {{dir.path(), u"--tag"_s}, u"'--tag'"_s},
        {{u"--tag"_s, tag}, u""_s}};
    for (const QString& interval :
         {u"0"_s, u"2"_s, u"-3"_s, u"9999"_s, u"abc"_s, u"nan"_s, u"inf"_s})
        cases.push_back({{u"--tag"_s, tag, u"--interval"_s, interval, dir.path()},
                         u"--interval '"_s + interval + u'\''});
    for (const auto& [args, named] : cases) {
        const auto run = zelkorTag(args);
        EXPECT_EQ(run.status, 2) << args.join(u' ').toStdString();
        EXPECT_TRUE(run.err.contains(named)) << run.err.toStdString();
        EXPECT_EQ(run.err.count(u'\n'), 1) << run.err.toStdString();
        EXPECT_EQ(run.out, u""_s);
    }

    // Nothing to tag exits one.
    ::Test::writeFile(path(u"readme.txt"_s), "x");
    const auto run = zelkorTag({u"--tag"_s, tag, u"--interval"_s, u"600"_s, u"--level"_s, u"-40"_s,
                                path(u"readme.txt"_s), path(u"beat (Tagged).wav"_s)});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, u"NO TRACKS FOUND\n"_s);
    EXPECT_EQ(run.out, u""_s);

    ::Test::writeFile(path(u"beat.wav"_s), "x");
    const auto noClip = zelkorTag({u"--tag"_s, path(u"gone.wav"_s), path(u"beat.wav"_s)});
    EXPECT_EQ(noClip.status, 1);
    EXPECT_EQ(noClip.out, u""_s);
}

// The analyses print over 1 MB between their first and last lines, and the
// render's arguments show that both lines came through. ffmpeg writes a hidden
// file beside the output, which takes the output's name when ffmpeg is done.
TEST_F(ZelkorTag, ffmpegGetsItsFixedPrefixThenEveryArgumentWhole) {
    const QString env = fakeResources(dir, "exit 0");
    const QString track = path(u"-my beat [1]; it's.wav"_s), clip = path(u"tag (a).wav"_s);
    ::Test::writeFile(track, "x");
    ::Test::writeFile(clip, "x");
    const auto run = zelkorTag({u"--tag"_s, clip, u"--"_s, track}, {env});
    EXPECT_EQ(run.status, 0) << run.err.toStdString();
    const QString out = path(u"-my beat [1]; it's (Tagged).wav"_s);
    EXPECT_EQ(run.out, u"-my beat [1]; it's.wav  1 TAGS  OK  -> "_s + out + u'\n');

    const auto analysis = [](const QString& file) {
        return u"-hide_banner -nostdin -nostats -i"_s.split(u' ') + QStringList{file} +
               u"-vn -af silencedetect=n=-50dB:d=0.3,ebur128=framelog=verbose:peak=sample -f null -"_s
                   .split(u' ');
    };
    EXPECT_EQ(argumentsOfRun(dir, 0), analysis(clip));
    EXPECT_EQ(argumentsOfRun(dir, 1), analysis(track));
    const QStringList render = argumentsOfRun(dir, 2);
    ASSERT_FALSE(render.isEmpty());
    EXPECT_TRUE(
        QRegularExpression(u"^"_s + QRegularExpression::escape(dir.path()) +
                           uR"(/\.-my beat \[1\]; it's \(Tagged\)\.zelkor-\d+-\w{6}\.part$)"_s)
            .match(render.last())
            .hasMatch())
        << render.last().toStdString();
    EXPECT_EQ(render,
              (QStringList{u"-hide_banner"_s, u"-nostdin"_s, u"-y"_s, u"-i"_s, track, u"-i"_s, clip,
                           u"-filter_complex"_s,
                           u"[1:a]aformat=sample_rates=44100:channel_layouts=stereo,"
                           "volume=-5.00dB,asetpts=N/SR/TB,atrim=end_sample=220500,"
                           "afade=t=in:d=0.005:curve=hsin,areverse,asetpts=N/SR/TB,"
                           "afade=t=in:d=0.005:curve=hsin,areverse,asetpts=N/SR/TB,"
                           "asplit=1[s0];[s0]adelay=22050S:all=1[d0];[0:a][d0]"
                           "amix=inputs=2:normalize=0:duration=first:dropout_transition=0,"
                           "alimiter=limit=0.97:level=0:attack=2:release=40:latency=1[out]"_s,
                           u"-map"_s, u"[out]"_s, u"-map_metadata"_s, u"0"_s, u"-c:a"_s,
                           u"pcm_s24le"_s, u"-f"_s, u"wav"_s, render.last()}));
    EXPECT_TRUE(QFileInfo(out).isFile());
    EXPECT_FALSE(QFileInfo::exists(render.last()));
}

// What Debian's ffmpeg prints when the disk fills: the cause, then closing lines.
TEST_F(ZelkorTag, aFailedRenderLeavesNoFileAndReportsTheLineThatNamesTheCause) {
    const QString env = fakeResources(dir, R"(printf 'RIFF' > "$out"; noise
    printf 'size=       6kB time=00:00:00.02 bitrate=2151.9kbits/s speed= 115x    \r' >&2
    echo 'av_interleaved_write_frame(): No space left on device' >&2
    echo "Error writing trailer of $out: No space left on device" >&2
    echo 'size=     256kB time=00:00:01.99 bitrate=1050.2kbits/s speed= 368x    ' >&2
    echo 'video:0kB audio:516kB subtitle:0kB other streams:0kB global headers:0kB muxing overhead: unknown' >&2
    echo "Error closing file $out: No space left on device" >&2
    echo 'Conversion failed!' >&2
    exit 1)");
    const QString track = path(u"beat.wav"_s), clip = path(u"tag.wav"_s);
    ::Test::writeFile(track, "x");
    ::Test::writeFile(clip, "x");
    const auto run = zelkorTag({u"--tag"_s, clip, track}, {env});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, u"beat.wav  ERROR CLOSING FILE: NO SPACE LEFT ON DEVICE\n"_s);
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden),
              (QStringList{u"beat.wav"_s, u"tag.wav"_s}));
}

TEST_F(ZelkorTag, withoutAnExecutableFfmpegNothingIsStarted) {
    for (const char* fixed : {"/opt/homebrew/bin/ffmpeg", "/usr/local/bin/ffmpeg"})
        if (QFileInfo(QString::fromUtf8(fixed)).isExecutable())
            GTEST_SKIP() << fixed << " exists on this machine";
    const QString env = fakeResources(dir, "exit 0", false);
    const QString track = path(u"beat.wav"_s), clip = path(u"tag.wav"_s);
    ::Test::writeFile(track, "x");
    ::Test::writeFile(clip, "x");
    const auto run = zelkorTag({u"--tag"_s, clip, track, track}, {env});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.out, u"beat.wav  FFMPEG NOT FOUND\nbeat.wav  FFMPEG NOT FOUND\n"_s);
    EXPECT_FALSE(QFileInfo::exists(dir.path() + u"/share/ran"_s));

    // Found, but the system cannot start it: its reason, and nothing more.
    ::Test::writeFile(path(u"share/ffmpeg"_s), "#!/nonexistent/sh\n", true);
    EXPECT_EQ(zelkorTag({u"--tag"_s, clip, track}, {env}).out,
              u"beat.wav  EXECVP: NO SUCH FILE OR DIRECTORY\n"_s);
}

// Several jobs at once write what one at a time writes, in track order, with one
// analysis of the clip for the whole batch.
TEST_F(ZelkorTag, jobsWriteWhatOneAtATimeWritesInTrackOrder) {
    const QString clip = path(u"tag.wav"_s), runs = path(u"share/runs"_s);
    ::Test::makeAudio(clip, u"sine=frequency=1200"_s, 0.8, 22050, 1);
    QStringList tracks;
    for (int i = 0; i < 4; ++i) {
        tracks << path(u"beat %1.wav"_s.arg(i));
        ::Test::makeAudio(tracks.last(), u"sine=frequency=%1"_s.arg(200 + 50 * i), 12 + i);
    }
    QDir().mkpath(path(u"share"_s)); // an ffmpeg that logs each argument list
    ::Test::writeFile(path(u"share/ffmpeg"_s),
                      "#!/bin/sh\necho \"$*\" >> \"$(dirname \"$0\")/runs\"\nexec " +
                          ::Test::systemFFmpeg().toUtf8() + " \"$@\"\n",
                      true);
    const QString env = u"ZELKOR_RESOURCES="_s + path(u"share"_s);
    // Each run with a cache of its own, so that both measure.
    const auto tagAll = [&](int jobs) {
        return zelkorTag(QStringList{u"--tag"_s, clip, u"--jobs"_s, QString::number(jobs),
                                     u"--interval"_s, u"5"_s} +
                             tracks,
                         {env, u"XDG_CACHE_HOME="_s + path(u"cache %1"_s.arg(jobs))});
    };
    const auto output = [&](int i) { return path(u"beat %1 (Tagged).wav"_s.arg(i)); };

    const ::Test::Process one = tagAll(1);
    ASSERT_EQ(one.status, 0) << one.err.toStdString();
    std::vector<QByteArray> sequential;
    for (int i = 0; i < tracks.size(); ++i) {
        sequential.push_back(::Test::readAll(output(i)));
        QFile::remove(output(i));
    }
    QFile::remove(runs);

    const ::Test::Process four = tagAll(4);
    ASSERT_EQ(four.status, 0) << four.err.toStdString();
    EXPECT_EQ(four.out, one.out); // same names, same counts, same order
    for (int i = 0; i < tracks.size(); ++i)
        EXPECT_EQ(::Test::readAll(output(i)), sequential[static_cast<std::size_t>(i)]) << i;
    const QStringList ran =
        QString::fromUtf8(::Test::readAll(runs)).split(u'\n', Qt::SkipEmptyParts);
    EXPECT_EQ(ran.filter(u"-i "_s + clip + u" -vn -af"_s).size(), 1);
    EXPECT_EQ(ran.size(), 1 + 2 * tracks.size());
}

namespace {

// The process whose arguments hold `a` and `b`, if one runs.
std::optional<pid_t> running(const QString& a, const QString& b) {
    for (const QString& pid : QDir(u"/proc"_s).entryList({u"[0-9]*"_s}, QDir::Dirs)) {
        const QList<QByteArray> args =
            ::Test::readAll(u"/proc/"_s + pid + u"/cmdline"_s).split('\0');
        if (args.contains(a.toUtf8()) && args.contains(b.toUtf8()))
            return pid.toInt();
    }
    return std::nullopt;
}

pid_t parentOf(pid_t pid) {
    const QByteArray stat = ::Test::readAll(u"/proc/%1/stat"_s.arg(pid));
    return stat.mid(stat.lastIndexOf(')') + 2).split(' ').value(1).toInt();
}

} // namespace

// The terminal closes, or the reader of the output goes, while the second track
// renders: that render ends and leaves nothing, the first output stays, and the
// program ends by that signal (a shell reports 128 + its number, and stops a
// loop). The render reads its input in real time, so it surely runs when the
// test acts.
TEST_F(ZelkorTag, aHangupOrAClosedPipeMidRenderStopsAndLeavesNothingHalfWritten) {
    QDir().mkpath(path(u"share"_s));
    ::Test::writeFile(path(u"share/ffmpeg"_s),
                      "#!/bin/sh\ncase \" $* \" in *\" -filter_complex \"*) exec " +
                          ::Test::systemFFmpeg().toUtf8() + " -re \"$@\" ;; esac\nexec " +
                          ::Test::systemFFmpeg().toUtf8() + " \"$@\"\n",
                      true);
    const QString first = path(u"a.wav"_s), second = path(u"b.wav"_s), clip = path(u"tag.wav"_s);
    ::Test::makeAudio(first, u"sine=frequency=220"_s, 1);
    ::Test::makeAudio(second, u"sine=frequency=330"_s, 60, 22050, 1);
    ::Test::makeAudio(clip, u"sine=frequency=880"_s, 0.5);
    const QString fifo = path(u"out.fifo"_s);
    ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    const QString written = u"a.wav  1 TAGS  OK  -> "_s + path(u"a (Tagged).wav"_s) + u'\n';

    for (const int signal : {SIGHUP, SIGPIPE}) {
        SCOPED_TRACE(signal);
        QFile::remove(path(u"a (Tagged).wav"_s));
        QProcess run;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(u"ZELKOR_RESOURCES"_s, path(u"share"_s));
        run.setProcessEnvironment(env);
        int reader = -1;
        if (signal == SIGPIPE) {
            reader = ::open(QFile::encodeName(fifo).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
            run.setStandardOutputFile(fifo);
        }
        run.start(::Test::binary(u"zelkor-tag"_s), {u"--tag"_s, clip, first, second});
        std::optional<pid_t> render;
        QElapsedTimer waited;
        waited.start();
        while (!(render = running(u"-filter_complex"_s, second)) && waited.elapsed() < 60'000)
            QThread::msleep(10);
        ASSERT_TRUE(render) << "the second render never started";
        ASSERT_EQ(parentOf(*render), run.processId());
        if (signal == SIGHUP) {
            ::kill(static_cast<pid_t>(run.processId()), SIGHUP);
        } else {
            char line[256] = {};
            EXPECT_EQ(::read(reader, line, sizeof line - 1), written.size());
            ::close(reader);
        }

        ASSERT_TRUE(run.waitForFinished(30'000));
        EXPECT_EQ(run.exitStatus(), QProcess::CrashExit);
        EXPECT_EQ(run.exitCode(), signal);
        // Through the pipe, the first line was read above.
        EXPECT_EQ(QString::fromUtf8(run.readAllStandardOutput()),
                  signal == SIGHUP ? written + u"b.wav  STOPPED\n"_s : u""_s);
        EXPECT_EQ(
            QDir(dir.path())
                .entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot),
            (QStringList{u"a (Tagged).wav"_s, u"a.wav"_s, u"b.wav"_s, u"out.fifo"_s, u"share"_s,
                         u"tag.wav"_s}));
        EXPECT_FALSE(running(u"-i"_s, second));
    }
}
