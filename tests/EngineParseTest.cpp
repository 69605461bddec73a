// The engine's pure parts: reading ffmpeg's text, placing the clip, building the
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

using EngineFiles = ::Test::TempFolder;

} // namespace

// Real transcripts of Debian's ffmpeg. The track's title, comment and file name
// quote a duration, a silence, a loudness, a peak and a picture: figures come only
// from lines ffmpeg starts. Debian's ffmpeg also prints the end of a silence that
// runs to the end of the input, and that silence is still trailing.
TEST(EngineParse, realTranscriptsAndWhichSilenceIsTrailing) {
    const Engine::Analysis track = Engine::parseAnalysis(::Test::fixture(u"titled-track.txt"_s));
    EXPECT_DOUBLE_EQ(track.duration, 12.5);
    EXPECT_DOUBLE_EQ(track.lufs, -12.0);
    EXPECT_EQ(track.peak, -10.5);
    EXPECT_FALSE(track.silenceStart);
    EXPECT_EQ(track.format, (Engine::AudioFormat{44100, u"stereo"_s}));
    EXPECT_TRUE(track.broadcastChunk);
    EXPECT_FALSE(track.pictures);
    EXPECT_TRUE(track.integerSamples);
    const Engine::Analysis clip = Engine::parseAnalysis(::Test::fixture(u"speech-clip.txt"_s));
    EXPECT_EQ(clip.silenceStart, 0.438625);
    EXPECT_EQ(clip.format, (Engine::AudioFormat{8000, u"mono"_s}));
    const Engine::Analysis silent = Engine::parseAnalysis(::Test::fixture(u"silent-track.txt"_s));
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

    EXPECT_EQ(parsed("[silencedetect @ 0x1] silence_start: 0\n"
                     "[silencedetect @ 0x1] silence_end: 0.8 | silence_duration: 0.8\n"
                     "[silencedetect @ 0x1] silence_start: 4.1\n")
                  .silenceStart,
              4.1);
    // An unsigned pattern skips the negative start, so the counts match.
    EXPECT_FALSE(parsed("[silencedetect @ 0x1] silence_start: -0.01\n"
                        "[silencedetect @ 0x1] silence_end: 0.8 | silence_duration: 0.81\n"
                        "[silencedetect @ 0x1] silence_start: 4.1\n")
                     .silenceStart);
}

// A second Duration line, or figures before the last stream line, can only be a
// tag's name forging ffmpeg's lines.
TEST(EngineParse, theOneDurationAndTheLastLoudnessCount) {
    EXPECT_THROW(Engine::parseAnalysis(u"  Duration: 00:03:25.47, start: 0\n"
                                       "  Duration: 00:00:01.00, start: 0\n"_s),
                 TagError);
    const Engine::Analysis forged =
        parsed("[silencedetect @ 0x1] silence_start: 1.5\n"
               "    I:   -5.0 LUFS\n"
               "    Peak:   -1.0 dBFS\n"
               "  Stream #0:0: Audio: pcm_s16le, 44100 Hz, mono, s16\n");
    EXPECT_FALSE(forged.silenceStart);
    EXPECT_DOUBLE_EQ(forged.lufs, -70.0);
    EXPECT_FALSE(forged.peak);
    EXPECT_DOUBLE_EQ(Engine::parseAnalysis(u"  Duration: 01:00:00.00,"_s).duration, 3600);
    EXPECT_THROW(Engine::parseAnalysis(u"  Duration: N/A, bitrate: N/A\n"_s), TagError);
    // Nothing is below the floor of -70.
    for (const auto& [lines, lufs] :
         {std::pair{"    I:   -20.0 LUFS\n    I:   -14.2 LUFS\n", -14.2},
          {"    I:   -75.3 LUFS\n", -70.0},
          {"    I:   -inf LUFS\n", -70.0},
          {"    I:   1.2.3 LUFS\n", -70.0}})
        EXPECT_DOUBLE_EQ(parsed(lines).lufs, lufs) << lines;
}

