// What a run never claims falsely and never waits on for ever.
#include "engine/Analysis.h"
#include "engine/AnalysisCache.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

using ::Test::readAll;
using ::Test::zelkorTag;

using Reliability = ::Test::HomeWithClip;

} // namespace

// A clip rewritten under its name is measured again, within one process too. Cache
// entries another user could have planted (a FIFO, another owner's, a forged one in a
// folder others can write) are passed by, never opened far enough to hang on.
TEST_F(Reliability, aRewrittenClipAndOnlyTheUsersOwnCacheEntriesAreRead) {
    EXPECT_EQ(Engine::info(clip).length, 0.5);
    const QByteArray longer = QFile::encodeName(path(u"longer.wav"_s));
    ::Test::makeAudio(path(u"longer.wav"_s), u"sine=frequency=1000"_s, 2, 8000, 1);
    ASSERT_EQ(::rename(longer.constData(), QFile::encodeName(clip).constData()), 0);
    EXPECT_EQ(Engine::info(clip).length, 2);
    const QString track = path(u"beat.wav"_s);
    ::Test::makeAudio(track, u"sine=frequency=220"_s, 3);
    ASSERT_TRUE(::Test::waitUntil([&] { return Engine::AnalysisCache::settled(track); }, 10'000));
    const QStringList dryRun{u"--tag"_s, clip, u"--dry-run"_s, track};
    const QString measured = zelkorTag(dryRun).out, folder = Engine::AnalysisCache::folder();
    EXPECT_EQ(QFile::permissions(folder).toInt() & 0x77, 0);
    QList<std::pair<QString, QByteArray>> entries; // the clip's and the track's, forged
    for (const QString& name : QDir(folder).entryList(QDir::Files))
        entries.append({folder + u'/' + name,
                        readAll(folder + u'/' + name).replace("\"lufs\":", "\"lufs\":-60,\"x\":")});
    ASSERT_EQ(entries.size(), 2);
    enum Plant { fifo, otherOwner, openFolder };
    for (const Plant plant : {fifo, otherOwner, openFolder}) {
        SCOPED_TRACE(plant);
        ::chmod(QFile::encodeName(folder).constData(), plant == openFolder ? 0777 : 0700);
        for (const auto& [entry, forged] : entries) {
            QFile::remove(entry);
            if (plant == fifo)
                ASSERT_EQ(::mkfifo(QFile::encodeName(entry).constData(), 0600), 0);
            else
                ::Test::writeFile(entry, forged);
            ASSERT_TRUE(plant != otherOwner ||
                        ::chown(QFile::encodeName(entry).constData(), 65534, 65534) == 0);
        }
        EXPECT_EQ(zelkorTag(dryRun, {}, 30'000).out, measured);
    }
}

// With few descriptors, or processes (ffmpeg's threads count; root is not bound), 64
// tracks asked at once run a few at a time and all are tagged.
TEST_F(Reliability, tooFewDescriptorsOrProcessesRunFewerTracksAtOnce) {
    QTemporaryDir shared; // another user's too
    ::chmod(QFile::encodeName(shared.path()).constData(), 0777);
    QStringList tag{::Test::binary(u"zelkor-tag"_s), u"--no-cache"_s, u"-j"_s, u"64"_s, u"--tag"_s,
                    shared.filePath(u"voice.wav"_s)};
    ASSERT_TRUE(QFile::copy(clip, tag.last()));
    for (int i = 0; i < 6; ++i)
        ::Test::makeAudio(tag.emplaceBack(shared.filePath(u"beat %1.wav"_s.arg(i))),
                          u"sine=frequency=220"_s, 1);
    for (const QString& limit :
         {u"prlimit --nofile=24"_s,
          u"setpriv --reuid=65534 --regid=65534 --clear-groups prlimit --nproc=12"_s}) {
        SCOPED_TRACE(limit.toStdString());
        if (limit.startsWith(u"setpriv"_s) && ::geteuid() != 0)
            continue;
#ifdef __SANITIZE_ADDRESS__
        // The sanitizer's runtime takes descriptors of its own: 24 is not a limit there.
        if (limit.contains(u"nofile"_s))
            continue;
#endif
        for (const QString& track : tag.mid(6))
            QFile::remove(QString(track).replace(u".wav"_s, u" (Tagged).wav"_s));
        const QStringList args = limit.split(u' ') + tag;
        const auto run = ::Test::runProgram(args[0], args.mid(1), {u"HOME="_s + shared.path()});
        EXPECT_EQ(run.status, 0) << run.out.toStdString() << run.err.toStdString();
        EXPECT_EQ(run.out.count(u"1 TAGS  OK"_s), 6) << run.out.toStdString();
    }
}
