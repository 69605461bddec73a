// The installation where a Linux desktop looks: exactly its manifest, programs
// that run from there, an uninstall that takes it all back. (make deb: lintian.)
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

::Test::Process runTool(const QString& name, const QStringList& args,
                        const QStringList& environment = {}) {
    return ::Test::runProgram(QStandardPaths::findExecutable(name), args, environment);
}

} // namespace

TEST(Install, writesExactlyItsManifestWhereTheDesktopLooksRunsThereAndUninstallsCleanly) {
    ::Test::FreshHome home;
    const QString build = QStringLiteral(ZELKOR_BUILD_DIR);
    const QString manifest = build + u"/install_manifest_zelkor.txt"_s;
    const QString stage = home.root() + u"/stage"_s, prefix = stage + u"/opt/zelkor"_s;
    const QString share = prefix + u"/" ZELKOR_DATAROOT_REL ""_s;
    const QStringList destdir{u"DESTDIR="_s + stage};
    const ::Test::Process install = runTool(
        u"cmake"_s,
        {u"--install"_s, build, u"--component"_s, u"zelkor"_s, u"--prefix"_s, u"/opt/zelkor"_s},
        destdir);
    ASSERT_EQ(install.status, 0) << install.err.toStdString();
    // Every file and link under the stage, and the manifest: the same.
    QStringList files, listed;
    for (QDirIterator it(stage, QDir::Files | QDir::System | QDir::Hidden,
                         QDirIterator::Subdirectories);
         it.hasNext();)
        files << it.next();
    for (const QString& line : QString::fromUtf8(::Test::readAll(manifest)).split(u'\n'))
        if (!line.isEmpty())
            listed << stage + line;
    files.sort();
    listed.sort();
    EXPECT_EQ(files, listed);
    // ffmpeg outside the prefix: the link names it as it is.
    EXPECT_EQ(QString::fromStdString(std::filesystem::read_symlink(
                                         (prefix + u"/" ZELKOR_SHARE_REL "/ffmpeg"_s).toStdString())
                                         .string()),
              ::Test::systemFFmpeg());

    // Each checker passes the installed file in silence (AppStream's talks on success).
    const std::vector<std::pair<QString, QStringList>> checks{
        {u"desktop-file-validate"_s, {share + u"/applications/zelkor.desktop"_s}},
        {u"appstreamcli"_s,
         {u"validate"_s, u"--no-net"_s, share + u"/metainfo/com.odravex.Zelkor.metainfo.xml"_s}},
    };
    for (const auto& [tool, args] : checks) {
        const ::Test::Process run = runTool(tool, args);
        EXPECT_EQ(run.status, 0) << tool.toStdString() << ": " << run.out.toStdString();
        EXPECT_TRUE(tool == u"appstreamcli"_s || (run.out + run.err).isEmpty())
            << tool.toStdString() << ": " << (run.out + run.err).toStdString();
    }
    const QStringList entry =
        QString::fromUtf8(::Test::readAll(share + u"/applications/zelkor.desktop"_s)).split(u'\n');
    for (const QString& line : {u"Exec=zelkor %F"_s, u"StartupNotify=true"_s})
        EXPECT_TRUE(entry.contains(line)) << line.toStdString();
    // Listed for a type, Zelkor becomes its default wherever nothing else takes
    // it, and a double-click on a beat would tag it.
    EXPECT_FALSE(entry.join(u'\n').contains(u"MimeType="_s));
    for (const QString& file :
         {u"/" ZELKOR_DATAROOT_REL "/icons/hicolor/scalable/apps/zelkor.svg"_s,
          u"/" ZELKOR_MAN_REL "/man1/zelkor.1.gz"_s, u"/" ZELKOR_MAN_REL "/man1/zelkor-tag.1.gz"_s,
          u"/" ZELKOR_DATAROOT_REL "/fish/vendor_completions.d/zelkor-tag.fish"_s,
          u"/" ZELKOR_DATAROOT_REL "/zsh/site-functions/_zelkor-tag"_s})
        EXPECT_TRUE(QFileInfo::exists(prefix + file)) << file.toStdString();
    for (const int size : {16, 24, 32, 48, 64, 128, 256})
        EXPECT_EQ(QImage(share + u"/icons/hicolor/%1x%1/apps/zelkor.png"_s.arg(size)).size(),
                  QSize(size, size));

    // From the prefix alone, on its own resources: completion offers options,
    // levels and the seeded clip's name with its spaces; zelkor-tag tags a beat
    // with that clip, and zelkor draws its window with it armed.
    home.useOwnRuntime();
    home.setEnv("ZELKOR_RESOURCES", std::nullopt);
    const QString complete =
        u"source \"$1\"; for words in '--sel' '--level h' '--select-tag Pro'; do "
        "read -ra COMP_WORDS <<< \"zelkor-tag $words\"; COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
        "_zelkor_tag \"$2\" 2>/dev/null; printf '%s|' \"${COMPREPLY[@]}\"; done"_s;
    EXPECT_EQ(runTool(u"bash"_s, {u"-c"_s, complete, u"bash"_s,
                                  share + u"/bash-completion/completions/zelkor-tag"_s,
                                  prefix + u"/bin/zelkor-tag"_s})
                  .out,
              u"--select-tag|HIGH|Produced by Zelkor.wav|"_s);
    const QString beat = home.root() + u"/beat.wav"_s, out = home.root() + u"/installed.png"_s;
    ::Test::makeAudio(beat, u"sine=frequency=220"_s, 3);
    const ::Test::Process tag = ::Test::runProgram(prefix + u"/bin/zelkor-tag"_s, {beat});
    EXPECT_EQ(tag.status, 0) << tag.out.toStdString() << tag.err.toStdString();
    EXPECT_TRUE(QFileInfo::exists(home.root() + u"/beat (Tagged).wav"_s));
    EXPECT_EQ(::Test::runProgram(prefix + u"/bin/zelkor"_s, {u"--snapshot"_s, out}).status, 0);
    EXPECT_EQ(QImage(out).pixelColor(115, 108), QColor(0xA2, 0x60, 0xFF));

    const ::Test::Process uninstall =
        runTool(u"cmake"_s,
                {u"-DMANIFEST="_s + manifest, u"-P"_s,
                 QStringLiteral(ZELKOR_SOURCE_DIR "/packaging/Uninstall.cmake")},
                destdir);
    EXPECT_EQ(uninstall.status, 0) << uninstall.err.toStdString();
    EXPECT_EQ(QDir(prefix).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden |
                                     QDir::System),
              QStringList());
}
