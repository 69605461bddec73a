// zelkor-tag --watch against what a DAW and a shared folder do.
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// A running watch, settling after 0.3 s, ended by Ctrl-C as at a terminal.
class Watching {
public:
    explicit Watching(const QStringList& args) {
        qputenv("ZELKOR_WATCH_SETTLE_MS", "300");
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        m_process.start(::Test::binary(u"zelkor-tag"_s), args);
    }
    ~Watching() {
        ::kill(static_cast<pid_t>(m_process.processId()), SIGINT);
        EXPECT_TRUE(m_process.waitForFinished(30'000));
        EXPECT_EQ(m_process.exitStatus(), QProcess::CrashExit);
    }
    // Waits, generously, until `times` lines hold `text`.
    bool says(const QString& text, int times = 1) {
        return ::Test::waitUntil(
            [&] {
                m_process.waitForReadyRead(10);
                m_lines << QString::fromUtf8(m_process.readAll()).split(u'\n', Qt::SkipEmptyParts);
                return m_lines.filter(text).size() >= times;
            },
            60'000);
    }
    QStringList tracks() const { return m_lines.filter(u"  "_s); }

private:
    QProcess m_process;
    QStringList m_lines;
};

using Watch = ::Test::TempFolder;

} // namespace

// Paused WAV exports, whose headers say more is to come, are not taken; a paused MP3 is
// tagged again once whole. Folders are followed through removal and replacement. In a
// shared folder another user's link is taken only to that user's own file.
TEST_F(Watch, followsWhatADawAndASharedFolderDo) {
    const QString clip = path(u"tag.wav"_s), exports = path(u"exports"_s), other = path(u"other"_s);
    ::Test::makeAudio(clip, u"sine=frequency=880"_s, 0.5, 22050, 1);
    for (const QString& folder : {exports, other})
        QDir().mkpath(folder);
    const auto drop = [&](const QString& folder, const QString& name) { // made elsewhere
        ::Test::makeAudio(path(name), u"sine=frequency=220"_s, 1);
        ASSERT_TRUE(QFile::rename(path(name), folder + u'/' + name));
    };
    ::Test::makeAudio(path(u"beat.wav"_s), u"sine=frequency=220"_s, 6);
    ::Test::ffmpeg({u"-i"_s, path(u"beat.wav"_s), u"-write_xing"_s, u"0"_s, path(u"beat.mp3"_s)});
    const QByteArray wav = ::Test::readAll(path(u"beat.wav"_s)),
                     mp3 = ::Test::readAll(path(u"beat.mp3"_s));
    const qsizetype header = wav.indexOf("data") + 8;
    // A header as written before the sizes are known, then half the audio.
    const auto half = [&](const QByteArray& riff, const QByteArray& data) {
        return wav.left(header).replace(4, 4, riff).replace(header - 4, 4, data) +
               wav.mid(header, wav.size() / 2);
    };
    const std::vector<std::tuple<QString, QByteArray, QByteArray>> exportsOf{
        {u"known.wav"_s, wav, wav.left(wav.size() / 2)},
        {u"placeholder.wav"_s, wav, half(QByteArray(4, '\xff'), QByteArray(4, '\xff'))}, // ffmpeg's
        {u"no-data.wav"_s, wav, half(char(header - 8) + QByteArray(3, 0), QByteArray(4, 0))},
        {u"rough.mp3"_s, mp3, mp3.left(mp3.size() / 2)},
    };

    Watching watch({u"-t"_s, clip, u"-i"_s, u"5"_s, u"--watch"_s, exports, u"--watch"_s, other,
                    u"--watch"_s, exports});
    for (const QString& folder : {exports, other})
        ASSERT_TRUE(watch.says(u"zelkor-tag: watching '"_s + folder + u'\''));
    for (const auto& [name, whole, half] : exportsOf)
        ::Test::writeFile(exports + u'/' + name, half);
    ASSERT_TRUE(watch.says(u"rough.mp3"_s));
    EXPECT_EQ(watch.tracks().size(), 1); // a WAV taken with it would be tagged before it
    for (const auto& [name, whole, half] : exportsOf)
        ::Test::writeFile(exports + u'/' + name, whole);
    for (const auto& [name, whole, half] : exportsOf)
        ASSERT_TRUE(watch.says(name, name.endsWith(u"mp3"_s) ? 2 : 1));
    EXPECT_EQ(watch.tracks().size(), 5);
    const QStringList files = QDir(exports).entryList(QDir::Files | QDir::Hidden);
    EXPECT_EQ(files.size(), 8) << files.join(u", "_s).toStdString(); // nothing left over
    for (const auto& [name, whole, half] : exportsOf) {
        const QString output = QString(name).replace(u"."_s, u" (Tagged)."_s);
        EXPECT_NEAR(::Test::samples(exports + u'/' + output, 44100, 2).size() / 2 / 44100.0, 6,
                    0.05)
            << output.toStdString();
    }

    ASSERT_TRUE(QDir(exports).removeRecursively());
    ASSERT_TRUE(watch.says(u"zelkor-tag: '"_s + exports + u"' is gone"_s));
    QDir().mkpath(exports);
    ASSERT_TRUE(watch.says(u"zelkor-tag: watching '"_s + exports + u"' again"_s));
    drop(exports, u"b.wav"_s);
    ASSERT_TRUE(watch.says(u"b.wav"_s));
    ASSERT_TRUE(QDir().rename(other, path(u"moved"_s)));
    QDir().mkpath(other);
    drop(other, u"c.wav"_s);
    ASSERT_TRUE(watch.says(u"zelkor-tag: watching '"_s + other + u"' again"_s));
    ASSERT_TRUE(watch.says(u"c.wav"_s));
    EXPECT_EQ(watch.tracks().size(), 7);

    const QString master = path(u"master.wav"_s), theirs = path(u"theirs.wav"_s);
    ::Test::makeAudio(master, u"sine=frequency=330"_s, 1);
    ::Test::makeAudio(theirs, u"sine=frequency=330"_s, 1);
    if (::chown(theirs.toUtf8().constData(), 65534, 65534) != 0)
        GTEST_SKIP() << "giving a file to another user needs root";
    ::chmod(exports.toUtf8().constData(), 01777);
    for (const auto& [name, target, planted] :
         {std::tuple{u"planted.wav"_s, master, true}, std::tuple{u"mine.wav"_s, master, false},
          std::tuple{u"given.wav"_s, theirs, true}}) {
        const QByteArray link = (exports + u'/' + name).toUtf8();
        ASSERT_EQ(::symlink(target.toUtf8().constData(), link.constData()), 0);
        ASSERT_TRUE(!planted || ::lchown(link.constData(), 65534, 65534) == 0);
    }
    drop(exports, u"z.wav"_s); // after the links, in name order too: their lines come first
    ASSERT_TRUE(watch.says(u"z.wav"_s));
    EXPECT_EQ(watch.tracks().mid(7).join(u'\n').count(u"OK"_s), 3);
    EXPECT_EQ(watch.tracks().filter(u"planted"_s), QStringList());
}
