// zelkor-bench: measures the figures the README publishes, each against its
// target. Nothing here fails a build; it only prints.
#include "engine/Analysis.h"
#include "engine/Batch.h"
#include "engine/Collect.h"
#include "engine/Render.h"
#include "platform/FileViewer.h"
#include "platform/Preferences.h"
#include "platform/Sounds.h"
#include "platform/Trash.h"
#include "style/Fonts.h"
#include "view/HUDView.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>
#include <algorithm>
#include <cstdio>
#include <functional>
#include <unistd.h>
#include <vector>

namespace {

QString binDir;

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// Median wall time of `work` in milliseconds; `reset` runs untimed before each round.
double medianMs(
    int rounds, const std::function<void()>& work, const std::function<void()>& reset = [] {}) {
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        reset();
        QElapsedTimer timer;
        timer.start();
        work();
        times.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
    }
    return median(times);
}

void report(const char* figure, double value, const char* unit, const char* target, bool met) {
    std::printf("%-56s %9.3f %-3s  target %-8s %s\n", figure, value, unit, target,
                met ? "met" : "MISSED");
    std::fflush(stdout);
}

bool runProgram(const QString& program, const QStringList& args) {
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, args);
    process.waitForFinished(-1);
    process.readAll();
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

void ffmpeg(const QStringList& args) {
    runProgram(QStringLiteral("/usr/bin/ffmpeg"),
               QStringList{QStringLiteral("-hide_banner"), QStringLiteral("-nostdin"),
                           QStringLiteral("-y"), QStringLiteral("-loglevel"),
                           QStringLiteral("error")} +
                   args);
}

void removeOutputs(const QString& folder) {
    const QDir dir(folder);
    for (const QString& name : dir.entryList({QStringLiteral("*(Tagged)*")}, QDir::Files))
        QFile::remove(dir.filePath(name));
}

struct Material {
    QString folder;
    QString clip;
    QString mp3;
    QString wav;
    QString wav24; // 24-bit, 48 kHz
};

Material makeMaterial(const QString& folder) {
    Material m{folder, folder + QStringLiteral("/clip.wav"), folder + QStringLiteral("/beat.mp3"),
               folder + QStringLiteral("/beat.wav"), folder + QStringLiteral("/master.wav")};
    const QString music =
        QStringLiteral("aevalsrc='0.5*sin(2*PI*55*t)*exp(-10*mod(t,0.5))+0.2*sin(2*PI*220*t)|"
                       "0.5*sin(2*PI*55*t)*exp(-10*mod(t,0.5))+0.2*sin(2*PI*277*t)':s=44100:d=180");
    ffmpeg({QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"), music,
            QStringLiteral("-c:a"), QStringLiteral("pcm_s16le"), m.wav});
    ffmpeg({QStringLiteral("-i"), m.wav, QStringLiteral("-b:a"), QStringLiteral("192k"), m.mp3});
    ffmpeg({QStringLiteral("-i"), m.wav, QStringLiteral("-ar"), QStringLiteral("48000"),
            QStringLiteral("-c:a"), QStringLiteral("pcm_s24le"), m.wav24});
    ffmpeg({QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
            QStringLiteral("sine=frequency=900:sample_rate=22050:duration=1.2"),
            QStringLiteral("-ac"), QStringLiteral("1"), m.clip});
    return m;
}

