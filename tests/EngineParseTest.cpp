// The engine's pure parts: ffmpeg's text, placements, graphs, output names, collection.
#include "engine/Analysis.h"
#include "engine/Collect.h"
#include "engine/Engine.h"
#include "engine/Render.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>

using namespace Qt::StringLiterals;

namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();

Engine::Analysis parsed(const char* lines) {
    return Engine::parseAnalysis(u"  Duration: 00:01:40.00\n"_s + QString::fromUtf8(lines));
}

using EngineFiles = ::Test::TempFolder;

} // namespace

// Real transcripts: the format, pictures and bext chunk come only from lines ffmpeg starts.
TEST(EngineParse, realTranscriptsAndForgedLines) {
    const Engine::Analysis track = Engine::parseAnalysis(::Test::fixture(u"titled-track.txt"_s));
    EXPECT_TRUE(track.duration == 12.5 && !track.pictures && track.broadcastChunk &&
                track.integerSamples);
    EXPECT_EQ(track.format, (Engine::AudioFormat{44100, u"stereo"_s}));
    const QString covered = ::Test::fixture(u"covered-track.txt"_s);
    EXPECT_TRUE(Engine::parseAnalysis(covered).pictures &&
                !Engine::parseAnalysis(covered).integerSamples);
    // Pictures are kept only when an MP3 can carry every video stream.
    for (const QString& other :
         {u"  Stream #0:3: Video: jpeg2000, rgb24, 9x9, 90k tbn (attached pic)\n"_s,
          u"  Stream #0:3: Video: h264 (High), yuv420p, 1920x1080, 25 fps\n"_s})
        EXPECT_FALSE(Engine::parseAnalysis(covered + other).pictures) << other.toStdString();
    // The format is the first audio stream's; a bext chunk shows only in the input's tags.
    EXPECT_EQ(parsed("  Stream #0:0: Video: mjpeg, yuvj420p, 500x500\n"
                     "  Stream #0:1(eng): Audio: pcm_s24le, 96000 Hz, 5.1(side), s32 (24 bit)\n"
                     "  Stream #0:0: Audio: pcm_s16le, 44100 Hz, 3 channels, s16\n")
                  .format,
              (Engine::AudioFormat{96000, u"5.1(side)"_s}));
    EXPECT_EQ(parsed("  Stream #0:0: Audio: pcm_s16le, 48000 Hz, 3 channels, s16\n").format,
              (Engine::AudioFormat{48000, u"3c"_s}));
    EXPECT_FALSE(parsed("    time_reference  : 441000\n").broadcastChunk);
    // A second Duration line, or a silence before the last stream line, is a tag forging them.
    EXPECT_THROW(Engine::parseAnalysis(u"  Duration: 00:03:25.47, start: 0\n"
                                       "  Duration: 00:00:01.00, start: 0\n"_s),
                 TagError);
    EXPECT_FALSE(parsed("[silencedetect @ 0x1] silence_start: 1.5\n"
                        "  Stream #0:0: Audio: pcm_s16le, 44100 Hz, mono, s16\n")
                     .silenceStart);
    EXPECT_DOUBLE_EQ(Engine::parseAnalysis(u"  Duration: 01:00:00.00,"_s).duration, 3600);
    EXPECT_THROW(Engine::parseAnalysis(u"  Duration: N/A, bitrate: N/A\n"_s), TagError);
    // A failed render reports its last line naming a cause, cut and upper-cased.
    for (const auto& [text, shown] :
         {std::pair{u"size=  6kB\r"_s + QString(80, u'e') + u"\nConversion failed!\n"_s,
                    QString(60, u'E')},
          {QString(59, u'a') + u"\U0001F3A7b"_s, QString(59, u'A') + u"\U0001F3A7"_s},
          {u"\n \n"_s, u"ERROR"_s}})
        EXPECT_EQ(Engine::failureText(text), shown);
}

