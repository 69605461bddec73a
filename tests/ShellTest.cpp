// zelkor-tag at a terminal and in scripts: reasons, summaries, colour, -0, -v,
// dry runs, names that are not UTF-8, the library left alone, and the README's
// recipe for many hosts.
#include "base/Names.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QRegularExpression>
#include <QStandardPaths>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

using ::Test::zelkorTag;

const QString kInvalid = u"CAN'T READ FILE: INVALID DATA FOUND WHEN PROCESSING INPUT"_s;

class Shell : public ::Test::TempFolder {
protected:
    void SetUp() override {
        ::Test::makeAudio(clip, u"sine=frequency=880"_s, 0.5, 22050, 1);
        QDir().mkpath(path(u"it's sub"_s));
        ::Test::makeAudio(path(u"it's sub/a.wav"_s), u"sine=frequency=220"_s, 1);
        ::Test::writeFile(path(u"it's sub/._a.wav"_s), "Mac OS X sidecar");
        ::Test::writeFile(path(u"damaged.wav"_s), "x");
    }
    // zelkor-tag run by a shell in the test's folder, "Z" standing for it.
    ::Test::Process sh(const QString& line, const QStringList& environment = {}) {
        return ::Test::runProgram(
            u"/bin/sh"_s,
            {u"-c"_s, u"cd \"$1\" && "_s + line, ::Test::binary(u"zelkor-tag"_s), dir.path()},
            environment);
    }
    ::Test::FreshHome home;
    const QString clip = path(u"tag.wav"_s);
};

} // namespace

// Every failure says why; "._" sidecars are no tracks; -0 reads find's NUL list;
// -v's command lines run as pasted. A clip that cannot be used is one line and
// nothing else runs.
TEST_F(Shell, failuresSayWhyAndCommandsPasteIntoAShell) {
    const auto run = sh(u"printf \"it's sub\\0damaged.wav\\0\" | \"$0\" -v0 -t tag.wav -"_s);
    EXPECT_EQ(run.out, u"a.wav  1 TAGS  OK  -> "_s + path(u"it's sub/a (Tagged).wav"_s) +
                           u"\ndamaged.wav  "_s + kInvalid + u'\n');
    EXPECT_EQ(run.status, 1);
    const QStringList commands = run.err.split(u'\n', Qt::SkipEmptyParts);
    ASSERT_EQ(commands.size(), 4) << run.err.toStdString(); // clip, track, render, damaged
    EXPECT_TRUE(commands[1].contains(u"-i '"_s + path(u"it'\\''s sub/a.wav'"_s)));
    EXPECT_EQ(::Test::runProgram(u"/bin/sh"_s, {u"-c"_s, commands[1]}).status, 0);

    const auto badClip = zelkorTag({u"-t"_s, path(u"damaged.wav"_s), path(u"it's sub"_s)});
    EXPECT_EQ(badClip.out + QString::number(badClip.status),
              path(u"damaged.wav"_s) + u"  CAN'T USE TAG: "_s + kInvalid + u"\n1"_s);
    EXPECT_EQ(QDir(path(u"it's sub"_s)).entryList(QDir::Files | QDir::Hidden).size(), 3);
}

