// The program's entry: the application object, the delegate, the event loop.
#include "app/AppDelegate.h"

#include "platform/AppName.h"
#include "platform/FileViewer.h"
#include "platform/Sounds.h"
#include "view/HUDView.h"

#include <QApplication>
#include <QTimer>
#include <cstdlib>

namespace {

// The program prints nothing; the window's log is the only record.
void quiet(QtMsgType, const QMessageLogContext&, const QString&) {}

} // namespace

int main(int argc, char** argv) {
    qInstallMessageHandler(quiet);
    QApplication app(argc, argv);
    QApplication::setApplicationName(appName);
    QApplication::setDesktopFileName(QStringLiteral("zelkor"));
    applyDarkAppearance();

    LaunchOptions options = parseArguments(QApplication::arguments());
    AppDelegate delegate({makeThemeSounds(), makeDesktopFileViewer()}, options.snapshot);
    if (!options.files.isEmpty())
        delegate.open(options.files);
    QTimer::singleShot(0, &delegate, &AppDelegate::didFinishLaunching);
    const int status = app.exec();
    // A worker still waiting on ffmpeg would race the process's teardown.
    if (HUDView::workersRunning())
        std::_Exit(status);
    return status;
}
