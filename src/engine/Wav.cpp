// WAV headers as ffmpeg reads them (layout names checked against ffmpeg 5.1 on
// files of 1 to 8 channels, plain and extensible), and their samples into the meter as stored.
#include "engine/Wav.h"
#include "engine/Keep.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace Engine::Wav {

namespace {

constexpr int kPcm = 1, kFloat = 3, kExtensible = 0xFFFE;
constexpr qsizetype kPlainFmtSize = 16, kExtensibleFmtSize = 40;
// The GUID of an extensible format, after its first two bytes (the plain tag).
constexpr char kSubFormatTail[] = "\x00\x00\x00\x00\x10\x00\x80\x00\x00\xAA\x00\x38\x9B\x71";
// ffmpeg's standard layouts of up to 8 channels, in its own order.
constexpr std::array<std::pair<const char*, std::uint64_t>, 27> kLayouts{{
    {"mono", 0x4},
    {"stereo", 0x3},
    {"2.1", 0xB},
    {"3.0", 0x7},
    {"3.0(back)", 0x103},
    {"4.0", 0x107},
    {"quad", 0x33},
    {"quad(side)", 0x603},
    {"3.1", 0xF},
    {"5.0", 0x37},
    {"5.0(side)", 0x607},
    {"4.1", 0x10F},
    {"5.1", 0x3F},
    {"5.1(side)", 0x60F},
    {"6.0", 0x707},
    {"6.0(front)", 0x6C3},
    {"hexagonal", 0x137},
    {"6.1", 0x70F},
    {"6.1(back)", 0x13F},
    {"6.1(front)", 0x6CB},
    {"7.0", 0x637},
    {"7.0(front)", 0x6C7},
    {"7.1", 0x63F},
    {"7.1(wide)", 0xFF},
    {"7.1(wide-side)", 0x6CF},
    {"octagonal", 0x737},
    {"downmix", 0x60000000},
}};
// What ffmpeg takes a file's channels for when its header does not place them.
constexpr std::array<std::uint64_t, 9> kUsualMasks{0,    0x4,  0x3,   0xB,  0x107,
                                                   0x37, 0x3F, 0x70F, 0x63F};
// More than any real header before its samples; a longer one is not read here.
constexpr qsizetype kMaxHeader = 1 << 20;
constexpr std::uint32_t kUnknownSize = 0xFFFFFFFF;
constexpr qsizetype kRiffHeaderSize = 12, kChunkHeaderSize = 8;

std::uint32_t le(const char* p, int bytes) {
    std::uint32_t value = 0;
    for (int i = bytes - 1; i >= 0; --i)
        value = value << 8 | static_cast<unsigned char>(p[i]);
    return value;
}

std::uint64_t placesOf(const Format& format) {
    const bool counted = std::popcount(format.mask) == format.channels;
    if (counted)
        return format.mask;
    return format.channels < static_cast<int>(kUsualMasks.size())
               ? kUsualMasks[static_cast<std::size_t>(format.channels)]
               : 0;
}

} // namespace

std::optional<Format> readFormat(const QByteArray& fmt) {
    if (fmt.size() < kPlainFmtSize)
        return std::nullopt;
    const char* p = fmt.constData();
    int tag = static_cast<int>(le(p, 2));
    Format format;
    format.channels = static_cast<int>(le(p + 2, 2));
    format.sampleRate = static_cast<int>(std::min<std::uint32_t>(le(p + 4, 4), 0x7FFFFFFF));
    const auto blockAlign = static_cast<int>(le(p + 12, 2));
    format.bits = static_cast<int>(le(p + 14, 2));
    if (tag == kExtensible) {
        if (fmt.size() < kExtensibleFmtSize ||
            std::memcmp(p + 26, kSubFormatTail, sizeof kSubFormatTail - 1) != 0)
            return std::nullopt;
        format.mask = le(p + 20, 4);
        tag = static_cast<int>(le(p + 24, 2));
    }
    format.floating = tag == kFloat;
    const bool known = (tag == kPcm && (format.bits == 8 || format.bits == 16 ||
                                        format.bits == 24 || format.bits == 32)) ||
                       (tag == kFloat && (format.bits == 32 || format.bits == 64));
    if (!known || format.channels < 1 || format.sampleRate < 1 ||
        blockAlign != format.channels * format.bits / 8)
        return std::nullopt;
    return format;
}

