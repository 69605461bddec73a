// The tag menu opened by a click on the tag field, and what its items do to
// the real library folder, the selection, the log and the drawn tag row.
#include "model/Tags.h"
#include "style/Palette.h"
#include "support/FreshHome.h"
#include "support/GuiSupport.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

using namespace Style;

class TagMenu : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ::Test::guiApplication(); }

    QString clip(const QString& name) {
        const QString path = Tags::dir() + QLatin1Char('/') + name;
        ::Test::writeFile(path, "RIFF");
        return path;
    }

    // Clicks the tag field and chooses `item`; returns the menu as read, a
    // checked item marked "* ", a separator as "--".
    std::vector<std::string> choose(const QString& item = {}) {
        view.snapshot(1);
        const QRectF field = view.hits().at(0).rect;
        desktop.menus.choose = item;
        ::Test::click(view, field.center());
        EXPECT_EQ(desktop.menus.where.back(), QPointF(field.left(), field.bottom() + 4));
        std::vector<std::string> titles;
        for (const MenuItem& entry : desktop.menus.shown.back())
            titles.push_back(
                entry.separator ? "--" : (entry.checked ? "* " : "") + entry.title.toStdString());
        return titles;
    }

    // The row shows the library's selection, not one read before the change.
    bool rowIsCurrent() {
        const QRect row = view.tagRowRect().toAlignedRect();
        return view.snapshot(1).copy(row) == HUDView(desktop.services()).snapshot(1).copy(row);
    }

    const LogLine& last() const { return view.state().log.back(); }

    ::Test::FreshHome home;
    ::Test::FakeDesktop desktop;
    HUDView view{desktop.services()};
};

TEST_F(TagMenu, anEmptyLibraryOffersAddingAndTheFolder) {
    EXPECT_EQ(choose(QStringLiteral("Show Tags Folder")),
              (std::vector<std::string>{"Add Tag…", "Show Tags Folder"}));
    EXPECT_EQ(desktop.viewer.shown.at(0), QStringList{Tags::dir()});
}

TEST_F(TagMenu, listsTheClipsWithTheSelectedOneCheckedAndPicksAnother) {
    const QString a = clip(QStringLiteral("a.mp3"));
    const QString b = clip(QStringLiteral("b.wav"));
    Tags::setSelected(b);
    EXPECT_EQ(
        choose(QStringLiteral("Show Tags Folder")),
        (std::vector<std::string>{"a", "* b", "--", "Add Tag…", "Remove “b”", "Show Tags Folder"}));
    EXPECT_EQ(desktop.viewer.shown.at(0), QStringList{b});
    choose(QStringLiteral("a"));
    EXPECT_EQ(Tags::selected(), a);
    EXPECT_TRUE(rowIsCurrent());
}

TEST_F(TagMenu, addingAnExistingNameKeepsBothAndArmsTheNumberedCopy) {
    clip(QStringLiteral("voice.mp3"));
    desktop.panels.tag = home.root() + QStringLiteral("/voice.mp3");
    ::Test::writeFile(*desktop.panels.tag, "ID3");
    choose(QStringLiteral("Add Tag…"));
    EXPECT_EQ(last().text, QStringLiteral("TAG ADDED: VOICE (2)"));
    EXPECT_EQ(last().status, QStringLiteral("ARMED"));
    EXPECT_EQ(last().color, purple);
    EXPECT_EQ(Tags::all().size(), 2);
    const QString copy = Tags::dir() + QStringLiteral("/voice (2).mp3");
    EXPECT_EQ(Tags::selected(), copy);
    EXPECT_TRUE(rowIsCurrent());

    desktop.panels.tag = home.root() + QStringLiteral("/gone.WAV");
    choose(QStringLiteral("Add Tag…"));
    EXPECT_EQ(last().text, QStringLiteral("gone.WAV"));
    EXPECT_EQ(last().status, QStringLiteral("CAN'T ADD TAG"));
    EXPECT_EQ(last().color, errColor);
    EXPECT_EQ(Tags::selected(), copy);
}

TEST_F(TagMenu, removingTheSelectedClipFallsBackToTheFirstLeftThenToNone) {
    const QString a = clip(QStringLiteral("a.mp3"));
    const QString b = clip(QStringLiteral("b.wav"));
    Tags::setSelected(b);
    choose(QStringLiteral("Remove “b”"));
    EXPECT_EQ(last().text, QStringLiteral("TAG REMOVED: B"));
    EXPECT_EQ(last().status, QStringLiteral("TRASH"));
    EXPECT_EQ(last().color, dim);
    EXPECT_TRUE(QFileInfo::exists(home.dataHome() + QStringLiteral("/Trash/files/b.wav")));
    EXPECT_EQ(Tags::selected(), a);
    EXPECT_TRUE(rowIsCurrent());

    choose(QStringLiteral("Remove “a”"));
    EXPECT_EQ(Tags::selected(), std::nullopt);
    EXPECT_TRUE(rowIsCurrent());
    EXPECT_EQ(choose().size(), 2u);
}
