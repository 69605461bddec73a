// The file-system rules every part shares: numbered names, folders, identities
// and listings by bytes.
#include "base/Files.h"
#include "base/Names.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

TEST(Files, numberedNames) {
    for (const auto& [name, number, numbered] : {std::tuple{u"Voice.WAV"_s, 1, u"Voice.WAV"_s},
                                                 {u"a.b.wav"_s, 10, u"a.b (10).wav"_s},
                                                 {u"notes"_s, 3, u"notes (3)"_s},
                                                 {u".wav"_s, 2, u".wav (2)"_s},
                                                 {u"clip."_s, 2, u"clip (2)."_s}})
        EXPECT_EQ(Files::numberedName(name, number), numbered);
}

TEST(Files, foldersIdentitiesAndNamesListedByTheirBytes) {
    const ::Test::FreshHome home;
    const QString latin1 = Names::decode("voix\xE9.wav"), deep = home.root() + u"/a/"_s + latin1;
    Files::makeFolders(deep + u"/c"_s, 0700);
    struct stat info {};
    ASSERT_EQ(::stat(Names::encode(deep + u"/c"_s).constData(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    try {
        Files::create(deep + u"/file"_s, "x");
        Files::makeFolders(deep + u"/file/sub"_s);
        ADD_FAILURE() << "made a folder under a file";
    } catch (const TagError& error) {
        EXPECT_EQ(error.errorDescription(),
                  u"CAN'T CREATE %1/file/sub: NOT A DIRECTORY"_s.arg(deep));
    }
    const QString path = deep + u"/c/"_s + latin1;
    EXPECT_FALSE(Files::identity(path));
    Files::create(path, "one");
    const std::optional<Files::Identity> first = Files::identity(path);
    ASSERT_TRUE(first && first->regular && first->size == 3);
    Files::replace(path, "two", Files::Sync::cached);
    EXPECT_NE(Files::identity(path), first);
    EXPECT_EQ(Files::read(path, 2), QByteArray("tw"));
    EXPECT_EQ(Files::names(deep + u"/c"_s), QStringList{latin1});
}

} // namespace
