// Font registration and the head and body faces.
#include "style/Fonts.h"

#include "platform/Resources.h"

#include <QDir>
#include <QFontDatabase>
#include <optional>

namespace Style {

namespace {

const QString kHeadName = QStringLiteral("NeutralFaceRegular");
const QString kBodyName = QStringLiteral("OffBit-101Bold");

struct Face {
    QString family;
    QString style;
};

// The faces found for the two names, or the system's fallbacks, at no size yet.
struct Faces {
    QFont head;
    QFont body;
};

QString folded(const QString& text) {
    QString out;
    for (const QChar c : text)
        if (c.isLetterOrNumber())
            out += c.toLower();
    return out;
}

std::optional<Face> findFace(const QString& postScriptName) {
    for (const QString& family : QFontDatabase::families())
        for (const QString& style : QFontDatabase::styles(family))
            if (matchesPostScriptName(family, style, postScriptName))
                return Face{family, style};
    return std::nullopt;
}

Faces lookUp() {
    constexpr int kAnySize = 12;
    Faces faces;
    if (const auto face = findFace(kHeadName))
        faces.head = QFontDatabase::font(face->family, face->style, kAnySize);
    else
        faces.head = QFontDatabase::systemFont(QFontDatabase::GeneralFont);
    if (const auto face = findFace(kBodyName)) {
        faces.body = QFontDatabase::font(face->family, face->style, kAnySize);
    } else {
        faces.body = QFontDatabase::systemFont(QFontDatabase::FixedFont);
        faces.body.setWeight(QFont::Normal);
        faces.body.setItalic(false);
    }
    return faces;
}

// Listing every family is slow on a desktop with many fonts, and the view asks
// for dozens of fonts per pass: the faces are looked up once per registration.
std::optional<Faces>& found() {
    static std::optional<Faces> faces;
    return faces;
}

const Faces& faces() {
    if (!found())
        found() = lookUp();
    return *found();
}

QFont sized(QFont font, double size) {
    font.setPixelSize(std::max(1, qRound(size)));
    return font;
}

} // namespace

bool matchesPostScriptName(const QString& family, const QString& style, const QString& name) {
    const QString wanted = folded(name);
    return folded(family + style) == wanted || folded(family) == wanted;
}

void registerFonts() {
    const QDir folder(Resources::path(QStringLiteral("Fonts")));
    for (const QString& file : folder.entryList(QDir::Files | QDir::Hidden, QDir::Name))
        QFontDatabase::addApplicationFont(folder.filePath(file));
    found() = lookUp();
}

QFont head(double size) {
    return sized(faces().head, size);
}

QFont body(double size) {
    return sized(faces().body, size);
}

} // namespace Style
