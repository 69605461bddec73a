// zelkor-tag as a child process: its lines and exit codes, with the real ffmpeg or
// a fake one for what the real one cannot show.
#include "base/Names.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <csignal>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

using ::Test::zelkorTag;

QStringList lines(const QString& text) {
    return text.split(u'\n', Qt::SkipEmptyParts);
}

// Paths relative to `folder`, sorted, so that a listing compares as a whole.
QStringList tree(const QString& folder) {
    QStringList files;
    for (QDirIterator it(folder, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
         it.hasNext();)
        files << QDir(folder).relativeFilePath(it.next());
    files.sort();
    return files;
}

class ZelkorTag : public ::Test::TempFolder {
protected:
    void SetUp() override { ::Test::makeAudio(clip, u"sine=frequency=880"_s, 0.5, 22050, 1); }
    const QString clip = path(u"tag.wav"_s);
    // An ffmpeg that logs each run to share/runs and runs the real one; a render
    // fails while share/fail exists.
    const QString env = u"ZELKOR_RESOURCES="_s + ::Test::resourcesWith(dir.path(), R"(
echo "$*" >> "$(dirname "$0")/runs"
case " $* " in *" -filter_complex "*) [ -e "$(dirname "$0")/fail" ] && exit 1 ;; esac
exec "$real" "$@"
)");
};

} // namespace

TEST_F(ZelkorTag, usageErrorsExitTwoAndNameTheBadValueNothingToTagExitsOne) {
    QDir().mkpath(path(u"empty"_s));
    // Each refusal, its words and its status when not 2; "." is any PATH, "@" the
    // folder. Nothing to tag is tried at the ends of the options' ranges.
    for (QString row :
         {u"--level LOUD .|--level 'LOUD'"_s, u"-l 13 .|--level '13'"_s, u"-i 2 .|--interval '2'"_s,
          u"--interval 9999 .|--interval '9999'"_s, u"--interval=nan .|--interval 'nan'"_s,
          u"--jobs 65 .|--jobs '65'"_s, u"-rf flac .|--format 'flac'"_s,
          u"--skip-existing --replace .|exclude each other"_s, u"-rx .|'-x'"_s,
          u"--json=yes .|'--json'"_s, u"--bogus .|'--bogus'"_s, u". --tag|'--tag'"_s,
          u"-t tag.wav|no PATH"_s, u"-t @/tag.wav -i600 -l -40 @/empty|NO TRACKS FOUND|1"_s,
          u"--tag @/gone.wav @/tag.wav|no tag clip at '@/gone.wav'|1"_s}) {
        const QStringList column = row.replace(u'@', dir.path()).split(u'|');
        const auto run = zelkorTag(column[0].split(u' '));
        EXPECT_EQ(run.status, column.value(2, u"2"_s).toInt()) << row.toStdString();
        EXPECT_TRUE(run.err.contains(column[1]) && run.err.count(u'\n') == 1)
            << run.err.toStdString();
        EXPECT_EQ(run.out, u""_s);
    }
}

// An ffmpeg that records each argument list (in share/args-N), answers an analysis
// with its loudness first and its duration after 1 MB, and a render with 5 s of silence: both
// came through, and every name whole. Without an executable ffmpeg nothing starts.
TEST_F(ZelkorTag, ffmpegGetsItsFixedPrefixThenEveryArgumentWholeOrIsNotStarted) {
    ::Test::resourcesWith(dir.path(), R"sh(
here=$(dirname "$0")
printf '%s\0' "$@" > "$here/args-$(ls "$here" | grep -c '^args-')"
case " $* " in *" -filter_complex "*) for o; do :; done; exec "$real" -v error -f lavfi -i anullsrc=d=5 -f wav -y "$o" ;; esac
echo '    I:         -20.0 LUFS'
yes 'frame=1 size=N/A time=00:00:00.00' | head -n 35000 >&2
printf '\n  Duration: 00:00:05.00, bitrate: 1 kb/s\n' >&2
printf '  Stream #0:0: Audio: pcm_s16le, 44100 Hz, stereo, s16\n' >&2
)sh");
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
    QFile::setPermissions(path(u"share/ffmpeg"_s), QFile::ReadOwner | QFile::WriteOwner);
    const auto none = zelkorTag({u"--tag"_s, clip, track, track}, {env});
    EXPECT_EQ(none.out + QString::number(none.status),
              u"-my beat [1]; it's.wav  FFMPEG NOT FOUND\n"_s + u'1');
}

