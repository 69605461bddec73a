// zelkor-tag --watch against what a DAW and a shared folder do: exports that
// pause, a track bounced again, folders removed or replaced, links planted.
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

// A running watch, settling after 0.3 s, its standard error and output as one;
// Ctrl-C ends it.
class Watching {
public:
    explicit Watching(const QStringList& args) {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"ZELKOR_WATCH_SETTLE_MS"_s, u"300"_s);
        m_process.setProcessEnvironment(environment);
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        m_process.start(::Test::binary(u"zelkor-tag"_s), args);
    }
    // Ends by the signal, as a program at a terminal does.
    ~Watching() {
        ::kill(static_cast<pid_t>(m_process.processId()), SIGINT);
        EXPECT_TRUE(m_process.waitForFinished(30'000));
        EXPECT_EQ(m_process.exitStatus(), QProcess::CrashExit);
        EXPECT_EQ(m_process.exitCode(), SIGINT);
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
    // The tracks' lines.
    QStringList tracks() const { return m_lines.filter(u"  "_s); }

private:
    QProcess m_process;
    QStringList m_lines;
};

class Watch : public ::Test::TempFolder {
protected:
    void SetUp() override {
        ::Test::makeAudio(clip, u"sine=frequency=880"_s, 0.5, 22050, 1);
        QDir().mkpath(exports);
    }
    QStringList args(const QStringList& more) const {
        return QStringList{u"-t"_s, clip, u"-i"_s, u"5"_s} + more;
    }
    // A track's name in `folder` made from a copy of one made elsewhere.
    void drop(const QString& folder, const QString& name) {
        ::Test::makeAudio(path(name), u"sine=frequency=220"_s, 1);
        ASSERT_TRUE(QFile::rename(path(name), folder + u'/' + name));
    }
    const QString clip = path(u"tag.wav"_s);
    const QString exports = path(u"exports"_s);
};

} // namespace

// Each export pauses half-way for as long as the watch takes to tag the MP3's
// first half: the WAVs, whose headers say how much is still to come (or hold a
// placeholder), are not taken; the MP3, which cannot say, is tagged again once
// whole, into the same output. One whole output per export.
TEST_F(Watch, exportsThatPauseEndAsOneWholeOutputEach) {
    const double seconds = 6;
    ::Test::makeAudio(path(u"beat.wav"_s), u"sine=frequency=220"_s, seconds);
    ::Test::ffmpeg({u"-i"_s, path(u"beat.wav"_s), u"-write_xing"_s, u"0"_s, path(u"beat.mp3"_s)});
    const QByteArray wav = ::Test::readAll(path(u"beat.wav"_s));
    const QByteArray mp3 = ::Test::readAll(path(u"beat.mp3"_s));
    const qsizetype header = wav.indexOf("data") + 8;
    // Headers as written before the sizes are known: ffmpeg's, and one sized for no data.
    const QByteArray unknown = wav.left(header)
                                   .replace(4, 4, QByteArray(4, '\xff'))
                                   .replace(header - 4, 4, QByteArray(4, '\xff'));
    const QByteArray unsized =
        wav.left(header)
            .replace(4, 4, QByteArray(1, char(header - 8)) + QByteArray(3, 0))
            .replace(header - 4, 4, QByteArray(4, 0));

    Watching watch(args({u"--watch"_s, exports}));
    ASSERT_TRUE(watch.says(u"zelkor-tag: watching '"_s + exports + u'\''));
    // Name, whole contents, the first half as written before the pause.
    const std::vector<std::tuple<QString, QByteArray, QByteArray>> exportsOf{
        {u"known.wav"_s, wav, wav.left(wav.size() / 2)},
        {u"placeholder.wav"_s, wav, unknown + wav.mid(header, wav.size() / 2)},
        {u"no-data.wav"_s, wav, unsized + wav.mid(header, wav.size() / 2)},
        {u"rough.mp3"_s, mp3, mp3.left(mp3.size() / 2)},
    };
    for (const auto& [name, whole, half] : exportsOf)
        ::Test::writeFile(exports + u'/' + name, half);
    ASSERT_TRUE(watch.says(u"rough.mp3"_s));
    EXPECT_EQ(watch.tracks().size(), 1); // a WAV taken with it would be tagged before it
    for (const auto& [name, whole, half] : exportsOf)
        ::Test::writeFile(exports + u'/' + name, whole);
    ASSERT_TRUE(watch.says(u"known.wav"_s));
    ASSERT_TRUE(watch.says(u"placeholder.wav"_s));
    ASSERT_TRUE(watch.says(u"no-data.wav"_s));
    ASSERT_TRUE(watch.says(u"rough.mp3"_s, 2));

    EXPECT_EQ(watch.tracks().size(), 5);
    QStringList files = QDir(exports).entryList(QDir::Files | QDir::Hidden);
    EXPECT_EQ(files,
              (QStringList{u"known (Tagged).wav"_s, u"known.wav"_s, u"no-data (Tagged).wav"_s,
                           u"no-data.wav"_s, u"placeholder (Tagged).wav"_s, u"placeholder.wav"_s,
                           u"rough (Tagged).mp3"_s, u"rough.mp3"_s}));
    for (const QString& output : files.filter(u"(Tagged)"_s))
        EXPECT_NEAR(::Test::samples(exports + u'/' + output, 44100, 2).size() / 2 / 44100.0,
                    seconds, 0.05)
            << output.toStdString();
}

// Every folder given is watched, and said so; one removed and made again, or
// moved away and replaced, is followed again.
TEST_F(Watch, everyFolderIsFollowedThroughRemovalAndReplacement) {
    const QString other = path(u"other"_s);
    QDir().mkpath(other);
    Watching watch(args({u"--watch"_s, exports, u"--watch"_s, other, u"--watch"_s, exports}));
    ASSERT_TRUE(watch.says(u"zelkor-tag: watching '"_s + other + u'\''));

    drop(exports, u"a.wav"_s);
    ASSERT_TRUE(watch.says(u"a.wav"_s));
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
    EXPECT_EQ(watch.tracks().size(), 3);
}

// A link another user planted in a shared folder is taken only to that user's
// own file; the user's own links are followed.
TEST_F(Watch, anotherUsersLinkIsFollowedOnlyToWhatTheyOwn) {
    const uid_t nobody = 65534;
    const QString master = path(u"master.wav"_s), theirs = path(u"theirs.wav"_s);
    ::Test::makeAudio(master, u"sine=frequency=330"_s, 1);
    ::Test::makeAudio(theirs, u"sine=frequency=330"_s, 1);
    if (::chown(theirs.toUtf8().constData(), nobody, nobody) != 0)
        GTEST_SKIP() << "giving a file to another user needs root";
    ::chmod(exports.toUtf8().constData(), 01777);

    Watching watch(args({u"--watch"_s, exports}));
    ASSERT_TRUE(watch.says(u"zelkor-tag: watching"_s));
    // Link name, target, and whether the link is another user's.
    for (const auto& [name, target, planted] :
         {std::tuple{u"planted.wav"_s, master, true}, std::tuple{u"mine.wav"_s, master, false},
          std::tuple{u"given.wav"_s, theirs, true}}) {
        const QByteArray link = (exports + u'/' + name).toUtf8();
        ASSERT_EQ(::symlink(target.toUtf8().constData(), link.constData()), 0);
        if (planted) {
            ASSERT_EQ(::lchown(link.constData(), nobody, nobody), 0);
        }
    }
    drop(exports, u"z.wav"_s); // after the links, in name order too: their lines come first
    ASSERT_TRUE(watch.says(u"z.wav"_s));
    EXPECT_EQ(watch.tracks().join(u'\n').count(u"OK"_s), 3);
    EXPECT_EQ(watch.tracks().filter(u"planted"_s), QStringList());
}
