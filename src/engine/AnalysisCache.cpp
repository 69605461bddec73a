// The analysis cache on disk: one small JSON file per identity of a file and
// ffmpeg, named by a hash of that identity and holding it whole, renamed into
// place once written, so processes sharing the folder never see half an entry.
#include "engine/AnalysisCache.h"
#include "base/Files.h"
#include "base/Names.h"
#include "platform/AppName.h"
#include "platform/UserFolders.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <ctime>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Engine {

namespace {

std::atomic<bool> enabled{true};

// Raised when an entry's layout changes.
constexpr int kCacheVersion = 1;
// Raised when the same ffmpeg text would give other figures (a change to
// parseAnalysis); a change to the meter raises kMeterVersion, which is in the key.
constexpr int kFiguresVersion = 5;
// An entry is a few hundred bytes; anything far bigger is damage.
constexpr qint64 kMaxEntryBytes = 64 * 1024;
// Evicting a tenth at a time spares a listing and sort on every later write.
constexpr int kEvictTo = AnalysisCache::kMaxEntries * 9 / 10;
constexpr long kNanosecondsPerSecond = 1'000'000'000;
// How long a change takes to be sure to show in a file's times: a tick of the
// kernel's clock, or the step of file systems with whole-second times (FAT, ext3).
constexpr std::chrono::milliseconds kSettleTime{100};
constexpr std::chrono::milliseconds kCoarseSettleTime{2500};

using Files::Time;
using Stamp = Files::Identity;

Time before(Time t, std::chrono::nanoseconds span) {
    t.seconds -= span.count() / kNanosecondsPerSecond;
    t.nanoseconds -= static_cast<long>(span.count() % kNanosecondsPerSecond);
    if (t.nanoseconds < 0) {
        t.nanoseconds += kNanosecondsPerSecond;
        --t.seconds;
    }
    return t;
}

QString text(const Time& t) {
    return QStringLiteral("%1.%2").arg(t.seconds).arg(t.nanoseconds, 9, 10, QLatin1Char('0'));
}

Time now() {
    timespec t{};
    ::clock_gettime(CLOCK_REALTIME, &t);
    return {t.tv_sec, t.tv_nsec};
}

// Whether any change after `at` must show in the file's times.
bool settledAt(const Stamp& file, Time at) {
    const bool wholeSeconds = file.modified.nanoseconds == 0 || file.changed.nanoseconds == 0;
    const Time latest = std::max(file.modified, file.changed);
    return latest <= before(at, wholeSeconds ? kCoarseSettleTime : kSettleTime);
}

QJsonArray identity(const QString& file, const Stamp& fileStamp, const QString& program,
                    const Stamp& programStamp, const QString& method) {
    // The former pass's entries held ffmpeg's filter here: none of them can match.
    QJsonArray key{kCacheVersion, kFiguresVersion, QStringLiteral("meter %1").arg(kMeterVersion),
                   method};
    for (const auto& [path, stamp] : {std::pair(file, fileStamp), std::pair(program, programStamp)})
        key << path << QString::number(stamp.size) << QString::number(stamp.device)
            << QString::number(stamp.inode) << text(stamp.modified) << text(stamp.changed);
    return key;
}

QString entryPath(const QJsonArray& key) {
    const QByteArray hash = QCryptographicHash::hash(
        QJsonDocument(key).toJson(QJsonDocument::Compact), QCryptographicHash::Sha256);
    return AnalysisCache::folder() + QLatin1Char('/') + QString::fromLatin1(hash.toHex()) +
           QStringLiteral(".json");
}

// --- figures ---------------------------------------------------------------

// JSON has no infinities, and a figure such as a silent file's peak may be one.
QJsonValue numberValue(double value) {
    if (std::isfinite(value))
        return value;
    return std::isnan(value) ? QStringLiteral("nan")
           : value > 0       ? QStringLiteral("inf")
                             : QStringLiteral("-inf");
}

std::optional<double> numberFrom(const QJsonValue& value) {
    if (value.isDouble())
        return value.toDouble();
    if (value == QStringLiteral("inf"))
        return std::numeric_limits<double>::infinity();
    if (value == QStringLiteral("-inf"))
        return -std::numeric_limits<double>::infinity();
    if (value == QStringLiteral("nan"))
        return std::numeric_limits<double>::quiet_NaN();
    return std::nullopt;
}

// Reads one entry's figures; a required one missing, or any of the wrong type,
// makes the whole entry damaged.
class FigureReader {
public:
    explicit FigureReader(QJsonObject figures)
        : m_figures(std::move(figures)) {}