std::optional<Layout> layout(const Format& format) {
    const std::uint64_t mask = placesOf(format);
    for (const auto& [name, standard] : kLayouts)
        if (standard == mask && std::popcount(mask) == format.channels)
            return Layout{QString::fromLatin1(name), mask};
    return std::nullopt;
}

Stream::Stream(Places places, bool trailingSilence)
    : m_places(places)
    , m_silence(trailingSilence) {}

bool Stream::feed(const char* bytes, std::size_t size) {
    if (m_refused || m_left == 0)
        return !m_refused;
    if (!m_format) {
        m_pending.append(bytes, static_cast<qsizetype>(size));
        if (!readHeader())
            return !m_refused;
        const QByteArray rest = std::exchange(m_pending, QByteArray());
        decode(rest.constData(), static_cast<std::size_t>(rest.size()));
        return true;
    }
    decode(bytes, size);
    return true;
}

// Whether the header is whole; refuses the stream when it cannot become so.
bool Stream::readHeader() {
    const auto found = Keep::chunks(Keep::bytes(m_pending));
    const auto refuse = [this] {
        m_refused = true;
        m_pending.clear();
        return false;
    };
    if (!found)
        return m_pending.size() < kRiffHeaderSize ? false : refuse();
    std::optional<Format> format;
    for (const Keep::Chunk& chunk : *found) {
        if (chunk.id == "fmt ") {
            format = readFormat(m_pending.mid(chunk.offset + kChunkHeaderSize, chunk.size));
            if (!format)
                return refuse();
        } else if (chunk.id == "data") {
            if (!format)
                return refuse();
            m_format = format;
            const std::uint64_t places =
                m_places == Places::guessed || std::popcount(format->mask) == format->channels
                    ? placesOf(*format)
                    : 0;
            m_meter.emplace(format->sampleRate, channelWeights(places, format->channels),
                            m_silence);
            m_left = chunk.size == kUnknownSize || chunk.size == 0 ? -1 : chunk.size;
            m_pending.remove(0, chunk.offset + kChunkHeaderSize);
            return true;
        }
    }
    return m_pending.size() > kMaxHeader ? refuse() : false;
}

void Stream::decode(const char* bytes, std::size_t size) {
    if (m_left >= 0) {
        size = static_cast<std::size_t>(
            std::min<std::int64_t>(m_left, static_cast<std::int64_t>(size)));
        m_left -= static_cast<std::int64_t>(size);
    }
    const auto frameBytes = static_cast<std::size_t>(m_format->bits / 8 * m_format->channels);
    // A frame split between two pieces is finished from the next.
    if (!m_pending.isEmpty()) {
        const std::size_t take =
            std::min(size, frameBytes - static_cast<std::size_t>(m_pending.size()));
        m_pending.append(bytes, static_cast<qsizetype>(take));
        bytes += take;
        size -= take;
        if (static_cast<std::size_t>(m_pending.size()) < frameBytes)
            return;
        measure(m_pending.constData(), 1);
        m_pending.clear();
    }
    const std::size_t frames = size / frameBytes;
    measure(bytes, frames);
    m_pending.append(bytes + frames * frameBytes, static_cast<qsizetype>(size % frameBytes));
}

void Stream::measure(const char* bytes, std::size_t frames) {
    const int width = m_format->bits / 8;
    using E = Meter::Encoding;
    m_meter->add(bytes, frames,
                 m_format->floating ? (width == 8 ? E::f64 : E::f32)
                 : width == 1       ? E::u8
                 : width == 2       ? E::s16
                 : width == 3       ? E::s24
                                    : E::s32);
}

} // namespace Engine::Wav
