// The two typefaces of the look, with the system faces standing in when the
// shipped fonts are absent.
#pragma once

#include <QFont>
#include <QString>

namespace Style {

// Makes every font file in the resources' Fonts folder available to this process.
void registerFonts();

// Sizes are points at scale 1, which Qt draws as pixels.
QFont head(double size); // "NeutralFaceRegular", else the system sans-serif face
QFont body(double size); // "OffBit-101Bold", else the system monospaced face, regular weight

// Whether a face is known by this PostScript name, e.g. "Neutral Face" + "Regular"
// for "NeutralFaceRegular": Qt lists families and styles, not PostScript names.
bool matchesPostScriptName(const QString& family, const QString& style, const QString& name);

} // namespace Style
