// A catalogue's run: one output per track, a dry run that tells the run, --skip-existing.
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
    QString make(const QString& name) { return ::Test::writeFile(path(name), "x"); }
};

} // namespace

// A run's plan names every output on the names alone, beside the track or mirrored.
// Outputs that would share a name are told apart by what differs between their tracks,
// whatever the order and the rest of the run; a file given twice is planned once.
TEST_F(Catalogue, collidingOutputsAreToldApartTheSameWayOnEveryRun) {
    for (const QString& name :
         {u"A/beat.mp3"_s, u"B/beat.mp3"_s, u"B/beat.wav"_s, u"x/drums/beat.wav"_s,
          u"y/drums/beat.wav"_s, u"Beat.wav"_s, u"Beat.mp3"_s, u"Loop.wav"_s, u"Loop.WAV"_s})
        make(name);
    QFile::link(path(u"Beat.wav"_s), path(u"link.wav"_s));
    // Options (o: -o OUT, o/: -o OUT/, f: -f mp3, w: -f wav) | ROOT:TRACK;... | outputs;...
    for (const QString& row :
         {u"|m:m/a/Beat.One.WAV|m/a/Beat.One (Tagged).wav"_s, u"f|m/b.wav|m/b (Tagged).mp3"_s,
          u"ow|m:m/1/2/c.mp3|OUT/1/2/c (Tagged).wav"_s, u"o/|m:m/d.mp3|OUT/d (Tagged).mp3"_s,
          u"o|e.wav|e (Tagged).wav"_s,
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
        using enum Engine::Format;
        job.mirrorUnder = part[0].contains(u'o')
                              ? path(part[0].contains(u'/') ? u"OUT/"_s : u"OUT"_s)
                              : QString();
        job.format = part[0].contains(u'f') ? mp3 : part[0].contains(u'w') ? wav : same;
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

// The dry run says what the run does. With --skip-existing an output is done only when made
// from the master as it is now, costs no ffmpeg run, and is left to another live run.
TEST_F(Catalogue, theDryRunSaysTheRunAndSkipExistingKnowsStaleOutputs) {
    const QString clip = path(u"tag.wav"_s), beat = path(u"beat.wav"_s);
    const QString output = path(u"beat (Tagged).wav"_s), runs = path(u"share/runs"_s);
    ::Test::makeAudio(clip, u"sine=frequency=880"_s, 0.3, 22050, 1);
    ::Test::makeAudio(beat, u"sine=frequency=220"_s, 1);
    const QString longName = QString(245, u'x') + u".wav"_s;
    for (const QString& name : {u"A/beat.mp3"_s, u"B/beat.mp3"_s})
        ::Test::makeAudio(make(name), u"sine=frequency=220"_s, 1);
    QFile::copy(path(u"A/beat.mp3"_s), path(u"A/"_s) + longName);
    make(u"afile"_s);
    for (const QString& out : {path(u"OUT"_s), path(u"afile"_s)}) {
        const QStringList args{u"-t"_s, clip, u"-o"_s, out, path(u"A"_s), path(u"B"_s)};
        const auto dry = zelkorTag(QStringList{u"-n"_s} + args), run = zelkorTag(args);
        static const QRegularExpression figures(u"DRY RUN: (\\d+) TAGS AT .* DB"_s);
        EXPECT_EQ(QString(dry.out).replace(figures, u"\\1 TAGS  OK"_s), run.out);
        EXPECT_EQ(dry.status, run.status);
        EXPECT_TRUE(out.contains(u"afile"_s)
                        ? run.out.endsWith(u"beat.mp3  NOT A DIRECTORY\n"_s)
                        : run.out == u"beat.mp3  1 TAGS  OK  -> "_s + out +
                                         u"/beat (Tagged) (A).mp3\n"_s + longName +
                                         u"  FILE NAME TOO LONG\nbeat.mp3  1 TAGS  OK  -> "_s +
                                         out + u"/beat (Tagged) (B).mp3\n"_s)
            << run.out.toStdString();
    }
    const QString env = u"ZELKOR_RESOURCES="_s +
                        ::Test::resourcesWith(dir.path(), R"(echo "$*" >> "$(dirname "$0")/runs"
exec "$real" "$@"
)");
    // Whether the run made the output; else it skipped it without running ffmpeg.
    const auto made = [&] {
        QFile::remove(runs);
        const QString out = zelkorTag({u"-t"_s, clip, u"--skip-existing"_s, beat}, {env}).out;
        const QString to = u"  -> "_s + output + u'\n';
        EXPECT_TRUE(out == u"beat.wav  1 TAGS  OK"_s + to ||
                    (out == u"beat.wav  SKIPPED"_s + to && !QFileInfo::exists(runs)))
            << out.toStdString();
        return out.contains(u"OK"_s);
    };
    EXPECT_TRUE(made());
    EXPECT_FALSE(made());
    // Bounced again in place, as long as before, its times set back to the first bounce's.
    struct stat first = {};
    ASSERT_EQ(::stat(Names::encode(beat).constData(), &first), 0);
    ::Test::makeAudio(beat, u"sine=frequency=330"_s, 1);
    const struct timespec times[2] = {first.st_atim, first.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, Names::encode(beat).constData(), times, 0), 0);
    EXPECT_TRUE(made());
    EXPECT_FALSE(made());
    ::Test::writeFile(output, "copied over"); // no output of the master
    EXPECT_TRUE(made());
    // Another run's locked temporary file of the output: it is writing it now.
    ::Test::makeAudio(beat, u"sine=frequency=440"_s, 1);
    const int held =
        ::open(Names::encode(path(u".beat (Tagged).zelkor-1-abcdef.part"_s)).constData(),
               O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_EQ(::flock(held, LOCK_EX), 0);
    EXPECT_FALSE(made());
    ::close(held);
    EXPECT_TRUE(made());
}
