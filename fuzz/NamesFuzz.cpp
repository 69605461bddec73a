// Fuzzes input collection, output naming and the byte names with arbitrary file names.
#include "engine/Collect.h"
#include "engine/Output.h"

#include <cstdint>
#include <cstdlib>

namespace {

bool hasMarker(const QString& path) {
    const QString name = path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    return name.left(dot).contains(QLatin1String("(Tagged)"));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // Any name, UTF-8 or not, survives the trip through a QString.
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    if (Names::encode(Names::decode(bytes)) != bytes)
        std::abort();

    // Names under a folder that does not exist: nothing is read from the disk.
    const QString names =
        QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    QStringList paths;
    for (const QString& name : names.split(QLatin1Char('\n')))
        paths << QStringLiteral("/nonexistent-zelkor-fuzz/") + name;

    const QStringList tracks = Engine::collect(paths);
    if (tracks.size() > paths.size())
        std::abort();
    for (const QString& track : tracks) {
        if (!paths.contains(track) || hasMarker(track))
            std::abort();
        const QString output = Engine::outputURL(track);
        // An output is never taken as input again, and never overwrites its track.
        if (output == track || !hasMarker(output) || !Engine::collect({output}).isEmpty())
            std::abort();
    }
    return 0;
}
