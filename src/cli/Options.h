// The command line of zelkor-tag.
#pragma once

#include "engine/Engine.h"

#include <QString>
#include <QStringList>
#include <optional>
#include <variant>

namespace Cli {

using Format = Engine::Format;
using Existing = Engine::Taken;
enum class Colour { whenTerminal, never, always };

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
    bool verbose = false;      // each ffmpeg command line on standard error
    bool nulSeparated = false; // "-" reads paths ended by NUL, not lines
    Colour colour = Colour::whenTerminal;
    QStringList watch; // folders, each watched
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
