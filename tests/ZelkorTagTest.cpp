// zelkor-tag as a child process: its lines, exit codes and usage errors, with the
// real ffmpeg, and with a fake one for what the real one cannot show.
#include "base/Names.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QThread>
#include <csignal>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

using ::Test::zelkorTag;

// Resources whose ffmpeg records each argument list (NUL-separated, in share/args-0,
// args-1, ...), writes 5 s of silence for a render and answers an analysis with a
// loudness line first, over 1 MB of noise and the duration last.
QString fakeResources(const QString& folder) {
    return u"ZELKOR_RESOURCES="_s + ::Test::resourcesWith(folder, R"sh(here=$(dirname "$0")
printf '%s\0' "$@" > "$here/args-$(ls "$here" | grep -c '^args-')"
case " $* " in *" -filter_complex "*) for o; do :; done; exec "$real" -v error -f lavfi -i anullsrc=d=5 -f wav -y "$o" ;; esac
echo '    I:         -20.0 LUFS'
yes 'frame=1 size=N/A time=00:00:00.00' | head -n 35000 >&2
printf '\n  Duration: 00:00:05.00, bitrate: 1 kb/s\n' >&2
printf '  Stream #0:0: Audio: pcm_s16le, 44100 Hz, stereo, s16\n' >&2
)sh");
}

// Resources whose ffmpeg logs each run's arguments to share/runs and runs the
// real one; a render fails while share/fail exists.
QString loggingResources(const QString& folder) {
    return u"ZELKOR_RESOURCES="_s + ::Test::resourcesWith(folder, R"(here=$(dirname "$0")
echo "$*" >> "$here/runs"
case " $* " in *" -filter_complex "*) [ -e "$here/fail" ] && exit 1 ;; esac
exec "$real" "$@"
)");
}

QStringList lines(const QString& text) {
    return text.split(u'\n', Qt::SkipEmptyParts);
}

// Every file below `folder`, as paths relative to it, sorted.
QStringList tree(const QString& folder) {
    QStringList files;
    for (QDirIterator it(folder, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
         it.hasNext();)
        files << QDir(folder).relativeFilePath(it.next());
    files.sort();
    return files;
}

// A folder of the test's own, with a short mono clip in it.
class ZelkorTag : public ::Test::TempFolder {
protected:
    void SetUp() override { ::Test::makeAudio(clip, u"sine=frequency=880"_s, 0.5, 22050, 1); }
    const QString clip = path(u"tag.wav"_s);
};

} // namespace

TEST_F(ZelkorTag, usageErrorsExitTwoAndNameTheBadValueNothingToTagExitsOne) {
    // Each refusal and the words that name it; "." stands for any PATH.
    for (const QString& row :
         {u"--level LOUD .|--level 'LOUD'"_s, u"-l 13 .|--level '13'"_s, u"-i 2 .|--interval '2'"_s,
          u"--interval 9999 .|--interval '9999'"_s, u"--interval=nan .|--interval 'nan'"_s,
          u"--jobs 65 .|--jobs '65'"_s, u"-rf flac .|--format 'flac'"_s,
          u"--skip-existing --replace .|exclude each other"_s, u"-rx .|'-x'"_s,
          u"--json=yes .|'--json'"_s, u"--bogus .|'--bogus'"_s, u". --tag|'--tag'"_s,
          u"-t tag.wav|no PATH"_s}) {
        const auto run = zelkorTag(row.section(u'|', 0, 0).split(u' '));
        EXPECT_EQ(run.status, 2) << row.toStdString();
        EXPECT_TRUE(run.err.contains(row.section(u'|', 1)) && run.err.count(u'\n') == 1)
            << run.err.toStdString();
        EXPECT_EQ(run.out, u""_s);
    }

    // Nothing to tag exits one, at the ends of the ranges the options take.
    QDir().mkpath(path(u"empty"_s));
    const auto run = zelkorTag({u"-t"_s, clip, u"-i600"_s, u"-l"_s, u"-40"_s, path(u"empty"_s)});
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
// file beside the output, which takes the output's name when ffmpeg is done. Without
// an executable ffmpeg nothing is started; one the system cannot start gives its reason.
TEST_F(ZelkorTag, ffmpegGetsItsFixedPrefixThenEveryArgumentWholeOrIsNotStarted) {
    const QString env = fakeResources(dir.path());
    const QString track = path(u"-my beat [1]; it's.wav"_s);
    ::Test::writeFile(track, "x");
    const auto run = zelkorTag({u"--tag"_s, clip, u"--"_s, track}, {env});
    const QString out = path(u"-my beat [1]; it's (Tagged).wav"_s);
    EXPECT_EQ(run.out, u"-my beat [1]; it's.wav  1 TAGS  OK  -> "_s + out + u'\n');
    const QStringList render = QString::fromUtf8(::Test::readAll(path(u"share/args-2"_s)))
                                   .split(QChar(0), Qt::SkipEmptyParts); // after two analyses
    ASSERT_GT(render.size(), 8) << render.join(u' ').toStdString();
    EXPECT_TRUE(render.last().startsWith(path(u".-my beat [1]; it's (Tagged).zelkor-"_s)));
    EXPECT_EQ(render.mid(0, 8), u"-hide_banner -nostdin -y -i"_s.split(u' ') +
                                    (QStringList{track, u"-i"_s, clip, u"-filter_complex"_s}));
    EXPECT_TRUE(render[8].contains(u"volume=-5.00dB,asetpts=N/SR/TB,atrim=end_sample=220500,"_s));
    EXPECT_TRUE(QFileInfo(out).isFile() && !QFileInfo::exists(render.last()));

    for (const char* fixed : {"/opt/homebrew/bin/ffmpeg", "/usr/local/bin/ffmpeg"})
        if (QFileInfo(QString::fromUtf8(fixed)).isExecutable())
            GTEST_SKIP() << fixed << " exists on this machine";
    QFile::remove(path(u"share/args-0"_s));
    QFile::setPermissions(path(u"share/ffmpeg"_s), QFile::ReadOwner | QFile::WriteOwner);
    const auto none = zelkorTag({u"--tag"_s, clip, track, track}, {env});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.out, u"-my beat [1]; it's.wav  FFMPEG NOT FOUND\n"_s.repeated(2));
    EXPECT_FALSE(QFileInfo::exists(path(u"share/args-0"_s)));
    ::Test::writeFile(path(u"share/ffmpeg"_s), "#!/nonexistent/sh\n", true);
    EXPECT_EQ(zelkorTag({u"--tag"_s, clip, track}, {env}).out,
              u"-my beat [1]; it's.wav  EXECVP: NO SUCH FILE OR DIRECTORY\n"_s);
}