// The ffmpeg runs zelkor-tag makes for one track: the clip's analysis, the track's, and
// the render; or with the render as it was before the looped clip and the limiter
// around the tags only: one branch per copy, the whole track limited.
enum class Render { zelkor, branchPerCopy };
std::vector<QStringList> commandsFor(const QString& track, const QString& clip, double interval,
                                     Render render = Render::zelkor) {
    const QStringList prefix{QStringLiteral("-hide_banner"), QStringLiteral("-nostdin")};
    const Engine::TagInfo tag = Engine::info(clip);
    const Engine::Analysis analysis = Engine::analyze(track);
    const bool today = render == Render::branchPerCopy;
    const QString format = QFileInfo(track).suffix().toLower();
    const double gain = Engine::clipGain(-5, analysis.lufs, tag.lufs),
                 limit =
                     Engine::ceiling(analysis.peak, Engine::carriesOverFullScale(analysis, format));
    const Engine::Mix mix{
        .gainDB = gain,
        .times = Engine::positions(analysis.duration, interval, tag.length),
        .tagLength = tag.length,
        .ceiling = limit,
        .format = analysis.format,
        .clearOfCeiling = !today && Engine::clearOfCeiling(analysis, format),
        .duckDB = Engine::duck(analysis.peak, limit,
                               tag.peak ? std::optional(*tag.peak + gain) : std::nullopt)};
    const QString graph = Engine::filterGraph(mix, today ? Engine::GraphShape::branchPerCopy
                                                         : Engine::graphShape(mix));
    return {prefix + Engine::analysisArguments(clip), prefix + Engine::analysisArguments(track),
            prefix + Engine::renderArguments(track, clip, graph, analysis, Engine::outputURL(track),
                                             QFileInfo(track).suffix())};
}

void runAll(const std::vector<QStringList>& commands) {
    for (const QStringList& args : commands)
        runProgram(QStringLiteral("/usr/bin/ffmpeg"), args);
}

void tag(const QStringList& tracks, const QString& clip, double interval) {
    runProgram(binDir + QStringLiteral("/zelkor-tag"),
               QStringList{QStringLiteral("--tag"), clip, QStringLiteral("--interval"),
                           QString::number(interval), QStringLiteral("--level"),
                           QStringLiteral("MID")} +
                   tracks);
}

// The median over `rounds` of the wall time of `a` over that of `b`, run in turn.
double pairedRatio(int rounds, const std::function<void()>& a, const std::function<void()>& b,
                   const std::function<void()>& reset) {
    std::vector<double> ratios;
    for (int i = 0; i < rounds; ++i) {
        const double first = medianMs(1, a, reset);
        ratios.push_back(first / medianMs(1, b, reset));
    }
    reset();
    return median(ratios);
}

// What zelkor-tag adds on top of the ffmpeg runs it needs for the two tracks:
// the clip's analysis, then each track's analysis and render.
void overheadPerTrack(const Material& m) {
    std::vector<QStringList> direct = commandsFor(m.mp3, m.clip, 30);
    const std::vector<QStringList> wav = commandsFor(m.wav, m.clip, 30);
    direct.insert(direct.end(), wav.begin() + 1, wav.end());
    const double ratio = pairedRatio(
        5,
        [&] {
            tag({m.mp3, m.wav}, m.clip, 30);
        },
        [&] { runAll(direct); }, [&] { removeOutputs(m.folder); });
    report("1. overhead per track (zelkor-tag / ffmpeg direct)", ratio, "x", "< 1.05",
           ratio < 1.05);
}

void collection(const QString& folder) {
    const QString dir = folder + QStringLiteral("/many");
    QDir().mkpath(dir);
    for (int i = 0; i < 10000; ++i) {
        const char* ext = i % 3 == 0 ? "mp3" : i % 3 == 1 ? "wav" : "txt";
        QFile file(QStringLiteral("%1/Track %2.%3").arg(dir).arg(i).arg(QLatin1String(ext)));
        file.open(QIODevice::WriteOnly);
    }
    Engine::collect({dir}); // warm the directory cache, as a second drag update would
    const double ms = medianMs(21, [&] { Engine::collect({dir}); });
    report("2. input collection, folder of 10,000 files", ms, "ms", "< 10", ms < 10);
}

void paint() {
    HUDView view;
    view.resize(HUDView::kSize);
    view.snapshot(1); // fonts, images and the dot grid are made once, as on screen
    const double ms = medianMs(101, [&] { view.snapshot(1); });
    report("3. one full paint of the view, 600 x 640", ms, "ms", "< 2", ms < 2);
}

