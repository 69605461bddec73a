// The command line of zelkor-tag.
#pragma once

#include <QString>
#include <QStringList>
#include <optional>
#include <variant>

namespace Cli {

struct Options {
    std::optional<QString> tag;
    std::optional<double> interval;
    std::optional<double> levelDB;
    int jobs = 1;
    bool listTags = false;
    std::optional<QString> addTag;
    std::optional<QString> selectTag;
    QStringList paths;
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

std::variant<Options, UsageError> parse(const QStringList& arguments);
QString usage();

} // namespace Cli
