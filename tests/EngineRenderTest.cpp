// The engine end to end: the real ffmpeg tags audio generated here.
#include "engine/Analysis.h"
#include "engine/Collect.h"
#include "engine/Render.h"
#include "support/TestSupport.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <cmath>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

constexpr int kRate = 44100;
const QString kBeat = u"aevalsrc=0.25*sin(2*PI*220*t)|0.2*sin(2*PI*12000*t)"_s; // L != R, treble

void makeSpeech(const QString& path) {
    const auto spoken = ::Test::runProgram(u"/usr/bin/espeak-ng"_s,
                                           {u"-w"_s, path + u".wav"_s, u"Zelkor on the beat"_s});
    ASSERT_EQ(spoken.status, 0) << spoken.err.toStdString();
    ::Test::ffmpeg({u"-i"_s, path + u".wav"_s, u"-ar"_s, u"8000"_s, path});
}

using EngineRender = ::Test::TempFolder;

} // namespace

// The original untouched; the clip alone, the output less the track, sits the chosen
// 9 LU under the track; an MP3 gives an MP3. (Tags: KeepTest.)
TEST_F(EngineRender, eachKindOfTrackHearsTheClipAtItsLevel) {
    const QString wav = path(u"beat.wav"_s), mp3 = path(u"beat.MP3"_s),
                  clip = path(u"speech.wav"_s);
    ::Test::makeAudio(wav, kBeat, 19.5);
    ::Test::ffmpeg({u"-i"_s, wav, mp3});
    makeSpeech(clip);
    const QByteArray before = ::Test::readAll(wav);
    const Engine::Result result = Engine::process(wav, clip, 6, -9);
    ASSERT_TRUE(result.placements == 4 && ::Test::readAll(wav) == before) << result.placements;
    const QString described =
        ::Test::runProgram(::Test::systemFFmpeg(), {u"-hide_banner"_s, u"-i"_s, result.output}).err;
    for (const QString& expected :
         {u"Duration: 00:00:19.50"_s,
          u"Audio: pcm_s24le ([1][0][0][0] / 0x0001), 44100 Hz, stereo"_s})
        EXPECT_TRUE(described.contains(expected)) << described.toStdString();
    ::Test::ffmpeg({u"-i"_s, result.output, u"-i"_s, wav, u"-filter_complex"_s,
                    u"[1:a]volume=-1[n];[0:a][n]amix=normalize=0"_s, path(u"clip.wav"_s)});
    EXPECT_NEAR(Engine::analyze(path(u"clip.wav"_s)).lufs, Engine::analyze(wav).lufs - 9, 1.5);

    const Engine::Result encoded = Engine::process(mp3, clip, 6, -9);
    EXPECT_EQ(encoded.output, path(u"beat (Tagged).mp3"_s));
}

