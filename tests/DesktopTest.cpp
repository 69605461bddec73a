// The application shell in this process (the window the launch builds, its
// menu bar and what the entries do) and the real sound service, which must stay
// silent on the console on a machine without sound.
#include "app/AppDelegate.h"
#include "platform/Sounds.h"
#include "support/GuiSupport.h"

#include <QMainWindow>
#include <QMenuBar>
#include <QMessageBox>
#include <QThread>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

class AppShell : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ::Test::guiApplication(); }
    AppShell() { delegate.didFinishLaunching(); }

    QMainWindow& window() { return *delegate.window(); }
    // Every menu as "Title: entry [keys], ...", separators as "-".
    std::vector<std::string> menus() {
        std::vector<std::string> out;
        for (const QAction* menu : window().menuBar()->actions()) {
            QString text = menu->text() + QLatin1Char(':');
            for (QAction* action : menu->menu()->actions()) {
                text += action->isSeparator() ? QStringLiteral(" -")
                                              : QLatin1Char(' ') + action->text();
                if (!action->shortcut().isEmpty())
                    text += QStringLiteral(" [") + action->shortcut().toString() + QLatin1Char(']');
                m_actions[action->text()] = action;
            }
            out.push_back(text.toStdString());
        }
        return out;
    }
    void trigger(const QString& entry) { m_actions.at(entry)->trigger(); }

    ::Test::FreshHome home;
    AppDelegate delegate{{std::make_unique<::Test::RecordingSounds>(),
                          std::make_unique<::Test::RecordingFileViewer>(),
                          std::make_unique<PreferencesFile>(home.preferencesPath()),
                          std::make_unique<HomeTrash>(home.dataHome() + QStringLiteral("/Trash")),
                          std::make_unique<::Test::ScriptedMenus>(),
                          std::make_unique<::Test::ScriptedPanels>()},
                         std::nullopt};
    std::map<QString, QAction*> m_actions;
};

TEST_F(AppShell, theMenuBarHidesShowsAboutAndQuitsWithTheWindow) {
    EXPECT_EQ(menus(), (std::vector<std::string>{
                           "ODRAVEX Zelkor: About ODRAVEX Zelkor - Hide ODRAVEX Zelkor [Ctrl+H] "
                           "Quit ODRAVEX Zelkor [Ctrl+Q]",
                           "Window: Minimize [Ctrl+M] Close [Ctrl+W]"}));
    EXPECT_EQ(window().minimumSize(), window().maximumSize());

    trigger(QStringLiteral("Hide ODRAVEX Zelkor"));
    EXPECT_TRUE(window().isMinimized());
    delegate.activate();
    EXPECT_FALSE(window().isMinimized());

    trigger(QStringLiteral("About ODRAVEX Zelkor"));
    const auto* about = window().findChild<QMessageBox*>();
    ASSERT_TRUE(about);
    EXPECT_TRUE(about->text().contains(QStringLiteral("ODRAVEX Zelkor")));
    EXPECT_TRUE(about->text().contains(QStringLiteral(ZELKOR_VERSION)));
    EXPECT_FALSE(about->iconPixmap().isNull());

    constexpr int kStillRunning = 7;
    QTimer::singleShot(0, &window(), [this] { trigger(QStringLiteral("Close")); });
    QTimer::singleShot(10'000, qApp, [] { QCoreApplication::exit(kStillRunning); });
    EXPECT_EQ(QCoreApplication::exec(), 0);
}

TEST(ThemeSounds, namesMapToTheFreedesktopEventsAndWithoutADevicePrintNothing) {
    EXPECT_EQ(themeEvent(QStringLiteral("Glass")), QStringLiteral("complete"));
    EXPECT_EQ(themeEvent(QStringLiteral("Basso")), QStringLiteral("dialog-error"));
    EXPECT_TRUE(themeEvent(QStringLiteral("Ping")).isEmpty());

    // Without a sound device, playing prints nothing.
    ::Test::FreshHome home;
    // A server that is named but absent makes the sound library try ALSA, which
    // prints its failures unless silenced.
    for (const auto& server :
         {std::optional<QString>(), std::optional<QString>(QStringLiteral("unix:/nonexistent"))}) {
        home.setEnv("PULSE_SERVER", server);
        const QString file = home.root() + QStringLiteral("/stderr");
        std::fflush(stderr);
        const int saved = dup(STDERR_FILENO);
        const int sink = open(file.toLocal8Bit().constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(sink, STDERR_FILENO);
        auto sounds = makeThemeSounds();
        sounds->play(QStringLiteral("Glass"));
        sounds->play(QStringLiteral("Basso"));
        QThread::msleep(300);
        sounds.reset(); // what it prints when it goes counts too
        std::fflush(stderr);
        dup2(saved, STDERR_FILENO);
        close(sink);
        close(saved);
        EXPECT_EQ(::Test::readAll(file), QByteArray()); // nothing printed
    }
}
