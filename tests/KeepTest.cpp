// A master's own ID3 tags and RIFF chunks carried over to its tagged output.
#include "engine/Keep.h"
#include "support/TestSupport.h"

#include <QJsonDocument>
#include <gtest/gtest.h>
#include <optional>
#include <utility>
#include <vector>

using namespace Qt::StringLiterals;
using Engine::Keep::Splice;

namespace {

QByteArray of(std::initializer_list<char> bytes) {
    return QByteArray(bytes.begin(), static_cast<qsizetype>(bytes.size()));
}
QByteArray syncsafe(quint32 v) {
    return of({char(v >> 21 & 0x7F), char(v >> 14 & 0x7F), char(v >> 7 & 0x7F), char(v & 0x7F)});
}
QByteArray be(quint32 v, int bytes) {
    QByteArray out;
    for (int i = bytes - 1; i >= 0; --i)
        out += char(v >> 8 * i & 0xFF);
    return out;
}
QByteArray le(quint32 v) {
    return of({char(v & 0xFF), char(v >> 8 & 0xFF), char(v >> 16 & 0xFF), char(v >> 24)});
}

QByteArray frame(int version, const QByteArray& id, const QByteArray& payload) {
    if (version == 2)
        return id + be(payload.size(), 3) + payload;
    return id + (version == 4 ? syncsafe(payload.size()) : be(payload.size(), 4)) +
           QByteArray(2, '\0') + payload;
}
// A tag of `frames`, padded to `size` bytes of body when that is larger.
QByteArray id3(int version, const QByteArray& frames, int size = 0, char flags = 0) {
    const QByteArray body = frames + QByteArray(std::max<qsizetype>(0, size - frames.size()), 0);
    QByteArray tag = "ID3" + of({char(version), 0, flags}) + syncsafe(body.size()) + body;
    if (flags & 0x10)
        tag += "3DI" + tag.mid(3, 7);
    return tag;
}
QByteArray chunk(const QByteArray& id, const QByteArray& payload) {
    return id + le(payload.size()) + payload + (payload.size() & 1 ? QByteArray(1, 0) : "");
}
QByteArray riff(const QByteArray& chunks) {
    return "RIFF" + le(4 + chunks.size()) + "WAVE" + chunks;
}
// A bext of version 2 whose five loudness figures are `loudness` (16-bit each).
QByteArray bext(const QByteArray& loudness) {
    QByteArray b = QByteArray("Session drums").leftJustified(256, 0) +
                   QByteArray("Prod").leftJustified(32, 0) + QByteArray(32, 'r') + "2026-11-24" +
                   "14:00:00" + le(123456789) + le(0) + QByteArray("\x02\x00", 2) +
                   QByteArray(64, 'u') + loudness + QByteArray(180, 0) + "A=PCM,F=44100\r\n";
    return b;
}

QByteArray spliced(const std::optional<Splice>& s, const QByteArray& output) {
    return s ? s->head + output.mid(s->from, s->to - s->from) + s->tail : output;
}

QByteArray text(char encoding, const QByteArray& description, const QByteArray& value) {
    return encoding + description + (encoding == 1 ? QByteArray(2, 0) : QByteArray(1, 0)) + value;
}
QByteArray utf16(const QString& s) {
    QByteArray out("\xFF\xFE", 2);
    for (QChar c : s)
        out += of({char(c.unicode() & 0xFF), char(c.unicode() >> 8)});
    return out;
}

// A file's chunks as id and payload, in order.
std::vector<std::pair<QByteArray, QByteArray>> chunksOf(const QByteArray& wav) {
    std::vector<std::pair<QByteArray, QByteArray>> out;
    for (qsizetype at = 12; at + 8 <= wav.size();) {
        const quint32 size = quint8(wav[at + 4]) | quint8(wav[at + 5]) << 8 |
                             quint8(wav[at + 6]) << 16 | quint32(quint8(wav[at + 7])) << 24;
        out.emplace_back(wav.mid(at, 4), wav.mid(at + 8, size));
        at += 8 + size + (size & 1);
    }
    return out;
}

using Keep = ::Test::TempFolder;

} // namespace

