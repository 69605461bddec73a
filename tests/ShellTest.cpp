// zelkor-tag in scripts: reasons, -v, -0, dry runs, odd names, the README's recipe.
#include "base/Names.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

using ::Test::zelkorTag;

const QString kInvalid = u"CAN'T READ FILE: INVALID DATA FOUND WHEN PROCESSING INPUT"_s;

class Shell : public ::Test::HomeWithClip {
protected:
    void SetUp() override {
        HomeWithClip::SetUp();
        ::Test::makeAudio(path(u"it's sub/a.wav"_s), u"sine=frequency=220"_s, 1);
        ::Test::writeFile(path(u"it's sub/._a.wav"_s), "Mac OS X sidecar");
        for (const QString& name : {u"damaged.wav"_s, u"notes.txt"_s, u"old (Tagged).wav"_s})
            ::Test::writeFile(path(name), "x");
    }
    // zelkor-tag, as $0, run by a shell in the test's folder.
    ::Test::Process sh(const QString& line) {
        return ::Test::runProgram(u"/bin/sh"_s, {u"-c"_s, u"cd \"$1\" && "_s + line,
                                                 ::Test::binary(u"zelkor-tag"_s), home.root()});
    }
};

} // namespace

// Failures say why, in their PATH's place; "-" reads PATHs by line; "._" files are no
// tracks; -v's commands paste into a shell. An unusable clip ends the run in one line.
TEST_F(Shell, failuresSayWhyAndCommandsPasteIntoAShell) {
    const auto run = sh(u"printf \"notes.txt\\n\\nit's sub\\r\\ndamaged.wav\\n\" | \"$0\" -v -t "
                        "voice.wav /typo - 'old (Tagged).wav'"_s);
    EXPECT_EQ(run.out + QString::number(run.status),
              u"/typo  NOT FOUND\nnotes.txt  NOT A TRACK\na.wav  1 TAGS  OK  -> "_s +
                  path(u"it's sub/a (Tagged).wav"_s) + u"\ndamaged.wav  "_s + kInvalid +
                  u"\nold (Tagged).wav  NOT A TRACK\n1"_s);
    const QStringList pasted =
        run.err.split(u'\n').filter(u"-i '"_s + path(u"it'\\''s sub/a.wav'"_s));
    ASSERT_FALSE(pasted.isEmpty()) << run.err.toStdString();
    EXPECT_EQ(::Test::runProgram(u"/bin/sh"_s, {u"-c"_s, pasted[0]}).status, 0);

    const auto badClip = zelkorTag({u"-t"_s, path(u"damaged.wav"_s), path(u"it's sub"_s)});
    EXPECT_EQ(badClip.out + QString::number(badClip.status),
              path(u"damaged.wav"_s) + u"  CAN'T USE TAG: "_s + kInvalid + u"\n1"_s);
    // The track, its sidecar, its output, and the hidden output of the pasted render.
    EXPECT_EQ(QDir(path(u"it's sub"_s)).entryList(QDir::Files | QDir::Hidden).size(), 4);
}

// -n -q prints its plan, from -0's NUL list; JSON gives non-UTF-8 names' bytes.
TEST_F(Shell, aQuietDryRunPrintsItsPlanAndJsonGivesEveryNameItsBytes) {
    const auto dry = sh(u"printf \"it's sub\\0damaged.wav\\0\" | \"$0\" -0nqt voice.wav -"_s);
    EXPECT_TRUE(dry.out.startsWith(u"a.wav  DRY RUN: 1 TAGS AT 0.5 S"_s) &&
                dry.out.endsWith(u"\ndamaged.wav  "_s + kInvalid + u'\n'))
        << dry.out.toStdString();

    // The same name as a clip: added, selected and used by its bytes.
    const auto json =
        sh(u"n=$(printf 'caf\\351.wav') && cp \"it's sub/a.wav\" \"$n\" && "
           "\"$0\" --add-tag \"$n\" >/dev/null && \"$0\" --select-tag \"$n\" >/dev/null && "
           "\"$0\" --json \"$n\" voice.wav; rm caf*"_s);
    const QStringList lines = json.out.split(u'\n');
    ASSERT_EQ(lines.size(), 3) << json.out.toStdString();
    const auto bytes = [&](int line, const QString& key) {
        const QJsonObject object = QJsonDocument::fromJson(lines[line].toUtf8()).object();
        return QByteArray::fromBase64(object[key].toString().toLatin1()) + '|';
    };
    const QByteArray at = Names::encode(home.root()) + "/caf\xe9";
    EXPECT_EQ(bytes(0, u"track_bytes"_s) + bytes(0, u"output_bytes"_s) +
                  bytes(1, u"track_bytes"_s) + bytes(1, u"output_bytes"_s),
              at + ".wav|" + at + " (Tagged).wav|||");
    EXPECT_TRUE(bytes(1, u"clip_bytes"_s).endsWith("/caf\xe9.wav|"));
}

