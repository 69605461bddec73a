// Keeping a master's own tags and chunks on its tagged output: ffmpeg rewrites them
// (an MP3's frames into TXXX, a WAV's INFO and bext blanked) or drops them (ID3v1, cue
// points, loops, iXML), so they are copied from the master into the finished output.
#pragma once

#include <QByteArray>
#include <QString>
#include <functional>
#include <optional>
#include <vector>

namespace Engine::Keep {

// A file to read: up to `length` bytes at `offset`, fewer at its end.
struct Source {
    std::function<QByteArray(qint64 offset, qint64 length)> read;
    qint64 size = 0;
};
Source bytes(const QByteArray& data);
// An open file's bytes, read where asked; the descriptor stays the caller's.
Source fileSource(int fd);

struct Chunk {
    QByteArray id;
    qint64 offset = 0; // of its header
    qint64 size = 0;   // of its payload
};
// A plain RIFF WAVE's chunks in file order. A chunk that runs past the end ends the
// list; data may (a file written as it was recorded, or a stream).
std::optional<std::vector<Chunk>> chunks(const Source& file);

// The output made again: `head`, then the output's bytes [from, to), then `tail`.
struct Splice {
    QByteArray head;
    qint64 from = 0;
    qint64 to = 0;
    QByteArray tail;
};

// An ID3v2 tag without the figures that describe the master's loudness or peaks
// (ReplayGain, relative volume) or its bytes (seek tables), which the output's would
// contradict. Every other frame stays as it is; the tag is returned whole when
// nothing goes or it cannot be read.
QByteArray withoutLevels(const QByteArray& tag);

// The master's ID3v2 tag (in its own version) in place of ffmpeg's, and its ID3v1
// tag at the end. Nothing when the master has neither.
std::optional<Splice> mp3(const Source& master, const Source& output);
// The master's chunks in the master's order around the output's fmt, fact and data;
// PEAK and levl left out, bext's loudness marked unknown. Nothing when the master has
// no chunk to keep, or either file is not a plain RIFF WAVE within 4 GiB.
std::optional<Splice> wav(const Source& master, const Source& output);

// The bitrate of an MP3's audio in kbit/s, read from its second frame (the first is
// LAME's Info frame, whose own header may claim another); 0 when unknown.
int mp3Kbps(const Source& file);
int mp3Kbps(const QString& path);

// Rewrites the finished output in `outputFd` (opened for reading and writing) with the
// master's tags or chunks, when the master is of the output's `format` ("mp3" or
// "wav"). Throws TagError::systemFailed when the output cannot be rewritten.
void keepTags(const QString& master, int outputFd, const QString& format);

} // namespace Engine::Keep