// On a terminal the progress line is drawn first, redrawn after each track's line
// and cleared at the end; -q draws none, nor does any run off a terminal. A clip
// named in Latin-1 is added, selected and used by its bytes. PATHs that are no track
// get their own lines in their place; "-" reads more PATHs, one a line.
TEST_F(ZelkorTag, eachPathGetsItsLineAndATerminalAProgressLine) {
    ::Test::makeAudio(path(u"a.wav"_s), u"sine=frequency=220"_s, 1);
    ::Test::writeFile(path(u"b.wav"_s), "x");
    const auto onTerminal = [&](const QString& quiet) {
        return ::Test::runProgram(u"script"_s,
                                  {u"-qec"_s,
                                   u"cd '%1' && '%2' %3 -t tag.wav a.wav b.wav"_s.arg(
                                       dir.path(), ::Test::binary(u"zelkor-tag"_s), quiet),
                                   u"/dev/null"_s},
                                  {u"NO_COLOR=1"_s})
            .out;
    };
    const auto bar = [](const char* count, int filled) {
        return u"\r%1 ["_s.arg(QLatin1String(count)) + QString(filled, u'#') +
               QString(30 - filled, u'.') + u"]"_s;
    };
    const QString clear = u"\r\x1b[K"_s,
                  failed =
                      u"b.wav  CAN'T READ FILE: INVALID DATA FOUND WHEN PROCESSING INPUT\r\n"_s;
    const QString both = onTerminal({});
    EXPECT_EQ(both.left(both.lastIndexOf(u"1 WRITTEN"_s)),
              bar("00/02", 0) + clear + u"a.wav  1 TAGS  OK  -> "_s + path(u"a (Tagged).wav"_s) +
                  u"\r\n"_s + bar("01/02", 15) + clear + failed + bar("02/02", 30) + clear);
    EXPECT_EQ(onTerminal(u"-q"_s), failed);

    ::Test::FreshHome home;
    ::Test::makeAudio(path(u"beat.wav"_s), u"sine=frequency=220"_s, 1);
    ::Test::writeFile(path(u"notes.txt"_s), "x");
    ::Test::writeFile(path(u"old (Tagged).wav"_s), "x");
    ASSERT_EQ(::rename(Names::encode(clip), Names::encode(dir.path()) + "/voix \xe9.wav"), 0);
    const auto run = ::Test::runProgram(
        u"/bin/sh"_s,
        {u"-c"_s,
         u"cd \"$1\" && clip=$(printf 'voix \\351.wav') && \"$0\" --add-tag \"$clip\""
         " && \"$0\" --select-tag \"$clip\" beat.wav && printf"
         " 'notes.txt\\n\\nbeat.wav\\r\\n' | \"$0\" -t \"$clip\" /typo - 'old (Tagged).wav'"_s,
         ::Test::binary(u"zelkor-tag"_s), dir.path()});
    EXPECT_EQ(run.err + QString::number(run.status), u"1"_s);
    EXPECT_EQ(lines(run.out),
              (QStringList{u"TAG ADDED: VOIX \uFFFD  ARMED"_s, u"TAG SELECTED: VOIX \uFFFD"_s,
                           u"beat.wav  1 TAGS  OK  -> "_s + path(u"beat (Tagged).wav"_s),
                           u"/typo  NOT FOUND"_s, u"notes.txt  NOT A TRACK"_s,
                           u"beat.wav  1 TAGS  OK  -> "_s + path(u"beat (Tagged) (2).wav"_s),
                           u"old (Tagged).wav  NOT A TRACK"_s}));
    ::rename(Names::encode(dir.path()) + "/voix \xe9.wav", Names::encode(clip)); // for the clean-up
}

