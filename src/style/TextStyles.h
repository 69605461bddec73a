// The text styles of the look: each a face, a pixel size and a kern, named once.
#pragma once

#include "style/Fonts.h"

#include <QFont>

namespace Style {

struct TextStyle {
    enum class Face { head, body };
    Face face;
    double size;
    double kern; // points added after every character
};

inline constexpr TextStyle title{TextStyle::Face::head, 18, 0.9};     // "ODRAVEX"
inline constexpr TextStyle subtitle{TextStyle::Face::body, 13, 1.56}; // "ZELKOR"
inline constexpr TextStyle plateText{TextStyle::Face::body, 11, 0.9}; // "EVERY / 30S"
inline constexpr TextStyle heading{TextStyle::Face::head, 14, 1.1};   // "LOG"
inline constexpr TextStyle headline{TextStyle::Face::head, 40, 2.0};  // "DROP"
inline constexpr TextStyle counter{TextStyle::Face::head, 40, 1.6};   // "03/12"
inline constexpr TextStyle label{TextStyle::Face::body, 12, 1.44};    // "TAG", "INTERVAL"
// Every other small text: segments, the tag field, hints, footers, log statuses.
inline constexpr TextStyle smallText{TextStyle::Face::body, 12, 1.2};
inline constexpr TextStyle logText{TextStyle::Face::body, 12, 0.6}; // a log line's name

// The style's face at its size, carrying the kern as its letter spacing (Qt
// adds it after every character, the last one too).
inline QFont font(const TextStyle& style) {
    QFont out = style.face == TextStyle::Face::head ? head(style.size) : body(style.size);
    out.setLetterSpacing(QFont::AbsoluteSpacing, style.kern);
    return out;
}

} // namespace Style