QStringList isolatedHome(const QString& folder) {
    QDir().mkpath(folder + QStringLiteral("/run"));
    QFile::setPermissions(folder + QStringLiteral("/run"),
                          QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    return {QStringLiteral("HOME=") + folder,
            QStringLiteral("XDG_CONFIG_HOME=") + folder + QStringLiteral("/config"),
            QStringLiteral("XDG_DATA_HOME=") + folder + QStringLiteral("/data"),
            QStringLiteral("XDG_RUNTIME_DIR=") + folder + QStringLiteral("/run"),
            QStringLiteral("QT_QPA_PLATFORM=offscreen")};
}

QProcessEnvironment environmentWith(const QStringList& entries) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const QString& entry : entries)
        env.insert(entry.section(QLatin1Char('='), 0, 0), entry.section(QLatin1Char('='), 1));
    return env;
}

void coldStart(const QString& folder) {
    const QProcessEnvironment env = environmentWith(isolatedHome(folder + QStringLiteral("/home")));
    const QString png = folder + QStringLiteral("/snapshot.png");
    const auto snapshot = [&] {
        QProcess process;
        process.setProcessEnvironment(env);
        process.start(binDir + QStringLiteral("/zelkor"), {QStringLiteral("--snapshot"), png});
        process.waitForFinished(-1);
    };
    snapshot(); // the first launch seeds the library; later ones are ordinary starts
    const double ms = medianMs(11, snapshot, [&] { QFile::remove(png); });
    report("4. cold start to a written snapshot", ms, "ms", "< 300", ms < 300);
}

double cpuSeconds(qint64 pid) {
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return 0;
    // Fields after the command's closing parenthesis; utime and stime are the 12th and 13th.
    const QByteArray text = stat.readAll();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    return (fields.value(11).toDouble() + fields.value(12).toDouble()) /
           static_cast<double>(sysconf(_SC_CLK_TCK));
}

void idleCpu(const QString& folder) {
    QProcess process;
    process.setProcessEnvironment(environmentWith(isolatedHome(folder + QStringLiteral("/idle"))));
    process.start(binDir + QStringLiteral("/zelkor"), QStringList{});
    process.waitForStarted(-1);
    QThread::sleep(2); // past the launch
    constexpr double kSeconds = 10;
    const double before = cpuSeconds(process.processId());
    QThread::msleep(static_cast<unsigned long>(kSeconds * 1000));
    const double percent = (cpuSeconds(process.processId()) - before) / kSeconds * 100;
    process.kill();
    process.waitForFinished(-1);
    report("5. idle window CPU over 10 s (blink timer only)", percent, "%", "< 1", percent < 1);
}

// The render as it was (one branch per copy, the whole track limited) against today's.
void againstBranchPerCopy(const Material& m) {
    const auto direct = commandsFor(m.wav24, m.clip, 30, Render::branchPerCopy);
    const double ratio = pairedRatio(
        9, [&] { tag({m.wav24}, m.clip, 30); }, [&] { runAll(direct); },
        [&] { removeOutputs(m.folder); });
    report("7. 3-min WAV, every 30 s: zelkor-tag / one branch per copy", ratio, "x", "< 0.9",
           ratio < 0.9);
}

// A render's cost against the number of tags, on a one-hour track.
void hourLongTrack(const Material& m) {
    const QString dir = m.folder + QStringLiteral("/hour");
    QDir().mkpath(dir);
    const QString track = dir + QStringLiteral("/hour.wav");
    ffmpeg({QStringLiteral("-stream_loop"), QStringLiteral("19"), QStringLiteral("-i"), m.wav,
            QStringLiteral("-c"), QStringLiteral("copy"), track});
    const auto clean = [&] { removeOutputs(dir); };
    const auto every = [&](double interval) {
        return [&, interval] { tag({track}, m.clip, interval); };
    };
    const double ratio = pairedRatio(3, every(20), every(60), clean);
    report("8. 1-hour WAV, every 20 s / every 60 s", ratio, "x", "< 1.15", ratio < 1.15);
    const auto direct = commandsFor(track, m.clip, 5);
    const double overhead = pairedRatio(
        3, every(5), [&] { runAll(direct); }, clean);
    report("9. 1-hour WAV, every 5 s: zelkor-tag / one branch run directly", overhead, "x",
           "< 1.05", overhead < 1.05);
    QFile::remove(track);
}

