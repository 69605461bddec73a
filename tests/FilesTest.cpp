// The file-system rules every part shares: folders made with their parents, the
// reason a folder cannot be made, and listings by bytes.
#include "base/Files.h"
#include "base/Names.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

TEST(Files, foldersAreMadeWithTheirParentsOrTheFailureSaysWhichAndNamesAreListedAsBytes) {
    const ::Test::FreshHome home;
    const QString latin1 = Names::decode("voix\xE9.wav"), deep = home.root() + u"/a/"_s + latin1;
    Files::makeFolders(deep + u"/c"_s, 0700);
    struct stat info {};
    ASSERT_EQ(::stat(Names::encode(deep + u"/c"_s).constData(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    EXPECT_EQ(Files::names(home.root() + u"/a"_s), QStringList{latin1});
    try {
        Files::create(deep + u"/file"_s, "x");
        Files::makeFolders(deep + u"/file/sub"_s);
        ADD_FAILURE() << "made a folder under a file";
    } catch (const TagError& error) {
        EXPECT_EQ(error.errorDescription(),
                  u"CAN'T CREATE %1/file/sub: NOT A DIRECTORY"_s.arg(deep));
    }
}

} // namespace
