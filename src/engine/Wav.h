// Reading a WAV's integer or float PCM samples straight into the meter, from a
// file or from ffmpeg's output, in blocks: no more of it is held than one block.
#pragma once

#include "engine/Meter.h"

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <optional>
#include <vector>

namespace Engine::Wav {

struct Format {
    bool floating = false;
    int bits = 0;
    int channels = 0;
    int sampleRate = 0;
    std::uint64_t mask = 0; // WAVE_FORMAT_EXTENSIBLE's channel mask; 0 when none
};

// The samples' format from a fmt chunk's payload: PCM of 8, 16, 24 or 32 bits, or
// float of 32 or 64, plain or extensible; nothing for any other.
std::optional<Format> readFormat(const QByteArray& fmt);

struct Layout {
    QString name; // as ffmpeg names it: "stereo", "5.1(side)", ...
    std::uint64_t mask = 0;
};
// The layout ffmpeg gives a file of this format: its mask's, or when the mask
// does not count the channels, the usual one for their number. Nothing when
// ffmpeg would name it otherwise (a mask of no standard layout, or more than 8
// channels).
std::optional<Layout> layout(const Format& format);

// A RIFF WAVE stream taken in pieces of any size: the header up to the data
// chunk, then the samples into a meter made for them.
class Stream {
public:
    enum class Places {
        guessed, // a file's: channels without a mask are placed by their count, as ffmpeg does
        given,   // ffmpeg's own output: without a mask their places are unknown
    };
    Stream(Places places, bool trailingSilence);

    // False once the stream is refused: not a WAV of a format read here.
    bool feed(const char* bytes, std::size_t size);
    bool refused() const { return m_refused; }
    // Both present once the header has been read.
    const std::optional<Format>& format() const { return m_format; }
    const std::optional<Meter>& meter() const { return m_meter; }

private:
    bool readHeader();
    void decode(const char* bytes, std::size_t size);
    void measure(const char* bytes, std::size_t frames);

    Places m_places;
    bool m_silence;
    bool m_refused = false;
    QByteArray m_pending; // the header so far, then a partial frame
    std::optional<Format> m_format;
    std::optional<Meter> m_meter;
    std::int64_t m_left = -1; // data bytes still to come; -1 for up to the end
};

} // namespace Engine::Wav