// Figures of the master's loudness, peaks and byte positions go; every other frame stays
// byte for byte, in every version, and the tag keeps its size unless it has a footer.
TEST(KeepTags, onlyTheMastersLevelsLeaveAnId3Tag) {
    const QByteArray title3 = frame(3, "TIT2", "\0Beat"_ba), title4 = frame(4, "TIT2", "\3Beat"_ba);
    const QByteArray gain3 = frame(3, "TXXX", text(0, "REPLAYGAIN_TRACK_GAIN", "-6.1 dB"));
    const QByteArray mood = frame(4, "TXXX", text(1, utf16(u"MOOD"_s), utf16(u"dark"_s)));
    const QByteArray peak4 = frame(4, "TXXX", text(1, utf16(u"replaygain_album_peak"_s), ""));
    const QByteArray norm = frame(3, "COMM", "\0engiTunNORM\0 00000A"_ba);
    const QByteArray note = frame(3, "COMM", "\0eng\0great"_ba);
    const QByteArray rva2 = frame(4, "RVA2", "track\0\1\0\0\0"_ba), aspi = frame(4, "ASPI", "x");
    const QByteArray tt2 = frame(2, "TT2", "\0Beat"_ba);
    const QByteArray txx = frame(2, "TXX", text(0, "replaygain_track_peak", "0.9"));
    const QByteArray damaged = "ID3\3\0\0\0\0\0\x20"_ba + gain3.left(20);
    const struct {
        const char* name;
        QByteArray tag, expected;
    } rows[] = {
        {"v2.3", id3(3, title3 + gain3 + note + norm, 400), id3(3, title3 + note, 400)},
        {"v2.4", id3(4, rva2 + mood + peak4 + title4),
         id3(4, mood + title4, (rva2 + mood + peak4 + title4).size())},
        {"v2.4 footer", id3(4, title4 + peak4 + aspi, 0, 0x10), id3(4, title4, 0, 0x10)},
        {"v2.2", id3(2, txx + tt2), id3(2, tt2, (txx + tt2).size())},
        {"nothing to drop", id3(3, title3 + note, 100), id3(3, title3 + note, 100)},
        {"damaged", damaged, damaged},
        {"not a tag", "TAG"_ba, "TAG"_ba},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Engine::Keep::withoutLevels(row.tag).toHex().toStdString(),
                  row.expected.toHex().toStdString())
            << row.name;
}

// An MP3 output takes the master's ID3v2 tag for ffmpeg's and the master's ID3v1 at its end;
// a WAV output the master's chunks in their order around its own fmt and data.
TEST(KeepTags, theMastersTagsAndChunksTakeTheirPlacesAroundTheOutputsAudio) {
    const QByteArray audio = "\xFF\xFB\x90\x00 frames"_ba, v1 = "TAG"_ba.leftJustified(128, 'v');
    const QByteArray ffmpegTag = id3(3, frame(3, "TSSE", "\0Lavf59"_ba));
    const QByteArray masterTag = id3(4, frame(4, "TIT2", "\3Beat"_ba), 30);
    const QByteArray fmt16 = chunk("fmt ", QByteArray(16, 1)), fmt24 = chunk("fmt ", "24bit");
    const QByteArray cue = chunk("cue ", QByteArray(28, 2)), info = chunk("LIST", "INFOITRK");
    const QByteArray output = riff(fmt24 + chunk("LIST", "INFOISFTLavf") + chunk("data", "abc"));
    const QByteArray loud = QByteArray("\x10\x00\x20\x00\x30\x00\x40\x00\x50\x00", 10);
    const QByteArray unknown = QByteArray("\xFF\x7F", 2).repeated(5);
    const struct {
        const char* name;
        bool mp3;
        QByteArray master, output, expected;
    } rows[] = {
        {"mp3 both tags", true, masterTag + "old audio" + v1, ffmpegTag + audio,
         masterTag + audio + v1},
        {"mp3 v1 only", true, "old audio" + v1, ffmpegTag + audio, ffmpegTag + audio + v1},
        {"mp3 untagged", true, "old audio", ffmpegTag + audio, ffmpegTag + audio},
        {"wav chunks", false,
         riff(chunk("bext", bext(loud)) + fmt16 + chunk("fact", "n") + info +
              chunk("data", "xyzw") + chunk("PEAK", "p") + cue),
         output, riff(chunk("bext", bext(unknown)) + fmt24 + info + chunk("data", "abc") + cue)},
        {"wav only levels", false, riff(fmt16 + chunk("PEAK", "p") + chunk("data", "xy")), output,
         output},
        {"wav rf64", false, "RF64" + riff(fmt16 + cue + chunk("data", "xy")).mid(4), output,
         output},
        {"wav without data", false, riff(fmt16 + cue), output, output},
    };
    for (const auto& row : rows) {
        const auto master = Engine::Keep::bytes(row.master), out = Engine::Keep::bytes(row.output);
        const auto splice =
            row.mp3 ? Engine::Keep::mp3(master, out) : Engine::Keep::wav(master, out);
        EXPECT_EQ(spliced(splice, row.output).toHex().toStdString(),
                  row.expected.toHex().toStdString())
            << row.name;
    }
}

