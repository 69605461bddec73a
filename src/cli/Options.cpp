// Parsing zelkor-tag's options: long forms, short forms that combine ("-rj4"),
// and values after a blank or "="; every refusal names the option and the value.
#include "cli/Options.h"
#include "base/CommandLine.h"
#include "model/Settings.h"

#include <cmath>
#include <functional>
#include <vector>

namespace Cli {

namespace {

using Problem = std::optional<QString>; // why a value is refused

std::optional<double> numberIn(const QString& text, double low, double high) {
    bool ok = false;
    const double value = text.trimmed().toDouble(&ok);
    if (!ok || !std::isfinite(value) || value < low || value > high)
        return std::nullopt;
    return value;
}

std::optional<double> levelNamed(const QString& text) {
    for (const Settings::Level& level : Settings::levels)
        if (text.compare(level.name, Qt::CaseInsensitive) == 0)
            return level.db;
    return numberIn(text, kMinLevel, kMaxLevel);
}

Problem unless(bool ok, const char* rule) {
    return ok ? Problem() : Problem(QString::fromLatin1(rule));
}

Problem existing(Options& options, Existing wanted) {
    if (options.existing != Existing::nextNumber && options.existing != wanted)
        return QStringLiteral("--skip-existing and --replace exclude each other");
    options.existing = wanted;
    return {};
}

struct Option {
    CommandLine::Option spelled;
    std::function<Problem(Options&, const QString&)> apply;
};

const std::vector<Option>& options() {
    using O = Options&;
    using V = const QString&;
    static const std::vector<Option> all{
        {'t', QLatin1String("tag"), true, [](O o, V v) { return o.tag = v, Problem(); }},
        {'i', QLatin1String("interval"), true,
         [](O o, V v) {
             o.interval = numberIn(v, kMinInterval, kMaxInterval);
             return unless(o.interval.has_value(), "give seconds from 5 to 600");
         }},
        {'l', QLatin1String("level"), true,
         [](O o, V v) {
             o.levelDB = levelNamed(v);
             return unless(o.levelDB.has_value(), "give LOW, MID, HIGH or dB from -40 to 12");
         }},
        {'j', QLatin1String("jobs"), true,
         [](O o, V v) {
             bool ok = false;
             o.jobs = v.toInt(&ok);
             return unless(ok && o.jobs >= 0 && o.jobs <= kMaxJobs,
                           "give a count from 1 to 64, or 0 for one per core");
         }},
        {'r', QLatin1String("recursive"), false,
         [](O o, V) { return o.recursive = true, Problem(); }},
        {'o', QLatin1String("output-dir"), true,
         [](O o, V v) { return o.outputDir = v, unless(!v.isEmpty(), "give a folder"); }},
        {'f', QLatin1String("format"), true,
         [](O o, V v) {
             const QString name = v.toLower();
             o.format = name == QLatin1String("mp3")   ? Format::mp3
                        : name == QLatin1String("wav") ? Format::wav
                                                       : Format::same;
             return unless(o.format != Format::same || name == QLatin1String("same"),
                           "give same, mp3 or wav");
         }},
        {0, QLatin1String("skip-existing"), false,
         [](O o, V) { return existing(o, Existing::skip); }},
        {0, QLatin1String("replace"), false, [](O o, V) { return existing(o, Existing::replace); }},
        {'n', QLatin1String("dry-run"), false, [](O o, V) { return o.dryRun = true, Problem(); }},
        {0, QLatin1String("json"), false, [](O o, V) { return o.json = true, Problem(); }},
        {'q', QLatin1String("quiet"), false, [](O o, V) { return o.quiet = true, Problem(); }},
        {0, QLatin1String("no-cache"), false, [](O o, V) { return o.noCache = true, Problem(); }},
        {'v', QLatin1String("verbose"), false, [](O o, V) { return o.verbose = true, Problem(); }},
        {'0', QLatin1String("null"), false,
         [](O o, V) { return o.nulSeparated = true, Problem(); }},
        {0, QLatin1String("color"), true,
         [](O o, V v) {
             const QString name = v.toLower();
             o.colour = name == QLatin1String("never")    ? Colour::never
                        : name == QLatin1String("always") ? Colour::always
                                                          : Colour::whenTerminal;
             return unless(o.colour != Colour::whenTerminal || name == QLatin1String("auto"),
                           "give auto, never or always");
         }},
        {0, QLatin1String("watch"), true,
         [](O o, V v) { return o.watch << v, unless(!v.isEmpty(), "give a folder"); }},
        {0, QLatin1String("list-tags"), false, [](O o, V) { return o.listTags = true, Problem(); }},
        {0, QLatin1String("add-tag"), true, [](O o, V v) { return o.addTag = v, Problem(); }},
        {0, QLatin1String("select-tag"), true, [](O o, V v) { return o.selectTag = v, Problem(); }},
        {'h', QLatin1String("help"), false, [](O o, V) { return o.help = true, Problem(); }},
        {0, QLatin1String("version"), false, [](O o, V) { return o.version = true, Problem(); }},
    };
    return all;
}

} // namespace

std::variant<Options, UsageError> parse(const QStringList& arguments) {
    std::vector<CommandLine::Option> spelled;
    for (const Option& option : options())
        spelled.push_back(option.spelled);
    Options result;
    // A refused value is named with its option; a flag's refusal says it all.
    // `given` is one of `spelled`, which lists the options in their order.
    const auto take = [&](const CommandLine::Option& given, const QString& value) {
        const Option& option = options()[static_cast<std::size_t>(&given - spelled.data())];
        const Problem problem = option.apply(result, value);
        if (problem && given.takesValue)
            return Problem(
                QStringLiteral("invalid --%1 '%2': %3").arg(given.name, value, *problem));
        return problem;
    };
    using Kind = CommandLine::Refusal::Kind;
    const std::optional<CommandLine::Refusal> refusal = CommandLine::read(
        arguments, spelled, true, take, [&result](const QString& path) { result.paths << path; });
    if (!refusal)
        return result;
    switch (refusal->kind) {
    case Kind::unknown:
        return UsageError{QStringLiteral("unknown option '%1'").arg(refusal->given)};
    case Kind::needsValue:
        return UsageError{QStringLiteral("option '%1' needs a value").arg(refusal->given)};
    case Kind::takesNoValue:
        return UsageError{QStringLiteral("option '%1' takes no value").arg(refusal->given)};
    case Kind::refused:
        break;
    }
    return UsageError{refusal->message};
}

QString usage() {
    return QStringLiteral(
        "Usage: zelkor-tag [OPTION]... [--] PATH...\n"
        "       zelkor-tag [OPTION]... --watch DIR [PATH]...\n"
        "       zelkor-tag --list-tags | --add-tag FILE | --select-tag NAME\n"
        "\n"
        "Lays the tag clip over every MP3 and WAV track in PATH (files and folders)\n"
        "and writes \"NAME (Tagged).EXT\" next to each track. Originals are never changed.\n"
        "A PATH of - reads further paths from standard input, one per line (with -0,\n"
        "each ended by a NUL, as find -print0 writes them).\n"
        "\n"
        "  -t, --tag FILE          the tag clip (default: the one selected in the library)\n"
        "  -i, --interval SECONDS  time between tags, 5 to 600 (default: the saved INTERVAL)\n"
        "  -l, --level LEVEL       LOW, MID or HIGH (-9, -5, -1 dB), or dB from -40 to 12\n"
        "                          relative to the track's loudness (default: the saved LEVEL)\n"
        "  -j, --jobs N            tag N tracks at once; 0 = one per core (default 1)\n"
        "  -r, --recursive         folders' sub-folders too, depth first, each folder's\n"
        "                          tracks in the window's order\n"
        "  -o, --output-dir DIR    write outputs under DIR, mirroring each track's path\n"
        "                          relative to the PATH it came from\n"
        "  -f, --format FORMAT     same (MP3 for MP3 tracks, WAV otherwise), mp3\n"
        "                          (320 kbit/s, ID3v2.3) or wav (24-bit PCM)\n"
        "      --skip-existing     skip a track whose output was made from it as it is now\n"
        "      --replace           the output takes the name without a number, replacing an\n"
        "                          earlier output there once the new one is complete\n"
        "  -n, --dry-run           analyse and print what would be written; write nothing\n"
        "                          (with -q too: the lines are what a dry run is for)\n"
        "      --json              one JSON object per track instead of the text line\n"
        "  -q, --quiet             no progress line and no summary; only failures on\n"
        "                          standard output\n"
        "  -v, --verbose           print each ffmpeg command line on standard error, quoted\n"
        "                          for a shell (no progress line then)\n"
        "  -0, --null              with -: paths on standard input end with a NUL\n"
        "      --color WHEN        failures in colour: auto (on a terminal, unless NO_COLOR\n"
        "                          is set), never or always (default auto)\n"
        "      --no-cache          measure every track afresh, keeping no figures\n"
        "      --watch DIR         keep running: tag every track that appears in DIR\n"
        "                          (recursively with -r) once it is complete; one --watch\n"
        "                          per folder\n"
        "      --list-tags         list the tag library, the selected clip marked with *\n"
        "      --add-tag FILE      copy a clip (WAV, MP3, AIFF, M4A, FLAC) into the library\n"
        "                          and select it\n"
        "      --select-tag NAME   select the library's clip with this file name\n"
        "  -h, --help              show this help\n"
        "      --version           show the version\n"
        "      --                  every argument after it is a PATH\n"
        "\n"
        "Files named \"._NAME\" (another system's sidecar files) or with \"(Tagged)\"\n"
        "(outputs) are never tracks. On a terminal, a run of more than one\n"
        "track ends with a summary on standard error: written, skipped, failed, stopped,\n"
        "and the time taken. In --json, a track, output or clip whose name is not UTF-8\n"
        "also comes as \"track_bytes\", \"output_bytes\" or \"clip_bytes\": the name's\n"
        "bytes in base64. A tag clip that cannot be used is one line naming it, and\n"
        "nothing is tagged.\n"
        "\n"
        "Exit status: 0 when every track was written (or skipped), 1 when any failed, a\n"
        "PATH was not found or not a track, or there was nothing to do, 2 for a usage\n"
        "error. A signal (Ctrl-C, SIGTERM, SIGHUP, SIGQUIT) or a closed output pipe stops\n"
        "the run and ends it by that signal: 128 + N.\n");
}

} // namespace Cli
