// The meter on signals whose figures are known: EBU Tech 3341's loudness cases,
// a click's peak, and where a trailing silence begins.
#include "engine/Meter.h"
#include "engine/Analysis.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

using namespace Qt::StringLiterals;

namespace {

using Engine::Meter;
using MeterAgreement = ::Test::TempFolder;

// A 1 kHz sine of `dbfs` peak level on every channel, for `seconds`.
void sine(Meter& meter, int rate, int channels, double dbfs, double seconds) {
    const double amplitude = std::pow(10.0, dbfs / 20);
    std::vector<double> frame(static_cast<std::size_t>(channels));
    const auto frames = static_cast<long>(std::lround(seconds * rate));
    static long phase = 0;
    for (long i = 0; i < frames; ++i, ++phase) {
        std::fill(frame.begin(), frame.end(),
                  amplitude * std::sin(2 * std::numbers::pi * 1000 * phase / rate));
        meter.add(frame.data(), 1);
    }
}

using Segment = std::pair<double, double>; // dBFS, seconds

TEST(Meter, techThreeThreeFortyOneCasesReadTheirLoudness) {
    for (const auto& [name, rate, segments, lufs] :
         std::vector<std::tuple<const char*, int, std::vector<Segment>, double>>{
             {"case 1", 48000, {{-23, 20}}, -23},
             {"case 2", 48000, {{-33, 20}}, -33},
             {"case 3: the absolute gate", 48000, {{-36, 10}, {-23, 60}, {-36, 10}}, -23},
             {"case 4: gates", 48000, {{-72, 10}, {-36, 10}, {-23, 60}, {-36, 10}, {-72, 10}}, -23},
             {"case 5", 48000, {{-26, 20}, {-20, 20.1}, {-26, 20}}, -23}}) {
        Meter meter(rate, {1, 1}, false);
        for (const auto& [dbfs, seconds] : segments)
            sine(meter, rate, 2, dbfs, seconds);
        EXPECT_NEAR(meter.loudness(), lufs, 0.1) << name;
    }
}

TEST(Meter, silenceClicksWeightsBlocksAndTrailingSilences) {
    Meter meter(44100, {1, 1}, true);
    std::vector<double> quiet(44100 * 2);
    meter.add(quiet.data(), 44100);
    const double click[2] = {0.5, -0.25};
    meter.add(click, 1);
    EXPECT_EQ(meter.loudness(), Engine::kAbsoluteGate);
    EXPECT_NEAR(meter.peakDb(), -6.02, 0.01);

    Meter silent(8000, {1}, true);
    silent.add(quiet.data(), 8000);
    EXPECT_EQ(silent.peakDb(), -std::numeric_limits<double>::infinity());
    EXPECT_EQ(silent.silenceStart(), 0.0);
    // Surrounds weigh 1.41 and low frequencies nothing; channels past the mask weigh 1.
    EXPECT_EQ(Engine::channelWeights(0x13F, 7),
              (std::vector{1.0, 1.0, 1.0, 0.0, 1.41, 1.41, 1.41}));
    EXPECT_EQ(Engine::channelWeights(0xB, 4), (std::vector{1.0, 1.0, 0.0, 1.0}));
    // Blocks of any size, run by any instructions, give the same figures to the bit.
    std::vector<double> samples(48000 * 3 * 3);
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = 0.3 * std::sin(static_cast<double>(i) * 0.01) * (i % 7 == 0 ? 1 : 0.5);
    Meter whole(48000, {1, 1.41, 1}, true),
        pieces(48000, {1, 1.41, 1}, true, Meter::Instructions::baseline);
    whole.add(samples.data(), samples.size() / 3);
    for (std::size_t at = 0, step = 1; at < samples.size() / 3; at += step, step = step * 3 % 1021)
        pieces.add(samples.data() + at * 3, std::min(step, samples.size() / 3 - at));
    EXPECT_EQ(whole.loudness(), pieces.loudness());
    EXPECT_EQ(whole.peakDb(), pieces.peakDb());
    EXPECT_EQ(whole.frames(), pieces.frames());
    // Only a silence of at least 0.3 s running at the end is trailing (-120 dBFS is silence);
    // a sine crosses zero, so its quiet edge may start a few samples early.
    for (const auto& [segments, asked, start] :
         std::vector<std::tuple<std::vector<Segment>, bool, double>>{
             {{{-20, 1}, {-120, 0.5}}, true, 1.0},
             {{{-20, 1}, {-49, 0.5}}, true, -1},
             {{{-20, 1}, {-120, 0.29}}, true, -1},
             {{{-20, 1}, {-120, 0.3}}, true, 1.0},
             {{{-20, 1}, {-120, 0.5}, {-20, 0.1}}, true, -1},
             {{{-20, 1}, {-120, 0.5}}, false, -1}}) {
        Meter meter(48000, {1, 1}, asked);
        for (const auto& [dbfs, seconds] : segments)
            sine(meter, 48000, 2, dbfs, seconds);
        EXPECT_NEAR(meter.silenceStart().value_or(-1), start, 0.001) << segments.size() << asked;
    }
}

} // namespace

