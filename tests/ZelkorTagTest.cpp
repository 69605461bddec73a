// zelkor-tag's lines, statuses and outputs, with the real ffmpeg or a fake one.
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

using ::Test::zelkorTag;

class ZelkorTag : public ::Test::TempFolder {
protected:
    void SetUp() override { ::Test::makeAudio(clip, u"sine=frequency=880"_s, 0.5, 22050, 1); }
    const QString clip = path(u"tag.wav"_s);
    // The real ffmpeg, logging runs to share/runs; renders fail while share/fail exists.
    const QString env = u"ZELKOR_RESOURCES="_s + ::Test::resourcesWith(dir.path(), R"(
echo "$*" >> "$(dirname "$0")/runs"
case " $* " in *" -filter_complex "*) [ -e "$(dirname "$0")/fail" ] && exit 1 ;; esac
exec "$real" "$@"
)");
};

} // namespace

TEST_F(ZelkorTag, usageErrorsExitTwoAndNameTheBadValueNothingToTagExitsOne) {
    QDir().mkpath(path(u"empty"_s));
    // Refusal, its words, status if not 2; "@" is the folder; ranges' ends tag nothing.
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
        EXPECT_TRUE(run.out.isEmpty() && run.err.contains(column[1]) && run.err.count(u'\n') == 1)
            << run.err.toStdString();
    }
}

// ffmpeg gets its prefix and every name whole; an analysis' duration after 1 MB of
// progress counts. Without an executable ffmpeg nothing starts.
TEST_F(ZelkorTag, ffmpegGetsItsFixedPrefixThenEveryArgumentWholeOrIsNotStarted) {
    ::Test::resourcesWith(dir.path(), R"sh(
here=$(dirname "$0")
printf '%s\0' "$@" > "$here/args-$(ls "$here" | grep -c '^args-')"
case " $* " in *" -filter_complex "*) for o; do :; done; exec "$real" -v error -f lavfi -i anullsrc=d=5 -f wav -y "$o" ;; esac
"$real" -v error -f lavfi -i anullsrc=d=5 -f wav -
yes 'frame=1 size=N/A time=00:00:00.00' | head -n 35000 >&2
printf '\n  Duration: 00:00:05.00, bitrate: 1 kb/s\n' >&2
printf '  Stream #0:0: Audio: pcm_s16le, 44100 Hz, stereo, s16\n' >&2
)sh");
    const QString track = path(u"-my beat [1]; it's.wav"_s);
    ::Test::writeFile(track, "x");
    const auto run = zelkorTag({u"--tag"_s, clip, u"--"_s, track}, {env});
    const QString out = path(u"-my beat [1]; it's (Tagged).wav"_s);
    EXPECT_EQ(run.out, u"-my beat [1]; it's.wav  1 TAGS  OK  -> "_s + out + u'\n');
    // After the track's analysis: the clip, a WAV, is read without ffmpeg.
    const QStringList render = QString::fromUtf8(::Test::readAll(path(u"share/args-1"_s)))
                                   .split(QChar(0), Qt::SkipEmptyParts);
    ASSERT_GT(render.size(), 8) << render.join(u' ').toStdString();
    EXPECT_EQ(render.mid(0, 8), u"-hide_banner -nostdin -y -i"_s.split(u' ') +
                                    (QStringList{track, u"-i"_s, clip, u"-filter_complex"_s}));
    EXPECT_TRUE(render.last().startsWith(path(u".-my beat [1]; it's (Tagged).zelkor-"_s)) &&
                QFileInfo(out).isFile() && !QFileInfo::exists(render.last()));

    for (const char* fixed : {"/opt/homebrew/bin/ffmpeg", "/usr/local/bin/ffmpeg"})
        if (QFileInfo(QString::fromUtf8(fixed)).isExecutable())
            GTEST_SKIP() << fixed << " exists on this machine";
    QFile::setPermissions(path(u"share/ffmpeg"_s), QFile::ReadOwner | QFile::WriteOwner);
    const auto none = zelkorTag({u"--tag"_s, clip, track, track}, {env});
    EXPECT_EQ(none.out + QString::number(none.status),
              u"-my beat [1]; it's.wav  FFMPEG NOT FOUND\n"_s + u'1');
}

