// Masters of every kind through the real render: over full scale, many channels, brickwalled.
#include "engine/Analysis.h"
#include "engine/Render.h"
#include "support/TestSupport.h"

#include <cmath>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

using Master = ::Test::TempFolder;

constexpr double kInterval = 5, kClip = 1;

// Whether a frame lies in a copy's stretch: the limiter's look-ahead before it, its release
// after it, with a millisecond to spare each side.
bool underTag(std::size_t frame, int rate) {
    const double t = double(frame) / rate - 0.5 + 0.003;
    return t >= 0 && std::fmod(t, kInterval) < 0.003 + kClip + 0.04 + 0.002;
}

} // namespace

// A float master at +3 dBFS comes out as floats, every sample outside the tags as it was, and
// no higher under them than its own peak; a 24-bit one too.
TEST_F(Master, aFloatMasterOverFullScaleStaysFloatAndUntouchedOutsideTheTags) {
    const QString hot = path(u"hot.wav"_s), clip = path(u"clip.wav"_s);
    ::Test::makeAudio(clip, u"sine=frequency=1000"_s, kClip, 22050, 1);
    ::Test::ffmpeg({u"-f"_s, u"lavfi"_s, u"-i"_s,
                    u"aevalsrc=1.41*sin(2*PI*100*t)|0.5*sin(2*PI*150*t):s=44100:d=12"_s, u"-c:a"_s,
                    u"pcm_f32le"_s, hot});
    const Engine::Result result = Engine::process(hot, clip, kInterval, -1);
    ASSERT_EQ(result.placements, 3);
    const auto stream = ::Test::runProgram(::Test::systemFFmpeg(), {u"-i"_s, result.output}).err;
    EXPECT_TRUE(stream.contains(u"Audio: pcm_f32le"_s));
    const auto a = ::Test::samples(result.output, 44100, 2), b = ::Test::samples(hot, 44100, 2);
    ASSERT_EQ(a.size(), b.size());
    std::size_t changed[2] = {0, 0};
    double masterPeak = 0, taggedPeak = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        changed[underTag(i / 2, 44100)] += a[i] != b[i];
        masterPeak = std::max(masterPeak, std::abs(b[i]));
        taggedPeak = std::max(taggedPeak, std::abs(a[i]));
    }
    EXPECT_EQ(changed[0], 0u);
    EXPECT_GT(changed[1], 44100u);
    EXPECT_GT(masterPeak, 1.4);
    EXPECT_LE(taggedPeak, masterPeak * std::pow(10, 0.1 / 20));
}

