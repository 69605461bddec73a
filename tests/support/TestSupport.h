// What the tests share: temporary folders, generated audio, running programs
// and reading decoded samples back with the real ffmpeg.
#pragma once

#include <QJsonDocument>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <functional>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <vector>

// Readable QStrings and JSON objects in test failures.
inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}
inline void PrintTo(const QJsonObject& object, std::ostream* out) {
    *out << QJsonDocument(object).toJson(QJsonDocument::Compact).constData();
}

namespace Test {

// The system ffmpeg the build links to; tests use it to make and read audio.
inline QString systemFFmpeg() {
    return QStringLiteral("/usr/bin/ffmpeg");
}
inline QString binary(const QString& name) {
    return QStringLiteral(ZELKOR_BIN_DIR "/") + name;
}

struct Process {
    int status = -1;
    QString out;
    QString err;
};
// Runs a program directly (no shell); `environment` entries are "NAME=VALUE" added to ours.
// One still running after `timeoutMs` is killed, its status then -1.
Process runProgram(const QString& program, const QStringList& args,
                   const QStringList& environment = {}, int timeoutMs = -1);

// zelkor-tag, as the shell would run it.
Process zelkorTag(const QStringList& args, const QStringList& environment = {}, int timeoutMs = -1);

// Makes `folder`/share, a resources folder holding the build's own resources
// but whose ffmpeg is `script`, a shell script in which $real names the real
// ffmpeg; returns its path, for ZELKOR_RESOURCES.
QString resourcesWith(const QString& folder, const QByteArray& script);

// Waits until `done` holds or `ms` have passed, running the event loop where
// there is one; returns `done()`.
bool waitUntil(const std::function<bool()>& done, int ms);

// A small tmpfs mounted at `at` (made if missing) while this lives. Mounting
// needs root and mount rights: a test without them skips with why().
class Tmpfs {
public:
    Tmpfs(const QString& at, const QString& size);
    ~Tmpfs();
    Tmpfs(const Tmpfs&) = delete;
    Tmpfs& operator=(const Tmpfs&) = delete;
    bool mounted() const { return m_why.empty(); }
    const std::string& why() const { return m_why; }

private:
    QString m_at;
    std::string m_why;
};

// ffmpeg with "-hide_banner -nostdin -y -loglevel error" and `args`; fails the test on error.
void ffmpeg(const QStringList& args);

// Writes `seconds` of a lavfi source (e.g. "sine=frequency=440") to `path`,
// at `rate` Hz with `channels` channels; the codec follows the extension. Folders are made.
QString makeAudio(const QString& path, const QString& source, double seconds, int rate = 44100,
                  int channels = 2); // returns `path`

// Decodes a file to interleaved 64-bit float samples at the given rate and channel count.
std::vector<double> samples(const QString& path, int rate, int channels);

QByteArray readAll(const QString& path); // empty when unreadable
// The files below `folder`, "./a/b" a line, sorted, so that a listing compares as a whole.
QString tree(const QString& folder);
// A text file kept in tests/fixtures.
inline QString fixture(const QString& name) {
    return QString::fromUtf8(readAll(QStringLiteral(ZELKOR_SOURCE_DIR "/tests/fixtures/") + name));
}
// Writes `bytes` to `path`, its folders made; returns `path`.
QString writeFile(const QString& path, const QByteArray& bytes, bool executable = false);

// A test with a temporary folder of its own, gone with the test.
class TempFolder : public testing::Test {
protected:
    QTemporaryDir dir;
    QString path(const QString& name) const { return dir.filePath(name); }
};

} // namespace Test