// Several jobs at once write what one at a time writes, in track order though the
// first takes longest, with one analysis of the clip for the whole batch.
TEST_F(ZelkorTag, jobsWriteWhatOneAtATimeWritesInTrackOrder) {
    const QString runs = path(u"share/runs"_s), env = loggingResources(dir.path());
    QStringList tracks, outputs;
    for (int i = 0; i < 4; ++i) {
        tracks << path(u"beat %1.wav"_s.arg(i));
        outputs << path(u"beat %1 (Tagged).wav"_s.arg(i));
        ::Test::makeAudio(tracks.last(), u"sine=frequency=%1"_s.arg(200 + 50 * i), i ? 5 + i : 60);
    }
    // Each run with a cache of its own, so that both measure; what it wrote.
    const auto tagAll = [&](int jobs, std::vector<QByteArray>& written) {
        QFile::remove(runs);
        const auto run = zelkorTag(
            QStringList{u"-t"_s, clip, u"-i5"_s, u"--jobs"_s, QString::number(jobs)} + tracks,
            {env, u"XDG_CACHE_HOME="_s + path(u"cache %1"_s.arg(jobs))});
        for (const QString& output : outputs)
            written.push_back(::Test::readAll(output));
        return run;
    };
    std::vector<QByteArray> sequential, parallel;
    const auto one = tagAll(1, sequential);
    for (const QString& output : outputs)
        QFile::remove(output);
    const auto four = tagAll(4, parallel);
    ASSERT_EQ(one.status + four.status, 0) << one.err.toStdString() << four.err.toStdString();
    EXPECT_EQ(four.out, one.out); // same names, same counts, same order
    EXPECT_TRUE(parallel == sequential);
    // The clip measured once; each track measured and rendered once.
    EXPECT_EQ(lines(QString::fromUtf8(::Test::readAll(runs))).size(), 1 + 2 * tracks.size());
    // Short options combine, and 0 jobs is one per core; skipped before anything is measured.
    QFile::remove(runs);
    const auto again =
        zelkorTag({u"-qj0"_s, u"-i5"_s, u"-t"_s, clip, u"--skip-existing"_s, tracks[0]}, {env});
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.out, u""_s);
    EXPECT_FALSE(QFileInfo::exists(runs));
}

