// The engine's pure parts: reading ffmpeg's text, placing the clip, shaping the
// graph, naming outputs, collecting tracks and choosing the ffmpeg to run.
#include "engine/Analysis.h"
#include "engine/Collect.h"
#include "engine/Engine.h"
#include "engine/Render.h"
#include "engine/Runner.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>

using namespace Qt::StringLiterals;

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

Engine::Analysis parsed(const char* lines) {
    return Engine::parseAnalysis(u"  Duration: 00:01:40.00, bitrate: 1411 kb/s\n"_s +
                                 QString::fromUtf8(lines));
}

Engine::Analysis transcript(const QString& name) {
    return Engine::parseAnalysis(::Test::fixture(name));
}

using EngineFiles = ::Test::TempFolder;

} // namespace

// Real transcripts of Debian's ffmpeg. The track's title, comment and file name
// quote a duration, a silence, a loudness, a peak and a picture: figures come only
// from lines ffmpeg starts. Debian's ffmpeg also prints the end of a silence that
// runs to the end of the input, and that silence is still trailing.
TEST(EngineParse, realTranscriptsAndWhichSilenceIsTrailing) {
    const Engine::Analysis track = transcript(u"titled-track.txt"_s);
    EXPECT_DOUBLE_EQ(track.duration, 12.5);
    EXPECT_DOUBLE_EQ(track.lufs, -12.0);
    EXPECT_EQ(track.peak, -10.5);
    EXPECT_FALSE(track.silenceStart || track.pictures);
    EXPECT_EQ(track.format, (Engine::AudioFormat{44100, u"stereo"_s}));
    EXPECT_TRUE(track.broadcastChunk && track.integerSamples);
    const Engine::Analysis clip = transcript(u"speech-clip.txt"_s);
    EXPECT_EQ(clip.silenceStart, 0.438625);
    EXPECT_EQ(clip.format, (Engine::AudioFormat{8000, u"mono"_s}));
    const Engine::Analysis silent = transcript(u"silent-track.txt"_s);
    EXPECT_EQ(silent.peak, -kInf);
    EXPECT_EQ(silent.silenceStart, 0.0);
    const QString covered = ::Test::fixture(u"covered-track.txt"_s);
    EXPECT_TRUE(Engine::parseAnalysis(covered).pictures);
    EXPECT_FALSE(Engine::parseAnalysis(covered).integerSamples);
    // Pictures are kept only when every video stream is one an MP3 can carry.
    for (const char* other :
         {"  Stream #0:3: Video: jpeg2000, rgb24, 9x9, 90k tbn (attached pic)\n",
          "  Stream #0:3: Video: h264 (High), yuv420p, 1920x1080, 25 fps\n"})
        EXPECT_FALSE(Engine::parseAnalysis(covered + QString::fromUtf8(other)).pictures) << other;
    // An unsigned pattern skips the negative start, so the counts match.
    const char* silences = "[silencedetect @ 0x1] silence_start: %1\n"
                           "[silencedetect @ 0x1] silence_end: 0.8 | silence_duration: 0.8\n"
                           "[silencedetect @ 0x1] silence_start: 4.1\n";
    EXPECT_EQ(parsed(QString::fromLatin1(silences).arg(0).toUtf8().constData()).silenceStart, 4.1);
    EXPECT_FALSE(
        parsed(QString::fromLatin1(silences).arg(-0.01).toUtf8().constData()).silenceStart);
    // The format comes from the first audio stream; a bext chunk shows only in the input's tags.
    EXPECT_EQ(parsed("  Stream #0:0: Video: mjpeg, yuvj420p, 500x500\n"
                     "  Stream #0:1(eng): Audio: pcm_s24le, 96000 Hz, 5.1(side), s32 (24 bit)\n"
                     "  Stream #0:0: Audio: pcm_s16le, 44100 Hz, 3 channels, s16\n")
                  .format,
              (Engine::AudioFormat{96000, u"5.1(side)"_s}));
    EXPECT_EQ(parsed("  Stream #0:0: Audio: pcm_s16le, 48000 Hz, 3 channels, s16\n").format,
              (Engine::AudioFormat{48000, u"3c"_s}));
    EXPECT_FALSE(parsed("    time_reference  : 441000\n").broadcastChunk);
}

