// Fuzzes the reading of ID3 tags and RIFF chunks with arbitrary masters and outputs.
#include "engine/Keep.h"

#include <cstdint>
#include <cstdlib>

namespace {

void check(bool holds) {
    if (!holds)
        std::abort();
}

void checkSplice(const std::optional<Engine::Keep::Splice>& splice, qint64 outputSize) {
    if (splice)
        check(0 <= splice->from && splice->from <= splice->to && splice->to <= outputSize);
}

} // namespace

// The input is a master and an output, split at the first "|||".
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const QByteArray input(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const qsizetype split = input.indexOf("|||");
    const QByteArray master = split < 0 ? input : input.left(split);
    const QByteArray output = split < 0 ? input : input.mid(split + 3);

    // Once the master's figures are out, nothing more goes.
    const QByteArray once = Engine::Keep::withoutLevels(master);
    check(Engine::Keep::withoutLevels(once) == once);

    const auto source = Engine::Keep::bytes(master), target = Engine::Keep::bytes(output);
    checkSplice(Engine::Keep::mp3(source, target), output.size());
    const auto wav = Engine::Keep::wav(source, target);
    checkSplice(wav, output.size());
    if (wav) {
        // The RIFF size counts exactly what follows it.
        const QByteArray head = wav->head;
        const qint64 total = head.size() + (wav->to - wav->from) + wav->tail.size();
        const quint32 riff = quint8(head[4]) | quint8(head[5]) << 8 | quint8(head[6]) << 16 |
                             quint32(quint8(head[7])) << 24;
        check(head.startsWith("RIFF") && riff == total - 8);
    }
    const int kbps = Engine::Keep::mp3Kbps(source);
    check(kbps >= 0 && kbps <= 320);
    return 0;
}
