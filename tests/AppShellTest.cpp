// The application shell in this process: the window the launch builds, its
// menu bar, and what the entries do.
#include "app/AppDelegate.h"
#include "support/FreshHome.h"
#include "support/GuiSupport.h"

#include <QMainWindow>
#include <QMenuBar>
#include <QMessageBox>
#include <gtest/gtest.h>

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