// Through zelkor-tag: a richly tagged MP3 and a broadcast WAV keep every frame and chunk,
// bar their loudness figures, and still play the whole track.
TEST_F(Keep, aTaggedMasterKeepsEveryFrameAndChunk) {
    const QString clip = path(u"clip.wav"_s), plain = path(u"plain.mp3"_s),
                  pcm = path(u"plain.wav"_s), mp3 = path(u"beat.mp3"_s), wav = path(u"beat.wav"_s);
    ::Test::makeAudio(clip, u"sine=frequency=900"_s, 1, 22050, 1);
    ::Test::makeAudio(plain, u"sine=frequency=220"_s, 12);
    ::Test::makeAudio(pcm, u"sine=frequency=220"_s, 12);
    ::Test::ffmpeg(u"-f lavfi -i testsrc=size=32x24 -frames:v 1"_s.split(u' ') << path(u"c.png"_s));
    const QByteArray picture = ::Test::readAll(path(u"c.png"_s));
    const QByteArray frames =
        frame(3, "TPE1", "\0Prod A/Prod B"_ba) + frame(3, "COMM", "\0eng\0Mixed loud"_ba) +
        frame(3, "USLT", "\0eng\0la la"_ba) + frame(3, "POPM", "me@x\0\xC4\0\0\0\x07"_ba) +
        frame(3, "UFID", "http://store\0id-42"_ba) + frame(3, "WOAS", "https://store/beat"_ba) +
        frame(3, "APIC", "\0image/png\0\3\0"_ba + picture);
    const QByteArray gain = frame(3, "TXXX", text(0, "REPLAYGAIN_TRACK_GAIN", "-7.00 dB"));
    const QByteArray v1 = "TAGBeat"_ba.leftJustified(128, '\0');
    const QByteArray audio = ::Test::readAll(plain);
    const qsizetype own = 10 + (quint8(audio[6]) << 21 | quint8(audio[7]) << 14 |
                                quint8(audio[8]) << 7 | quint8(audio[9]));
    ::Test::writeFile(mp3, id3(3, frames + gain, 2048) + audio.mid(own) + v1);

    const auto plainChunks = chunksOf(::Test::readAll(pcm));
    const QByteArray samples = plainChunks.back().second;
    const QByteArray tbpm = frame(3, "TBPM",
                                  "\0"
                                  "140"_ba),
                     tkey = frame(3, "TKEY", "\0Am"_ba);
    const QByteArray rg = frame(3, "TXXX", text(0, "replaygain_track_gain", "+1.0 dB"));
    const QByteArray unknown = QByteArray("\xFF\x7F", 2).repeated(5);
    // Each chunk as the master has it and as the output must: in order, data at its place.
    const std::vector<std::pair<QByteArray, std::pair<QByteArray, QByteArray>>> master{
        {"bext", {bext(QByteArray("\xF4\xFF\x05\x00\x64\x00\xF8\xFF\xF9\xFF", 10)), bext(unknown)}},
        {"fmt ", {plainChunks[0].second, {}}},
        {"LIST",
         {"INFOINAM\5\0\0\0Beat\0\0ITRK\2\0\0\0"
          "7\0ISFT\4\0\0\0DAW\0"_ba,
          {}}},
        {"cue ", {le(1) + le(1) + le(0) + "data" + le(0) + le(0) + le(44100), {}}},
        {"data", {samples, {}}},
        {"PEAK", {QByteArray(24, 1), {}}},
        {"LIST", {"adtllabl"_ba + le(9) + le(1) + "Drop\0"_ba, {}}},
        {"smpl",
         {QByteArray(28, 0) + le(1) + le(0) + le(0) + le(0) + le(1000) + le(9000) + le(0) + le(0),
          {}}},
        {"acid", {le(1) + "\x3C\0"_ba + QByteArray(6, 0) + le(8) + "\4\0\4\0\0\0\x0C\x43"_ba, {}}},
        {"iXML", {"<BWFXML><PROJECT>Beat</PROJECT></BWFXML>"_ba, {}}},
        {"id3 ", {id3(3, tbpm + rg + tkey), id3(3, tbpm + tkey, (tbpm + rg + tkey).size())}}};
    QByteArray chunks;
    for (const auto& [id, payloads] : master)
        chunks += chunk(id, payloads.first);
    ::Test::writeFile(wav, riff(chunks));

    const auto run = ::Test::zelkorTag({u"--tag"_s, clip, mp3, wav});
    ASSERT_EQ(run.status, 0) << run.out.toStdString() << run.err.toStdString();
    const QByteArray taggedMp3 = ::Test::readAll(path(u"beat (Tagged).mp3"_s));
    const QByteArray tag = id3(3, frames, 2048);
    EXPECT_EQ(taggedMp3.left(tag.size()).toHex(), tag.toHex());
    EXPECT_EQ(taggedMp3.right(128), v1);
    EXPECT_NEAR(::Test::samples(path(u"beat (Tagged).mp3"_s), 44100, 2).size(), 12 * 44100 * 2,
                2 * 1152 * 2);

    const auto out = chunksOf(::Test::readAll(path(u"beat (Tagged).wav"_s)));
    std::vector<QByteArray> ids, expected;
    for (const auto& [id, payload] : out)
        ids.push_back(id);
    for (const auto& [id, payloads] : master)
        if (id != "PEAK")
            expected.push_back(id);
    ASSERT_EQ(ids, expected);
    for (std::size_t i = 0, o = 0; i < master.size(); ++i) {
        const auto& [id, payloads] = master[i];
        if (id == "PEAK")
            continue;
        const QByteArray& got = out[o++].second;
        if (id == "data") { // the output's own audio, in 24 bits
            EXPECT_EQ(got.size(), samples.size() / 2 * 3);
        } else if (id != "fmt ") {
            const QByteArray& want = payloads.second.isNull() ? payloads.first : payloads.second;
            EXPECT_EQ(got.toHex(), want.toHex()) << id.constData();
        }
    }
}

