// The program's entry: the command line, the application object, the
// hand-over to an instance already running, the delegate and the event loop.
#include "app/AppDelegate.h"
#include "app/MenuBar.h"
#include "app/SingleInstance.h"

#include "base/Names.h"
#include "platform/AppName.h"
#include "platform/FileViewer.h"
#include "platform/Menus.h"
#include "platform/OpenPanels.h"
#include "platform/Preferences.h"
#include "platform/QuitSignals.h"
#include "platform/Sounds.h"
#include "platform/Trash.h"

#include <QApplication>
#include <QFile>
#include <QTimer>
#include <QWindow>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

void print(std::FILE* stream, const QString& text) {
    std::fputs(text.toLocal8Bit().constData(), stream);
}

// What Qt says while the application object is being made; shown only when
// Qt then gives up (no display, say), as the reason the window did not open.
QStringList& startupMessages() {
    static QStringList messages;
    return messages;
}

[[noreturn]] void failToStart(const QString& reason) {
    for (const QString& message : startupMessages())
        print(stderr, message + QLatin1Char('\n'));
    print(stderr, reason + QLatin1Char('\n'));
    std::_Exit(kExitFailed);
}

void starting(QtMsgType type, const QMessageLogContext& context, const QString& message) {
    const QString line = qFormatLogMessage(type, context, message);
    if (type == QtFatalMsg)
        failToStart(line);
    startupMessages() << line;
}

// Once running, the program prints nothing: the window's log is the only
// record. Only a fatal error, which ends the program, says why.
void quiet(QtMsgType type, const QMessageLogContext& context, const QString& message) {
    if (type == QtFatalMsg)
        print(stderr, qFormatLogMessage(type, context, message) + QLatin1Char('\n'));
}

// A launcher shows a busy cursor until the program it started shows a window or
// says it has started; a launch that hands its files over shows none. Qt's X11
// platform says it when a window first shows, so one too small and clear to
// see shows for a moment.
void completeStartup() {
    if (QGuiApplication::platformName() != QLatin1String("xcb"))
        return;
    QWindow mark;
    mark.setFlags(Qt::ToolTip | Qt::FramelessWindowHint | Qt::WindowTransparentForInput |
                  Qt::WindowDoesNotAcceptFocus);
    mark.setGeometry(0, 0, 1, 1);
    mark.setOpacity(0);
    mark.show();
    QCoreApplication::processEvents();
}

} // namespace

int main(int argc, char** argv) {
    // Read before Qt is asked for a display, which --help and --version need not have.
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << Names::decode(argv[i]); // a name need not be UTF-8
    const LaunchOptions options = parseArguments(arguments);
    if (!options.error.isEmpty()) {
        print(stderr, QStringLiteral("zelkor: %1 (see --help)\n").arg(options.error));
        return kExitUsage;
    }
    if (options.help) {
        print(stdout, launchUsage());
        return 0;
    }
    if (options.version) {
        print(stdout, QStringLiteral("zelkor %1\n").arg(QStringLiteral(ZELKOR_VERSION)));
        return 0;
    }

    // Qt takes it out of the environment as the display opens.
    const bool launched = qEnvironmentVariableIsSet("DESKTOP_STARTUP_ID");
    qInstallMessageHandler(starting);
    // Qt sees only the program's name: every other argument is Zelkor's.
    int qtArgc = 1;
    QApplication app(qtArgc, argv);
    qInstallMessageHandler(quiet);
    startupMessages().clear();
    quitOnTerminationSignals(&app);
    QApplication::setApplicationName(appName);
    QApplication::setApplicationVersion(QStringLiteral(ZELKOR_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("zelkor"));
    QApplication::setWindowIcon(applicationIcon());
    applyDarkAppearance();

    AppDelegate delegate({makeThemeSounds(), makeDesktopFileViewer(),
                          std::make_unique<PreferencesFile>(PreferencesFile::userPath()),
                          std::make_unique<HomeTrash>(HomeTrash::userFolder()), makeQtMenus(),
                          makeFileDialogPanels()},
                         options.snapshot);
    // A snapshot shows this launch's own window, whatever else runs.
    SingleInstance instance;
    if (!options.snapshot && instance.claim(options.files, [&delegate](const QStringList& files) {
            delegate.activate();
            delegate.open(files);
        }) == SingleInstance::Outcome::handedOver) {
        if (launched)
            completeStartup();
        return 0;
    }

    if (!options.files.isEmpty())
        delegate.open(options.files);
    QTimer::singleShot(0, &delegate, &AppDelegate::didFinishLaunching);
    // Quit in the middle of a batch: the delegate stops it on the way out; the
    // current track's partial output goes, the tracks already written stay.
    return app.exec();
}
