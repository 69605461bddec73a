// The installation and the Debian package: where a Linux desktop looks for the
// programs, their entry, icons, AppStream entry, man pages and completions; an
// install that writes exactly its manifest and an uninstall that takes it all
// back; the package checked by lintian and run from the folder it lies in.
#include "platform/Resources.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QImage>
#include <QStandardPaths>
#include <filesystem>
#include <gtest/gtest.h>

namespace {

const QString kBuild = QStringLiteral(ZELKOR_BUILD_DIR);
const QString kShare = QStringLiteral("/" ZELKOR_DATAROOT_REL);

::Test::Process runTool(const QString& name, const QStringList& args,
                        const QStringList& environment = {}) {
    return ::Test::runProgram(QStandardPaths::findExecutable(name), args, environment);
}

// Every file and link below `root`, as absolute paths.
QStringList filesUnder(const QString& root) {
    QStringList files;
    QDirIterator it(root, QDir::Files | QDir::System | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << it.next();
    files.sort();
    return files;
}

// What a symbolic link holds, as written.
QString linkText(const QString& link) {
    return QString::fromStdString(std::filesystem::read_symlink(link.toStdString()).string());
}

// The install manifest of the last install (or package staging), under `root`.
QStringList manifestUnder(const QString& root) {
    QStringList files;
    const QString text =
        QString::fromUtf8(::Test::readAll(kBuild + QStringLiteral("/install_manifest_zelkor.txt")));
    for (const QString& line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        files << root + line;
    files.sort();
    return files;
}

// Both programs, run from `prefix` with nothing of the build around them, on
// their own resources: zelkor-tag tags a beat with the seeded default clip,
// and zelkor draws its window with that clip armed.
void expectProgramsRunFrom(const QString& prefix, ::Test::FreshHome& home) {
    home.useOwnRuntime();
    home.setEnv("ZELKOR_RESOURCES", std::nullopt);
    const QString beat = home.root() + QStringLiteral("/beat.wav");
    ::Test::makeAudio(beat, QStringLiteral("sine=frequency=220"), 3);
    const ::Test::Process tag =
        ::Test::runProgram(prefix + QStringLiteral("/bin/zelkor-tag"), {beat});
    EXPECT_EQ(tag.status, 0) << tag.out.toStdString() << tag.err.toStdString();
    EXPECT_TRUE(QFileInfo::exists(home.root() + QStringLiteral("/beat (Tagged).wav")));

    const QString out = home.root() + QStringLiteral("/installed.png");
    EXPECT_EQ(::Test::runProgram(prefix + QStringLiteral("/bin/zelkor"),
                                 {QStringLiteral("--snapshot"), out})
                  .status,
              0);
    EXPECT_EQ(QImage(out).pixelColor(115, 108), QColor(0xA2, 0x60, 0xFF));
}

} // namespace

TEST(Install, writesExactlyItsManifestWhereTheDesktopLooksAndUninstallTakesItBack) {
    ::Test::FreshHome home;
    const QString stage = home.root() + QStringLiteral("/stage");
    const QString prefix = stage + QStringLiteral("/opt/zelkor");
    const ::Test::Process install = runTool(
        QStringLiteral("cmake"),
        {QStringLiteral("--install"), kBuild, QStringLiteral("--component"),
         QStringLiteral("zelkor"), QStringLiteral("--prefix"), QStringLiteral("/opt/zelkor")},
        {QStringLiteral("DESTDIR=") + stage});
    ASSERT_EQ(install.status, 0) << install.err.toStdString();
    const QStringList manifest = manifestUnder(stage);
    EXPECT_EQ(filesUnder(stage), manifest);
    const QString share = prefix + kShare;
    // ffmpeg outside the prefix: the link names it as it is.
    EXPECT_EQ(linkText(prefix + QStringLiteral("/" ZELKOR_SHARE_REL "/ffmpeg")),
              ::Test::systemFFmpeg());
    EXPECT_TRUE(manifest.contains(prefix + QStringLiteral("/" ZELKOR_SHARE_REL "/ffmpeg")));

    const QString entry = share + QStringLiteral("/applications/zelkor.desktop");
    const ::Test::Process valid = ::Test::runProgram(
        QStandardPaths::findExecutable(QStringLiteral("desktop-file-validate")), {entry});
    EXPECT_EQ(valid.status, 0);
    EXPECT_EQ(valid.out + valid.err, QString());
    const QStringList lines = QString::fromUtf8(::Test::readAll(entry)).split(QLatin1Char('\n'));
    EXPECT_TRUE(lines.contains(QStringLiteral("Exec=zelkor %F")));
    EXPECT_TRUE(lines.contains(
        QStringLiteral("MimeType=audio/mpeg;audio/x-wav;audio/wav;inode/directory;")));

    EXPECT_TRUE(
        QFileInfo::exists(share + QStringLiteral("/icons/hicolor/scalable/apps/zelkor.svg")));
    EXPECT_TRUE(QFileInfo::exists(Resources::icon())); // the window's, in the build tree
    for (const int size : {16, 24, 32, 48, 64, 128, 256})
        EXPECT_EQ(
            QImage(share + QStringLiteral("/icons/hicolor/%1x%1/apps/zelkor.png").arg(size)).size(),
            QSize(size, size));
    const ::Test::Process metainfo =
        runTool(QStringLiteral("appstreamcli"),
                {QStringLiteral("validate"), QStringLiteral("--no-net"),
                 share + QStringLiteral("/metainfo/com.odravex.Zelkor.metainfo.xml")});
    EXPECT_EQ(metainfo.status, 0) << metainfo.out.toStdString();
    for (const QString& page : {QStringLiteral("zelkor.1"), QStringLiteral("zelkor-tag.1")}) {
        const QString roff = kBuild + QStringLiteral("/" ZELKOR_MAN_REL "/man1/") + page;
        const ::Test::Process mandoc =
            runTool(QStringLiteral("mandoc"), {QStringLiteral("-Tlint"), roff});
        EXPECT_EQ(mandoc.status, 0);
        EXPECT_EQ(mandoc.out + mandoc.err, QString());
        const ::Test::Process groff =
            runTool(QStringLiteral("groff"),
                    {QStringLiteral("-man"), QStringLiteral("-ww"), QStringLiteral("-z"), roff});
        EXPECT_EQ(groff.status, 0);
        EXPECT_EQ(groff.err, QString());
        EXPECT_TRUE(manifest.contains(prefix + QStringLiteral("/" ZELKOR_MAN_REL "/man1/") + page +
                                      QStringLiteral(".gz")));
    }

    // Completion from the installed file: options, levels, and clip names with
    // spaces from the installed program's own library.
    const QString complete = QStringLiteral(
        "source \"$1\"; for words in '--sel' '--level h' '--select-tag Pro'; do "
        "read -ra COMP_WORDS <<< \"zelkor-tag $words\"; COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
        "_zelkor_tag \"$2\" 2>/dev/null; printf '%s|' \"${COMPREPLY[@]}\"; done");
    home.setEnv("ZELKOR_RESOURCES", std::nullopt);
    const ::Test::Process bash = runTool(
        QStringLiteral("bash"), {QStringLiteral("-c"), complete, QStringLiteral("bash"),
                                 share + QStringLiteral("/bash-completion/completions/zelkor-tag"),
                                 prefix + QStringLiteral("/bin/zelkor-tag")});
    EXPECT_EQ(bash.out, QStringLiteral("--select-tag|HIGH|Produced by Zelkor.wav|"));
    for (const QString& file : {QStringLiteral("/fish/vendor_completions.d/zelkor-tag.fish"),
                                QStringLiteral("/zsh/site-functions/_zelkor-tag")})
        EXPECT_TRUE(manifest.contains(share + file)) << file.toStdString();

    expectProgramsRunFrom(prefix, home);

    const ::Test::Process uninstall = runTool(
        QStringLiteral("cmake"),
        {QStringLiteral("-DMANIFEST=") + kBuild + QStringLiteral("/install_manifest_zelkor.txt"),
         QStringLiteral("-P"), QStringLiteral(ZELKOR_SOURCE_DIR "/packaging/Uninstall.cmake")},
        {QStringLiteral("DESTDIR=") + stage});
    EXPECT_EQ(uninstall.status, 0) << uninstall.err.toStdString();
    EXPECT_EQ(QDir(prefix).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden |
                                     QDir::System),
              QStringList());
}

TEST(Install, debianPackageHoldsEverythingPassesLintianAndRunsFromWhereItIsUnpacked) {
    if (!ZELKOR_PACKAGE_TEST)
        GTEST_SKIP() << "a sanitized build: the package is built and checked by the plain build";
    ::Test::FreshHome home;
    const QString out = home.root() + QStringLiteral("/package");
    const ::Test::Process cpack =
        runTool(QStringLiteral("cpack"),
                {QStringLiteral("--config"), kBuild + QStringLiteral("/CPackConfig.cmake"),
                 QStringLiteral("-B"), out});
    ASSERT_EQ(cpack.status, 0) << cpack.out.toStdString() << cpack.err.toStdString();
    const QStringList debs = QDir(out).entryList({QStringLiteral("zelkor_*.deb")});
    ASSERT_EQ(debs.size(), 1);
    const QString deb = out + QLatin1Char('/') + debs.first();

    const ::Test::Process lintian = runTool(
        QStringLiteral("lintian"), {QStringLiteral("--fail-on"), QStringLiteral("error"), deb});
    EXPECT_EQ(lintian.status, 0) << lintian.out.toStdString();

    const QString root = home.root() + QStringLiteral("/root");
    ASSERT_EQ(runTool(QStringLiteral("dpkg-deb"), {QStringLiteral("-x"), deb, root}).status, 0);
    EXPECT_EQ(filesUnder(root), manifestUnder(root));
    const QString usr = root + QStringLiteral("/usr");
    for (const QString& file :
         {QStringLiteral("/bin/zelkor"), QStringLiteral("/bin/zelkor-tag"),
          QStringLiteral("/" ZELKOR_SHARE_REL "/DefaultTags/Produced by Zelkor.wav"),
          QStringLiteral("/" ZELKOR_SHARE_REL "/logo.svg"),
          QStringLiteral("/" ZELKOR_MAN_REL "/man1/zelkor.1.gz"),
          QStringLiteral("/" ZELKOR_MAN_REL "/man1/zelkor-tag.1.gz"),
          QStringLiteral("/" ZELKOR_DATAROOT_REL "/bash-completion/completions/zelkor-tag"),
          QStringLiteral("/" ZELKOR_DATAROOT_REL "/zsh/vendor-completions/_zelkor-tag"),
          QStringLiteral("/" ZELKOR_DATAROOT_REL "/fish/vendor_completions.d/zelkor-tag.fish"),
          QStringLiteral("/" ZELKOR_DATAROOT_REL "/metainfo/com.odravex.Zelkor.metainfo.xml"),
          QStringLiteral("/" ZELKOR_DATAROOT_REL "/applications/zelkor.desktop"),
          QStringLiteral("/" ZELKOR_DATAROOT_REL "/icons/hicolor/256x256/apps/zelkor.png"),
          QStringLiteral("/" ZELKOR_DATAROOT_REL "/doc/zelkor/copyright")})
        EXPECT_TRUE(QFileInfo::exists(usr + file)) << file.toStdString();
    // ffmpeg under the same prefix: a relative link, naming the ffmpeg of the
    // root it is unpacked in (none yet), not the system's.
    const QString link = usr + QStringLiteral("/" ZELKOR_SHARE_REL "/ffmpeg");
    EXPECT_FALSE(linkText(link).startsWith(QLatin1Char('/'))) << linkText(link).toStdString();
    EXPECT_EQ(QFileInfo(link).canonicalFilePath(), QString());

    // As the ffmpeg dependency would install it.
    ASSERT_TRUE(QFile::link(::Test::systemFFmpeg(), usr + QStringLiteral("/bin/ffmpeg")));
    expectProgramsRunFrom(usr, home);
}