// Under 32 kHz an MP3 cannot carry 320 kbit/s: its line and its JSON say what it got.
TEST_F(Keep, anMp3SaysTheBitrateItsSampleRateAllows) {
    const QString clip = path(u"clip.wav"_s), low = path(u"low.mp3"_s), high = path(u"high.mp3"_s);
    ::Test::makeAudio(clip, u"sine=frequency=900"_s, 1, 22050, 1);
    ::Test::makeAudio(low, u"sine=frequency=220"_s, 3, 22050);
    ::Test::makeAudio(high, u"sine=frequency=220"_s, 3);
    const auto text = ::Test::zelkorTag({u"--tag"_s, clip, low, high});
    EXPECT_TRUE(text.out.contains(u"low.mp3  1 TAGS  160 KBIT/S  OK  -> "_s))
        << text.out.toStdString();
    EXPECT_TRUE(text.out.contains(u"high.mp3  1 TAGS  OK  -> "_s)) << text.out.toStdString();
    const auto json = ::Test::zelkorTag({u"--tag"_s, clip, u"--json"_s, low, high});
    const QStringList lines = json.out.split(u'\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 2) << json.out.toStdString();
    EXPECT_EQ(QJsonDocument::fromJson(lines[0].toUtf8())[u"bitrate_kbps"_s].toInt(), 160);
    EXPECT_FALSE(QJsonDocument::fromJson(lines[1].toUtf8()).object().contains(u"bitrate_kbps"_s));
}