// A clip whose name is not UTF-8 is added, selected and used by its bytes. PATHs
// that do not exist or are no track get their own lines, in their place among the
// tracks, which are still tagged; "-" reads more PATHs, one a line.
TEST_F(ZelkorTag, aLatin1ClipIsUsedAndPathsThatAreNoTrackGetTheirOwnLines) {
    ::Test::FreshHome home;
    ::Test::makeAudio(path(u"beat.wav"_s), u"sine=frequency=220"_s, 1);
    ::Test::writeFile(path(u"notes.txt"_s), "x");
    ::Test::writeFile(path(u"old (Tagged).wav"_s), "x");
    ASSERT_EQ(::rename(Names::encode(clip), Names::encode(dir.path()) + "/voix \xe9.wav"), 0);
    const auto run = ::Test::runProgram(
        u"/bin/sh"_s,
        {u"-c"_s,
         u"cd \"$1\" && clip=$(printf 'voix \\351.wav') && \"$0\" --add-tag \"$clip\""
         " && \"$0\" --select-tag \"$clip\" && \"$0\" beat.wav && printf"
         " 'notes.txt\\n\\nbeat.wav\\r\\n' | \"$0\" -t \"$clip\" /typo - 'old (Tagged).wav'"_s,
         ::Test::binary(u"zelkor-tag"_s), dir.path()});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, u""_s); // no progress line but on a terminal
    const QStringList said = lines(run.out);
    ASSERT_EQ(said.size(), 7) << run.out.toStdString();
    EXPECT_TRUE(said[0].startsWith(u"TAG ADDED: VOIX "_s) && said[0].endsWith(u"  ARMED"_s));
    EXPECT_TRUE(said[1].startsWith(u"TAG SELECTED: VOIX "_s));
    EXPECT_EQ(said.mid(2),
              (QStringList{u"beat.wav  1 TAGS  OK  -> "_s + path(u"beat (Tagged).wav"_s),
                           u"/typo  NOT FOUND"_s, u"notes.txt  NOT A TRACK"_s,
                           u"beat.wav  1 TAGS  OK  -> "_s + path(u"beat (Tagged) (2).wav"_s),
                           u"old (Tagged).wav  NOT A TRACK"_s}));
    ::rename(Names::encode(dir.path()) + "/voix \xe9.wav", Names::encode(clip)); // for the clean-up
}

// On a terminal the progress line is drawn before the first track, redrawn after
// each track's line and cleared at the end; -q draws none.
TEST_F(ZelkorTag, theProgressLineIsDrawnOnlyOnATerminalAndNotWhenQuiet) {
    ::Test::makeAudio(path(u"a.wav"_s), u"sine=frequency=220"_s, 1);
    ::Test::writeFile(path(u"b.wav"_s), "x");
    const auto onTerminal = [&](const QString& quiet) {
        return ::Test::runProgram(u"script"_s,
                                  {u"-qec"_s,
                                   u"cd '%1' && '%2' %3 -t tag.wav a.wav b.wav"_s.arg(
                                       dir.path(), ::Test::binary(u"zelkor-tag"_s), quiet),
                                   u"/dev/null"_s})
            .out;
    };
    const auto bar = [](const char* count, int filled) {
        return u"\r%1 ["_s.arg(QLatin1String(count)) + QString(filled, u'#') +
               QString(30 - filled, u'.') + u"]"_s;
    };
    const QString clear = u"\r\x1b[K"_s, failed = u"b.wav  CAN'T READ FILE\r\n"_s;
    EXPECT_EQ(onTerminal({}), bar("00/02", 0) + clear + u"a.wav  1 TAGS  OK  -> "_s +
                                  path(u"a (Tagged).wav"_s) + u"\r\n"_s + bar("01/02", 15) + clear +
                                  failed + bar("02/02", 30) + clear);
    EXPECT_EQ(onTerminal(u"-q"_s), failed);
}

// Folders' own tracks in the window's order, then their sub-folders in name
// order, hidden ones, outputs and the output folder (here inside the PATH) left
// out; the output tree mirrors each track's place below its PATH.
TEST_F(ZelkorTag, recursionMirrorsEachTrackBelowItsPathUnderTheOutputFolder) {
    const QString music = path(u"music"_s), out = music + u"/out"_s;
    for (const QString& name : {u"b.wav"_s, u"A.mp3"_s, u"2/x.wav"_s, u"1/y.wav"_s,
                                u"1/deeper/z.wav"_s, u".hidden/h.wav"_s, u"out/old.wav"_s}) {
        QDir().mkpath(QFileInfo(music + u'/' + name).path());
        ::Test::makeAudio(music + u'/' + name, u"sine=frequency=220"_s, 1);
    }
    QFile::copy(music + u"/b.wav"_s, music + u"/b (Tagged).wav"_s);
    const auto run =
        zelkorTag({u"-rj2"_s, u"-t"_s, clip, u"-o"_s, out, music, music + u"/2/x.wav"_s});
    EXPECT_EQ(run.status, 0) << run.out.toStdString();
    QStringList shown;
    for (const QString& line : lines(run.out))
        shown << line.section(u"  "_s, 0, 0);
    EXPECT_EQ(shown, (QStringList{u"A.mp3"_s, u"b.wav"_s, u"1/y.wav"_s, u"1/deeper/z.wav"_s,
                                  u"2/x.wav"_s, u"x.wav"_s}));
    EXPECT_EQ(tree(out), (QStringList{u"1/deeper/z (Tagged).wav"_s, u"1/y (Tagged).wav"_s,
                                      u"2/x (Tagged).wav"_s, u"A (Tagged).mp3"_s,
                                      u"b (Tagged).wav"_s, u"old.wav"_s, u"x (Tagged).wav"_s}));
}

