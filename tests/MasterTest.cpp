// Masters of every kind through the real render: many channels, brickwalled, loud MP3s.
#include "engine/Analysis.h"
#include "engine/Meter.h"
#include "engine/Render.h"
#include "support/TestSupport.h"

#include <cmath>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

using Master = ::Test::TempFolder;

constexpr double kInterval = 5, kClip = 1;

} // namespace

// Masters of 4 to 8 channels with one channel far above the others are never flipped to the
// opposite ceiling, as ffmpeg's own limiter does.
TEST_F(Master, everyKindOfMasterComesThroughIntact) {
    const QString clip = path(u"clip.wav"_s);
    ::Test::makeAudio(clip, u"sine=frequency=1000"_s, kClip, 22050, 1);
    for (const auto& [layout, channels] : {std::pair{u"4.0"_s, 4}, {u"5.1"_s, 6}, {u"7.1"_s, 8}}) {
        SCOPED_TRACE(layout.toStdString());
        QStringList waves;
        for (int c = 0; c < channels; ++c)
            waves << u"%1*sin(2*PI*%2*t)"_s.arg(c == 2 ? 0.95 : 0.1 + 0.05 * c).arg(60 + 45 * c);
        const QString track = path(layout + u".wav"_s);
        ::Test::ffmpeg(u"-f lavfi -i aevalsrc=%1:c=%2:s=48000:d=12 -c:a pcm_s16le"_s
                           .arg(waves.join(u'|'), layout)
                           .split(u' ')
                       << track);
        const auto a = ::Test::samples(Engine::process(track, clip, kInterval, -9).output, 48000,
                                       channels),
                   b = ::Test::samples(track, 48000, channels);
        ASSERT_EQ(a.size(), b.size());
        // The clip moves a sample by 0.6 at most: a jump across zero by more is a flip.
        std::size_t flipped = 0, limited = 0;
        for (std::size_t i = 0; i < a.size(); ++i) {
            flipped += a[i] * b[i] < 0 && std::abs(a[i] - b[i]) > 0.9;
            limited += std::abs(a[i]) > 0.96;
        }
        EXPECT_EQ(flipped, 0u);
        EXPECT_GT(limited, 100u); // the limiter did act
    }

    // On a master brickwalled at 0 dBFS, at HIGH, the tag under each copy (the output less the
    // beat's share of it) is as loud as LEVEL promises: as the same clip placed alone at its
    // gain, nothing limiting it. A loud MP3 decodes past full scale; tagged, it does so no more
    // often than a plain 320k encode of it.
    const QString brick = path(u"brick.wav"_s), voice = path(u"voice.wav"_s),
                  silence = path(u"silence.wav"_s), placed = path(u"alone.wav"_s);
    const QString noise = u"anoisesrc=color=pink:sample_rate=44100:duration=12:seed="_s;
    ::Test::ffmpeg(u"-f lavfi -i %1 -f lavfi -i %2 -filter_complex amerge,volume=6dB,"
                   "alimiter=limit=1:level=0:attack=0.1:release=20 -c:a pcm_s16le"_s
                       .arg(noise + u'3', noise + u'4')
                       .split(u' ')
                   << brick);
    // Syllables peaking 10 dB over their loudness, as a mastered voice tag does.
    ::Test::makeAudio(voice, u"aevalsrc=0.5*sin(2*PI*330*t)*pow(abs(sin(2*PI*3*t))\\,5)"_s, kClip,
                      22050, 1);
    ::Test::makeAudio(silence, u"aevalsrc=0"_s, 12);
    const Engine::Result walled = Engine::process(brick, voice, kInterval, -1);
    const double length = Engine::info(voice).length;
    const Engine::Mix alone{.gainDB = walled.gainDB,
                            .times = walled.times,
                            .tagLength = length,
                            .ceiling = Engine::kHighestCeiling,
                            .format = Engine::analyze(brick).format};
    ::Test::ffmpeg({u"-i"_s, silence, u"-i"_s, voice, u"-filter_complex"_s,
                    Engine::filterGraph(alone), u"-map"_s, u"[out]"_s, u"-c:a"_s, u"pcm_f32le"_s,
                    placed});
    const auto x = ::Test::samples(walled.output, 44100, 2), y = ::Test::samples(brick, 44100, 2),
               z = ::Test::samples(placed, 44100, 2);
    ASSERT_TRUE(x.size() == y.size() && x.size() == z.size());
    // Integrated loudness of interleaved stereo samples, as the meter measures a track.
    const auto loudness = [](const std::vector<double>& values) {
        Engine::Meter meter(44100, {1, 1}, false);
        meter.add(values.data(), values.size() / 2);
        return meter.loudness();
    };
    for (double t : walled.times) {
        const auto from = std::size_t(std::lround(t * 44100)) * 2,
                   to = from + std::size_t(std::lround(length * 44100)) * 2;
        // The beat's share: its projection, which takes in how far it gave way.
        double cross = 0, power = 0;
        for (std::size_t i = from; i < to; ++i) {
            cross += x[i] * y[i];
            power += y[i] * y[i];
        }
        std::vector<double> tag, reference(z.begin() + long(from), z.begin() + long(to));
        for (std::size_t i = from; i < to; ++i)
            tag.push_back(x[i] - cross / power * y[i]);
        EXPECT_NEAR(loudness(tag), loudness(reference), 1) << t;
    }

    const QString loud = path(u"loud.mp3"_s), plain = path(u"plain.mp3"_s);
    ::Test::ffmpeg({u"-i"_s, brick, u"-b:a"_s, u"128k"_s, loud});
    ::Test::ffmpeg({u"-i"_s, loud, u"-b:a"_s, u"320k"_s, plain});
    const Engine::Result tagged = Engine::process(loud, voice, kInterval, -1);
    const auto master = ::Test::samples(loud, 44100, 2), p = ::Test::samples(plain, 44100, 2),
               t = ::Test::samples(tagged.output, 44100, 2);
    const auto over = [](const std::vector<double>& values) {
        return std::count_if(values.begin(), values.end(), [](double v) { return v * v > 1; });
    };
    EXPECT_GT(over(p), 100);
    EXPECT_LE(over(t), over(p));
    // Away from the copies it is no further from its master than the plain encode.
    ASSERT_TRUE(t.size() == master.size() && p.size() == master.size());
    double taggedError = 0, plainError = 0;
    for (std::size_t i = 0; i < master.size(); ++i) {
        const double at = double(i / 2) / 44100;
        if (std::any_of(tagged.times.begin(), tagged.times.end(),
                        [&](double c) { return at > c - 0.1 && at < c + length + 0.2; }))
            continue;
        taggedError += (t[i] - master[i]) * (t[i] - master[i]);
        plainError += (p[i] - master[i]) * (p[i] - master[i]);
    }
    EXPECT_LE(taggedError, plainError * 1.05);
}