// On a terminal: failures in red unless NO_COLOR or --color=never, and a summary
// after more than one track; neither in a pipe, where --color=always still colours.
TEST_F(Shell, aTerminalGetsColourAndASummaryAPipeNeither) {
    const auto onTerminal = [&](const QString& options) {
        return ::Test::runProgram(
                   u"script"_s,
                   {u"-qec"_s,
                    u"cd '%1' && %2 '%3' -t tag.wav %4 damaged.wav 'it'\\''s sub'"_s.arg(
                        dir.path(), options.section(u'|', 0, 0), ::Test::binary(u"zelkor-tag"_s),
                        options.section(u'|', 1)),
                    u"/dev/null"_s})
            .out;
    };
    const QString red = u"\x1b[31mdamaged.wav  "_s + kInvalid + u"\x1b[0m\r\n"_s;
    const QRegularExpression summary(
        u"\x1b\\[K1 WRITTEN  0 SKIPPED  1 FAILED  IN \\d+\\.\\d S\r\n$"_s);
    const QString coloured = onTerminal(u"|"_s);
    EXPECT_TRUE(coloured.contains(red)) << coloured.toStdString();
    EXPECT_TRUE(summary.match(coloured).hasMatch()) << coloured.toStdString();
    for (const QString& options : {u"NO_COLOR=1|"_s, u"|--color=never"_s}) {
        const QString plain = onTerminal(options);
        EXPECT_TRUE(plain.contains(u"damaged.wav  "_s + kInvalid + u"\r\n"_s) &&
                    summary.match(plain).hasMatch())
            << plain.toStdString();
    }
    EXPECT_EQ(onTerminal(u"|-q"_s), red);

    const auto piped = zelkorTag(
        {u"-t"_s, clip, u"--color=always"_s, path(u"damaged.wav"_s), path(u"it's sub/a.wav"_s)});
    EXPECT_TRUE(piped.out.startsWith(red.chopped(2) + u'\n') && piped.err.isEmpty())
        << piped.out.toStdString() << piped.err.toStdString();
}

// -n -q prints what a run would write, from the analyses the real run kept. JSON
// names a file that is not UTF-8 by its bytes too.
TEST_F(Shell, aQuietDryRunPrintsItsPlanAndJsonGivesEveryNameItsBytes) {
    const QString env = u"ZELKOR_RESOURCES="_s + ::Test::resourcesWith(dir.path(), R"(
echo "$*" >> "$(dirname "$0")/runs"
exec "$real" "$@"
)");
    ASSERT_EQ(zelkorTag({u"-t"_s, clip, path(u"it's sub"_s)}, {env}).status, 0);
    const auto dry = zelkorTag({u"-nqt"_s, clip, path(u"it's sub"_s)}, {env});
    EXPECT_TRUE(dry.out.startsWith(u"a.wav  DRY RUN: 1 TAGS AT 0.5 S"_s)) << dry.out.toStdString();

    const QByteArray latin1 = Names::encode(dir.path()) + "/caf\xe9.wav";
    const auto json = sh(u"n=$(printf 'caf\\351.wav') && cp \"it's sub/a.wav\" \"$n\" && "
                         "\"$0\" --json -t tag.wav \"$n\" tag.wav"_s);
    const QStringList lines = json.out.split(u'\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 2) << json.out.toStdString();
    const QJsonObject odd = QJsonDocument::fromJson(lines[0].toUtf8()).object();
    EXPECT_EQ(QByteArray::fromBase64(odd[u"track_bytes"_s].toString().toLatin1()), latin1);
    const QByteArray output = QByteArray::fromBase64(odd[u"output_bytes"_s].toString().toLatin1());
    EXPECT_EQ(output, Names::encode(dir.path()) + "/caf\xe9 (Tagged).wav");
    EXPECT_EQ(QJsonDocument::fromJson(lines[1].toUtf8()).object().keys().filter(u"_bytes"_s),
              QStringList());
}

// --list-tags, which completion runs, shows the library as the first run will
// seed it and writes nothing.
TEST_F(Shell, listingWritesNothing) {
    const auto listed = zelkorTag({u"--list-tags"_s});
    EXPECT_EQ(listed.out, u"* Produced by Zelkor.wav\n"_s);
    EXPECT_FALSE(QFileInfo::exists(home.dataHome()) || QFileInfo::exists(home.configHome()));
}

// The README's recipe for many hosts, word for word, over two slots of this
// machine whose homes hold other clips, intervals and levels: every track once,
// the top folder's too, each with the pinned clip and interval, hidden folders left out.
TEST_F(Shell, theReadmeRecipeTagsEveryTrackOnceWithOneClip) {
    if (QStandardPaths::findExecutable(u"parallel"_s).isEmpty())
        GTEST_SKIP() << "GNU parallel is not installed (scripts/deps)";
    const QString readme = QString::fromUtf8(::Test::readAll(u"" ZELKOR_SOURCE_DIR "/README.md"_s));
    const qsizetype from = readme.indexOf(u"\nopts="_s);
    ASSERT_GT(from, 0);
    QString recipe = readme.mid(from, readme.indexOf(u"```"_s, from) - from);
    recipe.replace(u"/srv/masters"_s, path(u"masters"_s))
        .replace(u"/srv/previews"_s, path(u"previews"_s))
        .replace(u"/srv/tags/voice.wav"_s, clip)
        .replace(u"2/host1,2/host2,:"_s, u"2/:"_s);
    QDir().mkpath(path(u"bin"_s));
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
        QDir().mkpath(QFileInfo(path(u"masters/"_s + QLatin1String(track))).path());
        ::Test::makeAudio(path(u"masters/"_s + QLatin1String(track)), u"sine=frequency=220"_s, 1);
    }
    const auto run =
        ::Test::runProgram(u"/bin/bash"_s, {u"-c"_s, recipe},
                           {u"PATH="_s + path(u"bin:"_s) + qEnvironmentVariable("PATH")});
    EXPECT_EQ(run.status, 0) << run.out.toStdString() << run.err.toStdString();
    QStringList written;
    for (QDirIterator it(path(u"previews"_s), QDir::Files | QDir::Hidden,
                         QDirIterator::Subdirectories);
         it.hasNext();)
        written << QDir(path(u"previews"_s)).relativeFilePath(it.next());
    written.sort();
    EXPECT_EQ(written, (QStringList{u"2024/Night (Tagged).mp3"_s, u"2024/deep/Loop (Tagged).mp3"_s,
                                    u"2025/B (Tagged).mp3"_s, u"Intro (Tagged).mp3"_s}));
    const QStringList used =
        QString::fromUtf8(::Test::readAll(path(u"used"_s))).split(u'\n', Qt::SkipEmptyParts);
    EXPECT_EQ(used.size(), 3);
    for (const QString& line : used)
        EXPECT_TRUE(line.contains(u"-t "_s + clip + u" -i 30 -l MID "_s)) << line.toStdString();
}