// Masters at -0.1, 0 and, in floats, +3 dBFS pass bit-exact outside the tags (bar the
// limiter's 2 ms and 40 ms) and peak no higher under them; a clip cut at its peak never clicks.
TEST_F(EngineRender, theMasterChangesOnlyUnderItsTagsAndCopiesNeverClick) {
    const QString clip = path(u"cut.wav"_s), ordinary = path(u"ordinary.wav"_s);
    ::Test::makeAudio(clip, u"aevalsrc=0.5*cos(2*PI*250*t)"_s, 1, 22050, 1);
    ::Test::makeAudio(ordinary, kBeat, 12);
    const QString hot = path(u"hot.wav"_s);
    ::Test::ffmpeg(u"-f lavfi -i aevalsrc=1.41*sin(2*PI*100*t)|0.5*sin(2*PI*150*t):s=44100:d=12 "
                   "-c:a pcm_f32le"_s.split(u' ')
                   << hot);
    EXPECT_FALSE(Engine::carriesOverFullScale(Engine::analyze(hot), u"mp3"_s));
    QStringList tracks{ordinary, hot};
    for (const QString& limit : {u"0.98855"_s, u"1"_s}) {
        const QString noise = u"anoisesrc=color=pink:sample_rate=44100:duration=12:seed="_s;
        tracks << path(limit + u".wav"_s);
        ::Test::ffmpeg(
            {u"-f"_s, u"lavfi"_s, u"-i"_s, noise + u'3', u"-f"_s, u"lavfi"_s, u"-i"_s, noise + u'4',
             u"-filter_complex"_s,
             u"amerge,volume=26dB,alimiter=limit=%1:level=0:attack=0.1:release=20"_s.arg(limit),
             u"-c:a"_s, u"pcm_s16le"_s, tracks.last()});
    }

    constexpr double kInterval = 5, kClip = 1, kAttack = 0.002, kRelease = 0.04;
    const auto underTag = [&](std::size_t frame) {
        const double t = double(frame) / kRate - 0.5 + kAttack + 0.001;
        return t >= 0 && std::fmod(t, kInterval) < kAttack + kClip + kRelease + 0.002;
    };
    for (const QString& track : tracks) {
        SCOPED_TRACE(track.toStdString());
        const Engine::Result result = Engine::process(track, clip, kInterval, -1);
        ASSERT_EQ(result.placements, 3);
        const auto a = ::Test::samples(result.output, kRate, 2),
                   b = ::Test::samples(track, kRate, 2);
        ASSERT_EQ(a.size(), b.size());
        std::size_t changed[2] = {0, 0}; // outside the tags, under them
        double masterPeak = 0, taggedPeak = 0;
        for (std::size_t i = 0; i < a.size(); ++i) {
            changed[underTag(i / 2)] += a[i] != b[i];
            masterPeak = std::max(masterPeak, std::abs(b[i]));
            taggedPeak = std::max(taggedPeak, std::abs(a[i]));
        }
        EXPECT_EQ(changed[0], 0u);
        EXPECT_GT(changed[1], 3u * kRate);
        // Floats stay over full scale.
        EXPECT_TRUE(track != hot ||
                    (Engine::analyze(result.output).floatSamples && taggedPeak > 1.2));
        if (track != ordinary) { // a quieter master may rise to the 0.97 floor of the ceiling
            EXPECT_LE(taggedPeak, masterPeak * std::pow(10, 0.1 / 20));
            continue;
        }
        const auto d = [&](std::size_t frame) { return a[2 * frame] - b[2 * frame]; };
        for (double t : {0.5, 5.5, 10.5}) {
            const auto start = std::size_t(std::lround(t * kRate));
            std::size_t onset = start - 100;
            while (d(onset) == 0)
                ++onset;
            EXPECT_LE(onset - start, 1u) << t;
            for (std::size_t edge : {start, start + std::size_t(kClip * kRate)})
                for (std::size_t i = edge - 3; i < edge + 3; ++i)
                    EXPECT_LT(std::abs(d(i) - d(i - 1)), 1e-3) << t << " " << i;
        }
    }
}

