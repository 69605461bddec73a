// The meter on signals whose figures are known: EBU Tech 3341's loudness cases,
// a click's peak, and where a trailing silence begins.
#include "engine/Meter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

namespace {

using Engine::Meter;

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

struct Segment {
    double dbfs;
    double seconds;
};

TEST(Meter, techThreeThreeFortyOneCasesReadTheirLoudness) {
    struct Row {
        const char* name;
        int rate;
        std::vector<Segment> segments;
        double lufs;
    };
    const std::vector<Row> rows{
        {"case 1", 48000, {{-23, 20}}, -23},
        {"case 2", 48000, {{-33, 20}}, -33},
        {"case 3: the absolute gate", 48000, {{-36, 10}, {-23, 60}, {-36, 10}}, -23},
        {"case 4: both gates", 48000, {{-72, 10}, {-36, 10}, {-23, 60}, {-36, 10}, {-72, 10}}, -23},
        {"case 5", 48000, {{-26, 20}, {-20, 20.1}, {-26, 20}}, -23},
        {"case 1 at 44.1 kHz", 44100, {{-23, 20}}, -23},
        {"case 1 at 96 kHz", 96000, {{-23, 20}}, -23},
    };
    for (const Row& row : rows) {
        Meter meter(row.rate, {1, 1}, false);
        for (const Segment& segment : row.segments)
            sine(meter, row.rate, 2, segment.dbfs, segment.seconds);
        EXPECT_NEAR(meter.loudness(), row.lufs, 0.1) << row.name;
    }
}

TEST(Meter, silenceAndAClickReadTheFloorAndTheClicksPeak) {
    Meter meter(44100, {1, 1}, true);
    std::vector<double> quiet(44100 * 2);
    meter.add(quiet.data(), 44100);
    const double click[2] = {0.5, -0.25};
    meter.add(click, 1);
    EXPECT_EQ(meter.loudness(), Engine::kAbsoluteGate);
    EXPECT_NEAR(meter.peakDb(), -6.02, 0.01);
    EXPECT_EQ(meter.frames(), 44101);

    Meter silent(8000, {1}, true);
    silent.add(quiet.data(), 8000);
    EXPECT_EQ(silent.peakDb(), -std::numeric_limits<double>::infinity());
    EXPECT_EQ(silent.silenceStart(), 0.0);
    EXPECT_DOUBLE_EQ(silent.seconds(), 1.0);
}

TEST(Meter, onlyASilenceOfAtLeastThreeTenthsRunningAtTheEndIsTrailing) {
    struct Row {
        std::vector<Segment> segments; // -120 dBFS is silence
        bool asked;
        std::optional<double> start;
    };
    const std::vector<Row> rows{
        {{{-20, 1}, {-120, 0.5}}, true, 1.0},
        {{{-20, 1}, {-49, 0.5}}, true, std::nullopt},
        {{{-20, 1}, {-120, 0.29}}, true, std::nullopt},
        {{{-20, 1}, {-120, 0.3}}, true, 1.0},
        {{{-20, 1}, {-120, 0.5}, {-20, 0.1}}, true, std::nullopt},
        {{{-20, 1}, {-120, 0.5}}, false, std::nullopt},
    };
    for (const Row& row : rows) {
        Meter meter(48000, {1, 1}, row.asked);
        for (const Segment& segment : row.segments)
            sine(meter, 48000, 2, segment.dbfs, segment.seconds);
        ASSERT_EQ(meter.silenceStart().has_value(), row.start.has_value());
        // A sine crosses zero: its quiet edge may start a few samples early.
        if (row.start) {
            EXPECT_NEAR(*meter.silenceStart(), *row.start, 0.001);
        }
    }
}

TEST(Meter, blocksOfAnySizeGiveTheSameFigures) {
    std::vector<double> samples(48000 * 2 * 3);
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = 0.3 * std::sin(static_cast<double>(i) * 0.01) * (i % 7 == 0 ? 1 : 0.5);
    Meter whole(48000, {1, 1.41}, true), pieces(48000, {1, 1.41}, true);
    whole.add(samples.data(), samples.size() / 2);
    for (std::size_t at = 0, step = 1; at < samples.size() / 2; at += step, step = step * 3 % 1021)
        pieces.add(samples.data() + at * 2, std::min(step, samples.size() / 2 - at));
    EXPECT_DOUBLE_EQ(whole.loudness(), pieces.loudness());
    EXPECT_EQ(whole.peakDb(), pieces.peakDb());
    EXPECT_EQ(whole.frames(), pieces.frames());
}

TEST(Meter, channelsAreWeighedByTheirPlace) {
    struct Row {
        std::uint64_t mask;
        int channels;
        std::vector<double> weights;
    };
    const std::vector<Row> rows{
        {0x3, 2, {1, 1}},
        {0x60F, 6, {1, 1, 1, 0, 1.41, 1.41}},       // 5.1(side)
        {0x13F, 7, {1, 1, 1, 0, 1.41, 1.41, 1.41}}, // 6.1(back)
        {0, 3, {1, 1, 1}},
        {0xB, 4, {1, 1, 0, 1}}, // a mask short of the channels
    };
    for (const Row& row : rows)
        EXPECT_EQ(Engine::channelWeights(row.mask, row.channels), row.weights) << row.mask;
}

} // namespace
