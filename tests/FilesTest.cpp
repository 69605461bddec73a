// The file-system rules every part shares: numbered names, folders, identities,
// listings by bytes and the order of names.
#include "base/Files.h"
#include "base/Names.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <cerrno>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

TEST(Files, numberedNamesAndAClaimGoingOnPastTakenNamesUpToTheLast) {
    for (const auto& [name, number, numbered] : {std::tuple{u"Voice.WAV"_s, 1, u"Voice.WAV"_s},
                                                 {u"a.b.wav"_s, 10, u"a.b (10).wav"_s},
                                                 {u"notes"_s, 3, u"notes (3)"_s},
                                                 {u".wav"_s, 2, u".wav (2)"_s},
                                                 {u"clip."_s, 2, u"clip (2)."_s}})
        EXPECT_EQ(Files::numberedName(name, number), numbered);
    QStringList offered;
    const auto takenTwice = [&](const QString& name) {
        offered << name;
        return offered.size() < 3 ? EEXIST : 0;
    };
    EXPECT_EQ(Files::claimNumbered(u"v.wav"_s, takenTwice), std::pair(u"v (3).wav"_s, 0));
    EXPECT_EQ(offered, QStringList({u"v.wav"_s, u"v (2).wav"_s, u"v (3).wav"_s}));
    const auto refused = [](const QString&) { return EACCES; };
    EXPECT_EQ(Files::claimNumbered(u"v"_s, u"wav"_s, refused), std::pair(u"v.wav"_s, EACCES));
    const auto taken = [](const QString&) { return EEXIST; };
    EXPECT_EQ(Files::claimNumbered(u"v.wav"_s, taken, 4), std::pair(u"v (4).wav"_s, EEXIST));
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

TEST(Files, namesSortByCodePointAfterComposition) {
    QStringList paths{u"/m/b"_s, Names::decode("/m/\xE9"), u"/m/B"_s, u"/m/e\u0301"_s,
                      u"/m/\u00e9t"_s};
    Files::sortByName(paths);
    EXPECT_EQ(paths, QStringList({u"/m/B"_s, u"/m/b"_s, u"/m/e\u0301"_s, u"/m/\u00e9t"_s,
                                  Names::decode("/m/\xE9")}));
    EXPECT_EQ(Files::orderKey("\xE1\x84\x82\xE1\x85\xA1"), "\xEB\x82\x98"); // jamo composed
}

} // namespace