// Every option --help lists is in the man page and the completions; the window's
// man page lists its options and the statuses it exits with.
TEST_F(Shell, manPagesAndCompletionsListWhatHelpLists) {
    const auto source = [](const char* file) {
        return QString::fromUtf8(
                   ::Test::readAll(u"" ZELKOR_SOURCE_DIR "/packaging/"_s + QLatin1String(file)))
            .remove(u'\\');
    };
    const QString man = source("man/zelkor-tag.1.in"), bash = source("completions/zelkor-tag.bash"),
                  fish = source("completions/zelkor-tag.fish");
    const QString help = zelkorTag({u"--help"_s}).out;
    for (auto it = QRegularExpression(u"  (--[a-z-]+)"_s).globalMatch(help); it.hasNext();) {
        const QString option = it.next().captured(1);
        EXPECT_TRUE(man.contains(option) && bash.contains(option) &&
                    (option == u"--"_s || fish.contains(u"-l "_s + option.mid(2))))
            << option.toStdString();
    }
    const QString window = source("man/zelkor.1.in");
    const QString statuses = window.mid(window.indexOf(u".SH EXIT STATUS"_s));
    for (const QString& said :
         {u"--help"_s, u"--version"_s, u".B --\n"_s, u".B 1\nThe window could not open"_s,
          u"or the snapshot could not be written"_s, u".B 2\nA usage error"_s})
        EXPECT_TRUE(window.contains(said) && statuses.contains(said.left(4))) << said.toStdString();
}
