// File names are bytes, and not always UTF-8. A byte that is not part of valid
// UTF-8 decodes to the lone surrogate U+DC00 + byte (which valid UTF-8 never
// gives), so every name survives the trip through a QString. Every path the
// program touches goes through these, never QFile::encodeName (which would turn
// such a byte into U+FFFD, the name of another file).
#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

namespace Names {

QString decode(QByteArrayView bytes);
QByteArray encode(const QString& path);
// The absolute, cleaned form of a path, as QFileInfo::absoluteFilePath gives it,
// without QFileInfo's trip through QFile::encodeName for a relative one.
QString absolute(const QString& path);
// "/music/voice.wav" -> "voice.wav": the part after the last slash.
QString fileName(const QString& path);
// "/music/voice.wav" -> "/music": the absolute folder the name is in.
QString folderOf(const QString& path);

} // namespace Names
