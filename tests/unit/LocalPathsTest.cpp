#include "system/HXLocalPaths.h"

#include <gtest/gtest.h>

using namespace Qt::Literals::StringLiterals;

namespace {

bool isProtected(const char *path, bool exact)
{
    return HXLocalPaths::isPathSystemDirectory(QString::fromUtf8(path), exact);
}

}  // namespace

TEST(ProtectedDirectoryRule, RootShortAndListedFolders)
{
    for (bool exact : {false, true}) {
        for (const char *path : {"/", "/Volumes", "/Users/Shared", "/Library", "/Library/Caches",
                                 "/Library/Preferences", "/Library/Application Support", "/Applications",
                                 "/Applications/Utilities", "/System/Library", "/Library/Documentation"})
            EXPECT_TRUE(isProtected(path, exact)) << path << " exact=" << exact;
        // Equality is case-sensitive.
        for (const char *path :
             {"", "/a", "ab", "/Volumes/Disk", "/Users/Shared/x", "/Library/Logs", "/library"})
            EXPECT_FALSE(isProtected(path, exact)) << path << " exact=" << exact;
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
    EXPECT_TRUE(HXLocalPaths::isPathSystemDirectory(u"/var/tmp"_s));  // exactMatch defaults to NO
}

TEST(RootRule, RebasesRootFoldersIntoConsoleHome)
{
    const QString anna = u"/Users/anna"_s;
    EXPECT_EQ(HXLocalPaths::rebaseIntoConsoleHome(u"/var/root/Library"_s, u"/var/root"_s, anna),
              u"/Users/anna/Library"_s);
    EXPECT_EQ(HXLocalPaths::rebaseIntoConsoleHome(u"/root/Library/Application Support"_s, u"/root"_s, anna),
              u"/Users/anna/Library/Application Support"_s);
    // Sixteen of the seventeen characters are dropped: one stays in front.
    EXPECT_EQ(HXLocalPaths::rebaseIntoConsoleHome(u"/private/var/root/Library"_s, u"/root"_s, anna),
              u"/Users/anna/t/Library"_s);
    EXPECT_EQ(HXLocalPaths::rebaseIntoConsoleHome(u"/root/Desktop"_s, u"/root"_s, anna + "/"),
              u"/Users/anna/Desktop"_s);
    // Nobody at the console: no folder at all rather than root's own.
    EXPECT_TRUE(HXLocalPaths::rebaseIntoConsoleHome(u"/root/Library"_s, u"/root"_s, QString()).isEmpty());
}

TEST(SearchPaths, MacLayoutForBothDomains)
{
    const QString home = u"/Users/anna"_s;
    EXPECT_EQ(HXLocalPaths::searchPathEntry(HXDirectory::Library, home), u"/Users/anna/Library"_s);
    EXPECT_EQ(HXLocalPaths::searchPathEntry(HXDirectory::Caches, home), u"/Users/anna/Library/Caches"_s);
    EXPECT_EQ(HXLocalPaths::searchPathEntry(HXDirectory::ApplicationSupport, QString()),
              u"/Library/Application Support"_s);
    EXPECT_EQ(HXLocalPaths::searchPathEntry(HXDirectory::AdminApplications, QString()),
              u"/Applications/Utilities"_s);
    EXPECT_EQ(HXLocalPaths::searchPathEntry(HXDirectory::Movies, home), u"/Users/anna/Movies"_s);
    // The machine has no Documents, Desktop or Movies of its own.
    EXPECT_TRUE(HXLocalPaths::searchPathEntry(HXDirectory::Documents, QString()).isEmpty());
    EXPECT_TRUE(HXLocalPaths::searchPathEntry(HXDirectory::Desktop, QString()).isEmpty());
    EXPECT_EQ(HXLocalPaths::prefsDirectory(false), u"/Library/Preferences"_s);
    EXPECT_EQ(HXLocalPaths::logDirectory(false), u"/Library/Logs"_s);
}

TEST(TimeMachineVolume, NeedsVolumesAndExactComponent)
{
    EXPECT_FALSE(HXLocalPaths::isPathOnTimeMachineVolume(u"/Backups.backupdb/x"_s));
    EXPECT_FALSE(HXLocalPaths::isPathOnTimeMachineVolume(u"/Volumes/TM/Backups.backupdb2"_s));
    EXPECT_TRUE(HXLocalPaths::isPathOnTimeMachineVolume(u"/Volumes/TM/Backups.backupdb/host/Latest"_s));
    EXPECT_TRUE(HXLocalPaths::isPathOnTimeMachineVolume(u"/Volumes/TM/Backups.backupdb"_s));
}

TEST(RandomNames, AlphabetLengthAndTempFile)
{
    EXPECT_TRUE(HXLocalPaths::randomString(0).isEmpty());
    const QString text = HXLocalPaths::randomString(64);
    ASSERT_EQ(text.size(), 64);
    for (QChar c : text)
        EXPECT_TRUE((c >= u'a' && c <= u'z') || c.isDigit()) << int(c.unicode());
    const QString temp = HXLocalPaths::tempFile();
    EXPECT_TRUE(temp.startsWith(HXLocalPaths::tempDirectory() + u'/'));
    EXPECT_EQ(temp.size(), HXLocalPaths::tempDirectory().size() + 1 + HXLocalPaths::uuid().size() + 8);
    EXPECT_NE(HXLocalPaths::uuid(), HXLocalPaths::uuid());
}