// Instructions of one ffmpeg run, counted by callgrind (repeatable on a busy machine).
double instructions(const QStringList& args) {
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("valgrind"),
                  QStringList{QStringLiteral("--tool=callgrind"),
                              QStringLiteral("--callgrind-out-file=/dev/null"),
                              QStringLiteral("/usr/bin/ffmpeg")} +
                      args);
    process.waitForFinished(-1);
    static const QRegularExpression collected(QStringLiteral(R"(Collected : (\d+))"));
    return collected.match(QString::fromUtf8(process.readAll())).captured(1).toDouble();
}

// Zelkor's three runs against one decode and encode of the same track, figure 7 in
// instructions, and what the sample-peak meter adds to the track's analysis.
void instructionCounts(const Material& m) {
    const auto runs = commandsFor(m.wav24, m.clip, 30);
    const auto before = commandsFor(m.wav24, m.clip, 30, Render::branchPerCopy);
    const QString limit = m.folder + QStringLiteral("/limit.wav");
    const double physical = instructions(
        {QStringLiteral("-hide_banner"), QStringLiteral("-nostdin"), QStringLiteral("-y"),
         QStringLiteral("-i"), m.wav24, QStringLiteral("-c:a"), QStringLiteral("pcm_s24le"),
         QStringLiteral("-f"), QStringLiteral("wav"), limit});
    QFile::remove(limit);
    std::vector<double> counts;
    for (const QStringList& args : runs)
        counts.push_back(instructions(args));
    removeOutputs(m.folder);
    const double branchPerCopy = instructions(before[2]);
    removeOutputs(m.folder);
    QStringList withoutPeak = runs[1];
    withoutPeak.replaceInStrings(QStringLiteral(":peak=sample"), QString());
    const double meter = counts[1] / instructions(withoutPeak) - 1;
    const double total = counts[0] + counts[1] + counts[2];
    if (physical <= 0 || total <= 0) {
        std::printf("10. instructions: not measured (valgrind missing)\n");
        return;
    }
    std::printf("    clip analysis %.2f G, track analysis %.2f G, render %.2f G (one branch per "
                "copy: %.2f G), one decode + encode %.2f G\n",
                counts[0] / 1e9, counts[1] / 1e9, counts[2] / 1e9, branchPerCopy / 1e9,
                physical / 1e9);
    const double before7 = counts[0] + counts[1] + branchPerCopy;
    report("    figure 7 in instructions", total / before7, "x", "< 0.9", total / before7 < 0.9);
    report("10. instructions, 3-min WAV: Zelkor / decode + encode", total / physical, "x",
           "aim < 5", total / physical < 5);
    report("    sample-peak meter's share of the track analysis", meter * 100, "%", "< 5",
           meter < 0.05);
}

// Eight one-minute tracks, two jobs against one.
void parallelThroughput(const Material& m) {
    const QString dir = m.folder + QStringLiteral("/eight");
    QDir().mkpath(dir);
    QStringList tracks;
    for (int i = 0; i < 8; ++i) {
        tracks << QStringLiteral("%1/beat %2.wav").arg(dir).arg(i);
        ffmpeg({QStringLiteral("-i"), m.wav, QStringLiteral("-t"), QStringLiteral("60"),
                tracks.last()});
    }
    const auto tagWith = [&](int jobs) {
        return [&, jobs] {
            runProgram(binDir + QStringLiteral("/zelkor-tag"),
                       QStringList{QStringLiteral("--tag"), m.clip, QStringLiteral("--jobs"),
                                   QString::number(jobs)} +
                           tracks);
        };
    };
    const auto clean = [&] { removeOutputs(dir); };
    constexpr int kRounds = 3;
    const double ratio =
        medianMs(kRounds, tagWith(2), clean) / medianMs(kRounds, tagWith(1), clean);
    clean();
    report("6. parallel throughput (8 tracks, --jobs 2 / --jobs 1)", ratio, "x", "< 0.6",
           ratio < 0.6);
}

