// The file-system rules every part shares: numbered names, claiming one, folders,
// identities, listings by bytes and the order of names.
#include "base/Files.h"
#include "base/Names.h"
#include "support/FreshHome.h"
#include "support/TestSupport.h"

#include <cerrno>
#include <sys/stat.h>

namespace {

const QString kLatin1Name = Names::decode("voix\xE9.wav");

TEST(Files, numberedNames) {
    struct Row {
        QString name;
        int number;
        QString expected;
    };
    for (const Row& row : std::initializer_list<Row>{
             {QStringLiteral("Voice.WAV"), 1, QStringLiteral("Voice.WAV")},
             {QStringLiteral("Voice.WAV"), 2, QStringLiteral("Voice (2).WAV")},
             {QStringLiteral("a.b.wav"), 10, QStringLiteral("a.b (10).wav")},
             {QStringLiteral("notes"), 3, QStringLiteral("notes (3)")},
             {QStringLiteral(".wav"), 2, QStringLiteral(".wav (2)")},
             {QStringLiteral("clip."), 2, QStringLiteral("clip (2).")},
         })
        EXPECT_EQ(Files::numberedName(row.name, row.number), row.expected)
            << row.name.toStdString();
    EXPECT_EQ(Files::numberedName(QStringLiteral("beat (Tagged)"), QStringLiteral("mp3"), 2),
              QStringLiteral("beat (Tagged) (2).mp3"));
    EXPECT_EQ(Files::numberedName(QStringLiteral("beat.x"), QString(), 1),
              QStringLiteral("beat.x"));
}

TEST(Files, claimingGoesOnPastTakenNamesOnlyUpToTheLast) {
    QStringList offered;
    const auto takenTwice = [&](const QString& name) {
        offered << name;
        return offered.size() < 3 ? EEXIST : 0;
    };
    EXPECT_EQ(Files::claimNumbered(QStringLiteral("v.wav"), takenTwice),
              std::pair(QStringLiteral("v (3).wav"), 0));
    EXPECT_EQ(offered, QStringList({QStringLiteral("v.wav"), QStringLiteral("v (2).wav"),
                                    QStringLiteral("v (3).wav")}));
    const auto refused = [](const QString&) { return EACCES; };
    EXPECT_EQ(Files::claimNumbered(QStringLiteral("v"), QStringLiteral("wav"), refused).second,
              EACCES);
    const auto taken = [](const QString&) { return EEXIST; };
    EXPECT_EQ(Files::claimNumbered(QStringLiteral("v.wav"), taken, 4),
              std::pair(QStringLiteral("v (4).wav"), EEXIST));
}

TEST(Files, foldersAreMadeWithTheirParentsOrTheFailureSaysWhich) {
    const ::Test::FreshHome home;
    const QString deep = home.root() + QStringLiteral("/a/") + kLatin1Name + QStringLiteral("/c");
    Files::makeFolders(deep, 0700);
    Files::makeFolders(deep);
    const std::optional<Files::Identity> made = Files::identity(deep);
    ASSERT_TRUE(made && made->folder);
    struct stat info {};
    ASSERT_EQ(::stat(Names::encode(deep).constData(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);

    Files::create(home.root() + QStringLiteral("/file"), "x");
    try {
        Files::makeFolders(home.root() + QStringLiteral("/file/sub"));
        FAIL() << "made a folder under a file";
    } catch (const TagError& error) {
        EXPECT_EQ(error.errorDescription(),
                  QStringLiteral("CAN'T CREATE %1/file/sub: NOT A DIRECTORY").arg(home.root()));
    }
}

TEST(Files, anIdentityChangesWithEveryWriteAndNamesAreListedByTheirBytes) {
    const ::Test::FreshHome home;
    const QString path = home.root() + QLatin1Char('/') + kLatin1Name;
    EXPECT_FALSE(Files::identity(path));
    Files::create(path, "one");
    const std::optional<Files::Identity> first = Files::identity(path);
    ASSERT_TRUE(first && first->regular && first->size == 3);
    Files::replace(path, "two", Files::Sync::cached);
    EXPECT_NE(Files::identity(path), first);
    EXPECT_EQ(Files::read(path, 2), QByteArray("tw"));
    EXPECT_EQ(Files::names(home.root()), QStringList{kLatin1Name});
}

TEST(Files, namesSortByCodePointAfterComposition) {
    QStringList paths{QStringLiteral("/m/b"), Names::decode("/m/\xE9"), QStringLiteral("/m/B"),
                      QString::fromUtf8("/m/e\xCC\x81"), QString::fromUtf8("/m/\xC3\xA9t")};
    Files::sortByName(paths);
    EXPECT_EQ(paths, QStringList({QStringLiteral("/m/B"), QStringLiteral("/m/b"),
                                  QString::fromUtf8("/m/e\xCC\x81"),
                                  QString::fromUtf8("/m/\xC3\xA9t"), Names::decode("/m/\xE9")}));
}

} // namespace
