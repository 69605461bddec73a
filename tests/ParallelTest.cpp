// Tagging several tracks at once: the same files as one at a time, lines in
// track order, one analysis of the clip, and never two jobs on one output name.
#include "engine/Engine.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFileInfo>
#include <gtest/gtest.h>
#include <thread>

using namespace Qt::StringLiterals;

namespace {

class Parallel : public testing::Test {
protected:
    void SetUp() override {
        clip = dir.filePath(u"tag.wav"_s);
        ::Test::makeAudio(clip, u"sine=frequency=1200"_s, 0.8, 22050, 1);
        for (int i = 0; i < 4; ++i) {
            tracks << dir.filePath(u"beat %1.wav"_s.arg(i));
            ::Test::makeAudio(tracks.last(), u"sine=frequency=%1"_s.arg(200 + 50 * i), 12 + i);
        }
    }
    QTemporaryDir dir;
    QString clip;
    QStringList tracks;
};

// A resources folder whose ffmpeg logs each argument list, then runs the real one.
QString loggingResources(const QTemporaryDir& dir) {
    const QString resources = dir.filePath(u"share"_s);
    QDir().mkpath(resources);
    ::Test::writeFile(resources + u"/ffmpeg"_s,
                      "#!/bin/sh\necho \"$*\" >> \"$(dirname \"$0\")/runs\"\nexec " +
                          ::Test::systemFFmpeg().toUtf8() + " \"$@\"\n",
                      true);
    return resources;
}

} // namespace

TEST_F(Parallel, jobsWriteWhatOneAtATimeWritesInTrackOrder) {
    const QTemporaryDir tools;
    const QString resources = loggingResources(tools);
    const QStringList env{u"ZELKOR_RESOURCES="_s + resources};
    const auto tagAll = [&](int jobs) {
        return ::Test::runProgram(::Test::binary(u"zelkor-tag"_s),
                                  QStringList{u"--tag"_s, clip, u"--jobs"_s, QString::number(jobs),
                                              u"--interval"_s, u"5"_s} +
                                      tracks,
                                  env);
    };

    const ::Test::Process one = tagAll(1);
    ASSERT_EQ(one.status, 0) << one.err.toStdString();
    const auto output = [&](int i) { return dir.filePath(u"beat %1 (Tagged).wav"_s.arg(i)); };
    std::vector<QByteArray> sequential;
    for (int i = 0; i < tracks.size(); ++i) {
        sequential.push_back(::Test::readAll(output(i)));
        QFile::remove(output(i));
    }
    QFile::remove(resources + u"/runs"_s);

    const ::Test::Process four = tagAll(4);
    ASSERT_EQ(four.status, 0) << four.err.toStdString();
    EXPECT_EQ(four.out, one.out); // same names, same counts, same order
    for (int i = 0; i < tracks.size(); ++i)
        EXPECT_EQ(::Test::readAll(output(i)), sequential[static_cast<std::size_t>(i)]) << i;
    const QStringList runs =
        QString::fromUtf8(::Test::readAll(resources + u"/runs"_s)).split(u'\n', Qt::SkipEmptyParts);
    EXPECT_EQ(runs.filter(u"-i "_s + clip + u" -af"_s).size(), 1); // the clip measured once
    EXPECT_EQ(runs.size(), 1 + 2 * tracks.size());
}

TEST_F(Parallel, oneTrackListedTwiceGetsTwoOutputs) {
    const ::Test::Process run =
        ::Test::runProgram(::Test::binary(u"zelkor-tag"_s),
                           {u"--tag"_s, clip, u"--jobs"_s, u"2"_s, tracks[0], tracks[0]});
    ASSERT_EQ(run.status, 0) << run.err.toStdString();
    EXPECT_TRUE(QFileInfo::exists(dir.filePath(u"beat 0 (Tagged).wav"_s)));
    EXPECT_TRUE(QFileInfo::exists(dir.filePath(u"beat 0 (Tagged) (2).wav"_s)));
}

// Run in-process too, where the thread sanitizer sees the engine's shared state.
TEST_F(Parallel, engineCallsFromManyThreadsShareOneClipAnalysisAndDistinctNames) {
    std::vector<Engine::TagInfo> infos(4);
    std::vector<QString> outputs(4);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            infos[i] = Engine::info(clip);
            outputs[i] = Engine::process(tracks[0], clip, 5, -5).output;
        });
    for (std::thread& thread : threads)
        thread.join();
    for (const Engine::TagInfo& info : infos) {
        EXPECT_EQ(info.lufs, infos[0].lufs);
        EXPECT_EQ(info.length, infos[0].length);
    }
    std::sort(outputs.begin(), outputs.end());
    EXPECT_EQ(std::unique(outputs.begin(), outputs.end()), outputs.end());
    EXPECT_TRUE(QFileInfo::exists(dir.filePath(u"beat 0 (Tagged) (4).wav"_s)));
}