// The same eight 3-minute tracks tagged again at another level: the second run
// finds every analysis kept by the first, and only renders.
void cachedSecondRun(const Material& m) {
    const QString dir = m.folder + QStringLiteral("/again"),
                  cache = m.folder + QStringLiteral("/cache");
    QDir().mkpath(dir);
    QStringList tracks;
    for (int i = 0; i < 8; ++i) {
        tracks << QStringLiteral("%1/beat %2.wav").arg(dir).arg(i);
        QFile::copy(m.wav, tracks.last());
    }
    const QProcessEnvironment env = environmentWith({QStringLiteral("XDG_CACHE_HOME=") + cache});
    const auto tagAt = [&](const QString& level) {
        return [&, level] {
            QProcess process;
            process.setProcessEnvironment(env);
            process.setProcessChannelMode(QProcess::MergedChannels);
            process.start(
                binDir + QStringLiteral("/zelkor-tag"),
                QStringList{QStringLiteral("--tag"), m.clip, QStringLiteral("--level"), level} +
                    tracks);
            process.waitForFinished(-1);
        };
    };
    constexpr int kRounds = 3;
    std::vector<double> ratios;
    for (int i = 0; i < kRounds; ++i) {
        const double first = medianMs(1, tagAt(QStringLiteral("MID")), [&] {
            removeOutputs(dir);
            QDir(cache).removeRecursively();
        });
        const double second =
            medianMs(1, tagAt(QStringLiteral("HIGH")), [&] { removeOutputs(dir); });
        ratios.push_back(second / first);
    }
    removeOutputs(dir);
    const double ratio = median(ratios);
    report("11. second run, 8 WAV tracks, new level (analyses kept)", ratio, "x", "< 0.65",
           ratio < 0.65);
}

} // namespace

int main(int argc, char** argv) {
    QTemporaryDir temp;
    // The bench's own home: the paint reads settings and the tag library.
    for (const QString& entry : isolatedHome(temp.path() + QStringLiteral("/bench-home")))
        qputenv(qPrintable(entry.section(QLatin1Char('='), 0, 0)),
                entry.section(QLatin1Char('='), 1).toLocal8Bit());
    // No kept analyses for the figures that compare whole runs with ffmpeg's own:
    // a cache folder under a file cannot be made. Figure 11 names its own.
    QFile(temp.path() + QStringLiteral("/no-cache")).open(QIODevice::WriteOnly);
    qputenv("XDG_CACHE_HOME", QFile::encodeName(temp.path() + QStringLiteral("/no-cache/cache")));
    QApplication app(argc, argv);
    binDir = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("build/bin");
    Style::registerFonts();
    std::printf("Zelkor benchmarks (%s)\n", qPrintable(QDir(binDir).absolutePath()));
    const Material material = makeMaterial(temp.path());
    if (qEnvironmentVariableIsEmpty("ZELKOR_BENCH_QUICK"))
        overheadPerTrack(material);
    collection(temp.path());
    paint();
    coldStart(temp.path());
    idleCpu(temp.path());
    parallelThroughput(material);
    if (qEnvironmentVariableIsEmpty("ZELKOR_BENCH_QUICK")) {
        againstBranchPerCopy(material);
        hourLongTrack(material);
        instructionCounts(material);
        cachedSecondRun(material);
    }
    return 0;
}
