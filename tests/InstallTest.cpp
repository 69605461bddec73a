// The installation and the Debian package: where a Linux desktop looks for the
// programs, their entry, icons, AppStream entry, man pages and completions; an
// install that writes exactly its manifest and an uninstall that takes it all
// back; the package run from the folder it lies in (make deb runs lintian).
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QImage>
#include <QStandardPaths>
#include <filesystem>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

const QString kBuild = QStringLiteral(ZELKOR_BUILD_DIR);
const QString kManifest = kBuild + u"/install_manifest_zelkor.txt"_s;

::Test::Process runTool(const QString& name, const QStringList& args,
                        const QStringList& environment = {}) {
    return ::Test::runProgram(QStandardPaths::findExecutable(name), args, environment);
}

// Every file and link below `root`, and the last install's manifest there: the same.
void expectExactlyTheManifest(const QString& root) {
    QStringList files, manifest;
    QDirIterator it(root, QDir::Files | QDir::System | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << it.next();
    for (const QString& line : QString::fromUtf8(::Test::readAll(kManifest)).split(u'\n'))
        if (!line.isEmpty())
            manifest << root + line;
    files.sort();
    manifest.sort();
    EXPECT_EQ(files, manifest);
}

// What a symbolic link holds, as written.
QString linkText(const QString& link) {
    return QString::fromStdString(std::filesystem::read_symlink(link.toStdString()).string());
}

// Both programs, run from `prefix` with nothing of the build around them, on
// their own resources: zelkor-tag tags a beat with the seeded default clip,
// and zelkor draws its window with that clip armed.
void expectProgramsRunFrom(const QString& prefix, ::Test::FreshHome& home) {
    home.useOwnRuntime();
    home.setEnv("ZELKOR_RESOURCES", std::nullopt);
    const QString beat = home.root() + u"/beat.wav"_s, out = home.root() + u"/installed.png"_s;
    ::Test::makeAudio(beat, u"sine=frequency=220"_s, 3);
    const ::Test::Process tag = ::Test::runProgram(prefix + u"/bin/zelkor-tag"_s, {beat});
    EXPECT_EQ(tag.status, 0) << tag.out.toStdString() << tag.err.toStdString();
    EXPECT_TRUE(QFileInfo::exists(home.root() + u"/beat (Tagged).wav"_s));
    EXPECT_EQ(::Test::runProgram(prefix + u"/bin/zelkor"_s, {u"--snapshot"_s, out}).status, 0);
    EXPECT_EQ(QImage(out).pixelColor(115, 108), QColor(0xA2, 0x60, 0xFF));
}

} // namespace