// A terminal gets a progress line that counts tracks finished (with -j2, the
// failing second one before the first's line), red failures unless NO_COLOR or
// --color=never, and the summary last; -q only failures, a pipe no extras.
TEST_F(ZelkorTag, aTerminalGetsProgressColourAndASummary) {
    ::Test::makeAudio(path(u"a.wav"_s), u"sine=frequency=220"_s, 150);
    ::Test::writeFile(path(u"b.wav"_s), "x");
    const auto onTerminal = [&](const QString& options) {
        return ::Test::runProgram(u"script"_s,
                                  {u"-qec"_s,
                                   u"cd '%1' && %2 '%3' %4 -t tag.wav a.wav b.wav"_s.arg(
                                       dir.path(), options.section(u'|', 0, 0),
                                       ::Test::binary(u"zelkor-tag"_s), options.section(u'|', 1)),
                                   u"/dev/null"_s})
            .out;
    };
    const QString failed = u"b.wav  CAN'T READ FILE: INVALID DATA FOUND WHEN PROCESSING INPUT"_s,
                  red = u"\x1b[31m"_s + failed + u"\x1b[0m\r\n"_s,
                  written = u"a.wav  5 TAGS  OK  -> "_s + path(u"a (Tagged)"_s);
    const auto piped =
        zelkorTag({u"-t"_s, clip, u"--color=always"_s, path(u"a.wav"_s), path(u"b.wav"_s)});
    EXPECT_EQ(piped.out + piped.err, written + u".wav\n"_s + red.chopped(2) + u'\n');

    const QString both = onTerminal(u"|-j2"_s);
    const qsizetype counted = both.indexOf(u"01/02"_s), line = both.indexOf(written);
    EXPECT_TRUE(counted >= 0 && counted < line && line < both.indexOf(red)) << both.toStdString();
    EXPECT_TRUE(
        QRegularExpression(u"\r\x1b\\[K1 WRITTEN  0 SKIPPED  1 FAILED  IN \\d+\\.\\d S\r\n$"_s)
            .match(both)
            .hasMatch())
        << both.toStdString();
    for (const QString& options : {u"NO_COLOR=1|"_s, u"|--color=never"_s})
        EXPECT_TRUE(onTerminal(options).contains(u"\x1b[K"_s + failed + u"\r\n"_s));
    EXPECT_EQ(onTerminal(u"|-q"_s), red);
}

// Own tracks, then sub-folders by name, skipping hidden ones, outputs and the output
// folder, mirrored below it; jobs report in track order, the clip is measured once;
// MP3 previews are 320 kb/s at the master's rate and channels.
TEST_F(ZelkorTag, recursionMirrorsEachTrackBelowItsPathUnderTheOutputFolder) {
    const QString music = path(u"music"_s), out = music + u"/out"_s;
    for (const QString& name : {u"b.wav"_s, u"A.mp3"_s, u"2/x.wav"_s, u"1/y.wav"_s,
                                u"1/deeper/z.wav"_s, u".hidden/h.wav"_s, u"out/old.wav"_s}) {
        ::Test::makeAudio(music + u'/' + name, u"sine=frequency=220"_s, name == u"A.mp3"_s ? 30 : 1,
                          48000, 1);
    }
    QFile::copy(music + u"/b.wav"_s, music + u"/b (Tagged).wav"_s);
    // An MP3 clip, so that ffmpeg measures it (a WAV is read without it).
    const QString spoken = path(u"tag.mp3"_s);
    ::Test::ffmpeg({u"-i"_s, clip, spoken});
    const QStringList into{u"-t"_s, spoken, u"-f"_s, u"mp3"_s, u"-o"_s, out};
    const auto run = zelkorTag(
        QStringList{u"-rj4"_s} + into + QStringList{music, music + u"/.hidden/h.wav"_s}, {env});
    EXPECT_EQ(run.status, 0) << run.out.toStdString();
    EXPECT_EQ(QString(run.out).remove(QRegularExpression(u"  .*"_s)),
              u"A.mp3\nb.wav\n1/y.wav\n1/deeper/z.wav\n2/x.wav\nh.wav\n"_s);
    EXPECT_EQ(::Test::tree(out),
              u"./1/deeper/z (Tagged).mp3\n./1/y (Tagged).mp3\n./2/x (Tagged).mp3\n"
              "./A (Tagged).mp3\n./b (Tagged).mp3\n./h (Tagged).mp3\n./old.wav\n"_s);
    const QStringList ran = QString::fromUtf8(::Test::readAll(path(u"share/runs"_s))).split(u'\n');
    EXPECT_EQ(ran.filter(spoken).size(), ran.filter(u"-filter_complex"_s).size() + 1);
    EXPECT_TRUE(::Test::runProgram(::Test::systemFFmpeg(), {u"-i"_s, out + u"/b (Tagged).mp3"_s})
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
    EXPECT_EQ(tag({u"--replace"_s}, 1)[u"error"_s], u"IS A DIRECTORY"_s);
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
              (QStringList{u"beat (Tagged).wav"_s, u"beat.wav"_s, u"share"_s, u"tag.wav"_s}));
}
