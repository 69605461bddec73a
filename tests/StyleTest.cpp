// The look's shared pieces: the faces' names, and SVG resources tinted with
// source-atop.
#include "style/Fonts.h"
#include "style/Image.h"
#include "style/Palette.h"
#include "support/GuiSupport.h"

#include <QPainter>

using namespace Qt::StringLiterals;
using namespace Style;

TEST(StyleResources, aTintLandsOnlyWhereTheImageHasInk) {
    ::Test::guiApplication();
    ::Test::FreshHome home;
    home.setEnv("ZELKOR_RESOURCES", home.root());
    // Tint lands only where the image has ink; a broken image is none. Left
    // half: red at half opacity; right half: nothing.
    ::Test::writeFile(home.root() + u"/broken.svg"_s, "<svg this is not");
    EXPECT_FALSE(image(u"broken"_s));
    ::Test::writeFile(home.root() + u"/half.svg"_s,
                      R"(<svg xmlns="http://www.w3.org/2000/svg" width="20" height="10"
        viewBox="0 0 20 10"><rect width="10" height="10" fill="#FF0000" fill-opacity="0.5"/></svg>)");
    const auto plate = tinted(u"half"_s, rgb(0xFAFAFA, 0.3));
    ASSERT_TRUE(plate);
    QImage canvas(20, 10, QImage::Format_ARGB32);
    canvas.fill(Qt::transparent);
    QPainter painter(&canvas);
    plate->draw(painter, QRectF(0, 0, 20, 10));
    painter.end();
    const QColor inked = canvas.pixelColor(5, 5);
    EXPECT_NEAR(inked.alphaF(), 0.5, 0.02);
    EXPECT_NEAR(inked.red(), qRound(0.3 * 250 + 0.7 * 255), 3);
    EXPECT_NEAR(inked.green(), qRound(0.3 * 250), 3);
    EXPECT_EQ(canvas.pixelColor(15, 5).alpha(), 0);
}

TEST(FontNames, familyAndStyleAreMatchedToPostScriptNames) {
    EXPECT_TRUE(matchesPostScriptName(u"Neutral Face"_s, u"Regular"_s, u"NeutralFaceRegular"_s));
    EXPECT_TRUE(matchesPostScriptName(u"OffBit 101"_s, u"Bold"_s, u"OffBit-101Bold"_s));
    EXPECT_FALSE(matchesPostScriptName(u"OffBit 101"_s, u"Regular"_s, u"OffBit-101Bold"_s));
}