// A WAV master gives an MP3 preview and an MP3 a 24-bit WAV, each at the track's
// rate and channels; names and numbers follow the output's own extension.
TEST_F(ZelkorTag, eachFormatFromEitherKindOfTrack) {
    ::Test::makeAudio(path(u"master.wav"_s), u"sine=frequency=220"_s, 2, 48000, 2);
    ::Test::makeAudio(path(u"song.mp3"_s), u"sine=frequency=330"_s, 2, 32000, 1);
    ::Test::writeFile(path(u"master (Tagged).wav"_s), "an earlier output");
    ::Test::writeFile(path(u"song (Tagged).wav"_s), "an earlier output");
    const auto mp3 = zelkorTag({u"-t"_s, clip, u"-f"_s, u"mp3"_s, path(u"master.wav"_s)});
    const auto wav = zelkorTag({u"-t"_s, clip, u"--format=wav"_s, path(u"song.mp3"_s)});
    ASSERT_EQ(mp3.status + wav.status, 0) << mp3.out.toStdString() << wav.out.toStdString();
    const QString preview = path(u"master (Tagged).mp3"_s), copy = path(u"song (Tagged) (2).wav"_s);
    EXPECT_TRUE(mp3.out.endsWith(preview + u'\n') && wav.out.endsWith(copy + u'\n'));
    for (const auto& [file, stream] :
         {std::pair{preview, u"Audio: mp3, 48000 Hz, stereo, fltp, 320 kb/s"_s},
          {copy, u"Audio: pcm_s24le ([1][0][0][0] / 0x0001), 32000 Hz, mono, s32 (24 bit)"_s}}) {
        const QString described =
            ::Test::runProgram(::Test::systemFFmpeg(), {u"-hide_banner"_s, u"-i"_s, file}).err;
        EXPECT_TRUE(described.contains(stream)) << described.toStdString();
    }
    EXPECT_TRUE(::Test::readAll(preview).startsWith("ID3\x03"));
}

