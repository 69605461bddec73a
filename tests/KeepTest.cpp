// A master's own ID3 tags and RIFF chunks carried over to its tagged output.
#include "engine/Keep.h"
#include "support/TestSupport.h"

#include <QtEndian>
#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

QByteArray be(quint32 v, int bytes, int bits = 8) {
    QByteArray out;
    for (int i = bytes - 1; i >= 0; --i)
        out += char(v >> bits * i & ((1 << bits) - 1));
    return out;
}
QByteArray le(quint32 v) {
    v = qToLittleEndian(v);
    return QByteArray(reinterpret_cast<const char*>(&v), 4);
}
QByteArray frame(int version, const QByteArray& id, const QByteArray& payload) {
    return id + be(payload.size(), 4, version == 4 ? 7 : 8) + QByteArray(2, '\0') + payload;
}
// A tag of `frames`, padded to `size` bytes of body when that is larger.
QByteArray id3(int version, const QByteArray& frames, int size = 0, char flags = 0) {
    const QByteArray body = frames + QByteArray(std::max<qsizetype>(0, size - frames.size()), 0);
    QByteArray tag = "ID3"_ba + char(version) + '\0' + flags + be(body.size(), 4, 7) + body;
    return flags & 0x10 ? tag + "3DI" + tag.mid(3, 7) : tag;
}
QByteArray chunk(const QByteArray& id, const QByteArray& payload) {
    return id + le(payload.size()) + payload + (payload.size() & 1 ? QByteArray(1, 0) : "");
}
QByteArray riff(const QByteArray& chunks) {
    return "RIFF" + le(4 + chunks.size()) + "WAVE" + chunks;
}
QByteArray text(char encoding, const QByteArray& description, const QByteArray& value) {
    return encoding + description + QByteArray(encoding == 1 ? 2 : 1, 0) + value;
}
QByteArray utf16(const QString& s) {
    return "\xFF\xFE"_ba + QByteArray(reinterpret_cast<const char*>(s.utf16()), s.size() * 2);
}

std::vector<std::pair<QByteArray, QByteArray>> chunksOf(const QByteArray& wav) {
    std::vector<std::pair<QByteArray, QByteArray>> out;
    for (qsizetype at = 12; at + 8 <= wav.size(); at += 8 + ((out.back().second.size() + 1) & ~1))
        out.emplace_back(wav.mid(at, 4),
                         wav.mid(at + 8, qFromLittleEndian<quint32>(wav.data() + at + 4)));
    return out;
}

using Keep = ::Test::TempFolder;

} // namespace

// Figures of the master's loudness, peaks and byte positions go; every other frame stays
// byte for byte, in v2.3 and v2.4, and the tag keeps its size unless it has a footer.
TEST(KeepTags, onlyTheMastersLevelsLeaveItsTagsAndChunks) {
    const QByteArray title3 = frame(3, "TIT2", "\0Beat"_ba), title4 = frame(4, "TIT2", "\3Beat"_ba);
    const QByteArray gain3 = frame(3, "TXXX", text(0, "REPLAYGAIN_TRACK_GAIN", "-6.1 dB"));
    const QByteArray mood = frame(4, "TXXX", text(1, utf16(u"MOOD"_s), utf16(u"dark"_s)));
    const QByteArray peak4 = frame(4, "TXXX", text(1, utf16(u"replaygain_album_peak"_s), ""));
    const QByteArray norm = frame(3, "COMM", "\0engiTunNORM\0 00000A"_ba);
    const QByteArray note = frame(3, "COMM", "\0eng\0great"_ba);
    const QByteArray rva2 = frame(4, "RVA2", "track\0\1\0\0\0"_ba), aspi = frame(4, "ASPI", "x");
    const QByteArray damaged = "ID3\3\0\0\0\0\0\x20"_ba + gain3.left(20);
    for (const auto& [name, tag, expected] :
         std::vector<std::tuple<const char*, QByteArray, QByteArray>>{
             {"v2.3", id3(3, title3 + gain3 + note + norm, 400), id3(3, title3 + note, 400)},
             {"v2.4", id3(4, rva2 + mood + peak4 + title4),
              id3(4, mood + title4, (rva2 + mood + peak4 + title4).size())},
             {"v2.4 footer", id3(4, title4 + peak4 + aspi, 0, 0x10), id3(4, title4, 0, 0x10)},
             {"nothing to drop", id3(3, title3 + note, 100), id3(3, title3 + note, 100)},
             {"damaged", damaged, damaged},
             {"not a tag", "TAG"_ba, "TAG"_ba}})
        EXPECT_EQ(Engine::Keep::withoutLevels(tag).toHex(), expected.toHex()) << name;

    // An MP3 output keeps ffmpeg's tag when the master has none; a WAV output keeps nothing of
    // a master whose chunks are only levels, that is RF64, or that has no data.
    const QByteArray audio = "\xFF\xFB\x90\x00 frames"_ba, v1 = "TAG"_ba.leftJustified(128, 'v');
    const QByteArray ffmpegTag = id3(3, frame(3, "TSSE", "\0Lavf59"_ba));
    const QByteArray fmt = chunk("fmt ", QByteArray(16, 1)), cue = chunk("cue ", "cues"),
                     data = chunk("data", "xy"),
                     own = chunk("fmt ", "24bit") + chunk("data", "abc");
    const QByteArray written = riff(own);
    for (const auto& [name, mp3, master, output, expected] :
         std::vector<std::tuple<const char*, bool, QByteArray, QByteArray, QByteArray>>{
             {"mp3 v1 only", true, "old audio" + v1, ffmpegTag + audio, ffmpegTag + audio + v1},
             {"mp3 untagged", true, "old audio", ffmpegTag + audio, ffmpegTag + audio},
             {"wav fact", false, riff(fmt + chunk("fact", "n") + data + cue), written,
              riff(own + cue)},
             {"wav only levels", false, riff(fmt + chunk("PEAK", "p") + data), written, written},
             {"wav rf64", false, "RF64" + riff(fmt + cue + data).mid(4), written, written},
             {"wav without data", false, riff(fmt + cue), written, written}}) {
        const auto from = Engine::Keep::bytes(master), to = Engine::Keep::bytes(output);
        const auto s = mp3 ? Engine::Keep::mp3(from, to) : Engine::Keep::wav(from, to);
        const QByteArray got =
            s ? s->head + output.mid(s->from, s->to - s->from) + s->tail : output;
        EXPECT_EQ(got.toHex(), expected.toHex()) << name;
    }
}