// The format comes from the first audio stream, and the bext chunk shows in the
// input's own tags as its time_reference.
TEST(EngineParse, theTracksFormatAndBroadcastChunk) {
    EXPECT_EQ(parsed("  Stream #0:0: Video: mjpeg, yuvj420p, 500x500\n"
                     "  Stream #0:1(eng): Audio: pcm_s24le, 96000 Hz, 5.1(side), s32 (24 bit)\n"
                     "  Stream #0:0: Audio: pcm_s16le, 44100 Hz, stereo, s16\n")
                  .format,
              (Engine::AudioFormat{96000, u"5.1(side)"_s}));
    EXPECT_EQ(parsed("  Stream #0:0: Audio: pcm_s16le, 48000 Hz, 3 channels, s16\n").format,
              (Engine::AudioFormat{48000, u"3c"_s}));
    EXPECT_FALSE(parsed("    time_reference  : 441000\n").broadcastChunk);
}

// Copies repeat while they end by half a second after the track; a nonsense
// duration, interval or clip length gives the one fallback copy, never a runaway.
TEST(EnginePlacement, copiesRepeatWhileTheyFitAndNonsenseGivesTheFallback) {
    const double nan = std::nan("");
    for (const auto& [duration, interval, clip, times] :
         std::vector<std::tuple<double, double, double, std::vector<double>>>{
             {95, 30, 3, {0.5, 30.5, 60.5, 90.5}},
             {10, 30, 10, {0.5}},
             {10, 30, 12, {0.0}},
             {95, 0, 3, {0.0}},
             {95, -3, 3, {0.0}},
             {95, kInf, 3, {0.0}},
             {95, nan, 3, {0.0}},
             {kInf, 30, 3, {0.0}},
             {nan, 30, 3, {0.0}},
             {95, 30, kInf, {0.0}}})
        EXPECT_EQ(Engine::positions(duration, interval, clip), times)
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

// Each copy is faded, delayed to its placement and mixed under the track; copies that
// cannot overlap and lie a whole number of samples apart share one looped branch.
TEST(EnginePlacement, copiesAreDelayedToTheirPlacesOrShareOneLoopedBranch) {
    const QString apart = Engine::filterGraph({-3.25, {0.5, 30.5, 60.5}, 3, 0.97, std::nullopt});
    for (const char* part : {"volume=-3.25dB", "adelay=500:all=1", "adelay=30500:all=1",
                             "adelay=60500:all=1", "amix=inputs=4", "alimiter=limit=0.97:"})
        EXPECT_TRUE(apart.contains(QLatin1String(part))) << part;
    const Engine::AudioFormat stereo{44100, u"stereo"_s};
    const QString looped = Engine::filterGraph({-3.25, {0.5, 30.5, 60.5}, 2, 0.994261, stereo});
    for (const char* part :
         {"atrim=end_sample=88200", "apad=whole_len=1323000", "aloop=loop=2:size=1323000",
          "adelay=22050S", "amix=inputs=2", "alimiter=limit=0.994261:"})
        EXPECT_TRUE(looped.contains(QLatin1String(part))) << part;

    const auto shape = [&](std::vector<double> times, double length,
                           std::optional<Engine::AudioFormat> format) {
        return Engine::graphShape({0, std::move(times), length, 0.97, std::move(format)});
    };
    using enum Engine::GraphShape;
    EXPECT_EQ(shape({0.5, 30.5, 60.5}, 30, stereo), loopedBed); // back to back
    EXPECT_EQ(shape({0.5, 30.5, 60.5}, 30.001, stereo), branchPerCopy);
    EXPECT_EQ(shape({0.5, 30.5, 60.6}, 2, stereo), branchPerCopy);
    EXPECT_EQ(shape({0.5, 30.5}, 2, std::nullopt), branchPerCopy);
    // The loop holds one interval of audio: at most 2^24 samples over all channels.
    EXPECT_EQ(shape({0.5, 30.5}, 2, Engine::AudioFormat{96000, u"stereo"_s}), loopedBed);
    EXPECT_EQ(shape({0.5, 30.5}, 2, Engine::AudioFormat{96000, u"7.1"_s}), branchPerCopy);
    EXPECT_EQ(shape({0.5, 30.5}, 2, Engine::AudioFormat{44100, u"odd"_s}), branchPerCopy);
    for (const auto& [layout, channels] : {std::pair{u"5.1(side)"_s, 6}, {u"3c"_s, 3}})
        EXPECT_EQ(Engine::channelCount(layout), channels) << layout.toStdString();
}

// The ceiling follows the master's peak, read to 0.1 dB and so raised by half a step
// and rounded up in its last written digit, within 0.97 and 1. With nothing of the track
// at the ceiling, only the stretches around the copies pass a limiter (10 ms before each
// to 100 ms after, joined when they meet), in double precision.
TEST(EnginePlacement, theCeilingFollowsTheMasterAndTheLimiterRunsAroundTheTags) {
    for (const auto& [peak, ceiling] :
         {std::pair{std::optional<double>(), 0.97}, {-0.4, 0.97}, {-0.3, 0.971628}, {0.0, 1.0}})
        EXPECT_DOUBLE_EQ(Engine::ceiling(peak), ceiling) << peak.value_or(NAN);
    const QString limiter = u"alimiter=limit=0.97:level=0:attack=2:release=40:latency=1"_s;
    Engine::Mix mix{0, {0.0, 0.5, 30.5}, 1, 0.97, Engine::AudioFormat{1000, u"mono"_s}, true};
    EXPECT_TRUE(Engine::filterGraph(mix).endsWith(
        u"dropout_transition=0,aformat=sample_fmts=dbl,asegment=samples=1600|30490|31600"
        "[g0][g1][g2][g3];[g0]"_s +
        limiter + u"[h0];[g2]"_s + limiter + u"[h2];[h0][g1][h2][g3]concat=n=4:v=0:a=1[out]"_s));
    mix.times = Engine::positions(1000, 20, 1);
    ASSERT_EQ(mix.times.size(), 50u); // beyond 40 stretches the whole track is cheaper
    EXPECT_TRUE(Engine::filterGraph(mix).endsWith(u"0,"_s + limiter + u"[out]"_s));

    Engine::Analysis track; // no peak measured
    track.integerSamples = true;
    EXPECT_FALSE(Engine::clearOfCeiling(track));
    track.peak = 0.0; // integers never pass full scale
    EXPECT_TRUE(Engine::clearOfCeiling(track));
    track.integerSamples = false;
    EXPECT_FALSE(Engine::clearOfCeiling(track));
    track.peak = -0.1;
    EXPECT_TRUE(Engine::clearOfCeiling(track));
}

// A WAV output keeps the track's bext chunk, and no picture, which no WAV can carry.
TEST(EnginePlacement, aWavOutputKeepsTheBroadcastChunkAndNoPicture) {
    Engine::Analysis extras;
    extras.pictures = extras.broadcastChunk = true;
    EXPECT_EQ(Engine::renderArguments(u"/b"_s, u"/t.wav"_s, u"G"_s, extras, u"/out"_s, u"wav"_s)
                  .join(u' '),
              u"-y -i /b -i /t.wav -filter_complex G -map [out] -map_metadata 0 "
              "-c:a pcm_s24le -write_bext 1 -f wav /out"_s);
}

TEST_F(EngineFiles, outputsAreNamedAfterTheTrackAndNeverTakeAUsedName) {
    const QString d = dir.path() + u'/';
    EXPECT_EQ(Engine::outputURL(d + u"my.Beat.WAV"_s), d + u"my.Beat (Tagged).wav"_s);
    // A dangling link takes the name too: ffmpeg would write through it.
    QFile::link(d + u"gone"_s, d + u"Loop (Tagged).wav"_s);
    EXPECT_EQ(Engine::outputURL(d + u"Loop.wav"_s), d + u"Loop (Tagged) (2).wav"_s);
    EXPECT_EQ(Engine::outputURL(u"-x.wav"_s),
              QDir::current().absoluteFilePath(u"-x (Tagged).wav"_s));
}

// Not ffmpeg's closing lines, which name no cause.
TEST(EngineParse, aFailedRenderReportsItsLastLineThatNamesACauseCutAndUpperCased) {
    EXPECT_EQ(
        Engine::failureText(u"size=  6kB\r"_s + QString(80, u'e') + u"\nConversion failed!\n"_s),
        QString(60, u'E'));
    EXPECT_EQ(Engine::failureText(QString(59, u'a') + u"\U0001F3A7b"_s),
              QString(59, u'A') + u"\U0001F3A7"_s);
    EXPECT_EQ(Engine::failureText(u"\n \n"_s), u"ERROR"_s);
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

    QStringList expected;
    for (const char* name : {".intro.wav", "A.mp3", "Song (tagged).mp3", "Voice.MP3", "b.mp3",
                             "loops.wav", "z.wav", "e\xCC\x81 decomposed.wav"})
        expected << d + QString::fromUtf8(name);
    EXPECT_EQ(Engine::collect({dir.path()}), expected);

    // Files keep the given order, unchecked; a folder's tracks come where the folder was.
    const QStringList mixed = Engine::collect(
        {d + u"B.wav"_s, d + u"gone.mp3"_s, d + u"sub"_s, d + u"b.mp3"_s, d + u"sub/y.mp3"_s});
    EXPECT_EQ(mixed, (QStringList{d + u"B.wav"_s, d + u"gone.mp3"_s, d + u"sub/y.mp3"_s,
                                  d + u"b.mp3"_s, d + u"sub/y.mp3"_s}));
    EXPECT_TRUE(Engine::collect({d + u"c.txt"_s, d + u"loops.wav/"_s}).isEmpty());
}

TEST_F(EngineFiles, theFirstExecutableCandidateIsFfmpeg) {
    const QString d = dir.path() + u'/';
    ::Test::writeFile(d + u"plain"_s, "#!/bin/sh\n");
    ::Test::writeFile(d + u"first"_s, "#!/bin/sh\n", true);
    ::Test::writeFile(d + u"second"_s, "#!/bin/sh\n", true);
    QFile::link(d + u"gone"_s, d + u"ffmpeg"_s);
    QDir(d).mkpath(u"folder"_s);
    EXPECT_EQ(Engine::findExecutable({d + u"ffmpeg"_s, d + u"plain"_s, d + u"folder"_s,
                                      d + u"first"_s, d + u"second"_s}),
              d + u"first"_s);
}

// A run's plan names every output before the first render, on the names alone:
// beside the track, or under the output folder as the track lies below its root.
TEST(EngineJob, thePlanNamesEachOutputBesideItsTrackOrMirrored) {
    using Engine::Format;
    struct Row {
        QString mirror;
        Format format;
        Engine::Input input;
        Engine::OutputName output;
    };
    const std::vector<Row> rows{
        {{},
         Format::same,
         {u"/m/a/Beat.One.WAV"_s, u"/m"_s, {}},
         {u"/m/a"_s, u"Beat.One (Tagged)"_s, u"wav"_s}},
        {{}, Format::mp3, {u"/m/b.wav"_s, {}, {}}, {u"/m"_s, u"b (Tagged)"_s, u"mp3"_s}},
        {u"/out"_s,
         Format::wav,
         {u"/m/1/2/c.mp3"_s, u"/m"_s, {}},
         {u"/out/1/2"_s, u"c (Tagged)"_s, u"wav"_s}},
        {u"/out/"_s,
         Format::same,
         {u"/m/d.mp3"_s, u"/m"_s, {}},
         {u"/out"_s, u"d (Tagged)"_s, u"mp3"_s}},
        {u"/out"_s, Format::same, {u"/e.wav"_s, {}, {}}, {u"/"_s, u"e (Tagged)"_s, u"wav"_s}},
        {u"/out"_s, Format::same, {u"gone"_s, {}, TagError::notFound()}, {}},
    };
    for (const Row& row : rows) {
        Engine::Job job;
        job.mirrorUnder = row.mirror;
        job.format = row.format;
        const Engine::Plan plan = Engine::plan(job, std::vector<Engine::Input>{row.input});
        ASSERT_EQ(plan.size(), 1u);
        EXPECT_EQ(plan[0].output, row.output)
            << row.input.track.toStdString() << " -> " << plan[0].output.folder.toStdString() << " "
            << plan[0].output.stem.toStdString();
    }
    Engine::Job job;
    job.taken = Engine::Taken::skip;
    const Engine::Plan planned = Engine::plan(job, {u"/nowhere/f.wav"_s});
    EXPECT_EQ(planned[0].output.path(), u"/nowhere/f (Tagged).wav"_s);
    EXPECT_THROW(Engine::tag(job, {{u"x"_s, {}, TagError::notATrack()}, {}}), TagError);
}
