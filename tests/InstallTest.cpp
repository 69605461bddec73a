// The installation into a fresh prefix: where a Linux desktop looks for the
// program, its entry and its icon, and the installed program finding its
// resources without the build tree.
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QImage>
#include <QStandardPaths>
#include <gtest/gtest.h>

TEST(Install, putsTheProgramItsEntryAndIconWhereTheDesktopFindsThem) {
    ::Test::FreshHome home;
    const QString prefix = home.root() + QStringLiteral("/usr");
    const ::Test::Process install =
        ::Test::runProgram(QStandardPaths::findExecutable(QStringLiteral("cmake")),
                           {QStringLiteral("--install"), QStringLiteral(ZELKOR_BIN_DIR "/.."),
                            QStringLiteral("--prefix"), prefix});
    ASSERT_EQ(install.status, 0) << install.err.toStdString();
    const QString share = prefix + QStringLiteral("/share");
    EXPECT_TRUE(
        QFileInfo::exists(share + QStringLiteral("/icons/hicolor/scalable/apps/zelkor.svg")));
    EXPECT_TRUE(QFileInfo(share + QStringLiteral("/zelkor/ffmpeg")).isExecutable());

    const QString entry = share + QStringLiteral("/applications/zelkor.desktop");
    const ::Test::Process valid = ::Test::runProgram(
        QStandardPaths::findExecutable(QStringLiteral("desktop-file-validate")), {entry});
    EXPECT_EQ(valid.status, 0);
    EXPECT_EQ(valid.out + valid.err, QString());
    const QStringList lines = QString::fromUtf8(::Test::readAll(entry)).split(QLatin1Char('\n'));
    EXPECT_TRUE(lines.contains(QStringLiteral("Exec=zelkor %F")));
    EXPECT_TRUE(lines.contains(QStringLiteral("StartupNotify=true")));
    EXPECT_TRUE(lines.contains(QStringLiteral("MimeType=audio/mpeg;audio/x-wav;audio/wav;")));

    // On its own, the installed program seeds its default tag and shows it armed.
    home.useOwnRuntime();
    home.setEnv("ZELKOR_RESOURCES", std::nullopt);
    const QString out = home.root() + QStringLiteral("/installed.png");
    EXPECT_EQ(::Test::runProgram(prefix + QStringLiteral("/bin/zelkor"),
                                 {QStringLiteral("--snapshot"), out})
                  .status,
              0);
    EXPECT_EQ(QImage(out).pixelColor(115, 108), QColor(0xA2, 0x60, 0xFF));
}