namespace {

struct SamenessCase {
    int rate;
    QString layout;
    double interval;
    int placements;
    double clip;             // audible seconds
    bool silence, fullScale; // trailing silence; a master at 0 dBFS (ceiling 1), else 0.8
    // The master's samples (s16, flt: past full scale when fullScale; a 24-bit WAV, an MP3),
    // the output, how far the beat gives way, the track's end after the last copy's end.
    QString master = u"s16"_s, output = u"wav"_s;
    double duckDB = 0, end = 0.25;
};

// Every rate, layout and interval, 2 to 90 placements, and 720 on two one-hour tracks.
std::vector<SamenessCase> fullSamenessTable() {
    std::vector<SamenessCase> cases;
    const int counts[] = {2, 3, 12, 40, 90};
    int row = 0;
    for (int rate : {22050, 44100, 48000, 96000})
        for (const QString& layout : {u"mono"_s, u"stereo"_s, u"5.1"_s})
            for (double interval : {5.0, 20.0, 30.5, 45.0}) {
                const double clip = row % 3 == 0 ? 1.2 : row % 3 == 1 ? 4.0 : interval;
                const int most = int((1200 - clip) / interval) + 1;
                cases.push_back({rate, layout, interval, std::min(counts[row % 5], most), clip,
                                 row % 2 == 0, row % 4 < 2});
                ++row;
            }
    cases.push_back({22050, u"mono"_s, 5, 720, 1.2, true, true});
    cases.push_back({44100, u"stereo"_s, 5, 720, 1.7, false, false});
    return cases;
}

// The output's bytes (an MP3's decoded samples) rendered from a generated master.
QString renderedDigest(const SamenessCase& c, const Engine::Mix& mix, Engine::GraphShape shape,
                       const QString& folder) {
    const int channels = Engine::channelCount(c.layout);
    const double level = !c.fullScale ? 0.8 : c.master == u"flt"_s ? 1.41 : 1;
    QStringList waves;
    for (int k = 0; k < channels; ++k)
        waves << u"%1*sin(2*PI*%2*t)*(0.6+0.4*sin(2*PI*0.7*t))"_s.arg(level).arg(110 + 37 * k);
    const bool file = c.master == u"s24"_s || c.master == u"mp3"_s;
    QString track = u"aevalsrc=%1:c=%2:s=%3:d=%4,aformat=sample_fmts=%5"_s.arg(
        waves.join(u'|'), c.layout, QString::number(c.rate),
        QString::number(mix.times.back() + c.clip + c.end), file ? u"flt"_s : c.master);
    QStringList lavfi{u"-f"_s, u"lavfi"_s};
    if (file) {
        const QString master =
            folder + (c.master == u"mp3"_s ? u"/master.mp3"_s : u"/master.wav"_s);
        ::Test::ffmpeg(lavfi + QStringList{u"-i"_s, track, u"-c:a"_s,
                                           c.master == u"mp3"_s ? u"libmp3lame"_s : u"pcm_s24le"_s,
                                           master});
        track = master;
        lavfi.clear();
    }
    const QString clip = u"sine=frequency=900:sample_rate=22050:duration=%1%2"_s.arg(
        QString::number(c.clip), c.silence ? u",apad=pad_dur=0.7"_s : QString());
    const QString out = folder + u"/out."_s + c.output;
    Engine::Analysis analysis;
    analysis.format = mix.format;
    analysis.floatSamples = c.master == u"flt"_s;
    // Read in large packets when stretched: the same bytes as in small ones, mixed whole.
    analysis.largePackets = mix.clearOfCeiling && c.master == u"s24"_s;
    const QStringList args = Engine::renderArguments(
        u"T"_s, u"C"_s, Engine::filterGraph(mix, shape), analysis, out, c.output);
    const auto run = ::Test::runProgram(
        ::Test::systemFFmpeg(),
        u"-hide_banner -nostdin -v error"_s.split(u' ') + lavfi +
            args.sliced(0, args.indexOf(u"T"_s) + 1).replaceInStrings(u"T"_s, track) +
            QStringList{u"-f"_s, u"lavfi"_s, u"-i"_s, clip} +
            args.sliced(args.indexOf(u"C"_s) + 1));
    EXPECT_EQ(run.status, 0) << run.err.toStdString();
    if (c.output == u"wav"_s)
        return QString::fromLatin1(
            QCryptographicHash::hash(::Test::readAll(out), QCryptographicHash::Md5).toHex());
    return ::Test::runProgram(::Test::systemFFmpeg(),
                              {u"-v"_s, u"error"_s, u"-i"_s, out, u"-f"_s, u"md5"_s, u"-"_s})
        .out;
}

} // namespace