// Copies repeat while they end by half a second after the track; nonsense gives one.
TEST(EnginePlacement, copiesRepeatWhileTheyFitAndTheBeatGivesWayUnderThem) {
    const double nan = std::nan("");
    EXPECT_EQ(Engine::positions(95, 30, 3), (std::vector{0.5, 30.5, 60.5, 90.5}));
    EXPECT_EQ(Engine::positions(10, 30, 10), std::vector{0.5});
    for (double interval : {0.0, -3.0, kInf, nan}) {
        EXPECT_EQ(Engine::positions(95, interval, 3), std::vector{0.0}) << interval;
        EXPECT_THROW(Engine::process(u"/a.wav"_s, u"/t.wav"_s, interval, -5), TagError);
    }
    for (const auto& [duration, clip] :
         {std::pair{10.0, 12.0}, {kInf, 3.0}, {nan, 3.0}, {95.0, kInf}})
        EXPECT_EQ(Engine::positions(duration, 30, clip), std::vector{0.0}) << duration << clip;
    EXPECT_EQ(Engine::positions(95, 1e-20, 3).size(), Engine::kMaxPlacements);
    // The clip's gain is clamped between -40 and 12 dB.
    for (const auto& [level, track, tag, gain] : {std::tuple{-9.0, -70.0, -10.0, -40.0},
                                                  {-1.0, -8.0, -30.0, 12.0},
                                                  {-5.0, -14.0, -20.0, 1.0}})
        EXPECT_DOUBLE_EQ(Engine::clipGain(level, track, tag), gain);
    // Copies that cannot overlap and lie whole samples apart share one looped branch (2^24 max).
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
        const auto format = rate ? std::optional(Engine::AudioFormat{rate, layout}) : std::nullopt;
        EXPECT_EQ(Engine::graphShape({0, times, length, 0.97, format}), shape)
            << length << " " << rate << " " << layout.toStdString();
    }
    // The ceiling follows the master's peak, read to 0.1 dB so raised half a step, in 0.97..1.
    for (const auto& [peak, ceiling] :
         {std::pair{std::optional<double>(), 0.97}, {-0.4, 0.97}, {-0.3, 0.971628}, {0.0, 1.0}})
        EXPECT_DOUBLE_EQ(Engine::ceiling(peak), ceiling) << peak.value_or(NAN);
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
    // Unmeasured or clear of the ceiling, the beat stays; a copy alone at the ceiling takes most.
    const std::optional<double> none;
    for (const auto& [track, ceiling, tag, duck] : {std::tuple{none, 1.0, std::optional(-6.0), 0.0},
                                                    {-6.0, 0.97, -20.0, 0.0},
                                                    {0.0, 1.0, -3.0, 3.0205},
                                                    {0.0, 1.0, 0.0, Engine::kMostDuck}})
        EXPECT_NEAR(Engine::duck(track, ceiling, tag), duck, 1e-3) << tag.value_or(NAN);
}

// A dangling link takes a name too: ffmpeg would write through it.
TEST_F(EngineFiles, outputsAreNamedAfterTheTrackAndNeverTakeAUsedNameAndFoldersGiveTracks) {
    const QString d = dir.path() + u'/';
    QFile::link(d + u"gone"_s, d + u"Loop (Tagged).wav"_s);
    EXPECT_EQ(Engine::outputURL(d + u"Loop.wav"_s), d + u"Loop (Tagged) (2).wav"_s);
    EXPECT_EQ(Engine::outputURL(u"-x.WAV"_s),
              QDir::current().absoluteFilePath(u"-x (Tagged).wav"_s));
    QFile::remove(d + u"Loop (Tagged).wav"_s);
    for (const char* name :
         {"b.mp3", "A.mp3", "c.txt", ".intro.wav", "Mix(Tagged)final.wav", "Song (tagged).mp3",
          "Voice.MP3", "Take.m4a", "wav", "z.wav", "e\xCC\x81 decomposed.wav", "Take.mp\x13"})
        ::Test::writeFile(d + QString::fromUtf8(name), "x");
    QDir(d).mkpath(u"sub"_s);
    QDir(d).mkpath(u"loops.wav"_s);
    ::Test::writeFile(d + u"sub/y.mp3"_s, "x");
    const auto in = [&](const char* names) {
        return QString::fromUtf8(names).split(u'|').replaceInStrings(QRegularExpression(u"^"_s), d);
    };
    EXPECT_EQ(Engine::collect({dir.path()}),
              in(".intro.wav|A.mp3|Song (tagged).mp3|Voice.MP3|b.mp3|loops.wav|z.wav|"
                 "e\xCC\x81 decomposed.wav"));
    // Files keep the given order, unchecked; a folder's tracks come where the folder was.
    EXPECT_EQ(Engine::collect(in("B.wav|gone.mp3|sub|b.mp3|sub/y.mp3")),
              in("B.wav|gone.mp3|sub/y.mp3|b.mp3|sub/y.mp3"));
    EXPECT_TRUE(Engine::collect({d + u"c.txt"_s, d + u"loops.wav/"_s}).isEmpty());
}
