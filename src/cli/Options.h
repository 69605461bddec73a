// The command line of zelkor-tag.
#pragma once

#include <QString>
#include <QStringList>
#include <optional>
#include <variant>

namespace Cli {

// The output's format: the track's own rule (MP3 for MP3, WAV otherwise), or one for all.
enum class Format { same, mp3, wav };

// What happens when a track's output name without a number is taken already.
enum class Existing {
    nextNumber, // "NAME (Tagged) (2).EXT", as the window does
    skip,       // the track is not analysed nor written again
    replace,    // the new output replaces the earlier one once it is complete
};

struct Options {
    std::optional<QString> tag;
    std::optional<double> interval;
    std::optional<double> levelDB;
    int jobs = 1; // 0: one per core
    bool recursive = false;
    std::optional<QString> outputDir;
    Format format = Format::same;
    Existing existing = Existing::nextNumber;
    bool dryRun = false;
    bool json = false;
    bool quiet = false;
    bool noCache = false;
    std::optional<QString> watch;
    bool listTags = false;
    std::optional<QString> addTag;
    std::optional<QString> selectTag;
    QStringList paths; // "-": more paths from standard input
    bool help = false;
    bool version = false;
};

struct UsageError {
    QString message;
};

constexpr double kMinInterval = 5;
constexpr double kMaxInterval = 600;
constexpr double kMinLevel = -40;
constexpr double kMaxLevel = 12;
constexpr int kMaxJobs = 64;

// `arguments` without the program's name.
std::variant<Options, UsageError> parse(const QStringList& arguments);
QString usage();

} // namespace Cli