// Mixed, given way and limited only around its copies, the track comes out as mixed whole,
// from a looped bed or a branch per copy: WAVs byte for byte, MP3s decoded. make sameness
// runs every rate, layout and interval.
TEST(EngineSameness, theStretchesAroundTheCopiesWriteTheWholeTracksMix) {
    std::vector<SamenessCase> cases{
        {22050, u"mono"_s, 5, 4, 1.2, true, true},
        // Stretches that merge; 24-bit 5.1, 7.1 with copies overlapping, floats past full
        // scale, all giving way.
        {44100, u"stereo"_s, 5, 3, 5, false, false, u"s16"_s, u"wav"_s, 4},
        {48000, u"5.1"_s, 10, 3, 4, true, false, u"s24"_s, u"wav"_s, 6},
        {48000, u"7.1"_s, 5, 3, 7, false, false, u"s16"_s, u"wav"_s, 3},
        {44100, u"stereo"_s, 5, 3, 1.2, false, true, u"flt"_s, u"wav"_s, 2},
        // A clip whose copies reach a stretch's mix later than the stretch's own end.
        {8000, u"stereo"_s, 5, 3, 0.9275, false, false, u"s16"_s, u"wav"_s, 6},
        // MP3s: from an MP3, with five channels and at a rate lame cannot carry.
        {44100, u"stereo"_s, 5, 3, 1.2, false, false, u"mp3"_s, u"mp3"_s, 4},
        {48000, u"5.1"_s, 5, 3, 1.2, false, false, u"s16"_s, u"mp3"_s, 4},
        {96000, u"stereo"_s, 5, 2, 1.2, false, true, u"s16"_s, u"mp3"_s},
        // A last copy cut by the track's end; the one copy at 0 of a track shorter than it.
        {44100, u"stereo"_s, 5, 3, 1.2, false, false, u"s16"_s, u"wav"_s, 3, -0.3},
        {44100, u"stereo"_s, 5, 1, 3, false, false, u"s16"_s, u"wav"_s, 3, -0.8}};
    if (qEnvironmentVariableIsSet("ZELKOR_FULL_SAMENESS"))
        cases = fullSamenessTable();
    const QTemporaryDir folder;
    for (const SamenessCase& c : cases) {
        SCOPED_TRACE(testing::Message() << c.rate << c.layout.toStdString() << c.interval
                                        << c.master.toStdString() << c.output.toStdString());
        const double duration = 0.5 + (c.placements - 1) * c.interval + c.clip + c.end;
        Engine::Analysis analysis;
        analysis.floatSamples = c.master == u"flt"_s;
        Engine::Mix mix{.gainDB = 6,
                        .times = Engine::positions(duration, c.interval, c.clip),
                        .tagLength = c.clip,
                        .ceiling = !c.fullScale           ? 0.97
                                   : c.master == u"flt"_s ? 1.5
                                                          : 1,
                        .format = Engine::AudioFormat{c.rate, c.layout},
                        .clearOfCeiling = true,
                        .duckDB = c.duckDB};
        analysis.format = mix.format;
        mix.joinFormat = Engine::encoder(analysis, c.output).sampleFormat;
        ASSERT_EQ(mix.times.size(), std::size_t(c.placements));
        const QString stretched = renderedDigest(c, mix, Engine::graphShape(mix), folder.path());
        mix.clearOfCeiling = false;
        for (Engine::GraphShape shape :
             {Engine::graphShape(mix), Engine::GraphShape::branchPerCopy})
            EXPECT_EQ(stretched, renderedDigest(c, mix, shape, folder.path()));
    }
}

// The beat gives way under every copy in the same shape to the sample (the stretches around
// the copies mix as the whole track does): ffmpeg's frames start anywhere in the fades (a 5.1
// float WAV read in 4 KiB packets starts one every 170 samples), each timed to its sample.
TEST(EngineGivingWay, everyCopyGivesWayAlike) {
    const QTemporaryDir folder;
    const QString master = folder.filePath(u"master.wav"_s), clip = folder.filePath(u"clip.wav"_s),
                  out = folder.filePath(u"out.wav"_s);
    ::Test::ffmpeg(u"-f lavfi -i aevalsrc=0.5+0.2*sin(2*PI*50*t):c=5.1:s=44100:d=31 "
                   "-c:a pcm_f32le"_s.split(u' ')
                   << master);
    ::Test::makeAudio(clip, u"aevalsrc=0"_s, 0.2, kRate, 1);
    Engine::Analysis analysis;
    analysis.format = Engine::AudioFormat{kRate, u"5.1"_s};
    analysis.floatSamples = true;
    const Engine::Mix mix{.times = Engine::positions(30.6, 0.5, 0.2),
                          .tagLength = 0.2,
                          .ceiling = 1,
                          .format = analysis.format,
                          .duckDB = 6};
    const auto run = ::Test::runProgram(
        ::Test::systemFFmpeg(), u"-hide_banner -nostdin -v error"_s.split(u' ') +
                                    Engine::renderArguments(master, clip, Engine::filterGraph(mix),
                                                            analysis, out, u"wav"_s));
    ASSERT_EQ(run.status, 0) << run.err.toStdString();
    const auto a = ::Test::samples(out, kRate, 6), b = ::Test::samples(master, kRate, 6);
    ASSERT_EQ(a.size(), b.size());
    // The gain on the first channel around each copy, against the first copy's.
    const auto gain = [&](std::size_t copy, std::size_t i) {
        const std::size_t at = 6 * (kRate / 2 * (copy + 1) + i);
        return a[at] / b[at];
    };
    std::size_t unlike = 0;
    for (std::size_t copy = 1; copy < mix.times.size(); ++copy)
        for (std::size_t i = 0; i < std::size_t(0.21 * kRate); ++i)
            unlike += std::abs(gain(copy, i) - gain(0, i)) > 1e-5;
    EXPECT_EQ(unlike, 0u);
    EXPECT_NEAR(gain(0, kRate / 10), std::pow(10, -6.0 / 20), 1e-5);
}

