// Formatting one track's outcome, as text or as JSON.
#include "cli/Report.h"

#include "base/Names.h"
#include "model/StatusTexts.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <cmath>

namespace Cli {

namespace {

// Seconds as short as they are exact to the millisecond: 0.5, 20.5, 60.
QString seconds(double value) {
    QString text = QString::number(value, 'f', 3);
    while (text.endsWith(QLatin1Char('0')))
        text.chop(1);
    if (text.endsWith(QLatin1Char('.')))
        text.chop(1);
    return text;
}

// JSON has no way to carry a byte that is not UTF-8: such a name comes again
// as "NAME_bytes", its bytes in base64, for a script to open the very file.
void addBytes(QJsonObject& object, const QString& member) {
    const QString name = object.value(member).toString();
    const QByteArray bytes = Names::encode(name);
    if (QString::fromUtf8(bytes).toUtf8() != bytes)
        object.insert(member + QStringLiteral("_bytes"), QString::fromLatin1(bytes.toBase64()));
}

} // namespace

QString textLine(const Said& said) {
    const Batch::Outcome& outcome = said.outcome;
    const QString name = shownName(said.track.input) + QStringLiteral("  ");
    if (outcome.failed())
        return name + outcome.error;
    if (outcome.skipped())
        return name + QStringLiteral("SKIPPED  -> ") + said.track.output.path();
    const Engine::Result& result = *outcome.result;
    if (!said.dryRun)
        return name + StatusTexts::tagged(result.placements, result.kbps) +
               QStringLiteral("  -> ") + result.output;
    QStringList times;
    for (const double time : result.times)
        times << seconds(time);
    return name + QStringLiteral("DRY RUN: %1 TAGS AT %2 S, GAIN %3 DB  -> %4")
                      .arg(result.placements)
                      .arg(times.join(QLatin1Char(' ')))
                      .arg(QString::asprintf("%.2f", result.gainDB))
                      .arg(result.output);
}

QString jsonLine(const Said& said) {
    const Batch::Outcome& outcome = said.outcome;
    const std::optional<Engine::Result>& result = outcome.result;
    QJsonObject object{{QStringLiteral("track"), said.track.input.track},
                       {QStringLiteral("clip"),
                        said.clip.isEmpty() ? QJsonValue(QJsonValue::Null) : QJsonValue(said.clip)},
                       {QStringLiteral("output"), QJsonValue::Null},
                       {QStringLiteral("placements"), QJsonValue::Null},
                       {QStringLiteral("gain_db"), QJsonValue::Null},
                       {QStringLiteral("track_lufs"), QJsonValue::Null},
                       {QStringLiteral("error"), QJsonValue::Null}};
    if (said.dryRun)
        object.insert(QStringLiteral("dry_run"), true);
    if (outcome.failed()) {
        object.insert(QStringLiteral("status"), QStringLiteral("error"));
        object.insert(QStringLiteral("error"), outcome.error);
    } else if (outcome.skipped()) {
        object.insert(QStringLiteral("status"), QStringLiteral("skipped"));
        object.insert(QStringLiteral("output"), said.track.output.path());
    } else {
        QJsonArray times;
        for (const double time : result->times)
            times.append(time);
        object.insert(QStringLiteral("status"), QStringLiteral("ok"));
        object.insert(QStringLiteral("output"), result->output);
        object.insert(QStringLiteral("placements"), times);
        // To the hundredth, as the render's filter is given it.
        object.insert(QStringLiteral("gain_db"), std::round(result->gainDB * 100) / 100);
        object.insert(QStringLiteral("track_lufs"), result->trackLufs);
        if (result->kbps > 0 && result->kbps < StatusTexts::kMp3Kbps)
            object.insert(QStringLiteral("bitrate_kbps"), result->kbps);
    }
    for (const QString& member :
         {QStringLiteral("track"), QStringLiteral("output"), QStringLiteral("clip")})
        addBytes(object, member);
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

} // namespace Cli
