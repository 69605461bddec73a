// The texts of the lines written about tracks and tag clips, shared by the
// window's log and zelkor-tag's output so that both say the same in the same words.
#pragma once

#include <QLatin1String>
#include <QString>

namespace StatusTexts {

// The bitrate every MP3 output is asked for; at sample rates under 32 kHz the format
// carries less.
constexpr int kMp3Kbps = 320;

// A tagged track: "4 TAGS  OK", "1 TAGS  OK" as well; an MP3 whose sample rate held its
// bitrate under 320 says so: "4 TAGS  160 KBIT/S  OK".
inline QString tagged(int placements, int kbps = kMp3Kbps) {
    const QString bitrate = kbps > 0 && kbps < kMp3Kbps
                                ? QString::number(kbps) + QStringLiteral(" KBIT/S  ")
                                : QString();
    return QString::number(placements) + QStringLiteral(" TAGS  ") + bitrate + QStringLiteral("OK");
}

// A batch asked for with no tag clip selected.
constexpr QLatin1String kAddTagFirst("ADD YOUR TAG FILE FIRST");
constexpr QLatin1String kNoTag("NO TAG");

// A clip copied into the library and selected, by its upper-cased name.
inline QString tagAdded(const QString& name) {
    return QStringLiteral("TAG ADDED: ") + name;
}
constexpr QLatin1String kArmed("ARMED");
constexpr QLatin1String kCantAddTag("CAN'T ADD TAG");
constexpr QLatin1String kCantUseTag("CAN'T USE TAG");

inline QString tagRemoved(const QString& name) {
    return QStringLiteral("TAG REMOVED: ") + name;
}
constexpr QLatin1String kTrash("TRASH");

inline QString tagSelected(const QString& name) {
    return QStringLiteral("TAG SELECTED: ") + name;
}

} // namespace StatusTexts
