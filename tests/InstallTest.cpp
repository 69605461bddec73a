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
        QString::fromUtf8(::Test::readAll(kBuild + u"/install_manifest_zelkor.txt"_s));
    for (const QString& line : text.split(u'\n', Qt::SkipEmptyParts))
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
    const QString beat = home.root() + u"/beat.wav"_s;
    ::Test::makeAudio(beat, u"sine=frequency=220"_s, 3);
    const ::Test::Process tag = ::Test::runProgram(prefix + u"/bin/zelkor-tag"_s, {beat});
    EXPECT_EQ(tag.status, 0) << tag.out.toStdString() << tag.err.toStdString();
    EXPECT_TRUE(QFileInfo::exists(home.root() + u"/beat (Tagged).wav"_s));

    const QString out = home.root() + u"/installed.png"_s;
    EXPECT_EQ(::Test::runProgram(prefix + u"/bin/zelkor"_s, {u"--snapshot"_s, out}).status, 0);
    EXPECT_EQ(QImage(out).pixelColor(115, 108), QColor(0xA2, 0x60, 0xFF));
}

} // namespace

TEST(Install, writesExactlyItsManifestWhereTheDesktopLooksAndUninstallTakesItBack) {
    ::Test::FreshHome home;
    const QString stage = home.root() + u"/stage"_s;
    const QString prefix = stage + u"/opt/zelkor"_s;
    const QStringList options = u"--component zelkor --prefix /opt/zelkor"_s.split(u' ');
    const ::Test::Process install =
        runTool(u"cmake"_s, QStringList{u"--install"_s, kBuild} + options, {u"DESTDIR="_s + stage});
    ASSERT_EQ(install.status, 0) << install.err.toStdString();
    const QStringList manifest = manifestUnder(stage);
    EXPECT_EQ(filesUnder(stage), manifest);
    const QString share = prefix + kShare;
    // ffmpeg outside the prefix: the link names it as it is.
    EXPECT_EQ(linkText(prefix + u"/" ZELKOR_SHARE_REL "/ffmpeg"_s), ::Test::systemFFmpeg());
    EXPECT_TRUE(manifest.contains(prefix + u"/" ZELKOR_SHARE_REL "/ffmpeg"_s));

    const QString entry = share + u"/applications/zelkor.desktop"_s;
    const ::Test::Process valid = runTool(u"desktop-file-validate"_s, {entry});
    EXPECT_EQ(valid.status, 0);
    EXPECT_EQ(valid.out + valid.err, QString());
    const QStringList lines = QString::fromUtf8(::Test::readAll(entry)).split(u'\n');
    EXPECT_TRUE(lines.contains(u"Exec=zelkor %F"_s));
    EXPECT_TRUE(lines.contains(u"StartupNotify=true"_s));
    EXPECT_TRUE(lines.contains(u"MimeType=audio/mpeg;audio/x-wav;audio/wav;"_s));

    EXPECT_TRUE(QFileInfo::exists(share + u"/icons/hicolor/scalable/apps/zelkor.svg"_s));
    for (const int size : {16, 24, 32, 48, 64, 128, 256})
        EXPECT_EQ(QImage(share + u"/icons/hicolor/%1x%1/apps/zelkor.png"_s.arg(size)).size(),
                  QSize(size, size));
    const ::Test::Process metainfo =
        runTool(u"appstreamcli"_s, {u"validate"_s, u"--no-net"_s,
                                    share + u"/metainfo/com.odravex.Zelkor.metainfo.xml"_s});
    EXPECT_EQ(metainfo.status, 0) << metainfo.out.toStdString();
    for (const QString& page : {u"zelkor.1"_s, u"zelkor-tag.1"_s}) {
        const QString roff = kBuild + u"/" ZELKOR_MAN_REL "/man1/"_s + page;
        const ::Test::Process mandoc = runTool(u"mandoc"_s, {u"-Tlint"_s, roff});
        EXPECT_EQ(mandoc.status, 0);
        EXPECT_EQ(mandoc.out + mandoc.err, QString());
        const ::Test::Process groff = runTool(u"groff"_s, {u"-man"_s, u"-ww"_s, u"-z"_s, roff});
        EXPECT_EQ(groff.status, 0);
        EXPECT_EQ(groff.err, QString());
        EXPECT_TRUE(manifest.contains(prefix + u"/" ZELKOR_MAN_REL "/man1/"_s + page + u".gz"_s));
    }

    // Completion from the installed file: options, levels, and clip names with
    // spaces from the installed program's own library.
    const QString complete =
        u"source \"$1\"; for words in '--sel' '--level h' '--select-tag Pro'; do "
        "read -ra COMP_WORDS <<< \"zelkor-tag $words\"; COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
        "_zelkor_tag \"$2\" 2>/dev/null; printf '%s|' \"${COMPREPLY[@]}\"; done"_s;
    home.setEnv("ZELKOR_RESOURCES", std::nullopt);
    const ::Test::Process bash =
        runTool(u"bash"_s,
                {u"-c"_s, complete, u"bash"_s, share + u"/bash-completion/completions/zelkor-tag"_s,
                 prefix + u"/bin/zelkor-tag"_s});
    EXPECT_EQ(bash.out, u"--select-tag|HIGH|Produced by Zelkor.wav|"_s);
    for (const QString& file :
         {u"/fish/vendor_completions.d/zelkor-tag.fish"_s, u"/zsh/site-functions/_zelkor-tag"_s})
        EXPECT_TRUE(manifest.contains(share + file)) << file.toStdString();

    expectProgramsRunFrom(prefix, home);

    const ::Test::Process uninstall =
        runTool(u"cmake"_s,
                {u"-DMANIFEST="_s + kBuild + u"/install_manifest_zelkor.txt"_s, u"-P"_s,
                 QStringLiteral(ZELKOR_SOURCE_DIR "/packaging/Uninstall.cmake")},
                {u"DESTDIR="_s + stage});
    EXPECT_EQ(uninstall.status, 0) << uninstall.err.toStdString();
    EXPECT_EQ(QDir(prefix).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden |
                                     QDir::System),
              QStringList());
}

TEST(Install, debianPackageHoldsEverythingAndRunsFromWhereItIsUnpacked) {
    if (!ZELKOR_PACKAGE_TEST)
        GTEST_SKIP() << "a sanitized build: the package is built and checked by the plain build";
    ::Test::FreshHome home;
    const QString out = home.root() + u"/package"_s;
    const ::Test::Process cpack =
        runTool(u"cpack"_s, {u"--config"_s, kBuild + u"/CPackConfig.cmake"_s, u"-B"_s, out});
    ASSERT_EQ(cpack.status, 0) << cpack.out.toStdString() << cpack.err.toStdString();
    const QStringList debs = QDir(out).entryList({u"zelkor_*.deb"_s});
    ASSERT_EQ(debs.size(), 1);
    const QString deb = out + u'/' + debs.first();

    const QString root = home.root() + u"/root"_s;
    ASSERT_EQ(runTool(u"dpkg-deb"_s, {u"-x"_s, deb, root}).status, 0);
    EXPECT_EQ(filesUnder(root), manifestUnder(root));
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
