// A catalogue's run: one output per track, named the same on every run, a dry
// run that says what the run will do, and --skip-existing that knows an output
// made from the master as it is now from a stale one.
#include "base/Names.h"
#include "engine/Engine.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

using ::Test::zelkorTag;

class Catalogue : public ::Test::TempFolder {
protected:
    // "A/beat.mp3" under the test's folder, made with its folders.
    QString make(const QString& name) {
        QDir().mkpath(QFileInfo(path(name)).path());
        ::Test::writeFile(path(name), "x");
        return path(name);
    }
};

QStringList lines(const QString& text) {
    return text.split(u'\n', Qt::SkipEmptyParts);
}

} // namespace

// Tracks whose outputs would share a name each get one of their own, told apart
// by what differs between them, whatever the order they come in and whatever
// else the run holds; the same file given twice is planned once.
TEST_F(Catalogue, collidingOutputsAreToldApartTheSameWayOnEveryRun) {
    for (const QString& name :
         {u"A/beat.mp3"_s, u"B/beat.mp3"_s, u"B/beat.wav"_s, u"x/drums/beat.wav"_s,
          u"y/drums/beat.wav"_s, u"Beat.wav"_s, u"Beat.mp3"_s, u"Loop.wav"_s, u"Loop.WAV"_s})
        make(name);
    QFile::link(path(u"Beat.wav"_s), path(u"link.wav"_s));
    // Options (o: -o OUT, f: -f mp3) | ROOT:TRACK; ... | outputs; ...
    for (const QString& row :
         {u"o|A:A/beat.mp3;B:B/beat.mp3|OUT/beat (Tagged) (A).mp3;OUT/beat (Tagged) (B).mp3"_s,
          u"o|B:B/beat.mp3;A:A/beat.mp3|OUT/beat (Tagged) (B).mp3;OUT/beat (Tagged) (A).mp3"_s,
          u"o|x/drums:x/drums/beat.wav;y/drums:y/drums/beat.wav|"
          "OUT/beat (Tagged) (x drums).wav;OUT/beat (Tagged) (y drums).wav"_s,
          u"of|A:A/beat.mp3;B:B/beat.mp3|"
          "OUT/beat (Tagged) (A mp3).mp3;OUT/beat (Tagged) (B mp3).mp3"_s,
          u"f|Beat.mp3;Beat.wav|Beat (Tagged) (mp3).mp3;Beat (Tagged) (wav).mp3"_s,
          u"f|Beat.wav|Beat (Tagged) (wav).mp3"_s,
          u"|Beat.wav;Beat.mp3|Beat (Tagged).wav;Beat (Tagged).mp3"_s,
          u"|Loop.WAV|Loop (Tagged) (WAV).wav"_s,
          u"|Beat.wav;link.wav;./Beat.wav;Beat.wav|Beat (Tagged).wav"_s}) {
        const QStringList part = row.split(u'|');
        Engine::Job job;
        job.mirrorUnder = part[0].contains(u'o') ? path(u"OUT"_s) : QString();
        job.format = part[0].contains(u'f') ? Engine::Format::mp3 : Engine::Format::same;
        std::vector<Engine::Input> inputs;
        for (const QString& given : part[1].split(u';'))
            inputs.push_back({path(given.section(u':', -1)),
                              given.contains(u':') ? path(given.section(u':', 0, 0)) : QString(),
                              {}});
        QStringList outputs;
        for (const Engine::Planned& track : Engine::plan(job, inputs))
            outputs << QDir(dir.path()).relativeFilePath(track.output.path());
        EXPECT_EQ(outputs.join(u';'), part[2]) << row.toStdString();
    }
}

