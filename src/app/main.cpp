// The program's entry: the application object, the hand-over to an instance
// already running, the delegate and the event loop.
#include "app/AppDelegate.h"
#include "app/MenuBar.h"
#include "app/SingleInstance.h"

#include "platform/AppName.h"
#include "platform/FileViewer.h"
#include "platform/Menus.h"
#include "platform/OpenPanels.h"
#include "platform/Preferences.h"
#include "platform/QuitSignals.h"
#include "platform/Sounds.h"
#include "platform/Trash.h"

#include <QApplication>
#include <QTimer>

namespace {

// The program prints nothing; the window's log is the only record.
void quiet(QtMsgType, const QMessageLogContext&, const QString&) {}

} // namespace

int main(int argc, char** argv) {
    qInstallMessageHandler(quiet);
    QApplication app(argc, argv);
    quitOnTerminationSignals(&app);
    QApplication::setApplicationName(appName);
    QApplication::setApplicationVersion(QStringLiteral(ZELKOR_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("zelkor"));
    QApplication::setWindowIcon(applicationIcon());
    applyDarkAppearance();

    LaunchOptions options = parseArguments(QApplication::arguments());
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
        }) == SingleInstance::Outcome::handedOver)
        return 0;

    if (!options.files.isEmpty())
        delegate.open(options.files);
    QTimer::singleShot(0, &delegate, &AppDelegate::didFinishLaunching);
    // Quit in the middle of a batch: the delegate stops it on the way out; the
    // current track's partial output goes, the tracks already written stay.
    return app.exec();
}