// Files read here and files ffmpeg decodes into the meter read as ffmpeg's own
// meter and silence detector read them.
TEST_F(MeterAgreement, everyKindOfTrackReadsAsFfmpegsMeterReadsIt) {
    const QString noise = u"anoisesrc=color=pink:amplitude=0.3:seed=%1"_s;
    const auto channels = [](const QString& layout, int count) {
        QStringList parts;
        for (int c = 0; c < count; ++c)
            parts << u"(0.05+0.05*%1)*sin(2*PI*(200+300*%1)*t)*(1+sin(2*PI*0.5*t))"_s.arg(c);
        return u"aevalsrc="_s + parts.join(u'|') + u":c="_s + layout;
    };
    // The file's name, its lavfi source and ffmpeg's options for it.
    const std::vector<std::tuple<QString, QString, QStringList>> rows{
        {u"mono8k.wav"_s, u"sine=frequency=700:sample_rate=8000"_s, {u"-c:a"_s, u"pcm_u8"_s}},
        {u"stereo.wav"_s, noise.arg(1), {u"-ac"_s, u"2"_s}},
        {u"side51.wav"_s,
         channels(u"5.1(side)"_s, 6),
         {u"-ar"_s, u"48000"_s, u"-c:a"_s, u"pcm_s24le"_s}},
        {u"four.wav"_s, channels(u"4.0"_s, 4), {u"-ar"_s, u"22050"_s, u"-c:a"_s, u"pcm_s32le"_s}},
        {u"seven1.wav"_s, channels(u"7.1"_s, 8), {u"-ar"_s, u"96000"_s, u"-c:a"_s, u"pcm_f32le"_s}},
        {u"threec.wav"_s, channels(u"3c"_s, 3), {u"-c:a"_s, u"pcm_f64le"_s}},
        {u"silent.wav"_s, u"anullsrc=r=44100"_s, {}},
        {u"click.wav"_s, u"aevalsrc=if(eq(n\\,22050)\\,0.9\\,0):s=44100"_s, {}},
        {u"ending.wav"_s, u"aevalsrc=0.2*sin(2*PI*440*t)*lt(t\\,2.5):s=44100"_s, {}},
        {u"beat.mp3"_s, noise.arg(2), {u"-ac"_s, u"2"_s, u"-b:a"_s, u"192k"_s}},
        {u"side51.flac"_s, channels(u"5.1(side)"_s, 6), {}},
    };
    for (const auto& [fileName, source, options] : rows) {
        const QString file = path(fileName);
        ::Test::ffmpeg(QStringList{u"-f"_s, u"lavfi"_s, u"-i"_s, source, u"-t"_s, u"4"_s} +
                       options + QStringList{file});
        const auto theirs = ::Test::runProgram(
            ::Test::systemFFmpeg(),
            {u"-hide_banner"_s, u"-nostats"_s, u"-i"_s, file, u"-af"_s,
             u"silencedetect=n=-50dB:d=0.3,ebur128=framelog=verbose:peak=sample"_s, u"-f"_s,
             u"null"_s, u"-"_s});
        const Engine::Analysis expected = Engine::parseAnalysis(theirs.err);
        const Engine::Analysis ours =
            Engine::analyze(file, {.trailingSilence = true, .progress = {}});
        const std::string name = fileName.toStdString();
        EXPECT_NEAR(ours.lufs, expected.lufs, 0.1) << name;
        ASSERT_TRUE(ours.peak && expected.peak) << name;
        if (std::isfinite(*expected.peak)) {
            EXPECT_NEAR(*ours.peak, *expected.peak, 0.1) << name;
        } else {
            EXPECT_EQ(*ours.peak, *expected.peak) << name;
        }
        EXPECT_TRUE(ours.duration == expected.duration && ours.format == expected.format) << name;
        EXPECT_TRUE(ours.integerSamples == expected.integerSamples &&
                    ours.floatSamples == expected.floatSamples)
            << name;
        EXPECT_NEAR(ours.silenceStart.value_or(-1), expected.silenceStart.value_or(-1), 0.001)
            << name;
    }
}
