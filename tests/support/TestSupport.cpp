// Shared test helpers over the real ffmpeg and real files.
#include "support/TestSupport.h"

#include "platform/Resources.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QThread>
#include <cstring>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace Test {

Process runProgram(const QString& program, const QStringList& args, const QStringList& environment,
                   int timeoutMs) {
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const QString& entry : environment)
        env.insert(entry.section(u'=', 0, 0), entry.section(u'=', 1));
    process.setProcessEnvironment(env);
    process.start(program, args);
    Process result;
    if (!process.waitForStarted(-1))
        return result;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished(-1);
    } else if (process.exitStatus() == QProcess::NormalExit) {
        result.status = process.exitCode();
    }
    result.out = QString::fromUtf8(process.readAllStandardOutput());
    result.err = QString::fromUtf8(process.readAllStandardError());
    return result;
}

Process zelkorTag(const QStringList& args, const QStringList& environment, int timeoutMs) {
    return runProgram(binary(u"zelkor-tag"_s), args, environment, timeoutMs);
}

QString resourcesWith(const QString& folder, const QByteArray& script) {
    const QString share = folder + u"/share"_s, real = Resources::dir();
    QDir().mkpath(share);
    for (const QString& entry : QDir(real).entryList(QDir::AllEntries | QDir::NoDotAndDotDot))
        if (entry != u"ffmpeg"_s)
            QFile::link(real + u'/' + entry, share + u'/' + entry);
    writeFile(share + u"/ffmpeg"_s, "#!/bin/sh\nreal=" + systemFFmpeg().toUtf8() + '\n' + script,
              true);
    return share;
}

bool waitUntil(const std::function<bool()>& done, int ms) {
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < ms) {
        QCoreApplication::processEvents(); // nothing to do without an application
        QThread::msleep(5);
    }
    return done();
}

Tmpfs::Tmpfs(const QString& at, const QString& size)
    : m_at(at) {
    QDir().mkpath(at);
    const Process mount =
        runProgram(u"mount"_s, {u"-t"_s, u"tmpfs"_s, u"-o"_s, u"size="_s + size, u"tmpfs"_s, at});
    if (mount.status != 0)
        m_why = "cannot mount a small tmpfs here (needs root and mount rights): " +
                mount.err.toStdString();
}

Tmpfs::~Tmpfs() {
    if (mounted())
        runProgram(u"umount"_s, {m_at});
}

void ffmpeg(const QStringList& args) {
    const Process run = runProgram(
        systemFFmpeg(), u"-hide_banner -nostdin -y -loglevel error"_s.split(u' ') + args);
    ASSERT_EQ(run.status, 0) << run.err.toStdString();
}

QString makeAudio(const QString& path, const QString& source, double seconds, int rate,
                  int channels) {
    QDir().mkpath(QFileInfo(path).path());
    ffmpeg({u"-f"_s, u"lavfi"_s, u"-i"_s,
            u"%1:sample_rate=%2:duration=%3"_s.arg(source).arg(rate).arg(seconds), u"-ac"_s,
            QString::number(channels), path});
    return path;
}

std::vector<double> samples(const QString& path, int rate, int channels) {
    QProcess process;
    process.start(systemFFmpeg(),
                  u"-hide_banner -nostdin -loglevel error -i"_s.split(u' ') +
                      QStringList{path, u"-f"_s, u"f64le"_s, u"-ar"_s, QString::number(rate),
                                  u"-ac"_s, QString::number(channels), u"-"_s});
    process.waitForFinished(-1);
    const QByteArray bytes = process.readAllStandardOutput();
    std::vector<double> values(static_cast<std::size_t>(bytes.size()) / sizeof(double));
    std::memcpy(values.data(), bytes.constData(), values.size() * sizeof(double));
    return values;
}

QByteArray readAll(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString tree(const QString& folder) {
    return runProgram(u"/bin/sh"_s,
                      {u"-c"_s, u"cd \"$0\" && find . -type f | LC_ALL=C sort"_s, folder})
        .out;
}

QString writeFile(const QString& path, const QByteArray& bytes, bool executable) {
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
    file.write(bytes);
    file.close();
    if (executable)
        file.setPermissions(file.permissions() | QFileDevice::ExeOwner | QFileDevice::ExeGroup |
                            QFileDevice::ExeOther);
    return path;
}

} // namespace Test
