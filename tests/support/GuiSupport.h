// What the window's tests share: one offscreen application per test process in
// private folders, recording stand-ins for the desktop services, and pixels.
#pragma once

#include "platform/FileViewer.h"
#include "platform/Sounds.h"

#include <QApplication>
#include <QColor>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QImage>
#include <QTemporaryDir>
#include <cmath>
#include <functional>
#include <ostream>
#include <vector>

namespace Test {

// Before the application exists, every folder it may write to points into a
// temporary folder of this process: never the real home.
inline QApplication& guiApplication() {
    static QTemporaryDir folder;
    static QApplication* app = [] {
        const QString runtime = folder.path() + QStringLiteral("/runtime");
        QDir().mkpath(runtime);
        QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("XDG_RUNTIME_DIR", runtime.toLocal8Bit());
        qputenv("XDG_CONFIG_HOME", (folder.path() + QStringLiteral("/config")).toLocal8Bit());
        qputenv("XDG_DATA_HOME", (folder.path() + QStringLiteral("/data")).toLocal8Bit());
        if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
            qputenv("QT_QPA_PLATFORM", "offscreen");
        static int argc = 1;
        static char name[] = "zelkor-test";
        static char* argv[] = {name, nullptr};
        return new QApplication(argc, argv);
    }();
    return *app;
}

class RecordingSounds final : public Sounds {
public:
    void play(const QString& name) override { played << name; }
    QStringList played;
};

class RecordingFileViewer final : public FileViewer {
public:
    void show(const QStringList& paths) override { shown.push_back(paths); }
    std::vector<QStringList> shown;
};

// Runs the event loop until `done` holds or `ms` have passed; returns `done()`.
inline bool waitUntil(const std::function<bool()>& done, int ms) {
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < ms)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    return done();
}

// A translucent colour as it shows over an opaque background.
inline QColor over(const QColor& top, const QColor& below) {
    const double a = top.alphaF();
    auto mix = [a](double t, double b) { return qRound((t * a + b * (1 - a)) * 255); };
    return QColor(mix(top.redF(), below.redF()), mix(top.greenF(), below.greenF()),
                  mix(top.blueF(), below.blueF()));
}

// Whether every channel is within `tolerance` of the expected colour.
inline bool near(const QColor& seen, const QColor& expected, int tolerance = 3) {
    return std::abs(seen.red() - expected.red()) <= tolerance &&
           std::abs(seen.green() - expected.green()) <= tolerance &&
           std::abs(seen.blue() - expected.blue()) <= tolerance;
}

inline QColor pixel(const QImage& image, int x, int y) {
    return image.pixelColor(x, y);
}

} // namespace Test

// Readable colours in test failures.
inline void PrintTo(const QColor& color, std::ostream* out) {
    *out << "rgb(" << color.red() << ", " << color.green() << ", " << color.blue() << ")";
}