// ffmpeg's limiter flips samples to the opposite ceiling on three channels or more when
// one channel peaks far above the others; the render never does.
TEST_F(Master, manyChannelsWithUnevenPeaksAreNeverFlipped) {
    const QString clip = path(u"clip.wav"_s);
    ::Test::makeAudio(clip, u"sine=frequency=1000"_s, kClip, 22050, 1);
    for (const auto& [layout, channels] : {std::pair{u"4.0"_s, 4}, {u"5.1"_s, 6}, {u"7.1"_s, 8}}) {
        SCOPED_TRACE(layout.toStdString());
        QStringList waves;
        for (int c = 0; c < channels; ++c)
            waves << u"%1*sin(2*PI*%2*t)"_s.arg(c == 2 ? 0.95 : 0.1 + 0.05 * c).arg(60 + 45 * c);
        const QString track = path(layout + u".wav"_s);
        ::Test::ffmpeg({u"-f"_s, u"lavfi"_s, u"-i"_s,
                        u"aevalsrc=%1:c=%2:s=48000:d=12"_s.arg(waves.join(u'|'), layout), u"-c:a"_s,
                        u"pcm_s16le"_s, track});
        const Engine::Result result = Engine::process(track, clip, kInterval, -9);
        ASSERT_EQ(result.placements, 3);
        const auto a = ::Test::samples(result.output, 48000, channels),
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
}

// Past full scale the ceiling follows the master only into a WAV of floats; an MP3 still
// passes the master untouched outside the tags.
TEST(MasterCeiling, followsAPeakOverFullScaleOnlyIntoAnOutputThatCarriesIt) {
    Engine::Analysis floats, decoded;
    floats.floatSamples = true;
    floats.peak = decoded.peak = 3.0;
    for (const auto& [track, format, carried, clear] : {std::tuple{&floats, u"wav"_s, true, true},
                                                        {&floats, u"mp3"_s, false, true},
                                                        {&decoded, u"mp3"_s, false, true},
                                                        {&decoded, u"wav"_s, false, false}}) {
        SCOPED_TRACE(format.toStdString());
        const bool over = Engine::carriesOverFullScale(*track, format);
        EXPECT_EQ(over, carried);
        EXPECT_DOUBLE_EQ(Engine::ceiling(track->peak, over), carried ? 1.420693 : 1.0);
        EXPECT_EQ(Engine::clearOfCeiling(*track, format), clear);
    }
}

namespace {

// 12 s of stereo pink noise raised by `gainDB` and limited at `limit`, written with `codec`.
void loudNoise(const QString& file, int gainDB, double limit, const QStringList& codec) {
    const QString noise = u"anoisesrc=color=pink:sample_rate=44100:duration=12:seed="_s;
    ::Test::ffmpeg(QStringList{u"-f"_s, u"lavfi"_s, u"-i"_s, noise + u'3', u"-f"_s, u"lavfi"_s,
                               u"-i"_s, noise + u'4', u"-filter_complex"_s,
                               u"amerge,volume=%1dB,alimiter=limit=%2:level=0:attack=0.1:"
                               "release=20"_s.arg(gainDB)
                                   .arg(limit)} +
                   codec + QStringList{file});
}

// Integrated loudness of interleaved stereo samples, as the analysis measures a track.
double loudness(const std::vector<double>& values, const QString& folder) {
    const QString raw = folder + u"/piece.raw"_s, wav = folder + u"/piece.wav"_s;
    ::Test::writeFile(raw, QByteArray(reinterpret_cast<const char*>(values.data()),
                                      qsizetype(values.size() * sizeof(double))));
    ::Test::ffmpeg({u"-f"_s, u"f64le"_s, u"-ar"_s, u"44100"_s, u"-ac"_s, u"2"_s, u"-i"_s, raw,
                    u"-c:a"_s, u"pcm_f32le"_s, wav});
    return Engine::analyze(wav).lufs;
}

} // namespace

// On a master brickwalled at 0 dBFS, the tag under each copy (the output less the beat's share
// of it) is as loud as the same clip placed alone and rendered the same way.
TEST_F(Master, theTagIsHeardAtItsLevelOnABrickwalledMaster) {
    const QString brick = path(u"brick.wav"_s), speech = path(u"speech.wav"_s),
                  silence = path(u"silence.wav"_s);
    loudNoise(brick, 12, 1, {u"-c:a"_s, u"pcm_s16le"_s});
    const auto spoken = ::Test::runProgram(u"/usr/bin/espeak-ng"_s,
                                           {u"-w"_s, speech + u".wav"_s, u"Zelkor on the beat"_s});
    ASSERT_EQ(spoken.status, 0);
    ::Test::ffmpeg({u"-i"_s, speech + u".wav"_s, u"-ar"_s, u"22050"_s, u"-af"_s, u"volume=6dB"_s,
                    u"-c:a"_s, u"pcm_f32le"_s, speech});
    ::Test::makeAudio(silence, u"aevalsrc=0"_s, 12);
    const Engine::Result result = Engine::process(brick, speech, kInterval, -1);
    const Engine::TagInfo clip = Engine::info(speech);
    const Engine::Analysis master = Engine::analyze(brick);
    const Engine::Mix alone{.gainDB = result.gainDB,
                            .times = result.times,
                            .tagLength = clip.length,
                            .ceiling = Engine::ceiling(master.peak),
                            .format = master.format};
    const QString placed = path(u"alone.wav"_s);
    ::Test::ffmpeg({u"-i"_s, silence, u"-i"_s, speech, u"-filter_complex"_s,
                    Engine::filterGraph(alone), u"-map"_s, u"[out]"_s, u"-c:a"_s, u"pcm_s24le"_s,
                    placed});
    const auto a = ::Test::samples(result.output, 44100, 2), b = ::Test::samples(brick, 44100, 2),
               c = ::Test::samples(placed, 44100, 2);
    ASSERT_EQ(a.size(), b.size());
    ASSERT_EQ(a.size(), c.size());
    for (double t : result.times) {
        const auto from = std::size_t(std::lround(t * 44100)) * 2,
                   to = from + std::size_t(std::lround(clip.length * 44100)) * 2;
        // The beat's share: its projection, which takes in how far it gave way.
        double cross = 0, power = 0;
        for (std::size_t i = from; i < to; ++i) {
            cross += a[i] * b[i];
            power += b[i] * b[i];
        }
        std::vector<double> tag, reference(c.begin() + long(from), c.begin() + long(to));
        for (std::size_t i = from; i < to; ++i)
            tag.push_back(a[i] - cross / power * b[i]);
        const double heard = loudness(tag, dir.path()), expected = loudness(reference, dir.path());
        EXPECT_NEAR(heard, expected, 1) << t;
    }
}

// A loud MP3 decodes past full scale; tagged, it decodes past it no more often than a plain
// 320k encode of it.
TEST_F(Master, aLoudMP3IsNoMoreOverFullScaleThanAPlainEncode) {
    const QString loud = path(u"loud.mp3"_s), plain = path(u"plain.mp3"_s),
                  clip = path(u"clip.wav"_s);
    loudNoise(loud, 10, 0.93, {u"-b:a"_s, u"128k"_s});
    ::Test::ffmpeg({u"-i"_s, loud, u"-b:a"_s, u"320k"_s, plain});
    ::Test::makeAudio(clip, u"sine=frequency=1000"_s, kClip, 22050, 1);
    const auto over = [](const QString& file) {
        const auto values = ::Test::samples(file, 44100, 2);
        return std::count_if(values.begin(), values.end(),
                             [](double v) { return std::abs(v) > 1; });
    };
    const auto tagged = over(Engine::process(loud, clip, kInterval, -1).output);
    EXPECT_GT(over(plain), 100);
    EXPECT_LE(tagged, over(plain));
}
