// Analyses kept between runs: a hit spares ffmpeg, and a changed track, another
// ffmpeg, a damaged entry or a failed measurement never serves figures.
#include "engine/AnalysisCache.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// A file changed a moment ago is measured but not kept.
void awaitSettled(const QString& path) {
    ASSERT_TRUE(::Test::waitUntil([&] { return Engine::AnalysisCache::settled(path); }, 10'000));
}

QStringList entries() {
    return QDir(Engine::AnalysisCache::folder()).entryList(QDir::Files | QDir::Hidden);
}

struct Counting {
    int runs = 0;
    Engine::Analysis operator()(const QString&) {
        ++runs;
        Engine::Analysis measured;
        measured.duration = 1;
        return measured;
    }
};

} // namespace

TEST(AnalysisCache, keptFiguresServeOnlyTheSameFileAndADamagedEntryIsReplaced) {
    ::Test::FreshHome home;
    const QString track = home.root() + u"/beat.wav"_s;
    ::Test::writeFile(track, "loud");
    awaitSettled(track);
    Counting counting;
    const auto runs = [&] {
        Engine::AnalysisCache::kept(track, std::ref(counting));
        return counting.runs;
    };
    EXPECT_EQ(runs(), 1);
    ASSERT_EQ(entries().size(), 1);
    ::Test::writeFile(Engine::AnalysisCache::folder() + u'/' + entries()[0], "{\"key\":[1,\"");
    EXPECT_EQ(runs(), 2);
    EXPECT_EQ(runs(), 2);

    // New bytes in the same file, as an editor saving in place writes them: measured
    // again, even with the old modification time put back.
    struct stat before {};
    ASSERT_EQ(::stat(QFile::encodeName(track).constData(), &before), 0);
    ::Test::writeFile(track, "soft");
    EXPECT_EQ(runs(), 3);
    ::Test::writeFile(track, "loud");
    const timespec times[2] = {before.st_atim, before.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(track).constData(), times, 0), 0);
    EXPECT_EQ(runs(), 4);

    // A cache folder that cannot be made is passed by.
    home.setEnv("XDG_CACHE_HOME", track + u"/cache"_s);
    EXPECT_EQ(Engine::AnalysisCache::kept(track, std::ref(counting)).duration, 1);
}

TEST(AnalysisCache, aFailedMeasurementKeepsNothingAndTheLeastRecentlyUsedGoPastTheBound) {
    const ::Test::FreshHome home;
    const QString track = home.root() + u"/beat.wav"_s;
    ::Test::writeFile(track, "any bytes");
    awaitSettled(track);
    EXPECT_THROW(
        Engine::AnalysisCache::kept(
            track, [](const QString&) -> Engine::Analysis { throw TagError::unreadable(); }),
        TagError);
    EXPECT_EQ(entries(), QStringList());

    // A full folder of older entries: the new one stays (the second call finds it),
    // the oldest goes. Links, since creating 5,000 files is slow on some disks.
    const QString folder = Engine::AnalysisCache::folder(), oldest = folder + u"/oldest"_s;
    QDir().mkpath(folder);
    const auto writeAt = [](const QString& name, time_t seconds) {
        ::Test::writeFile(name, "{}");
        const timespec times[2] = {{seconds, 0}, {seconds, 0}};
        ::utimensat(AT_FDCWD, QFile::encodeName(name).constData(), times, 0);
    };
    writeAt(oldest, 1'000'000'000);
    writeAt(folder + u"/old-0"_s, 1'100'000'000);
    const QByteArray filler = QFile::encodeName(folder + u"/old-0"_s);
    for (int i = 1; i < Engine::AnalysisCache::kMaxEntries - 1; ++i)
        ASSERT_EQ(::link(filler.constData(), filler.constData() + QByteArray::number(i)), 0);
    Counting counting;
    Engine::AnalysisCache::kept(track, std::ref(counting));
    Engine::AnalysisCache::kept(track, std::ref(counting));
    EXPECT_EQ(counting.runs, 1);
    EXPECT_LT(entries().size(), Engine::AnalysisCache::kMaxEntries);
    EXPECT_FALSE(QFileInfo::exists(oldest));
}

// zelkor-tag through ffmpeg wrappers that log their runs; each count is of all runs so far.
TEST(AnalysisCache, aSecondRunMeasuresNothingUnlessFfmpegIsAnotherOrItIsTurnedOff) {
    ::Test::FreshHome home;
    const QString track = home.root() + u"/beat.wav"_s, clip = home.root() + u"/tag.wav"_s;
    ::Test::makeAudio(track, u"sine=frequency=220"_s, 6);
    ::Test::makeAudio(clip, u"sine=frequency=880"_s, 0.5, 8000, 1);
    const auto wrapper = [&](const QString& name) {
        return ::Test::resourcesWith(home.root() + u'/' + name,
                                     "echo \"$*\" >> \"$0.log\"\nexec \"$real\" \"$@\"\n");
    };
    const auto tag = [&](const QString& share, const QStringList& options = {}) {
        const auto run = ::Test::zelkorTag(options + QStringList{u"--tag"_s, clip, track},
                                           {u"ZELKOR_RESOURCES="_s + share});
        EXPECT_EQ(run.status, 0) << run.out.toStdString();
        const QStringList runs = QString::fromUtf8(::Test::readAll(share + u"/ffmpeg.log"_s))
                                     .split(u'\n', Qt::SkipEmptyParts);
        return runs.filter(u" -f null -"_s).size();
    };
    const QString first = wrapper(u"first"_s), other = wrapper(u"other"_s);
    awaitSettled(track);
    awaitSettled(clip);
    EXPECT_EQ(tag(first), 2);
    EXPECT_EQ(tag(first), 2);
    EXPECT_EQ(tag(other), 2);
    EXPECT_EQ(tag(first, {u"--no-cache"_s}), 4);
}