// A re-run after a level change replaces the earlier output under its own name,
// and only with a complete render: a failed one leaves the earlier file whole.
// --json says what was written, and a dry run says what would be, writing nothing.
TEST_F(ZelkorTag, replaceSwapsInOnlyAWholeRenderAndJsonTellsWhatWasWritten) {
    const QString beat = path(u"beat.wav"_s), output = path(u"beat (Tagged).wav"_s);
    const QString notes = path(u"notes.mp3"_s);
    ::Test::makeAudio(beat, u"sine=frequency=220"_s, 12);
    ::Test::writeFile(notes, "not audio");
    const QString env = loggingResources(dir.path());
    // Each track's object; every run fails for the notes.
    const auto tag = [&](const QStringList& args) {
        const auto run = zelkorTag(QStringList{u"-t"_s, clip, u"-i"_s, u"5"_s, u"--json"_s} + args +
                                       QStringList{beat, notes},
                                   {env});
        EXPECT_EQ(run.status, 1);
        std::vector<QJsonObject> objects;
        for (const QString& line : lines(run.out))
            objects.push_back(QJsonDocument::fromJson(line.toUtf8()).object());
        return objects;
    };

    const auto first = tag({u"-l"_s, u"low"_s});
    QJsonObject plan = tag({u"-n"_s, u"--replace"_s, u"-l"_s, u"high"_s}).at(0);
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden),
              (QStringList{u"beat (Tagged).wav"_s, u"beat.wav"_s, u"notes.mp3"_s, u"tag.wav"_s}));
    const QByteArray low = ::Test::readAll(output);
    ::Test::writeFile(path(u"share/fail"_s), "");
    tag({u"--replace"_s});
    EXPECT_EQ(::Test::readAll(output), low);
    QFile::remove(path(u"share/fail"_s));
    const auto high = tag({u"--replace"_s, u"-l"_s, u"high"_s});
    EXPECT_NE(::Test::readAll(output), low);

    ASSERT_EQ(high.size(), 2u);
    EXPECT_EQ(plan.take(u"dry_run"_s), true);
    EXPECT_EQ(plan, high[0]);
    QJsonObject ok = high[0];
    EXPECT_NEAR(ok.take(u"gain_db"_s).toDouble() - first.at(0)[u"gain_db"_s].toDouble(), 8, 1e-9);
    EXPECT_TRUE(ok.take(u"track_lufs"_s).isDouble());
    const auto json = [](const QString& text) {
        return QJsonDocument::fromJson(text.toUtf8()).object();
    };
    EXPECT_EQ(ok, json(uR"({"track": "%1", "status": "ok", "error": null, "clip": "%2",
        "output": "%3", "placements": [0.5, 5.5, 10.5]})"_s.arg(beat, clip, output)));
    EXPECT_EQ(high[1], json(uR"({"track": "%1", "status": "error", "error": "CAN'T READ FILE",
        "clip": "%2", "output": null, "placements": null, "gain_db": null,
        "track_lufs": null})"_s.arg(notes, clip)));

    // A folder under the name fails the track, leaving it and no hidden file.
    QFile::remove(output);
    QDir().mkpath(output);
    ::Test::writeFile(output + u"/inside"_s, "x");
    EXPECT_EQ(tag({u"--replace"_s}).at(0)[u"error"_s], u"IS A DIRECTORY"_s);
    EXPECT_EQ(tree(dir.path()).filter(u"beat"_s),
              (QStringList{u"beat (Tagged).wav/inside"_s, u"beat.wav"_s}));
}

// A track written slowly, in chunks, is tagged once it is whole, and once; the
// outputs that appear beside it are never taken. Ctrl-C ends the watch.
TEST_F(ZelkorTag, watchTagsATrackWrittenInChunksOnceWhole) {
    const QString export_ = path(u"export"_s);
    ::Test::makeAudio(path(u"beat.wav"_s), u"sine=frequency=220"_s, 3);
    QDir().mkpath(export_);
    QProcess watch;
    watch.start(::Test::binary(u"zelkor-tag"_s),
                {u"-t"_s, clip, u"-i"_s, u"5"_s, u"--watch"_s, export_});
    // Nothing is written before the watch is set up: an inotify watch among its descriptors.
    ASSERT_TRUE(::Test::waitUntil(
        [&] {
            const QString info = u"/proc/%1/fdinfo"_s.arg(watch.processId());
            for (const QString& fd : QDir(info).entryList(QDir::Files))
                if (::Test::readAll(info + u'/' + fd).contains("inotify wd:"))
                    return true;
            return false;
        },
        30'000));

    const QByteArray whole = ::Test::readAll(path(u"beat.wav"_s));
    QFile slow(export_ + u"/slow.wav"_s);
    ASSERT_TRUE(slow.open(QIODevice::WriteOnly));
    for (qsizetype at = 0; at < whole.size(); at += whole.size() / 3 + 1) {
        slow.write(whole.mid(at, whole.size() / 3 + 1));
        slow.flush();
        QThread::msleep(1000); // a pause, as a slow export makes, shorter than the settling time
    }
    slow.close();
    const auto shown = [&](int count) {
        return ::Test::waitUntil(
            [&] {
                watch.waitForReadyRead(1);
                return lines(QString::fromUtf8(watch.peek(1 << 16))).size() >= count;
            },
            30'000);
    };
    ASSERT_TRUE(shown(1));
    QFile::copy(path(u"beat.wav"_s), export_ + u"/quick.wav"_s);
    ASSERT_TRUE(shown(2));
    ::kill(static_cast<pid_t>(watch.processId()), SIGINT);
    ASSERT_TRUE(watch.waitForFinished(30'000));

    EXPECT_EQ(watch.exitStatus(), QProcess::CrashExit);
    EXPECT_EQ(watch.exitCode(), SIGINT);
    EXPECT_EQ(lines(QString::fromUtf8(watch.readAllStandardOutput())),
              (QStringList{u"slow.wav  1 TAGS  OK  -> "_s + export_ + u"/slow (Tagged).wav"_s,
                           u"quick.wav  1 TAGS  OK  -> "_s + export_ + u"/quick (Tagged).wav"_s}));
    EXPECT_EQ(::Test::samples(export_ + u"/slow (Tagged).wav"_s, 44100, 2).size(), 3u * 44100 * 2);
}