// Folders' own tracks, then sub-folders in name order, skipping hidden ones, outputs
// and the output folder; the output tree mirrors the PATH. Jobs report in track order
// though the first takes longest, and the clip is measured once. A WAV master gives
// a 320 kb/s MP3 preview at its own rate and channels.
TEST_F(ZelkorTag, recursionMirrorsEachTrackBelowItsPathUnderTheOutputFolder) {
    const QString music = path(u"music"_s), out = music + u"/out"_s, runs = path(u"share/runs"_s);
    for (const QString& name : {u"b.wav"_s, u"A.mp3"_s, u"2/x.wav"_s, u"1/y.wav"_s,
                                u"1/deeper/z.wav"_s, u".hidden/h.wav"_s, u"out/old.wav"_s}) {
        QDir().mkpath(QFileInfo(music + u'/' + name).path());
        ::Test::makeAudio(music + u'/' + name, u"sine=frequency=220"_s, name == u"A.mp3"_s ? 30 : 1,
                          48000, 1);
    }
    QFile::copy(music + u"/b.wav"_s, music + u"/b (Tagged).wav"_s);
    const QStringList into{u"-t"_s, clip, u"-f"_s, u"mp3"_s, u"-o"_s, out};
    const auto run = zelkorTag(
        QStringList{u"-rj4"_s} + into + QStringList{music, music + u"/.hidden/h.wav"_s}, {env});
    EXPECT_EQ(run.status, 0) << run.out.toStdString();
    QStringList shown;
    for (const QString& line : lines(run.out))
        shown << line.section(u"  "_s, 0, 0);
    EXPECT_EQ(shown, (QStringList{u"A.mp3"_s, u"b.wav"_s, u"1/y.wav"_s, u"1/deeper/z.wav"_s,
                                  u"2/x.wav"_s, u"h.wav"_s}));
    EXPECT_EQ(tree(out), (QStringList{u"1/deeper/z (Tagged).mp3"_s, u"1/y (Tagged).mp3"_s,
                                      u"2/x (Tagged).mp3"_s, u"A (Tagged).mp3"_s,
                                      u"b (Tagged).mp3"_s, u"h (Tagged).mp3"_s, u"old.wav"_s}));
    const QStringList ran = lines(QString::fromUtf8(::Test::readAll(runs)));
    EXPECT_EQ(ran.filter(clip).size(), ran.filter(u"-filter_complex"_s).size() + 1);
    const QString preview = out + u"/b (Tagged).mp3"_s;
    EXPECT_TRUE(::Test::runProgram(::Test::systemFFmpeg(), {u"-hide_banner"_s, u"-i"_s, preview})
                    .err.contains(u"Audio: mp3, 48000 Hz, mono, fltp, 320 kb/s"_s));

    // Short options combine, and 0 jobs is one per core.
    const auto again = zelkorTag(into + QStringList{u"-qrj0"_s, u"--skip-existing"_s, music});
    EXPECT_EQ(again.out + QString::number(again.status), u"0"_s);
}

// --replace swaps in only a whole render; --json says what was written, and a dry
// run what would be, writing nothing.
TEST_F(ZelkorTag, replaceSwapsInOnlyAWholeRenderAndJsonTellsWhatWasWritten) {
    const QString beat = path(u"beat.wav"_s), output = path(u"beat (Tagged).wav"_s);
    ::Test::makeAudio(beat, u"sine=frequency=220"_s, 12);
    const auto tag = [&](const QStringList& args, int status = 0) {
        const auto run = zelkorTag(
            QStringList{u"-t"_s, clip, u"-i5"_s, u"--json"_s} + args + QStringList{beat}, {env});
        EXPECT_EQ(run.status, status) << run.out.toStdString();
        return QJsonDocument::fromJson(run.out.toUtf8()).object();
    };

    const QJsonObject low = tag({u"-l"_s, u"low"_s});
    QJsonObject plan = tag({u"-n"_s, u"--replace"_s, u"-l"_s, u"high"_s});
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden),
              (QStringList{u"beat (Tagged).wav"_s, u"beat.wav"_s, u"tag.wav"_s}));
    const QByteArray before = ::Test::readAll(output);
    ::Test::writeFile(path(u"share/fail"_s), "");
    tag({u"--replace"_s}, 1);
    EXPECT_EQ(::Test::readAll(output), before);
    QFile::remove(path(u"share/fail"_s));
    const QJsonObject high = tag({u"--replace"_s, u"-l"_s, u"high"_s});
    EXPECT_NE(::Test::readAll(output), before);
    EXPECT_EQ(plan.take(u"dry_run"_s), true);
    EXPECT_EQ(plan, high);
    EXPECT_NEAR(high[u"gain_db"_s].toDouble() - low[u"gain_db"_s].toDouble(), 8, 1e-9);
    EXPECT_EQ(high[u"status"_s].toString() + high[u"output"_s].toString(), u"ok"_s + output);
    EXPECT_EQ(high[u"placements"_s].toArray(), (QJsonArray{0.5, 5.5, 10.5}));

    // A folder under the name fails the track, leaving it and no hidden file.
    QFile::remove(output);
    QDir().mkpath(output);
    ::Test::writeFile(output + u"/inside"_s, "x");
    EXPECT_EQ(tag({u"--replace"_s}, 1)[u"error"_s], u"IS A DIRECTORY"_s);
    EXPECT_EQ(tree(dir.path()).filter(u"beat"_s),
              (QStringList{u"beat (Tagged).wav/inside"_s, u"beat.wav"_s}));
}