// --list-tags, which completion runs, shows the seeded library, writing nothing. A first
// run waits while another one is copying the seeded clips in, and then finds them.
TEST_F(Shell, listingWritesNothingAndAFirstRunWaitsForTheSeeding) {
    EXPECT_EQ(zelkorTag({u"--list-tags"_s}).out, u"* Produced by Zelkor.wav\n"_s);
    EXPECT_FALSE(QFileInfo::exists(home.dataHome()) || QFileInfo::exists(home.configHome()));

    QDir().mkpath(home.tagsDir());
    ::Test::writeFile(home.preferencesPath(), R"({"seeded":true})");
    const int seeding =
        ::open(Names::encode(home.tagsDir()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(::flock(seeding, LOCK_EX), 0);
    QProcess first;
    first.start(::Test::binary(u"zelkor-tag"_s), {u"-nq"_s, path(u"it's sub/a.wav"_s)});
    first.waitForFinished(500);
    QFile::copy(clip, home.tagsDir() + u"/tag.wav"_s);
    ::close(seeding);
    ASSERT_TRUE(first.waitForFinished(30'000));
    EXPECT_TRUE(first.readAllStandardOutput().startsWith("a.wav  DRY RUN: "));
}

// The README's recipe, word for word, over two slots whose homes hold other
// settings: every track once with the pinned clip and interval, hidden ones left out.
TEST_F(Shell, theReadmeRecipeTagsEveryTrackOnceWithOneClip) {
    if (QStandardPaths::findExecutable(u"parallel"_s).isEmpty())
        GTEST_SKIP() << "GNU parallel is not installed (scripts/deps)";
    const QString readme = QString::fromUtf8(::Test::readAll(u"" ZELKOR_SOURCE_DIR "/README.md"_s));
    const qsizetype from = readme.indexOf(u"\nopts="_s);
    QString recipe = readme.mid(from, readme.indexOf(u"```"_s, from) - from);
    recipe.replace(u"/srv/masters"_s, path(u"masters"_s))
        .replace(u"/srv/previews"_s, path(u"previews"_s))
        .replace(u"/srv/tags/voice.wav"_s, clip)
        .replace(u"2/host1,2/host2,:"_s, u"2/:"_s);
    // Each slot's home holds a library whose selected clip is gone, and 60 s at HIGH.
    ::Test::writeFile(path(u"bin/zelkor-tag"_s),
                      R"(#!/bin/sh
home="$(dirname "$0")/../home$PARALLEL_JOBSLOT"
mkdir -p "$home/config/ODRAVEX Zelkor" "$home/data/ODRAVEX Zelkor/Tags"
echo '{"seeded":true,"tag":"gone.wav","interval":3,"level":2}' \
  > "$home/config/ODRAVEX Zelkor/preferences.json"
echo "$*" >> "$(dirname "$0")/../used"
HOME="$home" XDG_CONFIG_HOME="$home/config" XDG_DATA_HOME="$home/data" exec ")" +
                          Names::encode(::Test::binary(u"zelkor-tag"_s)) + "\" \"$@\"\n",
                      true);
    for (const char* track :
         {"Intro.wav", "2024/Night.wav", "2024/deep/Loop.wav", "2025/B.wav", ".hidden/H.wav"}) {
        ::Test::makeAudio(path(u"masters/"_s + QLatin1String(track)), u"sine=frequency=220"_s, 1);
    }
    const auto run =
        ::Test::runProgram(u"/bin/bash"_s, {u"-c"_s, recipe},
                           {u"PATH="_s + path(u"bin:"_s) + qEnvironmentVariable("PATH")});
    EXPECT_EQ(run.status, 0) << run.out.toStdString() << run.err.toStdString();
    EXPECT_EQ(
        ::Test::tree(path(u"previews"_s)),
        u"./2024/Night (Tagged).mp3\n./2024/deep/Loop (Tagged).mp3\n./2025/B (Tagged).mp3\n./Intro (Tagged).mp3\n"_s);
    const QString used = QString::fromUtf8(::Test::readAll(path(u"used"_s)));
    EXPECT_EQ(used.count(u"-t "_s + clip + u" -i 30 -l MID "_s), used.count(u'\n'));
    EXPECT_EQ(used.count(u'\n'), 3);
}

// The manual names every option --help gives.
TEST(ManPage, namesEveryOptionTheHelpGives) {
    const QString help = zelkorTag({u"--help"_s}).out;
    const QString manual =
        QString::fromUtf8(::Test::readAll(u"" ZELKOR_SOURCE_DIR "/packaging/man/zelkor-tag.1.in"_s))
            .remove(u'\\');
    static const QRegularExpression option(uR"(^ +(?:(-\w), )? *(--[\w-]*))"_s,
                                           QRegularExpression::MultilineOption);
    QStringList names;
    for (const auto& match : option.globalMatch(help))
        names << match.captured(1) << match.captured(2);
    names.removeAll(QString());
    for (const QString& name : names)
        EXPECT_TRUE(manual.contains(name)) << name.toStdString();
    EXPECT_GT(names.size(), 30);
}