    std::optional<double> optionalNumber(const QString& name) {
        const QJsonValue value = m_figures.value(name);
        if (value.isUndefined())
            return std::nullopt;
        const std::optional<double> number = numberFrom(value);
        m_damaged |= !number;
        return number;
    }
    double number(const QString& name) {
        const std::optional<double> value = optionalNumber(name);
        m_damaged |= !value;
        return value.value_or(0);
    }
    std::optional<QString> optionalText(const QString& name) {
        const QJsonValue value = m_figures.value(name);
        m_damaged |= !value.isUndefined() && !value.isString();
        return value.isString() ? std::optional(value.toString()) : std::nullopt;
    }
    bool flag(const QString& name) {
        const QJsonValue value = m_figures.value(name);
        m_damaged |= !value.isBool();
        return value.toBool();
    }
    bool damaged() const { return m_damaged; }

private:
    QJsonObject m_figures;
    bool m_damaged = false;
};

// Both directions bind every field of Analysis by name, so a field added there
// fails to compile here until it is written and read (raise kFiguresVersion then).
QJsonObject figuresOf(const Analysis& analysis) {
    const auto& [lufs, duration, frames, silenceStart, format, peak, integerSamples, floatSamples,
                 pictures, broadcastChunk, largePackets] = analysis;
    QJsonObject figures{{QStringLiteral("lufs"), numberValue(lufs)},
                        {QStringLiteral("duration"), numberValue(duration)},
                        {QStringLiteral("frames"), double(frames)},
                        {QStringLiteral("integerSamples"), integerSamples},
                        {QStringLiteral("floatSamples"), floatSamples},
                        {QStringLiteral("pictures"), pictures},
                        {QStringLiteral("broadcastChunk"), broadcastChunk},
                        {QStringLiteral("largePackets"), largePackets}};
    if (peak)
        figures.insert(QStringLiteral("peak"), numberValue(*peak));
    if (silenceStart)
        figures.insert(QStringLiteral("silenceStart"), numberValue(*silenceStart));
    if (format) {
        figures.insert(QStringLiteral("sampleRate"), format->sampleRate);
        figures.insert(QStringLiteral("channelLayout"), format->channelLayout);
    }
    return figures;
}

std::optional<Analysis> analysisFrom(const QJsonObject& figures) {
    FigureReader read(figures);
    Analysis analysis;
    auto& [lufs, duration, frames, silenceStart, format, peak, integerSamples, floatSamples,
           pictures, broadcastChunk, largePackets] = analysis;
    lufs = read.number(QStringLiteral("lufs"));
    duration = read.number(QStringLiteral("duration"));
    // Exact as a double up to 2^53 samples: centuries of audio.
    const double counted = read.number(QStringLiteral("frames"));
    if (!(counted >= 0 && counted < 0x1p53) || counted != std::floor(counted))
        return std::nullopt;
    frames = static_cast<std::int64_t>(counted);
    silenceStart = read.optionalNumber(QStringLiteral("silenceStart"));
    peak = read.optionalNumber(QStringLiteral("peak"));
    integerSamples = read.flag(QStringLiteral("integerSamples"));
    floatSamples = read.flag(QStringLiteral("floatSamples"));
    pictures = read.flag(QStringLiteral("pictures"));
    broadcastChunk = read.flag(QStringLiteral("broadcastChunk"));
    largePackets = read.flag(QStringLiteral("largePackets"));
    const std::optional<double> rate = read.optionalNumber(QStringLiteral("sampleRate"));
    const std::optional<QString> layout = read.optionalText(QStringLiteral("channelLayout"));
    if (rate.has_value() != layout.has_value())
        return std::nullopt;
    if (rate) {
        if (!(*rate >= 1 && *rate <= std::numeric_limits<int>::max()) || *rate != std::floor(*rate))
            return std::nullopt;
        format = AudioFormat{static_cast<int>(*rate), *layout};
    }
    if (read.damaged())
        return std::nullopt;
    return analysis;
}

// --- entries ---------------------------------------------------------------

// Whether `folder` is the user's own and no one else can write in it: otherwise
// another user could plant entries (forged figures, a FIFO that hangs the reader).
bool trusted(const QString& folder) {
    struct stat info = {};
    return ::lstat(Names::encode(folder).constData(), &info) == 0 && S_ISDIR(info.st_mode) &&
           info.st_uid == ::geteuid() && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// An entry's bytes, only when it is a regular file of the user's: anything else is
// never opened far enough to wait on it, nor read.
std::optional<QByteArray> entryBytes(const QString& entry) {
    const int fd = ::open(Names::encode(entry).constData(),
                          O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY);
    if (fd < 0)
        return std::nullopt;
    struct stat info = {};
    const bool own = ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_uid == ::geteuid();
    ::close(fd);
    return own ? Files::read(entry, kMaxEntryBytes + 1) : std::nullopt;
}

std::optional<Analysis> read(const QString& entry, const QJsonArray& key) {
    const std::optional<QByteArray> bytes = entryBytes(entry);
    if (!bytes || bytes->size() > kMaxEntryBytes)
        return std::nullopt;
    QJsonParseError error{};
    const QJsonObject object = QJsonDocument::fromJson(*bytes, &error).object();
    // The whole identity is kept in the entry: a hash that collides reads as a miss.
    if (error.error != QJsonParseError::NoError || object.value(QStringLiteral("key")) != key)
        return std::nullopt;
    return analysisFrom(object.value(QStringLiteral("figures")).toObject());
}

// A hit touches its entry, so the oldest times are the least recently used.
void evictIfFull(const QString& folder) {
    const QStringList names = Files::names(folder);
    if (names.size() <= AnalysisCache::kMaxEntries)
        return;
    std::vector<std::pair<qint64, QString>> used;
    for (const QString& name : names) {
        const QString entry = folder + QLatin1Char('/') + name;
        if (const std::optional<Stamp> stamp = Files::identity(entry); stamp && stamp->regular)
            used.emplace_back(
                stamp->modified.seconds * 1000 + stamp->modified.nanoseconds / 1'000'000, entry);
    }
    if (used.size() <= AnalysisCache::kMaxEntries)
        return;
    std::sort(used.begin(), used.end(), std::greater<>());
    for (std::size_t i = kEvictTo; i < used.size(); ++i)
        Files::remove(used[i].second);
}

// No sync: a crash can only leave an entry that reads as damaged, and that is
// measured again.
void write(const QString& entry, const QJsonArray& key, const Analysis& analysis) {
    const QString folder = AnalysisCache::folder();
    const QByteArray bytes =
        QJsonDocument(QJsonObject{{QStringLiteral("key"), key},
                                  {QStringLiteral("figures"), figuresOf(analysis)}})
            .toJson(QJsonDocument::Compact);
    try {
        // The base-directory rules ask for 0700: the entries name the user's files.
        Files::makeFolders(folder, 0700);
        if (!trusted(folder))
            return;
        Files::replace(entry, bytes, Files::Sync::cached);
    } catch (const TagError&) {
        return;
    }
    evictIfFull(folder);
}

} // namespace

void setAnalysisCache(bool on) {
    enabled = on;
}

bool analysisCache() {
    return enabled;
}

namespace AnalysisCache {

QString folder() {
    return UserFolders::cacheHome() + QLatin1Char('/') + appName + QStringLiteral("/analyses");
}

Analysis kept(const QString& path, const QString& method,
              const std::function<Analysis(const QString&)>& measure) {
    const std::optional<QString>& program = ffmpeg();
    if (!enabled || !program)
        return measure(path);
    const QString file = Names::absolute(path);
    const std::optional<Stamp> stamp = Files::identity(file);
    const Time statedAt = now();
    const std::optional<Stamp> programStamp = Files::identity(*program);
    if (!stamp || !stamp->regular || !programStamp)
        return measure(path);

    const QJsonArray key = identity(file, *stamp, *program, *programStamp, method);
    const QString entry = entryPath(key);
    if (std::optional<Analysis> found = trusted(folder()) ? read(entry, key) : std::nullopt) {
        ::utimensat(AT_FDCWD, Names::encode(entry).constData(), nullptr, 0);
        return *found;
    }
    const Analysis measured = measure(path);
    // Not kept when the file changed while ffmpeg read it, or might change unseen.
    if (settledAt(*stamp, statedAt) && Files::identity(file) == stamp)
        write(entry, key, measured);
    return measured;
}

bool settled(const QString& path) {
    const std::optional<Stamp> stamp = Files::identity(path);
    return stamp && settledAt(*stamp, now());
}

} // namespace AnalysisCache

} // namespace Engine