// Through zelkor-tag: a tagged MP3 and a broadcast WAV keep every frame and chunk, bar their
// loudness figures, and still play the whole track; under 32 kHz an MP3 says its bitrate.
TEST_F(Keep, aTaggedMasterKeepsEveryFrameAndChunk) {
    const QString clip = path(u"clip.wav"_s), plain = path(u"plain.mp3"_s),
                  pcm = path(u"plain.wav"_s), mp3 = path(u"beat.mp3"_s), wav = path(u"beat.wav"_s),
                  low = path(u"low.mp3"_s);
    ::Test::makeAudio(clip, u"sine=frequency=900"_s, 1, 22050, 1);
    ::Test::makeAudio(plain, u"sine=frequency=220"_s, 12);
    ::Test::makeAudio(pcm, u"sine=frequency=220"_s, 12);
    ::Test::makeAudio(low, u"sine=frequency=220"_s, 3, 22050);
    ::Test::ffmpeg(u"-f lavfi -i testsrc=size=32x24 -frames:v 1"_s.split(u' ') << path(u"c.png"_s));
    const QByteArray frames =
        frame(3, "TPE1", "\0Prod A/Prod B"_ba) +
        frame(3, "APIC", "\0image/png\0\3\0"_ba + ::Test::readAll(path(u"c.png"_s)));
    const QByteArray gain = frame(3, "TXXX", text(0, "REPLAYGAIN_TRACK_GAIN", "-7.00 dB"));
    const QByteArray v1 = "TAGBeat"_ba.leftJustified(128, '\0'), audio = ::Test::readAll(plain);
    ::Test::writeFile(
        mp3, id3(3, frames + gain, 2048) +
                 audio.mid(10 + (audio[6] << 21 | audio[7] << 14 | audio[8] << 7 | audio[9])) + v1);
    const auto plainChunks = chunksOf(::Test::readAll(pcm));
    // A bext of version 2 with its five loudness figures, 16-bit each.
    const auto bext = [](const QByteArray& loudness) {
        return QByteArray(346, 'd') + "\2"_ba + '\0' + QByteArray(64, 'u') + loudness +
               QByteArray(180, 0) + "A=PCM,F=44100\r\n";
    };
    const QByteArray tbpm = frame(3, "TBPM", "\0"_ba + "140"), tkey = frame(3, "TKEY", "\0Am"_ba);
    const QByteArray rg = frame(3, "TXXX", text(0, "replaygain_track_gain", "+1.0 dB"));
    const QByteArray list = chunk("LIST", "INFOINAM\5\0\0\0Beat\0\0"_ba);
    ::Test::writeFile(wav, riff(chunk("bext", bext("\xF4\xFF\x05\x00\x64\x00\xF8\xFF\xF9\xFF"_ba)) +
                                chunk("fmt ", plainChunks[0].second) + list +
                                chunk("data", plainChunks.back().second) +
                                chunk("PEAK", QByteArray(24, 1)) +
                                chunk("id3 ", id3(3, tbpm + rg + tkey))));

    const auto run = ::Test::zelkorTag({u"--tag"_s, clip, mp3, wav, low});
    ASSERT_EQ(run.status, 0) << run.out.toStdString() << run.err.toStdString();
    EXPECT_TRUE(run.out.contains(u"low.mp3  1 TAGS  160 KBIT/S  OK  -> "_s));
    EXPECT_TRUE(run.out.contains(u"beat.mp3  1 TAGS  OK  -> "_s)) << run.out.toStdString();
    const QByteArray taggedMp3 = ::Test::readAll(path(u"beat (Tagged).mp3"_s));
    EXPECT_EQ(taggedMp3.left(2058).toHex(), id3(3, frames, 2048).toHex());
    EXPECT_EQ(taggedMp3.right(128), v1);
    EXPECT_NEAR(::Test::samples(path(u"beat (Tagged).mp3"_s), 44100, 2).size(), 12 * 44100 * 2,
                2 * 1152 * 2);

    const QByteArray taggedWav = ::Test::readAll(path(u"beat (Tagged).wav"_s));
    const auto out = chunksOf(taggedWav);
    ASSERT_EQ(out.size(), 5u); // bext, the output's own fmt, LIST, data in 24 bits, id3
    EXPECT_EQ(out[3].second.size(), plainChunks.back().second.size() / 2 * 3);
    EXPECT_TRUE(taggedWav ==
                riff(chunk("bext", bext(QByteArray("\xFF\x7F", 2).repeated(5))) +
                     chunk("fmt ", out[1].second) + list + chunk("data", out[3].second) +
                     chunk("id3 ", id3(3, tbpm + tkey, (tbpm + rg + tkey).size()))));
}