TEST(Install, writesExactlyItsManifestWhereTheDesktopLooksAndUninstallTakesItBack) {
    ::Test::FreshHome home;
    const QString stage = home.root() + u"/stage"_s, prefix = stage + u"/opt/zelkor"_s;
    const QString share = prefix + u"/" ZELKOR_DATAROOT_REL ""_s;
    const QString man = kBuild + u"/" ZELKOR_MAN_REL "/man1/"_s;
    const QStringList destdir{u"DESTDIR="_s + stage};
    const ::Test::Process install = runTool(
        u"cmake"_s,
        {u"--install"_s, kBuild, u"--component"_s, u"zelkor"_s, u"--prefix"_s, u"/opt/zelkor"_s},
        destdir);
    ASSERT_EQ(install.status, 0) << install.err.toStdString();
    expectExactlyTheManifest(stage);
    // ffmpeg outside the prefix: the link names it as it is.
    EXPECT_EQ(linkText(prefix + u"/" ZELKOR_SHARE_REL "/ffmpeg"_s), ::Test::systemFFmpeg());

    // Each checker passes the installed file in silence (AppStream's talks on success).
    const std::vector<std::pair<QString, QStringList>> checks{
        {u"desktop-file-validate"_s, {share + u"/applications/zelkor.desktop"_s}},
        {u"appstreamcli"_s,
         {u"validate"_s, u"--no-net"_s, share + u"/metainfo/com.odravex.Zelkor.metainfo.xml"_s}},
        {u"mandoc"_s, {u"-Tlint"_s, man + u"zelkor.1"_s}},
        {u"mandoc"_s, {u"-Tlint"_s, man + u"zelkor-tag.1"_s}},
        {u"groff"_s, {u"-man"_s, u"-ww"_s, u"-z"_s, man + u"zelkor.1"_s}},
        {u"groff"_s, {u"-man"_s, u"-ww"_s, u"-z"_s, man + u"zelkor-tag.1"_s}}};
    for (const auto& [tool, args] : checks) {
        const ::Test::Process run = runTool(tool, args);
        EXPECT_EQ(run.status, 0) << tool.toStdString() << ": " << run.out.toStdString();
        EXPECT_TRUE(tool == u"appstreamcli"_s || (run.out + run.err).isEmpty())
            << tool.toStdString() << ": " << (run.out + run.err).toStdString();
    }
    const QStringList entry =
        QString::fromUtf8(::Test::readAll(share + u"/applications/zelkor.desktop"_s)).split(u'\n');
    for (const QString& line : {u"Exec=zelkor %F"_s, u"StartupNotify=true"_s,
                                u"MimeType=audio/mpeg;audio/x-wav;audio/wav;"_s})
        EXPECT_TRUE(entry.contains(line)) << line.toStdString();
    // Where the desktop and the shells look; the manifest holds no more than is there.
    for (const QString& file :
         {u"/" ZELKOR_DATAROOT_REL "/icons/hicolor/scalable/apps/zelkor.svg"_s,
          u"/" ZELKOR_MAN_REL "/man1/zelkor.1.gz"_s, u"/" ZELKOR_MAN_REL "/man1/zelkor-tag.1.gz"_s,
          u"/" ZELKOR_DATAROOT_REL "/fish/vendor_completions.d/zelkor-tag.fish"_s,
          u"/" ZELKOR_DATAROOT_REL "/zsh/site-functions/_zelkor-tag"_s})
        EXPECT_TRUE(QFileInfo::exists(prefix + file)) << file.toStdString();
    for (const int size : {16, 24, 32, 48, 64, 128, 256})
        EXPECT_EQ(QImage(share + u"/icons/hicolor/%1x%1/apps/zelkor.png"_s.arg(size)).size(),
                  QSize(size, size));

    // Completion from the installed file: options, levels, and clip names with
    // spaces from the installed program's own library.
    const QString complete =
        u"source \"$1\"; for words in '--sel' '--level h' '--select-tag Pro'; do "
        "read -ra COMP_WORDS <<< \"zelkor-tag $words\"; COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
        "_zelkor_tag \"$2\" 2>/dev/null; printf '%s|' \"${COMPREPLY[@]}\"; done"_s;
    home.setEnv("ZELKOR_RESOURCES", std::nullopt);
    EXPECT_EQ(runTool(u"bash"_s, {u"-c"_s, complete, u"bash"_s,
                                  share + u"/bash-completion/completions/zelkor-tag"_s,
                                  prefix + u"/bin/zelkor-tag"_s})
                  .out,
              u"--select-tag|HIGH|Produced by Zelkor.wav|"_s);

    expectProgramsRunFrom(prefix, home);

    const ::Test::Process uninstall =
        runTool(u"cmake"_s,
                {u"-DMANIFEST="_s + kManifest, u"-P"_s,
                 QStringLiteral(ZELKOR_SOURCE_DIR "/packaging/Uninstall.cmake")},
                destdir);
    EXPECT_EQ(uninstall.status, 0) << uninstall.err.toStdString();
    EXPECT_EQ(QDir(prefix).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden |
                                     QDir::System),
              QStringList());
}

TEST(Install, debianPackageHoldsEverythingAndRunsFromWhereItIsUnpacked) {
    if (!ZELKOR_PACKAGE_TEST)
        GTEST_SKIP() << "a sanitized build: the package is built and checked by the plain build";
    ::Test::FreshHome home;
    const QString out = home.root() + u"/package"_s, root = home.root() + u"/root"_s;
    const ::Test::Process cpack =
        runTool(u"cpack"_s, {u"--config"_s, kBuild + u"/CPackConfig.cmake"_s, u"-B"_s, out});
    ASSERT_EQ(cpack.status, 0) << cpack.out.toStdString() << cpack.err.toStdString();
    const QStringList debs = QDir(out).entryList({u"zelkor_*.deb"_s});
    ASSERT_EQ(debs.size(), 1);
    ASSERT_EQ(runTool(u"dpkg-deb"_s, {u"-x"_s, out + u'/' + debs.first(), root}).status, 0);
    expectExactlyTheManifest(root);
    const QString usr = root + u"/usr"_s;
    // What the install above does not check: the logo, the licence, and zsh's
    // folder, which differs under /usr. The programs and clip show by running.
    for (const QString& file :
         {u"/" ZELKOR_SHARE_REL "/logo.svg"_s, u"/" ZELKOR_DATAROOT_REL "/doc/zelkor/copyright"_s,
          u"/" ZELKOR_DATAROOT_REL "/zsh/vendor-completions/_zelkor-tag"_s})
        EXPECT_TRUE(QFileInfo::exists(usr + file)) << file.toStdString();
    // ffmpeg under the same prefix: a relative link, naming the ffmpeg of the
    // root it is unpacked in (none yet), not the system's.
    const QString link = usr + u"/" ZELKOR_SHARE_REL "/ffmpeg"_s;
    EXPECT_FALSE(linkText(link).startsWith(u'/')) << linkText(link).toStdString();
    EXPECT_EQ(QFileInfo(link).canonicalFilePath(), QString());

    // As the ffmpeg dependency would install it.
    ASSERT_TRUE(QFile::link(::Test::systemFFmpeg(), usr + u"/bin/ffmpeg"_s));
    expectProgramsRunFrom(usr, home);
}
