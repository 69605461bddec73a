// zelkor-bench: measures the figures the README publishes, each against its
// target. Nothing here fails a build; it only prints.
#include "engine/Batch.h"
#include "engine/Engine.h"
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
#include <QProcess>
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
};

Material makeMaterial(const QString& folder) {
    Material m{folder, folder + QStringLiteral("/clip.wav"), folder + QStringLiteral("/beat.mp3"),
               folder + QStringLiteral("/beat.wav")};
    const QString music =
        QStringLiteral("aevalsrc='0.5*sin(2*PI*55*t)*exp(-10*mod(t,0.5))+0.2*sin(2*PI*220*t)|"
                       "0.5*sin(2*PI*55*t)*exp(-10*mod(t,0.5))+0.2*sin(2*PI*277*t)':s=44100:d=180");
    ffmpeg({QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"), music,
            QStringLiteral("-c:a"), QStringLiteral("pcm_s16le"), m.wav});
    ffmpeg({QStringLiteral("-i"), m.wav, QStringLiteral("-b:a"), QStringLiteral("192k"), m.mp3});
    ffmpeg({QStringLiteral("-f"), QStringLiteral("lavfi"), QStringLiteral("-i"),
            QStringLiteral("sine=frequency=900:sample_rate=22050:duration=1.2"),
            QStringLiteral("-ac"), QStringLiteral("1"), m.clip});
    return m;
}

// What zelkor-tag adds on top of the ffmpeg runs it needs for the two tracks:
// the clip's analysis, then each track's analysis and render.
void overheadPerTrack(const Material& m) {
    const QString ffmpegPath = QStringLiteral("/usr/bin/ffmpeg");
    const QStringList prefix{QStringLiteral("-hide_banner"), QStringLiteral("-nostdin")};
    const Engine::TagInfo clip = Engine::info(m.clip);
    std::vector<QStringList> direct{prefix + Engine::analysisArguments(m.clip)};
    for (const QString& track : {m.mp3, m.wav}) {
        const Engine::Analysis analysis = Engine::analyze(track);
        const QString graph = Engine::filterGraph(
            {Engine::clipGain(-5, analysis.lufs, clip.lufs),
             Engine::positions(analysis.duration, 30, clip.length), clip.length,
             Engine::ceiling(analysis.peak), analysis.format});
        direct.push_back(prefix + Engine::analysisArguments(track));
        direct.push_back(prefix + Engine::renderArguments(track, m.clip, graph, analysis,
                                                          Engine::outputURL(track)));
    }
    const auto clean = [&] { removeOutputs(m.folder); };
    constexpr int kRounds = 5;
    std::vector<double> ratios;
    for (int i = 0; i < kRounds; ++i) {
        const double ffmpegMs = medianMs(
            1,
            [&] {
                for (const QStringList& args : direct)
                    runProgram(ffmpegPath, args);
            },
            clean);
        const double zelkorMs = medianMs(
            1,
            [&] {
                runProgram(binDir + QStringLiteral("/zelkor-tag"),
                           {QStringLiteral("--tag"), m.clip, QStringLiteral("--interval"),
                            QStringLiteral("30"), QStringLiteral("--level"), QStringLiteral("MID"),
                            m.mp3, m.wav});
            },
            clean);
        ratios.push_back(zelkorMs / ffmpegMs);
    }
    clean();
    const double ratio = median(ratios);
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

struct Silent : Sounds, FileViewer {
    void play(const QString&) override {}
    void show(const QStringList&) override {}
};

void paint() {
    Silent services;
    PreferencesFile preferences(PreferencesFile::userPath());
    HomeTrash trash(HomeTrash::userFolder());
    std::unique_ptr<Batch> batch;
    HUDView view({services, services, preferences, trash, batch});
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
    report("7. second run, 8 WAV tracks, new level (analyses kept)", ratio, "x", "< 0.65",
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
    // a cache folder under a file cannot be made. Figure 7 names its own.
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
    if (qEnvironmentVariableIsEmpty("ZELKOR_BENCH_QUICK"))
        cachedSecondRun(material);
    return 0;
}