// A second Duration line, or figures before the last stream line, can only be a
// tag's name forging ffmpeg's lines.
TEST(EngineParse, theOneDurationAndTheLastLoudnessCount) {
    EXPECT_THROW(Engine::parseAnalysis(u"  Duration: 00:03:25.47, start: 0\n"
                                       "  Duration: 00:00:01.00, start: 0\n"_s),
                 TagError);
    const Engine::Analysis forged =
        parsed("[silencedetect @ 0x1] silence_start: 1.5\n    I:   -5.0 LUFS\n"
               "    Peak:   -1.0 dBFS\n  Stream #0:0: Audio: pcm_s16le, 44100 Hz, mono, s16\n");
    EXPECT_FALSE(forged.silenceStart || forged.peak);
    EXPECT_DOUBLE_EQ(forged.lufs, -70.0);
    EXPECT_DOUBLE_EQ(Engine::parseAnalysis(u"  Duration: 01:00:00.00,"_s).duration, 3600);
    EXPECT_THROW(Engine::parseAnalysis(u"  Duration: N/A, bitrate: N/A\n"_s), TagError);
    // Nothing is below the floor of -70.
    for (const auto& [lines, lufs] :
         {std::pair{"    I:   -20.0 LUFS\n    I:   -14.2 LUFS\n", -14.2},
          {"    I:   -75.3 LUFS\n", -70.0},
          {"    I:   -inf LUFS\n", -70.0},
          {"    I:   1.2.3 LUFS\n", -70.0}})
        EXPECT_DOUBLE_EQ(parsed(lines).lufs, lufs) << lines;
    // A failed render reports its last line that names a cause (not ffmpeg's closing
    // lines), cut and upper-cased.
    for (const auto& [text, shown] :
         {std::pair{u"size=  6kB\r"_s + QString(80, u'e') + u"\nConversion failed!\n"_s,
                    QString(60, u'E')},
          {QString(59, u'a') + u"\U0001F3A7b"_s, QString(59, u'A') + u"\U0001F3A7"_s},
          {u"\n \n"_s, u"ERROR"_s}})
        EXPECT_EQ(Engine::failureText(text), shown);
}

// Copies repeat while they end by half a second after the track; a nonsense
// duration, interval or clip length gives the one fallback copy, never a runaway.
TEST(EnginePlacement, copiesRepeatWhileTheyFitAndNonsenseGivesTheFallback) {
    const double nan = std::nan("");
    EXPECT_EQ(Engine::positions(95, 30, 3), (std::vector{0.5, 30.5, 60.5, 90.5}));
    EXPECT_EQ(Engine::positions(10, 30, 10), std::vector{0.5});
    for (const auto& [duration, interval, clip] : {std::tuple{10.0, 30.0, 12.0},
                                                   {95.0, 0.0, 3.0},
                                                   {95.0, -3.0, 3.0},
                                                   {95.0, kInf, 3.0},
                                                   {95.0, nan, 3.0},
                                                   {kInf, 30.0, 3.0},
                                                   {nan, 30.0, 3.0},
                                                   {95.0, 30.0, kInf}})
        EXPECT_EQ(Engine::positions(duration, interval, clip), std::vector{0.0})
            << duration << " " << interval << " " << clip;
    EXPECT_EQ(Engine::positions(95, 1e-20, 3).size(), Engine::kMaxPlacements);
    for (double interval : {0.0, -3.0, kInf, nan})
        EXPECT_THROW(Engine::process(u"/a.wav"_s, u"/t.wav"_s, interval, -5), TagError);
    // The clip's gain is clamped between -40 and 12 dB.
    for (const auto& [level, track, tag, gain] : {std::tuple{-9.0, -70.0, -10.0, -40.0},
                                                  {-1.0, -8.0, -30.0, 12.0},
                                                  {-5.0, -14.0, -20.0, 1.0}})
        EXPECT_DOUBLE_EQ(Engine::clipGain(level, track, tag), gain);
}