// The dry run prints the lines of the real run: the collisions' names, and the
// failures of an output folder that is a file, lies under one or on a read-only
// disk, and of a name longer than the disk takes, which fail before anything is measured.
TEST_F(Catalogue, theDryRunSaysWhatTheRunDoes) {
    const QString clip = path(u"tag.wav"_s);
    ::Test::makeAudio(clip, u"sine=frequency=880"_s, 0.3, 22050, 1);
    for (const QString& name : {u"A/beat.mp3"_s, u"B/beat.mp3"_s})
        ::Test::makeAudio(make(name), u"sine=frequency=220"_s, 1);
    const QString longName = QString(245, u'x') + u".wav"_s;
    QFile::copy(path(u"A/beat.mp3"_s), path(u"A/"_s) + longName);
    make(u"afile"_s);
    QStringList outs{path(u"OUT"_s), path(u"afile"_s), path(u"afile/sub"_s)};
    QStringList expected{u"beat.mp3  1 TAGS  OK  -> "_s + path(u"OUT/beat (Tagged) (B).mp3"_s),
                         u"beat.mp3  NOT A DIRECTORY"_s,
                         u"beat.mp3  CAN'T CREATE "_s + outs[2] + u": NOT A DIRECTORY"_s};
    // A read-only disk, where one can be mounted.
    const ::Test::Tmpfs readOnly(path(u"ro"_s), u"1m"_s);
    if (readOnly.mounted() &&
        ::Test::runProgram(u"mount"_s, {u"-o"_s, u"remount,ro"_s, path(u"ro"_s)}).status == 0) {
        outs << path(u"ro/sub"_s);
        expected << u"beat.mp3  CAN'T CREATE "_s + outs[3] + u": READ-ONLY FILE SYSTEM"_s;
    }
    QStringList written;
    for (const QString& out : outs) {
        const QStringList args{u"-t"_s, clip, u"-o"_s, out, path(u"A"_s), path(u"B"_s)};
        const auto dry = zelkorTag(QStringList{u"-n"_s} + args);
        const auto run = zelkorTag(args);
        QStringList predicted = lines(dry.out);
        static const QRegularExpression figures(u"DRY RUN: (\\d+) TAGS AT .* DB"_s);
        for (QString& line : predicted)
            line.replace(figures, u"\\1 TAGS  OK"_s);
        EXPECT_EQ(predicted, lines(run.out)) << out.toStdString();
        EXPECT_EQ(dry.status, run.status);
        written << lines(run.out).last();
    }
    EXPECT_EQ(written, expected);
    EXPECT_TRUE(QFileInfo::exists(path(u"OUT/beat (Tagged) (A).mp3"_s)));
    EXPECT_EQ(lines(zelkorTag({u"-n"_s, u"-t"_s, clip, path(u"A"_s) + u'/' + longName}).out),
              QStringList{longName + u"  FILE NAME TOO LONG"_s});
}

// An output counts as done only when it was made from the master as it is now:
// a master bounced again under old times (as cp -p or rsync leave them) makes it
// again under its own name. Done outputs cost no ffmpeg run; a track another
// living run is writing is left to it.
TEST_F(Catalogue, skipExistingRemakesWhatIsStaleAndLeavesWhatIsBeingWritten) {
    const QString clip = path(u"tag.wav"_s), beat = path(u"beat.wav"_s);
    const QString output = path(u"beat (Tagged).wav"_s), runs = path(u"share/runs"_s);
    ::Test::makeAudio(clip, u"sine=frequency=880"_s, 0.3, 22050, 1);
    ::Test::makeAudio(beat, u"sine=frequency=220"_s, 1);
    const QString env =
        u"ZELKOR_RESOURCES="_s + ::Test::resourcesWith(dir.path(), R"(here=$(dirname "$0")
echo "$*" >> "$here/runs"
exec "$real" "$@"
)");
    const auto skipping = [&] {
        QFile::remove(runs);
        return zelkorTag({u"-t"_s, clip, u"--skip-existing"_s, beat}, {env}).out;
    };
    const QString made = u"beat.wav  1 TAGS  OK  -> "_s + output + u'\n';
    const QString skipped = u"beat.wav  SKIPPED  -> "_s + output + u'\n';
    EXPECT_EQ(skipping(), made);
    EXPECT_EQ(skipping(), skipped);
    EXPECT_FALSE(QFileInfo::exists(runs));

    // Bounced again in place, as long as before, its times set back to the first bounce's.
    struct stat first = {};
    ASSERT_EQ(::stat(Names::encode(beat).constData(), &first), 0);
    ::Test::makeAudio(path(u"again.wav"_s), u"sine=frequency=330"_s, 1);
    ::Test::writeFile(beat, ::Test::readAll(path(u"again.wav"_s)));
    const struct timespec times[2] = {first.st_atim, first.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, Names::encode(beat).constData(), times, 0), 0);
    const QByteArray stale = ::Test::readAll(output);
    EXPECT_EQ(skipping(), made);
    EXPECT_NE(::Test::readAll(output), stale);
    EXPECT_EQ(skipping(), skipped);

    // A file copied over the output is no output of the master.
    ::Test::writeFile(output, "copied over");
    EXPECT_EQ(skipping(), made);

    // Another run's locked temporary file of the output: it is writing it now.
    ::Test::makeAudio(beat, u"sine=frequency=330"_s, 1);
    const QByteArray temp = Names::encode(path(u".beat (Tagged).zelkor-1-abcdef.part"_s));
    const int held = ::open(temp.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(held, 0);
    ASSERT_EQ(::flock(held, LOCK_EX), 0);
    EXPECT_EQ(skipping(), skipped);
    EXPECT_FALSE(QFileInfo::exists(runs));
    ::close(held);
    EXPECT_EQ(skipping(), made);
}