// An output must hold the track's very samples, or at another rate its length to two of
// its own; one cut or padded by a few passes no more than one cut by a second. A track
// that plays shorter than its header claims fails, unless ffmpeg only estimated it.
TEST_F(EngineRender, anOutputHoldsExactlyTheTracksSamples) {
    const QString master = ::Test::makeAudio(path(u"master.wav"_s), kBeat, 3, 8000, 1);
    const Engine::Analysis counted = Engine::analyze(master);
    ASSERT_EQ(counted.frames, 24000);
    Engine::Analysis uncounted = counted, claimed = counted;
    uncounted.frames = 0;
    claimed.duration = 4; // a cut MP3's header
    const auto keep = [](int samples) { return u"-af atrim=end_sample=%1"_s.arg(samples); };
    const QString mp3 = u"-c:a libmp3lame"_s, resampled = u"-ar 16000 "_s + mp3;
    const struct {
        QString output, options;
        const Engine::Analysis& track;
        QString fault, ffmpegSaid = {};
    } rows[] = {
        {u"whole.wav"_s, u"-c:a pcm_s24le"_s, counted, {}},
        {u"whole.mp3"_s, mp3, counted, {}},
        {u"resampled.mp3"_s, resampled, counted, {}},
        {u"short.wav"_s, keep(23700), counted, u"OUTPUT SHORT BY 300 SAMPLES"_s},
        {u"long.wav"_s, u"-af apad=pad_len=3"_s, counted, u"OUTPUT LONG BY 3 SAMPLES"_s},
        {u"short.mp3"_s, keep(23700) + u' ' + mp3, counted, u"OUTPUT SHORT BY 300 SAMPLES"_s},
        {u"short16k.mp3"_s, keep(23750) + u' ' + resampled, counted,
         u"OUTPUT SHORT BY 500 SAMPLES"_s},
        {u"cut.wav"_s, u"-t 1"_s, counted, u"OUTPUT LASTS 1.0 S OF 3.0 S"_s},
        {u"rough.wav"_s, keep(23044), uncounted, {}},
        {u"claimed.wav"_s, {}, claimed, u"OUTPUT LASTS 3.0 S OF 4.0 S"_s},
        {u"estimated.wav"_s, {}, claimed, {}, u"Estimating duration from bitrate"_s}};
    for (const auto& row : rows) {
        const QString output = path(row.output);
        ::Test::ffmpeg(QStringList{u"-i"_s, master} + row.options.split(u' ', Qt::SkipEmptyParts) +
                       QStringList{output});
        const int fd = ::open(QFile::encodeName(output).constData(), O_RDONLY);
        EXPECT_EQ(Engine::outputFault(fd, row.ffmpegSaid, row.track).value_or(QString()), row.fault)
            << row.output.toStdString();
        ::close(fd);
    }
}

// Names are bytes: a Latin-1 name is tagged as such; its UTF-8 misreading is another track.
TEST_F(EngineRender, oddAndLatin1NamesWorkEndToEnd) {
    const QString folder = path(u"-x; [y] 'q'"_s), clip = path(u"-tag é 🎧.wav"_s);
    QDir().mkpath(folder);
    const QByteArray latin = Names::encode(folder) + "/-Beat \"1\" [it's]; a:b caf\xe9";
    ::Test::makeAudio(path(u"beat.wav"_s), kBeat, 12);
    ASSERT_EQ(::rename(Names::encode(path(u"beat.wav"_s)).constData(), latin + ".wav"), 0);
    ::Test::makeAudio(folder + u"/-Beat \"1\" [it's]; a:b caf\uFFFD.wav"_s, kBeat, 3);
    // A stale temporary file goes; a user's files of a like shape stay.
    for (const QString& name : {u".a.zelkor-1-abcdef.part"_s, u"b.zelkor-1-abcdef.part"_s,
                                u".x.zelkor-1-ab.part"_s, u".hidden.part"_s})
        ::Test::writeFile(folder + u'/' + name, "x");
    ::Test::makeAudio(clip, u"sine=frequency=880"_s, 0.5, 22050, 1);
    const QStringList tracks = Engine::collect({QDir::current().relativeFilePath(folder)});
    ASSERT_EQ(tracks.size(), 2);
    EXPECT_EQ(Names::encode(Names::absolute(tracks[0])), latin + ".wav");
    const Engine::Result tagged = Engine::process(tracks[0], clip, 5, -5);
    EXPECT_EQ(Names::encode(tagged.output), latin + " (Tagged).wav");
    EXPECT_EQ(tagged.placements, 3);
    EXPECT_EQ(Engine::process(tracks[1], clip, 5, -5).placements, 1);
    EXPECT_EQ(
        QDir(folder).entryList({u"*.part"_s}, QDir::Files | QDir::Hidden),
        QStringList({u".hidden.part"_s, u".x.zelkor-1-ab.part"_s, u"b.zelkor-1-abcdef.part"_s}));
    EXPECT_EQ(QDir(folder).count(), 5u); // two tracks, two outputs, the user's file
}

