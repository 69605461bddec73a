// Parsing zelkor-tag's options: every refusal names the option and the value.
#include "cli/Options.h"
#include "model/Settings.h"

#include <cmath>

namespace Cli {

namespace {

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

const QStringList kValueOptions{QStringLiteral("--tag"),     QStringLiteral("--interval"),
                                QStringLiteral("--level"),   QStringLiteral("--jobs"),
                                QStringLiteral("--add-tag"), QStringLiteral("--select-tag")};

} // namespace

std::variant<Options, UsageError> parse(const QStringList& arguments) {
    Options options;
    bool onlyPaths = false;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments[i];
        if (onlyPaths || !argument.startsWith(QLatin1Char('-')) || argument == QLatin1String("-")) {
            options.paths << argument;
            continue;
        }
        if (argument == QLatin1String("--")) {
            onlyPaths = true;
            continue;
        }
        if (argument == QLatin1String("--help") || argument == QLatin1String("-h")) {
            options.help = true;
            continue;
        }
        if (argument == QLatin1String("--version")) {
            options.version = true;
            continue;
        }
        if (argument == QLatin1String("--list-tags")) {
            options.listTags = true;
            continue;
        }

        // --name VALUE or --name=VALUE
        QString name = argument;
        std::optional<QString> value;
        if (const qsizetype eq = argument.indexOf(QLatin1Char('=')); eq > 0) {
            name = argument.left(eq);
            value = argument.mid(eq + 1);
        }
        if (!kValueOptions.contains(name))
            return UsageError{QStringLiteral("unknown option '%1'").arg(name)};
        if (!value) {
            if (i + 1 >= arguments.size())
                return UsageError{QStringLiteral("option '%1' needs a value").arg(name)};
            value = arguments[++i];
        }

        if (name == QLatin1String("--tag")) {
            options.tag = *value;
        } else if (name == QLatin1String("--add-tag")) {
            options.addTag = *value;
        } else if (name == QLatin1String("--select-tag")) {
            options.selectTag = *value;
        } else if (name == QLatin1String("--interval")) {
            options.interval = numberIn(*value, kMinInterval, kMaxInterval);
            if (!options.interval)
                return UsageError{
                    QStringLiteral("invalid --interval '%1': give seconds from 5 to 600")
                        .arg(*value)};
        } else if (name == QLatin1String("--jobs")) {
            bool ok = false;
            options.jobs = value->toInt(&ok);
            if (!ok || options.jobs < 1 || options.jobs > kMaxJobs)
                return UsageError{
                    QStringLiteral("invalid --jobs '%1': give a count from 1 to 64").arg(*value)};
        } else {
            options.levelDB = levelNamed(*value);
            if (!options.levelDB)
                return UsageError{
                    QStringLiteral("invalid --level '%1': give LOW, MID, HIGH or dB from -40 to 12")
                        .arg(*value)};
        }
    }
    return options;
}

QString usage() {
    return QStringLiteral(
        "Usage: zelkor-tag [--tag FILE] [--interval SECONDS] [--level LEVEL] [--jobs N] [--]\n"
        "                  PATH...\n"
        "       zelkor-tag --list-tags | --add-tag FILE | --select-tag NAME\n"
        "\n"
        "Lays the tag clip over every MP3 and WAV track in PATH (files and folders)\n"
        "and writes \"NAME (Tagged).EXT\" next to each track. Originals are never changed.\n"
        "\n"
        "  --tag FILE          the tag clip (default: the one selected in the library)\n"
        "  --interval SECONDS  time between tags, 5 to 600 (default: the saved INTERVAL)\n"
        "  --level LEVEL       LOW, MID or HIGH (-9, -5, -1 dB), or dB from -40 to 12\n"
        "                      relative to the track's loudness (default: the saved LEVEL)\n"
        "  --jobs N            tag up to N tracks at once (default 1)\n"
        "  --list-tags         list the tag library, the selected clip marked with *\n"
        "  --add-tag FILE      copy a clip (WAV, MP3, AIFF, M4A, FLAC) into the library\n"
        "                      and select it\n"
        "  --select-tag NAME   select the library's clip with this file name\n"
        "  --help              show this help\n"
        "  --version           show the version\n"
        "\n"
        "Exit status: 0 when every track was written, 1 when any failed or there was\n"
        "nothing to do, 2 for a usage error. A signal (Ctrl-C, SIGTERM, SIGHUP, SIGQUIT)\n"
        "or a closed output pipe stops the run and ends it by that signal: 128 + N.\n");
}

} // namespace Cli
