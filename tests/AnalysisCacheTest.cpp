// Analyses kept between runs: only the same file measured by the same ffmpeg hits.
#include "engine/AnalysisCache.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// A file changed a moment ago is measured but not kept.
void awaitSettled(const QStringList& paths) {
    for (const QString& path : paths)
        ASSERT_TRUE(
            ::Test::waitUntil([&] { return Engine::AnalysisCache::settled(path); }, 10'000));
}

QStringList entries() {
    return QDir(Engine::AnalysisCache::folder()).entryList(QDir::Files | QDir::Hidden);
}

} // namespace

TEST(AnalysisCache, keptFiguresServeOnlyTheSameFile) {
    ::Test::FreshHome home;
    const QString track = home.root() + u"/beat.wav"_s;
    ::Test::writeFile(track, "loud");
    awaitSettled({track});
    int runs = 0;
    const auto measured = [&](const QString& path, const QString& method = {}) {
        Engine::AnalysisCache::kept(path, method, [&](const QString&) {
            Engine::Analysis analysis;
            analysis.duration = ++runs;
            return analysis;
        });
        return runs;
    };
    const auto failing = [](const QString&) -> Engine::Analysis { throw TagError::unreadable(); };
    EXPECT_THROW(Engine::AnalysisCache::kept(track, {}, failing), TagError);
    EXPECT_EQ(entries(), QStringList()); // a failure keeps nothing
    EXPECT_EQ(measured(track), 1);
    ASSERT_EQ(entries().size(), 1);
    ::Test::writeFile(Engine::AnalysisCache::folder() + u'/' + entries()[0], "{\"key\":[1,\"");
    EXPECT_EQ(measured(track), 2); // a damaged entry is replaced
    EXPECT_EQ(measured(track), 2);
    EXPECT_EQ(measured(track, u"another way"_s), 3); // kept apart from the other way's
    EXPECT_EQ(measured(track, u"another way"_s), 3);

    // New bytes in the same file, as an editor saving in place writes them: measured
    // again, even with the old modification time put back.
    struct stat before {};
    ASSERT_EQ(::stat(QFile::encodeName(track).constData(), &before), 0);
    ::Test::writeFile(track, "soft");
    EXPECT_EQ(measured(track), 4);
    ::Test::writeFile(track, "loud");
    const timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(track).constData(), times, 0), 0);
    EXPECT_EQ(measured(track), 5);
}

// zelkor-tag through ffmpeg wrappers that log their runs; each count is of all runs so far.
TEST(AnalysisCache, aSecondRunMeasuresNothingUnlessFfmpegIsAnotherOrItIsTurnedOff) {
    ::Test::FreshHome home;
    // MP3s: a WAV is read without ffmpeg.
    const QString track = home.root() + u"/beat.mp3"_s, clip = home.root() + u"/tag.mp3"_s;
    ::Test::makeAudio(track, u"sine=frequency=220"_s, 6);
    ::Test::makeAudio(clip, u"sine=frequency=880"_s, 0.5, 8000, 1);
    // The second ffmpeg says 2.4 MiB more after each Duration: the kept text still has both ends.
    const QString shares[2] = {
        ::Test::resourcesWith(home.root() + u"/0"_s,
                              "echo \"$*\" >> \"$0.log\"\nexec \"$real\" \"$@\"\n"),
        ::Test::resourcesWith(
            home.root() + u"/1"_s,
            "echo \"$*\" >> \"$0.log\"\n{ \"$real\" \"$@\" 2>&1 1>&3 | awk '{ print } "
            "/Duration/ { for (i = 0; i < 40000; i++) printf \"%063d\\n\", i }' >&2; } 3>&1\n")};
    const auto tag = [&](const QString& share, const QStringList& options = {}) {
        const auto run = ::Test::zelkorTag(options + QStringList{u"--tag"_s, clip, track},
                                           {u"ZELKOR_RESOURCES="_s + share});
        EXPECT_EQ(run.status, 0) << run.out.toStdString();
        return QString::fromUtf8(::Test::readAll(share + u"/ffmpeg.log"_s)).count(u" pipe:1"_s);
    };
    awaitSettled({track, clip});
    EXPECT_EQ(tag(shares[0]), 2);
    EXPECT_EQ(tag(shares[0]), 2);
    EXPECT_EQ(tag(shares[1]), 2);
    EXPECT_EQ(tag(shares[0], {u"--no-cache"_s}), 4);
}