// A long track at a short interval, the beat giving way under every copy, takes a graph
// longer than Linux passes as one argument: ffmpeg reads it from a file instead, the track
// comes out whole, and nothing of the graph is left on the disk or held open.
TEST_F(EngineRender, aGraphTooLongForOneArgumentStillTagsTheTrack) {
    static QStringList seen;
    Engine::onRun([](const QStringList& commandLine) { seen = commandLine; });
    // 720 copies of a loud clip on a master peaking at -0.1 dBFS, each stretch its own.
    const QString beat = ::Test::makeAudio(path(u"beat.wav"_s), u"aevalsrc=0.99*sin(2*PI*440*t)"_s,
                                           360, 8000, 1),
                  clip =
                      ::Test::makeAudio(path(u"clip.wav"_s), u"sine=frequency=900"_s, 0.2, 8000, 1);
    const auto held = [] { return QDir(u"/proc/self/fd"_s).count(); };
    const uint before = held();
    const Engine::Result result = Engine::process(beat, clip, 0.5, -1);
    Engine::onRun(nullptr);
    EXPECT_EQ(result.placements, 720);
    EXPECT_TRUE(seen.contains(u"-filter_complex_script"_s)) << seen.join(u' ').toStdString();
    EXPECT_EQ(Engine::analyze(result.output).duration, Engine::analyze(beat).duration);
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden),
              QStringList({u"beat (Tagged).wav"_s, u"beat.wav"_s, u"clip.wav"_s}));
    EXPECT_EQ(held(), before);
}

TEST_F(EngineRender, aClipIsMeasuredOnceWithoutItsTrailingSilenceOrRefused) {
    const QString speech = path(u"speech.wav"_s), padded = path(u"padded.wav"_s);
    makeSpeech(speech);
    ::Test::ffmpeg({u"-i"_s, speech, u"-af"_s, u"apad=pad_dur=1.5"_s, padded});
    const double length = Engine::info(padded).length;
    EXPECT_TRUE(length > 0.5 && length < Engine::analyze(padded).duration - 1.4) << length;

    // Clips with nothing to hear, a picture and a clip with no samples, fail and write nothing.
    ::Test::ffmpeg(u"-f lavfi -i testsrc=duration=1 -c:v mpeg4"_s.split(u' ')
                   << path(u"video.m4a"_s));
    ::Test::ffmpeg({u"-i"_s, speech, u"-af"_s, u"atrim=end_sample=0"_s, path(u"none.wav"_s)});
    for (const QString& nothing : {path(u"video.m4a"_s), path(u"none.wav"_s)}) {
        try {
            Engine::process(speech, nothing, 30, -5);
            ADD_FAILURE() << nothing.toStdString();
        } catch (const TagError& error) {
            EXPECT_TRUE(error.errorDescription().startsWith(u"CAN'T READ FILE: "_s))
                << error.what();
        }
    }
    EXPECT_TRUE(QDir(dir.path()).entryList({u"*Tagged*"_s}, QDir::Files | QDir::Hidden).isEmpty());
    // A blip followed by silence counts half a second.
    ::Test::makeAudio(path(u"blip.wav"_s), u"aevalsrc=0.3*sin(2*PI*440*t)*lt(t\\,0.2)"_s, 1.5,
                      44100, 1);
    EXPECT_EQ(Engine::info(path(u"blip.wav"_s)).length, 0.5);
}
