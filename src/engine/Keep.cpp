// Copying a master's ID3 tags and RIFF chunks into its finished output.
#include "engine/Keep.h"

#include "base/Files.h"
#include "base/Names.h"
#include "base/TagError.h"

#include <QFileInfo>
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <unistd.h>
#include <vector>

namespace Engine::Keep {

namespace {

constexpr qint64 kId3HeaderSize = 10;
constexpr qint64 kId3v1Size = 128;
constexpr qint64 kChunkHeaderSize = 8;
constexpr qint64 kRiffHeaderSize = 12;
constexpr qint64 kRiffLimit = 0xFFFFFFFFLL;
// More than any real master carries outside its audio; a larger claim is damage.
constexpr qint64 kMaxKeptBytes = 256LL << 20;
constexpr qint64 kBlock = 1 << 20;

// bext from version 2 on: five 16-bit loudness figures, "unknown" when 0x7FFF.
constexpr qint64 kBextVersion = 346;
constexpr qint64 kBextLoudness = 412;
constexpr int kBextLoudnessFields = 5;

quint32 bigEndian(const QByteArray& b, qint64 at, int bytes) {
    quint32 value = 0;
    for (int i = 0; i < bytes; ++i)
        value = value << 8 | static_cast<quint8>(b[at + i]);
    return value;
}

quint32 syncsafe(const QByteArray& b, qint64 at) {
    quint32 value = 0;
    for (int i = 0; i < 4; ++i)
        value = value << 7 | (static_cast<quint8>(b[at + i]) & 0x7F);
    return value;
}

QByteArray toSyncsafe(quint32 value) {
    QByteArray out(4, '\0');
    for (int i = 3; i >= 0; --i, value >>= 7)
        out[i] = static_cast<char>(value & 0x7F);
    return out;
}

quint32 littleEndian(const QByteArray& b, qint64 at) {
    quint32 value = 0;
    for (int i = 3; i >= 0; --i)
        value = value << 8 | static_cast<quint8>(b[at + i]);
    return value;
}

QByteArray toLittleEndian(quint32 value) {
    QByteArray out(4, '\0');
    for (int i = 0; i < 4; ++i, value >>= 8)
        out[i] = static_cast<char>(value & 0xFF);
    return out;
}

// The size of the ID3v2 tag a file starts with, header and footer included; 0 for none.
qint64 id3v2Size(const Source& file) {
    const QByteArray header = file.read(0, kId3HeaderSize);
    if (header.size() < kId3HeaderSize || !header.startsWith("ID3"))
        return 0;
    const bool footer = header[3] == 4 && (header[5] & 0x10);
    const qint64 size = kId3HeaderSize + syncsafe(header, 6) + (footer ? kId3HeaderSize : 0);
    return size <= file.size ? size : 0;
}

bool hasId3v1(const Source& file, qint64 after) {
    return file.size - kId3v1Size >= after && file.read(file.size - kId3v1Size, 3) == "TAG";
}

QByteArray withoutUnsync(const QByteArray& data) {
    QByteArray out;
    out.reserve(data.size());
    for (qsizetype i = 0; i < data.size(); ++i) {
        out += data[i];
        if (static_cast<quint8>(data[i]) == 0xFF && i + 1 < data.size() && data[i + 1] == 0)
            ++i;
    }
    return out;
}

// The description a TXXX or COMM frame's text begins with, in Latin-1 or UTF-8 or UTF-16.
QString description(const QByteArray& payload) {
    if (payload.isEmpty())
        return {};
    const char encoding = payload[0];
    const QByteArray text = payload.mid(1);
    if (encoding == 1 || encoding == 2) {
        qsizetype end = 0;
        while (end + 1 < text.size() && (text[end] || text[end + 1]))
            end += 2;
        QByteArray utf16 = text.left(end);
        bool big = encoding == 2;
        if (utf16.startsWith("\xFE\xFF") || utf16.startsWith("\xFF\xFE")) {
            big = utf16[0] == '\xFE';
            utf16 = utf16.mid(2);
        }
        QString out;
        for (qsizetype i = 0; i + 1 < utf16.size(); i += 2)
            out +=
                QChar(big ? static_cast<quint8>(utf16[i]) << 8 | static_cast<quint8>(utf16[i + 1])
                          : static_cast<quint8>(utf16[i + 1]) << 8 | static_cast<quint8>(utf16[i]));
        return out;
    }
    const QByteArray latin = text.left(text.indexOf('\0'));
    return encoding == 3 ? QString::fromUtf8(latin) : QString::fromLatin1(latin);
}

// Frames whose figures would lie about the output: its loudness and peaks differ from the
// master's, and its bytes lie elsewhere.
bool describesMaster(const QByteArray& id, const QByteArray& payload) {
    static const QList<QByteArray> levels{"RVA2", "RVAD", "RVA", "MLLT", "MLL", "ASPI", "SEEK"};
    if (levels.contains(id))
        return true;
    if (id == "TXXX" || id == "TXX")
        return description(payload).startsWith(QLatin1String("REPLAYGAIN_"), Qt::CaseInsensitive);
    if (id == "COMM" || id == "COM")
        return payload.size() > 4 &&
               description(payload.left(1) + payload.mid(4)) == QLatin1String("iTunNORM");
    return false;
}

} // namespace

Source bytes(const QByteArray& data) {
    return {[data](qint64 offset, qint64 length) { return data.mid(offset, length); }, data.size()};
}

QByteArray withoutLevels(const QByteArray& tag) {
    if (tag.size() < kId3HeaderSize || !tag.startsWith("ID3"))
        return tag;
    const int version = tag[3];
    const char flags = tag[5];
    if (version < 2 || version > 4 || (version == 2 && (flags & 0x40)))
        return tag;
    const qint64 bodySize = std::min<qint64>(syncsafe(tag, 6), tag.size() - kId3HeaderSize);
    QByteArray body = tag.mid(kId3HeaderSize, bodySize);
    // Before version 4 unsynchronisation covers the whole tag; from 4 on each frame says.
    const bool wholeUnsync = version < 4 && (flags & 0x80);
    if (wholeUnsync)
        body = withoutUnsync(body);
    qint64 at = 0;
    if (version > 2 && (flags & 0x40) && body.size() >= 4)
        at = version == 3 ? 4 + bigEndian(body, 0, 4) : syncsafe(body, 0);

    const int idSize = version == 2 ? 3 : 4, headerSize = version == 2 ? 6 : 10;
    QByteArray kept;
    bool dropped = false;
    while (at + headerSize <= body.size() && body[at] != 0) {
        const QByteArray id = body.mid(at, idSize);
        const qint64 size = version == 2   ? bigEndian(body, at + 3, 3)
                            : version == 3 ? bigEndian(body, at + 4, 4)
                                           : syncsafe(body, at + 4);
        if (size > body.size() - at - headerSize)
            return tag; // damaged: kept as it came
        QByteArray payload = body.mid(at + headerSize, size);
        const char format = version == 2 ? 0 : body[at + 9];
        // Compressed or encrypted frames cannot be read; they are kept.
        const bool sealed = version == 3 ? (format & 0xC0) : version == 4 && (format & 0x0C);
        if (!sealed) {
            if (version == 3 && (format & 0x20))
                payload = payload.mid(1);
            if (version == 4 && (format & 0x02))
                payload = withoutUnsync(payload);
            if (version == 4 && (format & 0x01))
                payload = payload.mid(4);
        }
        if (!sealed && describesMaster(id, payload))
            dropped = true;
        else
            kept += body.mid(at, headerSize + size);
        at += headerSize + size;
    }
    if (!dropped)
        return tag;

    // The frames kept, then padding to the tag's old size, so its audio stays where it was;
    // a tag with a footer may not be padded.
    const bool footer = version == 4 && (flags & 0x10);
    if (!footer)
        kept += QByteArray(std::max<qint64>(0, bodySize - kept.size()), '\0');
    QByteArray header = tag.left(kId3HeaderSize);
    header[5] = static_cast<char>(flags & ~0x40 & (wholeUnsync ? ~0x80 : 0xFF));
    header.replace(6, 4, toSyncsafe(static_cast<quint32>(kept.size())));
    QByteArray out = header + kept;
    if (footer) {
        QByteArray end = header;
        end.replace(0, 3, "3DI");
        out += end;
    }
    return out;
}

std::optional<Splice> mp3(const Source& master, const Source& output) {
    const qint64 masterTag = id3v2Size(master);
    const bool masterV1 = hasId3v1(master, masterTag);
    if (masterTag == 0 && !masterV1)
        return std::nullopt;
    Splice splice;
    if (masterTag > 0) {
        splice.head = withoutLevels(master.read(0, masterTag));
        splice.from = id3v2Size(output);
    }
    splice.to = output.size - (hasId3v1(output, splice.from) ? kId3v1Size : 0);
    if (masterV1)
        splice.tail = master.read(master.size - kId3v1Size, kId3v1Size);
    return splice;
}

std::optional<std::vector<Chunk>> chunks(const Source& file) {
    const QByteArray header = file.read(0, kRiffHeaderSize);
    if (header.size() < kRiffHeaderSize || !header.startsWith("RIFF") || header.mid(8) != "WAVE")
        return std::nullopt;
    std::vector<Chunk> list;
    for (qint64 at = kRiffHeaderSize; at + kChunkHeaderSize <= file.size;) {
        const QByteArray head = file.read(at, kChunkHeaderSize);
        const Chunk chunk{head.left(4), at, littleEndian(head, 4)};
        const qint64 end = at + kChunkHeaderSize + chunk.size;
        if (end > file.size && chunk.id != "data")
            break;
        list.push_back(chunk);
        at = end + (chunk.size & 1);
    }
    return list;
}

namespace {

// What the output's own encoding is described by; the master's would be wrong.
bool encodingChunk(const QByteArray& id) {
    return id == "fmt " || id == "fact" || id == "data";
}

// The master's chunk as it goes into the output, or nothing when it is left out.
std::optional<QByteArray> keptChunk(const Source& master, const Chunk& chunk) {
    if (chunk.id == "PEAK" || chunk.id == "levl")
        return std::nullopt;
    QByteArray payload = master.read(chunk.offset + kChunkHeaderSize, chunk.size);
    if (chunk.id == "bext" && payload.size() >= kBextLoudness + 2 * kBextLoudnessFields &&
        (static_cast<quint8>(payload[kBextVersion]) | static_cast<quint8>(payload[kBextVersion + 1])
                                                          << 8) >= 2)
        for (int i = 0; i < kBextLoudnessFields; ++i)
            payload.replace(kBextLoudness + 2 * i, 2, QByteArray("\xFF\x7F", 2));
    if (chunk.id == "id3 " || chunk.id == "ID3 ")
        payload = withoutLevels(payload);
    QByteArray out = chunk.id + toLittleEndian(static_cast<quint32>(payload.size())) + payload;
    if (payload.size() & 1)
        out += '\0';
    return out;
}

} // namespace

std::optional<Splice> wav(const Source& master, const Source& output) {
    const auto masterChunks = chunks(master);
    const auto outputChunks = chunks(output);
    if (!masterChunks || !outputChunks)
        return std::nullopt;
    qint64 keptBytes = 0;
    bool any = false;
    for (const Chunk& chunk : *masterChunks) {
        if (encodingChunk(chunk.id))
            continue;
        keptBytes += chunk.size;
        any = any || (chunk.id != "PEAK" && chunk.id != "levl");
    }
    if (!any || keptBytes > kMaxKeptBytes)
        return std::nullopt;

    QByteArray format; // the output's fmt and fact
    std::optional<Chunk> data;
    for (const Chunk& chunk : *outputChunks) {
        if (chunk.id == "data")
            data = chunk;
        else if (encodingChunk(chunk.id))
            format += output.read(chunk.offset, kChunkHeaderSize + chunk.size + (chunk.size & 1));
    }
    if (!data || data->offset + kChunkHeaderSize + data->size > output.size)
        return std::nullopt;

    Splice splice;
    QByteArray* part = &splice.head;
    bool formatWritten = false;
    for (const Chunk& chunk : *masterChunks) {
        if (chunk.id == "fmt " && !formatWritten) {
            *part += format;
            formatWritten = true;
        } else if (chunk.id == "data" && part == &splice.head) {
            if (!formatWritten)
                return std::nullopt;
            splice.head += output.read(data->offset, kChunkHeaderSize);
            splice.from = data->offset + kChunkHeaderSize;
            splice.to = splice.from + data->size;
            if (data->size & 1)
                splice.tail += '\0';
            part = &splice.tail;
        } else if (!encodingChunk(chunk.id)) {
            if (const auto kept = keptChunk(master, chunk))
                *part += *kept;
        }
    }
    if (part != &splice.tail)
        return std::nullopt;
    const qint64 riffSize = 4 + splice.head.size() + (splice.to - splice.from) + splice.tail.size();
    if (riffSize > kRiffLimit)
        return std::nullopt;
    splice.head = "RIFF" + toLittleEndian(static_cast<quint32>(riffSize)) + "WAVE" + splice.head;
    return splice;
}

Source fileSource(int fd) {
    const qint64 size = ::lseek(fd, 0, SEEK_END);
    return {[fd](qint64 offset, qint64 length) {
                QByteArray out(std::max<qint64>(0, length), '\0');
                qint64 got = 0;
                while (got < length) {
                    const ssize_t n = ::pread(fd, out.data() + got, length - got, offset + got);
                    if (n < 0 && errno == EINTR)
                        continue;
                    if (n <= 0)
                        break;
                    got += n;
                }
                out.truncate(got);
                return out;
            },
            std::max<qint64>(0, size)};
}

namespace {

// Moves [from, to) to the head's end in blocks, from the far end first when moving
// towards the end so that no block overwrites one still to be moved.
void apply(int fd, const Splice& splice) {
    const qint64 length = splice.to - splice.from, target = splice.head.size();
    QByteArray block(kBlock, '\0');
    const bool backwards = target > splice.from;
    for (qint64 done = 0; done < length && target != splice.from;) {
        const qint64 n = std::min(kBlock, length - done);
        const qint64 at = backwards ? length - done - n : done;
        Files::readFully(fd, block.data(), n, splice.from + at);
        Files::writeFully(fd, block.constData(), n, target + at);
        done += n;
    }
    Files::writeFully(fd, splice.head.constData(), splice.head.size(), 0);
    Files::writeFully(fd, splice.tail.constData(), splice.tail.size(), target + length);
    while (::ftruncate(fd, target + length + splice.tail.size()) != 0)
        if (errno != EINTR)
            throw TagError::systemFailed(errno);
}

} // namespace

int mp3Kbps(const Source& file) {
    // Bitrates by MPEG version (1, then 2 and 2.5) and index, for layer III.
    static constexpr int kKbps[2][15] = {
        {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320},
        {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160}};
    static constexpr int kRates[3] = {44100, 48000, 32000};
    qint64 at = id3v2Size(file);
    int kbps = 0;
    for (int frame = 0; frame < 2; ++frame) {
        const QByteArray h = file.read(at, 4);
        if (h.size() < 4 || quint8(h[0]) != 0xFF || (quint8(h[1]) & 0xE6) != 0xE2)
            return 0;                              // not a layer III frame
        const int version = quint8(h[1]) >> 3 & 3; // 3: MPEG-1, 2: MPEG-2, 0: MPEG-2.5
        const int index = quint8(h[2]) >> 4, rateIndex = quint8(h[2]) >> 2 & 3;
        if (version == 1 || index == 0 || index == 15 || rateIndex == 3)
            return 0;
        const bool mpeg1 = version == 3;
        kbps = kKbps[mpeg1 ? 0 : 1][index];
        const int rate = kRates[rateIndex] >> (mpeg1 ? 0 : version == 2 ? 1 : 2);
        at += (mpeg1 ? 144 : 72) * kbps * 1000 / rate + (quint8(h[2]) >> 1 & 1);
    }
    return kbps;
}

int mp3Kbps(const QString& path) {
    const int fd = ::open(Names::encode(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    const int kbps = mp3Kbps(fileSource(fd));
    ::close(fd);
    return kbps;
}

void keepTags(const QString& master, int outputFd, const QString& format) {
    const bool mp3Master =
        QFileInfo(master).suffix().compare(QLatin1String("mp3"), Qt::CaseInsensitive) == 0;
    if (mp3Master != (format == QLatin1String("mp3")))
        return;
    int fd = ::open(Names::encode(master).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        throw TagError::systemFailed(errno);
    const std::unique_ptr<int, void (*)(int*)> closing(&fd, [](int* open) { ::close(*open); });
    const Source masterFile = fileSource(fd), outputFile = fileSource(outputFd);
    const auto splice = mp3Master ? mp3(masterFile, outputFile) : wav(masterFile, outputFile);
    if (splice)
        apply(outputFd, *splice);
}

} // namespace Engine::Keep