// Copies that cannot overlap and lie a whole number of samples apart share one
// looped branch (its samples are EngineSameness's); the loop holds one interval of
// audio, at most 2^24 samples over all channels.
TEST(EnginePlacement, onlyCopiesThatCannotOverlapShareOneLoopedBranch) {
    using enum Engine::GraphShape;
    const std::vector<double> apart{0.5, 30.5, 60.5};
    for (const auto& [times, length, rate, layout, shape] :
         std::vector<std::tuple<std::vector<double>, double, int, QString, Engine::GraphShape>>{
             {apart, 30, 44100, u"stereo"_s, loopedBed}, // back to back
             {apart, 30.001, 44100, u"stereo"_s, branchPerCopy},
             {{0.5, 30.5, 60.6}, 2, 44100, u"stereo"_s, branchPerCopy},
             {apart, 2, 0, {}, branchPerCopy}, // no format measured
             {apart, 2, 96000, u"stereo"_s, loopedBed},
             {apart, 2, 96000, u"7.1"_s, branchPerCopy},
             {apart, 2, 44100, u"odd"_s, branchPerCopy}}) {
        std::optional<Engine::AudioFormat> format;
        if (rate)
            format = Engine::AudioFormat{rate, layout};
        EXPECT_EQ(Engine::graphShape({0, times, length, 0.97, format}), shape)
            << length << " " << rate << " " << layout.toStdString();
    }
    EXPECT_TRUE(Engine::filterGraph({0, apart, 2, 0.97, std::nullopt})
                    .contains(u"[s2]adelay=60500:all=1"_s));
    for (const auto& [layout, channels] : {std::pair{u"5.1(side)"_s, 6}, {u"3c"_s, 3}})
        EXPECT_EQ(Engine::channelCount(layout), channels) << layout.toStdString();
}

// The ceiling follows the master's peak, read to 0.1 dB and so raised by half a step
// and rounded up in its last written digit, within 0.97 and 1. With nothing of the track
// at the ceiling, only the stretches around the copies pass a limiter (their samples
// are EngineRender's): 10 ms before each to 100 ms after, joined when they meet, up to
// 40 stretches. Without a known rate copies are placed in whole milliseconds.
TEST(EnginePlacement, theCeilingFollowsTheMasterAndTheLimiterRunsAroundTheTags) {
    for (const auto& [peak, ceiling] :
         {std::pair{std::optional<double>(), 0.97}, {-0.4, 0.97}, {-0.3, 0.971628}, {0.0, 1.0}})
        EXPECT_DOUBLE_EQ(Engine::ceiling(peak), ceiling) << peak.value_or(NAN);
    const QString limiter = u"alimiter=limit=0.97:level=0:attack=2:release=40:latency=1"_s;
    Engine::Mix mix{0, {0.0, 0.5, 30.5}, 1, 0.97, Engine::AudioFormat{1000, u"mono"_s}, true};
    EXPECT_TRUE(Engine::filterGraph(mix).contains(u"asegment=samples=1600|30490|31600[g0]"_s));
    mix.times = Engine::positions(1000, 20, 1);
    ASSERT_EQ(mix.times.size(), 50u); // beyond 40 stretches the whole track is cheaper
    EXPECT_TRUE(Engine::filterGraph(mix).endsWith(u"0,"_s + limiter + u"[out]"_s));
    // Integers never pass full scale; floats are clear only below it; unmeasured never.
    for (const auto& [peak, integers, clear] : {std::tuple{std::optional<double>(), true, false},
                                                {0.0, true, true},
                                                {0.0, false, false},
                                                {-0.1, false, true}}) {
        Engine::Analysis track;
        track.peak = peak;
        track.integerSamples = integers;
        EXPECT_EQ(Engine::clearOfCeiling(track), clear) << integers;
    }
    // A WAV output keeps the track's bext chunk, and no picture, which no WAV can carry.
    Engine::Analysis extras;
    extras.pictures = extras.broadcastChunk = true;
    EXPECT_EQ(Engine::renderArguments(u"/b"_s, u"/t"_s, u"G"_s, extras, u"/o"_s, u"wav"_s),
              u"-y -i /b -i /t -filter_complex G -map [out] -map_metadata 0 "
              "-c:a pcm_s24le -write_bext 1 -f wav /o"_s.split(u' '));
}

