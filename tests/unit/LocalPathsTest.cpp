#include "system/HXLocalPaths.h"

#include <gtest/gtest.h>

#include <set>

namespace {

bool isProtected(const char *path, bool exact)
{
    return HXLocalPaths::isPathSystemDirectory(QString::fromUtf8(path), exact);
}

}  // namespace

TEST(ProtectedDirectoryRule, RootShortAndListedFolders)
{
    for (bool exact : {false, true}) {
        SCOPED_TRACE(exact);
        EXPECT_TRUE(isProtected("/", exact));
        EXPECT_FALSE(isProtected("", exact));
        EXPECT_FALSE(isProtected("/a", exact));
        EXPECT_FALSE(isProtected("ab", exact));
        EXPECT_TRUE(isProtected("/Volumes", exact));
        EXPECT_TRUE(isProtected("/Users/Shared", exact));
        EXPECT_TRUE(isProtected("/Library", exact));
        EXPECT_TRUE(isProtected("/Library/Caches", exact));
        EXPECT_TRUE(isProtected("/Library/Preferences", exact));
        EXPECT_TRUE(isProtected("/Library/Application Support", exact));
        EXPECT_TRUE(isProtected("/Applications", exact));
        EXPECT_TRUE(isProtected("/Applications/Utilities", exact));
        EXPECT_TRUE(isProtected("/System/Library", exact));
        EXPECT_TRUE(isProtected("/Library/Documentation", exact));
        EXPECT_FALSE(isProtected("/Volumes/Disk", exact));
        EXPECT_FALSE(isProtected("/Users/Shared/x", exact));
        EXPECT_FALSE(isProtected("/Library/Logs", exact));
        // Case-sensitive equality.
        EXPECT_FALSE(isProtected("/library", exact));
    }
}

TEST(ProtectedDirectoryRule, TrailingSlashDropsTwoCharacters)
{
    EXPECT_FALSE(isProtected("/Users/Shared/", false));  // compared as /Users/Share
    EXPECT_FALSE(isProtected("/Library/", true));        // compared as /Librar
    EXPECT_FALSE(isProtected("/usr/", false));           // compared as /us
    EXPECT_TRUE(isProtected("/Volumesx/", true));        // compared as /Volumes
}

TEST(ProtectedDirectoryRule, SystemTreesOnlyWithoutExactMatch)
{
    EXPECT_TRUE(isProtected("/System/Library/Fonts", false));
    EXPECT_FALSE(isProtected("/System/Library/Fonts", true));
    for (const char *path : {"/usr", "/usr/local/x", "/var", "/variable", "/private/var/db", "/Systemx"}) {
        SCOPED_TRACE(path);
        EXPECT_TRUE(isProtected(path, false));
        EXPECT_FALSE(isProtected(path, true));
    }
    EXPECT_FALSE(isProtected("/opt/usr", false));
    EXPECT_TRUE(
        HXLocalPaths::isPathSystemDirectory(QStringLiteral("/var/tmp")));  // exactMatch defaults to NO
}

TEST(RootRule, RebasesRootFoldersIntoConsoleHome)
{
    const QString anna = QStringLiteral("/Users/anna");
    EXPECT_EQ(HXLocalPaths::rebaseIntoConsoleHome(QStringLiteral("/var/root/Library"),
                                                  QStringLiteral("/var/root"), anna),
              QStringLiteral("/Users/anna/Library"));
    EXPECT_EQ(HXLocalPaths::rebaseIntoConsoleHome(QStringLiteral("/root/Library/Application Support"),
                                                  QStringLiteral("/root"), anna),
              QStringLiteral("/Users/anna/Library/Application Support"));
    // Sixteen of the seventeen characters are dropped: one stays in front.
    EXPECT_EQ(HXLocalPaths::rebaseIntoConsoleHome(QStringLiteral("/private/var/root/Library"),
                                                  QStringLiteral("/root"), anna),
              QStringLiteral("/Users/anna/t/Library"));
    EXPECT_EQ(HXLocalPaths::rebaseIntoConsoleHome(QStringLiteral("/root/Desktop"), QStringLiteral("/root"),
                                                  anna + "/"),
              QStringLiteral("/Users/anna/Desktop"));
    // Nobody at the console: no folder at all rather than root's own.
    EXPECT_TRUE(HXLocalPaths::rebaseIntoConsoleHome(QStringLiteral("/root/Library"), QStringLiteral("/root"),
                                                    QString())
                    .isEmpty());
}

TEST(SearchPaths, MacLayoutForBothDomains)
{
    const QString home = QStringLiteral("/Users/anna");
    EXPECT_EQ(HXLocalPaths::searchPathEntry(HXDirectory::Library, home),
              QStringLiteral("/Users/anna/Library"));
    EXPECT_EQ(HXLocalPaths::searchPathEntry(HXDirectory::Caches, home),
              QStringLiteral("/Users/anna/Library/Caches"));
    EXPECT_EQ(HXLocalPaths::searchPathEntry(HXDirectory::ApplicationSupport, QString()),
              QStringLiteral("/Library/Application Support"));
    EXPECT_EQ(HXLocalPaths::searchPathEntry(HXDirectory::AdminApplications, QString()),
              QStringLiteral("/Applications/Utilities"));
    EXPECT_EQ(HXLocalPaths::searchPathEntry(HXDirectory::Movies, home), QStringLiteral("/Users/anna/Movies"));
    // The machine has no Documents, Desktop or Movies of its own.
    EXPECT_TRUE(HXLocalPaths::searchPathEntry(HXDirectory::Documents, QString()).isEmpty());
    EXPECT_TRUE(HXLocalPaths::searchPathEntry(HXDirectory::Desktop, QString()).isEmpty());
    EXPECT_EQ(HXLocalPaths::prefsDirectory(false), QStringLiteral("/Library/Preferences"));
    EXPECT_EQ(HXLocalPaths::logDirectory(false), QStringLiteral("/Library/Logs"));
}

TEST(TimeMachineVolume, NeedsVolumesAndExactComponent)
{
    EXPECT_FALSE(HXLocalPaths::isPathOnTimeMachineVolume(QStringLiteral("/Backups.backupdb/x")));
    EXPECT_FALSE(HXLocalPaths::isPathOnTimeMachineVolume(QStringLiteral("/Volumes/TM/Backups.backupdb2")));
    EXPECT_TRUE(
        HXLocalPaths::isPathOnTimeMachineVolume(QStringLiteral("/Volumes/TM/Backups.backupdb/host/Latest")));
    EXPECT_TRUE(HXLocalPaths::isPathOnTimeMachineVolume(QStringLiteral("/Volumes/TM/Backups.backupdb")));
}

TEST(RandomNames, AlphabetLengthAndTempFile)
{
    EXPECT_TRUE(HXLocalPaths::randomString(0).isEmpty());
    const QString text = HXLocalPaths::randomString(64);
    ASSERT_EQ(text.size(), 64);
    for (QChar c : text)
        EXPECT_TRUE((c >= QLatin1Char('a') && c <= QLatin1Char('z')) || c.isDigit()) << int(c.unicode());
    const QString temp = HXLocalPaths::tempFile();
    EXPECT_TRUE(temp.startsWith(HXLocalPaths::tempDirectory() + QLatin1Char('/')));
    EXPECT_EQ(temp.size(), HXLocalPaths::tempDirectory().size() + 1 + HXLocalPaths::uuid().size() + 8);
    EXPECT_NE(HXLocalPaths::uuid(), HXLocalPaths::uuid());
}
