// Measuring a file in one pass: duration, loudness, sample peak, trailing
// silence, the audio format and the extras an output keeps. A plain WAV is read
// here; any other is decoded by ffmpeg, whose text is read from its own lines
// only (a title or a file name may quote any of them).
#include "engine/Analysis.h"
#include "engine/AnalysisCache.h"
#include "engine/EngineState.h"
#include "engine/Keep.h"
#include "engine/Render.h"
#include "engine/Wav.h"

#include <QElapsedTimer>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <unistd.h>

namespace Engine {

namespace {

// How far the container's duration may lie from the decoded end (MP3 and AAC
// padding, a duration rounded to 10 ms).
constexpr double kEndOfInputTolerance = 0.1;

QRegularExpression lineStart(const char* text) {
    return QRegularExpression(QString::fromLatin1(text), QRegularExpression::MultilineOption);
}

// Each anchored where ffmpeg itself starts a line.
struct Patterns {
    QRegularExpression duration = lineStart(R"(^\s*Duration: (\d+:\d+:\d+\.\d+))");
    QRegularExpression loudness = lineStart(R"(^\s*I:\s+(-?[\d.]+|-inf) LUFS)");
    QRegularExpression silenceStart =
        lineStart(R"(^\[[^\]]*silencedetect[^\]]*\] silence_start: ([\d.]+))");
    QRegularExpression silenceEnd =
        lineStart(R"(^\[[^\]]*silencedetect[^\]]*\] silence_end: ([\d.]+))");
    QRegularExpression stream = lineStart(R"(^\s*(Stream #0:[^\n]*: Audio: [^\n]*))");
    QRegularExpression peak = lineStart(R"(^\s*Peak:\s+(-?[\d.]+|-inf) dBFS)");
    QRegularExpression picture = lineStart(R"(^\s*Stream #0:[^\n]*: Video: ([^\n]*))");
    QRegularExpression timeReference = lineStart(R"(^\s+time_reference\s*: \d+$)");
};

const Patterns& patterns() {
    static const Patterns compiled;
    return compiled;
}

std::vector<double> numbers(const QStringList& captures) {
    std::vector<double> values;
    for (const QString& capture : captures)
        if (auto value = readNumber(capture))
            values.push_back(*value);
    return values;
}

// "Stream #0:0: Audio: pcm_s16le, 44100 Hz, stereo, s16, 1411 kb/s": the field
// ending in " Hz" and the one after it.
std::optional<AudioFormat> readFormat(const QString& streamLine) {
    static const QRegularExpression channels(QStringLiteral(R"(^(\d+) channels\b)"));
    static const QRegularExpression layoutName(QStringLiteral(R"(^[A-Za-z0-9_.+()-]+$)"));
    const QStringList fields = streamLine.split(QStringLiteral(", "));
    for (qsizetype i = 0; i + 1 < fields.size(); ++i) {
        if (!fields[i].endsWith(QStringLiteral(" Hz")))
            continue;
        const QString rateText = fields[i].section(QLatin1Char(' '), -2, -2);
        bool ok = false;
        const int rate = rateText.toInt(&ok);
        if (!ok || rate <= 0)
            return std::nullopt;
        QString layout = fields[i + 1].trimmed();
        if (auto m = channels.match(layout); m.hasMatch())
            layout = m.captured(1) + QLatin1Char('c');
        if (!layoutName.match(layout).hasMatch())
            return std::nullopt;
        return AudioFormat{rate, layout};
    }
    return std::nullopt;
}

// The field after the layout: "s16", "s32 (24 bit)", "fltp", ... Integer samples never
// pass full scale.
bool integerSamples(const QString& streamLine) {
    static const QStringList kinds{QStringLiteral("u8"),  QStringLiteral("u8p"),
                                   QStringLiteral("s16"), QStringLiteral("s16p"),
                                   QStringLiteral("s32"), QStringLiteral("s32p"),
                                   QStringLiteral("s64"), QStringLiteral("s64p")};
    const QStringList fields = streamLine.split(QStringLiteral(", "));
    for (qsizetype i = 0; i + 2 < fields.size(); ++i)
        if (fields[i].endsWith(QStringLiteral(" Hz")))
            return kinds.contains(fields[i + 2].section(QLatin1Char(' '), 0, 0));
    return false;
}

// "Audio: pcm_f32le (...), ...": stored as floats, which an output must keep as such.
bool floatSamples(const QString& streamLine) {
    return streamLine.section(QStringLiteral("Audio: "), 1).startsWith(QStringLiteral("pcm_f"));
}

// Pictures the MP3 muxer can write back (those with a MIME type in ID3v2); any
// other, or a real video stream, would fail the render.
bool keepablePicture(const QString& description) {
    static const QStringList kinds{QStringLiteral("mjpeg"), QStringLiteral("png"),
                                   QStringLiteral("gif"),   QStringLiteral("bmp"),
                                   QStringLiteral("tiff"),  QStringLiteral("webp")};
    const QString codec =
        description.section(QLatin1Char(','), 0, 0).section(QLatin1Char(' '), 0, 0);
    return kinds.contains(codec) && description.contains(QStringLiteral("(attached pic)"));
}

} // namespace

std::optional<double> readNumber(QStringView text) {
    if (text == u"-inf")
        return -std::numeric_limits<double>::infinity();
    const QByteArray bytes = text.toLatin1();
    const char* begin = bytes.constData();
    const char* end = begin + bytes.size();
    const char* digits = begin < end && *begin == '-' ? begin + 1 : begin;
    bool anyDigit = false;
    int points = 0;
    for (const char* p = digits; p < end; ++p) {
        if (*p == '.')
            ++points;
        else if (*p >= '0' && *p <= '9')
            anyDigit = true;
        else
            return std::nullopt;
    }
    if (!anyDigit || points > 1)
        return std::nullopt;
    double value = 0;
    const auto [ptr, ec] = std::from_chars(begin, end, value);
    if (ec != std::errc() || ptr != end)
        return std::nullopt;
    return value;
}

QStringList analysisArguments(const QString& path) {
    // No pictures decoded: the audio is all that is measured. An MP3 decoder asked
    // for interleaved floats writes them so itself, the same values with no
    // conversion after it; and the output goes out in whole buffers, not per packet.
    return {QStringLiteral("-nostats"),
            QStringLiteral("-request_sample_fmt"),
            QStringLiteral("flt"),
            QStringLiteral("-i"),
            Names::absolute(path),
            QStringLiteral("-vn"),
            QStringLiteral("-c:a"),
            QStringLiteral("pcm_f32le"),
            QStringLiteral("-flush_packets"),
            QStringLiteral("0"),
            QStringLiteral("-f"),
            QStringLiteral("wav"),
            QStringLiteral("pipe:1")};
}

// ffmpeg indents every line of a tag's value, but prints a tag's name as it is, so
// a name holding line breaks can forge any line. Such lines can only stand in the
// input's tags, before its one Duration line, and in the same tags copied to the
// output, before the output's stream line. So: a second Duration line refuses the
// file (the two cannot be told apart), the format is the first stream line after
// Duration, and the measurements are read after the last stream line. A forged
// picture line can only make the pictures be dropped: every one must be keepable.
Analysis parseAnalysis(const QString& text) {
    auto durations = patterns().duration.globalMatch(text);
    if (!durations.hasNext())
        throw TagError::unreadable(QStringLiteral("NO LENGTH FOUND"));
    const QRegularExpressionMatch found = durations.next();
    if (durations.hasNext())
        throw TagError::unreadable(QStringLiteral("ITS TAGS MIMIC FFMPEG'S OWN LINES"));
    Analysis analysis;
    const QString described = text.mid(found.capturedEnd());
    analysis.broadcastChunk =
        patterns().timeReference.match(QStringView(text).left(found.capturedStart())).hasMatch();
    const QStringList hms = found.captured(1).split(QLatin1Char(':'));
    analysis.duration = (hms[0].toDouble() * 3600 + hms[1].toDouble() * 60) + hms[2].toDouble();

    QString format;
    qsizetype measuredFrom = 0;
    for (auto streams = patterns().stream.globalMatch(described); streams.hasNext();) {
        const QRegularExpressionMatch stream = streams.next();
        if (format.isNull())
            format = stream.captured(1);
        measuredFrom = stream.capturedEnd();
    }
    if (!format.isNull()) {
        analysis.format = readFormat(format);
        analysis.integerSamples = integerSamples(format);
        analysis.floatSamples = floatSamples(format);
    }
    const QStringList pictures = match(patterns().picture, described);
    analysis.pictures =
        !pictures.isEmpty() && std::all_of(pictures.begin(), pictures.end(), keepablePicture);
    const QString output = described.mid(measuredFrom);

    const QStringList loudness = match(patterns().loudness, output);
    const std::optional<double> lufs =
        loudness.isEmpty() ? std::nullopt : readNumber(loudness.last());
    analysis.lufs = std::max(lufs.value_or(kLoudnessFloor), kLoudnessFloor);
    const QStringList peaks = match(patterns().peak, output);
    if (!peaks.isEmpty())
        analysis.peak = readNumber(peaks.last());

    // A silence that runs to the end has a start without an end; Debian's ffmpeg
    // closes it anyway with an end at the end of the input.
    const std::vector<double> starts = numbers(match(patterns().silenceStart, output));
    const std::vector<double> ends = numbers(match(patterns().silenceEnd, output));
    const bool endedByTheInput =
        !ends.empty() && ends.back() >= analysis.duration - kEndOfInputTolerance;
    if (!starts.empty() && (ends.size() < starts.size() || endedByTheInput))
        analysis.silenceStart = starts.back();

    return analysis;
}

namespace {

// ffmpeg's figures as it printed them: the meter's to 0.1, a time to 6 digits.
double tenths(double value) {
    return std::isfinite(value) ? std::round(value * 10) / 10 : value;
}

double sixDigits(double seconds) {
    return QString::number(seconds, 'g', 6).toDouble();
}

// Calls `progress` with the seconds read, at most kProgressPerSecond times a second.
class Reporter {
public:
    explicit Reporter(const Progress& progress)
        : m_progress(progress) {}
    void operator()(double seconds, double length) {
        if (!m_progress || (m_timer.isValid() && m_timer.elapsed() < 1000 / kProgressPerSecond))
            return;
        m_timer.start();
        m_progress(std::clamp(seconds, 0.0, length), length);
    }
    // The end, whenever it comes.
    void finish(double length) {
        if (m_progress)
            m_progress(length, length);
    }

private:
    static constexpr int kProgressPerSecond = 4;
    const Progress& m_progress;
    QElapsedTimer m_timer;
};

// `analysis.format` first: the meter's frames count only at the format's rate.
void takeFigures(Analysis& analysis, const Meter& meter, int meteredRate) {
    if (analysis.format && analysis.format->sampleRate == meteredRate)
        analysis.frames = meter.frames();
    analysis.lufs = std::max(tenths(meter.loudness()), kLoudnessFloor);
    analysis.peak = tenths(meter.peakDb());
    if (const std::optional<double> start = meter.silenceStart())
        analysis.silenceStart = sixDigits(*start);
}

// A WAV whose every figure its header and samples give as ffmpeg would: its
// format ffmpeg names a standard layout, its samples whole, and no ID3 chunk
// (whose pictures ffmpeg would report). Nothing for any other file.
std::optional<Analysis> readWav(int fd, const Measuring& measuring) {
    const Keep::Source file = Keep::fileSource(fd);
    const std::optional<std::vector<Keep::Chunk>> chunks = Keep::chunks(file);
    if (!chunks)
        return std::nullopt;
    std::optional<Wav::Format> format;
    std::optional<Keep::Chunk> data;
    bool broadcast = false;
    for (const Keep::Chunk& chunk : *chunks) {
        if (chunk.id == "fmt " && !format && !data)
            format = Wav::readFormat(file.read(chunk.offset + 8, chunk.size));
        else if (chunk.id == "data" && !data)
            data = chunk;
        else if (chunk.id == "id3 " || chunk.id == "ID3 ")
            return std::nullopt;
        broadcast = broadcast || chunk.id == "bext";
    }
    const std::optional<Wav::Layout> layout = format ? Wav::layout(*format) : std::nullopt;
    if (!layout || !data || data->size == 0 || data->offset + 8 + data->size > file.size)
        return std::nullopt;

    Wav::Stream stream(Wav::Stream::Places::guessed, measuring.trailingSilence);
    Reporter report(measuring.progress);
    constexpr qint64 kBlock = 1 << 18;
    const qint64 end = data->offset + 8 + data->size;
    const double length = static_cast<double>(data->size) /
                          (format->bits / 8 * format->channels * format->sampleRate);
    std::vector<char> block(kBlock);
    for (qint64 at = 0; at < end;) {
        const ssize_t got =
            ::pread(fd, block.data(), static_cast<std::size_t>(std::min(kBlock, end - at)), at);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0 || !stream.feed(block.data(), static_cast<std::size_t>(got)))
            return std::nullopt;
        at += got;
        if (stream.meter())
            report(stream.meter()->seconds(), length);
    }
    if (!stream.meter())
        return std::nullopt;
    report.finish(length);
    Analysis analysis;
    // As ffmpeg prints a duration: to the nearest 10 ms.
    analysis.duration = std::floor((stream.meter()->seconds() + 0.005) * 100) / 100;
    analysis.format = AudioFormat{format->sampleRate, layout->name};
    analysis.integerSamples = !format->floating;
    analysis.floatSamples = format->floating;
    analysis.broadcastChunk = broadcast;
    analysis.largePackets = format->floating ? format->bits == 32 : format->bits >= 16;
    takeFigures(analysis, *stream.meter(), stream.format()->sampleRate);
    return analysis;
}

Analysis decode(const OpenFile& input, const Measuring& measuring) {
    Wav::Stream stream(Wav::Stream::Places::given, measuring.trailingSilence);
    Reporter report(measuring.progress);
    QByteArray head; // the text up to its Duration line, for the fraction done
    std::optional<double> duration;
    RunResult result = runStreaming(
        analysisArguments(input.argument()),
        [&](QByteArrayView output, QByteArrayView text) {
            stream.feed(output.data(), static_cast<std::size_t>(output.size()));
            if (!duration && head.size() < kOutputKept) {
                head += text;
                if (const QStringList found = match(patterns().duration, QString::fromUtf8(head));
                    found.size() == 1) {
                    const QStringList hms = found[0].split(QLatin1Char(':'));
                    duration =
                        hms[0].toDouble() * 3600 + hms[1].toDouble() * 60 + hms[2].toDouble();
                }
            }
            if (duration && *duration > 0 && stream.meter())
                report(stream.meter()->seconds(), *duration);
        },
        input.passDown() ? std::vector{input.fd()} : std::vector<int>{});
    // ffmpeg quotes the name as it is, so a name holding a line break could forge a line.
    const QString text = result.output.remove(input.argument());
    // A run killed half-way leaves figures that are wrong.
    if (result.status < 0)
        throw TagError::ffmpegCrashed(result.signal);
    // Without one, ffmpeg measures nothing and a render fails on its graph.
    static const QRegularExpression audioStream(
        QStringLiteral(R"(^\s*Stream #0:\d+[^:\n]*: Audio: )"),
        QRegularExpression::MultilineOption);
    // A file ffmpeg opened without audio in it says so; else its cause follows the
    // name removed above: "NAME: Invalid data found when processing input".
    const bool opened = text.contains(QLatin1String("Input #0"));
    const bool audio = audioStream.match(text).hasMatch();
    if (opened && !audio)
        throw TagError::unreadable(QStringLiteral("NO AUDIO IN IT"));
    if (result.status != 0) {
        // ffmpeg that found no thread to spare failed for the machine, not the file.
        if (const int lack = lackIn(result.output))
            throw TagError::systemFailed(lack);
        throw TagError::unreadable(
            failureText(text).remove(QRegularExpression(QStringLiteral("^[: ]+"))));
    }
    if (!audio || !stream.meter())
        throw TagError::unreadable(QStringLiteral("NO AUDIO IN IT"));
    Analysis analysis = parseAnalysis(text);
    takeFigures(analysis, *stream.meter(), stream.format()->sampleRate);
    report.finish(analysis.duration);
    return analysis;
}

Analysis measure(const QString& path, const Measuring& measuring) {
    const OpenFile input = openInput(path, Holding::always);
    if (std::optional<Analysis> read = readWav(input.fd(), measuring))
        return *read;
    return decode(input, measuring);
}

} // namespace

Analysis analyze(const QString& path, const Measuring& measuring) {
    return AnalysisCache::kept(
        path, measuring.trailingSilence ? QStringLiteral("with its trailing silence") : QString(),
        [&measuring](const QString& file) { return measure(file, measuring); });
}

TagInfo info(const QString& path) {
    // A clip rewritten under its name is another clip: measured again.
    return EngineState::shared().clipInfo(path, Files::identity(Names::absolute(path)), [&path] {
        const Analysis analysis = analyze(path, {.trailingSilence = true, .progress = {}});
        return TagInfo{analysis.lufs,
                       analysis.silenceStart ? std::max(*analysis.silenceStart, kMinimumTagLength)
                                             : analysis.duration,
                       analysis.peak};
    });
}

} // namespace Engine