// A dangling link takes a name too: ffmpeg would write through it.
TEST_F(EngineFiles, outputsAreNamedAfterTheTrackAndNeverTakeAUsedName) {
    const QString d = dir.path() + u'/';
    QFile::link(d + u"gone"_s, d + u"Loop (Tagged).wav"_s);
    EXPECT_EQ(Engine::outputURL(d + u"Loop.wav"_s), d + u"Loop (Tagged) (2).wav"_s);
    EXPECT_EQ(Engine::outputURL(u"-x.WAV"_s),
              QDir::current().absoluteFilePath(u"-x (Tagged).wav"_s));
    // The first executable candidate is the ffmpeg to run.
    ::Test::writeFile(d + u"plain"_s, "#!/bin/sh\n");
    ::Test::writeFile(d + u"first"_s, "#!/bin/sh\n", true);
    ::Test::writeFile(d + u"second"_s, "#!/bin/sh\n", true);
    QDir(d).mkpath(u"folder"_s);
    EXPECT_EQ(Engine::findExecutable({d + u"Loop (Tagged).wav"_s, d + u"plain"_s, d + u"folder"_s,
                                      d + u"first"_s, d + u"second"_s}),
              d + u"first"_s);
}

TEST_F(EngineFiles, aFolderGivesItsOwnTracksInCodePointOrder) {
    const QString d = dir.path() + u'/';
    for (const char* name :
         {"b.mp3", "A.mp3", "c.txt", ".intro.wav", "Mix(Tagged)final.wav", "Song (tagged).mp3",
          "Voice.MP3", "Take.m4a", "wav", "z.wav", "e\xCC\x81 decomposed.wav", "Take.mp\x13"})
        ::Test::writeFile(d + QString::fromUtf8(name), "x");
    QDir(d).mkpath(u"sub"_s);
    QDir(d).mkpath(u"loops.wav"_s);
    ::Test::writeFile(d + u"sub/y.mp3"_s, "x");
    const auto in = [&](const char* names) {
        QStringList paths;
        for (const QString& name : QString::fromUtf8(names).split(u'|'))
            paths << d + name;
        return paths;
    };
    EXPECT_EQ(Engine::collect({dir.path()}),
              in(".intro.wav|A.mp3|Song (tagged).mp3|Voice.MP3|b.mp3|loops.wav|z.wav|"
                 "e\xCC\x81 decomposed.wav"));
    // Files keep the given order, unchecked; a folder's tracks come where the folder was.
    EXPECT_EQ(Engine::collect(in("B.wav|gone.mp3|sub|b.mp3|sub/y.mp3")),
              in("B.wav|gone.mp3|sub/y.mp3|b.mp3|sub/y.mp3"));
    EXPECT_TRUE(Engine::collect({d + u"c.txt"_s, d + u"loops.wav/"_s}).isEmpty());
}

// A run's plan names every output before the first render, on the names alone:
// beside the track, or under the output folder as the track lies below its root.
TEST(EngineJob, thePlanNamesEachOutputBesideItsTrackOrMirrored) {
    using enum Engine::Format;
    for (const auto& [mirror, format, track, root, output] :
         std::vector<std::tuple<QString, Engine::Format, QString, QString, QString>>{
             {{}, same, u"/m/a/Beat.One.WAV"_s, u"/m"_s, u"/m/a/Beat.One (Tagged).wav"_s},
             {{}, mp3, u"/m/b.wav"_s, {}, u"/m/b (Tagged).mp3"_s},
             {u"/out"_s, wav, u"/m/1/2/c.mp3"_s, u"/m"_s, u"/out/1/2/c (Tagged).wav"_s},
             {u"/out/"_s, same, u"/m/d.mp3"_s, u"/m"_s, u"/out/d (Tagged).mp3"_s},
             {u"/out"_s, same, u"/e.wav"_s, {}, u"/e (Tagged).wav"_s}}) {
        Engine::Job job;
        job.mirrorUnder = mirror;
        job.format = format;
        const Engine::Plan plan = Engine::plan(job, std::vector<Engine::Input>{{track, root, {}}});
        ASSERT_EQ(plan.size(), 1u);
        EXPECT_EQ(plan[0].output.path(), output) << track.toStdString();
    }
    Engine::Job job;
    job.mirrorUnder = u"/out"_s;
    EXPECT_EQ(Engine::plan(job, {{u"gone"_s, {}, TagError::notFound()}})[0].output,
              Engine::OutputName{});
    job.mirrorUnder.clear();
    job.taken = Engine::Taken::skip;
    EXPECT_EQ(Engine::plan(job, {u"/nowhere/f.wav"_s})[0].output.path(),
              u"/nowhere/f (Tagged).wav"_s);
    EXPECT_THROW(Engine::tag(job, {{u"x"_s, {}, TagError::notATrack()}, {}}), TagError);
}
